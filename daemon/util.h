// Process-level services: the transient-errno test every non-blocking call
// site uses, non-blocking/no-delay modes, the descriptor limit, the listening
// socket, the privilege drop and the scan-directory cleanup.
#pragma once

#include <netinet/in.h>

#include <utility>

// EINTR, EAGAIN, ERESTART, EALREADY, EINPROGRESS: wait for the next readiness.
bool is_transient_errno(int e);
int set_nonblock(int fd);  // 0 or 1
int set_nodelay(int fd);   // 0 or 1
// Raises RLIMIT_NOFILE towards n; returns the soft limit in force.
long set_fd_limit(long n);
// A non-blocking listening IPv4 TCP socket, or -1.
int make_listen_socket(const sockaddr_in* address);
int set_user_group(const char* user, const char* group);  // 0 or 1
// Removes every entry of directory whose name starts with prefix (unless -k).
void cleanup_scan_dir(const char* directory, const char* prefix);
void remove_tree(const char* path);

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
