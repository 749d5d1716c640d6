#include "foundation/dstr.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string str(const DynString* b) {
  return std::string(b->data, static_cast<size_t>(b->length));
}

DstrPtr make(const char* s) {
  return DstrPtr(dstr_from_cstr(s));
}

std::vector<std::string> split(const std::string& text, const char* set) {
  DstrPtr b(dstr_from_block(text.data(), static_cast<int>(text.size())));
  DstrListPtr list(dstr_split_set(b.get(), set));
  std::vector<std::string> out;
  if (!list) return out;
  for (int i = 0; i < list->count; i++) out.push_back(str(list->entries[i]));
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
  struct {
    int need, size;
  } cases[] = {{0, 8},       {1, 8},       {7, 8},        {8, 16},      {15, 16},
               {16, 32},     {31, 32},     {32, 64},      {1000, 1024}, {1023, 1024},
               {1024, 2048}, {4000, 4096}, {65535, 65536}};
  for (const auto& c : cases) EXPECT_EQ(dstr_grow_size(c.need), c.size) << "need " << c.need;
}

TEST(DstrNew, SizeIsCapacityAndBufferIsZeroFilled) {
  DstrPtr b(dstr_new(4000));
  expect_sound(b.get());
  EXPECT_EQ(b->length, 0);
  EXPECT_EQ(b->capacity, 4000);
  for (int i = 0; i < 4000; i++) ASSERT_EQ(b->data[i], 0) << i;
}

TEST(DstrNew, ZeroOrNegativeSizeGivesCapacityOne) {
  DstrPtr zero(dstr_new(0));
  expect_sound(zero.get());
  EXPECT_EQ(zero->capacity, 1);
  DstrPtr negative(dstr_new(-5));
  expect_sound(negative.get());
  EXPECT_EQ(negative->capacity, 1);
}

TEST(DstrFromCstr, CapacityFollowsGrowthRuleForLengthPlusOne) {
  struct {
    const char* text;
    int capacity;
  } cases[] = {{"", 8},          {"abcdef", 8},           {"abcdefg", 16},
               {"abcdefgh", 16}, {"abcdefghijklmno", 32}, {"abcdefghijklmnop", 32}};
  for (const auto& c : cases) {
    DstrPtr b = make(c.text);
    expect_sound(b.get());
    EXPECT_EQ(b->capacity, c.capacity) << '"' << c.text << '"';
    EXPECT_EQ(str(b.get()), c.text);
  }
}

TEST(DstrFromCstr, NullGivesNull) {
  EXPECT_EQ(dstr_from_cstr(nullptr), nullptr);
}

TEST(DstrFromBlock, KeepsEmbeddedNulBytes) {
  DstrPtr b(dstr_from_block("a\0b\0c", 5));
  expect_sound(b.get());
  EXPECT_EQ(b->length, 5);
  EXPECT_EQ(b->capacity, 8);
  EXPECT_EQ(str(b.get()), std::string("a\0b\0c", 5));
}

TEST(DstrFromBlock, EmptyBlockHasCapacityEight) {
  DstrPtr b(dstr_from_block("xyz", 0));
  expect_sound(b.get());
  EXPECT_EQ(b->length, 0);
  EXPECT_EQ(b->capacity, 8);
}

TEST(DstrFromBlock, NullPointerOrNegativeLengthGivesNull) {
  EXPECT_EQ(dstr_from_block(nullptr, 3), nullptr);
  EXPECT_EQ(dstr_from_block(nullptr, 0), nullptr);
  EXPECT_EQ(dstr_from_block("abc", -1), nullptr);
}

TEST(DstrCopy, CapacityByGrowthRuleNotSourceCapacity) {
  DstrPtr b(dstr_new(4000));
  ASSERT_EQ(dstr_cat_cstr(b.get(), "abc"), 0);
  DstrPtr c(dstr_copy(b.get()));
  expect_sound(c.get());
  EXPECT_EQ(c->capacity, 8);
  EXPECT_EQ(str(c.get()), "abc");
  EXPECT_NE(c->data, b->data);
  b->data[0] = 'X';
  EXPECT_EQ(str(c.get()), "abc");
}

