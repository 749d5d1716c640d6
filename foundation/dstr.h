// Growable byte strings: the buffer type behind command lines, addresses,
// scanner traffic and split lists. A DynString knows its length, may hold NUL
// bytes and always keeps a NUL behind its last byte. Operations report failure
// by their result (-1, null, or -32768 for dstr_cmp) and never log or abort.
#pragma once

#include <memory>

struct DynString {
  int capacity;  // bytes allocated for data
  int length;    // bytes in use, not counting the terminating NUL
  char* data;    // data[length] is always 0
};

// The result of splitting: `count` strings, allocated as one block with the list.
struct DynStringList {
  int count;
  DynString* entries[1];  // really `count` entries
};

constexpr int DSTR_CMP_NULL = -32768;

// Capacity for a need of n bytes: the smallest power of two above n, at least 8.
int dstr_grow_size(int n);

DynString* dstr_new(int n);
DynString* dstr_from_cstr(const char* s);
DynString* dstr_from_block(const void* p, int len);
DynString* dstr_copy(const DynString* b);
DynString* dstr_mid(const DynString* b, int left, int len);
DynString* dstr_format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Makes the capacity greater than need; a string grows only when need reaches it.
int dstr_alloc(DynString* b, int need);
DynString* dstr_terminate(DynString* b);
int dstr_cat_char(DynString* b, char c);
int dstr_cat_cstr(DynString* b, const char* s);
// Appends len bytes at p (not part of the classic set; used where a block is
// appended in one step rather than byte by byte).
int dstr_cat_block(DynString* b, const void* p, int len);
int dstr_concat(DynString* b, const DynString* b2);  // b2 may be b itself
int dstr_delete(DynString* b, int pos, int len);
int dstr_cmp(const DynString* b1, const DynString* b2);
int dstr_find_char(const DynString* b, int pos, const char* set);
DynStringList* dstr_split_set(const DynString* b, const char* set);
int dstr_list_free(DynStringList* list);
int dstr_free(DynString* b);

struct DstrFree {
  void operator()(DynString* s) const noexcept { dstr_free(s); }
};
using DstrPtr = std::unique_ptr<DynString, DstrFree>;

struct DstrListFree {
  void operator()(DynStringList* l) const noexcept { dstr_list_free(l); }
};
using DstrListPtr = std::unique_ptr<DynStringList, DstrListFree>;
