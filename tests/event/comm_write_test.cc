#include <fcntl.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "event_test_support.h"

namespace {

using event_test::run_until;
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
  foundation_test::read_to_eof(p.b.get());  // what left before the clear
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

TEST_F(CommWriteTest, IntermediateHandlerReportsProgressAndAStuckPeerStallsNoOther) {
  write_tagged(1, big, nullptr);
  comm_interm(p.a.get(), on_done, event_test::tag(3), 0);
  EXPECT_TRUE(handled.empty()) << "called with writes still queued at registration";
  event_test::SocketPair other;
  for (int i = 0; i < 20; i++) {  // p.b reads nothing meanwhile
    ASSERT_EQ(comm_write(other.a.get(), "pong", 4, on_done, event_test::tag(2), nullptr), 0);
    comm_run(0);
  }
  EXPECT_EQ(foundation_test::read_to_eof(other.b.get()).size(), 80u);
  // A little read at a time: one write pass cannot take the rest, so writes are
  // still queued when the progress call comes.
  char chunk[4096];
  for (size_t i = 0; i < big / sizeof(chunk) && handled.size() == 20; i++, comm_run(0))
    ASSERT_GT(read(p.b.get(), chunk, sizeof(chunk)), 0);
  ASSERT_EQ(handled.back(), Outcome(3, 0));
  EXPECT_GT(comm_pendings(p.a.get()), 0) << "the progress call came after the end";
  drain(big);
  EXPECT_EQ(handled.size(), 22u);
  EXPECT_EQ(handled.back(), Outcome(3, 0));
}

TEST_F(CommWriteTest, FilesArriveWholeFromTheirOffsetAndAnEmptyOneFails) {
  std::string content(5 * 1024 * 1024 + 17, '\0');
  for (size_t i = 0; i < content.size(); i++) content[i] = static_cast<char>((i * 131) ^ (i >> 9));
  foundation_test::TempDir dir;
  UniqueFd file(open(dir.write("f", content).c_str(), O_RDONLY)),
      small(open(dir.write("s", "0123456789").c_str(), O_RDONLY)),
      empty(open(dir.write("e", "").c_str(), O_RDONLY));
  ASSERT_EQ(comm_write_file(p.a.get(), file.get(), on_done, event_test::tag(5)), 0);
  ASSERT_EQ(comm_write_file_offset(p.a.get(), small.get(), 4, on_done, event_test::tag(6)), 0);
  EXPECT_TRUE(drain(content.size() + 6) == content + "456789") << "a file arrived altered";
  run_until([] { return handled.size() == 2; });
  EXPECT_EQ(handled, (std::vector<Outcome>{{5, 0}, {6, 0}}));
  EXPECT_EQ(comm_write_file(p.a.get(), empty.get(), on_done, event_test::tag(9)), -1);
  EXPECT_EQ(handled.back(), Outcome(9, 1));
  comm_finished(p.a.get(), on_done, event_test::tag(7));  // nothing queued: at once
  EXPECT_EQ(handled.back(), Outcome(7, 0));
  // A cleared send gives its mapping back without notice (ASan sees a leak).
  ASSERT_EQ(comm_write_file(p.a.get(), file.get(), on_done, event_test::tag(4)), 0);
  comm_clear_write(p.a.get(), 0);
  EXPECT_EQ(handled.size(), 4u);
}

}  // namespace
