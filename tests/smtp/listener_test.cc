// Connection lifecycle: the admission limit with its one-time dump, the
// accept path over loopback, idempotent close, the idle timer and the dump
// section.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "foundation/dlog.h"
#include "tests/foundation/test_util.h"
#include "tests/smtp/smtp_test_support.h"

namespace {

using foundation_test::contains;
using foundation_test::lacking;
using foundation_test::slurp;
using foundation_test::StderrCapture;
using foundation_test::TempDir;
using smtp_test::Sender;
using smtp_test::SmtpTest;

// A client of the proxy's listening socket on loopback.
class LoopbackClient {
 public:
  explicit LoopbackClient(int port) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = smtp_test::ipv4("127.0.0.1", port);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  ~LoopbackClient() { close(fd_); }
  bool connected() const { return connected_; }
  // What the proxy wrote before closing; "<open>" when it has not closed.
  // The poll bound only guards against a hang: the close is already done
  // when the accept handler returns.
  std::string read_to_eof() {
    std::string out;
    char buf[512];
    for (;;) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 5000) != 1) return out + "<open>";
      ssize_t n = read(fd_, buf, sizeof buf);
      if (n <= 0) return out;
      out.append(buf, n);
    }
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
};

class ListenerTest : public SmtpTest {
 protected:
  void SetUp() override {
    SmtpTest::SetUp();
    ASSERT_TRUE(dir_.ok());
    static std::string dump_file;
    dump_file = dir_.file("refusal_dump.txt");
    smtp_refusal_dump_file = dump_file.c_str();
    if (listen_fd < 0) {
      sockaddr_in a = smtp_test::ipv4("127.0.0.1", 0);
      listen_fd = make_listen_socket(&a);
      ASSERT_GE(listen_fd, 0);
      smtp_init_listener();
    }
    socklen_t len = sizeof bound_;
    getsockname(listen_fd, reinterpret_cast<sockaddr*>(&bound_), &len);
    old_mode_ = dlog_set_mode("smtp_test", DLOG_MODE_STDERR);
  }
  void TearDown() override {
    dlog_set_mode("smtp_test", old_mode_);
    SmtpTest::TearDown();
  }
  int port() const { return ntohs(bound_.sin_port); }
  // Poll passes until the pending accept has been served.
  void serve_accept() {
    for (int i = 0; i < 6; ++i) comm_run(0);
  }

  TempDir dir_;
  sockaddr_in bound_{};
  unsigned old_mode_ = 0;
};

TEST_F(ListenerTest, RefusalAtTheLimitClosesSilentlyAndDumpsOnlyOnce) {
  config.max_connections = 5;
  Sender s[5];
  ASSERT_EQ(num_connections, 5);
  StderrCapture log(dir_.file("log"));
  {
    LoopbackClient sixth(port());
    ASSERT_TRUE(sixth.connected());
    serve_accept();
    EXPECT_EQ(sixth.read_to_eof(), "");
  }
  std::string dump = slurp(smtp_refusal_dump_file);
  EXPECT_EQ(dump.rfind("config: listen_addr ", 0), 0u) << dump;
  EXPECT_TRUE(contains(dump, "    num_connections 5\n")) << dump;
  unlink(smtp_refusal_dump_file);

  // Accepting is paused at the limit; closing one record arms it again.
  EXPECT_EQ(accept_handle, nullptr);
  close_connection(s[0].conn());
  EXPECT_NE(accept_handle, nullptr);
  LoopbackClient again(port());
  serve_accept();
  // Without NAT redirection the original destination is unknown, so the
  // admitted connection is closed at once, also without a reply.
  EXPECT_EQ(again.read_to_eof(), "");
  EXPECT_EQ(lacking(log.finish(), {"New connection refused: max connections(5) reached\n",
                                   "getsockopt failed: "}),
            "");

  config.max_connections = 3;  // four are open: refused again, but no second dump
  LoopbackClient third(port());
  serve_accept();
  EXPECT_EQ(third.read_to_eof(), "");
  EXPECT_FALSE(foundation_test::file_exists(smtp_refusal_dump_file));
}

TEST_F(ListenerTest, CloseTwiceDoesItsWorkOnce) {
  Sender a;
  Sender b;
  ASSERT_EQ(num_connections, 2);
  close_connection(a.conn());
  close_connection(a.conn());
  EXPECT_EQ(num_connections, 1);
  EXPECT_EQ(active_connections, b.conn());
  EXPECT_EQ(b.conn()->prev, nullptr);
  EXPECT_EQ(closed_connections, a.conn());
  EXPECT_EQ(a.conn()->next, nullptr);
  EXPECT_EQ(a.conn()->sender_fd, -1);
  EXPECT_EQ(a.conn()->idle_timer, nullptr);
}

TEST_F(ListenerTest, IdleTimerFollowsTheSetting) {
  config.idle_timeout = 0;
  Sender quiet;
  EXPECT_EQ(quiet.conn()->idle_timer, nullptr);
  config.idle_timeout = 300;
  Sender s;
  ASSERT_NE(s.conn()->idle_timer, nullptr);
  // Due now rather than in five minutes: the next timer pass fires it.
  StderrCapture log(dir_.file("log"));
  timer_reschedule(0, s.conn()->idle_timer);
  timer_run();
  EXPECT_TRUE(s.conn()->closed);
  EXPECT_EQ(s.conn()->idle_timer, nullptr);
  EXPECT_TRUE(s.peer_sees_eof());
  EXPECT_TRUE(contains(log.finish(),
                       "Idle timeout. Closing connection. sender=192.0.2.10(40000), "
                       "receiver=198.51.100.25(25)\n"));
  idle_timeout_handler(s.conn());  // a closed record is left alone
}

TEST_F(ListenerTest, DumpShowsEveryActiveAndClosedRecord) {
  Sender s;
  s.mail_from();
  s.cmd("RCPT TO:<b@example.com>");
  s.cmd("RCPT TO:<c@example.com>");
  Sender gone;
  close_connection(gone.conn());
  std::string dump = foundation_test::written(dump_connections);
  char freed[64];
  snprintf(freed, sizeof freed, "freed connection pc %p closed 1\n",
           static_cast<void*>(gone.conn()));
  EXPECT_EQ(
      lacking(
          dump,
          {"   idle_timeout 300  max_connections 2500\n",
           "   max_mag_size 20971520 max_rcpt 200 max_errors 5\n", "    num_connections 1\n",
           "sender_addr 192.0.2.10 receiver_addr 198.51.100.25 my_receiver_addr "
           "0.0.0.0 my_sender_addr 198.51.100.1\n",
           "num rcpts 2: c@example.com b@example.com \n",
           "helo domain: client.test from a@example.com\n", "scan_file_name (nil)\n",
           "be_state 0 can_relay 1 be_pipelining 0 newline 0 closed 0\n", "errors 0 \n", freed}),
      "")
      << dump;
}

}  // namespace
