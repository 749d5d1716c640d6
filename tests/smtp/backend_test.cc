#include "smtp/backend.h"

#include "tests/smtp/smtp_test_support.h"

namespace {

TEST(ReplyCodeTest, CodesContinuationsAndCutLines) {
  struct Case {
    const char* line;
    int code, incomplete;
  } const cases[] = {
      {"", -1, 1},       {"250 OK", -2, 1}, {"250 OK\r\n", 250, 0}, {"250-PIPELINING\r\n", -250, 0},
      {"354\n", 354, 0}, {"25-\n", 25, 0},  {"hello\r\n", 0, 0},
  };
  for (const Case& c : cases) {
    DstrPtr line(dstr_from_cstr(c.line));
    EXPECT_EQ(reply_code(line.get()), c.code) << '"' << c.line << '"';
    EXPECT_EQ(line_incomplete(line.get()), c.incomplete) << '"' << c.line << '"';
  }
}

}  // namespace
