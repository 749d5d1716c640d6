#include <getopt.h>
#include <linux/capability.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "control/control.h"
#include "daemon/signals.h"
#include "daemon/util.h"
#include "daemon/vigild.h"
#include "daemon/watchdog.h"
#include "event/comm.h"
#include "event/timer.h"
#include "foundation/dlog.h"
#include "foundation/dump.h"
#include "foundation/text.h"
#include "net/tproxy.h"
#include "scan/clamd.h"
#include "scan/spam.h"
#include "scan/spool.h"
#include "scan/vscan.h"
#include "smtp/config.h"
#include "smtp/smtp.h"

StartupOptions startup_options;
volatile sig_atomic_t shutdown_requested = 0;
volatile sig_atomic_t dump_requested = 0;
volatile sig_atomic_t usr1_requested = 0;

namespace {

constexpr const char* USAGE_TEXT =
    "usage: %s [-dfke] [-n max_fds] [-c config_file][-v num] [-p config_file] [-z "
    "dump_file]\nk: disable cleanup\ne: log to stderr\ns: don't log to syslog\nd: Don't become a "
    "daemon\nv ssl: Set log section/level 563 --> section 56 level 3.\n       6 or 006 --> All "
    "sections, level 6.c config_file: Name of alternate common configuration file\nz dump_file: "
    "Name of alternate dump file\np config_file: Name of alternate proxy configuration file\n";

// Descriptors kept beside three per sender (sender, backend, scan file).
constexpr int RESERVED_FDS = 20;
constexpr int MIN_FDS = 1024;

void replace_string(char** field, const char* value) {
  free(*field);
  *field = strdup(value);
}

void pre_init() {
  fatal_set_shutdown(proxy_shutdown);
  dlog_init();
  dlog_set_level(0, 3);
  xasprintf(&startup_options.pid_file, "/var/run/%s.pid", startup_options.program_name);
  dump_register(signal_dump);
  timer_init();
}

void proxy_init(const char* common_file, const char* proxy_file) {
  config_clear_lists();
  read_config(common_file, proxy_file);
  cleanup_scan_dir(config.scan_dir, config.scan_prefix);
  spool_probe_dir(config.scan_dir);

  // clamd's scans each stream over a connection of their own, beside a probe.
  int scanner_fds = config.scanner_protocol == VscanProtocol::CLAMD ? CLAMD_MAX_STREAMS + 1 : 0;
  int wanted = 3 * config.max_connections + config.as_connections + scanner_fds + RESERVED_FDS;
  if (wanted < MIN_FDS) wanted = MIN_FDS;
  config.num_fds = comm_init(wanted);
  int fit = (config.num_fds - config.as_connections - scanner_fds - RESERVED_FDS) / 3;
  if (fit < config.max_connections) config.max_connections = fit;
  dlog(DLOG_SMTP, 7, "config.num_fds=%d max_connections %d\n", config.num_fds,
       config.max_connections);
  if (config.max_connections < 1) fatal_exit("No connections available.\n");

  char host[256];
  if (gethostname(host, sizeof(host)) == 0) {
    host[sizeof(host) - 1] = '\0';
    config_set_string(&config.my_domain, host);
  } else {
    dlog(DLOG_SMTP, 1, "Error in gethostname: %m\n");
  }

  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(config.listen_addr);
  address.sin_port = htons(config.listen_port);
  listen_fd = make_listen_socket(&address, config.listen_backlog);
  if (listen_fd < 0) fatal_exit("Can't initialize listen fd. %m\n");
  // Made while still root: its directory (/var/run) is root's.
  ctrl_fd = ctrl_init(config.ctrl_socket_path, ctrl_read_handler);
  if (ctrl_fd < 0) fatal_exit("Can't initialize ctrl socket. %m\n");

  // A dump runs its sections newest registration first, so this order puts
  // the connections before the virus scanner client and both before the
  // event loop, the timers, the signals and the log registered earlier.
  if (config.scanner_protocol == VscanProtocol::CLAMD)
    vs_init(config.clamd_socket, 1, VscanProtocol::CLAMD);
  else
    vs_init(config.scanner_addr, 1);
  // Going on as root after a failed switch would hand root to whoever finds
  // a flaw in the parsing of what senders send.
  // Binding to a sender's address needs CAP_NET_RAW (or CAP_NET_ADMIN): the
  // smaller of the two is all that is kept, and only in that mode.
  const bool mainline =
      config.address_transparent && config.transparent_method == TransparentMethod::MAINLINE;
  if (set_user_group(config.user, config.group, mainline ? CAP_NET_RAW : -1) != 0)
    fatal_exit("Can't switch to user %s and group %s.\n", config.user, config.group);
  smtp_init_listener();
  if (config.antispam_protocol == SpamProtocol::NATIVE)
    spam_init(config.antispam_addr, config.as_connections);
  else
    spam_init_remote(config.antispam_protocol, config.antispam_addr, config.as_connections,
                     config.spam_reject_score);
}

}  // namespace

