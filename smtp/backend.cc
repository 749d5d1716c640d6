// The backend connection of a Connection: the connect (plain, or from the
// sender's own address in transparent mode), the reply reader, the
// completion handlers of everything written to the backend, the message-file
// send, the NOOP keep-alive and the teardown.
#include "smtp/backend.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "foundation/fd.h"
#include "net/route.h"
#include "net/tproxy.h"
#include "scan/dotstream.h"
#include "smtp/config.h"

namespace {

constexpr int RECEIVER_READ_SIZE = LSTREAM_READ_MAX;
constexpr int REPLY_LINE_MAX = 2000;
constexpr size_t RELAY_CHUNK = 65536;
constexpr int REPLY_LINES_PER_EVENT = 64;

// The backend failed the sender: its side goes (a stream cut before its end
// of data is discarded by the backend), the sender hears reply and its message
// ends, the whole transaction when whole is set (a passed-on RSET).
void relay_failed(Connection* conn, const char* reply, bool whole = false) {
  close_backend(conn);
  if (conn->closed || !smtp_reply(conn, reply)) return;
  txn_answered(conn, whole);
}

void start_failed(Connection* conn) {
  relay_failed(conn, "451 Internal Error\r\n");
}

// Binds the backend socket so that the backend sees the sender's address.
// False when the start has failed and been dealt with. A refused association
// closes the whole connection without a reply: the kernel has no pairing for
// this sender, so the backend would see the wrong address.
bool bind_transparent(Connection* conn) {
  int fd = conn->receiver_fd;
  sockaddr_in* local = &conn->my_receiver_addr;
  *local = sockaddr_in{};
  if (tproxy_ctl_get(fd, &conn->sender_addr, &conn->receiver_addr, local) != 0) {
    dlog(DLOG_SMTP, 9, "Could not get Bind IP\n");
    local->sin_addr.s_addr = route_lookup(local->sin_addr.s_addr);
  }
  int r = bind_local(fd, local);
  if (r == EADDRINUSE || r == EADDRNOTAVAIL) {
    local->sin_addr.s_addr = route_lookup(local->sin_addr.s_addr);
    dlog(DLOG_SMTP, 9, "Reconnecting with my_server_addr=%s, port=%d, %p\n", Dotted(*local).text,
         port_of(conn->receiver_addr), log_ptr(conn));
    if (bind_local(fd, local) != 0) {
      dlog(DLOG_SMTP, 1, "Couldn't bind: %m\n");
      start_failed(conn);
      return false;
    }
  }
  if (tproxy_ctl_set(fd, conn->sender_fd, &conn->sender_addr, &conn->receiver_addr, local) != 0) {
    dlog(DLOG_SMTP, 1, "Couldn't setup association. Connection reset by peer\n");
    close_connection(conn);
    return false;
  }
  return true;
}

// The mainline kernel's way: the socket itself takes the sender's address.
bool bind_mainline(Connection* conn) {
  if (bind_foreign(conn->receiver_fd, &conn->sender_addr) == 0) return true;
  dlog(DLOG_SMTP, 1, "%p, Couldn't bind to the sender's address %s: %m\n", log_ptr(conn),
       Dotted(conn->sender_addr).text);
  start_failed(conn);
  return false;
}

// Steps 2-6 of both write completions: a failed write ends the backend side
// and the sender is told; the sender connection itself stays.
void backend_write_done(int error, Connection* conn) {
  if (conn == nullptr || conn->closed || error == 0) return;
  dlog(DLOG_SMTP, 3, "Write to backend(%s:%d) error. Closing: %m\n",
       Dotted(conn->receiver_addr).text, port_of(conn->receiver_addr));
  relay_failed(conn, "451 Internal Error\r\n");
  if (conn->closed) return;
  dlog(DLOG_SMTP, 4, "%p, response to sender due to backend write failure: 451 Internal Error\n",
       log_ptr(conn));
}

}  // namespace

