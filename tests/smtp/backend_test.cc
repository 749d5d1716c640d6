#include "smtp/backend.h"

#include <poll.h>

#include "tests/smtp/smtp_test_support.h"

namespace {

TEST(ReplyCodeTest, CodesContinuationsAndCutLines) {
  struct Case {
    const char* line;
    int code, incomplete;
  } const cases[] = {
      {"", -1, 1},       {"250 OK", -2, 1}, {"250 OK\r\n", 250, 0}, {"250-PIPELINING\r\n", -250, 0},
      {"354\n", 354, 0}, {"25-\n", 25, 0},  {"hello\r\n", 0, 0},
  };
  for (const Case& c : cases) {
    DstrPtr line(dstr_from_cstr(c.line));
    EXPECT_EQ(reply_code(line.get()), c.code) << '"' << c.line << '"';
    EXPECT_EQ(line_incomplete(line.get()), c.incomplete) << '"' << c.line << '"';
  }
}

// A backend on a loopback port, played by the test between poll passes.
class BackendRelayTest : public smtp_test::SmtpTest {
 protected:
  void SetUp() override {
    SmtpTest::SetUp();
    config.address_transparent = false;
    listener_.reset(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    addr_ = smtp_test::ipv4("127.0.0.1", 0);
    socklen_t len = sizeof addr_;
    ASSERT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&addr_), len), 0);
    ASSERT_EQ(listen(listener_.get(), 1), 0);
    getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&addr_), &len);
  }
  // A sender with a cleared message for two recipients, its scan file ready.
  Connection* start(smtp_test::Sender& s) {
    s.mail_from();
    s.cmd("RCPT TO:<b@example.com>");
    s.cmd("RCPT TO:<c@example.com>");
    Connection* conn = s.conn();
    conn->receiver_addr = addr_;
    std::string name = dir_.write("scan", "Subject: t\r\n\r\nbody\r\n");
    conn->scan_file_name = dstr_from_cstr(name.c_str());
    conn->scan_file = fopen(name.c_str(), "a+");
    backend_start(conn);
    return conn;
  }
  // One pass of the proxy's loop, then up to 10 ms for fd to become readable.
  static bool pass(int fd) {
    comm_run(0);
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 10) > 0;
  }
  // What the proxy sends the backend, once n bytes are in (bounded).
  std::string backend_reads(size_t n) {
    std::string got;
    for (int i = 0; i < 500 && got.size() < n; ++i)
      if (pass(peer_.get())) got += foundation_test::read_to_eof(peer_.get());
    return got;
  }
  void backend_says(const std::string& text) {
    for (int i = 0; i < 500 && peer_.get() < 0; ++i)
      if (pass(listener_.get()))
        peer_.reset(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK));
    ASSERT_EQ(write(peer_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  foundation_test::TempDir dir_;
  UniqueFd listener_, peer_;
  sockaddr_in addr_{};
};

TEST_F(BackendRelayTest, BackendGetsTheTransactionAndTheSenderOnlyTheProxysOk) {
  smtp_test::Sender s;
  Connection* conn = start(s);
  conn->auth_user = strdup("dXNlcg==\r\n"), conn->auth_pass = strdup("cGFzcw==\r\n");
  const std::pair<std::string, std::string> script[] = {
      {"220 fake\r\n", "EHLO client.test\r\n"},
      {"250-fake\r\n250 SIZE 100\r\n", "auth login\r\n"},
      {"334 VXNlcm5hbWU6\r\n", "dXNlcg==\r\n"},
      {"535 no\r\n", "RSET\r\n"},  // the message goes on unauthenticated
      {"250 ok\r\n", "MAIL FROM:<a@example.com>\r\n"},
      {"250 ok\r\n", "RCPT TO:<c@example.com>\r\n"},  // newest first
      {"550-no\r\n550 such user\r\n", "RCPT TO:<b@example.com>\r\n"},
      {"250 ok\r\n", "DATA\r\n"},
      {"354 go\r\n", "Subject: t\r\n\r\nbody\r\n.\r\n"},
  };
  for (const auto& [reply, expected] : script) {
    backend_says(reply);
    EXPECT_EQ(backend_reads(expected.size()), expected) << "after " << reply;
  }
  EXPECT_EQ(conn->num_failed_rcpts, 1);
  backend_says("250 queued as X\r\n");
  EXPECT_EQ(s.pump(), "250 OK\r\n");
  s.send("QUIT\r\n");
  EXPECT_EQ(backend_reads(6), "QUIT\r\n");
  EXPECT_TRUE(conn->closed);
}

TEST_F(BackendRelayTest, ClosedOrRefusingBackendAnswersTheSenderAndFreesIt) {
  smtp_test::Sender closing;
  start(closing);
  backend_says("");
  peer_.reset();
  EXPECT_EQ(closing.pump(), "421 Backend closed connection\r\n");
  EXPECT_FALSE(closing.conn()->transaction_pending);
  listener_.reset();  // nothing listens on the port any more
  smtp_test::Sender refused;
  start(refused);
  EXPECT_EQ(refused.pump(50), "451 Internal Error\r\n");
}

}  // namespace
