// rspamd's side of the anti-spam client: the HTTP request head of POST
// /checkv2, which carries the envelope in its headers, and the reading of the
// JSON reply's "action".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "scan/spam.h"

// The head for a message of length bytes; what the sender chose (addresses,
// HELO) is made header-safe.
std::string rspamd_head(const SpamEnvelope& envelope, int64_t length);
// The whole HTTP reply as a verdict: "reject" 3, "rewrite subject" and "add
// header" 1, any other action 0; -1 for a status other than 200 or a body
// without a top-level "action" string.
int rspamd_verdict(std::string_view reply);
