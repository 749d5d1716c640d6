// Fuzzes a whole sender session: the input arrives in three pieces on a
// socketpair, then the sender half-closes. Whatever it sent, the session must
// end (no wedge), and nothing may crash or leak. Envelope lines reach the
// address search here too.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>

#include "event/comm.h"
#include "event/timer.h"
#include "foundation/dlog.h"
#include "smtp/config.h"
#include "smtp/smtp.h"

namespace {

void run_and_drain(int peer, int passes) {
  char buf[65536];
  for (int i = 0; i < passes; i++) {
    comm_run(0);
    while (read(peer, buf, sizeof buf) > 0) {
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  [[maybe_unused]] static const bool ready = [] {
    signal(SIGPIPE, SIG_IGN);
    dlog_set_mode("session_fuzz", 0);
    timer_init();
    comm_init(1024);
    read_config("/nonexistent/common.conf", "/nonexistent/proxy.conf");
    config.max_errors = 1000;  // let long inputs reach deep states
    command_line = dstr_new(COMMAND_LINE_CAPACITY);
    return true;
  }();
  int sv[2];
  if (size > 20000 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv) < 0) return 0;
  Connection* conn = new_connection();
  conn->sender_fd = sv[0];
  conn->sender_addr.sin_family = conn->receiver_addr.sin_family = AF_INET;
  conn->sender_addr.sin_addr.s_addr = htonl(0xc0000210);  // 192.0.2.16
  smtp_start_session(conn);
  for (size_t piece = 0, offset = 0; piece < 3; piece++) {
    size_t n = piece < 2 ? size / 3 : size - offset;
    if (n > 0 && write(sv[1], data + offset, n) < 0) break;
    offset += n;
    run_and_drain(sv[1], 4);
  }
  shutdown(sv[1], SHUT_WR);
  // A step of the dialogue may take a loop pass of its own (each reader
  // handles a bounded share per pass), so the bound grows with the input;
  // a wedged session outlives any of them.
  auto active = [conn] {
    for (Connection* c = active_connections; c != nullptr; c = c->next)
      if (c == conn) return true;
    return false;
  };
  for (size_t pass = 0; pass < 50 + size && active(); pass++) run_and_drain(sv[1], 1);
  if (active()) __builtin_trap();
  free_closed_connections();
  close(sv[1]);
  return 0;
}
