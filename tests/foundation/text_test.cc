#include "foundation/text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string trimmed(const std::string& in) {
  std::string buf = in;
  char* p = buf.data();
  EXPECT_EQ(str_trim(p), p) << "str_trim must return its argument";
  return std::string(p);
}

TEST(StrTrim, Table) {
  struct {
    const char* in;
    const char* want;
  } cases[] = {
      {"", ""},
      {"     ", ""},
      {"  a b  ", "a b"},
      {"abc", "abc"},
      {"  abc", "abc"},
      {"abc  ", "abc"},
      {"\t\r\n\v\f x \t\r\n\v\f", "x"},
      {"\r\n", ""},
      {"a\t \tb", "a\t \tb"},
      {" key = value \r\n", "key = value"},
      // Outside the C locale's white space: kept.
      {"\xa0x\xa0", "\xa0x\xa0"},
      {"\x1f"
       "x",
       "\x1f"
       "x"},
  };
  for (const auto& c : cases) EXPECT_EQ(trimmed(c.in), c.want) << '"' << c.in << '"';
}

TEST(StrTrim, MovesTextToTheStartInPlace) {
  char buf[] = "   moved   ";
  char* r = str_trim(buf);
  EXPECT_EQ(r, buf);
  EXPECT_STREQ(buf, "moved");
}

TEST(StrTrim, NullGivesNull) {
  EXPECT_EQ(str_trim(nullptr), nullptr);
}

TEST(IsBlankLine, Table) {
  struct {
    const char* in;
    int want;
  } cases[] = {
      {"", 1},  {"\r\n", 1},  {"     ", 1}, {" \t\v\f\r\n", 1},
      {"a", 0}, {"  x  ", 0}, {".\r\n", 0}, {"\xa0", 0},
  };
  for (const auto& c : cases) EXPECT_EQ(is_blank_line(c.in), c.want) << '"' << c.in << '"';
}

TEST(StrCopyBounded, SizeZeroWritesNothing) {
  char dst[4] = {'x', 'y', 'z', 'w'};
  EXPECT_EQ(str_copy_bounded(dst, "hello", 0), 5u);
  EXPECT_EQ(memcmp(dst, "xyzw", 4), 0);
}

TEST(StrCopyBounded, SizeOneWritesOnlyTheNul) {
  char dst[4] = {'x', 'y', 'z', 'w'};
  EXPECT_EQ(str_copy_bounded(dst, "hello", 1), 5u);
  EXPECT_EQ(dst[0], 0);
  EXPECT_EQ(dst[1], 'y');
}

TEST(StrCopyBounded, CutsAtSizeMinusOneAndReportsSourceLength) {
  char dst[8];
  memset(dst, 'x', sizeof(dst));
  EXPECT_EQ(str_copy_bounded(dst, "abcdef", 4), 6u);
  EXPECT_STREQ(dst, "abc");
  EXPECT_EQ(dst[4], 'x');
}

TEST(StrCopyBounded, FitsExactlyOrWithRoom) {
  char dst[8];
  EXPECT_EQ(str_copy_bounded(dst, "abcdefg", 8), 7u);
  EXPECT_STREQ(dst, "abcdefg");
  EXPECT_EQ(str_copy_bounded(dst, "ab", 8), 2u);
  EXPECT_STREQ(dst, "ab");
  EXPECT_EQ(str_copy_bounded(dst, "", 8), 0u);
  EXPECT_STREQ(dst, "");
}

TEST(StrCopyBounded, UnixSocketPathFieldIsAlwaysTerminated) {
  char sun_path[108];
  std::string longer(200, 'p');
  size_t n = str_copy_bounded(sun_path, longer.c_str(), sizeof(sun_path));
  EXPECT_EQ(n, 200u);
  EXPECT_GE(n, sizeof(sun_path));  // how callers see the cut
  EXPECT_EQ(strlen(sun_path), 107u);
  EXPECT_EQ(std::string(sun_path), longer.substr(0, 107));
}

TEST(Xasprintf, ReturnsSizeIncludingNul) {
  char* out = nullptr;
  EXPECT_EQ(xasprintf(&out, "%s/%s", "a", "b"), 4);
  ASSERT_NE(out, nullptr);
  EXPECT_STREQ(out, "a/b");
  free(out);
}

TEST(Xasprintf, EmptyAndLongResults) {
  char* out = nullptr;
  EXPECT_EQ(xasprintf(&out, "%s", ""), 1);
  EXPECT_STREQ(out, "");
  free(out);
  std::string big(10000, 'q');
  EXPECT_EQ(xasprintf(&out, "<%s>%d", big.c_str(), 42), 10000 + 2 + 2 + 1);
  EXPECT_EQ(std::string(out), "<" + big + ">42");
  free(out);
}

}  // namespace
