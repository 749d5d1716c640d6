#include <string>
#include <vector>

#include "event_test_support.h"

namespace {

std::vector<int> fired;
Timer* own = nullptr;  // for the handlers below that act on their own timer
void on_fire(void* data) {
  fired.push_back(static_cast<int>(reinterpret_cast<intptr_t>(data)));
}
void pass(int seconds) {  // one timer pass per second of the loop's cached clock
  for (int i = 0; i < seconds; i++, comm.now++) timer_run();
}

// Reads the heap back through timer_dump: each line's index must be its
// location, and no timer may expire before its parent.
bool heap_is_ordered() {
  std::string dump = foundation_test::written(timer_dump);
  std::vector<long> expiry;
  for (size_t at = dump.find("location "); at != std::string::npos;
       at = dump.find("location ", at + 1)) {
    int location = -1, index = -2;
    long timeout = 0;
    sscanf(dump.c_str() + at, "location %d index %d timeout %ld", &location, &index, &timeout);
    if (location != index || location != static_cast<int>(expiry.size()) ||
        (location > 0 && timeout < expiry[static_cast<size_t>(location - 1) / 2]))
      return false;
    expiry.push_back(timeout);
  }
  return true;
}

// Owners close on an idle time-out, and closing cancels the very timer that is
// firing; or they re-arm it; or they add one that is due at once.
void cancel_own(void* data) {
  on_fire(data);
  timer_cancel(own);
}
void rearm_own_once(void* data) {
  on_fire(data);
  if (fired.size() == 2) timer_reschedule(3, own);
}
void add_zero_delay(void* data) {
  on_fire(data);
  timer_add(0, on_fire, event_test::tag(4));
}

TEST(Timer, FireInDeadlineOrderOnlyWhenDueAndCancelKeepsTheHeapOrdered) {
  event_test::init_loop_once();
  comm.now = 1000000;
  EXPECT_EQ(timer_next_timeout(), -1);
  std::vector<Timer*> t(16);
  for (int d : {1, 10, 2, 11, 12, 3, 4, 15, 5, 9, 7, 13, 6, 8, 14})
    t[d] = timer_add(d, on_fire, event_test::tag(d));
  EXPECT_EQ(timer_next_timeout(), 1);
  // Heap [1 5 2 10 7 3 4 15 11 12 9 13 6 8 14]: once 14 has gone from the end,
  // 11's replacement 8 must move up past 10; then 2 goes from near the root.
  for (int d : {14, 11, 2, 8}) timer_cancel(t[d]);
  EXPECT_TRUE(heap_is_ordered());
  timer_reschedule(0, t[12]);  // earlier: to the root
  timer_reschedule(20, t[1]);  // later: to the leaves
  EXPECT_TRUE(heap_is_ordered());
  EXPECT_EQ(timer_next_timeout(), 0);
  pass(5);
  EXPECT_EQ(fired, (std::vector<int>{12, 3, 4}));
  comm.now += 100;
  EXPECT_EQ(timer_next_timeout(), 0) << "an overdue timer must not wait";
  timer_run();
  EXPECT_EQ(fired, (std::vector<int>{12, 3, 4, 5, 6, 7, 9, 10, 13, 15, 1}));

  fired.clear();
  own = timer_add(0, cancel_own, event_test::tag(1));
  pass(1);
  EXPECT_EQ(timer_next_timeout(), -1);
  own = timer_add(0, rearm_own_once, event_test::tag(2));
  pass(1);
  EXPECT_EQ(timer_next_timeout(), 2) << "rescheduling from the handler did not re-arm";
  pass(3);
  timer_add(0, add_zero_delay, event_test::tag(3));
  timer_run();
  EXPECT_EQ(fired, (std::vector<int>{1, 2, 2, 3, 4}));
  EXPECT_EQ(timer_next_timeout(), -1);

  fired.clear();  // the heap grows past its first room
  std::string log = foundation_test::logged(
      [] {
        for (int i = 0; i < 4500; i++) timer_add(i % 50, on_fire, event_test::tag(i));
        timer_cancel(nullptr);
        timer_reschedule(5, nullptr);
      },
      1);
  EXPECT_EQ(log,
            "Rebuilding timers from 2000\nRebuilding timers from 4000\nCanceling a null timer?\n"
            "Rescheduling a null timer?\n");
  EXPECT_TRUE(heap_is_ordered());
  pass(50);
  EXPECT_EQ(fired.size(), 4500u);
}

}  // namespace
