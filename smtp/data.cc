// Message reception: DATA opens the scan file with its Received line, the
// body is decoded piece by piece into it, and the end of data either refuses
// the message (too large, bare line ends when those are refused, not stored
// whole) or hands the complete file to the spam check. The sender's answer
// for a message that goes on to be scanned comes from the verdicts and the
// relay.
#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "foundation/fd.h"
#include "foundation/text.h"
#include "scan/header.h"
#include "scan/spam.h"
#include "smtp/config.h"
#include "smtp/smtp.h"
#include "smtp/verdict.h"

namespace {

constexpr int DATA_PIECE_MAX = 5000;
// Body bytes taken per readiness event before the loop serves others: four
// reads' worth, so a large body costs a loop pass per 256 KiB rather than per
// read, while no sender holds the loop for more than a fraction of a
// millisecond.
constexpr int64_t DATA_BYTES_PER_EVENT = 262144;
constexpr size_t HEADER_COPY_MAX = 65536;
constexpr const char* SIZE_REFUSAL = "552 Message size exceeds fixed maximum message size\r\n";
constexpr const char* BARE_REFUSAL = "550 Message contains bare CR or LF\r\n";
constexpr const char* STORE_REFUSAL = "451 Internal Error\r\n";

// A 451 for a scan file that could not be made; the envelope stays so the
// sender may try DATA again.
int refuse_data(Connection* conn, const char* reply) {
  smtp_reply(conn, reply);
  dlog(DLOG_SMTP, 4, "%p response to DATA: %.*s\n", log_ptr(conn),
       static_cast<int>(strlen(reply) - 2), reply);
  return conn->closed;
}

// Once a message is refused, the rest of its body is still read up to its
// end of data, so that no body line is ever taken for a command, but nothing
// more is stored.
void refuse_rest(Connection* conn, Message* m, const char* reply, const char* why) {
  if (m->refusal != nullptr) return;
  m->refusal = reply;
  dlog(DLOG_SMTP, 3, why, log_ptr(conn), m->file->name.c_str());
}

// The scan file could not take the bytes: a full disk, say.
void refuse_store(Connection* conn, Message* m) {
  refuse_rest(conn, m, STORE_REFUSAL, "%p, Error writing scanfile %s: %m\n");
}

// The header is copied aside while it streams in, up to its empty line; a
// header too long for the copy is read back from the file at the end.
void copy_header(Message* m, const char* p, size_t n) {
  if (m->header.size() + n > HEADER_COPY_MAX) {
    m->header_done = m->header_long = true;
    m->header = std::string();
    return;
  }
  const bool line_start = m->header.empty() || m->header.back() == '\n';
  m->header.append(p, n);
  m->header_done = line_start && n == 2 && p[0] == '\r' && p[1] == '\n';
}

// The file goes to the backend as it is, plus ".\r\n", unless a stored line
// starts with a dot: the decoder leaves only CR LF line ends, and the pieces
// are single lines, so only a piece's first byte can start one, except after
// bytes that the SIZE rule had held back were put in front of it.
void note_dot_lines(Message* m, const std::string& b, size_t before, bool line_start,
                    bool was_held) {
  if (m->dot_lines || b.size() == before) return;
  const char* p = b.data() + before;
  m->dot_lines = (line_start && p[0] == '.') ||
                 (was_held && memmem(p, b.size() - before, "\n.", 2) != nullptr);
}

// Decoded bytes are appended to the scan file's own buffer (from `before`
// on); this takes them into the file, or drops them once the message is
// refused.
void store_content(Connection* conn, Message* m, size_t before) {
  std::string* b = spool_buffer(m->file.get());
  if (!m->header_done && b->size() > before) copy_header(m, b->data() + before, b->size() - before);
  if (m->refusal != nullptr)
    b->clear();
  else if (!spool_sync(m->file.get()))
    refuse_store(conn, m);
}

// The limits that apply while the body streams in.
void check_body(Connection* conn, Message* m) {
  const int64_t held = m->rx.held ? 3 : 0;
  if (m->rx.bytes - held > config.max_msg_size)
    refuse_rest(conn, m, SIZE_REFUSAL, "%p, message larger than max_msg_size, %s not kept\n");
  if (m->rx.bare_seen && config.bare_line_ends == BareLineEnds::REJECT)
    refuse_rest(conn, m, BARE_REFUSAL, "%p, bare CR or LF in the message, %s not kept\n");
}

void end_of_data(Connection* conn, Message* m) {
  if (m->refusal == nullptr && !spool_finish(m->file.get())) refuse_store(conn, m);
  if (m->refusal == nullptr) {
    finish_data(conn);
    return;
  }
  const char* reply = m->refusal;
  if (!smtp_reply(conn, reply)) return;
  dlog(DLOG_SMTP, 4, "%p, response to DATA: %.*s\n", log_ptr(conn),
       static_cast<int>(strlen(reply) - 2), reply);
  txn_answered(conn, false);
}

}  // namespace

