// The poll loop's dispatch rules, connects and accepts (comm_write_test.cc has
// the write queue).
#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <string>
#include <vector>

#include "daemon/util.h"
#include "event_test_support.h"

namespace {

using namespace foundation_test;
using namespace std::string_literals;
using event_test::run_until;
std::vector<std::string> calls;
int victim_fd = -1;
CommConnect* own_connect = nullptr;
CommAccept* own_accept = nullptr;
int accepts = 0;

void record(int fd, void*) {
  calls.push_back(std::to_string(fd));
}
void remove_victim_write(int fd, void* data) {
  record(fd, data);
  comm_add_fd(victim_fd, COMM_WRITE, nullptr, nullptr);
}
void on_result(int fd, int error, void*) {
  calls.push_back(std::to_string(fd) + ":" + std::to_string(error) + ":" +
                  std::to_string(error ? errno : 0));
}
// Owners abort the connect they hold when they close, which may happen in its
// own handler; an accept handler re-arms and then cancels the record it was
// called for, which must not lose the new registration.
void abort_own_connect(int fd, int error, void* data) {
  on_result(fd, error, data);
  comm_connect_abort(own_connect);
}
void rearm_then_cancel_old(int fd, int error, void* data) {
  on_result(fd, error, data);
  close(fd);
  CommAccept* old = own_accept;
  own_accept = ++accepts < 2 ? comm_accept(victim_fd, rearm_then_cancel_old, nullptr) : nullptr;
  comm_accept_cancel(old);
}

TEST(Comm, OneShotHandlersEveryReadBeforeAnyWriteAndARemovalRestartsTheCycle) {
  event_test::init_loop_once();
  calls.clear();
  event_test::SocketPair p1, p2;
  int x = p1.a.get(), y = p2.a.get();
  ASSERT_EQ(
      write(x, "x", 1) + write(y, "x", 1) + write(p1.b.get(), "x", 1) + write(p2.b.get(), "x", 1),
      4);
  comm_add_fd(x, COMM_WRITE, record, nullptr);
  comm_read(x, record, nullptr);
  comm_read(y, record, nullptr);
  comm_add_fd(y, COMM_WRITE, record, nullptr);
  ASSERT_EQ(comm_set_current_polls(), 2);  // the newest first; merging keeps the older place
  EXPECT_EQ(comm.polls[0].fd, y);
  EXPECT_EQ(comm.polls[1].events, POLLIN | POLLOUT);
  comm_run(0);
  comm_run(0);
  const std::string X = std::to_string(x), Y = std::to_string(y);
  EXPECT_EQ(calls, (std::vector<std::string>{Y, X, Y, X}));  // reads, then writes
  // A handler that removes another pending handler ends the cycle: the removed
  // one must not run on a stale poll result, and nothing else runs either.
  victim_fd = y;
  comm_add_fd(y, COMM_WRITE, record, nullptr);
  comm_read(x, remove_victim_write, nullptr);
  comm_add_fd(x, COMM_WRITE, record, nullptr);
  EXPECT_TRUE(contains(logged([] { comm_run(0); }), "Restarting poll\n"));
  comm_run(0);
  EXPECT_EQ(calls, (std::vector<std::string>{Y, X, Y, X, X, X}));
  // Removal between cycles (a timer closing a connection) cuts nothing short.
  comm_read(p2.b.get(), record, nullptr);
  comm_clear_read(p2.b.get());
  comm_read(x, record, nullptr);
  comm_read(p1.b.get(), record, nullptr);
  comm_run(0);
  EXPECT_EQ(calls.size(), 8u);
  comm_read(y, record, nullptr);  // a peer's hang-up wakes the reader
  p2.b.reset();
  comm_run(0);
  EXPECT_EQ(calls.back(), Y);
  EXPECT_TRUE(contains(written(comm_dump), "Current Polls: \nfd " + Y + " events 1 revents "));
  std::string log = logged([&] {
    comm_clear_read(y);
    comm_clear_read(x);
    comm_run(0);  // an empty poll set ends the cycle
    comm_read(-1, record, nullptr);
    comm_write(comm.nfiles, "x", 1, nullptr, nullptr, nullptr);
  });
  for (const std::string& line : {"Nothing to poll?\n"s, "comm_add_fd: invalid fd: -1\n"s,
                                  "comm_write: invalid fd: " + std::to_string(comm.nfiles) + "\n"})
    EXPECT_TRUE(contains(log, line)) << line;
}

TEST(Comm, ConnectOutcomeComesOnceLaterAndNeverAfterAnAbortAndEachAcceptGivesOne) {
  event_test::init_loop_once();
  calls.clear();
  sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  UniqueFd listener(make_listen_socket(&a)), s(socket(AF_INET, SOCK_STREAM, 0)),
      aborted(socket(AF_INET, SOCK_STREAM, 0)), own(socket(AF_INET, SOCK_STREAM, 0));
  socklen_t len = sizeof(a);
  getsockname(listener.get(), reinterpret_cast<sockaddr*>(&a), &len);
  auto start = [&](int fd, CommHandler handler) {
    return comm_connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a), handler, nullptr);
  };
  ASSERT_NE(start(s.get(), on_result), nullptr);
  comm_connect_abort(start(aborted.get(), on_result));
  own_connect = start(own.get(), abort_own_connect);
  EXPECT_TRUE(calls.empty()) << "reported before the loop ran";
  run_until([] { return calls.size() == 2; });
  for (int i = 0; i < 5; i++) comm_run(0);
  std::sort(calls.begin(), calls.end());
  EXPECT_EQ(calls,
            (std::vector<std::string>{std::to_string(std::min(s.get(), own.get())) + ":0:0",
                                      std::to_string(std::max(s.get(), own.get())) + ":0:0"}));
  EXPECT_TRUE(comm.fds[aborted.get()].free);
  EXPECT_EQ(comm.connects, nullptr);
  // Three connections are waiting; two registrations take two of them.
  victim_fd = listener.get();
  own_accept = comm_accept(listener.get(), rearm_then_cancel_old, nullptr);
  run_until([] { return calls.size() == 4; });
  for (int i = 0; i < 5; i++) comm_run(0);
  ASSERT_EQ(calls.size(), 4u) << "accepted without a registration";
  EXPECT_EQ(calls[2].substr(calls[2].find(':')) + calls[3].substr(calls[3].find(':')), ":0:0:0:0");
  EXPECT_EQ(comm.accepts, nullptr);
  comm_accept_cancel(comm_accept(listener.get(), on_result, nullptr));
  EXPECT_TRUE(comm.fds[listener.get()].free);
}

}  // namespace
