#include "daemon/watchdog.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "daemon/vigild.h"
#include "foundation/dlog.h"

namespace {

constexpr int PREVIOUS_CHECKS = 6;
constexpr time_t LONG_RUN = 299;
constexpr int MAX_DELAY = 300;

[[noreturn]] void watchdog_exit(const char* pid_file, int status, bool remove_pid) {
  if (remove_pid) unlink(pid_file);
  dlog(DLOG_WATCHDOG, 3, "Watchdog exiting\n");
  exit(status);
}

bool is_stop_signal(int sig) {
  return sig == SIGINT || sig == SIGQUIT || sig == SIGKILL || sig == SIGTERM || sig == SIGSTOP;
}

}  // namespace

int watchdog_restart_delay(time_t ran_for, int* quick_failures) {
  if (ran_for > LONG_RUN) {
    *quick_failures = 0;
    return 1;
  }
  ++*quick_failures;
  int delay = 10 * *quick_failures;
  return delay > MAX_DELAY ? MAX_DELAY : delay;
}

void watchdog(const char* pid_file) {
  dlog(DLOG_WATCHDOG, 7, "Starting watchdog\n");
  if (daemon(0, 0) < 0) {
    dlog(DLOG_WATCHDOG, 1, "daemon() failed: %m\n");
    exit(1);
  }
  int checks = 1;
  while (check_previous(pid_file) == 1) {
    if (checks++ == PREVIOUS_CHECKS) watchdog_exit(pid_file, 1, false);
    sleep(1);
  }
  int quick_failures = 0;
  for (;;) {
    dlog(DLOG_WATCHDOG, 3, "Watchdog is forking\n");
    time_t started = time(nullptr);
    pid_t child = fork();
    if (child == 0) {
      write_pid_file(pid_file);
      return;
    }
    if (child > 0) {
      dlog(DLOG_WATCHDOG, 3, "Parent: child process %d started", child);
      int status = 0;
      pid_t ended;
      while ((ended = wait3(&status, 0, nullptr)) < 0 && errno == EINTR) {
      }
      if (ended > 0 && WIFEXITED(status)) {
        dlog(DLOG_WATCHDOG, 0, "Watchdog: child process %d exited with status %d", ended,
             WEXITSTATUS(status));
        if (WEXITSTATUS(status) == 0) watchdog_exit(pid_file, 0, true);
      } else if (ended > 0 && WIFSIGNALED(status)) {
        dlog(DLOG_WATCHDOG, 0, "Watchdog: child process %d exited due to signal %d", ended,
             WTERMSIG(status));
        if (is_stop_signal(WTERMSIG(status))) watchdog_exit(pid_file, 0, true);
      }
    }
    // A failed fork is answered like a failed worker: wait, then try again.
    int delay = watchdog_restart_delay(time(nullptr) - started, &quick_failures);
    dlog(DLOG_WATCHDOG, 1, "Watchdog: child process will be restarted in %d seconds\n", delay);
    sleep(static_cast<unsigned>(delay));
  }
}

int check_previous(const char* pid_file) {
  if (pid_file == nullptr) return 0;
  FILE* f = fopen(pid_file, "r");
  if (f == nullptr) return 0;
  int pid = 0;
  if (fscanf(f, "%d", &pid) != 1) pid = 0;
  fclose(f);
  // kill() with 0 or a negative number would probe a whole process group.
  if (pid > 0 && kill(pid, 0) == 0) {
    dlog(DLOG_WATCHDOG, 1, "Previously existing process found: pid %d\n", pid);
    return 1;
  }
  unlink(pid_file);
  return 0;
}

void write_pid_file(const char* pid_file) {
  if (pid_file == nullptr) return;
  FILE* f = fopen(pid_file, "w");
  if (f == nullptr) fatal_exit("Can't fopen pidfile: %m\n");
  fprintf(f, "%d\n", getpid());
  fclose(f);
}
