#include "foundation/dlog.h"

#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>

#include "foundation/dstr.h"
#include "foundation/dump.h"
#include "foundation/text.h"

namespace {

constexpr unsigned DLOG_INITIAL_LEVEL = 3;

std::array<unsigned, DLOG_MAX_SECTIONS> levels = [] {
  std::array<unsigned, DLOG_MAX_SECTIONS> a{};
  a.fill(DLOG_INITIAL_LEVEL);
  return a;
}();
unsigned default_level = DLOG_INITIAL_LEVEL;
unsigned mode = DLOG_MODE_SYSLOG;
char host_name[256];

}  // namespace

void vdlog(unsigned section, unsigned level, const char* format, va_list args) {
  if (section >= DLOG_MAX_SECTIONS) section = 0;
  if (level > DLOG_MAX_LEVEL) level = DLOG_MAX_LEVEL;
  if (level > levels[section]) return;

  // Both destinations expand %m from errno, so it must reach the second one
  // unchanged by the first.
  int saved = errno;
  if (mode & DLOG_MODE_STDERR) {
    va_list copy;
    va_copy(copy, args);
    vfprintf(stderr, format, copy);
    va_end(copy);
    errno = saved;
  }
  if (mode & DLOG_MODE_SYSLOG) vsyslog(LOG_ERR, format, args);
  errno = saved;
}

void dlog(unsigned section, unsigned level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  vdlog(section, level, format, args);
  va_end(args);
}

void dlog_init() {
  host_name[0] = '\0';
  gethostname(host_name, sizeof(host_name) - 1);
  dump_register(dlog_dump);
}

unsigned dlog_set_level(unsigned section, unsigned level) {
  if (level > DLOG_MAX_LEVEL) level = DLOG_MAX_LEVEL;
  if (section == 0) {
    levels.fill(level);
    default_level = level;
    return DLOG_MAX_SECTIONS;
  }
  // The table holds sections 0 to 98; anything beyond has no entry to set.
  if (section >= DLOG_MAX_SECTIONS) return DLOG_MAX_SECTIONS;
  levels[section] = level;
  return section;
}

unsigned dlog_get_level(unsigned section) {
  return levels[section < DLOG_MAX_SECTIONS ? section : 0];
}

unsigned dlog_set_mode(const char* ident, unsigned new_mode) {
  unsigned previous = mode;
  mode = new_mode;
  closelog();
  if (mode & DLOG_MODE_SYSLOG) openlog(ident, LOG_PID, LOG_LOCAL3);
  return previous;
}

unsigned dlog_get_mode() {
  return mode;
}

void set_log_levels(const char* text) {
  if (text == nullptr) return;
  DstrPtr value(dstr_from_cstr(text));
  if (!value) return;
  DstrListPtr tokens(dstr_split_set(value.get(), " \t,:;"));
  if (!tokens) return;
  // Every separator ends a token, so "1, 2" holds an empty token, which reads
  // as 0 and sets all sections to level 0 at that point of the list.
  for (int i = 0; i < tokens->count; i++) {
    long n = strtol(tokens->entries[i]->data, nullptr, 10);
    if (n < 0) n = 0;
    if (n > INT_MAX) n = INT_MAX;
    dlog_set_level(static_cast<unsigned>(n / 10), static_cast<unsigned>(n % 10));
  }
}

void dlog_event(int priority, const char* issueid, const char* name, const char* format, ...) {
  char when[24];
  time_t now = time(nullptr);
  struct tm tm;
  tzset();
  localtime_r(&now, &tm);
  strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", &tm);

  // The caller's format is spliced in whole; its directives are expanded by
  // vsyslog with the caller's arguments below.
  char* built = nullptr;
  xasprintf(&built, "id=Antivirus time=\"%s\" fw=%s pri=%d issueid=%s name=%s %s", when, host_name,
            priority, issueid, name, format);
  va_list args;
  va_start(args, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  vsyslog(priority, built, args);
#pragma GCC diagnostic pop
  va_end(args);
  free(built);
}

void dlog_dump(FILE* stream) {
  fprintf(stream, "DLOG DUMP:\n");
  fprintf(stream, "DLOG_MAX_SECTIONS %d DLOG_MAX_LEVEL %d default_level %d\n", DLOG_MAX_SECTIONS,
          DLOG_MAX_LEVEL, default_level);
  for (unsigned s = 0; s < DLOG_MAX_SECTIONS; s++)
    if (levels[s] != default_level) fprintf(stream, "S %d L %d\n", s, levels[s]);
}
