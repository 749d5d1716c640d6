// One scan request on a connection of its own, the way ClamAV's clamd, spamd
// and rspamd take them: connect, send a head and then part of the scan file,
// read in bounded chunks with one chunk queued at a time (a service that reads
// slowly costs one chunk of memory), then read the reply until the service
// closes or the reply is whole. Also the service addresses of the settings.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

struct ScanConn;

struct ScanAddr {
  sockaddr_storage ss;
  socklen_t length;
};
// "/path" is a Unix socket; "a.b.c.d:port" or "localhost:port" is TCP over
// IPv4 (no name is looked up: the loop must not block). False when neither.
bool scan_addr_parse(const char* text, ScanAddr* out);

enum class ScanConnEnd {
  REPLY,           // the reply, whole or as much as came before the close
  CONNECT_FAILED,  // nobody listens: the service is down
  BROKEN,          // closed without a word, a read error, or an over-long reply
};
// Called once, on a later loop cycle than scanconn_start; reply lives for the
// call only. The descriptors are closed before it runs, so the handler may
// free the connection.
using ScanConnDone = void (*)(void* data, ScanConnEnd end, std::string_view reply);

struct ScanConnSpec {
  std::string head;       // sent first
  int file_fd = -1;       // taken: closed by the connection; -1 for none
  int64_t length = 0;     // bytes of the file sent after the head
  bool framed = false;    // as clamd's INSTREAM chunks: 4-byte big-endian length each,
                          // an empty chunk last
  int end_byte = -1;      // the reply is whole once this byte arrives; -1: at the close
  size_t max_reply = 64;  // a longer reply is BROKEN
};

// Null, with errno set and the file closed, when no connect could be started.
ScanConn* scanconn_start(const ScanAddr& addr, ScanConnSpec spec, ScanConnDone done, void* data);
// Closes what is still open and drops queued writes; done is not called.
// Null allowed.
void scanconn_free(ScanConn* conn);
// The socket, -1 once closed (for the state dump).
int scanconn_fd(const ScanConn* conn);
