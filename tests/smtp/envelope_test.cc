// MAIL FROM and RCPT TO through the real command reader: parameters, the
// null sender, the recipient limit and relay control.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/smtp/smtp_test_support.h"

namespace {

using smtp_test::Sender;
using smtp_test::SmtpTest;

const std::string OK = "250 OK\r\n";
const std::string INVALID_PATH = "552 Invalid path\r\n";
const std::string NEED_MAIL = "503 Need MAIL before RCPT\r\n";
const std::string TOO_BIG = "552 Message size exceeds fixed maximum message size\r\n";
const std::string DENIED = "550 relaying denied\r\n";

// Each line on a fresh connection that has said EHLO.
TEST_F(SmtpTest, MailFromRepliesAndErrorCounts) {
  const struct {
    const char* line;
    std::string reply;
    int errors;  // counted by this line
    bool allow_null_sender = true;
  } cases[] = {
      {"MAIL FROM:<a@example.com>", OK, 0},
      {"MAIL FROM: a@example.com", OK, 0},
      {"mAiL fRoM:<A@Example.COM>", OK, 0},
      {"MAIL FROM:<\"john smith\"@example.com>", OK, 0},
      {"MAIL FROM:<>", OK, 0},
      {"MAIL FROM:   ", OK, 0},
      {"MAIL FROM:<nobody>", INVALID_PATH, 1},
      {"MAIL FROM:<nobody@>", INVALID_PATH, 1},
      {"MAIL FROM <a@example.com>", "500 malformed mail from\r\n", 1},
      {"MAIL", "500 malformed mail from\r\n", 1},
      {"MAIL FROM:<a@example.com> SIZE=20971520", OK, 0},
      {"MAIL FROM:<a@example.com> SIZE=20971521", TOO_BIG, 1},
      {"MAIL FROM:<a@example.com> SIZE=99999999999999999999999", TOO_BIG, 1},
      {"MAIL FROM:<a@example.com> size=99999999999", OK, 0},
      {"MAIL FROM:<a@example.com> SIZE=lots", OK, 0},
      {"MAIL FROM:<a@example.com> BODY=8BITMIME SIZE=  1000  ", OK, 0},
      {"MAIL FROM:<>", "552 Null sender\r\n", 1, false},
      {"MAIL FROM:  ", "552 Null sender\r\n", 1, false},
      {"MAIL FROM:<a@example.com>", OK, 0, false},
  };
  for (const auto& c : cases) {
    config.allow_null_sender = c.allow_null_sender;
    Sender s;
    s.cmd("EHLO client.test");
    EXPECT_EQ(s.cmd(c.line), c.reply) << c.line;
    EXPECT_EQ(s.conn()->errors, c.errors) << c.line;
    close_connection(s.conn());
  }
}

TEST_F(SmtpTest, SizeIsRecordedAndResetByTheNextMail) {
  Sender s;
  EXPECT_EQ(s.mail_from("<a@example.com> SIZE=1234"), OK);
  EXPECT_EQ(s.conn()->declared_size, 1234);
  EXPECT_EQ(s.cmd("MAIL FROM:<a@example.com>"), OK);
  EXPECT_EQ(s.conn()->declared_size, 0);
}

TEST_F(SmtpTest, MailNeedsHeloFirst) {
  Sender s;
  EXPECT_EQ(s.cmd("MAIL FROM:<a@example.com>"), "553 Need EHLO before MAIL\r\n");
  EXPECT_EQ(s.conn()->errors, 1);
  EXPECT_EQ(s.cmd("HELO client.test"), "250 local.domain ESMTP\r\n");
  EXPECT_EQ(s.cmd("MAIL FROM:<a@example.com>"), OK);
}

TEST_F(SmtpTest, RefusedMailLeavesNoSenderButMalformedKeepsTheOldOne) {
  for (const char* line : {"MAIL FROM:<nobody>", "MAIL FROM:<a@example.com> SIZE=20971521"}) {
    Sender s;
    s.mail_from("<first@example.com>");
    EXPECT_NE(s.cmd(line), OK);
    EXPECT_EQ(s.cmd("RCPT TO:<b@example.com>"), NEED_MAIL) << line;
  }
  Sender s;
  s.mail_from("<first@example.com>");
  EXPECT_EQ(s.cmd("MAIL FRUM:<b@example.com>"), "500 malformed mail from\r\n");
  EXPECT_EQ(s.cmd("RCPT TO:<b@example.com>"), OK);
}

TEST_F(SmtpTest, RcptRepliesAndTheEnvelopeList) {
  Sender s;
  s.cmd("EHLO client.test");
  EXPECT_EQ(s.cmd("RCPT TO:<b@example.com>"), NEED_MAIL);
  s.cmd("MAIL FROM:<a@example.com>");
  EXPECT_EQ(s.cmd("RCPT TO:<b@example.com>"), OK);
  EXPECT_EQ(s.cmd("rcpt to: c@example.org"), OK);
  EXPECT_EQ(s.cmd("RCPT TO:<>"), OK);
  EXPECT_EQ(s.cmd("RCPT TO:<bogus>"), INVALID_PATH);
  EXPECT_EQ(s.cmd("RCPT T0:<b@example.com>"), "500 malformed rcpt command\r\n");
  ASSERT_EQ(s.conn()->num_rcpts, 3);
  const RcptNode* r = s.conn()->rcpts;  // newest first
  EXPECT_STREQ(r->address->data, "");
  EXPECT_STREQ(r->next->address->data, "c@example.org");
  EXPECT_STREQ(r->next->next->address->data, "b@example.com");
  EXPECT_EQ(s.conn()->errors, 3);
}

TEST_F(SmtpTest, RecipientLimitComesBeforeRelayControl) {
  config.max_rcpt = 3;
  config.relay_control = true;
  local_domains.emplace_back(dstr_from_cstr("example.com"));
  Sender s("203.0.113.7");
  ASSERT_FALSE(s.conn()->can_relay);
  s.mail_from();
  std::string batch;
  for (int i = 0; i < 3; ++i) batch += "RCPT TO:<r" + std::to_string(i) + "@example.com>\r\n";
  s.send(batch);
  EXPECT_EQ(s.pump(), OK + OK + OK);
  EXPECT_EQ(s.cmd("RCPT TO:<x@elsewhere.net>"), "550 Too many recipients\r\n");
  // A new MAIL starts a new count.
  s.cmd("MAIL FROM:<a@example.com>");
  EXPECT_EQ(s.cmd("RCPT TO:<r@example.com>"), OK);
}

TEST_F(SmtpTest, RelayControlDecidesForeignRecipients) {
  config.relay_control = true;
  local_domains.emplace_back(dstr_from_cstr("Example.COM"));
  in_addr net{};
  inet_aton("192.168.1.0", &net);
  relay_ips.push_back({ntohl(net.s_addr), prefix_mask(24)});
  const struct {
    const char* sender;
    const char* rcpt;
    std::string reply;
  } cases[] = {
      {"192.168.2.1", "RCPT TO:<x@elsewhere.net>", DENIED},
      {"192.168.2.1", "RCPT TO:<x@example.com>", OK},
      {"192.168.2.1", "RCPT TO:<x@EXAMPLE.com>", OK},
      {"192.168.2.1", "RCPT TO:<x@sub.example.com>", DENIED},
      {"192.168.2.1", "RCPT TO:<>", OK},
      {"192.168.1.77", "RCPT TO:<x@elsewhere.net>", OK},
  };
  for (const auto& c : cases) {
    Sender s(c.sender);
    s.mail_from();
    EXPECT_EQ(s.cmd(c.rcpt), c.reply) << c.sender << " " << c.rcpt;
    EXPECT_EQ(s.conn()->errors, c.reply == OK ? 0 : 1);
    close_connection(s.conn());
  }
}

TEST_F(SmtpTest, HeloRsetAndEhloDropTheEnvelope) {
  for (const char* reset : {"HELO client.test", "RSET", "EHLO"}) {
    Sender s;
    s.mail_from();
    EXPECT_EQ(s.cmd("RCPT TO:<b@example.com>"), OK);
    s.cmd(reset);
    EXPECT_EQ(s.conn()->num_rcpts, 0) << reset;
    EXPECT_EQ(s.cmd("RCPT TO:<b@example.com>"), NEED_MAIL) << reset;
  }
}

TEST_F(SmtpTest, DataWithoutScanDirectoryRefusesTemporarilyAndKeepsTheEnvelope) {
  Sender s;
  s.mail_from();
  s.cmd("RCPT TO:<b@example.com>");
  config.scan_dir = "/nonexistent/scan";
  EXPECT_EQ(s.cmd("DATA"), "451 Couldn't open temporary file\r\n");
  EXPECT_EQ(s.conn()->num_rcpts, 1);  // the sender may try again
  EXPECT_EQ(s.conn()->errors, 0);
}

TEST_F(SmtpTest, PendingTransactionRefusesEnvelopeCommandsOnly) {
  Sender s;
  s.mail_from();
  s.cmd("RCPT TO:<b@example.com>");
  s.conn()->transaction_pending = true;
  const std::string pending = "501 Mail transaction pending\r\n";
  for (const char* line :
       {"MAIL FROM:<c@example.com>", "RCPT TO:<d@example.com>", "DATA", "RSET", "AUTH LOGIN"})
    EXPECT_EQ(s.cmd(line), pending) << line;
  EXPECT_EQ(s.cmd("NOOP"), OK);
  EXPECT_EQ(s.conn()->num_rcpts, 1);
  EXPECT_EQ(s.conn()->errors, 0);
  s.conn()->transaction_pending = false;
}

}  // namespace
