// Listener and connection lifecycle: accept, admission limit, greeting, the
// one close path, deferred release of records and the idle time-out.
#include <arpa/inet.h>
#include <linux/netfilter_ipv4.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/dlog.h"
#include "foundation/dump.h"
#include "foundation/fatal.h"
#include "net/route.h"
#include "smtp/address.h"
#include "smtp/backend.h"
#include "smtp/config.h"
#include "smtp/smtp.h"

Connection* active_connections = nullptr;
Connection* closed_connections = nullptr;
int num_connections = 0;
int listen_fd = -1;
CommAccept* accept_handle = nullptr;
const char* smtp_refusal_dump_file = "/var/support/vigild_dump.txt";
DynString* command_line = nullptr;

namespace {

// Only the first refusal of the process leaves a dump: later ones would
// overwrite the picture of the moment the limit was first reached.
bool dump_on_refusal = true;

void arm_accept() {
  if (accept_handle == nullptr && listen_fd >= 0 && num_connections < config.max_connections)
    accept_handle = comm_accept(listen_fd, smtp_accept, nullptr);
}

void write_refusal_dump() {
  if (!dump_on_refusal) return;
  FILE* f = fopen(smtp_refusal_dump_file, "w");
  if (f == nullptr) return;
  dump_connections(f);
  fclose(f);
  dump_on_refusal = false;
}

bool read_address(int fd, Connection* conn) {
  // Without redirection there is no original destination; that is fine
  // when the backend is fixed or a PROXY header will name it.
  const bool fixed = config.backend_addr.sin_family == AF_INET;
  socklen_t len = sizeof conn->receiver_addr;
  if (getsockopt(fd, SOL_IP, SO_ORIGINAL_DST, &conn->receiver_addr, &len) != 0) {
    if (!fixed && !config.proxy_protocol) {
      dlog(DLOG_SMTP, 1, "getsockopt failed: %m\n");
      return false;
    }
    conn->receiver_addr = sockaddr_in{};
  }
  if (fixed) conn->receiver_addr = config.backend_addr;
  len = sizeof conn->my_sender_addr;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&conn->my_sender_addr), &len) != 0) {
    dlog(DLOG_SMTP, 1, "getsockname failed: %m\n");
    return false;
  }
  len = sizeof conn->sender_addr;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&conn->sender_addr), &len) != 0) {
    dlog(DLOG_SMTP, 1, "getpeername failed: %m\n");
    return false;
  }
  return true;
}

// The sender reached our own port without being redirected to a mail server
// (directly, or through a rule that points back at us): relaying would only
// connect the proxy to itself.
bool is_loop(const Connection* conn) {
  if (port_of(conn->receiver_addr) != config.listen_port) return false;
  const in_addr_t dst = conn->receiver_addr.sin_addr.s_addr;
  if (dst == conn->my_sender_addr.sin_addr.s_addr || (ntohl(dst) >> 24) == 127) return true;
  bool local = false;
  IfiInfo* interfaces = get_ifi_info(AF_INET, 1);
  for (const IfiInfo* i = interfaces; i != nullptr && !local; i = i->next)
    local = i->addr != nullptr && i->addr->sin_addr.s_addr == dst;
  free_ifi_info(interfaces);
  return local;
}

void close_after_reply(int, int, void* data) {
  close_connection(static_cast<Connection*>(data));
}

}  // namespace

DynString* smtp_checked(DynString* s) {
  if (s == nullptr) fatal_exit("Out of memory: %m\n");
  return s;
}

bool smtp_reply(Connection* conn, const char* text) {
  if (comm_write(conn->sender_fd, text, static_cast<int>(strlen(text)), sender_write_callback, conn,
                 nullptr) == 0)
    return true;
  close_connection(conn);
  return false;
}

bool smtp_reply_and_resume(Connection* conn, const char* text) {
  if (!smtp_reply(conn, text) || conn->closed) return false;
  smtp_resume(conn);
  return true;
}

