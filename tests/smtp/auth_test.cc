#include "smtp/auth.h"

#include <crypt.h>
#include <gtest/gtest.h>

#include <string>

#include "smtp/config.h"
#include "tests/foundation/test_util.h"

namespace {

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
      {"comma", "dXNlcg=,", refused, "base64 decoding illegal char in dXNlcg=,\n"},
      {"high bytes", "dXNl\xc3\xa9", refused, "base64 decoding illegal char in "},
      {"short", "dXNlcg", refused, "Short b64 string: dXNlcg\n"},
  };
  for (const auto& c : cases) {
    DstrPtr out;
    std::string log = logged([&] { out.reset(b64_decode(c.input)); });
    EXPECT_EQ(out ? std::string(out->data, out->length) : refused, c.decoded) << c.label;
    EXPECT_EQ(log.rfind(c.log, 0), 0u) << c.label << ": " << log;
  }
}

TEST(CheckLocalAuthTest, FirstEntryOfTheNameDecides) {
  auto hash = [](const char* key, const char* salt) { return std::string(crypt(key, salt)); };
  passwd_entries = {{"alice", hash("secret", "ab")},       // DES
                    {"bob", hash("pw2", "$1$saltsalt$")},  // MD5
                    {"alice", hash("other", "cd")},        // never looked at
                    {"eve", ""}};                          // no usable hash
  const struct {
    const char* label;
    const char* user;  // base64 lines as the sender sends them
    const char* pass;
    bool accepted;
  } cases[] = {
      {"DES hash", "YWxpY2U=\r\n", "c2VjcmV0\r\n", true},
      {"MD5 hash", "Ym9i\r\n", "cHcy\r\n", true},
      {"wrong password", "Ym9i\r\n", "d3Jvbmc=\r\n", false},
      {"second entry's password", "YWxpY2U=\r\n", "b3RoZXI=\r\n", false},
      {"empty stored hash", "ZXZl\r\n", "\r\n", false},
      {"undecodable user", "!!!!\r\n", "c2VjcmV0\r\n", false},
  };
  for (const auto& c : cases) EXPECT_EQ(check_local_auth(c.user, c.pass), c.accepted) << c.label;
  std::string log = logged([] { check_local_auth("YWxp\r\n", "%%%%"); });
  EXPECT_NE(log.find("Error decoding base64 password: %%%%\n"), std::string::npos) << log;
  passwd_entries.clear();
  EXPECT_FALSE(check_local_auth("YWxpY2U=\r\n", "c2VjcmV0\r\n")) << "no table";
}

}  // namespace
