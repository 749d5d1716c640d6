// The one way out on an unrecoverable condition (out of memory, a broken
// invariant, a missing essential socket). It sits at the bottom so every layer
// can reach it; the daemon installs its orderly shutdown as the exit path.
#pragma once

// Logs the message and "Shuting down due to the above error.\n" (section 50,
// level 0), then calls the installed shutdown with status 1. Never returns.
[[noreturn]] void fatal_exit(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The installed function must not return; until one is installed fatal_exit
// ends the process with exit(1).
using FatalShutdown = void (*)(int status);
void fatal_set_shutdown(FatalShutdown shutdown);