TEST(DstrCopy, CopiesEmbeddedNulAndRejectsNull) {
  DstrPtr b(dstr_from_block("a\0bcdefg", 8));
  DstrPtr c(dstr_copy(b.get()));
  expect_sound(c.get());
  EXPECT_EQ(c->capacity, 16);
  EXPECT_EQ(str(c.get()), str(b.get()));
  EXPECT_EQ(dstr_copy(nullptr), nullptr);
}

TEST(DstrMid, Table) {
  struct {
    int left, len;
    const char* want;
  } cases[] = {
      {-2, 4, "he"}, {3, 10, "lo"}, {5, 1, ""},  {0, 5, "hello"}, {1, 3, "ell"}, {-10, 3, ""},
      {-5, 6, "h"},  {2, 0, ""},    {2, -3, ""}, {9, 2, ""},      {4, 1, "o"},   {0, 99, "hello"},
  };
  DstrPtr b = make("hello");
  for (const auto& c : cases) {
    DstrPtr m(dstr_mid(b.get(), c.left, c.len));
    ASSERT_NE(m, nullptr) << c.left << "," << c.len;
    expect_sound(m.get());
    EXPECT_EQ(str(m.get()), c.want) << "left " << c.left << " len " << c.len;
  }
  EXPECT_EQ(str(b.get()), "hello");
}

TEST(DstrMid, NullGivesNull) {
  EXPECT_EQ(dstr_mid(nullptr, 0, 1), nullptr);
}

TEST(DstrFormat, CapacityRecordedAsLength) {
  DstrPtr b(dstr_format("%d-%s", 42, "xy"));
  expect_sound(b.get());
  EXPECT_EQ(str(b.get()), "42-xy");
  EXPECT_EQ(b->length, 5);
  EXPECT_EQ(b->capacity, 5);
  // The recorded capacity is what the next append grows from.
  ASSERT_EQ(dstr_cat_char(b.get(), '!'), 0);
  EXPECT_EQ(b->capacity, 8);
  EXPECT_EQ(str(b.get()), "42-xy!");
}

TEST(DstrFormat, NullFormatGivesNull) {
  const char* format = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
  EXPECT_EQ(dstr_format(format), nullptr);
#pragma GCC diagnostic pop
}

TEST(DstrFormat, EmptyResultCanBeFreedAndGrown) {
  DstrPtr b(dstr_format("%s", ""));
  expect_sound(b.get());
  EXPECT_EQ(b->length, 0);
  ASSERT_EQ(dstr_cat_cstr(b.get(), "abc"), 0);
  EXPECT_EQ(str(b.get()), "abc");
}

TEST(DstrAlloc, NeedBelowCapacityChangesNothing) {
  DstrPtr b(dstr_new(100));
  char* before = b->data;
  EXPECT_EQ(dstr_alloc(b.get(), 99), 0);
  EXPECT_EQ(b->capacity, 100);
  EXPECT_EQ(b->data, before);
  EXPECT_EQ(dstr_alloc(b.get(), 1), 0);
  EXPECT_EQ(b->capacity, 100);
}

TEST(DstrAlloc, NeedReachingCapacityGrowsByGrowthRule) {
  DstrPtr b(dstr_new(100));
  ASSERT_EQ(dstr_cat_cstr(b.get(), "keep"), 0);
  EXPECT_EQ(dstr_alloc(b.get(), 100), 0);
  EXPECT_EQ(b->capacity, 128);
  EXPECT_EQ(str(b.get()), "keep");
  EXPECT_EQ(b->data[b->length], 0);
  EXPECT_EQ(dstr_alloc(b.get(), 128), 0);
  EXPECT_EQ(b->capacity, 256);
  EXPECT_EQ(str(b.get()), "keep");
}

TEST(DstrAlloc, KeepsContentOnBothPaths) {
  // Nearly empty buffer (fresh-buffer path) and a full one (realloc path):
  // either way the bytes and the NUL behind them survive.
  DstrPtr sparse(dstr_new(64));
  ASSERT_EQ(dstr_cat_block(sparse.get(), "ab\0cd", 5), 0);
  ASSERT_EQ(dstr_alloc(sparse.get(), 64), 0);
  EXPECT_EQ(sparse->capacity, 128);
  EXPECT_EQ(str(sparse.get()), std::string("ab\0cd", 5));
  EXPECT_EQ(sparse->data[5], 0);

  DstrPtr full(dstr_format("abcdefgh"));  // length 8, capacity 8
  ASSERT_EQ(full->capacity, 8);
  ASSERT_EQ(dstr_alloc(full.get(), 8), 0);
  EXPECT_EQ(full->capacity, 16);
  EXPECT_EQ(str(full.get()), "abcdefgh");
  EXPECT_EQ(full->data[8], 0);
}

