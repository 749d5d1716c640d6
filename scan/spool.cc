#include "scan/spool.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "foundation/fatal.h"

namespace {

// A 64 KiB buffer turns a large body into few writes without holding much
// per connection.
constexpr size_t SPOOL_BUFFER = 65536;
// A piece this large goes to the file from where it is, with what the buffer
// holds, rather than being copied into the buffer first.
constexpr size_t SPOOL_THROUGH = 16384;

// Whether a close may report a write error the writes did not (NFS, network
// and FUSE file systems); unknown until the directory is probed.
bool close_reports = true;

// The buffer's bytes, then n more from p, in as few calls as the kernel
// allows and without copying p.
bool write_through(SpoolFile* f, const char* p, size_t n) {
  iovec v[2] = {{f->pending.data(), f->pending.size()}, {const_cast<char*>(p), n}};
  iovec* at = v;
  int count = 2;
  bool ok = true;
  while (count > 0) {
    if (at->iov_len == 0) {
      at++;
      count--;
      continue;
    }
    ssize_t w = writev(f->fd, at, count);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      if (w == 0) errno = ENOSPC;
      f->failed = true;
      ok = false;
      break;
    }
    f->size += w;
    // Past what went out; a short write leaves the rest of an entry.
    for (auto left = static_cast<size_t>(w); left > 0; at++, count--) {
      size_t taken = std::min(left, at->iov_len);
      at->iov_base = static_cast<char*>(at->iov_base) + taken;
      at->iov_len -= taken;
      left -= taken;
      if (at->iov_len > 0) break;  // the kernel took part of this entry only
    }
  }
  f->pending.clear();
  return ok;
}

bool flush(SpoolFile* f) {
  return !f->failed && write_through(f, nullptr, 0);
}

}  // namespace

SpoolFile* spool_adopt(int fd, const char* name) {
  auto* f = new (std::nothrow) SpoolFile{};
  if (f == nullptr) fatal_exit("Out of memory: %m\n");
  f->fd = fd;
  f->name = name;
  return f;
}

bool spool_write(SpoolFile* f, const char* bytes, size_t n) {
  if (f->failed) return false;
  if (n < SPOOL_THROUGH && f->pending.size() + n < SPOOL_BUFFER) {
    f->pending.append(bytes, n);
    return true;
  }
  return write_through(f, bytes, n);
}

bool spool_sync(SpoolFile* f) {
  if (f->failed) {
    f->pending.clear();
    return false;
  }
  return f->pending.size() < SPOOL_BUFFER || flush(f);
}

void spool_probe_dir(const char* dir) {
  struct statfs st {};
  if (dir == nullptr || statfs(dir, &st) != 0) {
    close_reports = true;
    return;
  }
  // Local disk and memory file systems fail the write itself.
  switch (static_cast<unsigned long>(st.f_type)) {
    case TMPFS_MAGIC:
    case EXT4_SUPER_MAGIC:  // ext2 and ext3 share it
    case XFS_SUPER_MAGIC:
    case BTRFS_SUPER_MAGIC:
      close_reports = false;
      break;
    default:
      close_reports = true;
  }
}

bool spool_finish(SpoolFile* f) {
  if (!flush(f)) return false;
  if (!close_reports) return true;
  // Some file systems (NFS among them) report a failed write only when a
  // descriptor is closed. Closing a duplicate asks for that report and keeps
  // the file open for the scanners and the relay.
  int copy = dup(f->fd);
  if (copy < 0 || close(copy) != 0) {
    f->failed = true;
    return false;
  }
  return true;
}

bool spool_reopen(SpoolFile* f) {
  if (f->fd >= 0) close(f->fd);
  f->fd = open(f->name.c_str(), O_RDONLY | O_CLOEXEC);
  return f->fd >= 0;
}

void spool_free(SpoolFile* f) {
  if (f == nullptr) return;
  if (f->fd >= 0) close(f->fd);
  if (!f->name.empty()) unlink(f->name.c_str());
  delete f;
}
