// Weak stand-ins for the scan modules that the relay calls and that this
// branch does not have yet, so the smtp unit tests link. The real
// definitions override them; delete this file once they are merged.
#include "scan/convert.h"
#include "scan/dsn.h"
#include "scan/spam.h"
#include "scan/vscan.h"

__attribute__((weak)) int stuff_file(const char*, int) {
  return -1;
}
__attribute__((weak)) void send_dsn(Connection*) {}
__attribute__((weak)) void spam_cancel(AsRequest*) {}
__attribute__((weak)) void vscan_cancel(VscanRequest*) {}
