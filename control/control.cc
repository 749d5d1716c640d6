#include "control/control.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/dlog.h"
#include "foundation/fd.h"
#include "smtp/smtp.h"

int ctrl_fd = -1;

namespace {

// The longest path copied into a sockaddr_un, leaving its final NUL.
constexpr size_t CTRL_PATH_MAX = sizeof(sockaddr_un::sun_path) - 1;

// A peer's path as a C string: a path that fills sun_path has no NUL of its own.
struct PeerPath {
  explicit PeerPath(const sockaddr_un* address) {
    memcpy(text, address->sun_path, sizeof(address->sun_path));
    text[sizeof(address->sun_path)] = '\0';
  }
  char text[sizeof(sockaddr_un::sun_path) + 1];
};

// Removes the socket an earlier run left at path, and nothing else: a file,
// directory or symlink standing there is not ours to delete, and the bind
// that follows fails on it. unlink itself never follows a symlink. True when
// the path is free; failures are logged at level.
bool remove_socket_file(const char* path, unsigned level) {
  struct stat st;
  if (lstat(path, &st) < 0) {
    if (errno == ENOENT) return true;
    dlog(DLOG_COMM, level, "Couldn't stat ctrl socket %s: %m\n", path);
    return false;
  }
  if (!S_ISSOCK(st.st_mode)) {
    dlog(DLOG_COMM, level, "Not a socket, left in place: %s\n", path);
    errno = EEXIST;
    return false;
  }
  if (unlink(path) < 0 && errno != ENOENT) {
    dlog(DLOG_COMM, level, "Couldn't remove ctrl socket %s: %m\n", path);
    return false;
  }
  return true;
}

}  // namespace

int ctrl_init(const char* path, IoHandler handler) {
  // A longer path would be cut short, and the socket made somewhere else.
  if (strlen(path) > CTRL_PATH_MAX) {
    dlog(DLOG_COMM, 1, "Ctrl socket path too long: %s\n", path);
    errno = ENAMETOOLONG;
    return -1;
  }
  UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM, 0));
  if (fd.get() < 0) {
    dlog(DLOG_COMM, 1, "Couldn't initialize ctrl socket: %m\n");
    return -1;
  }
  if (!remove_socket_file(path, 1)) return -1;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path, CTRL_PATH_MAX);
  socklen_t length = sizeof(address.sun_family) + strlen(address.sun_path);
  // Every local user may send requests. The mode is given at creation, by
  // the umask: a chmod by path afterwards would follow a symlink put there
  // in between.
  mode_t umask_before = umask(0);
  int bound = bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), length);
  int bind_error = errno;
  umask(umask_before);
  if (bound < 0) {
    errno = bind_error;
    dlog(DLOG_COMM, 1, "Couldn't bind ctrl socket %s: %m\n", path);
    return -1;
  }
  comm_read(fd.get(), handler, nullptr);
  return fd.release();
}

void ctrl_close(int fd, const char* path) {
  if (fd != -1) {
    comm_clear_read(fd);
    if (close(fd) < 0) dlog(DLOG_COMM, 1, "Couldn't close ctrl socket: %m\n");
  }
  // Once the daemon runs as its own user it may not remove the file from a
  // directory of root's; the next start replaces it.
  remove_socket_file(path, 3);
}

void ctrl_read_handler(int fd, void*) {
  dlog(DLOG_SMTP, 9, "ctrl_read_handler\n");
  int command = 0;
  sockaddr_un source{};
  socklen_t source_length = sizeof(source);
  // The socket is left blocking; MSG_DONTWAIT keeps a spurious wake-up from
  // stalling the loop.
  ssize_t n = recvfrom(fd, &command, sizeof(command), MSG_DONTWAIT,
                       reinterpret_cast<sockaddr*>(&source), &source_length);
  if (n > 0) {
    dlog(DLOG_SMTP, 9, "received command: %d, from %s\n", command, PeerPath(&source).text);
    if (command == CTRL_STATS) send_stats(fd, &source);
  } else {
    dlog(DLOG_SMTP, 3, "recevfrom error (%d), %m\n", static_cast<int>(n));
  }
  comm_read(fd, ctrl_read_handler, nullptr);
}

void send_stats(int fd, const sockaddr_un* address) {
  dlog(DLOG_SMTP, 9, "send_stats, fd=%d, to %s\n", fd, PeerPath(address).text);
  // A requester that lets its receive queue fill must not block the daemon:
  // the reply is dropped instead.
  ssize_t n = sendto(fd, &num_connections, sizeof(num_connections), MSG_DONTWAIT,
                     reinterpret_cast<const sockaddr*>(address), sizeof(*address));
  if (n <= 0) dlog(DLOG_SMTP, 3, "Failed to send stats, %m\n");
}
