#include <poll.h>

#include <algorithm>
#include <string>
#include <vector>

#include "event_test_support.h"
#include "tests/foundation/test_util.h"

namespace {

using event_test::init_loop_once;
using event_test::LogCapture;
using event_test::SocketPair;

struct Trace {
  std::vector<std::string> calls;
};

Trace* trace = nullptr;

void record_read(int fd, void*) {
  trace->calls.push_back("r" + std::to_string(fd));
}
void record_write(int fd, void*) {
  trace->calls.push_back("w" + std::to_string(fd));
}

class CommTest : public ::testing::Test {
 protected:
  void SetUp() override {
    init_loop_once();
    trace = &trace_;
  }
  Trace trace_;
};

// Makes both ends of a pair readable (each has a byte waiting) and writable.
void make_ready(SocketPair& p) {
  ASSERT_EQ(write(p.a.get(), "x", 1), 1);
  ASSERT_EQ(write(p.b.get(), "x", 1), 1);
}

TEST_F(CommTest, HandlersAreOneShot) {
  SocketPair p;
  make_ready(p);
  comm_read(p.a.get(), record_read, nullptr);
  comm_run(0);
  comm_run(0);
  EXPECT_EQ(trace_.calls, std::vector<std::string>{"r" + std::to_string(p.a.get())});
}

TEST_F(CommTest, AllReadsOfACycleRunBeforeAnyWrite) {
  SocketPair p1, p2;
  make_ready(p1);
  make_ready(p2);
  int x = p1.a.get(), y = p2.a.get();
  comm_add_fd(x, COMM_WRITE, record_write, nullptr);
  comm_read(x, record_read, nullptr);
  comm_read(y, record_read, nullptr);
  comm_add_fd(y, COMM_WRITE, record_write, nullptr);
  comm_run(0);
  ASSERT_EQ(trace_.calls.size(), 4u);
  EXPECT_EQ(trace_.calls[0][0], 'r');
  EXPECT_EQ(trace_.calls[1][0], 'r');
  EXPECT_EQ(trace_.calls[2][0], 'w');
  EXPECT_EQ(trace_.calls[3][0], 'w');
}

int victim_fd = -1;
void remove_victim_write(int fd, void* data) {
  record_read(fd, data);
  comm_add_fd(victim_fd, COMM_WRITE, nullptr, nullptr);
}

TEST_F(CommTest, RemovingAnotherPendingHandlerRestartsTheCycle) {
  SocketPair p1, p2;
  make_ready(p1);
  make_ready(p2);
  victim_fd = p2.a.get();
  comm_add_fd(victim_fd, COMM_WRITE, record_write, nullptr);
  comm_read(p1.a.get(), remove_victim_write, nullptr);
  // Also a write on the reader itself: it must not run in this cycle either.
  comm_add_fd(p1.a.get(), COMM_WRITE, record_write, nullptr);
  LogCapture log;
  comm_run(0);
  EXPECT_EQ(trace_.calls, std::vector<std::string>{"r" + std::to_string(p1.a.get())});
  EXPECT_TRUE(log.has("Restarting poll\n"));
  comm_run(0);  // the next cycle starts afresh
  EXPECT_EQ(trace_.calls.size(), 2u);
  EXPECT_EQ(trace_.calls.back(), "w" + std::to_string(p1.a.get()));
}

TEST_F(CommTest, RemovalBetweenCyclesDoesNotCutTheNextOneShort) {
  SocketPair p1, p2, p3;
  make_ready(p1);
  make_ready(p2);
  comm_read(p3.a.get(), record_read, nullptr);
  comm_clear_read(p3.a.get());  // as a timer handler closing a connection does
  comm_read(p1.a.get(), record_read, nullptr);
  comm_read(p2.a.get(), record_read, nullptr);
  comm_run(0);
  EXPECT_EQ(trace_.calls.size(), 2u);
}

TEST_F(CommTest, NullHandlerOnFreeDescriptorDoesNotRestart) {
  SocketPair p1, p2;
  make_ready(p1);
  comm_add_fd(p2.a.get(), COMM_WRITE, nullptr, nullptr);
  comm_read(p1.a.get(), record_read, nullptr);
  comm_add_fd(p1.a.get(), COMM_WRITE, record_write, nullptr);
  comm_run(0);
  EXPECT_EQ(trace_.calls.size(), 2u);
  EXPECT_FALSE(comm.restart);
}

void reregister(int fd, void* data) {
  record_read(fd, data);
  comm_read(fd, reregister, data);
}

TEST_F(CommTest, SelfReregistrationRunsNextCycleNotThisOne) {
  SocketPair p;
  make_ready(p);
  comm_read(p.a.get(), reregister, nullptr);
  comm_run(0);
  EXPECT_EQ(trace_.calls.size(), 1u);
  comm_run(0);
  EXPECT_EQ(trace_.calls.size(), 2u);
  comm_clear_read(p.a.get());
}

TEST_F(CommTest, NewestRegistrationPollsFirstAndMergingKeepsPlace) {
  SocketPair p1, p2;
  comm_read(p1.a.get(), record_read, nullptr);
  comm_read(p2.a.get(), record_read, nullptr);
  ASSERT_EQ(comm_set_current_polls(), 2);
  EXPECT_EQ(comm.polls[0].fd, p2.a.get());
  comm_add_fd(p1.a.get(), COMM_WRITE, record_write, nullptr);
  ASSERT_EQ(comm_set_current_polls(), 2);
  EXPECT_EQ(comm.polls[1].fd, p1.a.get());
  EXPECT_EQ(comm.polls[1].events, POLLIN | POLLOUT);
  comm_clear_fd(p2.a.get(), COMM_READ);
  ASSERT_EQ(comm_set_current_polls(), 1);
  EXPECT_EQ(comm.polls[0].fd, p1.a.get());
}

TEST_F(CommTest, HangupWakesTheReader) {
  SocketPair p;
  comm_read(p.a.get(), record_read, nullptr);
  p.b.reset();
  comm_run(0);
  EXPECT_EQ(trace_.calls.size(), 1u);
}

int completions = 0;
void count_completion(int, int, void*) {
  completions++;
}

// Every operation names itself when it refuses a descriptor, and does nothing
// else: no handler runs, no record is kept.
TEST_F(CommTest, InvalidDescriptorsAreLoggedByEachOperationAndIgnored) {
  struct Case {
    const char* op;
    void (*call)(int fd);
  };
  const Case cases[] = {
      {"comm_add_fd", [](int fd) { comm_add_fd(fd, COMM_READ, record_read, nullptr); }},
      {"comm_add_fd", [](int fd) { comm_read(fd, record_read, nullptr); }},
      {"comm_clear_fd", [](int fd) { comm_clear_fd(fd, COMM_READ); }},
      {"comm_pendings", [](int fd) { EXPECT_EQ(comm_pendings(fd), 0); }},
      {"comm_write",
       [](int fd) { EXPECT_EQ(comm_write(fd, "x", 1, count_completion, nullptr, nullptr), 0); }},
      {"comm_clear_write", [](int fd) { comm_clear_write(fd, 1); }},
      {"comm_finished", [](int fd) { comm_finished(fd, count_completion, nullptr); }},
      {"comm_interm", [](int fd) { comm_interm(fd, count_completion, nullptr, 0); }},
      {"comm_write_file",
       [](int fd) { EXPECT_EQ(comm_write_file(fd, 0, count_completion, nullptr), -1); }},
      {"comm_write_file_offset",
       [](int fd) { EXPECT_EQ(comm_write_file_offset(fd, 0, 0, count_completion, nullptr), -1); }},
      {"comm_connect",
       [](int fd) { EXPECT_EQ(comm_connect(fd, nullptr, 0, count_completion, nullptr), nullptr); }},
  };
  for (const Case& c : cases) {
    for (int fd : {-1, comm.nfiles}) {
      LogCapture log;
      completions = 0;
      c.call(fd);
      std::string line = std::string(c.op) + ": invalid fd: " + std::to_string(fd) + "\n";
      EXPECT_TRUE(log.has(line)) << c.op << " with " << fd << " logged:\n" << log.text();
      EXPECT_EQ(completions, 0) << c.op;
    }
  }
  EXPECT_EQ(comm.used_head, -1);
  EXPECT_EQ(comm.connects, nullptr);
}

TEST_F(CommTest, EmptyPollSetEndsTheCycle) {
  ASSERT_EQ(comm.used_head, -1);
  LogCapture log;
  comm_run(0);
  EXPECT_TRUE(log.has("comm_set_current_polls: invalid fd: -1\n"));
  EXPECT_TRUE(log.has("Nothing to poll?\n"));
}

TEST_F(CommTest, DumpShowsListsHandlersAndTheLastPollSet) {
  SocketPair p1, p2;
  int x = p1.a.get(), y = p2.a.get();
  comm_read(x, record_read, nullptr);
  comm_read(y, record_read, nullptr);
  comm_add_fd(y, COMM_WRITE, record_write, nullptr);
  comm_set_current_polls();
  std::string dump = foundation_test::written(comm_dump);
  char expect[512];
  auto h = [](IoHandler fn) { return reinterpret_cast<void*>(fn); };
  snprintf(expect, sizeof(expect),
           "Used fd list\n%d -> %d -> -1\npending reads\nfd %d handler %p\nfd %d handler "
           "%p\npending writes\nfd %d handler %p\npending connects:\npending accepts:\nqueued "
           "writes:\n\nPending finished: \nCurrent Polls: \nfd %d events 5 revents 0\nfd %d "
           "events 1 revents 0\n",
           y, x, std::min(x, y), h(record_read), std::max(x, y), h(record_read), y, h(record_write),
           y, x);
  EXPECT_NE(dump.find(expect), std::string::npos) << dump;
  EXPECT_EQ(dump.find("COMM Dump:\nCurrent time: "), 0u) << dump;
  EXPECT_NE(dump.find("Free fd list: 0 -> -1\n"), std::string::npos) << dump;
}

}  // namespace
