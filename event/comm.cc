#include "event/comm.h"

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <vector>

#include "event/comm_internal.h"
#include "foundation/dlog.h"
#include "foundation/dump.h"
#include "foundation/fd.h"

CommState comm;

namespace {

// At most this many ready descriptors are taken from the kernel per cycle;
// the rest stay ready (level-triggered) for the next one.
constexpr int MAX_EVENTS = 4096;

bool valid(int fd) {
  return fd >= 0 && fd < comm.nfiles;
}

void touch(int fd) {
  DescriptorRecord& r = comm.fds[fd];
  if (r.dirty) return;
  r.dirty = true;
  comm.dirty.push_back(fd);
}

short wanted(const DescriptorRecord& r) {
  return r.free ? 0 : r.poll.events;
}

// Tells the epoll set what fd's record wants now.
void set_kernel(int fd, short want) {
  DescriptorRecord& r = comm.fds[fd];
  epoll_event e{};
  e.events = ((want & POLLIN) ? EPOLLIN : 0u) | ((want & POLLOUT) ? EPOLLOUT : 0u);
  e.data.fd = fd;
  int rc = 0;
  if (want == 0) {
    // Fails harmlessly when the owner closed fd: the kernel dropped it then.
    // A descriptor its owner said it closes is not asked about at all.
    if ((r.kernel != 0 || r.stale) && !r.closing)
      epoll_ctl(comm.epoll_fd, EPOLL_CTL_DEL, fd, nullptr);
  } else {
    rc = epoll_ctl(comm.epoll_fd, r.kernel != 0 ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &e);
    // A stale record may name a new descriptor (ENOENT) or still the old one
    // (EEXIST).
    if (rc < 0 && errno == ENOENT) rc = epoll_ctl(comm.epoll_fd, EPOLL_CTL_ADD, fd, &e);
    if (rc < 0 && errno == EEXIST) rc = epoll_ctl(comm.epoll_fd, EPOLL_CTL_MOD, fd, &e);
    if (rc < 0) dlog(DLOG_COMM, 1, "epoll_ctl: fd %d: %m\n", fd);
  }
  r.kernel = rc < 0 ? 0 : want;
  r.stale = false;
  r.closing = false;
}

// Brings the epoll set in line with the table for every descriptor touched
// since the last wait. Read interest that went away is left in the set: a
// sender waiting for its reply sends nothing, and by the time the reply is
// out its reader is back, so that round trip costs no epoll_ctl at all. An
// event nobody wants takes such interest away when it comes (comm_run), so a
// hung-up peer nobody reads cannot keep waking the loop. An owner's own
// clear (stale) is told to the kernel at once: fd may be closed next.
void sync_interest() {
  for (int fd : comm.dirty) {
    DescriptorRecord& r = comm.fds[fd];
    r.dirty = false;
    const short want = wanted(r);
    if (r.stale || (want != r.kernel && want != (r.kernel & ~POLLIN))) set_kernel(fd, want);
  }
  comm.dirty.clear();
}

void unlink_used(int fd) {
  DescriptorRecord& r = comm.fds[fd];
  if (r.prev < 0)
    comm.used_head = r.next;
  else
    comm.fds[r.prev].next = r.next;
  if (r.next >= 0) comm.fds[r.next].prev = r.prev;
  r.next = r.prev = -1;
  comm.used--;
}

void push_used(int fd) {
  DescriptorRecord& r = comm.fds[fd];
  r.free = 0;
  r.next = comm.used_head;
  r.prev = -1;
  if (comm.used_head >= 0) comm.fds[comm.used_head].prev = fd;
  comm.used_head = fd;
  r.poll = pollfd{fd, 0, 0};
  r.added = ++comm.added;
  comm.used++;
}

// Drops interest in the given directions; the record leaves the used list
// when no handler is left. The owner's own clear (not the one-shot clear
// before a dispatch) marks the record stale.
void clear_interest(int fd, int flags) {
  DescriptorRecord& r = comm.fds[fd];
  if (r.free) return;
  if (flags & COMM_READ) {
    r.read_handler = nullptr;
    r.poll.events &= ~POLLIN;
    r.ready = false;
  }
  if (flags & COMM_WRITE) {
    r.write_handler = nullptr;
    r.poll.events &= ~POLLOUT;
  }
  touch(fd);
  if (r.read_handler != nullptr || r.write_handler != nullptr) return;
  r.free = 1;
  unlink_used(fd);
}

void comm_dump_list(FILE* stream, int head) {
  if (!valid(head)) {
    dlog(DLOG_COMM, 1, "comm_dump_list: invalid fd: %d\n", head);
    return;
  }
  // Bounded by the table size so a corrupted chain cannot loop forever.
  int fd = head;
  for (int n = 0; fd >= 0 && n < comm.nfiles; n++) {
    fprintf(stream, "%d -> ", fd);
    fd = comm.fds[fd].next;
  }
  fprintf(stream, "%d\n", fd);
}

// One dispatch pass. Returns false when a handler dropped another pending
// handler: the rest of the array is stale and the cycle must end.
bool dispatch(int n, short interest, bool read_pass) {
  for (int i = 0; i < n; i++) {
    const pollfd& p = comm.polls[i];
    if (!(p.events & interest) || !(p.revents & (interest | POLLERR | POLLHUP))) continue;
    int fd = p.fd;
    DescriptorRecord& r = comm.fds[fd];
    dlog(DLOG_COMM, 9, read_pass ? "poll rh: %d\n" : "poll wh: %d\n", fd);
    IoHandler handler = read_pass ? r.read_handler : r.write_handler;
    void* data = read_pass ? r.read_data : r.write_data;
    clear_interest(fd, read_pass ? COMM_READ : COMM_WRITE);
    if (handler != nullptr) {
      dlog(DLOG_COMM, 9, read_pass ? "Read Calling %p %d\n" : "Write Calling %p %d\n",
           reinterpret_cast<void*>(handler), fd);
      handler(fd, data);
    }
    if (comm.restart) {
      dlog(DLOG_COMM, 5, "Restarting poll\n");
      comm.restart = false;
      return false;
    }
  }
  return true;
}

}  // namespace

