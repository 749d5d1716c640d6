// The virus client's transport to ClamAV's clamd: each scan streams the scan
// file's content over a connection of its own (zINSTREAM), so clamd needs no
// access to the scan directory. A PING probe tells whether clamd is up, as the
// native scanner's connection does; scans wait in order while it is down and
// a bounded number streams at once. A job belongs to this module until its
// owner cancels it.
#pragma once

#include <cstdio>
#include <string_view>

#include "scan/vscan.h"

struct ClamdJob;

// Verdict bits clamd's replies map onto, as the native scanner reports them.
constexpr int CLAMD_FOUND = 0x2;
constexpr int CLAMD_ENCRYPTED = 0x40;
constexpr int CLAMD_ERROR = 0x10000;
constexpr int CLAMD_GAVE_UP = 0x4;  // clamd stayed unreachable
// Scans streaming at once; the descriptor budget reserves these and a probe.
constexpr int CLAMD_MAX_STREAMS = 8;

// Start-up: path is clamd's Unix socket (or host:port); a bad address ends
// the start-up. Starts the first probe.
void clamd_init(const char* path);
// Whether the last probe or scan reached clamd.
bool clamd_up();
// Queues a scan of filename. handler(result, data) runs once, later, with the
// verdict; with bypass it runs with 0 as soon as clamd is found down. The
// owner must clamd_cancel the job afterwards, also after the handler ran.
ClamdJob* clamd_scan(const char* filename, VscanHandler handler, void* data, bool bypass);
void clamd_cancel(ClamdJob* job);
// The reply to a scan ("stream: OK", "stream: NAME FOUND", "... ERROR") as
// verdict bits; -1 for anything else.
int clamd_verdict(std::string_view reply);
void clamd_dump(FILE* stream);
// Shutdown: closes every stream and frees the jobs without answering them.
void clamd_shutdown();
