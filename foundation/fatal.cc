#include "foundation/fatal.h"

#include <cstdarg>
#include <cstdlib>

#include "foundation/dlog.h"

namespace {
FatalShutdown installed_shutdown = nullptr;
}  // namespace

void fatal_set_shutdown(FatalShutdown shutdown) {
  installed_shutdown = shutdown;
}

void fatal_exit(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vdlog(DLOG_SMTP, 0, format, args);
  va_end(args);
  dlog(DLOG_SMTP, 0, "Shuting down due to the above error.\n");
  if (installed_shutdown != nullptr) installed_shutdown(1);
  exit(1);
}