void smtp_read_sender(Connection* conn, IoHandler handler) {
  if (conn->closed || conn->sender_fd < 0) return;
  if (conn->sender_stream != nullptr && lstream_buffered(conn->sender_stream.get()) > 0)
    comm_read_now(conn->sender_fd, handler, conn);
  else
    comm_read(conn->sender_fd, handler, conn);
}

void smtp_resume(Connection* conn) {
  // The idle time-out was held off while the message was examined; the
  // sender is on the clock again.
  reset_idle_timer(conn);
  smtp_read_sender(conn, command_handler);
}

void smtp_init_listener() {
  active_connections = nullptr;
  closed_connections = nullptr;
  accept_handle = comm_accept(listen_fd, smtp_accept, nullptr);
  if (command_line == nullptr) command_line = smtp_checked(dstr_new(COMMAND_LINE_CAPACITY));
  dump_register(dump_connections);
}

void smtp_close_all() {
  while (active_connections != nullptr) close_connection(active_connections);
}

void smtp_accept(int fd, int status, void*) {
  accept_handle = nullptr;
  bool full = num_connections >= config.max_connections;
  if (!full) accept_handle = comm_accept(listen_fd, smtp_accept, nullptr);

  if (status == 1 || full) {
    if (fd > 0) close(fd);
    if (full) {
      // The refused sender gets no reply: at the limit we cannot afford one.
      dlog(DLOG_SMTP, 3, "New connection refused: max connections(%d) reached\n",
           config.max_connections);
      write_refusal_dump();
    } else {
      dlog(DLOG_SMTP, 1, "Accept error: %m\n");
    }
    return;
  }

  dlog(DLOG_SMTP, 4, "accepted new conn. current conn: %d\n", num_connections);
  free_closed_connections();
  Connection* conn = new_connection();
  if (conn == nullptr) {
    dlog(DLOG_SMTP, 0, "Can't create new connections: %m\n");
    close(fd);
    return;
  }
  conn->sender_fd = fd;
  if (!read_address(fd, conn)) {
    close_connection(conn);
    return;
  }
  if (config.proxy_protocol)
    smtp_await_proxy_header(conn);
  else
    smtp_admit(conn);
}

void smtp_admit(Connection* conn, std::string_view early) {
  if (is_loop(conn)) {
    dlog(DLOG_SMTP, 1, "Mail loop detected. Closing connection (sender=%s:%d)\n",
         Dotted(conn->sender_addr).text, port_of(conn->sender_addr));
    const char* reply = "554 Mail loop detected\r\n";
    comm_write(conn->sender_fd, reply, static_cast<int>(strlen(reply)), close_after_reply, conn,
               nullptr);
    return;
  }
  smtp_start_session(conn, early);
}

void smtp_start_session(Connection* conn, std::string_view early) {
  int fd = conn->sender_fd;
  if (comm_write(fd, config.greeting_line, static_cast<int>(strlen(config.greeting_line)),
                 sender_write_callback, conn, nullptr) != 0 ||
      conn->closed) {
    close_connection(conn);
    return;
  }
  conn->can_relay = relay_check(ntohl(conn->sender_addr.sin_addr.s_addr));
  conn->sender_stream.reset(lstream_open(fd, read, SENDER_READ_SIZE));
  if (conn->sender_stream == nullptr) {
    dlog(DLOG_SMTP, 1, "Can not open sender stream: %m\n");
    close_connection(conn);
    return;
  }
  if (!early.empty() && dstr_cat_block(conn->sender_stream->buffer, early.data(),
                                       static_cast<int>(early.size())) != 0)
    fatal_exit("Out of memory: %m\n");
  smtp_read_sender(conn, command_handler);
}

Connection* new_connection() {
  auto* conn = new (std::nothrow) Connection{};
  if (conn == nullptr) {
    errno = ENOMEM;
    dlog(DLOG_SMTP, 1, "Cannot create new connection: %m\n");
    return nullptr;
  }
  dlog(DLOG_SMTP, 5, "New connection %p\n", static_cast<void*>(conn));
  conn->next = active_connections;
  if (active_connections != nullptr) active_connections->prev = conn;
  active_connections = conn;
  reset_idle_timer(conn);
  num_connections += 1;
  return conn;
}

