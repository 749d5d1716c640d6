// Header tools. Message files are read in fgets-sized pieces (at most 999
// bytes up to and including LF), but with their length known, so NUL bytes
// in a message are copied like any other byte instead of cutting the line.
#include "scan/header.h"

#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "foundation/dlog.h"
#include "foundation/text.h"
#include "scan/convert.h"

namespace {

constexpr int PIECE_SIZE = 1000;      // buffer of one piece, NUL included
constexpr size_t VALUE_LIMIT = 1000;  // bytes of an unfolded field value
constexpr size_t COPY_BLOCK = 1000;   // body copy of a tagged file

struct FileClose {
  void operator()(FILE* f) const noexcept { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileClose>;

// The next piece of f into buf: through the next LF, or 999 bytes, whichever
// comes first; NUL-terminated. Returns its length; 0 at end of file or on a
// read error (ferror tells them apart).
size_t read_piece(FILE* f, char (&buf)[PIECE_SIZE]) {
  size_t n = 0;
  while (n < PIECE_SIZE - 1) {
    int c = getc_unlocked(f);
    if (c == EOF) break;
    buf[n++] = static_cast<char>(c);
    if (c == '\n') break;
  }
  buf[n] = '\0';
  return n;
}

bool starts_with_field(const char* p, size_t n, const char* field, size_t field_len) {
  return n >= field_len && strncasecmp(p, field, field_len) == 0;
}

// Copies the rest of in to out in blocks. false on a read or write error.
bool copy_rest(FILE* in, FILE* out) {
  char block[COPY_BLOCK];
  size_t n;
  while ((n = fread(block, 1, sizeof block, in)) > 0) {
    if (fwrite(block, 1, n, out) != n) return false;
  }
  return ferror(in) == 0;
}

// The value of field in the header read from file.
char* field_value(const char* field, FILE* file) {
  const size_t field_len = strlen(field);
  char buf[PIECE_SIZE];
  for (;;) {
    size_t n = read_piece(file, buf);
    // The end of the header: a piece of white space only. A NUL is not white
    // space, so a line holding one does not end the header.
    if (n == 0 || str_is_blank(buf, n)) return nullptr;
    if (starts_with_field(buf, n, field, field_len)) break;
  }

  // value holds at most VALUE_LIMIT bytes and its NUL. The pieces are taken
  // as C strings from here on: a value ends at a NUL byte.
  char value[VALUE_LIMIT + 1];
  size_t len = str_copy_bounded(value, str_trim(buf + field_len), sizeof value);
  if (len > VALUE_LIMIT) len = VALUE_LIMIT;
  dlog(DLOG_HEADER, 9, "buf2=%s\n", value);

  while (len < VALUE_LIMIT) {
    size_t n = read_piece(file, buf);
    if (n == 0 || (buf[0] != ' ' && buf[0] != '\t') || str_is_blank(buf, n)) break;
    value[len++] = buf[0];
    value[len] = '\0';
    const char* line = str_trim(buf);
    dlog(DLOG_HEADER, 9, "folded line: %s\n", line);
    size_t line_len = strlen(line);
    if (line_len > VALUE_LIMIT - len) break;
    memcpy(value + len, line, line_len + 1);
    len += line_len;
  }

  char* result = nullptr;
  xasprintf(&result, "%s", str_trim(value));
  dlog(DLOG_HEADER, 9, "found field %s: %s\n", field, result);
  return result;
}

}  // namespace

char* header_field_value(const char* field, const char* file_name) {
  FilePtr file(fopen(file_name, "r"));
  if (file == nullptr) {
    dlog(DLOG_HEADER, 1, "Couldn't open %s: %m\n", file_name);
    return nullptr;
  }
  return field_value(field, file.get());
}

char* header_field_value_in(const char* field, const char* bytes, size_t n) {
  FilePtr file(n > 0 ? fmemopen(const_cast<char*>(bytes), n, "r") : nullptr);
  return file != nullptr ? field_value(field, file.get()) : nullptr;
}

char* rfc822_date(const time_t* time) {
  char text[128] = "";
  struct tm tm;
  if (localtime_r(time, &tm) == nullptr) {
    dlog(DLOG_HEADER, 1, "rfc822_date: time out of range: %lld\n", static_cast<long long>(*time));
  } else {
    // setlocale's answer is overwritten by the next call; keep a copy to go back to.
    char* saved = nullptr;
    const char* current = setlocale(LC_TIME, nullptr);
    if (current != nullptr) xasprintf(&saved, "%s", current);
    setlocale(LC_TIME, "C");
    strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S %z", &tm);
    if (saved != nullptr) setlocale(LC_TIME, saved);
    free(saved);
  }
  char* result = nullptr;
  xasprintf(&result, "%s", text);
  return result;
}

int rfc822_tag(const char* field, const char* tag, const char* file_name) {
  if (tag == nullptr) {
    dlog(DLOG_HEADER, 9, "tag is null.");
    return 1;
  }
  dlog(DLOG_HEADER, 9, "rfc822_tag filed %s tag %s fname %s\n", field, tag, file_name);
  FilePtr in(fopen(file_name, "r"));
  if (in == nullptr) {
    dlog(DLOG_HEADER, 1, "Couldn't open scan file %s for tagging: %m\n", file_name);
    return -1;
  }
  char* path = template_beside(file_name, "rfc822_");
  int fd = mkstemp(path);
  FILE* out = fd < 0 ? nullptr : fdopen(fd, "w");
  if (out == nullptr) {
    if (fd >= 0) {
      int e = errno;
      close(fd);
      unlink(path);
      errno = e;
    }
    // A full or broken scan directory fails this message only.
    dlog(DLOG_HEADER, 1, "Couldn't open file %s for tagging: %m\n", path);
    free(path);
    return -1;
  }

  const size_t field_len = strlen(field);
  const size_t tag_len = strlen(tag);
  int result = 0;
  char buf[PIECE_SIZE];
  for (size_t n; (n = read_piece(in.get(), buf)) > 0;) {
    if (str_is_blank(buf, n)) {
      // The blank line read is replaced by the second CRLF.
      fprintf(out, "%s %s\r\n\r\n", field, tag);
      result = 1;
      break;
    }
    if (starts_with_field(buf, n, field, field_len)) {
      // Only blanks are skipped: a value of nothing but its line end keeps it.
      const char* v = buf + field_len;
      const char* end = buf + n;
      while (v < end && (*v == ' ' || *v == '\t')) v++;
      if (static_cast<size_t>(end - v) >= tag_len && memcmp(v, tag, tag_len) == 0) {
        fwrite(buf, 1, n, out);
      } else {
        fprintf(out, "%s %s ", field, tag);
        fwrite(v, 1, static_cast<size_t>(end - v), out);
      }
      break;
    }
    fwrite(buf, 1, n, out);
  }

  bool copied = ferror(in.get()) == 0 && copy_rest(in.get(), out) && ferror(out) == 0;
  in.reset();
  if (fclose(out) != 0) copied = false;
  if (!copied) {
    // A copy cut short must never replace the message.
    dlog(DLOG_HEADER, 1, "Couldn't write tagged copy of %s: %m\n", file_name);
    unlink(path);
    free(path);
    return -1;
  }
  if (rename(path, file_name) != 0) {
    dlog(DLOG_HEADER, 1, "Couldn't rename tagged file: %s : %m\n", file_name);
    result = -1;
  }
  free(path);
  return result;
}
