// The anti-spam client's transport to spamd and rspamd: each check sends the
// message over a connection of its own, at most `count` at once; a check
// without a free slot waits on a stack (newest first), or passes with 0 when
// its caller bypasses or the service was last found down. A job belongs to
// this module until its owner cancels it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "scan/spam.h"

struct SpamdJob;

// Start-up; a bad address ends it.
void spamd_init(SpamProtocol protocol, const char* addr, int count, double reject_score);
// Null when handler(data, result) already ran (message too large or
// unreadable, no pool, no free slot with bypass or the service down, nothing
// to connect to); else it runs once, later.
SpamdJob* spamd_scan(SpamHandler handler, void* data, const char* filename,
                     const SpamEnvelope& envelope, int64_t max_size, bool bypass);
// Also after the handler ran.
void spamd_cancel(SpamdJob* job);
void spamd_shutdown();

// spamd's reply ("SPAMD/1.1 0 EX_OK" and "Spam: True ; 15.0 / 5.0") as a
// verdict: 3 spam at or above reject_score, 1 spam below it, 0 not spam; -1
// for an error reply or anything else.
int spamd_verdict(std::string_view reply, double reject_score);
