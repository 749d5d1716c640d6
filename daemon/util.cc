#include "daemon/util.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <grp.h>
#include <linux/capability.h>
#include <netinet/tcp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "daemon/vigild.h"
#include "foundation/dlog.h"
#include "foundation/text.h"

namespace {

constexpr int LISTEN_RECEIVE_BUFFER = 512 * 1024;

}  // namespace

int make_listen_socket(const sockaddr_in* address, int backlog) {
  UniqueFd fd(socket(AF_INET, SOCK_STREAM, 0));
  if (fd.get() < 0) {
    dlog(DLOG_UTIL, 1, "Can't create socket: %m\n");
    return -1;
  }
  int one = 1;
  if (setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) < 0) {
    dlog(DLOG_SMTP, 1, "Can't reuse address: %m\n");
    return -1;
  }
  // Accepted connections inherit this receive buffer. The kernel's own tuning
  // starts a connection at 128 KB and grows it a step per round trip, so a
  // large message on a new connection would mostly arrive in small windows,
  // each costing the daemon a wake-up, a read and an acknowledgement. The
  // size is what that tuning reaches anyway for a reader as fast as this
  // one; the kernel caps it at net.core.rmem_max.
  int receive_buffer = LISTEN_RECEIVE_BUFFER;
  if (setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer) < 0)
    dlog(DLOG_SMTP, 1, "Can't set the receive buffer: %m\n");
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(address), sizeof(*address)) < 0) {
    dlog(DLOG_SMTP, 0, "Can't bind: %m\n");
    return -1;
  }
  set_nonblock(fd.get());
  set_nodelay(fd.get());
  if (listen(fd.get(), backlog) < 0) {
    dlog(DLOG_SMTP, 0, "Can't listen: %m\n");
    exit(1);
  }
  return fd.release();
}

// The worker parses whatever the Internet sends it, so it must not keep root
// nor any supplementary group it inherited from whoever started it. Every step
// is checked and the result verified; a switch that cannot be made is a
// failure start-up does not survive.
namespace {

// Permitted and effective sets become just cap. The raw call spares the
// daemon a library for one system call.
bool keep_only_capability(int cap) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  data[CAP_TO_INDEX(cap)].permitted = data[CAP_TO_INDEX(cap)].effective = CAP_TO_MASK(cap);
  return syscall(SYS_capset, &header, data) == 0;
}

}  // namespace

int set_user_group(const char* user, const char* group, int keep_cap) {
  if (getuid() != 0) {
    dlog(DLOG_UTIL, 1, "Not root. Can't set user.\n");
    return 1;
  }
  const struct group* gr = getgrnam(group);
  if (gr == nullptr) {
    dlog(DLOG_UTIL, 1, "Unknown group: %s\n", group);
    return 1;
  }
  const gid_t gid = gr->gr_gid;  // copied: getpwnam may reuse the buffer
  const struct passwd* pw = getpwnam(user);
  if (pw == nullptr) {
    dlog(DLOG_UTIL, 1, "Unknown user: %s\n", user);
    return 1;
  }
  const uid_t uid = pw->pw_uid;
  // Groups first: changing them needs the root that setuid gives up.
  if (setgroups(0, nullptr) < 0) {
    dlog(DLOG_UTIL, 1, "Can't drop supplementary groups: %m\n");
    return 1;
  }
  if (setgid(gid) < 0) {
    dlog(DLOG_UTIL, 1, "Can't set group %s: %m\n", group);
    return 1;
  }
  // Without it setuid would clear the permitted set, and the capability
  // could not be kept.
  const bool keep = keep_cap >= 0 && uid != 0;
  if (keep && prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) < 0) {
    dlog(DLOG_UTIL, 1, "Can't keep capabilities: %m\n");
    return 1;
  }
  if (setuid(uid) < 0) {
    dlog(DLOG_UTIL, 1, "Can't set user %s: %m\n", user);
    return 1;
  }
  if (keep) {
    if (!keep_only_capability(keep_cap) || prctl(PR_SET_KEEPCAPS, 0, 0, 0, 0) < 0) {
      dlog(DLOG_UTIL, 1, "Can't keep only capability %d: %m\n", keep_cap);
      return 1;
    }
    dlog(DLOG_UTIL, 5, "Kept capability %d for transparent connections\n", keep_cap);
  }
  uid_t ruid, euid, suid;
  gid_t rgid, egid, sgid;
  if (getresuid(&ruid, &euid, &suid) < 0 || getresgid(&rgid, &egid, &sgid) < 0) {
    dlog(DLOG_UTIL, 1, "Can't read back user and group: %m\n");
    return 1;
  }
  bool switched = ruid == uid && euid == uid && suid == uid && rgid == gid && egid == gid &&
                  sgid == gid && getgroups(0, nullptr) == 0;
  // A saved id or a capability left behind would let the process become root again.
  if (!switched || (uid != 0 && setuid(0) == 0)) {
    dlog(DLOG_UTIL, 1, "Root privileges not fully given up for user %s group %s\n", user, group);
    return 1;
  }
  return 0;
}

