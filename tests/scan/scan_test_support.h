// Shared by the scanner client tests: a fake scanner server on a Unix socket in
// a fresh temporary directory, serviced from the test's own bounded loop
// between poll passes of the real event loop (one per process).
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "event/comm.h"
#include "event/timer.h"
#include "foundation/dlog.h"
#include "foundation/fd.h"
#include "gtest/gtest.h"

namespace scan_test {

class FakeServer {
 public:
  explicit FakeServer(const char* name) {
    [[maybe_unused]] static bool loop_ready = [] {
      signal(SIGPIPE, SIG_IGN);  // as the daemon does
      dlog_set_mode("scan_tests", 0);
      comm_init(256);
      timer_init();
      return true;
    }();
    char dir[] = "/tmp/scan-test-XXXXXX";
    dir_ = mkdtemp(dir) != nullptr ? dir : "/tmp";
    path_ = dir_ + "/" + name;
  }
  ~FakeServer() {
    stop();
    rmdir(dir_.c_str());
  }
  const char* path() const { return path_.c_str(); }

  void listen() {
    listener_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    path_.copy(a.sun_path, sizeof(a.sun_path) - 1);
    ASSERT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
    ASSERT_EQ(::listen(listener_.get(), 16), 0);
  }
  // Closes every connection and the listener; connects then fail until listen().
  void stop() {
    listener_.reset();
    unlink(path_.c_str());
    for (Peer& p : peers_) p.fd.reset();
  }
  void send(size_t i, const std::string& s) {
    ASSERT_EQ(write(peers_[i].fd.get(), s.data(), s.size()), static_cast<ssize_t>(s.size()));
  }
  size_t peers() const { return peers_.size(); }
  // Everything connection i sent, byte for byte.
  const std::string& received(size_t i) const { return peers_[i].in; }
  size_t lines(size_t i) const {
    return i < peers_.size() ? std::count(peers_[i].in.begin(), peers_[i].in.end(), '\n') : 0;
  }
  // The connection whose traffic contains text, or -1.
  int peer_with(const std::string& text) const {
    for (size_t i = 0; i < peers_.size(); i++)
      if (peers_[i].in.find(text) != std::string::npos) return static_cast<int>(i);
    return -1;
  }

  // Waits up to ms for something to accept or read, then takes all of it.
  void pump(int ms) {
    std::vector<pollfd> set{{listener_.get(), POLLIN, 0}};  // poll skips closed (-1) ones
    for (Peer& p : peers_) set.push_back({p.fd.get(), POLLIN, 0});
    poll(set.data(), set.size(), ms);
    for (int fd; (fd = accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK)) >= 0;)
      peers_.push_back(Peer{UniqueFd(fd), {}});
    char buf[4096];
    for (Peer& p : peers_) {
      ssize_t n;
      while ((n = read(p.fd.get(), buf, sizeof(buf))) > 0) p.in.append(buf, n);
      if (n == 0) p.fd.reset();
    }
  }

  // Runs the fake, one poll pass and the due timers until done() holds or
  // seconds (reconnect timers count whole seconds) have passed.
  bool run_until(const std::function<bool()>& done, int seconds = 15) {
    time_t end = time(nullptr) + seconds;
    do {
      pump(10);
      comm_update_time();  // comm_run skips it when nothing is registered
      comm_run(0);
      timer_run();
      if (done()) return true;
    } while (time(nullptr) < end);
    return false;
  }

 private:
  struct Peer {
    UniqueFd fd;
    std::string in;
  };
  std::string dir_, path_;
  UniqueFd listener_;
  std::vector<Peer> peers_;
};

using V = std::vector<int>;

template <typename Request>
struct Job {
  Request* req = nullptr;
  V results;
};

// One client against one fake; whatever a test leaves behind is cancelled,
// then the client shut down, so each test starts from a fresh client.
template <typename Request, void (*cancel)(Request*), void (*shutdown)()>
class ClientTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (Job<Request>& j : jobs_)
      if (j.req != nullptr) cancel(j.req);
    shutdown();
  }
  bool answered(int i) { return !jobs_[i].results.empty(); }
  V result_of(int i) {
    EXPECT_TRUE(fake_.run_until([&] { return answered(i); })) << "request " << i;
    return jobs_[i].results;
  }

  FakeServer fake_{"scanner.sock"};
  std::array<Job<Request>, 8> jobs_;
};

}  // namespace scan_test
