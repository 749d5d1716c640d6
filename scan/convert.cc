// Converters between the transfer forms of a message file. Sources are read
// through a line stream with a 1000-byte limit, so a longer line arrives in
// several pieces and only the first of them is a line start. A copy is
// written beside its source and removed again on every failure, including a
// fatal one, so no half-written copy outlives the call.
#include "scan/convert.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/dlog.h"
#include "foundation/dstr.h"
#include "foundation/fatal.h"
#include "foundation/fd.h"
#include "foundation/lstream.h"
#include "foundation/text.h"

namespace {

constexpr int PIECE_LIMIT = 1000;  // read size of the streams and line limit
constexpr size_t COPY_BLOCK = 1000;

enum class Stuffing { STUFF, RESTUFF };

void remove_keeping_errno(const char* path) {
  int e = errno;
  unlink(path);
  errno = e;
}

// The chunked conversions' copy at path (a mkstemp template), opened for
// binary writing; the process ends when it cannot be made.
FILE* create_chunk_copy(char* path) {
  int fd = mkstemp(path);
  if (fd < 0) fatal_exit("Scanner couldn't create tmpfile: %s: %m", path);
  FILE* out = fdopen(fd, "wb+");
  if (out == nullptr) {
    remove_keeping_errno(path);
    fatal_exit("Couldn't fdopen tmpfile: %m\n");
  }
  return out;
}

DynString* new_buffer() {
  DynString* s = dstr_new(PIECE_LIMIT);
  if (s == nullptr) fatal_exit("Out of memory for a conversion buffer\n");
  return s;
}

LineStream* open_stream(int fd) {
  LineStream* s = lstream_open(fd, ::read, PIECE_LIMIT);
  if (s == nullptr) fatal_exit("Out of memory for a conversion stream\n");
  return s;
}

// The next piece into line, which is emptied first: 1 a piece, 0 end of
// file, -1 a read error.
int next_piece(DynString* line, LineStream* in) {
  line->length = 0;
  line->data[0] = '\0';
  if (lstream_readline(line, in, '\n', PIECE_LIMIT) != 0) return -1;
  return line->length > 0 ? 1 : 0;
}

bool ends_line(const DynString* piece) {
  return piece->length > 0 && piece->data[piece->length - 1] == '\n';
}

// White space only; a NUL byte is not white space.
bool is_blank_piece(const DynString* s) {
  return str_is_blank(s->data, static_cast<size_t>(s->length));
}

[[noreturn]] void stuffing_write_failed(Stuffing mode, const char* path) {
  remove_keeping_errno(path);
  if (mode == Stuffing::STUFF) fatal_exit("fwrite problem in stuffing: %m\n");
  fatal_exit("fwrite problem in restuffing: %m\n");
}

// Writes the pieces of in to out, a "." more in front of every line that
// starts with one, then the terminator line. A last line without its LF is
// ended with CRLF first: glued to it, the terminator would not stand on a
// line of its own and the receiver would wait for more data. Write failures
// are fatal (path is removed first); false: a read error.
bool stuff_lines(LineStream* in, DynString* line, FILE* out, Stuffing mode, const char* path) {
  bool at_line_start = true;
  for (;;) {
    int r = next_piece(line, in);
    if (r < 0) return false;
    if (r == 0) break;
    if (mode == Stuffing::RESTUFF) dlog(DLOG_DOTSTUFF, 9, "%s\n", line->data);
    if (at_line_start && line->data[0] == '.' && putc('.', out) == EOF) {
      stuffing_write_failed(mode, path);
    }
    size_t n = static_cast<size_t>(line->length);
    if (fwrite(line->data, 1, n, out) != n) stuffing_write_failed(mode, path);
    at_line_start = ends_line(line);
  }
  if (fputs(at_line_start ? ".\r\n" : "\r\n.\r\n", out) == EOF) stuffing_write_failed(mode, path);
  return true;
}

// strtoul in base 16, which stops at the first other character ("1a;ext" is
// 26). A line that does not start with a digit, or a size that does not fit,
// is an error rather than a last chunk of size 0.
bool parse_chunk_size(const char* text, unsigned long* size) {
  while (*text == ' ' || *text == '\t') text++;
  if (!isxdigit(static_cast<unsigned char>(*text))) return false;
  errno = 0;
  *size = strtoul(text, nullptr, 16);
  return errno == 0;
}

// Exactly n bytes of in into data (emptied first); false after logging why.
bool read_chunk_bytes(LineStream* in, DynString* data, int n) {
  data->length = 0;
  while (data->length < n) {
    int before = data->length;
    if (lstream_read(data, in, n - data->length) != 0) {
      dlog(DLOG_CHUNK, 1, "Read error in chunk file: %m\n");
      return false;
    }
    if (data->length == before) {
      dlog(DLOG_CHUNK, 1, "Short read in chunk file: %m\n");
      return false;
    }
  }
  return true;
}

// Decodes the chunks of in into out up to the last chunk; a trailer is not
// read. Malformed input: false, logged. Write failures are fatal.
bool dechunk_into(LineStream* in, DynString* line, DynString* data, FILE* out, const char* path) {
  for (;;) {
    int r = next_piece(line, in);
    while (r > 0 && is_blank_piece(line)) {
      dlog(DLOG_CHUNK, 1, "Illegal blank line in chunked file.\n");
      r = next_piece(line, in);
    }
    if (r < 0) {
      dlog(DLOG_CHUNK, 1, "Read error in chunk file: %m\n");
      return false;
    }
    if (r == 0) {
      dlog(DLOG_CHUNK, 1, "Premature end to chunked file.\n");
      return false;
    }
    dlog(DLOG_CHUNK, 9, "Chunk len line: %s", line->data);
    unsigned long size = 0;
    if (!parse_chunk_size(line->data, &size)) {
      dlog(DLOG_CHUNK, 1, "Couldn't convert chunk length\n");
      return false;
    }
    if (size == 0) return true;
    dlog(DLOG_CHUNK, 9, "Chunk size: %ld %#lx\n", static_cast<long>(size), size);
    // A size beyond the file fails with a short read once the file runs out.
    while (size > 0) {
      int n = size < PIECE_LIMIT ? static_cast<int>(size) : PIECE_LIMIT;
      dlog(DLOG_CHUNK, 9, "Reading %ld bytes\n", static_cast<long>(n));
      if (!read_chunk_bytes(in, data, n)) return false;
      dlog(DLOG_CHUNK, 9, "First chars of chunk: %x %x\n",
           static_cast<unsigned char>(data->data[0]), static_cast<unsigned char>(data->data[1]));
      if (fwrite(data->data, 1, static_cast<size_t>(n), out) != static_cast<size_t>(n)) {
        remove_keeping_errno(path);
        fatal_exit("Write error to dechunked file: %m\n");
      }
      size -= static_cast<unsigned long>(n);
    }
    dlog(DLOG_CHUNK, 9, "Reading empty line\n");
    if (next_piece(line, in) < 0) {
      dlog(DLOG_CHUNK, 1, "Read error in chunk file: %m\n");
      return false;
    }
    dlog(DLOG_CHUNK, 9, "Empty line? \"%s\"\n", line->data);
    if (!is_blank_piece(line)) {
      dlog(DLOG_CHUNK, 1, "Error terminating chunk\n");
      return false;
    }
  }
}

}  // namespace

