// Growable byte strings. Every operation checks its arguments against the
// record's invariants and reports a broken one by its result, so that a freed
// record (marked with impossible sizes) fails instead of being used.
#include "foundation/dstr.h"

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

constexpr int kFreedCapacity = -654;
constexpr int kListInitialRoom = 4;

bool dstr_valid(const DynString* b) {
  return b != nullptr && b->data != nullptr && b->length >= 0 && b->capacity >= 0 &&
         b->capacity >= b->length;
}

// A new record around a buffer of `capacity` bytes holding `len` bytes at p.
DynString* dstr_make(const void* p, int len, int capacity) {
  DynString* b = static_cast<DynString*>(malloc(sizeof(DynString)));
  if (b == nullptr) return nullptr;
  b->data = static_cast<char*>(malloc(static_cast<size_t>(capacity)));
  if (b->data == nullptr) {
    free(b);
    return nullptr;
  }
  if (len > 0) memcpy(b->data, p, static_cast<size_t>(len));
  b->data[len] = 0;
  b->length = len;
  b->capacity = capacity;
  return b;
}

// The set is a C string, so a NUL byte in the data never counts as a member.
bool in_set(const char* set, size_t set_len, char c) {
  return memchr(set, c, set_len) != nullptr;
}

size_t list_bytes(int room) {
  return offsetof(DynStringList, entries) + static_cast<size_t>(room) * sizeof(DynString*);
}

}  // namespace

int dstr_grow_size(int n) {
  if (n < 0) return -1;
  unsigned int v = static_cast<unsigned int>(n);
  v |= v >> 1;
  v |= v >> 2;
  v |= v >> 4;
  v |= v >> 8;
  v |= v >> 16;
  v += 1;
  // A need of 2^30 or more has no power of two above it that fits an int.
  if (v == 0 || v > 0x40000000u) return -1;
  return v < 8 ? 8 : static_cast<int>(v);
}

DynString* dstr_new(int n) {
  if (n < 1) n = 1;
  DynString* b = static_cast<DynString*>(malloc(sizeof(DynString)));
  if (b == nullptr) return nullptr;
  b->data = static_cast<char*>(calloc(static_cast<size_t>(n), 1));
  if (b->data == nullptr) {
    free(b);
    return nullptr;
  }
  b->length = 0;
  b->capacity = n;
  return b;
}

DynString* dstr_from_cstr(const char* s) {
  if (s == nullptr) return nullptr;
  size_t len = strlen(s);
  if (len > 0x3fffffff) return nullptr;
  return dstr_from_block(s, static_cast<int>(len));
}

DynString* dstr_from_block(const void* p, int len) {
  if (p == nullptr || len < 0) return nullptr;
  int cap = dstr_grow_size(len + 1);
  if (cap < 0) return nullptr;
  return dstr_make(p, len, cap);
}

DynString* dstr_copy(const DynString* b) {
  if (!dstr_valid(b)) return nullptr;
  int cap = dstr_grow_size(b->length + 1);
  DynString* c = cap > 0 ? dstr_make(b->data, b->length, cap) : nullptr;
  if (c == nullptr) c = dstr_make(b->data, b->length, b->length + 1);
  return c;
}

DynString* dstr_mid(const DynString* b, int left, int len) {
  if (!dstr_valid(b)) return nullptr;
  if (left < 0) {
    len += left;
    left = 0;
  }
  if (left >= b->length || len <= 0) return dstr_from_block("", 0);
  if (len > b->length - left) len = b->length - left;
  return dstr_from_block(b->data + left, len);
}

DynString* dstr_format(const char* format, ...) {
  if (format == nullptr) return nullptr;
  char* text = nullptr;
  va_list ap;
  va_start(ap, format);
  int n = vasprintf(&text, format, ap);
  va_end(ap);
  if (n < 0) return nullptr;
  DynString* b = static_cast<DynString*>(malloc(sizeof(DynString)));
  if (b == nullptr) {
    free(text);
    return nullptr;
  }
  // The capacity is recorded as the length, not counting the NUL byte that
  // vasprintf also allocated, so the next append grows the buffer. An empty
  // result records 1 (its NUL byte really is there) because a capacity below 1
  // would make the string unfreeable.
  b->data = text;
  b->length = n;
  b->capacity = n > 0 ? n : 1;
  return b;
}

int dstr_alloc(DynString* b, int need) {
  if (!dstr_valid(b) || need < 1) return -1;
  if (need < b->capacity) return 0;
  int size = dstr_grow_size(need);
  if (size < 0) return -1;
  char* data = nullptr;
  // A string that has shrunk well below its buffer moves to a fresh one, so
  // the free tail is not copied along as realloc would do.
  if (7LL * b->capacity >= 8LL * b->length) {
    data = static_cast<char*>(malloc(static_cast<size_t>(size)));
    if (data != nullptr) {
      memcpy(data, b->data, static_cast<size_t>(b->length));
      free(b->data);
    }
  }
  if (data == nullptr) {
    data = static_cast<char*>(realloc(b->data, static_cast<size_t>(size)));
    if (data == nullptr) return -1;
  }
  b->data = data;
  b->capacity = size;
  b->data[b->length] = 0;
  return 0;
}

