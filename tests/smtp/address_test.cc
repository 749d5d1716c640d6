#include "smtp/address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <regex.h>

#include <cstring>
#include <random>
#include <string>

#include "smtp/config.h"

namespace {

struct Parsed {
  int result;
  std::string address;
  std::string domain;
};

// Outputs start stale: the parser must empty them first.
Parsed parse(const std::string& line) {
  DstrPtr text(dstr_from_block(line.data(), static_cast<int>(line.size())));
  DstrPtr domain(dstr_from_cstr("stale.domain"));
  DstrPtr address(dstr_from_cstr("stale@stale.domain"));
  int r = addr_parse(text.get(), domain.get(), address.get());
  return {r, std::string(address->data, address->length),
          std::string(domain->data, domain->length)};
}

struct AddressCase {
  const char* label;
  std::string line;
  int result;
  const char* address;
  const char* domain;
};

TEST(AddrParse, FindsTheAddressWhereverItStands) {
  const AddressCase cases[] = {
      {"bracketed", "MAIL FROM:<user@example.com>\r\n", 0, "user@example.com", "example.com"},
      {"no brackets", "MAIL FROM:user@example.com\r\n", 0, "user@example.com", "example.com"},
      {"blank before", "mail from: <u@d.org> SIZE=100\r\n", 0, "u@d.org", "d.org"},
      {"rcpt lower case", "rcpt to:<a.b.c@d>\r\n", 0, "a.b.c@d", "d"},
      {"null path", "MAIL FROM:<>\r\n", 0, "", ""},
      {"null path in rcpt", "RCPT TO:<>\r\n", 0, "", ""},
      {"quoted local part", "MAIL FROM:<\"john doe\"@ex.org>\r\n", 0, "\"john doe\"@ex.org",
       "ex.org"},
      {"source route skipped", "RCPT TO:<@a,@b:u@c.d>\r\n", 0, "u@c.d", "c.d"},
      {"atom specials", "RCPT TO:<a!#$%&'*+/=?^_`{|}~-z@x-y.z>\r\n", 0,
       "a!#$%&'*+/=?^_`{|}~-z@x-y.z", "x-y.z"},
      {"address before null path", "MAIL FROM:x@y <>\r\n", 0, "x@y", "y"},
      {"double dot starts later", "MAIL FROM:<a..b@c>\r\n", 0, "b@c", "c"},
      {"trailing dot dropped", "MAIL FROM:<x@y.>\r\n", 0, "x@y", "y"},
      {"no at sign", "MAIL FROM:<user>\r\n", 1, "", ""},
      {"address literal", "MAIL FROM:<x@[1.2.3.4]>\r\n", 1, "", ""},
      {"only the verb", "MAIL FROM:\r\n", 1, "", ""},
      {"empty line", "", 1, "", ""},
      {"unbalanced brackets", "RCPT TO:<<<a@b\r\n", 0, "a@b", "b"},
      {"unbalanced quote", "RCPT TO:<\"abc@d>\r\n", 0, "abc@d", "d"},
      {"quote across the at", "RCPT TO:<\"a@b\r\n", 0, "a@b", "b"},
      {"nul inside local part", std::string("RCPT TO:<ab\0cd@e>\r\n", 19), 0, "cd@e", "e"},
      {"nul only", std::string("\0\0\0", 3), 1, "", ""},
      {"high bytes", "RCPT TO:<\xc3\xa9@x>\r\n", 1, "", ""},
  };
  for (const AddressCase& c : cases) {
    Parsed p = parse(c.line);
    EXPECT_EQ(p.result, c.result) << c.label;
    EXPECT_EQ(p.address, c.address) << c.label;
    EXPECT_EQ(p.domain, c.domain) << c.label;
  }
}

TEST(AddrParse, VeryLongHostileLinesAreBoundedAndCorrect) {
  // Lines near the reader's limit: each must finish and give the plain answer.
  const int n = 3990;
  const AddressCase cases[] = {
      {"long local part", "MAIL FROM:<" + std::string(n, 'a') + "@b>\r\n", 0, nullptr, "b"},
      {"long domain", "MAIL FROM:<a@" + std::string(n, 'b') + ">\r\n", 0, nullptr, nullptr},
      {"atoms without at", "MAIL FROM:<" + std::string(n, 'a') + "\r\n", 1, "", ""},
      {"blanks then address", "MAIL FROM:" + std::string(n, ' ') + "a@b\r\n", 0, "a@b", "b"},
      {"dots then ats", "RCPT TO:<" + std::string(n / 2, '.') + std::string(n / 2, '@') + "\r\n", 1,
       "", ""},
      {"open quote", "MAIL FROM:<\"" + std::string(n, 'a') + "\r\n", 1, "", ""},
      {"brackets", std::string(n, '<') + "\r\n", 1, "", ""},
      {"colons", "MAIL FROM:" + std::string(n, ':') + "\r\n", 1, "", ""},
  };
  for (const AddressCase& c : cases) {
    Parsed p = parse(c.line);
    EXPECT_EQ(p.result, c.result) << c.label;
    if (c.address != nullptr) {
      EXPECT_EQ(p.address, c.address) << c.label;
    }
    if (c.domain != nullptr) {
      EXPECT_EQ(p.domain, c.domain) << c.label;
    }
  }
  EXPECT_EQ(parse("MAIL FROM:<" + std::string(n, 'a') + "@b>\r\n").address.size(),
            static_cast<size_t>(n + 2));
}

// addr_parse skips start positions where no match can begin; whatever it
// skips must never change the answer of a plain leftmost search.
void compare_with_plain_search(const char* alphabet, size_t alphabet_size, int rounds) {
  static const char* const kPattern =
      "([^\":]+:)?((([-[:alnum:]!#$%&'*+/=?^_`{|}~]+(\\.[-[:alnum:]!#$%&'*+/"
      "=?^_`{|}~]+)*)|(\"[^\"]*\"))@([-[:alnum:]!#$%&'*+/=?^_`{|}~]+(\\.[-[:alnum:]!#$%&'*+/"
      "=?^_`{|}~]+)*))|<>";
  parse("x");  // compiles the module's pattern and sets the syntax bits
  re_pattern_buffer reference{};
  re_registers regs{};
  ASSERT_EQ(re_compile_pattern(kPattern, strlen(kPattern), &reference), nullptr);
  std::mt19937 rng(7);
  int mismatches = 0;
  for (int i = 0; i < rounds && mismatches < 5; ++i) {
    std::string s;
    for (int len = static_cast<int>(rng() % 24); len > 0; --len)
      s += alphabet[rng() % alphabet_size];
    Parsed p = parse(s);
    int r = re_search(&reference, s.data(), static_cast<int>(s.size()), 0,
                      static_cast<int>(s.size()), &regs);
    std::string address, domain;
    if (r >= 0 && regs.start[2] >= 0)
      address = s.substr(regs.start[2], regs.end[2] - regs.start[2]);
    if (r >= 0 && regs.start[7] >= 0) domain = s.substr(regs.start[7], regs.end[7] - regs.start[7]);
    if ((p.result == 0) != (r >= 0) || p.address != address || p.domain != domain) {
      ++mismatches;
      ADD_FAILURE() << "line [" << s << "] gave [" << p.address << "] expected [" << address << "]";
    }
  }
  regfree(&reference);
  free(regs.start);
  free(regs.end);
}

TEST(AddrParse, SkippedStartsNeverChangeTheLeftmostMatch) {
  static const char alphabet[] = "aaab..@@\":<> \n-\0\xc3\xa9#[";
  compare_with_plain_search(alphabet, sizeof(alphabet) - 1, 100000);
}

class RelayTest : public ::testing::Test {
 protected:
  void SetUp() override { config_reset(); }
  void TearDown() override { config_reset(); }

