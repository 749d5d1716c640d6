#include "event/timer.h"

#include <cerrno>
#include <new>
#include <vector>

#include "event/comm.h"
#include "foundation/dlog.h"
#include "foundation/dump.h"
#include "foundation/fatal.h"

struct Timer {
  int index;  // position in the heap, kept current by every swap; -1 when out
  time_t expiry;
  TimerHandler handler;
  void* data;
};

namespace {

constexpr size_t INITIAL_TIMERS = 2000;

std::vector<Timer*> heap;  // size() is the capacity; count is the live part
int count = 0;
Timer* firing = nullptr;  // out of the heap while its handler runs

void heap_swap(int i, int j) {
  std::swap(heap[i], heap[j]);
  heap[i]->index = i;
  heap[j]->index = j;
}

void heap_up(int k) {
  while (k > 0 && heap[k]->expiry < heap[(k - 1) / 2]->expiry) {
    heap_swap(k, (k - 1) / 2);
    k = (k - 1) / 2;
  }
}

void heap_down(int k) {
  dlog(DLOG_TIMER, 9, "heap_down: k %d current_timers %d\n", k, count);
  while (2 * k + 1 < count) {
    int child = 2 * k + 1;
    if (child + 1 < count && heap[child + 1]->expiry < heap[child]->expiry) child++;
    if (heap[k]->expiry <= heap[child]->expiry) break;
    heap_swap(k, child);
    k = child;
  }
}

void timer_remove(Timer* t) {
  dlog(DLOG_TIMER, 9, "timer_remove: tx %p i %d current_timers %d handler %p data %p\n",
       static_cast<void*>(t), t->index, count, reinterpret_cast<void*>(t->handler), t->data);
  count--;
  int k = t->index;
  t->index = -1;
  if (k == count) {
    heap[count] = nullptr;
    return;
  }
  heap[k] = heap[count];
  heap[k]->index = k;
  heap[count] = nullptr;
  if (k > 0 && heap[k]->expiry < heap[(k - 1) / 2]->expiry)
    heap_up(k);
  else
    heap_down(k);
}

// Puts a record into the last position and moves it up to its place.
void timer_insert(Timer* t) {
  if (static_cast<size_t>(count) >= heap.size()) {
    dlog(DLOG_TIMER, 1, "Rebuilding timers from %d\n", static_cast<int>(heap.size()));
    try {
      heap.resize(heap.empty() ? INITIAL_TIMERS : heap.size() * 2, nullptr);
    } catch (const std::bad_alloc&) {
      errno = ENOMEM;
      fatal_exit("Realloc error in timer_add: %m");
    }
  }
  t->index = count;
  heap[count++] = t;
  heap_up(t->index);
}

}  // namespace

void timer_init() {
  dump_register(timer_dump);
  heap.assign(INITIAL_TIMERS, nullptr);
  count = 0;
}

Timer* timer_add(int delay, TimerHandler handler, void* data) {
  if (handler == nullptr) fatal_exit("Adding a null timer handler?\n");
  auto* t = new (std::nothrow) Timer{-1, delay + comm_current_time(), handler, data};
  if (t == nullptr) {
    errno = ENOMEM;
    fatal_exit("Calloc failed in timer_add: %m\n");
  }
  // The heap grows (and says so) before the new timer is logged.
  timer_insert(t);
  dlog(DLOG_TIMER, 9, "timer_add: th %p t %ld handler %p data %p\n", static_cast<void*>(t),
       static_cast<long>(delay), reinterpret_cast<void*>(handler), data);
  return t;
}

void timer_cancel(Timer* t) {
  dlog(DLOG_TIMER, 9, "timer_cancel: %p\n", static_cast<void*>(t));
  if (t == nullptr) {
    dlog(DLOG_TIMER, 1, "Canceling a null timer?\n");
    return;
  }
  if (t->index >= 0) timer_remove(t);
  // A handler cancelling its own timer: timer_run frees it on return.
  if (t != firing) delete t;
}

void timer_cancel_slot(Timer** slot) {
  if (*slot != nullptr) timer_cancel(*slot);
  *slot = nullptr;
}

void timer_reschedule(int delay, Timer* t) {
  if (t == nullptr) {
    dlog(DLOG_TIMER, 1, "Rescheduling a null timer?\n");
    return;
  }
  dlog(DLOG_TIMER, 9,
       "timer_reschedule: th %p time %ld index %d current_timers %d handler %p data %p\n",
       static_cast<void*>(t), static_cast<long>(delay), t->index, count,
       reinterpret_cast<void*>(t->handler), t->data);
  t->expiry = delay + comm_current_time();
  if (t->index < 0) {
    // Only the firing timer is ever out of the heap: its handler re-arms it,
    // and timer_run keeps the record instead of freeing it.
    timer_insert(t);
  } else if (t->index > 0 && t->expiry <= heap[(t->index - 1) / 2]->expiry) {
    heap_up(t->index);
  } else {
    heap_down(t->index);
  }
}

int timer_next_timeout() {
  if (count == 0) {
    dlog(DLOG_TIMER, 9, "timer_next_timeout: -1\n");
    return -1;
  }
  time_t d = heap[0]->expiry - comm_current_time();
  if (d < 0) d = 0;
  dlog(DLOG_TIMER, 9, "timer_next_timeout: %d\n", static_cast<int>(d));
  return static_cast<int>(d);
}

void timer_run() {
  while (count > 0 && heap[0]->expiry <= comm_current_time()) {
    Timer* t = heap[0];
    dlog(DLOG_TIMER, 5, "timer_run: tx %p handler %p data %p\n", static_cast<void*>(t),
         reinterpret_cast<void*>(t->handler), t->data);
    timer_remove(t);
    firing = t;
    t->handler(t->data);
    firing = nullptr;
    if (t->index < 0) delete t;
  }
}

void timer_dump(FILE* stream) {
  fprintf(stream, "Timer Dump:\n");
  fprintf(stream, "Current timers: %d\n", count);
  time_t now = comm_current_time();
  for (int i = 0; i < count; i++)
    fprintf(stream, "location %d index %d timeout %ld (in %ld) handler %p data %p\n", i,
            heap[i]->index, static_cast<long>(heap[i]->expiry),
            static_cast<long>(heap[i]->expiry - now), reinterpret_cast<void*>(heap[i]->handler),
            heap[i]->data);
}
