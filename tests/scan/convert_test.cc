#include "scan/convert.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/foundation/test_util.h"

namespace {

using namespace std::string_literals;
using namespace foundation_test;
using Case = std::tuple<const char*, std::string, std::string>;  // label, input, output

const std::string kNull = "<null>", kMega(1 << 20, 'a');

long entries(const std::string& dir) {
  return std::distance(std::filesystem::directory_iterator(dir), {});
}

// The contents of a converted copy, which is removed; kNull for no copy.
std::string take(char* path) {
  std::string s = path != nullptr ? slurp(path) : kNull;
  if (path != nullptr) unlink(path);
  free(path);
  return s;
}

TEST(StuffFile, OneMoreDotOnlyAtLineStarts) {
  const std::string x2500 = "x" + std::string(2497, 'a') + "\r\n", dots(1 << 20, '.');
  const Case cases[] = {
      {"dotted lines", "a\r\n.b\r\n..c\r\n", "a\r\n..b\r\n...c\r\n.\r\n"},
      {"long line read in pieces", x2500 + ".\r\n", x2500 + "..\r\n.\r\n"},
      {"1 MB line of dots", dots + "\n", "." + dots + "\n.\r\n"},
      {"empty file", "", ".\r\n"},
      {"no final line end", "a\r\n.b", "a\r\n..b\r\n.\r\n"},
      {"NUL bytes", ".\0\n\0.\n"s, "..\0\n\0.\n.\r\n"s},
  };
  for (const auto& [label, in, want] : cases) {
    TempDir dir;
    std::string plain = dir.write("plain", in), msg = dir.write("msg", in), out = dir.file("out");
    int fd = open(msg.c_str(), O_RDONLY);
    ASSERT_EQ(stuff_file(msg.c_str(), fd), 0) << label;
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << label << ": descriptor left open";
    EXPECT_EQ(slurp(msg), want) << label;
    EXPECT_EQ(restuff_file(plain.c_str(), out.c_str()), 0) << label;
    EXPECT_EQ(slurp(out), want) << label;
    EXPECT_EQ(take(destuff_file(msg.c_str())), in.ends_with('\n') || in.empty() ? in : in + "\r\n")
        << label;
    EXPECT_EQ(entries(dir.path), 3) << label << ": a copy was left behind";
  }
}

TEST(DechunkFile, MalformedInputGivesNoCopy) {
  const std::string b26(26, 'q'), b4096(4096, 'r');
  const Case cases[] = {
      {"size with extension", "1a;ext\r\n" + b26 + "\r\n0\r\n\r\n", b26},
      {"two chunks with NULs", "3\r\na\0b\r\n2\r\ncd\r\n0\r\n"s, "a\0bcd"s},
      {"chunk above the read size", "1000\r\n" + b4096 + "\r\n0\r\n\r\n", b4096},
      {"blank line before a size", "\r\n1\r\nz\r\n0\r\n", "z"},
      {"size overflows", "10000000000000000\r\nabc\r\n0\r\n", kNull},
      {"size beyond the file", "ffffffffffffffff\r\nabc\r\n0\r\n", kNull},
      {"no digits", "zz\r\n", kNull},
      {"data cut short", "10\r\nabc", kNull},
      {"chunk not terminated", "3\r\nabcX\r\n0\r\n", kNull},
      {"empty file", "", kNull},
      {"1 MB size line", std::string(1 << 20, 'f'), kNull},
  };
  for (const auto& [label, in, want] : cases) {
    TempDir dir;
    long fds = entries("/proc/self/fd");
    EXPECT_EQ(take(dechunk_file(dir.write("msg", in).c_str())), want) << label;
    EXPECT_EQ(entries(dir.path), 1) << label << ": a copy was left behind";
    EXPECT_EQ(entries("/proc/self/fd"), fds) << label;
  }
}

TEST(ChunkFile, OneChunkThatDecodesBack) {
  const std::string b4096(4096, 'r'), mega = "\0"s + kMega;
  for (const auto& [in, want] : {std::pair{b4096, "1000\r\n" + b4096 + "\r\n0\r\n\r\n"},
                                 {""s, "0\r\n\r\n"s},
                                 {mega, "100001\r\n" + mega + "\r\n0\r\n\r\n"}}) {
    TempDir dir;
    char* chunked = chunk_file(dir.write("msg", in).c_str());
    EXPECT_EQ(take(dechunk_file(chunked)), in) << want.substr(0, 8);
    EXPECT_EQ(take(chunked), want);
  }
}

TEST(Convert, DestuffStopsAtTheTerminatorAndNoSourceGivesNoCopy) {
  TempDir dir;
  std::string none = dir.file("none"), out = dir.file("out"), msg = dir.write("msg", ".a\r\n");
  EXPECT_EQ(take(destuff_file(dir.write("s", "..b\r\n.c\r\n.\r\nd\r\n").c_str())), ".b\r\n.c\r\n");
  EXPECT_EQ(take(destuff_file(dir.write("s", "a\r\n.\n").c_str())), "a\r\n.\n");
  EXPECT_EQ(take(destuff_file(none.c_str())), kNull);
  EXPECT_EQ(restuff_file(none.c_str(), out.c_str()), -1);
  EXPECT_EQ(take(dechunk_file(none.c_str())), kNull);
  EXPECT_EQ(take(chunk_file(none.c_str())), kNull);
  int fd = open(msg.c_str(), O_RDONLY);  // a copy cannot be made beside a missing directory
  EXPECT_EQ(stuff_file((none + "/msg").c_str(), fd), -1);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(slurp(msg), ".a\r\n");
  EXPECT_EQ(entries(dir.path), 2);
}

}  // namespace
