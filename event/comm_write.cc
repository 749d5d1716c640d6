#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "event/comm.h"
#include "event/comm_internal.h"
#include "foundation/dlog.h"
#include "foundation/fd.h"

namespace {

// Completes one write: the handler learns the outcome, then the buffer goes
// back to its owner. Exactly once per immediate or queued write.
void complete(int fd, CommHandler handler, void* data, ReleaseFn release, const void* buffer,
              int error) {
  if (handler != nullptr) handler(fd, error, data);
  if (release != nullptr) release(const_cast<void*>(buffer));
}

void finish(int fd, const QueuedWrite& w, int error) {
  complete(fd, w.handler, w.data, w.release, w.buffer, error);
  if (w.owns_file) close(w.file_fd);
}

void finish_write(int fd, QueuedWrite* w, int error) {
  finish(fd, *w, error);
  delete w;
}

// Files go from the page cache to the socket without passing through here.
// A file shorter than announced is an error: it would never be done.
ssize_t send_some(int fd, const QueuedWrite& w) {
  if (w.file_fd < 0) return write(fd, w.buffer + w.offset, static_cast<size_t>(w.size));
  off_t at = w.offset;
  ssize_t n = sendfile(fd, w.file_fd, &at, static_cast<size_t>(w.size));
  if (n == 0 && w.size > 0) {
    errno = EIO;
    return -1;
  }
  return n;
}

// Unlinks the head before anything is called, so a handler that writes to or
// clears the same descriptor sees a consistent queue.
QueuedWrite* pop_head(WriteQueue& q) {
  QueuedWrite* w = q.head;
  q.head = w->next;
  if (q.head == nullptr) q.tail = nullptr;
  q.count--;
  q.bytes -= w->size;
  return w;
}

void cwcb(int fd, void* data);

void register_cwcb(int fd) {
  comm_add_fd(fd, COMM_WRITE, cwcb, comm.writes[fd].head);
}

void cwcb(int fd, void* data) {
  if (!comm_valid_fd(fd)) {
    dlog(DLOG_COMM, 1, "cwcb: invalid fd: %d\n", fd);
    return;
  }
  WriteQueue& q = comm.writes[fd];
  // The queue may have been cleared (and refilled) since this handler was
  // registered; the live head is what must go out next.
  QueuedWrite* head = q.head;
  (void)data;
  if (head == nullptr) return;
  int error = 0;
  ssize_t n = send_some(fd, *head);
  dlog(DLOG_COMM, 7, "cwcb: fd: %d, size: %d, witten %d bytes\n", fd, head->size,
       static_cast<int>(n));
  if (n == head->size) {
    pop_head(q);
    QueuedWrite* done = head;
    void* done_data = done->data;
    finish_write(fd, done, 0);
    dlog(DLOG_COMM, 5, "cwcb: fd: %d, data=%p\n", fd, done_data);
    if (q.head != nullptr) register_cwcb(fd);
  } else if (n >= 0) {
    head->offset += static_cast<int>(n);
    head->size -= static_cast<int>(n);
    q.bytes -= n;
    register_cwcb(fd);
  } else if (is_transient_errno(errno)) {
    dlog(DLOG_COMM, 5, "cwcb: fd: %d, ignored error:%m\n", fd);
    register_cwcb(fd);
    return;
  } else {
    dlog(DLOG_COMM, 5, "cwcb: fd: %d, write error: %m\n", fd);
    error = 1;
    while (q.head != nullptr) finish_write(fd, pop_head(q), 1);
  }

  if (q.head != nullptr && q.interm.handler != nullptr &&
      comm.now - q.interm_last >= q.interm_interval) {
    q.interm_last = comm.now;
    HandlerEntry e = q.interm;
    q.interm.handler = nullptr;
    dlog(DLOG_COMM, 5, "calling interm_handler: data=%p\n", e.data);
    e.handler(fd, error, e.data);
  }
  if (q.head == nullptr && q.finished.handler != nullptr) {
    HandlerEntry e = q.finished;
    q.finished.handler = nullptr;
    q.count = 0;
    q.bytes = 0;
    dlog(DLOG_COMM, 5, "calling old_finished_handler: data=%p\n", e.data);
    e.handler(fd, error, e.data);
  }
}

// Writes now when nothing is queued, else queues w.
int start_write(int fd, QueuedWrite w) {
  WriteQueue& q = comm.writes[fd];
  // Behind a non-empty queue nothing is tried: bytes leave in call order.
  if (q.head == nullptr) {
    ssize_t n = send_some(fd, w);
    if (n == w.size) {
      finish(fd, w, 0);
      return 0;
    }
    if (n < 0 && !is_transient_errno(errno)) {
      dlog(DLOG_COMM, 5, "comm_write err on fd %d, %d %m\n", fd, errno);
      finish(fd, w, 1);
      return -1;
    }
    if (n > 0) {
      w.offset += static_cast<int>(n);
      w.size -= static_cast<int>(n);
    }
  }
  dlog(DLOG_COMM, 7, "comm_write: queuing: size %d\n", w.size);
  auto* queued = comm_alloc(static_cast<QueuedWrite&&>(w));
  if (q.tail != nullptr)
    q.tail->next = queued;
  else
    q.head = queued;
  q.tail = queued;
  q.count++;
  q.bytes += queued->size;
  register_cwcb(fd);
  return 0;
}

int queue_file(int fd, int file_fd, off_t offset, CommHandler handler, void* data,
               const char* invalid_message, bool log_size) {
  if (!comm_valid_fd(fd) || file_fd < 0) {
    dlog(DLOG_COMM, 1, invalid_message, comm_valid_fd(fd) ? file_fd : fd);
    return -1;
  }
  struct stat st;
  if (fstat(file_fd, &st) < 0) {
    dlog(DLOG_COMM, 1, "Error fstat()ing file: %m\n");
    if (handler != nullptr) handler(fd, 1, data);
    return -1;
  }
  if (log_size) dlog(DLOG_COMM, 7, "write_file size: %d\n", static_cast<int>(st.st_size));
  // The caller may close file_fd once this returns: the send keeps its own.
  int copy = st.st_size > 0 ? fcntl(file_fd, F_DUPFD_CLOEXEC, 0) : -1;
  if (copy < 0) {
    if (st.st_size == 0) errno = EINVAL;  // nothing to send is taken for a failure
    dlog(DLOG_COMM, 1, "Error sending file: %m\n");
    if (handler != nullptr) handler(fd, 1, data);
    return -1;
  }
  dlog(DLOG_COMM, 7, "comm_write_file: fd %d file_fd %d offset %d handler %p data %p\n", fd,
       file_fd, static_cast<int>(offset), reinterpret_cast<void*>(handler), data);
  QueuedWrite w{nullptr,
                nullptr,
                static_cast<int>(st.st_size - offset),
                static_cast<int>(offset),
                handler,
                data,
                nullptr,
                copy,
                true};
  return start_write(fd, w) >= 0 ? 0 : -1;
}

}  // namespace

