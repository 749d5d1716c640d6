#include "net/proxyproto.h"

#include <arpa/inet.h>

#include <array>
#include <cstring>
#include <string_view>

namespace {

constexpr std::array<uint8_t, 12> V2_SIGNATURE = {0x0D, 0x0A, 0x0D, 0x0A, 0x00, 0x0D,
                                                  0x0A, 0x51, 0x55, 0x49, 0x54, 0x0A};
constexpr std::string_view V1_PREFIX = "PROXY ";
constexpr uint8_t V2_LOCAL = 0x20, V2_PROXY = 0x21;
constexpr uint8_t V2_UNSPEC = 0x00, V2_TCP4 = 0x11, V2_TCP6 = 0x21;

ProxyParse invalid(const char** why, const char* text) {
  if (why != nullptr) *why = text;
  return ProxyParse::INVALID;
}

// The first n bytes of data equal those of expected (n is the shorter length).
bool prefix_matches(const uint8_t* data, size_t len, const void* expected, size_t size) {
  return memcmp(data, expected, len < size ? len : size) == 0;
}

sockaddr_in make_addr(const void* addr4, uint16_t port_network_order) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  memcpy(&a.sin_addr, addr4, 4);
  a.sin_port = port_network_order;
  return a;
}

// An IPv6 address that carries an IPv4 one (::ffff:a.b.c.d): its last 4 bytes.
const uint8_t* mapped_ipv4(const uint8_t* addr16) {
  static constexpr uint8_t prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  return memcmp(addr16, prefix, sizeof prefix) == 0 ? addr16 + 12 : nullptr;
}

bool parse_port(std::string_view text, uint16_t* out) {
  if (text.empty() || text.size() > 5) return false;
  unsigned value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  if (value > 65535) return false;
  *out = htons(static_cast<uint16_t>(value));
  return true;
}

// One v1 address in the line's family; IPv6 only as a mapped IPv4 address.
bool parse_v1_addr(std::string_view text, bool ipv6, uint8_t out[4]) {
  char buf[INET6_ADDRSTRLEN];
  if (text.size() >= sizeof buf) return false;
  memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  if (!ipv6) return inet_pton(AF_INET, buf, out) == 1;
  uint8_t addr16[16];
  const uint8_t* v4 = inet_pton(AF_INET6, buf, addr16) == 1 ? mapped_ipv4(addr16) : nullptr;
  if (v4 != nullptr) memcpy(out, v4, 4);
  return v4 != nullptr;
}

// "PROXY TCP4 <src> <dst> <srcport> <dstport>\r\n", fields one space apart.
ProxyParse parse_v1(const uint8_t* data, size_t len, ProxyHeader* out, const char** why) {
  const size_t scan = len < PROXY_V1_MAX ? len : PROXY_V1_MAX;
  const auto* text = reinterpret_cast<const char*>(data);
  size_t end = 0;
  while (end < scan && text[end] != '\n') end++;
  if (end == scan) {
    if (scan == PROXY_V1_MAX) return invalid(why, "version 1 line too long");
    return ProxyParse::INCOMPLETE;
  }
  if (end == 0 || text[end - 1] != '\r') return invalid(why, "version 1 line without CR LF");
  std::string_view line(text + V1_PREFIX.size(), end - 1 - V1_PREFIX.size());
  out->size = end + 1;
  out->version = 1;
  if (line.starts_with("UNKNOWN")) {
    out->kind = ProxyKind::LOCAL;
    return ProxyParse::DONE;
  }
  std::array<std::string_view, 5> field;
  size_t n = 0;
  for (size_t i = 0;; i++) {
    const size_t space = line.find(' ', i);
    if (n == field.size()) return invalid(why, "version 1 line with a wrong number of fields");
    field[n++] = line.substr(i, space - i);  // to the end when there is no space
    if (space == line.npos) break;
    i = space;
  }
  if (n != field.size()) return invalid(why, "version 1 line with a wrong number of fields");
  if (field[0] != "TCP4" && field[0] != "TCP6")
    return invalid(why, "version 1 protocol not TCP4, TCP6 or UNKNOWN");
  const bool ipv6 = field[0] == "TCP6";
  uint8_t src[4], dst[4];
  uint16_t sport, dport;
  if (!parse_v1_addr(field[1], ipv6, src) || !parse_v1_addr(field[2], ipv6, dst))
    return invalid(why, "version 1 address not IPv4");
  if (!parse_port(field[3], &sport) || !parse_port(field[4], &dport))
    return invalid(why, "version 1 port not a number from 0 to 65535");
  out->kind = ProxyKind::CLIENT;
  out->src = make_addr(src, sport);
  out->dst = make_addr(dst, dport);
  return ProxyParse::DONE;
}

// 12-byte signature, version/command, family, 16-bit length, addresses, TLVs.
ProxyParse parse_v2(const uint8_t* data, size_t len, ProxyHeader* out, const char** why) {
  if (len < 16) return ProxyParse::INCOMPLETE;
  const uint8_t command = data[12], family = data[13];
  const size_t size = 16 + (static_cast<size_t>(data[14]) << 8 | data[15]);
  if (command != V2_LOCAL && command != V2_PROXY)
    return invalid(why, "version 2 with an unknown version or command");
  if (size > PROXY_HEADER_MAX) return invalid(why, "version 2 header too long");
  if (len < size) return ProxyParse::INCOMPLETE;
  out->size = size;
  out->version = 2;
  out->kind = ProxyKind::LOCAL;
  // A LOCAL header's address block, whatever it holds, means nothing.
  if (command == V2_LOCAL || family == V2_UNSPEC) return ProxyParse::DONE;
  const uint8_t* a = data + 16;
  const uint8_t *src, *dst, *ports;
  if (family == V2_TCP4) {
    if (size < 16 + 12) return invalid(why, "version 2 address block too short");
    src = a, dst = a + 4, ports = a + 8;
  } else if (family == V2_TCP6) {
    if (size < 16 + 36) return invalid(why, "version 2 address block too short");
    src = mapped_ipv4(a), dst = mapped_ipv4(a + 16), ports = a + 32;
    if (src == nullptr || dst == nullptr) return invalid(why, "version 2 address not IPv4");
  } else {
    return invalid(why, "version 2 family not TCP");
  }
  uint16_t sport, dport;
  memcpy(&sport, ports, 2);
  memcpy(&dport, ports + 2, 2);
  out->kind = ProxyKind::CLIENT;
  out->src = make_addr(src, sport);
  out->dst = make_addr(dst, dport);
  return ProxyParse::DONE;
}

}  // namespace

ProxyParse proxy_parse(const uint8_t* data, size_t len, ProxyHeader* out, const char** why) {
  *out = ProxyHeader{};
  if (len == 0) return ProxyParse::INCOMPLETE;
  // Which version is decided by the first byte; every byte seen so far must
  // still fit, so a sender that talks SMTP is refused at once.
  if (data[0] == V1_PREFIX[0]) {
    if (!prefix_matches(data, len, V1_PREFIX.data(), V1_PREFIX.size()))
      return invalid(why, "no PROXY header");
    return len < V1_PREFIX.size() ? ProxyParse::INCOMPLETE : parse_v1(data, len, out, why);
  }
  if (!prefix_matches(data, len, V2_SIGNATURE.data(), V2_SIGNATURE.size()))
    return invalid(why, "no PROXY header");
  return parse_v2(data, len, out, why);
}