// The message file on its way to the backend: read in chunks, each turned
// into its part of the canonical stream and written once the one before is
// out, so only one chunk is held per connection. A file already in that form
// but for its last line goes out whole with sendfile.
struct RelaySend {
  int file_fd;  // the message's scan file; borrowed
  int64_t offset = 0;
  int64_t size = -1;  // the file's size when known: its last chunk carries the end of data
  int64_t as_is = 0;  // bytes to send unchanged before encoding starts
  DotEncoder encoder;
  std::string out;    // the write in flight; the queue points into it
  bool last = false;  // out ends the stream
  bool in_flight = false;
  bool in_call = false;  // inside comm_write: its completion must not recurse
};

void RelaySendFree::operator()(RelaySend* r) const noexcept {
  delete r;
}

namespace {

void relay_pump(Connection* conn);

// Read side of the encoder, shared: a chunk is encoded as soon as it is read.
char relay_in[RELAY_CHUNK];

void relay_write_done(int, int error, void* data) {
  auto* conn = static_cast<Connection*>(data);
  if (conn == nullptr || conn->closed) return;
  if (error != 0) {
    backend_write_done(error, conn);
    return;
  }
  RelaySend* r = conn->relay.get();
  if (r == nullptr) return;
  r->in_flight = false;
  reset_idle_timer(conn);  // the backend is reading: progress, not a stall
  if (!r->in_call) relay_pump(conn);
}

void relay_pump(Connection* conn) {
  RelaySend* r = conn->relay.get();
  while (!r->in_flight) {
    if (r->last) {
      conn->relay.reset();
      return;
    }
    if (r->as_is > 0) {
      // The stored content ends in CR LF, so the encoder, fresh at a line
      // start, adds just the end of data after it.
      r->offset = r->as_is;
      r->as_is = 0;
      r->in_flight = r->in_call = true;
      int w = comm_send_file(conn->receiver_fd, r->file_fd, 0, static_cast<int>(r->offset),
                             relay_write_done, conn);
      if (w != 0 || conn->closed || conn->relay.get() != r) return;
      r->in_call = false;
      continue;
    }
    r->out.clear();
    // All of it went out as it is (sendfile): only the end of data is left.
    bool at_end = r->offset == r->size;
    if (!at_end) {
      ssize_t n = pread(r->file_fd, relay_in, sizeof relay_in, r->offset);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        dlog(DLOG_SMTP, 1, "%p, Couldn't read the message for the backend: %m\n", log_ptr(conn));
        relay_failed(conn, "451 Internal Error\r\n");
        return;
      }
      r->offset += n;
      if (n > 0) dot_encode(&r->encoder, relay_in, static_cast<size_t>(n), &r->out);
      // The end goes with the last read (one write less, and one segment less
      // for the backend), or where the file turned out shorter.
      at_end = n == 0 || r->offset == r->size;
    }
    if (at_end) {
      dot_encode_finish(&r->encoder, &r->out);
      r->last = true;
    }
    r->in_flight = r->in_call = true;
    int w = comm_write(conn->receiver_fd, r->out.data(), static_cast<int>(r->out.size()),
                       relay_write_done, conn, nullptr);
    // A failed write has torn the backend side down, this record with it.
    if (w != 0 || conn->closed || conn->relay.get() != r) return;
    r->in_call = false;
  }
}

}  // namespace