int comm_init(int n) {
  dlog(DLOG_COMM, 5, "comm_init: nfiles %d, called %d\n", n, comm.called ? 1 : 0);
  if (comm.called) {
    dlog(DLOG_COMM, 0, "Can't call com_init twice\n");
    exit(1);
  }
  comm.called = true;
  comm_update_time();
  dump_set_clock(comm_current_time);
  comm.nfiles = static_cast<int>(set_fd_limit(n));
  try {
    comm.fds.assign(comm.nfiles, DescriptorRecord{});
    comm.polls.assign(comm.nfiles, pollfd{});
    comm.writes.assign(comm.nfiles, WriteQueue{});
    comm.events.assign(static_cast<size_t>(std::min(comm.nfiles, MAX_EVENTS)), epoll_event{});
  } catch (const std::bad_alloc&) {
    // Without its tables the loop cannot run; start-up ends here.
    errno = ENOMEM;
    dlog(DLOG_COMM, 0, "comm_init: can't allocate tables for %d fds: %m\n", comm.nfiles);
    exit(1);
  }
  comm.epoll_fd = epoll_create1(EPOLL_CLOEXEC);
  if (comm.epoll_fd < 0) {
    dlog(DLOG_COMM, 0, "comm_init: epoll_create1: %m\n");
    exit(1);
  }
  comm.free_head = 0;
  dump_register(comm_dump);
  comm.initialised = true;
  return comm.nfiles;
}

void comm_add_fd(int fd, int flags, IoHandler handler, void* data) {
  dlog(DLOG_COMM, 9, "comm_add_fd: %d %d %p\n", fd, flags, reinterpret_cast<void*>(handler));
  if (!valid(fd)) {
    dlog(DLOG_COMM, 1, "comm_add_fd: invalid fd: %d\n", fd);
    return;
  }
  DescriptorRecord& r = comm.fds[fd];
  if (handler == nullptr) {
    // An owner clearing a descriptor is about to close it, perhaps after the
    // dispatch had already freed its record: the epoll set must be checked.
    r.stale = true;
    touch(fd);
    if (r.free) return;
    if (((flags & COMM_READ) && r.read_handler) || ((flags & COMM_WRITE) && r.write_handler))
      comm.restart = true;
    comm_clear_fd(fd, flags);
    return;
  }
  if (r.free) push_used(fd);
  if (flags & COMM_READ) {
    r.read_handler = handler;
    r.read_data = data;
    r.poll.events |= POLLIN;
  }
  if (flags & COMM_WRITE) {
    r.write_handler = handler;
    r.write_data = data;
    r.poll.events |= POLLOUT;
  }
  touch(fd);
}

void comm_read(int fd, IoHandler handler, void* data) {
  comm_add_fd(fd, COMM_READ, handler, data);
}

void comm_read_now(int fd, IoHandler handler, void* data) {
  comm_read(fd, handler, data);
  if (!valid(fd) || handler == nullptr || comm.fds[fd].ready) return;
  comm.fds[fd].ready = true;
  comm.ready.push_back(fd);
}

