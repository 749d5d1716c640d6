// Weak stand-ins for the scan modules that the relay and message reception
// call and that this branch does not have yet, so the smtp unit tests link.
// The real definitions override them; delete this file once they are merged.
#include "scan/convert.h"
#include "scan/dsn.h"
#include "scan/header.h"
#include "scan/spam.h"
#include "scan/vscan.h"

#define WEAK __attribute__((weak))

WEAK int stuff_file(const char*, int) {
  return -1;
}
WEAK void send_dsn(Connection*) {}
WEAK void spam_cancel(AsRequest*) {}
WEAK void vscan_cancel(VscanRequest*) {}
WEAK char* header_field_value(const char*, const char*) {
  return nullptr;
}
WEAK char* rfc822_date(const time_t*) {
  return nullptr;
}
WEAK int rfc822_tag(const char*, const char*, const char*) {
  return -1;
}
WEAK AsRequest* spam_scan(SpamHandler, void*, const char*, const char*, const char*, int64_t,
                          bool) {
  return nullptr;
}
WEAK VscanRequest* virus_scan(const char*, in_addr_t, in_addr_t, const char*, int, VscanHandler,
                              void*, bool) {
  return nullptr;
}
