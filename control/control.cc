#include "control/control.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "foundation/dlog.h"
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

}  // namespace

int ctrl_init(const char* path, IoHandler handler) {
  int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  if (fd < 0) {
    dlog(DLOG_COMM, 1, "Couldn't initialize ctrl socket: %m\n");
    return -1;
  }
  unlink(path);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path, CTRL_PATH_MAX);
  socklen_t length = sizeof(address.sun_family) + strlen(address.sun_path);
  // A failed bind leaves a socket nobody can reach; the daemon does not
  // depend on it, so it carries on without complaint.
  (void)bind(fd, reinterpret_cast<const sockaddr*>(&address), length);
  chmod(path, 0777);
  comm_read(fd, handler, nullptr);
  return fd;
}

void ctrl_close(int fd, const char* path) {
  if (fd != -1) {
    comm_clear_read(fd);
    close(fd);
  }
  unlink(path);
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
