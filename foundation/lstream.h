// Line streams: a descriptor with a read-ahead buffer from which whole lines,
// or a number of bytes, are taken. A partial line stays buffered until its
// terminator arrives, the limit is reached or the peer closes; nothing is lost
// on EAGAIN. The stream does not own its descriptor.
#pragma once

#include <sys/types.h>

#include <memory>

#include "foundation/dstr.h"

using LstreamReadFn = ssize_t (*)(int fd, void* buffer, size_t size);

// The most bytes one read asks for, whatever the chunk size.
constexpr int LSTREAM_READ_MAX = 65536;

struct LineStream {
  int fd;
  LstreamReadFn read;
  // Bytes read and not yet taken are buffer's from offset on. Reads go into
  // one buffer shared by every stream, and only what a read leaves over is
  // kept here, so an idle stream holds no buffer at all (null). Owned.
  DynString* buffer;
  int offset;
  int chunk_size;  // the most bytes asked of one read (capped at LSTREAM_READ_MAX)
  int peeked;      // after lstream_peek read: the stream's bytes are shared's first peeked
};

LineStream* lstream_open(int fd, LstreamReadFn read, int chunk_size);
// Appends the next line (terminator included) to line, as long as line stays
// within limit bytes; a longer one is cut there and its rest comes next. 0: a
// line, a line cut at the limit, the last bytes before EOF, or nothing at EOF.
// -1: error, or no complete line yet (errno transient); the bytes stay in the
// stream.
int lstream_readline(DynString* line, LineStream* stream, char terminator, int limit);
// Appends up to n bytes to out: buffered ones first, then at most one read.
int lstream_read(DynString* out, LineStream* stream, int n);
// Points *p at the bytes not yet taken, without copying them; when they hold
// no terminator, one read first adds what the descriptor has. Returns their
// number (0 at EOF with nothing held), or -1 as lstream_readline (errno
// transient: nothing more yet; the held bytes stay). The view lives until
// the next call on any stream, and lstream_consume must come next, even
// when nothing was used: the bytes read may be in the shared buffer.
int lstream_peek(LineStream* stream, const char** p, char terminator);
// Takes the first n bytes of the last peek. -1: the rest could not be kept
// (no memory) and is lost, so the stream is no use any more.
int lstream_consume(LineStream* stream, int n);
// Bytes read from the descriptor and not yet taken.
int lstream_buffered(const LineStream* stream);
// Appends still-buffered bytes to rest (if non-null), frees the stream and
// returns its fd, which the caller still owns.
int lstream_close(DynString* rest, LineStream* stream);

struct LstreamClose {
  void operator()(LineStream* s) const noexcept { lstream_close(nullptr, s); }
};
using LstreamPtr = std::unique_ptr<LineStream, LstreamClose>;
