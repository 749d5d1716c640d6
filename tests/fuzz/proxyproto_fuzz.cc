// Fuzzes the PROXY header parser: it stays within the bytes and the bound, and
// no prefix of the input (as a socket delivers it) gets a different verdict.
#include <cstddef>
#include <cstdint>

#include "net/proxyproto.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ProxyHeader whole;
  const ProxyParse r = proxy_parse(data, size, &whole);
  if (r == ProxyParse::DONE && (whole.size > size || whole.size > PROXY_HEADER_MAX))
    __builtin_trap();
  for (size_t cut = 0; cut < size; cut++) {
    ProxyHeader part;
    const ProxyParse p = proxy_parse(data, cut, &part);
    // A prefix may not be taken as a header other than the one in the whole.
    if (p == ProxyParse::DONE && (r != ProxyParse::DONE || part.size != whole.size))
      __builtin_trap();
    if (p == ProxyParse::INVALID && r != ProxyParse::INVALID) __builtin_trap();
  }
  return 0;
}
