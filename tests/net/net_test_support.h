// Helpers shared by the net tests: log capture through standard error, and
// running a check inside a private network namespace set up with ip(8).
#pragma once

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "foundation/dlog.h"
#include "tests/foundation/test_util.h"

namespace net_test {

// What f logs, with the log writing to standard error only.
inline std::string logged(const std::function<void()>& f) {
  char name[] = "/tmp/net_test_log.XXXXXX";
  int fd = mkstemp(name);
  if (fd < 0) return "mkstemp failed";
  close(fd);
  std::string out;
  {
    foundation_test::StderrCapture capture(name);
    unsigned mode = dlog_set_mode("net_test", DLOG_MODE_STDERR);
    f();
    dlog_set_mode("net_test", mode);
    out = capture.finish();
  }
  unlink(name);
  return out;
}

constexpr const char* SKIP = "skip: no network namespace";

// Forks; the child enters a new network namespace, runs the setup commands
// and returns body()'s text through a pipe. SKIP when the namespace or the
// set-up is not possible here.
inline std::string in_netns(const std::vector<std::string>& setup,
                            const std::function<std::string()>& body) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    if (unshare(CLONE_NEWNET) != 0) _exit(77);
    for (const std::string& cmd : setup) {
      std::string quiet = cmd + " >/dev/null 2>&1";
      if (system(quiet.c_str()) != 0) _exit(77);
    }
    std::string out = body();
    if (write(fds[1], out.data(), out.size()) != static_cast<ssize_t>(out.size())) _exit(1);
    _exit(0);
  }
  close(fds[1]);
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, n);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) return SKIP;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "child failed: " + out;
  return out;
}

}  // namespace net_test
