// Delivery status notifications: a multipart/report message for the
// recipients the backend refused while it accepted the message for others,
// written into the mailer's temporary spool and moved into its local spool in
// one rename, so the mailer never sees a half-written file.
#pragma once

#include <vector>

// Where notifications go and how they are signed.
struct DsnSettings {
  const char* my_domain;
  const char* temp_dir;    // written here first
  const char* local_dir;   // then moved here, where the mailer picks it up
  long long max_msg_size;  // a message of this size or more is not attached
};

// One relayed message with refused recipients.
struct DsnMessage {
  const void* log_id;                // the %p that starts the log lines
  const char* from;                  // the message's sender
  std::vector<const char*> refused;  // newest first
  int message_fd;                    // the message as it went out; -1 for none
};

// Writes one notification to from listing the refused recipients, with the
// message attached when it is smaller than max_msg_size. A message from the
// null sender gets none. Failures are logged and a file that could not be
// written completely is removed; the relay of the message itself is never
// affected.
void send_dsn(const DsnMessage& message, const DsnSettings& settings);
