// Shared by the event-loop tests: one loop per process (comm_init may run only
// once), socket pairs that close themselves, and a bounded cycle runner.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

#include "daemon/util.h"
#include "event/comm.h"
#include "event/comm_internal.h"
#include "event/timer.h"
#include "foundation/dlog.h"
#include "gtest/gtest.h"

namespace event_test {

inline void init_loop_once() {
  static bool done = [] {
    signal(SIGPIPE, SIG_IGN);         // as the daemon does: a reset peer is an error, not a death
    dlog_set_mode("event_tests", 0);  // quiet unless a test captures the log
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

// Everything the loop and the timers log, at every level, while it lives:
// the log goes to standard error and descriptor 2 to an unlinked file.
class LogCapture {
 public:
  LogCapture() : file_(tmpfile()) {
    fflush(stderr);
    saved_fd_ = dup(2);
    dup2(fileno(file_), 2);
    saved_mode_ = dlog_set_mode("event_tests", DLOG_MODE_STDERR);
    saved_comm_ = dlog_get_level(DLOG_COMM);
    saved_timer_ = dlog_get_level(DLOG_TIMER);
    dlog_set_level(DLOG_COMM, DLOG_MAX_LEVEL);
    dlog_set_level(DLOG_TIMER, DLOG_MAX_LEVEL);
  }
  ~LogCapture() {
    fflush(stderr);
    dup2(saved_fd_, 2);
    close(saved_fd_);
    fclose(file_);
    dlog_set_mode("event_tests", saved_mode_);
    dlog_set_level(DLOG_COMM, saved_comm_);
    dlog_set_level(DLOG_TIMER, saved_timer_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::string text() {
    fflush(stderr);
    std::string all;
    char chunk[4096];
    for (off_t at = 0;;) {
      ssize_t n = pread(fileno(file_), chunk, sizeof(chunk), at);
      if (n <= 0) return all;
      all.append(chunk, static_cast<size_t>(n));
      at += n;
    }
  }
  bool has(const std::string& line) { return text().find(line) != std::string::npos; }

 private:
  FILE* file_;
  int saved_fd_ = -1;
  unsigned saved_mode_ = 0, saved_comm_ = 0, saved_timer_ = 0;
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
