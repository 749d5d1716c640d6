// Line streams: a descriptor with a read-ahead buffer from which whole lines,
// or a number of bytes, are taken. A partial line stays buffered until its
// terminator arrives, the limit is reached or the peer closes; nothing is lost
// on EAGAIN. The stream does not own its descriptor.
#pragma once

#include <sys/types.h>

#include <memory>

#include "foundation/dstr.h"

using LstreamReadFn = ssize_t (*)(int fd, void* buffer, size_t size);

struct LineStream {
  int fd;
  LstreamReadFn read;
  DynString* buffer;  // bytes read and not yet taken; owned
  int chunk_size;
};

LineStream* lstream_open(int fd, LstreamReadFn read, int chunk_size);
// Appends the next line (terminator included) to line. 0: a line, a line cut
// at the limit, the last bytes before EOF, or nothing at EOF. -1: error, or no
// complete line yet (errno transient); the bytes stay in the stream.
int lstream_readline(DynString* line, LineStream* stream, char terminator, int limit);
// Appends up to n bytes to out: buffered ones first, then at most one read.
int lstream_read(DynString* out, LineStream* stream, int n);
// Appends still-buffered bytes to rest (if non-null), frees the stream and
// returns its fd, which the caller still owns.
int lstream_close(DynString* rest, LineStream* stream);

struct LstreamClose {
  void operator()(LineStream* s) const noexcept { lstream_close(nullptr, s); }
};
using LstreamPtr = std::unique_ptr<LineStream, LstreamClose>;
