#include "foundation/text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// Trimmed in place: the result is the argument itself.
std::string trimmed(const std::string& in) {
  std::string buf = in;
  char* p = buf.data();
  EXPECT_EQ(str_trim(p), p) << "str_trim must return its argument";
  return std::string(p);
}

// White space outside the C locale's (0xa0, 0x1f) is kept.
TEST(StrTrim, Table) {
  const std::pair<const char*, const char*> cases[] = {{"", ""},
                                                       {"     ", ""},
                                                       {"  a b  ", "a b"},
                                                       {"abc", "abc"},
                                                       {"  abc", "abc"},
                                                       {"abc  ", "abc"},
                                                       {"\t\r\n\v\f x \t\r\n\v\f", "x"},
                                                       {"\r\n", ""},
                                                       {"a\t \tb", "a\t \tb"},
                                                       {" key = value \r\n", "key = value"},
                                                       {"\xa0x\xa0", "\xa0x\xa0"},
                                                       {"\x1fx", "\x1fx"}};
  for (auto [in, want] : cases) EXPECT_EQ(trimmed(in), want) << '"' << in << '"';
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

TEST(StrCopyBounded, CopiesAtMostSizeMinusOneTerminatesAndReportsSourceLength) {
  const std::string p200(200, 'p');
  struct {
    std::string source;
    size_t size;
    std::string want;  // the first size + 1 bytes of a buffer filled with 'x'
  } cases[] = {
      {"hello", 0, "x"},
      {"hello", 1, std::string("\0x", 2)},
      {"abcdef", 4, std::string("abc\0x", 5)},
      {"abcdefg", 8, std::string("abcdefg\0x", 9)},
      {"ab", 8, std::string("ab\0xxxxxx", 9)},
      {"", 8, std::string("\0xxxxxxxx", 9)},
      // A sockaddr_un path field: cut, terminated, and the caller sees n >= size.
      {p200, 108, p200.substr(0, 107) + std::string("\0x", 2)},
  };
  for (const auto& c : cases) {
    char dst[256];
    memset(dst, 'x', sizeof dst);
    EXPECT_EQ(str_copy_bounded(dst, c.source.c_str(), c.size), c.source.size()) << c.source;
    EXPECT_EQ(std::string(dst, c.size + 1), c.want) << c.source << " into " << c.size;
  }
}

TEST(Xasprintf, ReturnsSizeIncludingNul) {
  char* out = nullptr;
  EXPECT_EQ(xasprintf(&out, "%s/%s", "a", "b"), 4);
  EXPECT_STREQ(out, "a/b");
  free(out);
  EXPECT_EQ(xasprintf(&out, "%s", ""), 1);
  EXPECT_STREQ(out, "");
  free(out);
  std::string big(10000, 'q');
  EXPECT_EQ(xasprintf(&out, "<%s>%d", big.c_str(), 42), 10000 + 2 + 2 + 1);
  EXPECT_EQ(std::string(out), "<" + big + ">42");
  free(out);
}

}  // namespace
