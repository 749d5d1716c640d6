#include "foundation/dstr.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {

std::string str(const DynString* b) {
  return std::string(b->data, static_cast<size_t>(b->length));
}

DstrPtr make(const std::string& s) {
  return DstrPtr(dstr_from_block(s.data(), static_cast<int>(s.size())));
}

std::vector<std::string> split(const std::string& text, const char* set) {
  DstrListPtr list(dstr_split_set(make(text).get(), set));
  std::vector<std::string> out;
  for (int i = 0; list && i < list->count; i++) out.push_back(str(list->entries[i]));
  return out;
}

// Every string handed out must keep its invariants and its NUL.
void expect_sound(const DynString* b) {
  ASSERT_NE(b, nullptr);
  ASSERT_NE(b->data, nullptr);
  EXPECT_GE(b->length, 0);
  EXPECT_GE(b->capacity, b->length);
  EXPECT_EQ(b->data[b->length], 0);
}

TEST(DstrGrowth, SmallestPowerOfTwoAboveNeedAndAtLeastEight) {
  const std::pair<int, int> cases[] = {
      {0, 8},   {1, 8},       {7, 8},       {8, 16},      {15, 16},     {16, 32},      {31, 32},
      {32, 64}, {1000, 1024}, {1023, 1024}, {1024, 2048}, {4000, 4096}, {65535, 65536}};
  for (auto [need, size] : cases) EXPECT_EQ(dstr_grow_size(need), size) << "need " << need;
}

TEST(DstrNew, SizeIsCapacityAtLeastOneAndZeroFilled) {
  for (auto [size, capacity] : {std::pair{4000, 4000}, {0, 1}, {-5, 1}}) {
    DstrPtr b(dstr_new(size));
    expect_sound(b.get());
    EXPECT_EQ(b->length, 0);
    EXPECT_EQ(b->capacity, capacity) << size;
    for (int i = 0; i < capacity; i++) ASSERT_EQ(b->data[i], 0) << i;
  }
}

TEST(DstrFromBlock, CapacityFollowsGrowthRuleForLengthPlusOne) {
  const std::pair<std::string, int> cases[] = {{"", 8},
                                               {"abcdef", 8},
                                               {"abcdefg", 16},
                                               {"abcdefgh", 16},
                                               {"abcdefghijklmno", 32},
                                               {"abcdefghijklmnop", 32},
                                               {std::string("a\0b\0c", 5), 8}};
  for (const auto& [text, capacity] : cases) {
    DstrPtr b = make(text);
    expect_sound(b.get());
    EXPECT_EQ(b->capacity, capacity) << '"' << text << '"';
    EXPECT_EQ(str(b.get()), text);
    if (text.find('\0') != std::string::npos) continue;
    DstrPtr from_cstr(dstr_from_cstr(text.c_str()));
    EXPECT_EQ(from_cstr->capacity, capacity) << '"' << text << '"';
    EXPECT_EQ(str(from_cstr.get()), text);
  }
  EXPECT_EQ(str(DstrPtr(dstr_from_block("xyz", 0)).get()), "");
}

TEST(DstrCopy, CapacityByGrowthRuleNotSourceCapacityAndOwnBuffer) {
  DstrPtr b(dstr_new(4000));
  ASSERT_EQ(dstr_cat_cstr(b.get(), "abc"), 0);
  DstrPtr c(dstr_copy(b.get()));
  expect_sound(c.get());
  EXPECT_EQ(c->capacity, 8);
  b->data[0] = 'X';
  EXPECT_EQ(str(c.get()), "abc");

  DstrPtr nul = make(std::string("a\0bcdefg", 8));
  DstrPtr d(dstr_copy(nul.get()));
  EXPECT_EQ(d->capacity, 16);
  EXPECT_EQ(str(d.get()), str(nul.get()));
}

