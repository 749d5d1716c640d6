// Shared by the event-loop tests: the one loop of the process (comm_init may run
// only once), and socket pairs that leave no handler behind.
#pragma once

#include <signal.h>

#include "event/comm.h"
#include "event/comm_internal.h"
#include "event/timer.h"
#include "foundation/fd.h"
#include "gtest/gtest.h"
#include "tests/foundation/test_util.h"

namespace event_test {

inline void init_loop_once() {
  [[maybe_unused]] static bool done = (signal(SIGPIPE, SIG_IGN), dlog_set_mode("event_tests", 0),
                                       comm_init(1024), timer_init(), true);
}

struct SocketPair {
  UniqueFd a, b;
  SocketPair() {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    a.reset(fds[0]);
    b.reset(fds[1]);
  }
  ~SocketPair() {  // a later test may get the same descriptor numbers
    for (int fd : {a.get(), b.get()})
      comm_clear_write(fd, 0), comm_clear_fd(fd, COMM_READ | COMM_WRITE);
  }
};

inline void* tag(int t) {  // a handler's data that tells its calls apart
  return reinterpret_cast<void*>(static_cast<intptr_t>(t));
}

// Runs loop cycles (no waiting beyond what is ready) until done() or the bound.
inline bool run_until(const std::function<bool()>& done) {
  for (int i = 0; i < 1000 && !done(); i++) comm_run(0);
  return done();
}

}  // namespace event_test
