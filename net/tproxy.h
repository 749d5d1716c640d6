// Transparent interception: the Layer 2 (bridge) flag, binding a backend
// socket to a usable local address, and the operations of the appliance
// kernel's TPROXY_OXB_AT socket option that tie a sender connection to its
// backend connection. Keeps no state besides layer2_mode.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

// Set by detect_layer2; read by the settings reader, which then forces
// address_transparent on.
extern bool layer2_mode;

constexpr const char* LAYER2_FLAG_FILE = "/etc/sysconfig/bridge";

// 1 (and layer2_mode set, logged) when flag_file exists; it is never read.
// Start-up calls it before read_config.
int detect_layer2(const char* flag_file = LAYER2_FLAG_FILE);

// Option numbers at level SOL_IP: the setting operations use TPROXY_OXB_AT,
// the reading one TPROXY_OXB_AT_GET.
constexpr int TPROXY_OXB_AT = 200;
constexpr int TPROXY_OXB_AT_GET = 201;

enum TproxyOp : int32_t {
  TPROXY_OP_CTL = 0,
  TPROXY_OP_P2S = 1,
  TPROXY_OP_S2P = 2,
  TPROXY_OP_S2C = 3,
  TPROXY_OP_C2P = 4,
};

// The record exchanged with the kernel; its layout is the kernel's ABI.
// Addresses are sockaddr_in as the socket calls use them (network order);
// fd and op are host-order integers.
struct TproxyAssoc {
  sockaddr_in src;     // the sender (peer of the accepted connection)
  sockaddr_in dst;     // where the sender was going (the intercepted server)
  sockaddr_in local;   // local address of the backend connection
  int32_t fd;          // CTL: descriptor of the accepted sender connection
  sockaddr_in result;  // written by the kernel for S2P and C2P
  int32_t op;          // TproxyOp
};
static_assert(sizeof(TproxyAssoc) == 72);
static_assert(offsetof(TproxyAssoc, fd) == 48 && offsetof(TproxyAssoc, result) == 52 &&
              offsetof(TproxyAssoc, op) == 68);

// Each returns 0 on success and 1 when the kernel refuses (logged); on a
// kernel without the facility every call fails.
// Reads the local address the kernel chose for src -> dst into *local.
int tproxy_ctl_get(int sock, const sockaddr_in* src, const sockaddr_in* dst, sockaddr_in* local);
int tproxy_ctl_set(int sock, int fd, const sockaddr_in* src, const sockaddr_in* dst,
                   const sockaddr_in* local);
int tproxy_p2s(int sock, int fd, const sockaddr_in* src, const sockaddr_in* dst,
               const sockaddr_in* local);
int tproxy_s2c(int sock, int fd, const sockaddr_in* src, const sockaddr_in* dst,
               const sockaddr_in* local);
// *found is 1 when the kernel reported an entry (setsockopt returned 1); only
// then is *result written.
int tproxy_s2p(int sock, int fd, const sockaddr_in* src, const sockaddr_in* dst,
               const sockaddr_in* local, int* found, sockaddr_in* result);
int tproxy_c2p(int sock, int fd, const sockaddr_in* src, const sockaddr_in* dst,
               const sockaddr_in* local, int* found, sockaddr_in* result);

// Binds sock to *address (an address of 0 means the first interface that is
// up, broadcast-capable and not loopback, keeping the port) and reads the
// bound address back into it. Returns 0, -1 when no local address exists, or
// the errno of the failed bind (after which the routing table is reloaded).
int bind_local(int sock, sockaddr_in* address);

// Mainline transparent proxying: marks sock IP_TRANSPARENT and binds it to
// source's address, the port left to the kernel at connect time (a fixed one
// could collide with the intercepted connection, whose ports are the
// sender's). Needs CAP_NET_RAW or CAP_NET_ADMIN. 0, or -1 with errno set.
int bind_foreign(int sock, const sockaddr_in* source);

// Test seam: replaces the socket-option calls (null restores the real ones),
// so the record handling can be checked without the kernel facility.
using TproxyGetsockopt = int (*)(int, int, int, void*, socklen_t*);
using TproxySetsockopt = int (*)(int, int, int, const void*, socklen_t);
void tproxy_set_sockopt_calls(TproxyGetsockopt get, TproxySetsockopt set);