// dstr_mid takes out what dstr_delete removes.
TEST(DstrMidAndDelete, RangesAreClippedToTheString) {
  const std::tuple<int, int, const char*, const char*> cases[] = {
      {-2, 4, "he", "llo"},  {3, 10, "lo", "hel"},  {5, 1, "", "hello"},  {0, 5, "hello", ""},
      {1, 3, "ell", "ho"},   {-10, 3, "", "hello"}, {-5, 6, "h", "ello"}, {2, 0, "", "hello"},
      {2, -3, "", "hello"},  {9, 2, "", "hello"},   {4, 1, "o", "hell"},  {0, 99, "hello", ""},
      {1, 2, "el", "hlo"},   {0, 1, "h", "ello"},   {-2, 3, "h", "ello"}, {-2, 2, "", "hello"},
      {-9, 20, "hello", ""}, {2, -1, "", "hello"},  {7, 3, "", "hello"}};
  DstrPtr b = make("hello");
  for (auto [left, len, mid, rest] : cases) {
    DstrPtr m(dstr_mid(b.get(), left, len));
    ASSERT_NE(m, nullptr) << left << "," << len;
    expect_sound(m.get());
    EXPECT_EQ(str(m.get()), mid) << "mid " << left << "," << len;
    DstrPtr d = make("hello");
    EXPECT_EQ(dstr_delete(d.get(), left, len), 0);
    EXPECT_EQ(str(d.get()), rest) << "delete " << left << "," << len;
    expect_sound(d.get());
  }
  EXPECT_EQ(str(b.get()), "hello");
}

TEST(DstrFormat, CapacityRecordedAsLengthAndNextAppendGrowsFromIt) {
  DstrPtr b(dstr_format("%d-%s", 42, "xy"));
  expect_sound(b.get());
  EXPECT_EQ(str(b.get()), "42-xy");
  EXPECT_EQ(b->capacity, 5);
  ASSERT_EQ(dstr_cat_char(b.get(), '!'), 0);
  EXPECT_EQ(b->capacity, 8);
  EXPECT_EQ(str(b.get()), "42-xy!");

  DstrPtr empty(dstr_format("%s", ""));
  expect_sound(empty.get());
  ASSERT_EQ(dstr_cat_cstr(empty.get(), "abc"), 0);
  EXPECT_EQ(str(empty.get()), "abc");
}

TEST(DstrAlloc, GrowsByTheRuleOnlyWhenNeedReachesCapacityAndKeepsContent) {
  // A nearly empty buffer moves to a fresh one, a full one is reallocated:
  // either way the bytes, NUL ones too, and the NUL behind them survive.
  const std::string sparse("ke\0ep", 5);
  DstrPtr b(dstr_new(100));
  ASSERT_EQ(dstr_cat_block(b.get(), sparse.data(), 5), 0);
  DstrPtr full(dstr_format("abcdefgh"));  // length 8, capacity 8
  struct {
    DynString* b;
    int need, capacity;
    std::string content;
  } steps[] = {{b.get(), 1, 100, sparse},
               {b.get(), 99, 100, sparse},
               {b.get(), 100, 128, sparse},
               {b.get(), 128, 256, sparse},
               {full.get(), 8, 16, "abcdefgh"}};
  for (const auto& s : steps) {
    EXPECT_EQ(dstr_alloc(s.b, s.need), 0);
    EXPECT_EQ(s.b->capacity, s.capacity) << s.need;
    EXPECT_EQ(str(s.b), s.content) << s.need;
    EXPECT_EQ(s.b->data[s.b->length], 0);
  }
  char* before = b->data;
  EXPECT_EQ(dstr_alloc(b.get(), 255), 0);
  EXPECT_EQ(b->data, before);
}

// Applies one append: c cat_char(arg[0]), s cat_cstr(arg), b cat_block(arg,
// len), + concat(a string of arg, len), = concat(b, b).
int append(DynString* b, char op, const char* arg, int len) {
  switch (op) {
    case 'c':
      return dstr_cat_char(b, arg[0]);
    case 's':
      return dstr_cat_cstr(b, arg);
    case 'b':
      return dstr_cat_block(b, arg, len);
    case '+':
      return dstr_concat(b, make(std::string(arg, len)).get());
    default:
      return dstr_concat(b, b);
  }
}

