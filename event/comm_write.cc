#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "event/comm.h"
#include "event/comm_internal.h"
#include "foundation/dlog.h"
#include "foundation/fd.h"

namespace {

struct FileSend {  // "pcwf" in the log lines
  int fd;
  void* map;
  size_t size;
  CommHandler handler;
  void* data;
};

void comm_write_file_callback_free(FileSend* record) {
  dlog(DLOG_COMM, 7, "comm_write_file_callback_free: pcwf %p\n", static_cast<void*>(record));
  munmap(record->map, record->size);
  delete record;
}

void comm_write_file_callback(int fd, int error, void* data) {
  auto* record = static_cast<FileSend*>(data);
  dlog(DLOG_COMM, 7, "comm_write_file_callback: fd %d pcwf %p\n", fd, data);
  if (record->handler != nullptr) record->handler(record->fd, error, record->data);
  comm_write_file_callback_free(record);
}

// Completes one write: the handler learns the outcome, then the buffer goes
// back to its owner. Exactly once per immediate or queued write.
void complete(int fd, CommHandler handler, void* data, ReleaseFn release, const void* buffer,
              int error) {
  if (handler != nullptr) handler(fd, error, data);
  if (release != nullptr) release(const_cast<void*>(buffer));
}

void finish_write(int fd, QueuedWrite* w, int error) {
  complete(fd, w->handler, w->data, w->release, w->buffer, error);
  delete w;
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
  ssize_t n = write(fd, head->buffer + head->offset, static_cast<size_t>(head->size));
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

int queue_file(int fd, int file_fd, off_t offset, CommHandler handler, void* data,
               const char* invalid_message, bool log_size) {
  // A destination beyond the table is refused here too: comm_write would
  // ignore it and the mapping would never be given back.
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
  auto* record = comm_alloc(FileSend{fd, nullptr, static_cast<size_t>(st.st_size), handler, data});
  void* map =
      st.st_size > 0 ? mmap(nullptr, record->size, PROT_READ, MAP_PRIVATE, file_fd, 0) : MAP_FAILED;
  if (map == MAP_FAILED) {
    if (st.st_size == 0) errno = EINVAL;  // an empty file cannot be mapped
    delete record;
    dlog(DLOG_COMM, 1, "Error mmap()ing file: %m\n");
    if (handler != nullptr) handler(fd, 1, data);
    return -1;
  }
  record->map = map;
  if (log_size) {
    dlog(DLOG_COMM, 7, "comm_write_file: fd %d file_fd %d handler %p data %p pcwf %p\n", fd,
         file_fd, reinterpret_cast<void*>(handler), data, static_cast<void*>(record));
  } else {
    dlog(DLOG_COMM, 7,
         "com_file_write_offset: fd %d file_fd %d offset %d handler %p data %p pcwf %p\n", fd,
         file_fd, static_cast<int>(offset), reinterpret_cast<void*>(handler), data,
         static_cast<void*>(record));
  }
  int r = comm_write(fd, static_cast<char*>(map) + offset, static_cast<int>(st.st_size - offset),
                     comm_write_file_callback, record, nullptr);
  return r >= 0 ? 0 : -1;
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
  WriteQueue& q = comm.writes[fd];
  int offset = 0;
  // Behind a non-empty queue nothing is tried: bytes leave in call order.
  if (q.head == nullptr) {
    ssize_t n = write(fd, buffer, static_cast<size_t>(length));
    if (n == length) {
      complete(fd, handler, data, release, buffer, 0);
      return 0;
    }
    if (n < 0 && !is_transient_errno(errno)) {
      dlog(DLOG_COMM, 5, "comm_write err on fd %d, %d %m\n", fd, errno);
      complete(fd, handler, data, release, buffer, 1);
      return -1;
    }
    if (n > 0) offset = static_cast<int>(n);
  }
  dlog(DLOG_COMM, 7, "comm_write: queuing: size %d\n", length - offset);
  auto* w = comm_alloc(QueuedWrite{nullptr, static_cast<const char*>(buffer), length - offset,
                                   offset, handler, data, release});
  if (q.tail != nullptr)
    q.tail->next = w;
  else
    q.head = w;
  q.tail = w;
  q.count++;
  q.bytes += w->size;
  register_cwcb(fd);
  return 0;
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
    } else if (w->handler == comm_write_file_callback) {
      // A dropped file send must still give back its mapping.
      comm_write_file_callback_free(static_cast<FileSend*>(w->data));
    }
    if (w->release != nullptr) w->release(const_cast<char*>(w->buffer));
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
