// Cost of the event loop's dispatch as the number of registered (idle)
// descriptors grows, and of timer add/cancel with a large heap.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <vector>

#include "daemon/util.h"
#include "event/comm.h"
#include "event/timer.h"
#include "foundation/dlog.h"

namespace {

void init_once() {
  static bool done = [] {
    signal(SIGPIPE, SIG_IGN);
    dlog_set_mode("event_bench", 0);  // no log output at all
    comm_init(25000);
    timer_init();
    return true;
  }();
  (void)done;
}

void idle_handler(int, void*) {}

void echo_handler(int fd, void* data) {
  char c;
  if (read(fd, &c, 1) == 1) ++*static_cast<long*>(data);
  comm_read(fd, echo_handler, data);
}

// `count` quiet registered descriptors: both ends of count/2 socket pairs.
struct IdleDescriptors {
  std::vector<UniqueFd> fds;
  bool ok = true;
  explicit IdleDescriptors(int count) {
    for (int i = 0; i < count / 2; i++) {
      int sp[2];
      if (socketpair(AF_UNIX, SOCK_STREAM, 0, sp) < 0) {
        ok = false;
        return;
      }
      fds.emplace_back(sp[0]);
      fds.emplace_back(sp[1]);
      comm_read(sp[0], idle_handler, nullptr);
      comm_read(sp[1], idle_handler, nullptr);
    }
  }
  ~IdleDescriptors() {
    for (const UniqueFd& fd : fds) comm_clear_read(fd.get());
  }
};

// One event dispatched per iteration: a byte arrives on one descriptor while
// `idle` others are registered and quiet.
void BM_DispatchOneEvent(benchmark::State& state) {
  init_once();
  IdleDescriptors idle(static_cast<int>(state.range(0)));
  if (!idle.ok) {
    state.SkipWithError("socketpair failed (descriptor limit?)");
    return;
  }
  int active[2];
  socketpair(AF_UNIX, SOCK_STREAM, 0, active);
  set_nonblock(active[0]);
  long handled = 0;
  comm_read(active[0], echo_handler, &handled);

  for (auto _ : state) {
    if (write(active[1], "x", 1) != 1) state.SkipWithError("write failed");
    comm_run(0);
  }
  state.counters["handled"] = static_cast<double>(handled);
  comm_clear_read(active[0]);
  close(active[0]);
  close(active[1]);
}
BENCHMARK(BM_DispatchOneEvent)->Arg(10)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

void noop_timer(void*) {}

// 100,000 timers added then all cancelled; reported per add+cancel pair.
void BM_TimerAddCancel(benchmark::State& state) {
  init_once();
  const int n = static_cast<int>(state.range(0));
  std::vector<Timer*> timers(static_cast<size_t>(n));
  for (auto _ : state) {
    for (int i = 0; i < n; i++)
      timers[static_cast<size_t>(i)] = timer_add((i * 7919) % 3600, noop_timer, nullptr);
    for (int i = 0; i < n; i++) timer_cancel(timers[static_cast<size_t>(i)]);
  }
  state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_TimerAddCancel)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
