#include "scan/dotstream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using namespace std::string_literals;
using Bursts = std::vector<std::string>;

const std::string kCut(5000, 'x');  // one whole piece: the line goes on in the next one

// Each burst handed over as the line reader does (up to LF, at most 5,000
// bytes), the socket running dry after it. Gives the content, then "|END|"
// and what was left unread, or "|more" when the data has not ended.
std::string decode(const Bursts& bursts, int64_t declared_size = 0) {
  DotDecoder d{.declared_size = declared_size};
  std::string out;
  for (size_t b = 0; b < bursts.size(); b++) {
    const std::string& s = bursts[b];
    std::string rest;
    for (size_t i = b + 1; i < bursts.size(); i++) rest += bursts[i];
    for (size_t i = 0, n; i < s.size(); i += n) {
      n = std::min(std::min(s.find('\n', i), s.size() - 1) - i + 1, kCut.size());
      if (dot_decode_piece(&d, s.data() + i, n, &out) == DotResult::END)
        return out + "|END|" + s.substr(i + n) + rest;
    }
    if (dot_decode_idle(&d, &out) == DotResult::END) return out + "|END|" + rest;
  }
  return out + "|more";
}

// What the backend gets for content handed to the encoder in these chunks.
std::string relay(const Bursts& chunks) {
  DotEncoder e;
  std::string out;
  for (const std::string& c : chunks) dot_encode(&e, c.data(), c.size(), &out);
  dot_encode_finish(&e, &out);
  return out;
}

TEST(DotDecode, EndsOnlyOnADotLineAfterARealCrLf) {
  const std::string rcpt = "RCPT TO:<v@example.org>\r\n", long_line = kCut + "yy.\r\n";
  const std::tuple<const char*, Bursts, int64_t, std::string> cases[] = {
      {"normal end", {"a\r\n\r\nb\r\n.\r\n" + rcpt}, 0, "a\r\n\r\nb\r\n|END|" + rcpt},
      {"end at the very start", {".\r\n"}, 0, "|END|"},
      {"\\n.\\n", {"a\n.\n" + rcpt}, 0, "a\r\n.\r\n" + rcpt + "|more"},
      {"\\r\\n.\\n", {"a\r\n.\n" + rcpt}, 0, "a\r\n.\r\n" + rcpt + "|more"},
      {"\\n.\\r\\n, dot after bare LF", {"a\n.\r\n" + rcpt}, 0, "a\r\n.\r\n" + rcpt + "|more"},
      {"\\r.\\r\\n", {"a\r.\r\n" + rcpt}, 0, "a .\r\n" + rcpt + "|more"},
      {"\\r\\n.\\r", {"a\r\n.\r" + rcpt}, 0, "a\r\n. " + rcpt + "|more"},
      {"NUL before the dot", {"a\r\n\0.\r\n"s + rcpt}, 0, "a\r\n\0.\r\n"s + rcpt + "|more"},
      {"NUL after the dot", {"a\r\n.\0\r\n"s + rcpt}, 0, "a\r\n.\0\r\n"s + rcpt + "|more"},
      {"unstuffed at line starts", {"..a\r\n...\r\nb..\r\n.\r\n"}, 0, ".a\r\n..\r\nb..\r\n|END|"},
      {"dot piece after a cut", {kCut + ".\r\n.\r\n"}, 0, kCut + ".\r\n|END|"},
      {"'..' after a cut kept", {kCut + "..\r\n.\r\n"}, 0, kCut + "..\r\n|END|"},
      {"CR LF split by a cut", {kCut.substr(1) + "\r", "\n.\r\n"}, 0, kCut.substr(1) + "\r\n|END|"},
      {"5,000 CRs, '.\\r\\n'",
       {std::string(5000, '\r') + ".\r\n" + rcpt},
       0,
       std::string(5000, ' ') + ".\r\n" + rcpt + "|more"},
      {"SIZE: ends on idle", {"a.\r\n", rcpt}, 1, "a\r\n|END|" + rcpt},
      {"SIZE: put back, more came", {"a.\r\n" + rcpt + ".\r\n"}, 1, "a.\r\n" + rcpt + "|END|"},
      {"SIZE: only '.\\r\\n' held", {"abc\r\nd.\r\n", rcpt}, 2, "abc\r\nd.\r\n" + rcpt + "|more"},
      {"SIZE trick: bare LF", {"a\n.\r\n" + rcpt}, 2, "a\r\n.\r\n" + rcpt + "|more"},
      {"SIZE: long line, real end",
       {long_line + ".\r\n" + rcpt + "DATA\r\n"},
       5002,
       long_line + "|END|" + rcpt + "DATA\r\n"},
  };
  for (const auto& [label, bursts, size, want] : cases)
    EXPECT_EQ(decode(bursts, size), want) << label;
}

TEST(DotEncode, OnlyCrLfLineEndsAndEveryLeadingDotDoubled) {
  const std::tuple<const char*, Bursts, std::string> cases[] = {
      {"dots doubled at line starts", {".a\r\n..\r\nb.\r\n."}, "..a\r\n...\r\nb.\r\n..\r\n.\r\n"},
      {"stray CR and LF", {"a\rb\n.\n\r.c\r"}, "a b\r\n..\r\n .c \r\n.\r\n"},
      {"CR LF and dot split over chunks", {"a\r", "\n", ".", "b"}, "a\r\n..b\r\n.\r\n"},
      {"empty content", {}, ".\r\n"},
      {"last line without CR LF", {"a\r\nb"}, "a\r\nb\r\n.\r\n"},
  };
  for (const auto& [label, chunks, want] : cases) EXPECT_EQ(relay(chunks), want) << label;
}

TEST(DotStream, WellFormedStreamRelayedByteForByte) {
  const std::tuple<const char*, std::string, int64_t> cases[] = {
      {"stuffed lines and NULs", "From: a\r\n\r\n..\r\n...x\r\n\0.\r\n.\r\n"s, 0},
      {"6,000 dots in one line", std::string(6000, '.') + "\r\n.\r\n", 0},
      {"SIZE: text line held, then more", "a.\r\nb\r\n.\r\n", 1},
      {"SIZE: stuffed dot line held, then more", "x\r\n..\r\nb\r\n.\r\n", 4},
  };
  for (const auto& [label, stream, size] : cases) {
    std::string decoded = decode({stream}, size);
    EXPECT_EQ(relay({decoded.substr(0, decoded.find("|END|"))}), stream) << label;
  }
}

}  // namespace
