// AUTH while authentication is not part of this build: it keeps the checks
// that need nothing else and then refuses as an unsupported mechanism.
#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "smtp/smtp.h"

namespace {
void* ptr(Connection* conn) {
  return static_cast<void*>(conn);
}
}  // namespace

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
