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

TEST_F(SmtpTest, GreetingIsTheConfiguredLine) {
  Sender s;
  EXPECT_EQ(s.greeting(), "220 local.domain ESMTP\r\n");
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
      {"AUTH LOGIN", "501 authentication type not supported\r\n"},
      {"DATA", "503 Need RCPT\r\n"},
      {"RCPTX TO:<a@b>", "500 malformed rcpt command\r\n"},
  };
  Sender s;
  for (const auto& c : cases) {
    std::string line = c.line;
    s.send(line.back() == '\n' ? line : line + "\r\n");
    EXPECT_EQ(s.pump(), c.reply) << c.line;
  }
  EXPECT_EQ(s.conn()->errors, 3);  // QUI, DATA and RCPTX; HELO/EHLO/AUTH refusals don't count
  EXPECT_FALSE(s.conn()->closed);
}

TEST_F(SmtpTest, PipelinedLinesAreAnsweredInOrderFromOneReadEvent) {
  Sender s;
  s.send("NOOP\r\nnoop\r\nHELP\r\n");
  EXPECT_EQ(s.pump(1), OK + OK + "214 See RFC 2821\r\n");
}

TEST_F(SmtpTest, CommandSplitOverSegmentsWaitsForItsLineEnd) {
  Sender s;
  s.send("NO");
  EXPECT_EQ(s.pump(), "");
  s.send("OP\r");
  EXPECT_EQ(s.pump(), "");
  s.send("\n");
  EXPECT_EQ(s.pump(), OK);
}

TEST_F(SmtpTest, BlankLinesGetNoReplyAndCountNoError) {
  Sender s;
  s.send(times("\r\n   \r\n\t\r\n\n", 3) + "NOOP\r\n");
  EXPECT_EQ(s.pump(), OK);
  EXPECT_EQ(s.conn()->errors, 0);
}

TEST_F(SmtpTest, NulBytesNeitherCrashNorHideTheVerb) {
  Sender s;
  s.send(std::string("NOOP\0junk\r\n", 11));
  EXPECT_EQ(s.pump(), OK);
  s.send(std::string("\0\0\0\r\n", 5));
  EXPECT_EQ(s.pump(), UNKNOWN);
  s.send(std::string("HELO \0\r\n", 8));
  EXPECT_EQ(s.pump(), HELO_OK);
}

TEST_F(SmtpTest, SixthErrorIsAnsweredThenTheConnectionCloses) {
  Sender s;
  s.send(times("BOGUS\r\n", 8) + "NOOP\r\n");
  EXPECT_EQ(s.pump(), times(UNKNOWN, 6));
  EXPECT_TRUE(s.conn()->closed);
  EXPECT_TRUE(s.peer_sees_eof());
}

TEST_F(SmtpTest, LongLineGetsOneReplyAndTheNextCommandIsServed) {
  Sender s;
  s.send(std::string(3000, 'X') + "\r\nNOOP\r\n");
  EXPECT_EQ(s.pump(), LONG_LINE + OK);
  EXPECT_EQ(s.conn()->errors, 1);
}

TEST_F(SmtpTest, LongLineInPiecesIsDroppedUpToItsLineEnd) {
  Sender s;
  s.send(std::string(2500, 'X'));
  EXPECT_EQ(s.pump(), LONG_LINE);
  s.send(std::string(4000, 'Y'));
  EXPECT_EQ(s.pump(), "");
  s.send(std::string(500, 'Z') + "\r\nNOOP\r\n");
  EXPECT_EQ(s.pump(), OK);
}

TEST_F(SmtpTest, LineOfExactlyTheLimitIsStillACommand) {
  Sender s;
  EXPECT_EQ(s.cmd("NOOP " + std::string(1993, 'x')), OK);  // 2000 bytes with CR LF
}

TEST_F(SmtpTest, LongLinesCountAsErrors) {
  Sender s;
  s.send(times(std::string(2100, 'X') + "\r\n", 7));
  EXPECT_EQ(s.pump(20), times(LONG_LINE, 6));
  EXPECT_TRUE(s.conn()->closed);
}

TEST_F(SmtpTest, HalfCloseAfterPartialLineIsAnsweredThenClosed) {
  Sender s;
  s.send("NOOP");
  s.shutdown_write();
  EXPECT_EQ(s.pump(), LONG_LINE);
  EXPECT_TRUE(s.conn()->closed);
  EXPECT_TRUE(s.peer_sees_eof());
}

TEST_F(SmtpTest, QuitSaysGoodbyeAndNothingAfterItIsAnswered) {
  Sender s;
  s.send("QUIT\r\nNOOP\r\nNOOP\r\n");
  EXPECT_EQ(s.pump(), "221 Goodbye.\r\n");
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