int comm_write(int fd, const void* buffer, int length, CommHandler handler, void* data,
               ReleaseFn release) {
  dlog(DLOG_COMM, 7, "comm_write: fd %d size %d handler %p data %p\n", fd, length,
       reinterpret_cast<void*>(handler), data);
  if (!comm_valid_fd(fd)) {
    dlog(DLOG_COMM, 1, "comm_write: invalid fd: %d\n", fd);
    return 0;
  }
  return start_write(fd, QueuedWrite{nullptr, static_cast<const char*>(buffer), length, 0, handler,
                                     data, release});
}

int comm_send_file(int fd, int file_fd, int offset, int length, CommHandler handler, void* data) {
  dlog(DLOG_COMM, 7, "comm_send_file: fd %d file_fd %d offset %d size %d\n", fd, file_fd, offset,
       length);
  if (!comm_valid_fd(fd)) {
    dlog(DLOG_COMM, 1, "comm_send_file: invalid fd: %d\n", fd);
    return 0;
  }
  return start_write(
      fd, QueuedWrite{nullptr, nullptr, length, offset, handler, data, nullptr, file_fd, false});
}

long long comm_queued_bytes(int fd) {
  return comm_valid_fd(fd) ? comm.writes[fd].bytes : 0;
}

void comm_clear_write(int fd, int notify) {
  dlog(DLOG_COMM, 5, "comm_clear_write: fd %d\n", fd);
  if (!comm_valid_fd(fd)) {
    dlog(DLOG_COMM, 1, "comm_clear_write: invalid fd: %d\n", fd);
    return;
  }
  // Everything is detached before the first handler runs: a handler that
  // clears again cannot see a buffer twice, and one that writes again starts
  // a fresh queue with its own registration, which this call leaves alone.
  WriteQueue& q = comm.writes[fd];
  QueuedWrite* w = q.head;
  HandlerEntry finished = q.finished;
  q.head = q.tail = nullptr;
  q.count = 0;
  q.bytes = 0;
  q.finished.handler = nullptr;
  // An intermediate handler belongs to the writes being dropped; left armed
  // it would fire for the next owner of this descriptor number.
  q.interm.handler = nullptr;
  comm_add_fd(fd, COMM_WRITE, nullptr, nullptr);
  while (w != nullptr) {
    QueuedWrite* next = w->next;
    if (notify && w->handler != nullptr) {
      errno = 0;
      w->handler(fd, 1, w->data);
    }
    if (w->release != nullptr) w->release(const_cast<char*>(w->buffer));
    if (w->owns_file) close(w->file_fd);
    delete w;
    w = next;
  }
  if (notify && finished.handler != nullptr) finished.handler(fd, 1, finished.data);
}

void comm_finished(int fd, CommHandler handler, void* data) {
  dlog(DLOG_COMM, 5, "comm_finished: fd %d handler %p data %p\n", fd,
       reinterpret_cast<void*>(handler), data);
  if (!comm_valid_fd(fd)) {
    dlog(DLOG_COMM, 1, "comm_finished: invalid fd: %d\n", fd);
    return;
  }
  WriteQueue& q = comm.writes[fd];
  q.finished = HandlerEntry{fd, handler, data};
  if (q.head != nullptr) return;
  dlog(DLOG_COMM, 5, "comm_finished: Calling handler\n");
  q.finished.handler = nullptr;
  if (handler != nullptr) handler(fd, 0, data);
}

void comm_interm(int fd, CommHandler handler, void* data, int interval) {
  dlog(DLOG_COMM, 5, "comm_interm: fd %d handler %p data %p\n", fd,
       reinterpret_cast<void*>(handler), data);
  if (!comm_valid_fd(fd)) {
    dlog(DLOG_COMM, 1, "comm_interm: invalid fd: %d\n", fd);
    return;
  }
  WriteQueue& q = comm.writes[fd];
  q.interm = HandlerEntry{fd, handler, data};
  q.interm_interval = interval;
  comm_finished(fd, handler, data);
}

int comm_write_file(int fd, int file_fd, CommHandler handler, void* data) {
  return queue_file(fd, file_fd, 0, handler, data, "comm_write_file: invalid fd: %d\n", true);
}

int comm_write_file_offset(int fd, int file_fd, int offset, CommHandler handler, void* data) {
  return queue_file(fd, file_fd, offset, handler, data, "comm_write_file_offset: invalid fd: %d\n",
                    false);
}
