#include "foundation/dump.h"

#include <cerrno>
#include <ctime>
#include <memory>

#include "foundation/dlog.h"

namespace {

struct Contributor {
  DumpFunction function;
  std::unique_ptr<Contributor> next;
};

// Newest first: a dump shows the modules in reverse order of registration.
std::unique_ptr<Contributor> contributors;
DumpClock dump_clock = nullptr;

constexpr const char* SEPARATOR =
    "**********************************************************************\n";

}  // namespace

void dump_set_clock(DumpClock clock) {
  dump_clock = clock;
}

void dump_register(DumpFunction function) {
  contributors = std::make_unique<Contributor>(Contributor{function, std::move(contributors)});
}

void dump_state(const char* name) {
  if (name == nullptr) name = DUMP_DEFAULT_FILE;
  dlog(DLOG_DUMP, 1, "Dumping state to %s\n", name);
  int saved = errno;
  FILE* stream = fopen(name, "w");
  if (stream == nullptr) {
    dlog(DLOG_DUMP, 0, "Can't open dump file %s: %m\n", name);
    return;
  }
  time_t now = dump_clock != nullptr ? dump_clock() : time(nullptr);
  fprintf(stream, "Dump started at %s\n", ctime(&now));
  errno = saved;  // the dump reports the errno the daemon had, not fopen's
  fprintf(stream, "errno: %m\n");
  for (const Contributor* c = contributors.get(); c != nullptr; c = c->next.get()) {
    c->function(stream);
    fputs(SEPARATOR, stream);
  }
  fclose(stream);
}
