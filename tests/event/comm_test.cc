// The poll loop's dispatch rules, connects and accepts; then the write queue.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <cstdlib>
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

// Input a stream already holds is not announced by the kernel: a handler
// registered with comm_read_now runs in the next cycle with nothing to read,
// and not at all once cleared.
TEST(Comm, ReadNowRunsInTheNextCycleWithoutInputAndNotOnceCleared) {
  event_test::init_loop_once();
  calls.clear();
  event_test::SocketPair p;
  comm_read_now(p.a.get(), record, nullptr);
  comm_run(2);
  EXPECT_EQ(calls, (std::vector<std::string>{std::to_string(p.a.get())}));
  comm_read_now(p.a.get(), record, nullptr);
  comm_clear_read(p.a.get());
  comm_read(p.b.get(), record, nullptr);  // something to poll, nothing ready
  comm_run(0);
  EXPECT_EQ(calls.size(), 1u);
  // A mark that a cycle cut short did not reach is kept: its bytes were taken
  // from the socket already, so no kernel event would bring it back.
  event_test::SocketPair q;
  ASSERT_EQ(write(q.b.get(), "x", 1), 1);
  comm_read_now(p.a.get(), record, nullptr);
  victim_fd = p.b.get();
  comm_add_fd(victim_fd, COMM_WRITE, record, nullptr);
  comm_read(q.a.get(), remove_victim_write, nullptr);  // the newest runs first and restarts
  comm_run(0);
  comm_run(0);
  const std::string A = std::to_string(p.a.get());
  EXPECT_EQ(calls, (std::vector<std::string>{A, std::to_string(q.a.get()), A}));
  comm_clear_read(p.b.get());
}

TEST(Comm, ConnectOutcomeComesOnceLaterAndNeverAfterAnAbortAndEachAcceptGivesOne) {
  event_test::init_loop_once();
  calls.clear();
  sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  UniqueFd listener(make_listen_socket(&a)), s(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)),
      aborted(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)),
      own(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
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

// Read interest that went away stays with the kernel until an event shows it
// unwanted; it must then go at once, or the loop would wake for it forever.
// A descriptor the loop did not see closed may come back under its number as
// a new socket, which must still be registered; a connect that waits for the
// peer's first bytes completes on them.
TEST(Comm, UnwantedInputIsDroppedOnceAndANewSocketUnderAnOldNumberIsHeard) {
  event_test::init_loop_once();
  calls.clear();
  sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  UniqueFd listener(make_listen_socket(&a));
  socklen_t len = sizeof(a);
  getsockname(listener.get(), reinterpret_cast<sockaddr*>(&a), &len);
  event_test::SocketPair idle;  // something to wait on besides
  comm_read(idle.a.get(), record, nullptr);
  auto* p = new event_test::SocketPair;
  const int fd = p->a.get();
  ASSERT_EQ(write(p->b.get(), "x", 1), 1);
  comm_read(fd, record, nullptr);
  comm_run(0);  // dispatched and not re-armed
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(comm.fds[fd].kernel, POLLIN) << "a dropped reader costs an epoll_ctl";
  comm_run(0);  // the byte is still there: the kernel reports it, nobody wants it
  EXPECT_EQ(comm.fds[fd].kernel, 0);
  comm_read(fd, record, nullptr);  // wanted again: heard again
  comm_run(0);
  ASSERT_EQ(calls.size(), 2u);
  close(p->a.release());  // behind the loop's back, its interest still in the table
  p->b.reset();
  delete p;
  UniqueFd s(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
  ASSERT_EQ(s.get(), fd) << "the test needs the number back";
  ASSERT_EQ(comm.fds[fd].kernel, POLLIN);  // what the table still says of the old socket
  ASSERT_NE(comm_connect(s.get(), reinterpret_cast<sockaddr*>(&a), sizeof(a), on_result, nullptr,
                         ConnectDone::FIRST_BYTES),
            nullptr);
  for (int i = 0; i < 5; i++) comm_run(0);
  EXPECT_EQ(calls.size(), 2u) << "connected, but the peer has not spoken";
  UniqueFd peer(accept(listener.get(), nullptr, nullptr));
  ASSERT_EQ(write(peer.get(), "220\r\n", 5), 5);
  EXPECT_TRUE(run_until([] { return calls.size() == 3; }));
  EXPECT_EQ(calls.back(), std::to_string(fd) + ":0:0");
  char greeting[8];
  EXPECT_EQ(read(s.get(), greeting, sizeof greeting), 5) << "the first bytes are the reader's";
}

// The write queue: each buffer goes out whole, in order, completes once and is
// released once, whatever the handlers do meanwhile.
using Outcome = std::pair<int, int>;  // (tag, error)
std::vector<Outcome> handled;
std::vector<int> released;  // tags, in the order the buffers came back
std::vector<std::pair<char*, int>> live;
std::string again;

void on_done(int, int error, void* data) {
  handled.emplace_back(static_cast<int>(reinterpret_cast<intptr_t>(data)), error);
}
void release(void* buffer) {
  auto it = std::find_if(live.begin(), live.end(), [&](auto& l) { return l.first == buffer; });
  ASSERT_NE(it, live.end()) << "released a buffer twice or one never written";
  released.push_back(it->second);
  free(it->first);
  live.erase(it);
}
// The owner's usual answer to a failed write is to close: clearing the queue
// from inside a completion must neither repeat nor skip anyone.
void clear_on_failure(int fd, int error, void* data) {
  on_done(fd, error, data);
  if (error != 0) comm_clear_write(fd, 1);
}
// A handler told of the clear may write again at once; that write must go out.
void write_again(int fd, int error, void* data) {
  on_done(fd, error, data);
  comm_write(fd, again.data(), static_cast<int>(again.size()), on_done, event_test::tag(20),
             nullptr);
}

class CommWriteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    event_test::init_loop_once();
    handled.clear();
    released.clear();
    int size = 0;
    socklen_t len = sizeof(size);
    getsockopt(p.a.get(), SOL_SOCKET, SO_SNDBUF, &size, &len);
    big = static_cast<size_t>(size) * 4;  // cannot leave in one write
  }
  void TearDown() override { EXPECT_TRUE(live.empty()) << "a buffer was never released"; }
  int write_tagged(int t, size_t size, CommHandler handler = on_done) {
    char* b = static_cast<char*>(calloc(size, 1));
    live.emplace_back(b, t);
    return comm_write(p.a.get(), b, static_cast<int>(size), handler, event_test::tag(t), release);
  }
  std::string drain(size_t want) {  // reads p.b, running the loop as room appears
    std::string got;
    char chunk[65536];
    for (int idle = 0; got.size() < want && idle < 1000; comm_run(0)) {
      ssize_t n = read(p.b.get(), chunk, sizeof(chunk));
      if (n > 0) got.append(chunk, static_cast<size_t>(n));
      idle = n > 0 ? 0 : idle + 1;
    }
    return got;
  }
  event_test::SocketPair p;
  size_t big = 0;
};

