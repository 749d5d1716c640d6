// Shared by the event-loop tests: one loop per process (comm_init may run only
// once), socket pairs that close themselves, and a bounded cycle runner.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>

#include "daemon/util.h"
#include "event/comm.h"
#include "event/comm_internal.h"
#include "event/timer.h"
#include "gtest/gtest.h"

namespace event_test {

inline void init_loop_once() {
  static bool done = [] {
    signal(SIGPIPE, SIG_IGN);  // as the daemon does: a reset peer is an error, not a death
    comm_init(1024);
    timer_init();
    return true;
  }();
  (void)done;
}

struct SocketPair {
  UniqueFd a, b;
  SocketPair() {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    a.reset(fds[0]);
    b.reset(fds[1]);
    set_nonblock(fds[0]);
    set_nonblock(fds[1]);
  }
  ~SocketPair() {
    // Leave no handler behind on a descriptor number the next test may reuse.
    for (int fd : {a.get(), b.get()}) {
      comm_clear_write(fd, 0);
      comm_clear_fd(fd, COMM_READ | COMM_WRITE);
    }
  }
};

// Runs loop cycles (no waiting beyond what is ready) until done() or the bound.
inline bool run_until(const std::function<bool()>& done, int max_cycles = 1000) {
  for (int i = 0; i < max_cycles; i++) {
    if (done()) return true;
    comm_run(1);
  }
  return done();
}

}  // namespace event_test
