// DATA while message reception is not part of this build. It keeps the checks
// that need nothing else and then refuses with a temporary failure, so the
// sender keeps the message and retries, never with an acceptance.
#include "foundation/dlog.h"
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
