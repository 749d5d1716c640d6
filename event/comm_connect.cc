#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "event/comm.h"
#include "event/comm_internal.h"
#include "foundation/dlog.h"
#include "foundation/fd.h"

struct CommConnect : PendingOp {
  ConnectDone when = ConnectDone::WRITABLE;
};
struct CommAccept : PendingOp {};

namespace {

// The direction a connect waits in. A refused or reset connect wakes a
// reader as it wakes a writer.
int direction(ConnectDone when) {
  return when == ConnectDone::FIRST_BYTES ? COMM_READ : COMM_WRITE;
}

void push(PendingOp*& head, PendingOp* op) {
  op->prev = nullptr;
  op->next = head;
  if (head != nullptr) head->prev = op;
  head = op;
}

void unlink_op(PendingOp*& head, PendingOp* op) {
  if (op->prev != nullptr)
    op->prev->next = op->next;
  else if (head == op)
    head = op->next;
  if (op->next != nullptr) op->next->prev = op->prev;
  op->next = op->prev = nullptr;
}

// Creates a pending record, links it at the head of its list and registers
// the handler that will complete it.
template <typename Op>
Op* start_pending(PendingOp*& head, int fd, int flags, IoHandler io, CommHandler handler,
                  void* data) {
  auto* record = comm_alloc(Op{});
  record->fd = fd;
  record->handler = handler;
  record->data = data;
  push(head, record);
  comm_add_fd(fd, flags, io, record);
  return record;
}

// Drops a pending record without calling its handler. From inside that
// handler the record is already done and freed by its caller; the interest
// may by then belong to a new registration, so nothing is touched. The
// record is freed as what it was made as.
template <typename Op>
void cancel_pending(PendingOp*& head, Op* record, int flags) {
  if (record->completing) return;
  comm_add_fd(record->fd, flags, nullptr, nullptr);
  unlink_op(head, record);
  delete record;
}

void connect_handler(int fd, void* data) {
  auto* record = static_cast<CommConnect*>(data);
  dlog(DLOG_COMM, 7, "connect_handler: %d %p\n", fd, data);
  if (!comm_valid_fd(fd)) {
    dlog(DLOG_COMM, 1, "connect_handler: invalid fd: %d\n", fd);
    return;
  }
  int pending = 0;
  socklen_t len = sizeof(pending);
  int outcome = 0;
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &len) < 0) {
    dlog(DLOG_COMM, 1, "Can't getsockopt error: %d %m\n", fd);
    outcome = 1;
  } else if (pending != 0 && is_transient_errno(pending)) {
    comm_add_fd(fd, direction(record->when), connect_handler, record);
    return;
  } else if (pending != 0) {
    errno = pending;
    dlog(DLOG_COMM, 5, "Socket connection failed: %d %m\n", fd);
    outcome = 1;
  } else {
    comm_clear_fd(fd, direction(record->when));
  }
  unlink_op(comm.connects, record);
  record->completing = true;
  record->handler(fd, outcome, record->data);
  delete record;
}

void comm_accept_handler(int listen_fd, void* data) {
  auto* record = static_cast<CommAccept*>(data);
  // Non-blocking from the start: no fcntl calls per connection.
  int fd = accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK);
  comm_fresh_fd(fd);
  dlog(DLOG_COMM, 7, "comm_accept_handler: listen_fd %d fd %d\n", listen_fd, fd);
  if (fd < 0 && is_transient_errno(errno)) {
    comm_add_fd(listen_fd, COMM_READ, comm_accept_handler, record);
    return;
  }
  unlink_op(comm.accepts, record);
  record->completing = true;
  int error = 1;
  if (fd >= comm.nfiles) {
    dlog(DLOG_COMM, 0, "comm_accept_handler: fd limit reached\n");
    close(fd);
    fd = -1;
  } else if (fd >= 0) {
    error = 0;
  }
  record->handler(fd, error, record->data);
  delete record;
}

}  // namespace

CommConnect* comm_connect(int fd, const sockaddr* address, socklen_t length, CommHandler handler,
                          void* data, ConnectDone when) {
  dlog(DLOG_COMM, 5, "comm_connect: %d\n", fd);
  if (!comm_valid_fd(fd)) {
    dlog(DLOG_COMM, 1, "comm_connect: invalid fd: %d\n", fd);
    return nullptr;
  }
  comm_fresh_fd(fd);
  if (connect(fd, address, length) < 0 && !is_transient_errno(errno)) return nullptr;
  auto* record = start_pending<CommConnect>(comm.connects, fd, direction(when), connect_handler,
                                            handler, data);
  record->when = when;
  return record;
}

void comm_connect_abort(CommConnect* record) {
  if (record == nullptr) {
    dlog(DLOG_COMM, 1, "Aborting a NULL connection?\n");
    return;
  }
  dlog(DLOG_COMM, 5, "Connect abort: %d\n", record->fd);
  cancel_pending(comm.connects, record, direction(record->when));
}

CommAccept* comm_accept(int listen_fd, CommHandler handler, void* data) {
  return start_pending<CommAccept>(comm.accepts, listen_fd, COMM_READ, comm_accept_handler, handler,
                                   data);
}

void comm_accept_cancel(CommAccept* record) {
  if (record == nullptr) {
    dlog(DLOG_COMM, 1, "comm_accept_cancel: Tried to free null PCA\n");
    return;
  }
  cancel_pending(comm.accepts, record, COMM_READ);
}
