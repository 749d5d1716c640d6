#include "smtp/address.h"

#include <gtest/gtest.h>
#include <regex.h>

#include <cstring>
#include <random>
#include <string>

// addr_parse skips start positions where no match can begin; whatever it skips
// must never change the answer of a plain leftmost search with its pattern.
TEST(AddrParse, SkippedStartsNeverChangeTheLeftmostMatch) {
  static const char* const kPattern =
      "([^\":]+:)?((([-[:alnum:]!#$%&'*+/=?^_`{|}~]+(\\.[-[:alnum:]!#$%&'*+/"
      "=?^_`{|}~]+)*)|(\"[^\"]*\"))@([-[:alnum:]!#$%&'*+/=?^_`{|}~]+(\\.[-[:alnum:]!#$%&'*+/"
      "=?^_`{|}~]+)*))|<>";
  static const char alphabet[] = "aaab..@@\":<> \n-\0\xc3\xa9#[";
  DstrPtr domain(dstr_new(8)), address(dstr_new(8));
  auto parse = [&](const std::string& s) {  // the outputs start stale: the parser must empty them
    dstr_cat_cstr(address.get(), "stale@");
    DstrPtr line(dstr_from_block(s.data(), static_cast<int>(s.size())));
    int r = addr_parse(line.get(), domain.get(), address.get());
    return std::to_string(r) + " " + std::string(address->data, address->length) + " " +
           std::string(domain->data, domain->length);
  };
  parse("x");  // compiles the module's pattern and sets the syntax bits
  re_pattern_buffer reference{};
  re_registers regs{};
  ASSERT_EQ(re_compile_pattern(kPattern, strlen(kPattern), &reference), nullptr);
  std::mt19937 rng(7);
  for (int i = 0, mismatches = 0; i < 100000 && mismatches < 5; ++i) {
    std::string s;
    for (int len = static_cast<int>(rng() % 24); len > 0; --len)
      s += alphabet[rng() % (sizeof(alphabet) - 1)];
    int r = re_search(&reference, s.data(), static_cast<int>(s.size()), 0,
                      static_cast<int>(s.size()), &regs);
    auto group = [&](int g) {
      return r >= 0 && regs.start[g] >= 0 ? s.substr(regs.start[g], regs.end[g] - regs.start[g])
                                          : "";
    };
    std::string want = (r >= 0 ? "0 " : "1 ") + group(2) + " " + group(7), got = parse(s);
    EXPECT_EQ(got, want) << "line [" << s << "]";
    mismatches += got != want;
  }
  regfree(&reference);
  free(regs.start);
  free(regs.end);
}
