// The load balancer's PROXY header, read before the greeting on a connection
// from a trusted network: its client becomes the sender (relay control, the
// Received line, logs, scanner requests, the transparent bind) and its
// destination the backend, unless backend_addr says otherwise.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <string>

#include "foundation/dlog.h"
#include "foundation/fd.h"
#include "net/proxyproto.h"
#include "smtp/config.h"
#include "smtp/smtp.h"

// Bytes read so far (possibly some of the client's SMTP behind the header)
// and the deadline. Lives from accept to the header's end.
struct ProxyWait {
  std::string bytes;
  TimerPtr timer;
};

void ProxyWaitFree::operator()(ProxyWait* w) const noexcept {
  delete w;
}

namespace {

void refuse(Connection* conn, const char* why) {
  dlog(DLOG_SMTP, 3, "%p, PROXY header from %s:%d refused: %s. Closing connection\n", log_ptr(conn),
       Dotted(conn->sender_addr).text, port_of(conn->sender_addr), why);
  close_connection(conn);
}

void header_timeout(void* data) {
  auto* conn = static_cast<Connection*>(data);
  if (conn == nullptr || conn->closed || conn->proxy_wait == nullptr) return;
  conn->proxy_wait->timer.release();  // it has fired; the timer module frees it
  refuse(conn, conn->proxy_wait->bytes.empty() ? "none came in time" : "incomplete in time");
}

// The header is whole: the connection takes its client's addresses.
void take_header(Connection* conn, const ProxyHeader& h) {
  if (h.kind == ProxyKind::LOCAL) {
    // A health check (or a client without an address): nothing to relay.
    dlog(DLOG_SMTP, 4, "%p, PROXY v%d header without a client from %s:%d. Closing connection\n",
         log_ptr(conn), h.version, Dotted(conn->sender_addr).text, port_of(conn->sender_addr));
    close_connection(conn);
    return;
  }
  dlog(DLOG_SMTP, 3, "%p, PROXY v%d client %s:%d to %s:%d via %s:%d\n", log_ptr(conn), h.version,
       Dotted(h.src).text, port_of(h.src), Dotted(h.dst).text, port_of(h.dst),
       Dotted(conn->sender_addr).text, port_of(conn->sender_addr));
  conn->sender_addr = h.src;
  if (config.backend_addr.sin_family != AF_INET) conn->receiver_addr = h.dst;
  // What the load balancer passed on behind the header is the client's.
  std::string early = conn->proxy_wait->bytes.substr(h.size);
  conn->proxy_wait.reset();
  smtp_admit(conn, early);
}

void header_handler(int fd, void* data) {
  auto* conn = static_cast<Connection*>(data);
  if (conn == nullptr || conn->closed || conn->proxy_wait == nullptr) return;
  std::string& bytes = conn->proxy_wait->bytes;
  const size_t have = bytes.size();
  bytes.resize(PROXY_HEADER_MAX);
  ssize_t n = recv(fd, bytes.data() + have, PROXY_HEADER_MAX - have, 0);
  bytes.resize(have + static_cast<size_t>(n > 0 ? n : 0));
  if (n < 0 && is_transient_errno(errno)) {
    comm_read(fd, header_handler, conn);
    return;
  }
  if (n <= 0) {
    refuse(conn, n == 0 ? "closed before the header" : "read failed");
    return;
  }
  ProxyHeader h;
  const char* why = "invalid";
  switch (proxy_parse(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), &h, &why)) {
    case ProxyParse::INCOMPLETE:
      comm_read(fd, header_handler, conn);
      return;
    case ProxyParse::INVALID:
      refuse(conn, why);
      return;
    case ProxyParse::DONE:
      take_header(conn, h);
      return;
  }
}

}  // namespace

void smtp_await_proxy_header(Connection* conn) {
  if (!network_list_match(proxy_networks, ntohl(conn->sender_addr.sin_addr.s_addr))) {
    refuse(conn, "not a trusted load balancer");
    return;
  }
  auto* wait = new (std::nothrow) ProxyWait{};
  if (wait == nullptr) {
    close_connection(conn);
    return;
  }
  conn->proxy_wait.reset(wait);
  wait->timer.reset(timer_add(PROXY_HEADER_TIMEOUT, header_timeout, conn));
  comm_read(conn->sender_fd, header_handler, conn);
}
