// A sender connection over a socketpair, served by the real event loop: the
// test writes to its end and collects the proxy's replies after a few
// non-blocking poll passes.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "daemon/util.h"
#include "event/comm.h"
#include "event/timer.h"
#include "smtp/config.h"
#include "smtp/smtp.h"
#include "tests/foundation/test_util.h"

namespace smtp_test {

// The event loop and the timers can be set up once per process only.
inline void init_event_loop_once() {
  static const bool done = [] {
    signal(SIGPIPE, SIG_IGN);
    timer_init();
    comm_init(1024);
    return true;
  }();
  (void)done;
}

inline sockaddr_in ipv4(const char* dotted, int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  inet_pton(AF_INET, dotted, &a.sin_addr);
  a.sin_port = htons(static_cast<uint16_t>(port));
  return a;
}

class Sender {
 public:
  // Opens a connection as if accepted from `from`, redirected from 198.51.100.25:25.
  explicit Sender(const char* from = "192.0.2.10") {
    int sv[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    set_nonblock(sv[0]);
    set_nonblock(sv[1]);
    peer_ = sv[1];
    conn_ = new_connection();
    conn_->sender_fd = sv[0];
    conn_->sender_addr = ipv4(from, 40000);
    conn_->receiver_addr = ipv4("198.51.100.25", 25);
    conn_->my_sender_addr = ipv4("198.51.100.1", 8082);
    smtp_start_session(conn_);
    greeting_ = pump();
  }
  ~Sender() {
    if (peer_ >= 0) close(peer_);
  }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  Connection* conn() const { return conn_; }
  const std::string& greeting() const { return greeting_; }

  void send(const std::string& bytes) {
    ASSERT_EQ(write(peer_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void shutdown_write() { ::shutdown(peer_, SHUT_WR); }
  void close_peer() {
    close(peer_);
    peer_ = -1;
  }

  // A few poll passes, then whatever the proxy has written so far.
  std::string pump(int passes = 6) {
    for (int i = 0; i < passes; ++i) comm_run(0);
    return foundation_test::read_to_eof(peer_);
  }
  std::string cmd(const std::string& line) {
    send(line + "\r\n");
    return pump();
  }
  // EHLO, then MAIL FROM; the reply to MAIL.
  std::string mail_from(const std::string& sender = "<a@example.com>") {
    cmd("EHLO client.test");
    return cmd("MAIL FROM:" + sender);
  }
  // True once the proxy has closed its end (after everything it wrote).
  bool peer_sees_eof() {
    char c;
    return read(peer_, &c, 1) == 0;
  }

 private:
  int peer_ = -1;
  Connection* conn_ = nullptr;
  std::string greeting_;
};

// Default settings with their reply texts, a fresh loop state per test.
class SmtpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    init_event_loop_once();
    config_reset();
    read_config("/nonexistent/vigild-test-common.conf", "/nonexistent/vigild-test-proxy.conf");
    if (command_line == nullptr) command_line = dstr_new(COMMAND_LINE_CAPACITY);
  }
  void TearDown() override {
    smtp_close_all();
    free_closed_connections();
    config_reset();
  }
};

}  // namespace smtp_test
