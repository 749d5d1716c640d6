#include <string>
#include <vector>

#include "event_test_support.h"

namespace {

using event_test::init_loop_once;

std::vector<int>* fired = nullptr;
void on_fire(void* data) {
  fired->push_back(static_cast<int>(reinterpret_cast<intptr_t>(data)));
}
void* tag(int t) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(t));
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

TEST_F(TimerTest, RescheduleMovesBothWays) {
  Timer* a = add(10, 1);
  add(5, 2);
  Timer* c = add(1, 3);
  timer_reschedule(0, a);   // earlier: to the root
  timer_reschedule(20, c);  // later: to the leaves
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
  for (int i = 0; i < 4500; i++) add(1 + i % 50, i);
  advance(100);
  timer_run();
  ASSERT_EQ(fired_.size(), 4500u);
  forget_fired();
}

TEST_F(TimerTest, NullCancelIsIgnored) {
  timer_cancel(nullptr);
}

}  // namespace
