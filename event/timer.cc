#include "event/timer.h"

#include <vector>

#include "daemon/vigild.h"
#include "event/comm.h"
#include "foundation/dlog.h"
#include "foundation/dump.h"

struct Timer {
  int index;  // position in the heap, kept current by every swap
  time_t expiry;
  TimerHandler handler;
  void* data;
};

namespace {

constexpr size_t INITIAL_TIMERS = 2000;

std::vector<Timer*> heap;  // size() is the capacity; count is the live part
int count = 0;

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

}  // namespace

void timer_init() {
  dump_register(timer_dump);
  heap.assign(INITIAL_TIMERS, nullptr);
  count = 0;
}

Timer* timer_add(int delay, TimerHandler handler, void* data) {
  if (handler == nullptr) fatal_exit("Adding a null timer handler?\n");
  if (static_cast<size_t>(count) >= heap.size()) {
    dlog(DLOG_TIMER, 1, "Rebuilding timers from %d\n", static_cast<int>(heap.size()));
    heap.resize(heap.empty() ? INITIAL_TIMERS : heap.size() * 2, nullptr);
  }
  auto* t = new Timer{count, delay + comm_current_time(), handler, data};
  dlog(DLOG_TIMER, 9, "timer_add: th %p t %ld handler %p data %p\n", static_cast<void*>(t),
       static_cast<long>(delay), reinterpret_cast<void*>(handler), data);
  heap[count++] = t;
  heap_up(t->index);
  return t;
}

void timer_cancel(Timer* t) {
  dlog(DLOG_TIMER, 9, "timer_cancel: %p\n", static_cast<void*>(t));
  if (t == nullptr) {
    dlog(DLOG_TIMER, 1, "Canceling a null timer?\n");
    return;
  }
  timer_remove(t);
  delete t;
}

void timer_reschedule(int delay, Timer* t) {
  dlog(DLOG_TIMER, 9,
       "timer_reschedule: th %p time %ld index %d current_timers %d handler %p data %p\n",
       static_cast<void*>(t), static_cast<long>(delay), t->index, count,
       reinterpret_cast<void*>(t->handler), t->data);
  t->expiry = delay + comm_current_time();
  if (t->index > 0 && t->expiry <= heap[(t->index - 1) / 2]->expiry)
    heap_up(t->index);
  else
    heap_down(t->index);
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
    t->handler(t->data);
    delete t;
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