void comm_clear_read(int fd) {
  comm_add_fd(fd, COMM_READ, nullptr, nullptr);
}

void comm_clear_fd(int fd, int flags) {
  if (!valid(fd)) {
    dlog(DLOG_COMM, 1, "comm_clear_fd: invalid fd: %d\n", fd);
    return;
  }
  if (comm.fds[fd].free) return;
  comm.fds[fd].stale = true;
  clear_interest(fd, flags);
}

void comm_fresh_fd(int fd) {
  // A new descriptor cannot be in the epoll set: the kernel dropped whatever
  // had its number when that was closed.
  if (valid(fd)) comm.fds[fd].kernel = 0;
}

void comm_closing(int fd) {
  if (!valid(fd)) return;
  // A number taken again before the next wait is registered anew: as a
  // stale record its MOD falls back to ADD, and the flag goes with the sync.
  comm.fds[fd].closing = true;
  comm.fds[fd].stale = true;
  touch(fd);
}

int comm_set_current_polls() {
  if (!valid(comm.used_head)) {
    dlog(DLOG_COMM, 1, "comm_set_current_polls: invalid fd: %d\n", comm.used_head);
    return 0;
  }
  int n = 0;
  for (int fd = comm.used_head; fd >= 0 && n < comm.nfiles; fd = comm.fds[fd].next) {
    comm.polls[n] = pollfd{fd, comm.fds[fd].poll.events, 0};
    n++;
  }
  dlog(DLOG_COMM, 9, "Polling total of %d fds\n", n);
  comm.npolls = n;
  return n;
}

void comm_run(int timeout) {
  if (!comm.initialised) {
    if (!comm.warned) dlog(DLOG_COMM, 9, "comm_run called without calling comm_init()\n");
    comm.warned = true;
    return;
  }
  dlog(DLOG_COMM, 9, "comm_run: %d\n", timeout);
  errno = 0;
  int wait_ms = static_cast<unsigned>(timeout) <= 2 ? timeout * 1000 : 2000;
  sync_interest();
  // Removals made between cycles (a timer closing a connection, say) are in
  // the set already and must not cut this cycle short.
  comm.restart = false;
  if (comm.used == 0) {
    dlog(DLOG_COMM, 1, "Nothing to poll?\n");
    return;
  }
  dlog(DLOG_COMM, 9, "Polling total of %d fds\n", comm.used);
  bool any_ready = false;
  for (int fd : comm.ready) any_ready = any_ready || comm.fds[fd].ready;
  int r = epoll_wait(comm.epoll_fd, comm.events.data(), static_cast<int>(comm.events.size()),
                     any_ready ? 0 : wait_ms);
  dlog(DLOG_COMM, 9, "poll result: %d %m\n", r);
  if (r < 0 && !is_transient_errno(errno)) {
    dlog(DLOG_COMM, 0, "Poll failed: %m\n");
    exit(1);
  }
  comm_update_time();
  int n = 0;
  for (int i = 0; i < r; i++) {
    const epoll_event& e = comm.events[static_cast<size_t>(i)];
    const DescriptorRecord& d = comm.fds[e.data.fd];
    if (d.kernel != wanted(d)) set_kernel(e.data.fd, wanted(d));  // interest left in the set
    short revents = static_cast<short>(
        ((e.events & EPOLLIN) ? POLLIN : 0) | ((e.events & EPOLLOUT) ? POLLOUT : 0) |
        ((e.events & EPOLLERR) ? POLLERR : 0) | ((e.events & EPOLLHUP) ? POLLHUP : 0));
    if (!d.free) comm.polls[static_cast<size_t>(n++)] = pollfd{e.data.fd, d.poll.events, revents};
  }
  // Descriptors marked by comm_read_now count as readable in this cycle's
  // read pass, in their usual place in the dispatch order. A mark stays set
  // until its handler is dispatched (the one-shot clear drops it): no kernel
  // event will come for bytes already taken from the socket, so a mark that a
  // cut-short cycle did not reach must be carried to the next one.
  std::vector<int>& marked = comm.marked;
  marked.swap(comm.ready);
  for (int fd : marked) {
    DescriptorRecord& d = comm.fds[fd];
    if (!d.ready) continue;
    if (!(d.poll.events & POLLIN)) {
      d.ready = false;
      continue;
    }
    auto hit = std::find_if(comm.polls.begin(), comm.polls.begin() + n,
                            [fd](const pollfd& p) { return p.fd == fd; });
    if (hit != comm.polls.begin() + n)
      hit->revents |= POLLIN;
    else
      comm.polls[static_cast<size_t>(n++)] = pollfd{fd, d.poll.events, POLLIN};
  }
  // The order poll() gave: the most recently registered descriptor first.
  std::sort(comm.polls.begin(), comm.polls.begin() + n, [](const pollfd& a, const pollfd& b) {
    return comm.fds[a.fd].added > comm.fds[b.fd].added;
  });
  comm.npolls = n;
  if (n > 0 && dispatch(n, POLLIN, true)) dispatch(n, POLLOUT, false);
  for (int fd : marked)
    if (comm.fds[fd].ready &&
        std::find(comm.ready.begin(), comm.ready.end(), fd) == comm.ready.end())
      comm.ready.push_back(fd);
  marked.clear();
}

