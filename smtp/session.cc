// Session commands: QUIT, HELO, EHLO, RSET, HELP, NOOP and VRFY. None of them
// builds the envelope; HELO/EHLO and RSET drop it.
#include <cstring>

#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "smtp/backend.h"
#include "smtp/config.h"
#include "smtp/smtp.h"

namespace {

// HELO and EHLO differ in their texts, their success reply, and in that EHLO
// also drops the envelope when it refuses.
int hello(const DynString* line, Connection* conn, bool ehlo) {
  const char* missing_reply =
      ehlo ? "501 EHLO requires a domain address\r\n" : "501 HELO requires a domain address\r\n";
  dlog(DLOG_SMTP, 9, ehlo ? "ehlo line: %s" : "helo line: %s", line->data);
  // Every separator ends a word, so "HELO name\r\n" gives three words, the
  // last one empty, while "HELO name\n" gives only two.
  DstrListPtr words(dstr_split_set(line, " \t\r\n"));
  if (words == nullptr) fatal_exit("Out of memory: %m\n");
  if (words->count < 3) {
    smtp_reply(conn, missing_reply);
    dlog(DLOG_SMTP, 4,
         ehlo ? "%p, response to EHLO: 501 EHLO requires a domain address\n"
              : "%p, response to HELO: 501 HELO requires a domain address\n",
         log_ptr(conn));
    if (ehlo && !conn->closed) txn_end(conn);
    return conn->closed;
  }

  conn->helo_domain.reset();
  for (int i = 1; i < words->count; ++i) {
    if (words->entries[i]->length == 0) {
      dlog(DLOG_SMTP, 9, ehlo ? "Ignoring whitespace in EHLO\n" : "Ignoring whitespace in HELO\n");
      continue;
    }
    conn->helo_domain.reset(smtp_checked(dstr_copy(words->entries[i])));
    break;
  }
  txn_end(conn);

  if (conn->helo_domain != nullptr) {
    const char* response = ehlo ? config.ehlo_response : config.helo_response;
    smtp_reply(conn, response);
    dlog(DLOG_SMTP, 4, ehlo ? "%p, response to EHLO: %s" : "%p, response to HELO: %s",
         log_ptr(conn), response);
    // A reply that could not be written has closed the connection, and with
    // it freed helo_domain.
    if (conn->closed) return 1;
    dlog(DLOG_SMTP, 9, ehlo ? "EHLO domain = \"%s\"\n" : "HELO domain = %s\n",
         conn->helo_domain->data);
    return 0;
  }
  dlog(DLOG_SMTP, 9, ehlo ? "EHLO domain is null.\n" : "HELO domain is null.\n");
  smtp_reply(conn, missing_reply);
  if (ehlo && !conn->closed) txn_end(conn);
  return conn->closed;
}

}  // namespace

int smtp_quit(const DynString*, Connection* conn) {
  if (conn->receiver_fd != -1) {
    // Passed on without a completion handler: the connection, backend
    // included, is closed with the 221 below, so the answer is not awaited.
    if (comm_write(conn->receiver_fd, "QUIT\r\n", 6, nullptr, nullptr, nullptr) != 0) {
      close_connection(conn);
      return 1;
    }
    dlog(DLOG_SMTP, 5, "sent backend QUIT command\n");
    conn->be_state = BE_QUIT;
    be_read_backend(conn);
  }
  // The reply's completion closes the connection; when the write goes out at
  // once that happens before comm_write returns, so its result tells nothing.
  comm_write(conn->sender_fd, "221 Goodbye.\r\n", 14, quit_callback, conn, nullptr);
  dlog(DLOG_SMTP, 4, "%p, response to sender QUIT command: 221 Goodbye.\n", log_ptr(conn));
  return 1;
}

void quit_callback(int fd, int status, void* data) {
  auto* conn = static_cast<Connection*>(data);
  dlog(DLOG_SMTP, 9, "quit callback fd %d e %d\n", fd, status);
  if (status == 1) dlog(DLOG_SMTP, 5, "Sender rudly went away during quit.\n");
  close_connection(conn);
}

int smtp_helo(const DynString* line, Connection* conn) {
  return hello(line, conn, false);
}

int smtp_ehlo(const DynString* line, Connection* conn) {
  return hello(line, conn, true);
}

int smtp_rset(const DynString* line, Connection* conn) {
  conn->noop_timer.reset();
  dlog(DLOG_SMTP, 9, "rset line: %s", line->data);
  if (conn->transaction_pending) {
    smtp_reply(conn, "501 Mail transaction pending\r\n");
    return conn->closed;
  }
  if (conn->receiver_fd != -1) {
    // The backend's own answer goes to the sender; the dialogue resets the
    // envelope and reads the sender's commands again.
    if (comm_write(conn->receiver_fd, "RSET\r\n", 6, generic_be_write_callback, conn, nullptr) !=
        0) {
      close_connection(conn);
      return 1;
    }
    dlog(DLOG_SMTP, 4, "%p, sent RSET to backend, waiting for response.\n", log_ptr(conn));
    conn->be_state = BE_RSET;
    be_read_backend(conn);
    return 1;
  }
  txn_end(conn);
  dlog(DLOG_SMTP, 4, "%p, response to RSET: %s\n", log_ptr(conn), "250 OK\r\n");
  smtp_reply(conn, "250 OK\r\n");
  return conn->closed;
}

int smtp_help(const DynString* line, Connection* conn) {
  dlog(DLOG_SMTP, 9, "help line: %s", line->data);
  smtp_reply(conn, "214 See RFC 2821\r\n");
  dlog(DLOG_SMTP, 4, "%p, response to HELP: 214 See RFC 2821\n", log_ptr(conn));
  return conn->closed;
}

int smtp_noop(const DynString* line, Connection* conn) {
  dlog(DLOG_SMTP, 9, "noop line: %s", line->data);
  smtp_reply(conn, "250 OK\r\n");
  dlog(DLOG_SMTP, 4, "%p, response to NOOP: 250 OK\n", log_ptr(conn));
  return conn->closed;
}

int smtp_vrfy(const DynString*, Connection* conn) {
  smtp_reply(conn, "252 Maybe\r\n");
  dlog(DLOG_SMTP, 4, "%p, response to VRFY: 252 Maybe\n", log_ptr(conn));
  return conn->closed;
}
