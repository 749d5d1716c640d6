// Line streams. Lines not already buffered are read straight into the caller's
// string; when a read fails before the terminator arrives, whatever the line
// gained in that call goes back into the stream buffer, so a non-blocking peer
// that sends a line in pieces loses nothing between calls.
#include "foundation/lstream.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

namespace {

void buffer_clear(DynString* b) {
  b->length = 0;
  b->data[0] = 0;
}

// Puts the bytes line gained since `from` back into the (empty) stream buffer
// and cuts line back to `from`. On allocation failure the bytes stay in line,
// which is still better than losing them.
void give_back(LineStream* stream, DynString* line, int from) {
  int n = line->length - from;
  if (stream->buffer->capacity > n) {
    memcpy(stream->buffer->data, line->data + from, static_cast<size_t>(n));
    stream->buffer->length = n;
    stream->buffer->data[n] = 0;
  } else {
    DynString* fresh = dstr_from_block(line->data + from, n);
    if (fresh == nullptr) return;
    dstr_free(stream->buffer);
    stream->buffer = fresh;
  }
  line->length = from;
  line->data[from] = 0;
}

}  // namespace

LineStream* lstream_open(int fd, LstreamReadFn read, int chunk_size) {
  if (read == nullptr || chunk_size < 1) return nullptr;
  LineStream* s = static_cast<LineStream*>(malloc(sizeof(LineStream)));
  if (s == nullptr) return nullptr;
  s->buffer = dstr_new(chunk_size);
  if (s->buffer == nullptr) {
    free(s);
    return nullptr;
  }
  s->fd = fd;
  s->read = read;
  s->chunk_size = chunk_size;
  return s;
}

int lstream_readline(DynString* line, LineStream* stream, char term, int limit) {
  if (stream == nullptr || stream->buffer == nullptr || line == nullptr || line->capacity < 1) {
    return -1;
  }
  const int from = line->length;
  DynString* buf = stream->buffer;
  const int l = buf->length;
  const int chunk = stream->chunk_size;

  // Room for a chunk behind the sentinel; a buffer that already holds more
  // (bytes given back after a failed read) keeps its NUL slot for it.
  if (dstr_alloc(buf, (l > chunk ? l : chunk) + 1) != 0) return -1;
  buf->data[l] = term;
  const char* hit = static_cast<const char*>(memchr(buf->data, term, static_cast<size_t>(l) + 1));
  buf->data[l] = 0;
  int i = static_cast<int>(hit - buf->data);
  if (i < l) {
    if (dstr_cat_block(line, buf->data, i + 1) != 0) return -1;
    dstr_delete(buf, 0, i + 1);
    return 0;
  }

  if (dstr_cat_block(line, buf->data, l) != 0) return -1;
  buffer_clear(buf);

  for (;;) {
    if (dstr_alloc(line, line->length + chunk) != 0) {
      give_back(stream, line, from);
      errno = ENOMEM;
      return -1;
    }
    char* end = line->data + line->length;
    ssize_t r = stream->read(stream->fd, end, static_cast<size_t>(chunk));
    if (r < 0) {
      int saved = errno;
      if (line->length > from) give_back(stream, line, from);
      errno = saved;
      return -1;
    }
    if (r == 0) {
      dstr_terminate(line);
      buffer_clear(stream->buffer);
      return 0;
    }
    int n = static_cast<int>(r);
    end[n] = term;
    int j = static_cast<int>(
        static_cast<const char*>(memchr(end, term, static_cast<size_t>(n) + 1)) - end);
    if (j < n) {
      line->length += j + 1;
      // The bytes after the terminator become the whole stream buffer; it was
      // sized for a chunk in the first step, so this cannot fail.
      buffer_clear(stream->buffer);
      dstr_cat_block(stream->buffer, end + j + 1, n - j - 1);
      line->data[line->length] = 0;
      return 0;
    }
    line->length += n;
    line->data[line->length] = 0;
    if (line->length >= limit) {
      buffer_clear(stream->buffer);
      return 0;
    }
  }
}

int lstream_read(DynString* out, LineStream* stream, int n) {
  if (out == nullptr || stream == nullptr || stream->buffer == nullptr || n < 0) return -1;
  if (n > 0x3fffffff - out->length) return -1;
  if (dstr_alloc(out, out->length + n) != 0) return -1;
  DynString* buf = stream->buffer;
  bool delivered = false;
  if (buf->length > 0) {
    if (buf->length > n) {
      dstr_cat_block(out, buf->data, n);
      dstr_delete(buf, 0, n);
      return 0;
    }
    dstr_cat_block(out, buf->data, buf->length);
    n -= buf->length;
    buffer_clear(buf);
    delivered = true;
  }
  if (n == 0) return 0;
  ssize_t r = stream->read(stream->fd, out->data + out->length, static_cast<size_t>(n));
  if (r < 0) return delivered ? 0 : -1;
  out->length += static_cast<int>(r);
  dstr_terminate(out);
  return 0;
}

int lstream_close(DynString* rest, LineStream* stream) {
  if (stream == nullptr) return -1;
  if (rest != nullptr && stream->buffer != nullptr) dstr_concat(rest, stream->buffer);
  dstr_free(stream->buffer);
  int fd = stream->fd;
  free(stream);
  return fd;
}
