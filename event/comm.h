// The event loop (epoll): a table of descriptors indexed by number with one-shot read
// and write handlers, queued non-blocking writes and file sends, asynchronous
// connects and accepts, and the cached current time the timers read. One
// instance per process; nothing here closes a descriptor.
#pragma once

#include <sys/socket.h>

#include <cstdio>
#include <ctime>

// Called once when fd becomes ready; re-register to go on.
using IoHandler = void (*)(int fd, void* data);
// Completion of a write, connect or accept: error 0 done, 1 failed. May run
// before the registering call returns.
using CommHandler = void (*)(int fd, int error, void* data);
// Takes back a written buffer (free, say); null when the caller keeps it.
using ReleaseFn = void (*)(void* buffer);

constexpr int COMM_READ = 1;
constexpr int COMM_WRITE = 2;

struct CommConnect;  // a pending connect, owned by the loop
struct CommAccept;   // a pending accept, owned by the loop

// Sizes the table for up to n descriptors (raising the process limit) and
// returns the number usable. A second call ends the process.
int comm_init(int n);
// One cycle: tell epoll what changed, wait up to timeout seconds (at most 2), dispatch
// every read before any write.
void comm_run(int timeout);
void comm_add_fd(int fd, int flags, IoHandler handler, void* data);
void comm_read(int fd, IoHandler handler, void* data);
// As comm_read, and the handler runs in the next cycle even when the kernel
// has nothing new: for input a stream already holds in user space, which no
// poll would announce. The cycle then does not wait.
void comm_read_now(int fd, IoHandler handler, void* data);
void comm_clear_read(int fd);
void comm_clear_fd(int fd, int flags);
// The owner, having cleared fd's handlers, closes it right after this call.
// Closing takes a descriptor out of the epoll set, so the set is not told.
void comm_closing(int fd);
int comm_set_current_polls();
int comm_pendings(int fd);
time_t comm_update_time();
// The time cached after the last poll; timers and time-outs count from it.
time_t comm_current_time();
void comm_dump(FILE* stream);

// Writes now when nothing is queued, else queues; bytes leave in call order.
// buffer belongs to the queue until handler and release have run (exactly
// once each). 0 when written or queued, -1 when the write failed at once.
int comm_write(int fd, const void* buffer, int length, CommHandler handler, void* data,
               ReleaseFn release);
// Bytes queued for fd and not yet written: what a peer that does not read
// costs us.
long long comm_queued_bytes(int fd);
// Drops every queued write of fd; with notify the handlers learn of it (error 1).
void comm_clear_write(int fd, int notify);
void comm_finished(int fd, CommHandler handler, void* data);
void comm_interm(int fd, CommHandler handler, void* data, int interval);
// Sends length bytes of file_fd from offset, queued like comm_write. file_fd
// is borrowed: it must stay open until handler has run.
int comm_send_file(int fd, int file_fd, int offset, int length, CommHandler handler, void* data);
// Sends a whole file (or from offset) with sendfile; the caller may close
// file_fd once the call returns. An empty file fails.
int comm_write_file(int fd, int file_fd, CommHandler handler, void* data);
int comm_write_file_offset(int fd, int file_fd, int offset, CommHandler handler, void* data);

// When a connect counts as done: once the socket is writable, or, for a
// peer that speaks first (an SMTP server's greeting), once its first bytes
// or an error arrive. The latter saves a loop cycle and an interest change
// per connection; the bytes stay in the socket for the handler's reader.
enum class ConnectDone { WRITABLE, FIRST_BYTES };

// Starts a connect on fd, a non-blocking socket; null when it could not start
// (errno intact). The handler learns the outcome on a later cycle, with errno
// the socket's error on failure. The record lives until the handler returns
// or an abort.
CommConnect* comm_connect(int fd, const sockaddr* address, socklen_t length, CommHandler handler,
                          void* data, ConnectDone when = ConnectDone::WRITABLE);
// The handler is not called; fd stays open for the caller. Inside the
// record's own handler it does nothing.
void comm_connect_abort(CommConnect* record);
// Accepts one connection on listen_fd and hands it (non-blocking) to handler,
// or (-1, 1) on failure; call again for the next one.
CommAccept* comm_accept(int listen_fd, CommHandler handler, void* data);
// Inside the record's own handler it does nothing, so a new comm_accept made
// there stays registered.
void comm_accept_cancel(CommAccept* record);
