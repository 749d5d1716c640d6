// Small string tools shared by the whole daemon: allocate-and-format,
// in-place trimming, blank-line test and a bounded copy into fixed fields.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

// Formats into a new string (caller frees with free()) and returns its size
// including the NUL. Allocation failure ends the process: it never fails.
int xasprintf(char** result, const char* format, ...) __attribute__((format(printf, 2, 3)));
// Removes trailing, then leading white space in place; returns s (null for null).
char* str_trim(char* s);
int is_blank_line(const char* s);
// True when p[0, n) holds only space, tab, LF, VT, FF and CR (none at all
// counts too). A NUL is not white space.
bool str_is_blank(const char* p, size_t n);
// Copies at most size - 1 bytes and terminates when size > 0; returns strlen(source).
size_t str_copy_bounded(char* destination, const char* source, size_t size);

// A copy of text fit to be one field of a line: every blank, control byte
// and DEL becomes '?', so it can neither end the line nor add a field to it.
// Caller frees; allocation failure ends the process.
char* str_field_copy(const char* text);

// A malloc'ed string (from xasprintf, strdup) that frees itself.
struct FreeChars {
  void operator()(char* p) const noexcept { free(p); }
};
using CharsPtr = std::unique_ptr<char, FreeChars>;