int smtp_data(const DynString*, Connection* conn) {
  if (conn->transaction_pending) {
    smtp_reply(conn, "501 Mail transaction pending\r\n");
    return conn->closed;
  }
  if (conn->txn == nullptr || conn->txn->rcpts.empty()) {
    smtp_reply(conn, "503 Need RCPT\r\n");
    dlog(DLOG_SMTP, 4, "%p response to DATA: 503 Need RCPT\n", log_ptr(conn));
    conn->errors += 1;
    return conn->closed;
  }
  Transaction* txn = conn->txn.get();
  // Every message ends with its final reply; one still here would be a bug,
  // and its files go before a new one is made.
  if (txn->msg != nullptr) {
    dlog(DLOG_SMTP, 1, "Weird state. Non-null scan_file_name\n");
    txn_end_message(conn);
  }

  CharsPtr name;
  {
    char* text = nullptr;
    xasprintf(&text, "%s/%sXXXXXX", config.scan_dir, config.scan_prefix);
    name.reset(text);
  }
  int fd = mkstemp(name.get());
  if (fd < 0) {
    dlog(DLOG_SMTP, 1, "mkstemp error: %m File %s\n", name.get());
    return refuse_data(conn, "451 Couldn't open temporary file\r\n");
  }
  dlog(DLOG_SMTP, 9, "smtp_data: scan_file: fd: %d, name: %s\n", fd, name.get());
  SpoolPtr file(spool_adopt(fd, name.get()));
  if (fchmod(fd, 0660) < 0) {
    dlog(DLOG_SMTP, 1, "Can't chmod scanfile: %m\n");
    return refuse_data(conn, "451 Couldn't change temporary file mode\r\n");
  }
  auto* m = new (std::nothrow) Message{};
  if (m == nullptr) fatal_exit("Out of memory: %m\n");
  txn->msg.reset(m);
  m->file = std::move(file);
  m->rx.log_id = conn;
  m->rx.declared_size = txn->declared_size;

  time_t now = comm_current_time();
  CharsPtr date(rfc822_date(&now));
  char from[INET_ADDRSTRLEN], by[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &conn->sender_addr.sin_addr, from, sizeof from);
  inet_ntop(AF_INET, &conn->my_sender_addr.sin_addr, by, sizeof by);
  char* received = nullptr;
  int n =
      xasprintf(&received, "Received: from [%s] by [%s] with ESMTP; %s\r\n", from, by, date.get());
  std::string* b = spool_buffer(m->file.get());
  b->assign(received, static_cast<size_t>(n - 1));
  free(received);
  store_content(conn, m, 0);

  if (!smtp_reply(conn, "354 Send it to me, end with <CRLF>.<CRLF>\r\n")) return 1;
  dlog(DLOG_SMTP, 4, "%p response to DATA: 354 Send it to me.\n", log_ptr(conn));
  txn->phase = TxnPhase::RECEIVING;
  reset_idle_timer(conn);
  smtp_read_sender(conn, data_handler);
  return 1;
}

namespace {

// The sender has nothing more for now, or reading failed: the SIZE rule may
// end the data here; otherwise wait, or drop the connection.
void read_stopped(int fd, Connection* conn, Message* m, int err) {
  size_t before = spool_buffer(m->file.get())->size();
  if (err == EAGAIN && dot_decode_idle(&m->rx, spool_buffer(m->file.get())) == DotResult::END) {
    store_content(conn, m, before);
    end_of_data(conn, m);
  } else if (is_transient_errno(err)) {
    reset_idle_timer(conn);
    comm_read(fd, data_handler, conn);
  } else {
    errno = err;
    dlog(DLOG_SMTP, 3, "%p, Error receiving client data: %m. Closing connection\n", log_ptr(conn));
    close_connection(conn);
  }
}

// Past the header, the body's plain lines go from the stream's bytes to the
// scan file as they are; no line taken here starts with a dot. Returns the
// bytes taken (0: the next one goes piece by piece), or -1 when the
// connection is done with (the handler has run its course).
int64_t take_bulk(int fd, Connection* conn, Message* m) {
  const DotDecoder& d = m->rx;
  if (!m->header_done || !d.newline || !d.after_crlf || d.pending_cr || d.held) return 0;
  LineStream* stream = conn->sender_stream.get();
  const char* p = nullptr;
  errno = 0;
  int n = lstream_peek(stream, &p, '\n');
  if (n < 0) {
    read_stopped(fd, conn, m, errno);
    return -1;
  }
  // The whole read is offered, even past the handler's budget: what is left
  // of it would otherwise be copied aside until the next pass.
  size_t used = dot_decode_bulk(&m->rx, p, static_cast<size_t>(n));
  if (used > 0) {
    check_body(conn, m);
    // The lines go to the file from the stream's own buffer: no copy of a
    // large body passes through the file's buffer.
    if (m->refusal == nullptr && !spool_write(m->file.get(), p, used)) refuse_store(conn, m);
  }
  if (lstream_consume(stream, static_cast<int>(used)) != 0) {
    dlog(DLOG_SMTP, 1, "%p, Out of memory receiving client data. Closing connection\n",
         log_ptr(conn));
    close_connection(conn);
    return -1;
  }
  return static_cast<int64_t>(used);
}

}  // namespace