TEST_F(CommWriteTest, PeerResetFailsEveryQueuedWriteOnceEvenWhenAHandlerClears) {
  for (int t = 1; t <= 3; t++) write_tagged(t, big, clear_on_failure);
  p.b.reset();
  run_until([] { return released.size() == 3; });
  EXPECT_EQ(handled, (std::vector<Outcome>{{1, 1}, {2, 1}, {3, 1}}));
  // The first buffer comes back last: its release follows its handler, which
  // cleared the others.
  EXPECT_EQ(released, (std::vector<int>{2, 3, 1}));
  EXPECT_EQ(comm_pendings(p.a.get()), 0);
}

TEST_F(CommWriteTest, ClearReleasesEachBufferOnceNotifiesWhenAskedAndKeepsAWriteMadeMeanwhile) {
  write_tagged(1, big);
  write_tagged(2, 10);
  comm_clear_write(p.a.get(), 0);
  EXPECT_TRUE(handled.empty());
  EXPECT_EQ(released, (std::vector<int>{1, 2}));
  read_to_eof(p.b.get());  // what left before the clear
  again.assign(big, 'z');
  write_tagged(3, big, write_again);
  size_t sent = big - static_cast<size_t>(comm.writes[p.a.get()].head->size);
  comm_finished(p.a.get(), on_done, event_test::tag(4));
  comm_clear_write(p.a.get(), 1);
  EXPECT_EQ(handled, (std::vector<Outcome>{{3, 1}, {4, 1}}));
  ASSERT_EQ(comm_pendings(p.a.get()), 1) << "the new write was dropped with the old queue";
  EXPECT_TRUE(drain(sent + big).substr(sent) == again) << "the new write did not go out whole";
  EXPECT_EQ(handled.back(), Outcome(20, 0));
}

TEST_F(CommWriteTest, FilesArriveWholeFromTheirOffsetAndAnEmptyOneFails) {
  std::string content(5 * 1024 * 1024 + 17, '\0');
  for (size_t i = 0; i < content.size(); i++) content[i] = static_cast<char>((i * 131) ^ (i >> 9));
  TempDir dir;
  UniqueFd file(open(dir.write("f", content).c_str(), O_RDONLY)),
      small(open(dir.write("s", "0123456789").c_str(), O_RDONLY)),
      empty(open(dir.write("e", "").c_str(), O_RDONLY));
  ASSERT_EQ(comm_write_file(p.a.get(), file.get(), on_done, event_test::tag(5)), 0);
  ASSERT_EQ(comm_write_file_offset(p.a.get(), small.get(), 4, on_done, event_test::tag(6)), 0);
  comm_finished(p.a.get(), on_done, event_test::tag(7));  // once both are out
  EXPECT_TRUE(drain(content.size() + 6) == content + "456789") << "a file arrived altered";
  run_until([] { return handled.size() == 3; });
  EXPECT_EQ(handled, (std::vector<Outcome>{{5, 0}, {6, 0}, {7, 0}}));
  EXPECT_EQ(comm_write_file(p.a.get(), empty.get(), on_done, event_test::tag(9)), -1);
  EXPECT_EQ(handled.back(), Outcome(9, 1));
  comm_finished(p.a.get(), on_done, event_test::tag(8));  // nothing queued: at once
  EXPECT_EQ(handled.back(), Outcome(8, 0));
  // A cleared send gives its descriptor back without notice.
  ASSERT_EQ(comm_write_file(p.a.get(), file.get(), on_done, event_test::tag(4)), 0);
  comm_clear_write(p.a.get(), 0);
  EXPECT_EQ(handled.size(), 5u);
}

}  // namespace
