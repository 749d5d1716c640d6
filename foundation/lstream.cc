// Line streams. Every stream reads into one shared buffer of LSTREAM_READ_MAX
// bytes (the process has one thread), so a large read costs no memory per
// connection: a stream keeps only the bytes its caller has not taken yet, and
// lets go of them as soon as they are all taken. Lines leave the kept bytes
// by moving an offset, never by shifting what follows them.
#include "foundation/lstream.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace {

char shared[LSTREAM_READ_MAX];

int held(const LineStream* s) {
  return s->buffer != nullptr ? s->buffer->length - s->offset : 0;
}

const char* held_data(const LineStream* s) {
  return s->buffer->data + s->offset;
}

void release(LineStream* s) {
  dstr_free(s->buffer);
  s->buffer = nullptr;
  s->offset = 0;
}

void consume(LineStream* s, int n) {
  s->offset += n;
  if (s->offset >= s->buffer->length) release(s);
}

// Keeps n more bytes behind the held ones. What is held then is at most a
// partial line, so moving it to the front first is cheap.
int keep(LineStream* s, const char* p, int n) {
  if (n == 0) return 0;
  if (s->buffer == nullptr) {
    s->buffer = dstr_from_block(p, n);
    return s->buffer != nullptr ? 0 : -1;
  }
  if (s->offset > 0) {
    dstr_delete(s->buffer, 0, s->offset);
    s->offset = 0;
  }
  return dstr_cat_block(s->buffer, p, n);
}

// Moves the held bytes and then n bytes of p to line; p's bytes after them
// are kept.
int deliver(DynString* line, LineStream* s, const char* p, int n, int read) {
  int h = held(s);
  if (dstr_alloc(line, line->length + h + n + 1) != 0) return -1;
  if (h > 0) dstr_cat_block(line, held_data(s), h);
  dstr_cat_block(line, p, n);
  if (s->buffer != nullptr) release(s);
  return keep(s, p + n, read - n);
}

}  // namespace

LineStream* lstream_open(int fd, LstreamReadFn read, int chunk_size) {
  if (read == nullptr || chunk_size < 1) return nullptr;
  LineStream* s = static_cast<LineStream*>(malloc(sizeof(LineStream)));
  if (s == nullptr) return nullptr;
  s->fd = fd;
  s->read = read;
  s->buffer = nullptr;
  s->offset = 0;
  s->chunk_size = std::min(chunk_size, LSTREAM_READ_MAX);
  s->peeked = 0;
  return s;
}

int lstream_readline(DynString* line, LineStream* stream, char term, int limit) {
  if (stream == nullptr || line == nullptr || line->capacity < 1) return -1;
  // Bytes line may still take; at least one, so a full line still moves on.
  const int room = std::max(limit - line->length, 1);
  for (;;) {
    const int h = held(stream);
    if (h > 0) {
      const char* p = held_data(stream);
      const void* hit = memchr(p, term, static_cast<size_t>(std::min(h, room)));
      if (hit != nullptr || h >= room) {
        int take = hit != nullptr ? static_cast<int>(static_cast<const char*>(hit) - p) + 1 : room;
        if (dstr_cat_block(line, p, take) != 0) return -1;
        consume(stream, take);
        return 0;
      }
    }
    ssize_t r = stream->read(stream->fd, shared, static_cast<size_t>(stream->chunk_size));
    if (r < 0) return -1;  // errno as the read left it; the held bytes stay
    if (r == 0) {
      if (deliver(line, stream, shared, 0, 0) != 0) return -1;
      dstr_terminate(line);
      return 0;
    }
    const int n = static_cast<int>(r);
    const int space = room - h;  // > 0: the held bytes are a partial line within room
    const void* hit = memchr(shared, term, static_cast<size_t>(std::min(n, space)));
    if (hit != nullptr || n >= space) {
      int take =
          hit != nullptr ? static_cast<int>(static_cast<const char*>(hit) - shared) + 1 : space;
      return deliver(line, stream, shared, take, n);
    }
    if (keep(stream, shared, n) != 0) return -1;
  }
}

int lstream_read(DynString* out, LineStream* stream, int n) {
  if (out == nullptr || stream == nullptr || n < 0) return -1;
  if (n > 0x3fffffff - out->length) return -1;
  if (dstr_alloc(out, out->length + n) != 0) return -1;
  const int h = held(stream);
  bool delivered = false;
  if (h > 0) {
    int take = std::min(h, n);
    dstr_cat_block(out, held_data(stream), take);
    consume(stream, take);
    if (take == n) return 0;
    n -= take;
    delivered = true;
  }
  if (n == 0) return 0;
  ssize_t r = stream->read(stream->fd, out->data + out->length, static_cast<size_t>(n));
  if (r < 0) return delivered ? 0 : -1;
  out->length += static_cast<int>(r);
  dstr_terminate(out);
  return 0;
}

int lstream_peek(LineStream* stream, const char** p, char term) {
  const int h = held(stream);
  if (h > 0 && (h >= LSTREAM_READ_MAX || memchr(held_data(stream), term, h) != nullptr)) {
    *p = held_data(stream);
    return h;
  }
  // What is held is at most a partial line: it goes in front of the read,
  // so the caller sees one run of bytes.
  if (h > 0) memcpy(shared, held_data(stream), static_cast<size_t>(h));
  const size_t room = static_cast<size_t>(std::min(stream->chunk_size, LSTREAM_READ_MAX - h));
  ssize_t r = stream->read(stream->fd, shared + h, room);
  if (r < 0) return -1;
  stream->peeked = h + static_cast<int>(r);
  *p = shared;
  return stream->peeked;
}

int lstream_consume(LineStream* stream, int n) {
  if (stream->peeked == 0) {
    if (n > 0) consume(stream, n);
    return 0;
  }
  const int total = stream->peeked;
  stream->peeked = 0;
  if (stream->buffer != nullptr) release(stream);
  // Only the rest of the read is copied, usually a partial line.
  return keep(stream, shared + n, total - n);
}

int lstream_buffered(const LineStream* stream) {
  return stream != nullptr ? held(stream) : 0;
}

int lstream_close(DynString* rest, LineStream* stream) {
  if (stream == nullptr) return -1;
  if (rest != nullptr && held(stream) > 0) dstr_cat_block(rest, held_data(stream), held(stream));
  dstr_free(stream->buffer);
  int fd = stream->fd;
  free(stream);
  return fd;
}
