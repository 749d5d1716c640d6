// Message reception: DATA opens the scan file with its Received line, the
// body is read piece by piece into it with dot-stuffing undone, and the end of
// data hands the file to the spam check. Nothing is answered for the message
// here: the verdicts and the relay decide what the sender hears.
#include <arpa/inet.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "foundation/fd.h"
#include "foundation/text.h"
#include "scan/header.h"
#include "scan/spam.h"
#include "scan/verdict.h"
#include "smtp/backend.h"
#include "smtp/config.h"
#include "smtp/smtp.h"

namespace {

constexpr int DATA_PIECE_MAX = 5000;
constexpr char TERMINATOR[] = ".\r\n";
constexpr size_t TERMINATOR_LENGTH = 3;
constexpr char CTE_FIELD[] = "Content-Transfer-Encoding:";
constexpr size_t CTE_FIELD_LENGTH = sizeof(CTE_FIELD) - 1;

bool ends_with(const DynString* s, const char* tail, size_t n) {
  return static_cast<size_t>(s->length) >= n && memcmp(s->data + s->length - n, tail, n) == 0;
}

// True when the whole piece went into the file.
bool store(Connection* conn, const char* bytes, size_t n) {
  return fwrite(bytes, 1, n, conn->scan_file) == n;
}

// Content-Transfer-Encoding: binary means the body is not dot-stuffed text,
// so its leading dots are message bytes and stay as they are.
void watch_transfer_encoding(Connection* conn, const DynString* piece) {
  if (static_cast<size_t>(piece->length) < CTE_FIELD_LENGTH ||
      strncasecmp(piece->data, CTE_FIELD, CTE_FIELD_LENGTH) != 0)
    return;
  char* value = strndup(piece->data + CTE_FIELD_LENGTH, piece->length - CTE_FIELD_LENGTH);
  if (value == nullptr) fatal_exit("Out of memory: %m\n");
  char* trimmed = str_trim(value);
  dlog(DLOG_SMTP, 9, "Content-Transfer_encoding: %s\n", trimmed);
  if (strncasecmp(trimmed, "binary", 6) == 0) conn->binary_body = true;
  free(value);
}

// A 451 for a scan file that could not be made; the envelope stays so the
// sender may try DATA again.
int refuse_data(Connection* conn, const char* reply) {
  smtp_reply(conn, reply);
  dlog(DLOG_SMTP, 4, "%p response to DATA: %.*s\n", log_ptr(conn),
       static_cast<int>(strlen(reply) - 2), reply);
  return conn->closed;
}

// The scan file could not take the whole piece: the message is lost, so the
// sender is told at once and the rest of its input is read as commands.
void scan_file_write_failed(Connection* conn) {
  if (!smtp_reply_and_resume(conn, "451 Internal Error\r\n")) return;
  dlog(DLOG_SMTP, 4, "%p, response to DATA: 451 Internal Error\n", log_ptr(conn));
  dlog(DLOG_SMTP, 3, "%p, Error writing scanfile %s: %m\n", log_ptr(conn),
       conn->scan_file_name->data);
  close_backend(conn);
}

}  // namespace

