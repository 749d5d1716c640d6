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

// The capacity is the power of two above the need, at least 8; a formatted
// string records its length as capacity. Appends keep NUL bytes and the final NUL.
TEST(Dstr, GrowthAppendsAndClippedRanges) {
  for (auto [need, size] : {std::pair{0, 8}, {7, 8}, {8, 16}, {1023, 1024}, {1024, 2048}})
    EXPECT_EQ(dstr_grow_size(need), size) << need;
  DstrPtr big(dstr_new(4000));
  ASSERT_EQ(dstr_cat_block(big.get(), "a\0c", 3), 0);
  EXPECT_EQ(DstrPtr(dstr_copy(big.get()))->capacity, 8);  // by the rule, not the source's
  EXPECT_EQ(dstr_alloc(big.get(), 3999) + dstr_alloc(big.get(), 4000), 0);
  EXPECT_EQ(big->capacity, 4096);  // grows only when the need reaches the capacity
  EXPECT_EQ(str(big.get()), std::string("a\0c", 3));
  DstrPtr f(dstr_format("%d-%s", 42, "xy"));
  EXPECT_EQ(f->capacity, 5);
  EXPECT_EQ((dstr_cat_char(f.get(), '!'), f->capacity), 8);
  EXPECT_EQ((dstr_cat_cstr(f.get(), "?"), f->capacity), 16);  // 7 bytes and the NUL fill 8
  EXPECT_EQ(dstr_concat(f.get(), f.get()), 0);                // grows while it is its own source
  EXPECT_STREQ(f->data, "42-xy!?42-xy!?");
  // dstr_mid takes out what dstr_delete removes; ranges are clipped to the string.
  for (auto [left, len, mid, rest] : {std::tuple{-2, 4, "he", "llo"},
                                      {3, 10, "lo", "hel"},
                                      {5, 1, "", "hello"},
                                      {1, 3, "ell", "ho"},
                                      {-10, 3, "", "hello"},
                                      {2, -3, "", "hello"}}) {
    DstrPtr b = make("hello");
    EXPECT_EQ(str(DstrPtr(dstr_mid(b.get(), left, len)).get()), mid) << left << "," << len;
    EXPECT_EQ(dstr_delete(b.get(), left, len), 0);
    EXPECT_EQ(str(b.get()), rest) << left << "," << len;
  }
}

// Bytes compare signed (0x80 sorts before 0x7f); equal NUL bytes end the
// comparison whatever follows; a null argument gives -32768.
TEST(Dstr, CompareFindAndSplit) {
  EXPECT_EQ(dstr_cmp(make("abc").get(), make("abd").get()), -1);
  EXPECT_EQ(dstr_cmp(make("abc").get(), make("ab").get()), 1);
  EXPECT_EQ(dstr_cmp(make("\x80").get(), make("\x7f").get()), -255);
  EXPECT_EQ(dstr_cmp(make(std::string("a\0xyz", 5)).get(), make(std::string("a\0y", 3)).get()), 0);
  EXPECT_EQ(dstr_cmp(nullptr, make("a").get()), -32768);
  DstrPtr b = make("hello, world");
  for (auto [pos, want] : {std::pair{0, 5}, {6, 6}, {7, -1}, {-1, -1}, {12, -1}})
    EXPECT_EQ(dstr_find_char(b.get(), pos, ", "), want) << pos;
  const std::tuple<std::string, const char*, std::string> splits[] = {
      {"63, 92", " ,", "63||92|"},
      {"a;", ";", "a|"},
      {"", ";", "|"},
      {";a;;", ";", "|a||"},
      {"a;b", "", "a;b|"},
      {std::string("a\0b;c", 5), ";", std::string("a\0b|c|", 6)},
      {"0,1,2,3,4,5,6,7,8,9,a,b,c,d,e,f,g,h,i,j", ",", "0|1|2|3|4|5|6|7|8|9|a|b|c|d|e|f|g|h|i|j|"}};
  for (const auto& [text, set, want] : splits) {
    DstrListPtr list(dstr_split_set(make(text).get(), set));
    std::string got;
    for (int i = 0; list && i < list->count; i++) got += str(list->entries[i]) + "|";
    EXPECT_EQ(got, want) << text;
  }
}

}  // namespace