int stuff_file(const char* name, int fd) {
  DstrPtr line(new_buffer());
  LstreamPtr in(open_stream(fd));
  char* path = template_beside(name, "stuff_");
  int out_fd = mkstemp(path);
  if (out_fd < 0) {
    dlog(DLOG_DOTSTUFF, 1, "Couldn't create stuff file %s: %m\n", path);
    free(path);
    return -1;
  }
  FILE* out = fdopen(out_fd, "w+");
  if (out == nullptr) {
    dlog(DLOG_DOTSTUFF, 1, "Couldn't open stuff %s: %m\n", path);
    close(out_fd);
    unlink(path);
    free(path);
    return -1;
  }
  // The caller may have read or written through fd before handing it over.
  if ((lseek(fd, 0, SEEK_SET) != 0 && errno != ESPIPE) ||
      !stuff_lines(in.get(), line.get(), out, Stuffing::STUFF, path)) {
    dlog(DLOG_DOTSTUFF, 1, "Couldn't read %s for stuffing: %m\n", name);
    fclose(out);
    unlink(path);
    free(path);
    return -1;
  }
  if (fclose(out) != 0) stuffing_write_failed(Stuffing::STUFF, path);
  // One rename: name holds either the old file or the whole stuffed copy.
  if (rename(path, name) != 0) {
    dlog(DLOG_DOTSTUFF, 1, "Couldn't rename stuffed copy over %s: %m\n", name);
    unlink(path);
    free(path);
    return -1;
  }
  free(path);
  in.reset();
  close(fd);
  return 0;
}