int smtp_data(const DynString*, Connection* conn) {
  if (conn->transaction_pending) {
    smtp_reply(conn, "501 Mail transaction pending\r\n");
    return conn->closed;
  }
  if (conn->num_rcpts == 0) {
    smtp_reply(conn, "503 Need RCPT\r\n");
    dlog(DLOG_SMTP, 4, "%p response to DATA: 503 Need RCPT\n", log_ptr(conn));
    conn->errors += 1;
    return conn->closed;
  }
  if (conn->scan_file_name != nullptr) {
    dstr_free(conn->scan_file_name);
    conn->scan_file_name = nullptr;
    dlog(DLOG_SMTP, 1, "Weird state. Non-null scan_file_name\n");
  }
  char* name = nullptr;
  xasprintf(&name, "%s/%sXXXXXX", config.scan_dir, config.scan_prefix);
  conn->scan_file_name = smtp_checked(dstr_from_cstr(name));
  free(name);
  if (conn->scan_file != nullptr) {
    fclose(conn->scan_file);
    conn->scan_file = nullptr;
    dlog(DLOG_SMTP, 1, "Weird state. Scan file already open\n");
  }

  int fd = mkstemp(conn->scan_file_name->data);
  if (fd < 0) {
    dlog(DLOG_SMTP, 1, "mkstemp error: %m File %s\n", conn->scan_file_name->data);
    return refuse_data(conn, "451 Couldn't open temporary file\r\n");
  }
  dlog(DLOG_SMTP, 9, "smtp_data: scan_file: fd: %d, name: %s\n", fd, conn->scan_file_name->data);
  if (fchmod(fd, 0660) < 0) {
    dlog(DLOG_SMTP, 1, "Can't chmod scanfile: %m\n");
    close(fd);
    return refuse_data(conn, "451 Couldn't change temporary file mode\r\n");
  }
  conn->scan_file = fdopen(fd, "w+");
  if (conn->scan_file == nullptr) {
    close(fd);
    return refuse_data(conn, "451 Couldn't open temporary file\r\n");
  }

  time_t now = comm_current_time();
  char* date = rfc822_date(&now);
  char by[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &conn->my_sender_addr.sin_addr, by, sizeof(by));
  fprintf(conn->scan_file, "Received: from [%s] by [%s] with ESMTP; %s\r\n",
          inet_ntoa(conn->sender_addr.sin_addr), by, date);
  free(date);

  conn->newline = true;
  conn->unstuffed = false;
  conn->binary_body = false;
  conn->in_header = true;
  conn->bytes_received = 0;
  if (!smtp_reply(conn, "354 Send it to me, end with <CRLF>.<CRLF>\r\n")) return 1;
  dlog(DLOG_SMTP, 4, "%p response to DATA: 354 Send it to me.\n", log_ptr(conn));
  reset_idle_timer(conn);
  comm_read(conn->sender_fd, data_handler, conn);
  return 1;
}