void backend_start(Connection* conn) {
  dlog(DLOG_SMTP, 5, "backend_start on connection %p\n", log_ptr(conn));
  int fd = conn->receiver_fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  if (fd == -1) {
    dlog(DLOG_SMTP, 1, "Can't create receiver socket: %m\n");
    start_failed(conn);
    return;
  }
  if (set_nodelay(fd) != 0) {
    dlog(DLOG_SMTP, 1, "Can't nodelay receiver socket: %m\n");
    start_failed(conn);
    return;
  }
  dlog(DLOG_SMTP, 9, "address_transparent=%d\n", config.address_transparent ? 1 : 0);
  if (config.address_transparent) {
    const bool mainline = config.transparent_method == TransparentMethod::MAINLINE;
    if (!(mainline ? bind_mainline(conn) : bind_transparent(conn))) return;
  }
  dlog(DLOG_SMTP, 9, "Connecting to backend\n");
  // The sender's envelope commands wait (501) until the greeting is accepted.
  conn->transaction_pending = true;
  // The backend speaks first, so its greeting is what completes the connect.
  conn->be_connect =
      comm_connect(fd, reinterpret_cast<const sockaddr*>(&conn->receiver_addr),
                   sizeof conn->receiver_addr, be_connected, conn, ConnectDone::FIRST_BYTES);
  if (conn->be_connect == nullptr) {
    dlog(DLOG_SMTP, 1, "Couldn't connect: %m\n");
    start_failed(conn);
  }
}

void be_timeout(Connection* conn) {
  dlog(DLOG_SMTP, 1, "%p, Backend timeout. backend=%s(%d), sender=%s(%d)\n", log_ptr(conn),
       Dotted(conn->receiver_addr).text, port_of(conn->receiver_addr),
       Dotted(conn->sender_addr).text, port_of(conn->sender_addr));
  relay_failed(conn, "451 Internal Error\r\n", conn->be_state == BE_RSET);
}

void be_connected(int fd, int error, void* data) {
  auto* conn = static_cast<Connection*>(data);
  if (conn == nullptr || conn->closed) return;
  conn->be_connect = nullptr;
  if (error != 0) {
    conn->transaction_pending = false;
    dlog(DLOG_SMTP, 3, "Backend connect error, %m.backend=%s(%d), sender=%s(%d)\n",
         Dotted(conn->receiver_addr).text, port_of(conn->receiver_addr),
         Dotted(conn->sender_addr).text, port_of(conn->sender_addr));
    relay_failed(conn, "451 Internal Error\r\n");
    return;
  }
  conn->receiver_stream.reset(lstream_open(conn->receiver_fd, read, RECEIVER_READ_SIZE));
  if (conn->receiver_stream == nullptr) {
    dlog(DLOG_SMTP, 1, "Can not open receiver stream: %m\n");
    close_connection(conn);
    return;
  }
  conn->be_state = BE_INIT;
  socklen_t len = sizeof conn->my_receiver_addr;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&conn->my_receiver_addr), &len) != 0) {
    dlog(DLOG_SMTP, 1, "getsockname failed: %m\n");
    close_connection(conn);
    return;
  }
  // The greeting is the first line the dialogue sees. It has arrived (that
  // completed the connect), so it is read now rather than a loop cycle later.
  response_handler(conn->receiver_fd, conn);
}

void be_read_backend(Connection* conn) {
  if (lstream_buffered(conn->receiver_stream.get()) > 0)
    comm_read_now(conn->receiver_fd, response_handler, conn);
  else
    comm_read(conn->receiver_fd, response_handler, conn);
}