TEST(DstrAlloc, RejectsBadArguments) {
  DstrPtr b = make("abc");
  EXPECT_EQ(dstr_alloc(b.get(), 0), -1);
  EXPECT_EQ(dstr_alloc(b.get(), -3), -1);
  EXPECT_EQ(dstr_alloc(nullptr, 10), -1);
  char buf[4] = "abc";
  DynString broken{2, 3, buf};  // length above capacity
  EXPECT_EQ(dstr_alloc(&broken, 10), -1);
  DynString no_data{8, 0, nullptr};
  EXPECT_EQ(dstr_alloc(&no_data, 10), -1);
  DynString negative{-654, -1, buf};  // as a freed record is marked
  EXPECT_EQ(dstr_alloc(&negative, 10), -1);
  EXPECT_EQ(b->capacity, 8);
  EXPECT_EQ(str(b.get()), "abc");
}

TEST(DstrAlloc, ImpossibleSizeFailsWithStringUnchanged) {
  DstrPtr b = make("abc");
  EXPECT_EQ(dstr_alloc(b.get(), 0x7fffffff), -1);
  EXPECT_EQ(b->capacity, 8);
  EXPECT_EQ(str(b.get()), "abc");
}

TEST(DstrTerminate, WritesNulAndReturnsString) {
  DstrPtr b = make("abc");
  b->data[3] = 'Z';
  EXPECT_EQ(dstr_terminate(b.get()), b.get());
  EXPECT_EQ(b->data[3], 0);
  EXPECT_EQ(dstr_terminate(nullptr), nullptr);
}

TEST(DstrCatChar, AppendingAtSixOfEightGrowsToSixteen) {
  DstrPtr b = make("abcdef");
  ASSERT_EQ(b->capacity, 8);
  ASSERT_EQ(dstr_cat_char(b.get(), 'g'), 0);
  EXPECT_EQ(b->capacity, 16);
  EXPECT_EQ(str(b.get()), "abcdefg");
  expect_sound(b.get());
}

TEST(DstrCatChar, AppendingAtFiveOfEightDoesNotGrow) {
  DstrPtr b = make("abcde");
  char* before = b->data;
  ASSERT_EQ(dstr_cat_char(b.get(), 'f'), 0);
  EXPECT_EQ(b->capacity, 8);
  EXPECT_EQ(b->data, before);
}