TEST(DstrAppend, GrowsWhenLengthPlusAddedPlusNulReachesCapacity) {
  struct {
    std::string start;
    char op;
    const char* arg;
    int len, result;
    std::string want;
    int capacity;
  } cases[] = {
      {"abcdef", 'c', "g", 0, 0, "abcdefg", 16},
      {"abcde", 'c', "f", 0, 0, "abcdef", 8},
      {"a", 'c', "", 0, 0, std::string("a\0", 2), 8},
      {"abc", 's', "defghij", 0, 0, "abcdefghij", 16},
      {"abc", 's', "", 0, 0, "abc", 8},
      {"abc", 's', nullptr, 0, -1, "abc", 8},
      {"ab", 'b', "c\0d", 3, 0, std::string("abc\0d", 5), 8},
      {std::string("abc\0d", 5), 'b', "xyz", 3, 0, std::string("abc\0dxyz", 8), 16},
      {"ab", 'b', "xyz", 0, 0, "ab", 8},
      {"ab", 'b', "xyz", -1, -1, "ab", 8},
      {"ab", 'b', nullptr, 2, -1, "ab", 8},
      {"abc", '+', "d\0e", 3, 0, std::string("abcd\0e", 6), 8},
      // Length 6 of capacity 8: appending itself needs 13, so the buffer
      // moves while it is also the source.
      {"abcdef", '=', nullptr, 0, 0, "abcdefabcdef", 16},
  };
  for (const auto& c : cases) {
    DstrPtr b = make(c.start);
    EXPECT_EQ(append(b.get(), c.op, c.arg, c.len), c.result) << c.op << " " << c.want;
    EXPECT_EQ(str(b.get()), c.want) << c.op;
    EXPECT_EQ(b->capacity, c.capacity) << c.op << " " << c.want;
    expect_sound(b.get());
  }
}

TEST(DstrAppend, ManyAppendsKeepInvariantsAndPowerOfTwoCapacity) {
  DstrPtr b(dstr_new(1));
  std::string want;
  for (int i = 0; i < 1000; i++) {
    char c = static_cast<char>('a' + i % 26);
    ASSERT_EQ(dstr_cat_char(b.get(), c), 0);
    want += c;
    ASSERT_GT(b->capacity, b->length + 1) << i;
    ASSERT_EQ(b->capacity & (b->capacity - 1), 0) << b->capacity;
    ASSERT_EQ(b->data[b->length], 0);
  }
  EXPECT_EQ(str(b.get()), want);
  EXPECT_EQ(b->capacity, 1024);
}

// Bytes are signed: 0x80 is -128 and sorts before 0x7f. Equal NUL bytes end
// the comparison at once, whatever follows. A null argument gives -32768.
TEST(DstrCmp, Table) {
  const std::tuple<std::string, std::string, int> cases[] = {
      {"abc", "abd", 'c' - 'd'},
      {"abd", "abc", 'd' - 'c'},
      {"abc", "ab", 1},
      {"ab", "abc", -1},
      {"abc", "abc", 0},
      {"", "", 0},
      {"", "a", -1},
      {"b", "ab", 'b' - 'a'},
      {"abz", "abcdef", 'z' - 'c'},
      {"\x80", "\x7f", -128 - 127},
      {"\x7f", "\x80", 127 + 128},
      {"a\xff", "a\x01", -1 - 1},
      {std::string("a\0x", 3), std::string("a\0y", 3), 0},
      {std::string("a\0xyz", 5), std::string("a\0y", 3), 0}};
  for (const auto& [a, b, want] : cases) {
    EXPECT_EQ(dstr_cmp(make(a).get(), make(b).get()), want) << '"' << a << "\" vs \"" << b << '"';
  }
  DstrPtr a = make("abc");
  EXPECT_EQ(dstr_cmp(a.get(), a.get()), 0);
  DynString shorter{a->capacity, 2, a->data};
  EXPECT_EQ(dstr_cmp(a.get(), &shorter), 1);
  EXPECT_EQ(dstr_cmp(&shorter, a.get()), -1);
  EXPECT_EQ(dstr_cmp(nullptr, a.get()), -32768);
  EXPECT_EQ(dstr_cmp(a.get(), nullptr), -32768);
  EXPECT_EQ(dstr_cmp(nullptr, nullptr), -32768);
}

TEST(DstrFindChar, Table) {
  DstrPtr b = make("hello, world");
  const std::tuple<int, const char*, int> cases[] = {
      {0, ", ", 5},   {5, ", ", 5}, {6, ", ", 6},  {7, ", ", -1}, {0, "d", 11},
      {0, "xyz", -1}, {0, "", -1},  {-1, "h", -1}, {12, "d", -1}, {0, nullptr, -1}};
  for (auto [pos, set, want] : cases) EXPECT_EQ(dstr_find_char(b.get(), pos, set), want) << pos;
  // A NUL byte in the data is never in the set.
  DstrPtr nul = make(std::string("a\0b", 3));
  EXPECT_EQ(dstr_find_char(nul.get(), 0, "b"), 2);
  EXPECT_EQ(dstr_find_char(nul.get(), 0, "xyz"), -1);
}

using Tokens = std::vector<std::string>;

