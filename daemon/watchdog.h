// The watchdog parent: detaches, waits out an earlier instance, forks the
// worker and restarts it with a growing delay when it fails. Also the pid file.
#pragma once

#include <ctime>

// Returns only in the worker process; the watchdog itself ends with exit().
void watchdog(const char* pid_file);
// 1 if a live process owns the pid file; otherwise 0 and a stale file is removed.
int check_previous(const char* pid_file);
void write_pid_file(const char* pid_file);
// Seconds to wait before the next restart, given how long the worker ran and
// the count of quick failures in a row (updated).
int watchdog_restart_delay(time_t ran_for, int* quick_failures);