DynString* dstr_terminate(DynString* b) {
  if (b == nullptr) return b;
  if (dstr_alloc(b, b->length + 1) == 0) b->data[b->length] = 0;
  return b;
}

int dstr_cat_char(DynString* b, char c) {
  if (!dstr_valid(b)) return -1;
  if (dstr_alloc(b, b->length + 2) != 0) return -1;
  b->data[b->length++] = c;
  b->data[b->length] = 0;
  return 0;
}

int dstr_cat_cstr(DynString* b, const char* s) {
  if (!dstr_valid(b) || s == nullptr) return -1;
  for (; *s != 0; s++) {
    if (dstr_cat_char(b, *s) != 0) return -1;
  }
  return 0;
}

int dstr_cat_block(DynString* b, const void* p, int len) {
  if (!dstr_valid(b) || len < 0 || (p == nullptr && len > 0)) return -1;
  if (len == 0) return 0;
  if (len > 0x3fffffff - b->length) return -1;
  if (dstr_alloc(b, b->length + len + 1) != 0) return -1;
  memmove(b->data + b->length, p, static_cast<size_t>(len));
  b->length += len;
  b->data[b->length] = 0;
  return 0;
}

int dstr_concat(DynString* b, const DynString* b2) {
  if (!dstr_valid(b) || !dstr_valid(b2)) return -1;
  int k = b2->length;
  if (k > 0x3fffffff - b->length) return -1;
  if (dstr_alloc(b, b->length + k + 1) != 0) return -1;
  // Read b2->data only now: when b2 is b, the growth may have moved it.
  memmove(b->data + b->length, b2->data, static_cast<size_t>(k));
  b->length += k;
  b->data[b->length] = 0;
  return 0;
}

int dstr_delete(DynString* b, int pos, int len) {
  if (!dstr_valid(b)) return -1;
  if (pos < 0) {
    len += pos;
    pos = 0;
  }
  if (len < 1 || pos >= b->length) return 0;
  if (len > b->length - pos) len = b->length - pos;
  memmove(b->data + pos, b->data + pos + len, static_cast<size_t>(b->length - pos - len));
  b->length -= len;
  b->data[b->length] = 0;
  return 0;
}

int dstr_cmp(const DynString* b1, const DynString* b2) {
  if (b1 == nullptr || b2 == nullptr || b1->data == nullptr || b2->data == nullptr) {
    return DSTR_CMP_NULL;
  }
  if (b1->length == b2->length && b1->data == b2->data) return 0;
  int n = b1->length < b2->length ? b1->length : b2->length;
  for (int i = 0; i < n; i++) {
    signed char c1 = static_cast<signed char>(b1->data[i]);
    signed char c2 = static_cast<signed char>(b2->data[i]);
    if (c1 != c2) return c1 - c2;
    if (c1 == 0) return 0;
  }
  if (b1->length > b2->length) return 1;
  if (b1->length < b2->length) return -1;
  return 0;
}

int dstr_find_char(const DynString* b, int pos, const char* set) {
  if (!dstr_valid(b) || set == nullptr) return -1;
  if (pos < 0 || pos >= b->length) return -1;
  size_t set_len = strlen(set);
  if (set_len == 0) return -1;
  for (int i = pos; i < b->length; i++) {
    if (in_set(set, set_len, b->data[i])) return i;
  }
  return -1;
}

DynStringList* dstr_split_set(const DynString* b, const char* set) {
  if (b == nullptr || set == nullptr || b->data == nullptr || b->length < 0 || b->capacity < 0) {
    return nullptr;
  }
  int room = kListInitialRoom;
  DynStringList* list = static_cast<DynStringList*>(malloc(list_bytes(room)));
  if (list == nullptr) return nullptr;
  list->count = 0;
  size_t set_len = strlen(set);
  int start = 0;
  do {
    int end = start;
    while (end < b->length && !in_set(set, set_len, b->data[end])) end++;
    if (list->count == room) {
      DynStringList* bigger = static_cast<DynStringList*>(realloc(list, list_bytes(room * 2)));
      if (bigger == nullptr) {
        dstr_list_free(list);
        return nullptr;
      }
      list = bigger;
      room *= 2;
    }
    DynString* token = dstr_from_block(b->data + start, end - start);
    if (token == nullptr) {
      dstr_list_free(list);
      return nullptr;
    }
    list->entries[list->count++] = token;
    start = end + 1;
  } while (start < b->length);
  return list;
}

int dstr_list_free(DynStringList* list) {
  if (list == nullptr) return -1;
  for (int i = 0; i < list->count; i++) dstr_free(list->entries[i]);
  free(list);
  return 0;
}

int dstr_free(DynString* b) {
  if (!dstr_valid(b) || b->capacity < 1) return -1;
  free(b->data);
  b->data = nullptr;
  b->length = -1;
  b->capacity = kFreedCapacity;
  free(b);
  return 0;
}
