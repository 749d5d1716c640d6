// The virus scanner client: one connection to the local scanner daemon over a
// Unix stream socket, requests matched to replies by number, a queue that
// survives scanner restarts and is resent oldest first after each reconnect.
// A request belongs to the queue until its caller cancels it.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <cstdio>
#include <memory>

struct VscanRequest;

// Called with the verdict bits and the caller's data; the request is still
// queued and must be cancelled by the caller (also when called with 4 after
// the scanner stayed unreachable).
using VscanHandler = void (*)(int result, void* data);

// The scanner's protocol: the native numbered lines, or ClamAV's clamd.
enum class VscanProtocol { NATIVE, CLAMD };

// Start-up, before the user switch: client_type 1 is "smtp". Registers the
// state-dump section and starts connecting. With CLAMD, path is clamd's socket
// and the scans stream the files' content to it.
void vs_init(const char* path, int client_type, VscanProtocol protocol = VscanProtocol::NATIVE);
// Queues a scan of filename (addresses in network byte order; id null means
// "unknown"). With the scanner not connected and bypass set, the handler runs
// at once with 0 and null is returned.
VscanRequest* virus_scan(const char* filename, in_addr_t from_addr, in_addr_t to_addr,
                         const char* id, int vst, VscanHandler handler, void* data, bool bypass);
// Drops a request; null allowed.
void vscan_cancel(VscanRequest* request);
struct VscanCancel {
  void operator()(VscanRequest* r) const noexcept { vscan_cancel(r); }
};
using VscanRequestPtr = std::unique_ptr<VscanRequest, VscanCancel>;
// The client's section of the state dump.
void vs_dump(FILE* stream);
// Shutdown: closes the connection and frees the queue without answering it.
void vs_shutdown();

// For tests only: the number the next request takes.
void vs_set_next_num(uint32_t num);
