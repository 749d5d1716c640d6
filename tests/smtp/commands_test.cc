// The command reader and the session commands, driven through a socketpair
// and the real event loop.
#include <gtest/gtest.h>

#include <string>

#include "tests/smtp/smtp_test_support.h"

namespace {

using smtp_test::Sender;
using smtp_test::SmtpTest;

const std::string OK = "250 OK\r\n";
const std::string UNKNOWN = "500 Unknown command\r\n";
const std::string LONG_LINE = "500 Long line?\r\n";
const std::string HELO_OK = "250 local.domain ESMTP\r\n";
const std::string EHLO_OK =
    "250-local.domain ESMTP\r\n250-VRFY\r\n250-8BITMIME\r\n250-SIZE 20971520\r\n"
    "250-AUTH LOGIN\r\n250 OK\r\n";

std::string times(const std::string& s, int n) {
  std::string out;
  while (n-- > 0) out += s;
  return out;
}

TEST_F(SmtpTest, EachLineGetsItsReply) {
  const struct {
    const char* line;
    std::string reply;
  } cases[] = {
      {"NOOP", OK},
      {"nOoP with argument", OK},
      {"HELP", "214 See RFC 2821\r\n"},
      {"help MAIL", "214 See RFC 2821\r\n"},
      {"VRFY postmaster", "252 Maybe\r\n"},
      {"VRFY", "252 Maybe\r\n"},
      {"RSET", OK},
      {"QUI", UNKNOWN},
      {"HELOX client.test", HELO_OK},
      {"HELO", "501 HELO requires a domain address\r\n"},
      {"HELO ", "501 HELO requires a domain address\r\n"},
      {"HELO  client.test", HELO_OK},
      {"HELO client.test\n", "501 HELO requires a domain address\r\n"},  // no CR: two words
      {"ehlo client.test", EHLO_OK},
      {"EHLO   ", "501 EHLO requires a domain address\r\n"},
      {"AUTH", "501 AUTH command needs parameter\r\n"},
      {"AUTH PLAIN", "501 authentication type not supported\r\n"},
      {"DATA", "503 Need RCPT\r\n"},
      {"RCPTX TO:<a@b>", "500 malformed rcpt command\r\n"},
  };
  Sender s;
  EXPECT_EQ(s.greeting(), "220 local.domain ESMTP\r\n");
  for (const auto& c : cases) {
    std::string line = c.line;
    s.send(line.back() == '\n' ? line : line + "\r\n");
    EXPECT_EQ(s.pump(), c.reply) << c.line;
  }
  EXPECT_EQ(s.conn()->errors, 3);  // QUI, DATA and RCPTX; HELO/EHLO/AUTH refusals don't count
  EXPECT_FALSE(s.conn()->closed);
}

// What the sender gets for what it sends at once on a fresh connection.
TEST_F(SmtpTest, InputAtOnceTable) {
  const std::string long_x = std::string(2100, 'X') + "\r\n";
  const struct {
    const char* label;
    std::string input;
    int passes;  // poll passes before the replies are read
    std::string replies;
    int errors;
    bool closed;
  } cases[] = {
      {"pipelined lines from one read event", "NOOP\r\nnoop\r\nHELP\r\n", 1,
       OK + OK + "214 See RFC 2821\r\n", 0, false},
      {"blank lines get no reply", times("\r\n   \r\n\t\r\n\n", 3) + "NOOP\r\n", 6, OK, 0, false},
      {"nul after the verb", std::string("NOOP\0junk\r\n", 11), 6, OK, 0, false},
      {"only nul bytes", std::string("\0\0\0\r\n", 5), 6, UNKNOWN, 1, false},
      {"nul as the domain", std::string("HELO \0\r\n", 8), 6, HELO_OK, 0, false},
      {"long line, then the next command", std::string(3000, 'X') + "\r\nNOOP\r\n", 6,
       LONG_LINE + OK, 1, false},
      {"exactly the limit is a command", "NOOP " + std::string(1993, 'x') + "\r\n", 6, OK, 0,
       false},
      {"sixth error is answered, then close", times("BOGUS\r\n", 8) + "NOOP\r\n", 6,
       times(UNKNOWN, 6), 6, true},
      {"long lines count as errors", times(long_x, 7), 20, times(LONG_LINE, 6), 6, true},
      {"nothing after QUIT is answered", "QUIT\r\nNOOP\r\nNOOP\r\n", 6, "221 Goodbye.\r\n", 0,
       true},
  };
  for (const auto& c : cases) {
    Sender s;
    s.send(c.input);
    EXPECT_EQ(s.pump(c.passes), c.replies) << c.label;
    EXPECT_EQ(s.conn()->errors, c.errors) << c.label;
    EXPECT_EQ(s.conn()->closed, c.closed) << c.label;
    if (c.closed) {
      EXPECT_TRUE(s.peer_sees_eof()) << c.label;
    }
    close_connection(s.conn());
  }
}

TEST_F(SmtpTest, LineInPiecesWaitsForItsEndAndLongOneIsDroppedUpToIt) {
  const std::pair<std::string, std::string> steps[] = {
      {"NO", ""},
      {"OP\r", ""},
      {"\n", OK},
      {std::string(2500, 'X'), LONG_LINE},
      {std::string(4000, 'Y'), ""},
      {std::string(500, 'Z') + "\r\nNOOP\r\n", OK},
  };
  Sender s;
  for (const auto& [input, reply] : steps) {
    s.send(input);
    EXPECT_EQ(s.pump(), reply) << input.substr(0, 10);
  }
}

TEST_F(SmtpTest, HalfCloseAfterPartialLineIsAnsweredThenClosed) {
  Sender s;
  s.send("NOOP");
  s.shutdown_write();
  EXPECT_EQ(s.pump(), LONG_LINE);
  EXPECT_TRUE(s.conn()->closed);
  EXPECT_TRUE(s.peer_sees_eof());
}

TEST_F(SmtpTest, ReplyToAVanishedSenderClosesTheConnection) {
  Sender s;
  s.send("NOOP\r\nNOOP\r\n");
  s.close_peer();
  s.pump();
  EXPECT_TRUE(s.conn()->closed);
  EXPECT_EQ(s.conn()->sender_fd, -1);
}

}  // namespace