TEST(DstrCatChar, ManyAppendsKeepInvariantsAndPowerOfTwoCapacity) {
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

TEST(DstrCatChar, NulByteCountsAsContent) {
  DstrPtr b = make("a");
  ASSERT_EQ(dstr_cat_char(b.get(), '\0'), 0);
  ASSERT_EQ(dstr_cat_char(b.get(), 'b'), 0);
  EXPECT_EQ(b->length, 3);
  EXPECT_EQ(str(b.get()), std::string("a\0b", 3));
  EXPECT_EQ(dstr_cat_char(nullptr, 'x'), -1);
}

TEST(DstrCatCstr, AppendsAndRejectsNull) {
  DstrPtr b = make("abc");
  EXPECT_EQ(dstr_cat_cstr(b.get(), "defghij"), 0);
  EXPECT_EQ(str(b.get()), "abcdefghij");
  EXPECT_EQ(b->capacity, 16);
  EXPECT_EQ(dstr_cat_cstr(b.get(), ""), 0);
  EXPECT_EQ(str(b.get()), "abcdefghij");
  EXPECT_EQ(dstr_cat_cstr(b.get(), nullptr), -1);
  EXPECT_EQ(str(b.get()), "abcdefghij");
  EXPECT_EQ(dstr_cat_cstr(nullptr, "x"), -1);
}

TEST(DstrCatBlock, AppendsBytesIncludingNul) {
  DstrPtr b = make("ab");
  ASSERT_EQ(dstr_cat_block(b.get(), "c\0d", 3), 0);
  EXPECT_EQ(str(b.get()), std::string("abc\0d", 5));
  expect_sound(b.get());
  // Need length + k + 1 = 5 + 3 + 1 = 9 reaches 8: grows to 16.
  ASSERT_EQ(dstr_cat_block(b.get(), "xyz", 3), 0);
  EXPECT_EQ(b->capacity, 16);
  EXPECT_EQ(dstr_cat_block(b.get(), "xyz", 0), 0);
  EXPECT_EQ(b->length, 8);
  EXPECT_EQ(dstr_cat_block(b.get(), "xyz", -1), -1);
  EXPECT_EQ(dstr_cat_block(b.get(), nullptr, 2), -1);
  EXPECT_EQ(b->length, 8);
}

TEST(DstrConcat, AppendsAnotherString) {
  DstrPtr a = make("abc");
  DstrPtr b(dstr_from_block("d\0e", 3));
  ASSERT_EQ(dstr_concat(a.get(), b.get()), 0);
  EXPECT_EQ(str(a.get()), std::string("abcd\0e", 6));
  EXPECT_EQ(str(b.get()), std::string("d\0e", 3));
  EXPECT_EQ(dstr_concat(a.get(), nullptr), -1);
  EXPECT_EQ(dstr_concat(nullptr, b.get()), -1);
}

TEST(DstrConcat, WithItselfWhileGrowing) {
  // Length 6 of capacity 8: appending itself needs 13, so the buffer moves
  // while it is also the source.
  DstrPtr a = make("abcdef");
  ASSERT_EQ(dstr_concat(a.get(), a.get()), 0);
  EXPECT_EQ(str(a.get()), "abcdefabcdef");
  EXPECT_EQ(a->capacity, 16);
  ASSERT_EQ(dstr_concat(a.get(), a.get()), 0);
  EXPECT_EQ(str(a.get()), "abcdefabcdefabcdefabcdef");
  expect_sound(a.get());
}

TEST(DstrDelete, Table) {
  struct {
    int pos, len;
    const char* want;
  } cases[] = {
      {1, 2, "hlo"},   {3, 10, "hel"},   {0, 5, ""},       {0, 1, "ello"},
      {4, 1, "hell"},  {-2, 3, "ello"},  {-2, 2, "hello"}, {-9, 20, ""},
      {2, 0, "hello"}, {2, -1, "hello"}, {5, 1, "hello"},  {7, 3, "hello"},
  };
  for (const auto& c : cases) {
    DstrPtr b = make("hello");
    EXPECT_EQ(dstr_delete(b.get(), c.pos, c.len), 0) << c.pos << "," << c.len;
    EXPECT_EQ(str(b.get()), c.want) << "pos " << c.pos << " len " << c.len;
    expect_sound(b.get());
  }
  EXPECT_EQ(dstr_delete(nullptr, 0, 1), -1);
}

TEST(DstrCmp, Table) {
  struct {
    std::string a, b;
    int want;
  } cases[] = {
      {"abc", "abd", 'c' - 'd'},
      {"abd", "abc", 'd' - 'c'},
      {"abc", "ab", 1},
      {"ab", "abc", -1},
      {"abc", "abc", 0},
      {"", "", 0},
      {"", "a", -1},
      {"b", "ab", 'b' - 'a'},
      {"abz", "abcdef", 'z' - 'c'},
      // Bytes are signed: 0x80 is -128 and sorts before 0x7f.
      {"\x80", "\x7f", -128 - 127},
      {"\x7f", "\x80", 127 + 128},
      {"a\xff", "a\x01", -1 - 1},
      // Equal NUL bytes end the comparison at once, whatever follows.
      {std::string("a\0x", 3), std::string("a\0y", 3), 0},
      {std::string("a\0xyz", 5), std::string("a\0y", 3), 0},
  };
  for (const auto& c : cases) {
    DstrPtr a(dstr_from_block(c.a.data(), static_cast<int>(c.a.size())));
    DstrPtr b(dstr_from_block(c.b.data(), static_cast<int>(c.b.size())));
    EXPECT_EQ(dstr_cmp(a.get(), b.get()), c.want) << '"' << c.a << "\" vs \"" << c.b << '"';
  }
}

TEST(DstrCmp, SelfAndSharedBufferAndNull) {
  DstrPtr a = make("abc");
  EXPECT_EQ(dstr_cmp(a.get(), a.get()), 0);
  DynString shorter{a->capacity, 2, a->data};
  EXPECT_EQ(dstr_cmp(a.get(), &shorter), 1);
  EXPECT_EQ(dstr_cmp(&shorter, a.get()), -1);
  EXPECT_EQ(dstr_cmp(nullptr, a.get()), -32768);
  EXPECT_EQ(dstr_cmp(a.get(), nullptr), -32768);
  EXPECT_EQ(dstr_cmp(nullptr, nullptr), DSTR_CMP_NULL);
}

TEST(DstrFindChar, Table) {
  DstrPtr b = make("hello, world");
  EXPECT_EQ(dstr_find_char(b.get(), 0, ", "), 5);
  EXPECT_EQ(dstr_find_char(b.get(), 5, ", "), 5);
  EXPECT_EQ(dstr_find_char(b.get(), 6, ", "), 6);
  EXPECT_EQ(dstr_find_char(b.get(), 7, ", "), -1);
  EXPECT_EQ(dstr_find_char(b.get(), 0, "d"), 11);
  EXPECT_EQ(dstr_find_char(b.get(), 0, "xyz"), -1);
  EXPECT_EQ(dstr_find_char(b.get(), 0, ""), -1);
  EXPECT_EQ(dstr_find_char(b.get(), -1, "h"), -1);
  EXPECT_EQ(dstr_find_char(b.get(), 12, "d"), -1);
  EXPECT_EQ(dstr_find_char(b.get(), 0, nullptr), -1);
  EXPECT_EQ(dstr_find_char(nullptr, 0, "h"), -1);
}

TEST(DstrFindChar, NulByteInDataIsNotInAnySet) {
  DstrPtr b(dstr_from_block("a\0b", 3));
  EXPECT_EQ(dstr_find_char(b.get(), 0, "b"), 2);
  EXPECT_EQ(dstr_find_char(b.get(), 0, "xyz"), -1);
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
    if (i) text += ',';
    text += std::to_string(i);
    want.push_back(std::to_string(i));
  }
  EXPECT_EQ(split(text, ","), want);
}