TEST(DstrSplit, Table) {
  const char* seps = " \t,:;";
  struct {
    const char* label;
    std::string text;
    const char* set;
    Tokens want;
  } cases[] = {
      {"comma and space", "63, 92", seps, {"63", "", "92"}},
      {"trailing separator", "a;", seps, {"a"}},
      {"empty text", "", seps, {""}},
      {"leading separator", ";a", seps, {"", "a"}},
      {"two adjacent", "a;;b", ";", {"a", "", "b"}},
      {"only separators", ";;", ";", {"", ""}},
      {"one separator", ";", ";", {""}},
      {"no separator", "abc", ";", {"abc"}},
      {"empty set", "a;b c", "", {"a;b c"}},
      {"single byte set", "a,b;c", ",", {"a", "b;c"}},
      {"tabs and colons", "1\t2:3", seps, {"1", "2", "3"}},
      {"nul is not a separator", std::string("a\0b;c", 5), ";", {std::string("a\0b", 3), "c"}},
      {"trailing double", "a;;", ";", {"a", ""}},
  };
  for (const auto& c : cases) EXPECT_EQ(split(c.text, c.set), c.want) << c.label;
}

TEST(DstrSplit, ListGrowsPastItsInitialRoom) {
  std::string text;
  Tokens want;
  for (int i = 0; i < 37; i++) {
    text += (i ? "," : "") + std::to_string(i);
    want.push_back(std::to_string(i));
  }
  EXPECT_EQ(split(text, ","), want);
}

TEST(DstrArguments, NullBrokenAndFreedRecordsAreRefusedAndLeaveTheTargetAlone) {
  char buf[4] = "abc";
  DynString overfull{2, 3, buf};  // length above capacity
  DynString no_data{8, 0, nullptr};
  DynString zero_capacity{0, 0, buf};
  DynString negative{8, -1, buf};
  DynString freed{-654, -1, buf};  // as a freed record is marked
  DynString freed_no_data{-654, -1, nullptr};
  for (DynString* bad :
       {static_cast<DynString*>(nullptr), &overfull, &no_data, &negative, &freed}) {
    EXPECT_EQ(dstr_alloc(bad, 10), -1);
    EXPECT_EQ(dstr_cat_char(bad, 'x'), -1);
    EXPECT_EQ(dstr_cat_cstr(bad, "x"), -1);
    EXPECT_EQ(dstr_delete(bad, 0, 1), -1);
    EXPECT_EQ(dstr_copy(bad), nullptr);
    EXPECT_EQ(dstr_mid(bad, 0, 1), nullptr);
    EXPECT_EQ(dstr_find_char(bad, 0, "x"), -1);
    DstrPtr ok = make("a");
    EXPECT_EQ(dstr_concat(ok.get(), bad), -1);
    EXPECT_EQ(dstr_concat(bad, ok.get()), -1);
    EXPECT_EQ(str(ok.get()), "a");
  }
  for (DynString* bad :
       {static_cast<DynString*>(nullptr), &overfull, &zero_capacity, &freed_no_data}) {
    EXPECT_EQ(dstr_free(bad), -1);
  }
  EXPECT_EQ(dstr_split_set(nullptr, ","), nullptr);
  EXPECT_EQ(dstr_split_set(&negative, ","), nullptr);
  EXPECT_EQ(dstr_list_free(nullptr), -1);
  EXPECT_EQ(dstr_terminate(nullptr), nullptr);
  EXPECT_EQ(dstr_from_cstr(nullptr), nullptr);
  EXPECT_EQ(dstr_from_block(nullptr, 3), nullptr);
  EXPECT_EQ(dstr_from_block(nullptr, 0), nullptr);
  EXPECT_EQ(dstr_from_block("abc", -1), nullptr);
  const char* no_format = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
  EXPECT_EQ(dstr_format(no_format), nullptr);
#pragma GCC diagnostic pop

  DstrPtr b = make("abc");
  EXPECT_EQ(dstr_alloc(b.get(), 0), -1);
  EXPECT_EQ(dstr_alloc(b.get(), -3), -1);
  EXPECT_EQ(dstr_alloc(b.get(), 0x7fffffff), -1);
  EXPECT_EQ(dstr_split_set(b.get(), nullptr), nullptr);
  EXPECT_EQ(b->capacity, 8);
  EXPECT_EQ(str(b.get()), "abc");
  b->data[3] = 'Z';
  EXPECT_EQ(dstr_terminate(b.get()), b.get());
  EXPECT_EQ(b->data[3], 0);
  EXPECT_EQ(dstr_free(dstr_from_cstr("x")), 0);
}

}  // namespace
