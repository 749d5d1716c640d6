// Shared by the scanner client tests: a fake scanner server on a Unix socket in
// a fresh temporary directory, serviced from the test's own bounded loop
// between poll passes of the real event loop (one per process).
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <ctime>

#include "tests/event/event_test_support.h"

namespace scan_test {

class FakeServer {
 public:
  explicit FakeServer(const char* name) : path_(dir_.file(name)) { event_test::init_loop_once(); }
  ~FakeServer() { stop(); }
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
      if (foundation_test::contains(peers_[i].in, text)) return static_cast<int>(i);
    return -1;
  }

  // Runs the fake (accepting and reading all there is), one poll pass and the
  // due timers until done() holds or seconds (reconnect timers count whole
  // seconds) have passed.
  bool run_until(const std::function<bool()>& done, int seconds = 15) {
    for (time_t end = time(nullptr) + seconds; time(nullptr) < end;) {
      std::vector<pollfd> set{{listener_.get(), POLLIN, 0}};  // poll skips closed (-1) ones
      for (Peer& p : peers_) set.push_back({p.fd.get(), POLLIN, 0});
      poll(set.data(), set.size(), 10);
      for (int fd; (fd = accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK)) >= 0;)
        peers_.push_back(Peer{UniqueFd(fd), {}});
      char buf[4096];
      for (Peer& p : peers_) {
        ssize_t n;
        while ((n = read(p.fd.get(), buf, sizeof(buf))) > 0) p.in.append(buf, n);
        if (n == 0) p.fd.reset();
      }
      comm_update_time();  // comm_run skips it when nothing is registered
      comm_run(0);
      timer_run();
      if (done()) return true;
    }
    return false;
  }

 private:
  struct Peer {
    UniqueFd fd;
    std::string in;
  };
  foundation_test::TempDir dir_;
  std::string path_;
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
  // As the verdict handlers do: note the result, give the request back (none
  // yet when the client answers before it returns one).
  static void done(Job<Request>* job, int result) {
    job->results.push_back(result);
    if (job->req != nullptr) cancel(job->req);
    job->req = nullptr;
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
