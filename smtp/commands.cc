// The command reader: takes whole lines from the sender's stream, matches the
// verb against the command table, enforces the line limit and the error limit.
#include <arpa/inet.h>
#include <strings.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "foundation/dlog.h"
#include "foundation/fd.h"
#include "foundation/text.h"
#include "smtp/auth.h"
#include "smtp/config.h"
#include "smtp/smtp.h"

const SmtpCommand smtp_commands[] = {
    {"rcpt", smtp_rcpt}, {"mail", smtp_mail}, {"data", smtp_data}, {"quit", smtp_quit},
    {"helo", smtp_helo}, {"ehlo", smtp_ehlo}, {"rset", smtp_rset}, {"help", smtp_help},
    {"noop", smtp_noop}, {"auth", smtp_auth}, {"vrfy", smtp_vrfy}, {nullptr, nullptr},
};

namespace {

const char* dotted(const Connection* conn) {
  return inet_ntoa(conn->sender_addr.sin_addr);
}
int port(const Connection* conn) {
  return ntohs(conn->sender_addr.sin_port);
}

// Reads the next piece of the sender's input into command_line: 0 with a
// line (possibly cut at the limit, possibly empty at end of file), -1 with
// errno telling a wait from a failure.
int read_line(Connection* conn) {
  command_line->length = 0;
  command_line->data[0] = '\0';
  errno = 0;
  return lstream_readline(command_line, conn->sender_stream.get(), '\n', COMMAND_LINE_MAX);
}

bool ends_with_lf(const DynString* line) {
  return line->length > 0 && line->data[line->length - 1] == '\n';
}

// A sender that writes commands without reading the replies costs at most
// this much queued output: past it the sender is not read until its queue
// has drained.
constexpr long long REPLY_BACKLOG_MAX = 65536;
// Commands handled per readiness event; the rest waits for the next loop
// pass, so one fast sender cannot starve the others.
constexpr int COMMANDS_PER_EVENT = 64;

void sender_drained(int, int error, void* data) {
  auto* conn = static_cast<Connection*>(data);
  if (error == 0 && conn != nullptr && !conn->closed) smtp_resume(conn);
}

const SmtpCommand* match_command(const DynString* line) {
  for (const SmtpCommand* c = smtp_commands; c->verb != nullptr; ++c) {
    size_t n = strlen(c->verb);
    if (static_cast<size_t>(line->length) >= n && strncasecmp(line->data, c->verb, n) == 0)
      return c;
  }
  return nullptr;
}

}  // namespace

bool is_blank(const DynString* s) {
  return s == nullptr || str_is_blank(s->data, static_cast<size_t>(s->length));
}

void command_handler(int fd, void* data) {
  auto* conn = static_cast<Connection*>(data);
  if (conn == nullptr || conn->closed) return;
  for (int handled = 0;; handled++) {
    // Tested before every read, so a pipelined batch stops right after the
    // reply that went over the limit.
    if (conn->errors > config.max_errors) {
      dlog(DLOG_SMTP, 1, "Too many sender errors. Closing connection (sender=%s:%d)\n",
           dotted(conn), port(conn));
      close_connection(conn);
      return;
    }
    if (comm_queued_bytes(fd) > REPLY_BACKLOG_MAX) {
      comm_finished(fd, sender_drained, conn);
      return;
    }
    if (handled == COMMANDS_PER_EVENT) {
      comm_read_now(fd, command_handler, conn);
      return;
    }
    // Nothing left of the last read: the sender's next command comes, as a
    // rule, only after it has read the reply just written, so the loop is
    // left to tell when it does instead of a read that would say EAGAIN.
    if (handled > 0 && lstream_buffered(conn->sender_stream.get()) == 0) {
      comm_read(fd, command_handler, conn);
      return;
    }
    if (read_line(conn) == -1) {
      if (is_transient_errno(errno)) {
        comm_read(fd, command_handler, conn);
      } else {
        dlog(DLOG_SMTP, 1, "Error reading command from sender(%s:%d), closing connection: %m\n",
             dotted(conn), port(conn));
        close_connection(conn);
      }
      return;
    }
    if (command_line->length == 0) {
      dlog(DLOG_SMTP, 4, "Connection closed by sender(%s:%d).\n", dotted(conn), port(conn));
      close_connection(conn);
      return;
    }
    const SmtpCommand* command = match_command(command_line);
    if (command != nullptr && command->handler == smtp_auth) {
      // An AUTH line may carry a credential (an initial response).
      std::string shown = auth_line_for_log(command_line) + "\n";
      dlog(DLOG_SMTP, 4, "%p, Command line: %s", static_cast<void*>(conn), shown.c_str());
    } else {
      dlog(DLOG_SMTP, 4, "%p, Command line: %s", static_cast<void*>(conn), command_line->data);
    }
    reset_idle_timer(conn);

    // A line is too long when it was cut at the limit or by end of file.
    bool complete = ends_with_lf(command_line);
    if (!complete || command_line->length > COMMAND_LINE_MAX) {
      dlog(DLOG_SMTP, 5, "Long line from sender. Clearing.\n");
      if (!complete) smtp_read_sender(conn, clear_line_handler);
      if (!smtp_reply(conn, "500 Long line?\r\n")) return;
      conn->errors += 1;
      if (!complete) return;  // the rest is dropped by clear_line_handler
      continue;
    }

    if (command != nullptr) {
      dlog(DLOG_SMTP, 4, "%p, Matched command: %s\n", static_cast<void*>(conn), command->verb);
      if (command->handler(command_line, conn) != 0 || conn->closed) return;
    } else {
      smtp_unknown(command_line, conn);
      if (conn->closed) return;
    }
  }
}

void clear_line_handler(int fd, void* data) {
  auto* conn = static_cast<Connection*>(data);
  if (conn == nullptr || conn->closed) return;
  if (read_line(conn) == -1) {
    if (is_transient_errno(errno)) {
      comm_read(fd, clear_line_handler, conn);
    } else {
      dlog(DLOG_SMTP, 5, "Error in clear_line_handler: %m\n");
      close_connection(conn);
    }
    return;
  }
  if (command_line->length == 0 || ends_with_lf(command_line)) {
    // Commands pipelined behind the long line may already sit in the stream
    // buffer, where no poll event would announce them: read them now.
    command_handler(fd, conn);
    return;
  }
  smtp_read_sender(conn, clear_line_handler);  // the rest may be buffered already
}

int smtp_unknown(const DynString* line, Connection* conn) {
  dlog(DLOG_SMTP, 9, "Not implemented: %s", line->data);
  if (is_blank(line)) return 0;
  dlog(DLOG_SMTP, 4, "%p, response to %s: 500 Unknown command\n", static_cast<void*>(conn),
       line->data);
  if (!smtp_reply(conn, "500 Unknown command\r\n")) return 1;
  conn->errors += 1;
  return conn->closed;
}
