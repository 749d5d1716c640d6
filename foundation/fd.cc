#include "foundation/fd.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "foundation/dlog.h"

#ifndef ERESTART
#define ERESTART 85
#endif

void UniqueFd::reset(int fd) {
  if (fd_ >= 0) close(fd_);
  fd_ = fd;
}

bool is_transient_errno(int e) {
  return e == EINTR || e == EAGAIN || e == ERESTART || e == EALREADY || e == EINPROGRESS;
}

int set_nonblock(int fd) {
  int flags = fcntl(fd, F_GETFL);
  if (flags < 0) {
    dlog(DLOG_UTIL, 1, "Can't get fd flags: %d %m", fd);
    return 1;
  }
  if (flags & O_NONBLOCK) return 0;  // made so (SOCK_NONBLOCK): no second call
  if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
    dlog(DLOG_UTIL, 1, "Can't set fd nonblock: %d %m\n", fd);
    return 1;
  }
  return 0;
}

int set_nodelay(int fd) {
  int one = 1;
  if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one)) < 0) {
    dlog(DLOG_UTIL, 1, "set_nodelay error: %m\n");
    return 1;
  }
  return 0;
}

long set_fd_limit(long n) {
  rlimit rl;
  if (getrlimit(RLIMIT_NOFILE, &rl) < 0) {
    dlog(DLOG_UTIL, 0, "Couldn't get fd limit: %m\n");
    exit(1);
  }
  if (getuid() == 0) {
    rl.rlim_cur = rl.rlim_max = static_cast<rlim_t>(n);
  } else {
    rl.rlim_cur = static_cast<rlim_t>(n) < rl.rlim_max ? static_cast<rlim_t>(n) : rl.rlim_max;
  }
  if (setrlimit(RLIMIT_NOFILE, &rl) < 0) dlog(DLOG_UTIL, 0, "Couldn't set fd limit: %m\n");
  if (getrlimit(RLIMIT_NOFILE, &rl) < 0) {
    dlog(DLOG_UTIL, 0, "Couldn't get fd limit: %m\n");
    exit(1);
  }
  dlog(DLOG_UTIL, 5, "Runtime fds: %ld\n", static_cast<long>(rl.rlim_cur));
  return static_cast<long>(rl.rlim_cur);
}
