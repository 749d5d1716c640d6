// The worker's signal handlers: flag setters for the main loop, and the crash
// handler that writes a report into the log before the signal ends the process.
#pragma once

#include <csignal>
#include <cstdio>

using SignalHandler = void (*)(int);
using SignalHandler2 = void (*)(int, siginfo_t*, void*);

// Install with sigaction and an empty mask; a failure ends the process (status 1).
void set_signal(int sig, SignalHandler handler, int flags);
void set_signal2(int sig, SignalHandler2 handler, int flags);

// Installs every handler of the worker (after the watchdog forked it).
void install_signal_handlers();
// Writes the crash report to log section 0; info and context may be null.
void crash_report(const char* tag, const siginfo_t* info, const void* context);
// The "Signal information" state-dump section.
void signal_dump(FILE* stream);
