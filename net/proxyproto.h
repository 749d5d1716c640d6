// The PROXY protocol header (version 1 text and version 2 binary) that a TCP
// load balancer sends before anything else on each connection, naming the
// client it accepted and the address the client connected to. A pure parser:
// it keeps no state and reads only the bytes it is given.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

// The longest header accepted: a version 1 line may not exceed 107 bytes; a
// version 2 header is 16 bytes and its announced length, which this bound
// keeps to what a load balancer's address block and usual TLVs need.
constexpr size_t PROXY_V1_MAX = 107;
constexpr size_t PROXY_HEADER_MAX = 16 + 1024;

enum class ProxyParse {
  INCOMPLETE,  // a prefix of a header that may still be valid: read more
  INVALID,     // not a header this receiver accepts; why says what is wrong
  DONE,        // a whole header of size bytes
};

enum class ProxyKind {
  CLIENT,  // a relayed client: src and dst are set (IPv4, network order)
  LOCAL,   // no client behind it: a version 2 LOCAL (health check) or "PROXY UNKNOWN"
};

struct ProxyHeader {
  size_t size = 0;  // bytes the header takes; anything after it is the client's
  int version = 0;  // 1 or 2
  ProxyKind kind = ProxyKind::LOCAL;
  sockaddr_in src{};  // the client
  sockaddr_in dst{};  // where the client connected
};

// Parses the header at the start of data[0..len). A v4-mapped IPv6 address is
// taken as IPv4; other IPv6 clients, UDP and Unix sockets are INVALID, since
// the proxy's sender records are IPv4. On INVALID, *why (when given) points
// at a constant text.
ProxyParse proxy_parse(const uint8_t* data, size_t len, ProxyHeader* out,
                       const char** why = nullptr);