void response_handler(int fd, void* data) {
  auto* conn = static_cast<Connection*>(data);
  if (conn == nullptr || conn->closed) {
    dlog(DLOG_SMTP, 3, "response_handler: connection was closed\n");
    return;
  }
  // A QUIT from the sender arms this handler also while the connect is
  // still pending; there is no stream to read then, and the close follows.
  if (conn->receiver_stream == nullptr) return;
  // Every whole line already buffered is handled in order, a bounded number
  // per readiness event: the rest in the next loop pass, since the socket
  // may not become readable again.
  for (int handled = 0;; handled++) {
    if (handled == REPLY_LINES_PER_EVENT) {
      comm_read_now(fd, response_handler, conn);
      return;
    }
    // Nothing left of the last read: the backend's next reply answers what
    // is written next, or is already on its way and makes the loop call
    // again; a read now would as a rule say EAGAIN.
    if (handled > 0 && lstream_buffered(conn->receiver_stream.get()) == 0) {
      comm_read(fd, response_handler, conn);
      return;
    }
    command_line->length = 0;
    command_line->data[0] = '\0';
    errno = 0;
    int r = lstream_readline(command_line, conn->receiver_stream.get(), '\n', REPLY_LINE_MAX);
    if (r == -1) {
      if (is_transient_errno(errno)) {
        comm_read(fd, response_handler, conn);
        return;
      }
      dlog(DLOG_SMTP, 3, "Backend read error: %m");
      be_problem(conn, command_line);
      return;
    }
    if (command_line->length == 0) {
      dlog(DLOG_SMTP, 3, "Backend closed connection\n");
      be_problem(conn, command_line);
      return;
    }
    if (be_handle_line(conn, command_line) != 0 || conn->closed) return;
    // The dialogue may have torn the backend down while going on (a file
    // send that failed in its own completion); nothing is left to read then.
    if (conn->receiver_stream == nullptr) return;
  }
}

void close_backend(Connection* conn) {
  conn->be_state = BE_INIT;
  conn->be_pipelining = false;
  conn->be_8bitmime = false;
  conn->be_xclient = false;
  conn->xclient_sent = false;
  conn->noops_pending = 0;
  conn->transaction_pending = false;
  if (conn->be_connect != nullptr) comm_connect_abort(conn->be_connect);
  conn->be_connect = nullptr;
  conn->receiver_stream.reset();
  if (conn->receiver_fd != -1) {
    // Handlers go before the descriptor, so none can run on a reused number.
    // Queued writes are dropped unannounced: their handlers would only tear
    // down this backend side again.
    comm_clear_read(conn->receiver_fd);
    comm_clear_write(conn->receiver_fd, 0);
    comm_closing(conn->receiver_fd);
    close(conn->receiver_fd);
    conn->receiver_fd = -1;
  }
  // Only now: a queued write pointed into its buffer.
  conn->relay.reset();
  conn->noop_timer.reset();
}

int be_send_file(Connection* conn) {
  if (conn->closed) return 1;
  Message* m = txn_message(conn);
  if (m == nullptr || m->file == nullptr) return 1;
  // The idle time-out keeps running: every chunk the backend takes re-arms
  // it, so only a backend that stops reading runs into it.
  dlog(DLOG_SMTP, 9, "Sending file to backend: fd %d\n", conn->receiver_fd);
  auto* r = new (std::nothrow) RelaySend{};
  if (r == nullptr) fatal_exit("Out of memory: %m\n");
  r->file_fd = m->file->fd;
  r->size = m->file->size;
  // Small files cost the same either way and leave in one write when read.
  if (!m->dot_lines && r->size > static_cast<int64_t>(RELAY_CHUNK) && r->size < INT32_MAX)
    r->as_is = r->size;
  conn->relay.reset(r);
  relay_pump(conn);
  return 0;
}

void generic_be_write_callback(int fd, int error, void* data) {
  dlog(DLOG_SMTP, 9, "generic_be_write_callback: fd %d\n", fd);
  backend_write_done(error, static_cast<Connection*>(data));
}

void be_send_noop(void* data) {
  auto* conn = static_cast<Connection*>(data);
  if (conn == nullptr) return;
  conn->noop_timer.release();  // fired: the timer module frees it
  if (conn->closed || conn->receiver_fd == -1) return;
  dlog(DLOG_SMTP, 9, "sending NOOP to backend\n");
  if (comm_write(conn->receiver_fd, "NOOP\r\n", 6, generic_be_write_callback, conn, nullptr) != 0) {
    close_connection(conn);
    return;
  }
  conn->noops_pending += 1;
  conn->noop_timer.reset(timer_add(config.noop_interval, be_send_noop, conn));
}
