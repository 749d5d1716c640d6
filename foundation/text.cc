#include "foundation/text.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "foundation/fatal.h"

namespace {

// isspace in the C locale, whatever locale the process runs under.
bool is_space(unsigned char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

}  // namespace

int xasprintf(char** result, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = vasprintf(result, format, args);
  va_end(args);
  if (n < 0) fatal_exit("vasprintf: %m\n");
  return n + 1;
}

bool str_is_blank(const char* p, size_t n) {
  for (size_t i = 0; i < n; i++)
    if (!is_space(static_cast<unsigned char>(p[i]))) return false;
  return true;
}

char* str_trim(char* s) {
  if (s == nullptr) return nullptr;
  size_t len = strlen(s);
  while (len > 0 && is_space(static_cast<unsigned char>(s[len - 1]))) s[--len] = '\0';
  size_t lead = 0;
  while (lead < len && is_space(static_cast<unsigned char>(s[lead]))) lead++;
  if (lead > 0) memmove(s, s + lead, len - lead + 1);
  return s;
}

int is_blank_line(const char* s) {
  for (; *s; s++)
    if (!is_space(static_cast<unsigned char>(*s))) return 0;
  return 1;
}

size_t str_copy_bounded(char* destination, const char* source, size_t size) {
  size_t len = strlen(source);
  if (size == 0) return len;
  size_t n = len < size - 1 ? len : size - 1;
  memcpy(destination, source, n);
  destination[n] = '\0';
  return len;
}

char* str_field_copy(const char* text) {
  char* copy = strdup(text);
  if (copy == nullptr) fatal_exit("Out of memory: %m\n");
  for (char* p = copy; *p != '\0'; p++)
    if (static_cast<unsigned char>(*p) <= ' ' || *p == '\x7f') *p = '?';
  return copy;
}