char* destuff_file(const char* name) {
  UniqueFd fd(open(name, O_RDONLY));
  if (fd.get() < 0) {
    dlog(DLOG_DOTSTUFF, 1, "Couldn't open stuffed file: %s :%m\n", name);
    return nullptr;
  }
  DstrPtr line(new_buffer());
  LstreamPtr in(open_stream(fd.get()));
  char* path = template_beside(name, "destuff_");
  int out_fd = mkstemp(path);
  if (out_fd < 0) fatal_exit("Scanner couldn't create tmpfile %s for destuffing: %m", path);
  FILE* out = fdopen(out_fd, "w+");
  if (out == nullptr) {
    remove_keeping_errno(path);
    fatal_exit("Couldn't fdopen tmpfile: %m\n");
  }
  bool at_line_start = true;
  for (;;) {
    int r = next_piece(line.get(), in.get());
    if (r < 0) {
      dlog(DLOG_DOTSTUFF, 1, "Couldn't read stuffed file %s: %m\n", name);
      fclose(out);
      unlink(path);
      free(path);
      return nullptr;
    }
    if (r == 0) {
      dlog(DLOG_DOTSTUFF, 1, "Hit EOF in stuffed file?\n");
      break;
    }
    const char* p = line->data;
    size_t n = static_cast<size_t>(line->length);
    if (at_line_start && n == 3 && memcmp(p, ".\r\n", 3) == 0) break;
    if (at_line_start && n >= 2 && p[0] == '.' && p[1] == '.') {
      p++;
      n--;
    }
    if (fwrite(p, 1, n, out) != n) {
      remove_keeping_errno(path);
      fatal_exit("fwrite problem in destuffing: %m\n");
    }
    at_line_start = ends_line(line.get());
  }
  if (fclose(out) != 0) {
    remove_keeping_errno(path);
    fatal_exit("fwrite problem in destuffing: %m\n");
  }
  return path;
}

int restuff_file(const char* in_name, const char* out_name) {
  UniqueFd fd(open(in_name, O_RDONLY));
  if (fd.get() < 0) {
    dlog(DLOG_DOTSTUFF, 1, "Couldn't open destuffed file: %s :%m\n", in_name);
    return -1;
  }
  dlog(DLOG_DOTSTUFF, 9, "in_fd = %x\n", static_cast<unsigned>(fd.get()));
  FILE* out = fopen(out_name, "w+");
  if (out == nullptr) {
    dlog(DLOG_DOTSTUFF, 1, "Couldn't open result file %s: %m\n", out_name);
    return -1;
  }
  dlog(DLOG_DOTSTUFF, 9, "Result file:\n");
  DstrPtr line(new_buffer());
  LstreamPtr in(open_stream(fd.get()));
  // out_name is written in place: on any failure it is removed rather than
  // left holding part of the message.
  if (!stuff_lines(in.get(), line.get(), out, Stuffing::RESTUFF, out_name)) {
    dlog(DLOG_DOTSTUFF, 1, "Couldn't read destuffed file %s: %m\n", in_name);
    fclose(out);
    unlink(out_name);
    return -1;
  }
  if (fclose(out) != 0) stuffing_write_failed(Stuffing::RESTUFF, out_name);
  return 0;
}

