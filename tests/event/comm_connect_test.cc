#include <arpa/inet.h>
#include <netinet/in.h>

#include <cerrno>
#include <string>
#include <vector>

#include "event_test_support.h"

namespace {

using event_test::init_loop_once;
using event_test::LogCapture;
using event_test::run_until;

struct Result {
  int fd;
  int error;
  int saved_errno;
};
std::vector<Result>* results = nullptr;

void on_result(int fd, int error, void*) {
  results->push_back({fd, error, errno});
}

class ConnectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    init_loop_once();
    results = &results_;
  }

  // A loopback listener on a free port; returns its address.
  sockaddr_in listen_any(UniqueFd& listener) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    listener.reset(make_listen_socket(&a));
    socklen_t len = sizeof(a);
    getsockname(listener.get(), reinterpret_cast<sockaddr*>(&a), &len);
    return a;
  }

  std::vector<Result> results_;
};

TEST_F(ConnectTest, ClosedPortFailsThroughHandlerWithRefused) {
  UniqueFd listener;
  sockaddr_in a = listen_any(listener);
  listener.reset();  // the port is now closed
  UniqueFd s(socket(AF_INET, SOCK_STREAM, 0));
  LogCapture log;
  CommConnect* c =
      comm_connect(s.get(), reinterpret_cast<sockaddr*>(&a), sizeof(a), on_result, nullptr);
  if (c == nullptr) {
    EXPECT_EQ(errno, ECONNREFUSED);  // refused synchronously: reported by the result
    return;
  }
  ASSERT_TRUE(run_until([&] { return !results_.empty(); }));
  EXPECT_TRUE(
      log.has("Socket connection failed: " + std::to_string(s.get()) + " Connection refused\n"))
      << log.text();
  EXPECT_EQ(results_[0].error, 1);
  EXPECT_EQ(results_[0].saved_errno, ECONNREFUSED);
  EXPECT_EQ(comm.connects, nullptr);
}

TEST_F(ConnectTest, SuccessIsReportedOnceOnALaterCycle) {
  UniqueFd listener;
  sockaddr_in a = listen_any(listener);
  UniqueFd s(socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_NE(comm_connect(s.get(), reinterpret_cast<sockaddr*>(&a), sizeof(a), on_result, nullptr),
            nullptr);
  EXPECT_TRUE(results_.empty()) << "reported before the loop ran";
  ASSERT_TRUE(run_until([&] { return !results_.empty(); }));
  EXPECT_EQ(results_[0].error, 0);
  comm_run(0);
  EXPECT_EQ(results_.size(), 1u);
}

TEST_F(ConnectTest, AbortedConnectNeverCallsBack) {
  UniqueFd listener;
  sockaddr_in a = listen_any(listener);
  UniqueFd s(socket(AF_INET, SOCK_STREAM, 0));
  CommConnect* c =
      comm_connect(s.get(), reinterpret_cast<sockaddr*>(&a), sizeof(a), on_result, nullptr);
  ASSERT_NE(c, nullptr);
  comm_connect_abort(c);
  for (int i = 0; i < 5; i++) comm_run(0);
  EXPECT_TRUE(results_.empty());
  EXPECT_TRUE(comm.fds[s.get()].free);
  comm_connect_abort(nullptr);  // logged and ignored
}

// Owners abort whatever connect they hold when they close, which may happen
// inside the connect's own handler.
CommConnect* current_connect = nullptr;
void abort_own_connect(int fd, int error, void* data) {
  on_result(fd, error, data);
  comm_connect_abort(current_connect);
}

TEST_F(ConnectTest, AbortFromItsOwnHandlerIsHarmless) {
  UniqueFd listener;
  sockaddr_in a = listen_any(listener);
  UniqueFd s(socket(AF_INET, SOCK_STREAM, 0));
  current_connect =
      comm_connect(s.get(), reinterpret_cast<sockaddr*>(&a), sizeof(a), abort_own_connect, nullptr);
  ASSERT_NE(current_connect, nullptr);
  ASSERT_TRUE(run_until([&] { return !results_.empty(); }));
  EXPECT_EQ(results_.size(), 1u);
  EXPECT_EQ(comm.connects, nullptr);
}

TEST_F(ConnectTest, EachAcceptRegistrationYieldsOneConnection) {
  UniqueFd listener;
  sockaddr_in a = listen_any(listener);
  UniqueFd c1(socket(AF_INET, SOCK_STREAM, 0)), c2(socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(connect(c1.get(), reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
  ASSERT_EQ(connect(c2.get(), reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);

  comm_accept(listener.get(), on_result, nullptr);
  ASSERT_TRUE(run_until([&] { return !results_.empty(); }));
  for (int i = 0; i < 5; i++) comm_run(0);
  ASSERT_EQ(results_.size(), 1u) << "accepted without a new registration";
  EXPECT_EQ(results_[0].error, 0);
  UniqueFd first(results_[0].fd);
  EXPECT_TRUE(fcntl(first.get(), F_GETFL) & O_NONBLOCK);

  comm_accept(listener.get(), on_result, nullptr);
  ASSERT_TRUE(run_until([&] { return results_.size() == 2; }));
  UniqueFd second(results_[1].fd);
  EXPECT_EQ(results_[1].error, 0);
  EXPECT_EQ(comm.accepts, nullptr);
}

// A handler that re-arms the accept and then cancels the record it was called
// for must not lose the new registration.
CommAccept* current_accept = nullptr;
int accept_listener = -1;
void rearm_then_cancel_old(int fd, int error, void* data) {
  on_result(fd, error, data);
  if (fd >= 0) close(fd);
  CommAccept* old = current_accept;
  current_accept = comm_accept(accept_listener, on_result, nullptr);
  comm_accept_cancel(old);
}

TEST_F(ConnectTest, CancelInsideTheAcceptHandlerKeepsTheNewRegistration) {
  UniqueFd listener;
  sockaddr_in a = listen_any(listener);
  accept_listener = listener.get();
  UniqueFd c1(socket(AF_INET, SOCK_STREAM, 0)), c2(socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(connect(c1.get(), reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
  ASSERT_EQ(connect(c2.get(), reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
  current_accept = comm_accept(listener.get(), rearm_then_cancel_old, nullptr);
  ASSERT_TRUE(run_until([&] { return results_.size() == 2; }));
  EXPECT_EQ(results_[1].error, 0) << "the second connection was never accepted";
  UniqueFd second(results_[1].fd);
  EXPECT_EQ(comm.accepts, nullptr);
}

TEST_F(ConnectTest, CancelledAcceptStopsPolling) {
  UniqueFd listener;
  listen_any(listener);
  CommAccept* r = comm_accept(listener.get(), on_result, nullptr);
  comm_accept_cancel(r);
  EXPECT_TRUE(comm.fds[listener.get()].free);
  EXPECT_EQ(comm.accepts, nullptr);
  comm_accept_cancel(nullptr);
}

}  // namespace
