// The sectioned diagnostic log: one call, a per-section level table and two
// destinations (standard error, syslog) chosen by mode bits; plus structured
// syslog events for the appliance's log collector. Process-wide state.
#pragma once

#include <cstdarg>
#include <cstdio>

constexpr unsigned DLOG_MAX_SECTIONS = 99;
constexpr unsigned DLOG_MAX_LEVEL = 9;

constexpr unsigned DLOG_MODE_STDERR = 1;
constexpr unsigned DLOG_MODE_SYSLOG = 2;

// Log sections: which module speaks.
enum DlogSection : unsigned {
  DLOG_CRASH = 0,
  DLOG_MAIN = 1,
  DLOG_WATCHDOG = 4,
  DLOG_INI = 5,
  DLOG_COMM = 6,
  DLOG_SIGNAL = 8,
  DLOG_TIMER = 9,
  DLOG_UTIL = 12,
  DLOG_DUMP = 13,
  DLOG_VSCAN = 14,
  DLOG_HEADER = 18,
  DLOG_SPAM = 19,
  DLOG_CHUNK = 20,
  DLOG_BASE64 = 21,
  DLOG_SMTP = 50,
  DLOG_DOTSTUFF = 55,
};

// Writes format when level is within the section's level. Keeps errno, so %m
// names the caller's error. Safe to call before dlog_init.
void dlog(unsigned section, unsigned level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void vdlog(unsigned section, unsigned level, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// Fills the host name used by events and registers the dump section.
void dlog_init();
// Section 0 sets every section (and the default level) and returns 99.
unsigned dlog_set_level(unsigned section, unsigned level);
unsigned dlog_get_level(unsigned section);
// Installs a new mode and returns the previous one; ident is kept by syslog
// and must outlive the process's use of syslog.
unsigned dlog_set_mode(const char* ident, unsigned mode);
unsigned dlog_get_mode();
// Applies a list of level settings such as "69,509,12" (the `debug` key).
void set_log_levels(const char* text);
void dlog_event(int priority, const char* issueid, const char* name, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
void dlog_dump(FILE* stream);
