// Delivery status notifications: a multipart/report message for the
// recipients the backend refused while it accepted the message for others,
// written into the mailer's temporary spool and moved into its local spool in
// one rename, so the mailer never sees a half-written file.
#pragma once

#include "smtp/smtp.h"

// Writes one notification to conn->from listing conn->failed_rcpts, with the
// scan file attached when it is smaller than max_msg_size. A message from the
// null sender gets none. Failures are logged and a file that could not be
// written completely is removed; the relay of the message itself is never
// affected.
void send_dsn(Connection* conn);
