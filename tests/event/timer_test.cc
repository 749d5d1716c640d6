#include <string>
#include <vector>

#include "event_test_support.h"
#include "tests/foundation/test_util.h"

namespace {

using event_test::init_loop_once;
using event_test::LogCapture;

std::vector<int>* fired = nullptr;
void on_fire(void* data) {
  fired->push_back(static_cast<int>(reinterpret_cast<intptr_t>(data)));
}
void* tag(int t) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(t));
}

// Reads the heap back through timer_dump: each line's index must be its
// location and no timer may expire before its parent.
testing::AssertionResult heap_is_ordered() {
  std::string dump = foundation_test::written(timer_dump);
  std::vector<long> expiry;
  for (size_t at = dump.find("location "); at != std::string::npos;
       at = dump.find("location ", at + 1)) {
    int location = -1, index = -2;
    long timeout = 0;
    sscanf(dump.c_str() + at, "location %d index %d timeout %ld", &location, &index, &timeout);
    if (location != index || location != static_cast<int>(expiry.size()))
      return testing::AssertionFailure() << "stale index:\n" << dump;
    if (location > 0 && timeout < expiry[static_cast<size_t>(location - 1) / 2])
      return testing::AssertionFailure() << "earlier than its parent:\n" << dump;
    expiry.push_back(timeout);
  }
  return testing::AssertionSuccess();
}

class TimerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    init_loop_once();
    fired = &fired_;
    saved_now_ = comm.now;
    comm.now = 1000000;
  }
  void TearDown() override {
    for (Timer* t : pending_) timer_cancel(t);
    comm.now = saved_now_;
  }
  // Advances the loop's cached clock; timers read nothing else.
  void advance(int seconds) { comm.now += seconds; }
  Timer* add(int delay, int t) {
    Timer* timer = timer_add(delay, on_fire, tag(t));
    pending_.push_back(timer);
    return timer;
  }
  void forget(Timer* t) { std::erase(pending_, t); }
  void forget_fired() {
    pending_.clear();  // every timer of the test has fired
  }

  std::vector<int> fired_;
  std::vector<Timer*> pending_;
  time_t saved_now_ = 0;
};

TEST_F(TimerTest, NoTimersMeansNoTimeoutAndNothingRuns) {
  EXPECT_EQ(timer_next_timeout(), -1);
  timer_run();
  EXPECT_TRUE(fired_.empty());
}

TEST_F(TimerTest, FireInDeadlineOrderAndOnlyWhenDue) {
  const int delays[] = {5, 1, 9, 3, 7, 2, 8, 4, 6};
  for (int d : delays) add(d, d);
  EXPECT_EQ(timer_next_timeout(), 1);
  timer_run();
  EXPECT_TRUE(fired_.empty());
  advance(4);
  timer_run();
  EXPECT_EQ(fired_, (std::vector<int>{1, 2, 3, 4}));
  EXPECT_EQ(timer_next_timeout(), 1);
  advance(100);
  EXPECT_EQ(timer_next_timeout(), 0) << "an overdue timer must not wait";
  timer_run();
  EXPECT_EQ(fired_, (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
  forget_fired();
}

TEST_F(TimerTest, CancelFromTheMiddleKeepsHeapOrder) {
  std::vector<Timer*> timers;
  for (int d = 1; d <= 15; d++) timers.push_back(add(d, d));
  for (int d : {8, 2, 14, 5}) {
    timer_cancel(timers[d - 1]);
    forget(timers[d - 1]);
  }
  advance(20);
  timer_run();
  EXPECT_EQ(fired_, (std::vector<int>{1, 3, 4, 6, 7, 9, 10, 11, 12, 13, 15}));
  forget_fired();
}

TEST_F(TimerTest, CancelWhoseReplacementBeatsTheParentMovesItUp) {
  // Added in this order the heap array is exactly [1 10 2 11 12 3 4].
  std::vector<Timer*> timers;
  for (int d : {1, 10, 2, 11, 12, 3, 4}) timers.push_back(add(d, d));
  timer_cancel(timers[3]);  // 11 goes; 4 takes its place under 10
  forget(timers[3]);
  EXPECT_TRUE(heap_is_ordered());
  for (int t = 1; t <= 12; t++) {
    advance(1);
    timer_run();
  }
  EXPECT_EQ(fired_, (std::vector<int>{1, 2, 3, 4, 10, 12}));
  forget_fired();
}

TEST_F(TimerTest, RescheduleMovesBothWays) {
  Timer* a = add(10, 1);
  add(5, 2);
  Timer* c = add(1, 3);
  timer_reschedule(0, a);   // earlier: to the root
  timer_reschedule(20, c);  // later: to the leaves
  EXPECT_TRUE(heap_is_ordered());
  EXPECT_EQ(timer_next_timeout(), 0);
  advance(6);
  timer_run();
  EXPECT_EQ(fired_, (std::vector<int>{1, 2}));
  advance(20);
  timer_run();
  EXPECT_EQ(fired_, (std::vector<int>{1, 2, 3}));
  forget_fired();
}

void add_zero_delay(void* data) {
  on_fire(data);
  if (data == tag(1)) timer_add(0, on_fire, tag(2));
}

TEST_F(TimerTest, ZeroDelayAddedByAHandlerRunsInTheSamePass) {
  timer_add(0, add_zero_delay, tag(1));
  timer_run();
  EXPECT_EQ(fired_, (std::vector<int>{1, 2}));
}

TEST_F(TimerTest, GrowsPastInitialCapacity) {
  static bool first_run = true;  // the heap only grows, once per process
  LogCapture log;
  for (int i = 0; i < 4500; i++) add(1 + i % 50, i);
  if (first_run) {
    EXPECT_TRUE(log.has("Rebuilding timers from 2000\n"));
    EXPECT_TRUE(log.has("Rebuilding timers from 4000\n"));
  }
  first_run = false;
  EXPECT_TRUE(heap_is_ordered());
  advance(100);
  timer_run();
  ASSERT_EQ(fired_.size(), 4500u);
  forget_fired();
}

// Owners close on an idle time-out, and closing cancels the idle timer: the
// very one that is firing.
Timer* own = nullptr;
void cancel_own(void* data) {
  on_fire(data);
  timer_cancel(own);
}
void rearm_own_once(void* data) {
  on_fire(data);
  if (fired->size() == 1) timer_reschedule(3, own);
}

TEST_F(TimerTest, HandlerMayCancelOrRearmItsOwnTimer) {
  own = timer_add(1, cancel_own, tag(1));
  advance(1);
  timer_run();
  EXPECT_EQ(fired_, std::vector<int>{1});
  EXPECT_EQ(timer_next_timeout(), -1);

  fired_.clear();
  own = timer_add(1, rearm_own_once, tag(2));
  advance(1);
  timer_run();
  EXPECT_EQ(timer_next_timeout(), 3) << "rescheduling from the handler did not re-arm";
  advance(3);
  timer_run();
  EXPECT_EQ(fired_, (std::vector<int>{2, 2}));
  EXPECT_EQ(timer_next_timeout(), -1);
}

TEST_F(TimerTest, NullHandlesAreLoggedAndIgnored) {
  LogCapture log;
  timer_cancel(nullptr);
  timer_reschedule(5, nullptr);
  EXPECT_TRUE(log.has("Canceling a null timer?\n"));
  EXPECT_TRUE(log.has("Rescheduling a null timer?\n"));
}

}  // namespace
