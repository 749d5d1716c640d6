// Fuzzes the envelope address search: any line up to the command limit must
// give an address no longer than the line, without crashing or hanging.
#include <cstddef>
#include <cstdint>

#include "foundation/dlog.h"
#include "foundation/dstr.h"
#include "smtp/address.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet = [] {
    dlog_set_mode("addr_fuzz", 0);
    return true;
  }();
  (void)quiet;
  if (size > 4000) return 0;
  DstrPtr line(dstr_from_block(data, static_cast<int>(size)));
  DstrPtr domain(dstr_new(64)), address(dstr_new(64));
  addr_parse(line.get(), domain.get(), address.get());
  if (address->length > line->length || domain->length > address->length) __builtin_trap();
  return 0;
}