  static uint32_t ip(const char* dotted) {
    in_addr a{};
    inet_aton(dotted, &a);
    return ntohl(a.s_addr);
  }
  static void add_network(const char* dotted, int prefix) {
    relay_ips.push_back({ip(dotted), prefix_mask(prefix)});
  }
};

TEST_F(RelayTest, SenderIsMatchedAgainstNetworkAndMask) {
  config.relay_control = false;
  EXPECT_TRUE(relay_check(ip("203.0.113.9")));
  config.relay_control = true;
  EXPECT_FALSE(relay_check(ip("127.0.0.1")));  // an empty list lets no one relay
  add_network("10.1.2.3", 32);
  add_network("192.168.1.0", 24);
  add_network("172.16.99.99", 12);  // stored unmasked: the mask applies to both sides
  const struct {
    const char* sender;
    bool may_relay;
  } cases[] = {
      {"192.168.1.77", true}, {"192.168.1.0", true}, {"192.168.2.1", false},
      {"10.1.2.3", true},     {"10.1.2.4", false},   {"172.31.255.1", true},
      {"172.32.0.1", false},  {"0.0.0.0", false},    {"255.255.255.255", false},
  };
  for (const auto& c : cases) EXPECT_EQ(relay_check(ip(c.sender)), c.may_relay) << c.sender;
  add_network("1.2.3.4", 0);
  EXPECT_TRUE(relay_check(ip("203.0.113.9")));
}

TEST_F(RelayTest, LocalDomainsIgnoreCaseAndEmptyDomainIsLocal) {
  local_domains.emplace_back(dstr_from_cstr("example.com"));
  local_domains.emplace_back(dstr_from_cstr("Mail.Example.ORG"));
  EXPECT_TRUE(is_local_domain(""));
  EXPECT_TRUE(is_local_domain("EXAMPLE.com"));
  EXPECT_TRUE(is_local_domain("mail.example.org"));
  EXPECT_FALSE(is_local_domain("example.com.evil"));
  EXPECT_FALSE(is_local_domain("sub.example.com"));
  local_domains.clear();
  EXPECT_FALSE(is_local_domain("example.com"));
  EXPECT_TRUE(is_local_domain(""));
}

}  // namespace