namespace {

struct DirClose {
  void operator()(DIR* d) const noexcept { closedir(d); }
};
using DirPtr = std::unique_ptr<DIR, DirClose>;

CharsPtr join_path(const char* directory, const char* name) {
  char* path = nullptr;
  xasprintf(&path, "%s/%s", directory, name);
  return CharsPtr(path);
}

bool is_dot_or_dotdot(const char* name) {
  std::string_view n(name);
  return n == "." || n == "..";
}

// A directory stream over fd, which it takes over; null (fd closed, errno
// kept) when fd is -1 or fdopendir fails.
DirPtr dir_from_fd(int fd, const char* path) {
  DIR* dir = fd < 0 ? nullptr : fdopendir(fd);
  if (dir == nullptr) {
    int error = errno;
    if (fd >= 0) close(fd);
    errno = error;
    dlog(DLOG_UTIL, 0, "Couldn't open directory %s: %m\n", path);
  }
  return DirPtr(dir);
}

// The scan directory is writable by the daemon's own user, and root cleans it
// at start-up: an entry planted there, or swapped in while the cleanup runs,
// must not lead it anywhere else. So every entry is reached through the
// descriptor of the directory holding it and opened without following a
// symlink; whatever does not open as a directory (a symlink included) is
// removed as itself. The fd pins the directory that was opened, so a swap
// after the open changes nothing either.
int open_dir_at(int parent, const char* name) {
  return openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

void empty_dir(int fd, const char* path);

// Removes the entry name of the directory parent, a directory with everything
// below it. path names the entry in the log, unlink_name in an unlink
// failure; announced logs "Unlinking" first, as the scan-directory cleanup does.
void remove_entry(int parent, const char* name, const char* path, const char* unlink_name,
                  bool announced) {
  int fd = open_dir_at(parent, name);
  if (fd >= 0) {
    empty_dir(fd, path);
    if (unlinkat(parent, name, AT_REMOVEDIR) < 0)
      dlog(DLOG_UTIL, 1, "Couldn't rmdir %s: %m\n", path);
    return;
  }
  if (errno != ENOTDIR && errno != ELOOP) {
    dlog(DLOG_UTIL, 0, "Couldn't open directory %s: %m\n", path);
    return;
  }
  if (announced) dlog(DLOG_UTIL, 2, "Unlinking %s\n", path);
  if (unlinkat(parent, name, 0) < 0) dlog(DLOG_UTIL, 1, "Couldn't unlink %s: %m\n", unlink_name);
}

// Removes everything below the directory open on fd (taken over).
void empty_dir(int fd, const char* path) {
  DirPtr dir = dir_from_fd(fd, path);
  if (!dir) return;
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(dir.get());
    if (entry == nullptr) break;
    if (is_dot_or_dotdot(entry->d_name)) continue;
    CharsPtr child = join_path(path, entry->d_name);
    remove_entry(dirfd(dir.get()), entry->d_name, child.get(), child.get(), false);
  }
  if (errno != 0) dlog(DLOG_UTIL, 1, "Couldn't read directory %s: %m\n", path);
}

}  // namespace

void cleanup_scan_dir(const char* directory, const char* prefix) {
  if (startup_options.cleanup_disabled) {
    dlog(DLOG_UTIL, 5, "Cleanup disabled. Skipping.\n");
    return;
  }
  char* raw_pattern = nullptr;
  xasprintf(&raw_pattern, "%s*", prefix);
  CharsPtr pattern(raw_pattern);
  // The configured directory itself may be a symlink (to a larger disk, say);
  // what is below it is never followed.
  DirPtr dir = dir_from_fd(open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC), directory);
  if (!dir) return;
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(dir.get());
    if (entry == nullptr) break;
    dlog(DLOG_UTIL, 9, "Matching %s with %s\n", pattern.get(), entry->d_name);
    // "*" matches a leading dot: an empty prefix must not take ".." along.
    if (is_dot_or_dotdot(entry->d_name) || fnmatch(pattern.get(), entry->d_name, 0) != 0) continue;
    CharsPtr path = join_path(directory, entry->d_name);
    remove_entry(dirfd(dir.get()), entry->d_name, path.get(), entry->d_name, true);
  }
  if (errno != 0) dlog(DLOG_UTIL, 1, "Couldn't read directory %s: %m\n", directory);
}

void remove_tree(const char* path) {
  int fd = open_dir_at(AT_FDCWD, path);
  if (fd < 0) {
    dlog(DLOG_UTIL, 0, "Couldn't open directory %s: %m\n", path);
    return;
  }
  empty_dir(fd, path);
  if (rmdir(path) < 0) dlog(DLOG_UTIL, 1, "Couldn't rmdir %s: %m\n", path);
}