char* dechunk_file(const char* name) {
  UniqueFd fd(open(name, O_RDONLY));
  if (fd.get() < 0) {
    dlog(DLOG_CHUNK, 1, "Couldn't open chunked file: %s :%m\n", name);
    return nullptr;
  }
  char* path = template_beside(name, "dechunked_");
  FILE* out = create_chunk_copy(path);
  if (fchmod(fileno(out), 0660) != 0) {
    remove_keeping_errno(path);
    fatal_exit("Couldn't fchmod tmpfile: %m to 660\n");
  }
  DstrPtr line(new_buffer());
  DstrPtr data(new_buffer());
  LstreamPtr in(open_stream(fd.get()));
  bool ok = dechunk_into(in.get(), line.get(), data.get(), out, path);
  if (fclose(out) != 0 && ok) {
    remove_keeping_errno(path);
    fatal_exit("Write error to dechunked file: %m\n");
  }
  if (!ok) {
    unlink(path);
    free(path);
    path = nullptr;
  }
  dlog(DLOG_CHUNK, 9, "Returning dechunked_file %s\n", path != nullptr ? path : "(null)");
  return path;
}

char* chunk_file(const char* name) {
  UniqueFd fd(open(name, O_RDONLY));
  if (fd.get() < 0) {
    dlog(DLOG_CHUNK, 1, "Couldn't open dechunked file: %s :%m\n", name);
    return nullptr;
  }
  struct stat st;
  if (fstat(fd.get(), &st) != 0) {
    dlog(DLOG_CHUNK, 1, "Couldn't stat file: %m\n");
    return nullptr;
  }
  char* path = template_beside(name, "chunked_");
  FILE* out = create_chunk_copy(path);
  // An empty file is the last chunk alone; a chunk of size 0 followed by
  // another last chunk would leave bytes behind the encoded body.
  off_t remaining = st.st_size;
  bool ok = fprintf(out, "%lx\r\n", static_cast<unsigned long>(remaining)) > 0;
  char block[COPY_BLOCK];
  while (ok && remaining > 0) {
    size_t want = remaining < static_cast<off_t>(sizeof block) ? static_cast<size_t>(remaining)
                                                               : sizeof block;
    ssize_t r;
    do {
      r = read(fd.get(), block, want);
    } while (r < 0 && errno == EINTR);
    if (r <= 0) {
      remove_keeping_errno(path);
      fatal_exit("Couldn't read from chunk file: %m\n");
    }
    ok = fwrite(block, 1, static_cast<size_t>(r), out) == static_cast<size_t>(r);
    remaining -= r;
  }
  if (ok && st.st_size > 0) ok = fputs("\r\n0\r\n\r\n", out) != EOF;
  if (ok && st.st_size == 0) ok = fputs("\r\n", out) != EOF;
  if (fclose(out) != 0) ok = false;
  if (!ok) {
    remove_keeping_errno(path);
    fatal_exit("write error to chunk file: %m\n");
  }
  return path;
}

char* template_beside(const char* name, const char* prefix) {
  char* t = nullptr;
  const char* slash = strrchr(name, '/');
  if (slash == nullptr) {
    xasprintf(&t, "./%sXXXXXX", prefix);
  } else {
    xasprintf(&t, "%.*s/%sXXXXXX", static_cast<int>(slash - name), name, prefix);
  }
  return t;
}
