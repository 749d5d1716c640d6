// What the scan verdicts mean: the spam verdict refuses, drops or marks the
// message for tagging and hands it to the virus scan; the virus verdict
// refuses, drops, or tags the Subject and starts the relay to the backend.
#pragma once

#include "smtp/smtp.h"

// Bits of Message::scan_result.
constexpr int SCAN_VIRUS_SIGNATURE = 0x2;
constexpr int SCAN_TIMEOUT = 0x4;
constexpr int SCAN_VIRUS_VPS = 0x8;
constexpr int SCAN_FORBIDDEN_EXTENSION = 0x10 | 0x20;
constexpr int SCAN_ENCRYPTED = 0x40;
constexpr int SCAN_SPAM_TAG = 0x100;
constexpr int SCAN_SPAM_PLUS_TAG = 0x200;
constexpr int SCAN_ERROR = 0x10000;

// The anti-spam verdict handler; data is the Connection. Also called with 0
// when no anti-spam pool is configured and by the spam-scan time-out.
void spam_callback(void* data, int result);
// The virus verdict handler; data is the Connection. Also called with 0 when
// use_scanner is off and with SCAN_TIMEOUT by the AV time-out.
void virus_callback(int result, void* data);
// "250 OK" for a silently dropped message; a failed write closes conn.
void reply_discard_ok(Connection* conn);
