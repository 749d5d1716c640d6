#include "smtp/auth.h"

#include <crypt.h>
#include <gtest/gtest.h>

#include <string>

#include "smtp/config.h"
#include "tests/foundation/test_util.h"

namespace {

using foundation_test::contains;
using foundation_test::logged;

TEST(B64DecodeTest, DecodesSkipsBlanksAndRefusesBadInput) {
  const std::string refused = "<refused>";
  const struct {
    const char* label;
    std::string input, decoded;
    const char* log;
  } cases[] = {
      {"padded", "dXNlcg==", "user", ""},
      {"blanks and NUL inside", std::string(" dX\tNl\0cg==", 11), "user", ""},
      {"only white space", " \t\r\n", "", ""},
      {"padding as third char keeps one byte", "dX=lcg==", "u", ""},
      {"padding as first char counts as 0", "=mVy", "\002er", ""},
      {"decoded NUL kept", "AA==", std::string(1, '\0'), ""},
      {"comma", "dXNlcg=,", refused, "base64 decoding illegal char in <hidden>\n"},
      {"high bytes", "dXNl\xc3\xa9", refused, "base64 decoding illegal char in <hidden>\n"},
      {"short", "dXNlcg", refused, "Short b64 string: <hidden>\n"},
  };
  for (const auto& c : cases) {
    DstrPtr out;
    std::string log = logged([&] { out.reset(b64_decode(c.input)); });
    EXPECT_EQ(out ? std::string(out->data, out->length) : refused, c.decoded) << c.label;
    EXPECT_EQ(log.rfind(c.log, 0), 0u) << c.label << ": " << log;
  }
}

// Only the first entry of a name counts; a hash crypt cannot use refuses.
// (The end-to-end tests log in against DES and MD5 hashes.)
TEST(CheckLocalAuthTest, FirstEntryOfTheNameDecides) {
  passwd_entries = {{"alice", crypt("secret", "ab")}, {"alice", crypt("other", "cd")}, {"eve", ""}};
  EXPECT_TRUE(check_local_auth("YWxpY2U=\r\n", "c2VjcmV0\r\n"));  // alice, secret
  EXPECT_FALSE(check_local_auth("YWxpY2U=\r\n", "b3RoZXI=\r\n")) << "second entry's password";
  EXPECT_FALSE(check_local_auth("ZXZl\r\n", "\r\n")) << "empty stored hash";
  EXPECT_TRUE(contains(logged([] { check_local_auth("YWxp\r\n", "%%%%"); }),
                       "Error decoding base64 password: <hidden>\n"));
  passwd_entries.clear();
  EXPECT_FALSE(check_local_auth("YWxpY2U=\r\n", "c2VjcmV0\r\n")) << "no table";
}

}  // namespace