void usage() {
  fprintf(stderr, USAGE_TEXT, startup_options.program_name);
  exit(1);
}

void parse_args(int argc, char** argv) {
  int c;
  while ((c = getopt(argc, argv, "v:n:c:dkep:sz:")) != -1) {
    switch (c) {
      case 'c':
        replace_string(&startup_options.common_config_file, optarg);
        break;
      case 'p':
        replace_string(&startup_options.proxy_config_file, optarg);
        break;
      case 'z':
        replace_string(&startup_options.dump_file, optarg);
        break;
      case 'v': {
        long n = strtol(optarg, nullptr, 10);
        if (n < 0) n = 0;
        dlog_set_level(static_cast<unsigned>(n / 10), static_cast<unsigned>(n % 10));
        break;
      }
      case 'd':
        startup_options.no_daemon = true;
        break;
      case 'k':
        startup_options.cleanup_disabled = true;
        break;
      case 'e':
        startup_options.log_flags |= DLOG_MODE_STDERR;
        break;
      case 's':
        startup_options.log_flags &= ~DLOG_MODE_SYSLOG;
        break;
      default:  // -n is accepted by the syntax but not supported
        usage();
    }
  }
  dlog_set_mode(startup_options.program_name, startup_options.log_flags);
}

void proxy_shutdown(int status) {
  ctrl_close(ctrl_fd, config.ctrl_socket_path);
  ctrl_fd = -1;
  if (listen_fd >= 0) {
    comm_clear_fd(listen_fd, 3);
    close(listen_fd);
    listen_fd = -1;
  }
  smtp_close_all();
  free_closed_connections();
  // After the connections: any scan request one of them still held is freed
  // here with the clients' sockets and timers, and nothing refers to it.
  vs_shutdown();
  spam_shutdown();
  if (config.scan_dir != nullptr) cleanup_scan_dir(config.scan_dir, config.scan_prefix);
  exit(status);
}

void main_loop() {
  while (!shutdown_requested) {
    comm_run(timer_next_timeout());
    timer_run();
    free_closed_connections();
    if (usr1_requested) usr1_requested = 0;
    if (dump_requested) {
      dump_requested = 0;
      dump_state(startup_options.dump_file);
    }
  }
  proxy_shutdown(0);
}

int vigild_main(int argc, char** argv) {
  set_signal(SIGUSR1, SIG_IGN, 0);
  set_signal(SIGUSR2, SIG_IGN, 0);
  const char* slash = strrchr(argv[0], '/');
  startup_options.program_name = strdup(slash != nullptr ? slash + 1 : argv[0]);
  pre_init();
  parse_args(argc, argv);
  if (!startup_options.no_daemon) watchdog(startup_options.pid_file);
  if (startup_options.dump_file == nullptr)
    xasprintf(&startup_options.dump_file, "/var/support/dump.%s.%d.txt",
              startup_options.program_name, static_cast<int>(getpid()));
  unlink(startup_options.dump_file);
  install_signal_handlers();
  dlog(DLOG_MAIN, 9, "Version %s\n", VIGILD_VERSION);
  dlog(DLOG_MAIN, 5, "Starting proxy\n");
  detect_layer2();
  proxy_init(startup_options.common_config_file, startup_options.proxy_config_file);
  main_loop();
  fatal_exit("Proxy returned?\n");
  return 1;
}
