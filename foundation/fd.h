// Descriptor services every non-blocking call site shares: the transient-errno
// test, non-blocking and no-delay modes, the descriptor limit, and a
// move-only descriptor owner.
#pragma once

#include <utility>

// EINTR, EAGAIN, ERESTART, EALREADY, EINPROGRESS: wait for the next readiness.
bool is_transient_errno(int e);
int set_nonblock(int fd);  // 0 or 1
int set_nodelay(int fd);   // 0 or 1
// Raises RLIMIT_NOFILE towards n; returns the soft limit in force.
long set_fd_limit(long n);

// A move-only descriptor owner that closes in its destructor.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& o) noexcept : fd_(std::exchange(o.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& o) noexcept {
    if (this != &o) reset(std::exchange(o.fd_, -1));
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};
