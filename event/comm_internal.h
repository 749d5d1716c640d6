// State shared by the loop's source files: the descriptor table, the epoll
// set and the array of a cycle's ready descriptors, the per-descriptor write
// queues and the pending connect/accept lists. Not for use outside event/.
#pragma once

#include <poll.h>
#include <sys/epoll.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <new>
#include <vector>

#include "event/comm.h"
#include "foundation/dlog.h"

struct DescriptorRecord {
  int next = -1;  // used list, most recently added first
  int prev = -1;
  int free = 1;
  IoHandler read_handler = nullptr;
  IoHandler write_handler = nullptr;
  void* read_data = nullptr;
  void* write_data = nullptr;
  pollfd poll{-1, 0, 0};  // fd and events; revents lives in the poll array only
  bool ready = false;     // read handler runs next cycle without the kernel's word
  // The epoll set learns of interest changes only before it is waited on, so
  // a handler that re-arms the direction it was called for costs no system
  // call. kernel is what the set holds for fd; dirty puts fd on the list the
  // next wait looks at; stale says an owner cleared the descriptor (it may
  // have been closed and its number reused since), so the set is told again.
  short kernel = 0;
  bool dirty = false;
  bool stale = false;
  bool closing = false;  // the owner closes fd before the next wait (comm_closing)
  uint64_t added = 0;    // when it entered the used list: dispatch goes newest first
};

struct QueuedWrite {
  QueuedWrite* next;
  const char* buffer;
  int size;    // bytes still to write
  int offset;  // bytes already written; for a file, where in it to go on
  CommHandler handler;
  void* data;
  ReleaseFn release;
  int file_fd = -1;        // a file send: the bytes come from here, by sendfile
  bool owns_file = false;  // file_fd is closed when the send completes
};

struct HandlerEntry {
  int fd = -1;
  CommHandler handler = nullptr;
  void* data = nullptr;
};

struct WriteQueue {
  QueuedWrite* head = nullptr;
  QueuedWrite* tail = nullptr;  // appends stay O(1) behind a slow reader
  int count = 0;
  long long bytes = 0;  // not yet written, over every queued write
  HandlerEntry finished;
  HandlerEntry interm;
  time_t interm_last = 0;
  int interm_interval = 0;
};

struct PendingOp {  // a pending connect or accept
  PendingOp* next;
  PendingOp* prev;
  int fd;
  CommHandler handler;
  void* data;
  // Set while the handler runs: the record is off its list and is freed once
  // the handler returns, so an abort or cancel from inside must not touch it.
  bool completing;
};

struct CommState {
  int nfiles = 0;
  std::vector<DescriptorRecord> fds;
  std::vector<pollfd> polls;  // the descriptors of the last cycle, in dispatch order
  std::vector<WriteQueue> writes;
  int npolls = 0;
  int epoll_fd = -1;
  std::vector<epoll_event> events;
  std::vector<int> dirty;  // descriptors whose interest changed since the last wait
  uint64_t added = 0;
  int used = 0;
  std::vector<int> ready;   // descriptors marked by comm_read_now, in order
  std::vector<int> marked;  // the marks this cycle took (comm_run only)
  int used_head = -1;
  int free_head = -1;
  bool restart = false;
  bool initialised = false;
  bool called = false;
  bool warned = false;
  time_t now = 0;
  PendingOp* connects = nullptr;
  PendingOp* accepts = nullptr;
};

extern CommState comm;

// fd was just made (accepted, or a socket about to connect): whatever the
// table says the epoll set holds for its number is gone.
void comm_fresh_fd(int fd);

inline bool comm_valid_fd(int fd) {
  return fd >= 0 && fd < comm.nfiles;
}

// The loop cannot go on without its records: running out of memory here ends
// the process, as the watchdog will start a fresh one.
template <typename T>
T* comm_alloc(T&& init) {
  T* p = new (std::nothrow) T(static_cast<T&&>(init));
  if (p == nullptr) {
    errno = ENOMEM;
    dlog(DLOG_COMM, 0, "calloc failed: %m\n");
    exit(1);
  }
  return p;
}