void close_connection(Connection* conn) {
  if (conn == nullptr || conn->closed) return;
  conn->closed = true;
  dlog(DLOG_SMTP, 5, "Closing connection %p\n", static_cast<void*>(conn));

  close_backend(conn);
  // The transaction's files, scan requests and timer go with it.
  conn->txn.reset();
  conn->auth_user.reset();
  conn->auth_pass.reset();
  conn->proxy_wait.reset();
  conn->sender_stream.reset();
  if (conn->sender_fd != -1) {
    // Queued replies are dropped silently: their handlers would only try to
    // close this connection again.
    comm_clear_write(conn->sender_fd, 0);
    comm_clear_read(conn->sender_fd);
    comm_closing(conn->sender_fd);
    close(conn->sender_fd);
    conn->sender_fd = -1;
  }
  conn->idle_timer.reset();
  conn->helo_domain.reset();

  if (conn->prev != nullptr) conn->prev->next = conn->next;
  if (conn->next != nullptr) conn->next->prev = conn->prev;
  if (active_connections == conn) active_connections = conn->next;
  conn->prev = nullptr;
  conn->next = closed_connections;
  closed_connections = conn;

  if (num_connections > 0) num_connections -= 1;
  arm_accept();
}

void free_closed_connections() {
  while (closed_connections != nullptr) {
    Connection* conn = closed_connections;
    closed_connections = conn->next;
    delete conn;
  }
}

void reset_idle_timer(Connection* conn) {
  if (conn == nullptr || conn->closed || config.idle_timeout <= 0) return;
  if (conn->idle_timer == nullptr)
    conn->idle_timer.reset(timer_add(config.idle_timeout, idle_timeout_handler, conn));
  else
    timer_reschedule(config.idle_timeout, conn->idle_timer.get());
}

void txn_end(Connection* conn) {
  conn->txn.reset();
}

void txn_end_message(Connection* conn) {
  if (conn->txn == nullptr) return;
  conn->txn->msg.reset();
  conn->txn->phase = TxnPhase::ENVELOPE;
}

void txn_answered(Connection* conn, bool whole) {
  if (whole)
    txn_end(conn);
  else
    txn_end_message(conn);
  smtp_resume(conn);
}

Message* txn_message(const Connection* conn) {
  return conn != nullptr && conn->txn != nullptr ? conn->txn->msg.get() : nullptr;
}

TxnPhase txn_phase(const Connection* conn) {
  return conn->txn != nullptr ? conn->txn->phase : TxnPhase::ENVELOPE;
}

void sender_write_callback(int, int status, void* data) {
  auto* conn = static_cast<Connection*>(data);
  if (status == 0 || conn == nullptr) return;
  dlog(DLOG_SMTP, 5, "Sender(%s:%d) write error. Closing connection: %m\n",
       Dotted(conn->sender_addr).text, port_of(conn->sender_addr));
  close_connection(conn);
}

void idle_timeout_handler(void* data) {
  auto* conn = static_cast<Connection*>(data);
  if (conn == nullptr || conn->closed) return;
  // While the backend works for the sender, the time-out is the backend's:
  // it stopped reading or answering.
  if (txn_phase(conn) == TxnPhase::RELAYING || conn->be_state == BE_RSET) {
    conn->idle_timer.release();  // it has fired; the timer module frees it
    be_timeout(conn);
    return;
  }
  dlog(DLOG_SMTP, 1, "Idle timeout. Closing connection. sender=%s(%d), receiver=%s(%d)\n",
       Dotted(conn->sender_addr).text, port_of(conn->sender_addr), Dotted(conn->receiver_addr).text,
       port_of(conn->receiver_addr));
  conn->idle_timer.release();  // it has fired; the timer module frees it
  close_connection(conn);
}
