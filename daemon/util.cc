#include "daemon/util.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <grp.h>
#include <netinet/tcp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "daemon/vigild.h"
#include "foundation/dlog.h"
#include "foundation/text.h"

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

int set_user_group(const char* user, const char* group) {
  if (getuid() != 0) {
    dlog(DLOG_UTIL, 1, "Not root. Can't set user.\n");
    return 1;
  }
  const struct group* gr = getgrnam(group);
  if (gr == nullptr) {
    dlog(DLOG_UTIL, 1, "Unknown group: %s\n", group);
    return 1;
  }
  const struct passwd* pw = getpwnam(user);
  if (pw == nullptr) {
    dlog(DLOG_UTIL, 1, "Unknown user: %s\n", user);
    return 1;
  }
  if (setgid(gr->gr_gid) < 0) {
    dlog(DLOG_UTIL, 1, "Can't set group %s: %m\n", group);
    return 1;
  }
  if (setuid(pw->pw_uid) < 0) {
    dlog(DLOG_UTIL, 1, "Can't set user %s: %m\n", user);
    return 1;
  }
  return 0;
}

namespace {

struct DirClose {
  void operator()(DIR* d) const noexcept { closedir(d); }
};
using DirPtr = std::unique_ptr<DIR, DirClose>;

struct CFree {
  void operator()(char* p) const noexcept { free(p); }
};
using CStrPtr = std::unique_ptr<char, CFree>;

CStrPtr join_path(const char* directory, const char* name) {
  char* path = nullptr;
  xasprintf(&path, "%s/%s", directory, name);
  return CStrPtr(path);
}

}  // namespace

void cleanup_scan_dir(const char* directory, const char* prefix) {
  if (startup_options.cleanup_disabled) {
    dlog(DLOG_UTIL, 5, "Cleanup disabled. Skipping.\n");
    return;
  }
  char* raw_pattern = nullptr;
  xasprintf(&raw_pattern, "%s*", prefix);
  CStrPtr pattern(raw_pattern);
  DirPtr dir(opendir(directory));
  if (!dir) {
    dlog(DLOG_UTIL, 0, "Couldn't open directory %s: %m\n", directory);
    return;
  }
  while (const dirent* entry = readdir(dir.get())) {
    dlog(DLOG_UTIL, 9, "Matching %s with %s\n", pattern.get(), entry->d_name);
    if (fnmatch(pattern.get(), entry->d_name, 0) != 0) continue;
    CStrPtr path = join_path(directory, entry->d_name);
    if (entry->d_type == DT_DIR) {
      remove_tree(path.get());
      continue;
    }
    dlog(DLOG_UTIL, 2, "Unlinking %s\n", path.get());
    if (unlink(path.get()) < 0) dlog(DLOG_UTIL, 1, "Couldn't unlink %s: %m\n", entry->d_name);
  }
}

void remove_tree(const char* path) {
  {
    DirPtr dir(opendir(path));
    if (!dir) {
      dlog(DLOG_UTIL, 0, "Couldn't open directory %s: %m\n", path);
      return;
    }
    while (const dirent* entry = readdir(dir.get())) {
      std::string_view name(entry->d_name);
      if (name == "." || name == "..") continue;
      CStrPtr child = join_path(path, entry->d_name);
      if (entry->d_type == DT_DIR) {
        remove_tree(child.get());
      } else if (unlink(child.get()) < 0) {
        dlog(DLOG_UTIL, 1, "Couldn't unlink %s: %m\n", child.get());
      }
    }
  }
  if (rmdir(path) < 0) dlog(DLOG_UTIL, 1, "Couldn't rmdir %s: %m\n", path);
}