void data_handler(int fd, void* data) {
  auto* conn = static_cast<Connection*>(data);
  dlog(DLOG_SMTP, 9, "Inside data_handler\n");
  if (conn == nullptr || conn->closed) return;
  reset_idle_timer(conn);
  bool end_seen = false;
  // The client that declared SIZE and ends its last text line directly with
  // ".\r\n": those three bytes are held back until it is clear whether more
  // follows (they were text) or the socket runs dry (they ended the data).
  bool ms_pending = false;

  for (;;) {
    DynString* piece = command_line;
    piece->length = 0;
    piece->data[0] = '\0';
    errno = 0;
    if (lstream_readline(piece, conn->sender_stream, '\n', DATA_PIECE_MAX) < 0) {
      if (ms_pending && errno == EAGAIN) {
        dlog(DLOG_SMTP, 5, "%p, MS end of data encountered, stop reading data\n", log_ptr(conn));
        if (!store(conn, "\r\n", 2)) {
          scan_file_write_failed(conn);
          return;
        }
        finish_data(conn);
      } else if (is_transient_errno(errno)) {
        reset_idle_timer(conn);
        comm_read(fd, data_handler, conn);
      } else {
        dlog(DLOG_SMTP, 3, "%p, Error receiving client data: %m. Closing connection\n",
             log_ptr(conn));
        close_connection(conn);
      }
      return;
    }
    if (piece->length == 0) {
      dlog(DLOG_SMTP, 4, "%p, Connection closed by peer while receiving data.", log_ptr(conn));
      close_connection(conn);
      return;
    }
    conn->bytes_received += piece->length;

    if (conn->newline) {
      if (is_blank(piece)) {
        conn->in_header = false;
        dlog(DLOG_SMTP, 9, "End of MIME header\n");
      }
      if (static_cast<size_t>(piece->length) == TERMINATOR_LENGTH &&
          memcmp(piece->data, TERMINATOR, TERMINATOR_LENGTH) == 0) {
        end_seen = true;
        dlog(DLOG_SMTP, 9, "%p, normal end of data encountered, done fetching.\n", log_ptr(conn));
      }
    }
    if (conn->in_header && conn->newline) watch_transfer_encoding(conn, piece);

    if (!end_seen && !ms_pending && conn->declared_size > 0 &&
        conn->bytes_received == conn->declared_size + 3 &&
        ends_with(piece, TERMINATOR, TERMINATOR_LENGTH)) {
      dlog(DLOG_SMTP, 9, "%p, MS end of data encountered, continue to read.\n", log_ptr(conn));
      ms_pending = true;
      if (!store(conn, piece->data, piece->length - TERMINATOR_LENGTH)) {
        scan_file_write_failed(conn);
        return;
      }
      continue;
    }
    bool at_line_start = conn->newline;
    conn->newline = piece->data[piece->length - 1] == '\n';
    if (ms_pending) {
      dlog(DLOG_SMTP, 9, "%p, Adding stripped .<CR><LF> back to the data stream.\n", log_ptr(conn));
      ms_pending = false;
      if (!store(conn, TERMINATOR, TERMINATOR_LENGTH)) {
        scan_file_write_failed(conn);
        return;
      }
    }
    if (end_seen) {
      finish_data(conn);
      return;
    }

    // Only a piece that starts a line can carry a stuffing dot: the tail of
    // a line longer than a piece may begin with ".." as plain text.
    const char* bytes = piece->data;
    size_t n = piece->length;
    if (!conn->binary_body && at_line_start && n >= 2 && bytes[0] == '.' && bytes[1] == '.') {
      bytes += 1;
      n -= 1;
      conn->unstuffed = true;
    }
    if (!store(conn, bytes, n)) {
      scan_file_write_failed(conn);
      return;
    }
  }
}

void finish_data(Connection* conn) {
  fclose(conn->scan_file);
  conn->scan_file = nullptr;
  free(conn->msgid);
  conn->msgid = header_field_value("message-id:", conn->scan_file_name->data);
  dlog(DLOG_SMTP, 5, "%p, Start scanning email (msgid=%s)\n", log_ptr(conn),
       conn->msgid != nullptr ? conn->msgid : "(null)");
  timer_cancel_slot(&conn->idle_timer);
  timer_cancel_slot(&conn->scan_timer);

  if (config.as_connections == 0) {
    spam_callback(conn, 0);
    return;
  }
  if (conn->spam_request != nullptr) spam_cancel(conn->spam_request);
  conn->spam_request = nullptr;
  conn->scan_timer = timer_add(config.scanner_timeout, spam_scan_timeout, conn);
  conn->spam_request = spam_scan(spam_callback, conn, conn->scan_file_name->data, conn->msgid,
                                 conn->from != nullptr ? conn->from->data : nullptr,
                                 config.max_spam_scan_size, config.spam_bypass);
  dlog(DLOG_SMTP, 7, "New spam request %p for connection %p\n",
       static_cast<void*>(conn->spam_request), log_ptr(conn));
}

void av_scan_timeout(void* data) {
  auto* conn = static_cast<Connection*>(data);
  dlog(DLOG_SMTP, 3, "AV scan timed out on connection %p\n", data);
  if (conn == nullptr || conn->closed) return;
  conn->scan_timer = nullptr;
  virus_callback(SCAN_TIMEOUT, conn);
}

void spam_scan_timeout(void* data) {
  auto* conn = static_cast<Connection*>(data);
  if (conn == nullptr || conn->closed) return;
  dlog(DLOG_SMTP, 3, "Spam scan timed out on connection %p, scan file=%s\n", data,
       conn->scan_file_name != nullptr ? conn->scan_file_name->data : "(null)");
  conn->scan_timer = nullptr;
  spam_callback(conn, 0);
}
