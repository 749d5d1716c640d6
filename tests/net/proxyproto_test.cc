#include "net/proxyproto.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using std::string;
using namespace std::string_literals;

// A version 2 header: signature, command, family, length, then body.
string v2(uint8_t command, uint8_t family, const string& body) {
  string h("\r\n\r\n\0\r\nQUIT\n", 12);
  h += static_cast<char>(command);
  h += static_cast<char>(family);
  h += static_cast<char>(body.size() >> 8);
  h += static_cast<char>(body.size() & 0xff);
  return h + body;
}
const string TCP4 = string("\x7f\x00\x01\x0a\x7f\x00\x00\x02\x30\x39\x00\x19", 12);
const string MAPPED6 = string(10, '\0') + "\xff\xff\x7f\x00\x01\x0a"s + string(10, '\0') +
                       "\xff\xff\x7f\x00\x00\x02\x30\x39\x00\x19"s;
const string TLV = string(
    "\x04\x00\x03"
    "abc",
    6);

struct Case {
  const char* label;
  string input;
  ProxyParse result;
  size_t size = 0;     // DONE: the header's length
  bool client = true;  // DONE: a client, 127.0.1.10:12345 -> 127.0.0.2:25
};

const Case CASES[] = {
    {"v1 tcp4, SMTP after it", "PROXY TCP4 127.0.1.10 127.0.0.2 12345 25\r\nEHLO x\r\n",
     ProxyParse::DONE, 42},
    {"v1 tcp6 mapped", "PROXY TCP6 ::ffff:127.0.1.10 ::ffff:127.0.0.2 12345 25\r\n",
     ProxyParse::DONE, 56},
    {"v1 unknown", "PROXY UNKNOWN ffff::1 ffff::2 1 2\r\n", ProxyParse::DONE, 35, false},
    {"v1 cut", "PROXY TCP4 127.0.1.10 127.0", ProxyParse::INCOMPLETE},
    {"v1 prefix only", "PRO", ProxyParse::INCOMPLETE},
    {"smtp instead", "EHLO client\r\n", ProxyParse::INVALID},
    {"v1 bare LF", "PROXY TCP4 127.0.1.10 127.0.0.2 12345 25\n", ProxyParse::INVALID},
    {"v1 four fields", "PROXY TCP4 127.0.1.10 127.0.0.2 12345\r\n", ProxyParse::INVALID},
    {"v1 double space", "PROXY TCP4 127.0.1.10  127.0.0.2 1 25\r\n", ProxyParse::INVALID},
    {"v1 port too big", "PROXY TCP4 127.0.1.10 127.0.0.2 65536 25\r\n", ProxyParse::INVALID},
    {"v1 bad address", "PROXY TCP4 127.0.1 127.0.0.2 1 25\r\n", ProxyParse::INVALID},
    {"v1 real ipv6", "PROXY TCP6 2001:db8::1 2001:db8::2 1 25\r\n", ProxyParse::INVALID},
    {"v1 106 bytes", "PROXY " + string(100, 'x'), ProxyParse::INCOMPLETE},
    {"v1 107 bytes", "PROXY " + string(101, 'x'), ProxyParse::INVALID},
    {"v2 tcp4 with TLV, SMTP after it", v2(0x21, 0x11, TCP4 + TLV) + "EHLO x\r\n", ProxyParse::DONE,
     16 + 18},
    {"v2 tcp6 mapped", v2(0x21, 0x21, MAPPED6), ProxyParse::DONE, 16 + 36},
    {"v2 local", v2(0x20, 0x11, TCP4), ProxyParse::DONE, 28, false},
    {"v2 unspec", v2(0x21, 0x00, ""), ProxyParse::DONE, 16, false},
    {"v2 cut in addresses", v2(0x21, 0x11, TCP4).substr(0, 20), ProxyParse::INCOMPLETE},
    {"v2 cut in signature", string("\r\n\r\n\0\r", 6), ProxyParse::INCOMPLETE},
    {"v2 bad signature", string("\r\n\r\n\0\n", 6), ProxyParse::INVALID},
    {"v2 version 1", v2(0x11, 0x11, TCP4), ProxyParse::INVALID},
    {"v2 udp", v2(0x21, 0x12, TCP4), ProxyParse::INVALID},
    {"v2 short block", v2(0x21, 0x11, TCP4.substr(0, 8)), ProxyParse::INVALID},
    {"v2 real ipv6", v2(0x21, 0x21, string(36, '\1')), ProxyParse::INVALID},
    {"v2 too long, refused before it is in", v2(0x21, 0x11, string(1025, '\0')).substr(0, 20),
     ProxyParse::INVALID},
};

ProxyParse parse(const string& s, ProxyHeader* h) {
  return proxy_parse(reinterpret_cast<const uint8_t*>(s.data()), s.size(), h);
}

TEST(ProxyParseTest, HeadersAreTakenOrRefusedByTheTable) {
  for (const Case& c : CASES) {
    SCOPED_TRACE(c.label);
    ProxyHeader h;
    ASSERT_EQ(parse(c.input, &h), c.result);
    if (c.result != ProxyParse::DONE) continue;
    EXPECT_EQ(h.size, c.size);
    EXPECT_EQ(h.version, c.input[0] == 'P' ? 1 : 2);
    ASSERT_EQ(h.kind, c.client ? ProxyKind::CLIENT : ProxyKind::LOCAL);
    if (!c.client) continue;
    EXPECT_EQ(h.src.sin_addr.s_addr, inet_addr("127.0.1.10"));
    EXPECT_EQ(ntohs(h.src.sin_port), 12345);
    EXPECT_EQ(h.dst.sin_addr.s_addr, inet_addr("127.0.0.2"));
    EXPECT_EQ(ntohs(h.dst.sin_port), 25);
  }
}

// A header that arrives a byte at a time is never taken or refused early.
TEST(ProxyParseTest, EveryPrefixOfAGoodHeaderWantsMore) {
  for (const Case& c : CASES) {
    if (c.result != ProxyParse::DONE) continue;
    for (size_t n = 0; n < c.size; n++) {
      ProxyHeader h;
      ASSERT_EQ(parse(c.input.substr(0, n), &h), ProxyParse::INCOMPLETE) << c.label << " " << n;
    }
  }
}

}  // namespace
