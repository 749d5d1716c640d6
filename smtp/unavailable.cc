// DATA and AUTH while message reception and authentication are not part of
// this build. Both keep the checks that need nothing else and then refuse
// plainly: DATA with a temporary failure, so the sender keeps the message and
// retries, never with an acceptance; AUTH as an unsupported mechanism.
#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "smtp/smtp.h"

namespace {
void* ptr(Connection* conn) {
  return static_cast<void*>(conn);
}
}  // namespace

int smtp_data(const DynString*, Connection* conn) {
  if (conn->transaction_pending) {
    smtp_reply(conn, "501 Mail transaction pending\r\n");
    return conn->closed;
  }
  if (conn->num_rcpts == 0) {
    smtp_reply(conn, "503 Need RCPT\r\n");
    dlog(DLOG_SMTP, 4, "%p response to DATA: 503 Need RCPT\n", ptr(conn));
    conn->errors += 1;
    return conn->closed;
  }
  dlog(DLOG_SMTP, 3, "%p, message reception is not available, DATA refused\n", ptr(conn));
  smtp_reply(conn, "451 Internal Error\r\n");
  dlog(DLOG_SMTP, 4, "%p response to DATA: 451 Internal Error\n", ptr(conn));
  return conn->closed;
}

int smtp_auth(const DynString* line, Connection* conn) {
  dlog(DLOG_SMTP, 9, "auth: %s\n", line->data);
  if (conn->transaction_pending) {
    smtp_reply(conn, "501 Mail transaction pending\r\n");
    return conn->closed;
  }
  DstrListPtr words(dstr_split_set(line, " \t\r\n"));
  if (words == nullptr) fatal_exit("Out of memory: %m\n");
  if (words->count < 3) {
    smtp_reply(conn, "501 AUTH command needs parameter\r\n");
    dlog(DLOG_SMTP, 4, "%p, response to AUTH: 501 AUTH command needs parameter\n", ptr(conn));
  } else {
    dlog(DLOG_SMTP, 3, "%p, authentication is not available, AUTH refused\n", ptr(conn));
    smtp_reply(conn, "501 authentication type not supported\r\n");
    dlog(DLOG_SMTP, 4, "%p, response to AUTH: 501 authentication type not supported\n", ptr(conn));
  }
  if (!conn->closed) reset_transaction(conn);
  return conn->closed;
}
