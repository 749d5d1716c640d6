#include "scan/header.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/foundation/test_util.h"

namespace {

using namespace std::string_literals;
using namespace foundation_test;

const std::string kMegaLine(1 << 20, 'a');

std::string take(char* s) {
  std::string r = s != nullptr ? s : "<null>";
  free(s);
  return r;
}

TEST(HeaderFieldValue, FoldedValuesJoinedAndBodyIgnored) {
  const std::tuple<const char*, std::string, std::string> cases[] = {
      {"plain", "Message-ID: <id-1>\r\n\r\n", "<id-1>"},
      {"value folded onto a tab line", "Message-Id:\r\n\t<id-2>\r\n\r\n", "<id-2>"},
      {"one blank per fold", "message-id: a\r\n b  \r\n\t c\r\nX: d\r\n\r\n", "a b\tc"},
      {"field only in the body", "From: x\r\n\r\nMessage-ID: <b>\r\n", "<null>"},
      {"no final line end", "From: x\r\nmessage-ID: <last>", "<last>"},
      {"NUL ends the value, not the header", "X: \0\r\nMessage-ID: <a\0b>\r\n\r\n"s, "<a"},
      {"after a 1 MB line", "X: " + kMegaLine + "\r\nMessage-ID: <m>\r\n\r\n", "<m>"},
      {"fold beyond 1000 bytes dropped", "Message-ID: ab\r\n " + std::string(1500, 'b'), "ab"},
  };
  for (const auto& [label, file, want] : cases) {
    TempDir dir;
    EXPECT_EQ(take(header_field_value("message-id:", dir.write("m", file).c_str())), want) << label;
  }
  TempDir dir;
  EXPECT_EQ(take(header_field_value("message-id:", dir.file("missing").c_str())), "<null>");
}

TEST(Rfc822Tag, TagsFirstFieldOrAddsItWithoutLosingBytes) {
  const std::tuple<const char*, const char*, std::string, std::string, int> cases[] = {
      {"tags the first", "T", "Subject: Hi\r\nsubject: b\r\n\r\n",
       "subject: T Hi\r\nsubject: b\r\n\r\n", 0},
      {"already tagged", "[SPAM]", "Subject: [SPAM] Hi\r\n\r\n", "Subject: [SPAM] Hi\r\n\r\n", 0},
      {"adds a missing field", "[SPAM]", "From: a\r\n\r\nx\r\n",
       "From: a\r\nsubject: [SPAM]\r\n\r\nx\r\n", 1},
      {"white space ends the header", "T", "From: a\n\t\nx\n", "From: a\nsubject: T\r\n\r\nx\n", 1},
      {"no end of header", "[SPAM]", "From: a\r\nX: b", "From: a\r\nX: b", 0},
      {"empty file", "[SPAM]", "", "", 0},
      {"empty value keeps its line end", "T", "Subject:\r\n\r\n", "subject: T \r\n\r\n", 0},
      {"NULs and a 1 MB body line", "T", "X: \0\r\nSubject: x\r\n\r\n\0"s + kMegaLine,
       "X: \0\r\nsubject: T x\r\n\r\n\0"s + kMegaLine, 0},
      {"null tag", nullptr, "Subject: x\r\n", "Subject: x\r\n", 1},
  };
  for (const auto& [label, tag, in, want, result] : cases) {
    TempDir dir;
    std::string path = dir.write("msg", in);
    EXPECT_EQ(rfc822_tag("subject:", tag, path.c_str()), result) << label;
    EXPECT_EQ(slurp(path), want) << label;
    auto files = std::filesystem::directory_iterator(dir.path);
    EXPECT_EQ(std::distance(files, {}), 1) << label << ": a copy was left behind";
  }
  TempDir dir;
  EXPECT_EQ(rfc822_tag("subject:", "T", dir.file("missing").c_str()), -1);
  EXPECT_TRUE(std::filesystem::is_empty(dir.path));
}

}  // namespace