int comm_pendings(int fd) {
  if (!valid(fd)) {
    dlog(DLOG_COMM, 1, "comm_pendings: invalid fd: %d\n", fd);
    return 0;
  }
  return comm.writes[fd].count;
}

time_t comm_update_time() {
  comm.now = time(nullptr);
  dlog(DLOG_COMM, 9, "curr_time=%#lx\n", static_cast<long>(comm.now));
  return comm.now;
}

time_t comm_current_time() {
  return comm.now;
}

void comm_dump(FILE* stream) {
  fprintf(stream, "COMM Dump:\n");
  fprintf(stream, "Current time: %ld\n", static_cast<long>(comm.now));
  fprintf(stream, "Free fd list: ");
  comm_dump_list(stream, comm.free_head);
  fprintf(stream, "Used fd list\n");
  comm_dump_list(stream, comm.used_head);
  fprintf(stream, "pending reads\n");
  for (int fd = 0; fd < comm.nfiles; fd++)
    if (comm.fds[fd].poll.events & POLLIN)
      fprintf(stream, "fd %d handler %p\n", fd, reinterpret_cast<void*>(comm.fds[fd].read_handler));
  fprintf(stream, "pending writes\n");
  for (int fd = 0; fd < comm.nfiles; fd++)
    if (comm.fds[fd].poll.events & POLLOUT)
      fprintf(stream, "fd %d handler %p\n", fd,
              reinterpret_cast<void*>(comm.fds[fd].write_handler));
  fprintf(stream, "pending connects:\n");
  for (const PendingOp* op = comm.connects; op != nullptr; op = op->next)
    fprintf(stream, "fd %d, handler %p\n", op->fd, reinterpret_cast<void*>(op->handler));
  fprintf(stream, "pending accepts:\n");
  for (const PendingOp* op = comm.accepts; op != nullptr; op = op->next)
    fprintf(stream, "\tlisten_fd %d handler %p\n", op->fd, reinterpret_cast<void*>(op->handler));
  fprintf(stream, "queued writes:\n");
  for (int fd = 0; fd < comm.nfiles; fd++) {
    const QueuedWrite* w = comm.writes[fd].head;
    if (w == nullptr) continue;
    fprintf(stream, "fd %d: ", fd);
    for (; w != nullptr; w = w->next)
      fprintf(stream, "(size %d offset %d b %p h %p hd %p ff %p)", w->size, w->offset,
              static_cast<const void*>(w->buffer), reinterpret_cast<void*>(w->handler), w->data,
              reinterpret_cast<void*>(w->release));
    fprintf(stream, "\n");
  }
  fprintf(stream, "\nPending finished: \n");
  for (int fd = 0; fd < comm.nfiles; fd++) {
    const HandlerEntry& f = comm.writes[fd].finished;
    if (f.handler != nullptr)
      fprintf(stream, "fd %d: h %p d %p\n", fd, reinterpret_cast<void*>(f.handler), f.data);
  }
  // Every registered descriptor with its interest, as a poll set would list
  // them: first those the last cycle found ready, in their dispatch order.
  std::vector<bool> listed(static_cast<size_t>(comm.nfiles), false);
  fprintf(stream, "Current Polls: \n");
  for (int i = 0; i < comm.npolls; i++) {
    const pollfd& p = comm.polls[i];
    listed[p.fd] = true;
    fprintf(stream, "fd %d events %x revents %x\n", p.fd, p.events, p.revents);
  }
  for (int fd = comm.used_head, n = 0; valid(fd) && n < comm.nfiles; fd = comm.fds[fd].next, n++)
    if (!listed[fd]) fprintf(stream, "fd %d events %x revents 0\n", fd, comm.fds[fd].poll.events);
}
