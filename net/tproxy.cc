#include "net/tproxy.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/dlog.h"
#include "net/route.h"

bool layer2_mode = false;

namespace {

// On a stock kernel these option numbers belong to multicast routing, which
// refuses anything but a raw IGMP socket; so without the appliance's facility
// every call below fails and is reported like any other refusal.
TproxyGetsockopt get_option = getsockopt;
TproxySetsockopt set_option = setsockopt;

TproxyAssoc make_assoc(int fd, const sockaddr_in* src, const sockaddr_in* dst,
                       const sockaddr_in* local, TproxyOp op) {
  TproxyAssoc a;
  memset(&a, 0, sizeof a);
  if (src != nullptr) a.src = *src;
  if (dst != nullptr) a.dst = *dst;
  if (local != nullptr) a.local = *local;
  a.fd = fd;
  a.op = op;
  return a;
}

int set_assoc(int sock, TproxyAssoc* a, const char* op_name) {
  int rc = set_option(sock, SOL_IP, TPROXY_OXB_AT, a, sizeof *a);
  if (rc < 0) {
    dlog(DLOG_UTIL, 9, "TPROXY_OXB_AT %s error: %m\n", op_name);
    return -1;
  }
  return rc;
}

// The plain setting operations: success is any non-negative result.
int set_simple(int sock, int fd, const sockaddr_in* src, const sockaddr_in* dst,
               const sockaddr_in* local, TproxyOp op, const char* op_name) {
  TproxyAssoc a = make_assoc(fd, src, dst, local, op);
  return set_assoc(sock, &a, op_name) < 0 ? 1 : 0;
}

// The looking-up operations: the kernel answers 1 when it found an entry and
// writes it into the record's result.
int set_lookup(int sock, int fd, const sockaddr_in* src, const sockaddr_in* dst,
               const sockaddr_in* local, TproxyOp op, const char* op_name, int* found,
               sockaddr_in* result) {
  TproxyAssoc a = make_assoc(fd, src, dst, local, op);
  int rc = set_assoc(sock, &a, op_name);
  if (rc < 0) return 1;
  *found = rc == 1 ? 1 : 0;
  if (*found) *result = a.result;
  return 0;
}

}  // namespace

void tproxy_set_sockopt_calls(TproxyGetsockopt get, TproxySetsockopt set) {
  get_option = get != nullptr ? get : getsockopt;
  set_option = set != nullptr ? set : setsockopt;
}

int detect_layer2(const char* flag_file) {
  if (access(flag_file, F_OK) != 0) return 0;
  dlog(DLOG_UTIL, 1, "The proxy is running in Layer 2 mode\n");
  layer2_mode = true;
  return 1;
}

int tproxy_ctl_get(int sock, const sockaddr_in* src, const sockaddr_in* dst, sockaddr_in* local) {
  TproxyAssoc a = make_assoc(0, src, dst, nullptr, TPROXY_OP_CTL);
  socklen_t len = sizeof a;
  if (get_option(sock, SOL_IP, TPROXY_OXB_AT_GET, &a, &len) < 0) {
    dlog(DLOG_UTIL, 9, "TPROXY_OXB_AT CTL error: %m\n");
    return 1;
  }
  *local = a.local;
  return 0;
}

int tproxy_ctl_set(int sock, int fd, const sockaddr_in* src, const sockaddr_in* dst,
                   const sockaddr_in* local) {
  return set_simple(sock, fd, src, dst, local, TPROXY_OP_CTL, "CTL");
}

int tproxy_p2s(int sock, int fd, const sockaddr_in* src, const sockaddr_in* dst,
               const sockaddr_in* local) {
  return set_simple(sock, fd, src, dst, local, TPROXY_OP_P2S, "P2S");
}

int tproxy_s2c(int sock, int fd, const sockaddr_in* src, const sockaddr_in* dst,
               const sockaddr_in* local) {
  return set_simple(sock, fd, src, dst, local, TPROXY_OP_S2C, "S2C");
}

int tproxy_s2p(int sock, int fd, const sockaddr_in* src, const sockaddr_in* dst,
               const sockaddr_in* local, int* found, sockaddr_in* result) {
  return set_lookup(sock, fd, src, dst, local, TPROXY_OP_S2P, "S2P", found, result);
}

int tproxy_c2p(int sock, int fd, const sockaddr_in* src, const sockaddr_in* dst,
               const sockaddr_in* local, int* found, sockaddr_in* result) {
  return set_lookup(sock, fd, src, dst, local, TPROXY_OP_C2P, "C2P", found, result);
}

int bind_local(int sock, sockaddr_in* address) {
  address->sin_family = AF_INET;
  if (address->sin_addr.s_addr == 0) {
    const sockaddr_in* first = first_local_addr();
    if (first == nullptr || first->sin_addr.s_addr == 0) {
      dlog(DLOG_UTIL, 1, "Couldn't find a local addr.\n");
      return -1;
    }
    address->sin_addr = first->sin_addr;
  }
  if (bind(sock, reinterpret_cast<const sockaddr*>(address), sizeof *address) == 0) {
    socklen_t len = sizeof *address;
    if (getsockname(sock, reinterpret_cast<sockaddr*>(address), &len) != 0)
      dlog(DLOG_UTIL, 1, "getsockname after bind: %m\n");
    return 0;
  }
  int error = errno;
  dlog(DLOG_UTIL, 5, "Unable to bind to address %s, port %d. %m\n", inet_ntoa(address->sin_addr),
       ntohs(address->sin_port));
  // A bind that fails usually means the interfaces changed under us; the
  // retry should see the new routes.
  routes_reload();
  return error;
}

int bind_foreign(int sock, const sockaddr_in* source) {
  const int one = 1;
  if (setsockopt(sock, SOL_IP, IP_TRANSPARENT, &one, sizeof one) != 0) return -1;
  // Best effort: without it bind picks the port at once, which only narrows
  // the ports a busy sender's connections can share.
  setsockopt(sock, SOL_IP, IP_BIND_ADDRESS_NO_PORT, &one, sizeof one);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr = source->sin_addr;
  return bind(sock, reinterpret_cast<const sockaddr*>(&local), sizeof local);
}
