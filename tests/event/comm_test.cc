#include <poll.h>

#include <string>
#include <vector>

#include "event_test_support.h"

namespace {

using event_test::init_loop_once;
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
  comm_run(0);
  EXPECT_EQ(trace_.calls, std::vector<std::string>{"r" + std::to_string(p1.a.get())});
  comm_run(0);  // the next cycle starts afresh
  EXPECT_EQ(trace_.calls.size(), 2u);
  EXPECT_EQ(trace_.calls.back(), "w" + std::to_string(p1.a.get()));
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

TEST_F(CommTest, InvalidDescriptorsAreRejectedAndIgnored) {
  for (int fd : {-1, comm.nfiles, comm.nfiles + 100}) {
    comm_add_fd(fd, COMM_READ, record_read, nullptr);
    comm_clear_fd(fd, COMM_READ);
    EXPECT_EQ(comm_pendings(fd), 0);
    EXPECT_EQ(comm_write(fd, "x", 1, nullptr, nullptr, nullptr), 0);
    comm_clear_write(fd, 1);
  }
  EXPECT_EQ(comm.used_head, -1);
}

TEST_F(CommTest, DumpListsUsedDescriptorsNewestFirst) {
  SocketPair p1, p2;
  comm_read(p1.a.get(), record_read, nullptr);
  comm_read(p2.a.get(), record_read, nullptr);
  char* text = nullptr;
  size_t size = 0;
  FILE* f = open_memstream(&text, &size);
  comm_dump(f);
  fclose(f);
  std::string dump(text, size);
  free(text);
  std::string chain = std::to_string(p2.a.get()) + " -> " + std::to_string(p1.a.get()) + " -> -1\n";
  EXPECT_NE(dump.find("Used fd list\n" + chain), std::string::npos) << dump;
  EXPECT_NE(dump.find("Free fd list: 0 -> -1\n"), std::string::npos) << dump;
}

}  // namespace
