// The daemon's entry point: command-line options, start-up order, the main
// loop, and the two ways the process ends on its own (proxy_shutdown, fatal_exit).
#pragma once

#include <csignal>

#include "foundation/fatal.h"

struct StartupOptions {
  char* program_name = nullptr;        // last path component of argv[0]
  bool no_daemon = false;              // -d
  char* common_config_file = nullptr;  // -c; null means VIGILD_COMMON_CONFIG
  char* proxy_config_file = nullptr;   // -p; null means VIGILD_PROXY_CONFIG
  char* dump_file = nullptr;           // -z; filled at start-up when null
  char* pid_file = nullptr;            // "/var/run/<program>.pid"
  bool cleanup_disabled = false;       // -k
  unsigned log_flags = 2;              // 2 = syslog, 1 = standard error
};

extern StartupOptions startup_options;

// Set by signal handlers, acted on by the main loop between passes.
extern volatile sig_atomic_t shutdown_requested;
extern volatile sig_atomic_t dump_requested;
extern volatile sig_atomic_t usr1_requested;

// Parses the command line; a bad option prints the usage text and exits 1.
void parse_args(int argc, char** argv);
[[noreturn]] void usage();

// Closes the control socket, the listener and every connection, cleans the scan
// directory and exits with status.
[[noreturn]] void proxy_shutdown(int status);

// Runs passes of the poll loop and timers until a termination signal.
void main_loop();

// The whole start-up sequence and the main loop; returns only if the loop does.
int vigild_main(int argc, char** argv);