TEST(DstrSplit, EntriesAreSoundIndependentStrings) {
  DstrPtr b = make("ab,,cdefghijklmnop");
  DstrListPtr list(dstr_split_set(b.get(), ","));
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->count, 3);
  for (int i = 0; i < list->count; i++) expect_sound(list->entries[i]);
  EXPECT_EQ(list->entries[1]->capacity, 8);
  EXPECT_EQ(list->entries[2]->capacity, 16);
  EXPECT_NE(list->entries[0]->data, b->data);
}

TEST(DstrSplit, NullArgumentsGiveNull) {
  DstrPtr b = make("a,b");
  EXPECT_EQ(dstr_split_set(nullptr, ","), nullptr);
  EXPECT_EQ(dstr_split_set(b.get(), nullptr), nullptr);
  char buf[2] = "a";
  DynString negative{8, -1, buf};
  EXPECT_EQ(dstr_split_set(&negative, ","), nullptr);
}

TEST(DstrFree, RejectsNullAndBrokenRecords) {
  EXPECT_EQ(dstr_free(nullptr), -1);
  EXPECT_EQ(dstr_list_free(nullptr), -1);
  char buf[4] = "abc";
  DynString zero_capacity{0, 0, buf};
  EXPECT_EQ(dstr_free(&zero_capacity), -1);
  DynString overfull{2, 3, buf};
  EXPECT_EQ(dstr_free(&overfull), -1);
  DynString freed{-654, -1, nullptr};
  EXPECT_EQ(dstr_free(&freed), -1);
  EXPECT_EQ(dstr_free(dstr_from_cstr("x")), 0);
}

TEST(DstrOperations, RejectRecordMarkedAsFreed) {
  char buf[2] = "";
  DynString freed{-654, -1, buf};
  EXPECT_EQ(dstr_cat_char(&freed, 'x'), -1);
  EXPECT_EQ(dstr_cat_cstr(&freed, "x"), -1);
  EXPECT_EQ(dstr_delete(&freed, 0, 1), -1);
  EXPECT_EQ(dstr_copy(&freed), nullptr);
  EXPECT_EQ(dstr_mid(&freed, 0, 1), nullptr);
  EXPECT_EQ(dstr_find_char(&freed, 0, "x"), -1);
  DstrPtr ok = make("a");
  EXPECT_EQ(dstr_concat(ok.get(), &freed), -1);
  EXPECT_EQ(str(ok.get()), "a");
}

}  // namespace