void data_handler(int fd, void* data) {
  auto* conn = static_cast<Connection*>(data);
  dlog(DLOG_SMTP, 9, "Inside data_handler\n");
  Message* m = txn_message(conn);
  if (m == nullptr) return;
  reset_idle_timer(conn);

  for (int64_t taken = 0;;) {
    if (taken >= DATA_BYTES_PER_EVENT) {
      comm_read_now(fd, data_handler, conn);
      return;
    }
    int64_t bulk = take_bulk(fd, conn, m);
    if (bulk < 0) return;
    if (bulk > 0) {
      taken += bulk;
      continue;
    }
    DynString* piece = command_line;
    piece->length = 0;
    piece->data[0] = '\0';
    errno = 0;
    if (lstream_readline(piece, conn->sender_stream.get(), '\n', DATA_PIECE_MAX) < 0) {
      read_stopped(fd, conn, m, errno);
      return;
    }
    if (piece->length == 0) {
      dlog(DLOG_SMTP, 4, "%p, Connection closed by peer while receiving data.", log_ptr(conn));
      close_connection(conn);
      return;
    }
    taken += piece->length;
    std::string* b = spool_buffer(m->file.get());
    size_t before = b->size();
    const bool line_start = m->rx.newline, was_held = m->rx.held;
    DotResult r = dot_decode_piece(&m->rx, piece->data, static_cast<size_t>(piece->length), b);
    note_dot_lines(m, *b, before, line_start, was_held);
    if (r == DotResult::MORE) check_body(conn, m);
    store_content(conn, m, before);
    if (r == DotResult::END) {
      end_of_data(conn, m);
      return;
    }
  }
}

void finish_data(Connection* conn) {
  Message* m = txn_message(conn);
  conn->txn->phase = TxnPhase::SCANNING;
  m->msgid.reset(m->header_long
                     ? header_field_value("message-id:", m->file->name.c_str())
                     : header_field_value_in("message-id:", m->header.data(), m->header.size()));
  m->header = std::string();
  const char* msgid = m->msgid.get();
  dlog(DLOG_SMTP, 5, "%p, Start scanning email (msgid=%s)\n", log_ptr(conn),
       msgid != nullptr ? msgid : "(null)");
  // No idle time-out runs while the message is examined; the sender is not
  // read until its message has had its final reply.
  conn->idle_timer.reset();
  m->scan_timer.reset();

  if (config.as_connections == 0) {
    spam_callback(conn, 0);
    return;
  }
  m->spam_request.reset();
  m->scan_timer.reset(timer_add(config.scanner_timeout, spam_scan_timeout, conn));
  // The handler may run inside this call (no free connection with bypass)
  // and end the message; a request is returned only when it has not.
  char sender_ip[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &conn->sender_addr.sin_addr, sender_ip, sizeof(sender_ip));
  std::vector<const char*> rcpts;
  for (const DstrPtr& r : conn->txn->rcpts) rcpts.push_back(r->data);
  const char* name = m->file->name.c_str();
  const char* slash = strrchr(name, '/');
  SpamEnvelope envelope{sender_ip,
                        conn->helo_domain ? conn->helo_domain->data : nullptr,
                        conn->txn->from->data,
                        rcpts.data(),
                        rcpts.size(),
                        slash != nullptr ? slash + 1 : name};
  AsRequest* request = spam_check(spam_callback, conn, name, msgid, envelope,
                                  config.max_spam_scan_size, config.spam_bypass);
  if (request != nullptr) m->spam_request.reset(request);
  dlog(DLOG_SMTP, 7, "New spam request %p for connection %p\n", static_cast<void*>(request),
       log_ptr(conn));
}

void av_scan_timeout(void* data) {
  auto* conn = static_cast<Connection*>(data);
  dlog(DLOG_SMTP, 3, "AV scan timed out on connection %p\n", data);
  Message* m = txn_message(conn);
  if (m == nullptr) return;
  m->scan_timer.release();  // it has fired; the timer module frees it
  virus_callback(SCAN_TIMEOUT, conn);
}

void spam_scan_timeout(void* data) {
  auto* conn = static_cast<Connection*>(data);
  Message* m = txn_message(conn);
  if (m == nullptr) return;
  dlog(DLOG_SMTP, 3, "Spam scan timed out on connection %p, scan file=%s\n", data,
       m->file->name.c_str());
  m->scan_timer.release();
  spam_callback(conn, 0);
}
