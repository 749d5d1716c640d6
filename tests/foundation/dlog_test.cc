#include "foundation/dlog.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <map>
#include <regex>
#include <string>

#include "tests/foundation/test_util.h"

namespace {

using foundation_test::captured;

std::string dump_text() {
  return foundation_test::written([](FILE* f) { dlog_dump(f); });
}

unsigned default_level_from_dump() {
  std::smatch m;
  std::string d = dump_text();
  if (!std::regex_search(d, m, std::regex("default_level (\\d+)\n"))) return 999;
  return static_cast<unsigned>(std::stoul(m[1]));
}

// Every test starts with the log writing to standard error only and every
// section at level 3, as after start-up with -e -s, and leaves it so.
class Dlog : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_mode = dlog_set_mode("dlog_test", DLOG_MODE_STDERR);
    dlog_set_level(0, 3);
  }
  void TearDown() override {
    dlog_set_level(0, 3);
    dlog_set_mode("dlog_test", saved_mode);
  }
  unsigned saved_mode = 0;
};

TEST_F(Dlog, LevelTableDecidesWhatIsWritten) {
  struct {
    const char* label;
    unsigned all;  // section 0 and so every section
    int others;    // then sections 1 to 98, when not -1
    unsigned section, level;
    bool shown;
  } cases[] = {
      {"default 3 lets 0 through", 3, -1, 12, 0, true},
      {"default 3 lets 3 through", 3, -1, 50, 3, true},
      {"default 3 holds 4 back", 3, -1, 50, 4, false},
      {"default 3 holds 9 back", 3, -1, 6, 9, false},
      {"section 150 is judged as section 0", 0, 9, 150, 1, false},
      {"section 99 is judged as section 0", 0, 9, 99, 1, false},
      {"largest section is judged as section 0", 0, 9, UINT_MAX, 1, false},
      {"section 150 at level 0", 0, 9, 150, 0, true},
      {"section 98 is its own", 0, 9, 98, 9, true},
      {"level 12 is judged as 9", 9, -1, 6, 12, true},
      {"largest level is judged as 9", 9, -1, 6, UINT_MAX, true},
      {"level 12 is above 8", 3, 8, 6, 12, false},
      {"level 8 at 8", 3, 8, 6, 8, true},
  };
  for (const auto& c : cases) {
    dlog_set_level(0, c.all);
    for (unsigned s = 1; c.others >= 0 && s < DLOG_MAX_SECTIONS; s++) dlog_set_level(s, c.others);
    EXPECT_EQ(captured([&] { dlog(c.section, c.level, "x\n"); }), c.shown ? "x\n" : "") << c.label;
  }
}

TEST_F(Dlog, SetLevelClampsAndReturnsTheSectionOr99ForAll) {
  EXPECT_EQ(dlog_set_level(0, 5), 99u);
  for (unsigned s = 0; s < DLOG_MAX_SECTIONS; s++) ASSERT_EQ(dlog_get_level(s), 5u) << s;
  EXPECT_EQ(default_level_from_dump(), 5u);
  dlog_set_level(0, 3);
  EXPECT_EQ(dlog_set_level(6, 12), 6u);
  EXPECT_EQ(dlog_get_level(6), 9u);
  EXPECT_EQ(dlog_set_level(98, 1), 98u);
  EXPECT_EQ(dlog_get_level(98), 1u);
  EXPECT_EQ(dlog_get_level(7), 3u);
  EXPECT_EQ(default_level_from_dump(), 3u);
}

TEST_F(Dlog, TextIsWrittenExactlyAndPercentMNamesTheKeptErrno) {
  EXPECT_EQ(captured([] { dlog(1, 0, "n=%d s=%s", 5, "x"); }), "n=5 s=x");
  for (unsigned mode : {DLOG_MODE_STDERR, DLOG_MODE_STDERR | DLOG_MODE_SYSLOG}) {
    dlog_set_mode("dlog_test", mode);
    std::string out = captured([] {
      errno = ENOENT;
      dlog(1, 0, "open: %m\n");
      EXPECT_EQ(errno, ENOENT);
    });
    EXPECT_EQ(out, "open: No such file or directory\n") << mode;
  }
}

TEST_F(Dlog, ModeBitsChooseStandardErrorAndSetModeReturnsThePrevious) {
  unsigned previous = DLOG_MODE_STDERR;
  for (auto [mode, shown] : {std::pair{0u, false},
                             {DLOG_MODE_SYSLOG, false},
                             {DLOG_MODE_STDERR | DLOG_MODE_SYSLOG, true},
                             {DLOG_MODE_STDERR, true}}) {
    EXPECT_EQ(dlog_set_mode("dlog_test", mode), previous);
    EXPECT_EQ(dlog_get_mode(), mode);
    EXPECT_EQ(captured([] { dlog(1, 0, "m\n"); }), shown ? "m\n" : "") << mode;
    previous = mode;
  }
}

// The whole level table after set_log_levels, from all sections at 3.
TEST_F(Dlog, SetLogLevelsTable) {
  struct {
    const char* label;
    const char* text;
    unsigned all;                             // every section not listed below
    std::map<unsigned, unsigned> exceptions;  // section -> level
  } cases[] = {
      {"single commas", "69,509,12", 3, {{6, 9}, {50, 9}, {1, 2}}},
      {"comma and space: empty tokens zero all", "69, 509, 12", 0, {{1, 2}}},
      {"empty text is one empty token", "", 0, {}},
      {"null changes nothing", nullptr, 3, {}},
      {"one digit sets all", "7", 7, {}},
      {"later all-token wins", "63 7", 7, {}},
      {"all then one", "5,63", 5, {{6, 3}}},
      {"leading zeros", "006", 6, {}},
      {"two-digit section", "567", 3, {{56, 7}}},
      {"every separator", "69;509:12\t43", 3, {{6, 9}, {50, 9}, {1, 2}, {4, 3}}},
      {"trailing separator adds nothing", "69,", 3, {{6, 9}}},
      {"leading separator zeroes first", ",69", 0, {{6, 9}}},
      {"leading blanks", "  69", 0, {{6, 9}}},
      {"later token for same section wins", "69,62", 3, {{6, 2}}},
      {"not a number reads as 0", "x5", 0, {}},
      {"number with trailing junk", "12abc", 3, {{1, 2}}},
  };
  for (const auto& c : cases) {
    dlog_set_level(0, 3);
    set_log_levels(c.text);
    for (unsigned s = 0; s < DLOG_MAX_SECTIONS; s++) {
      auto it = c.exceptions.find(s);
      unsigned want = it != c.exceptions.end() ? it->second : c.all;
      ASSERT_EQ(dlog_get_level(s), want) << c.label << ": section " << s;
    }
    EXPECT_EQ(default_level_from_dump(), c.all) << c.label;
  }
}

TEST_F(Dlog, DumpListsOnlySectionsThatDifferFromDefault) {
  const std::string head = "DLOG DUMP:\nDLOG_MAX_SECTIONS 99 DLOG_MAX_LEVEL 9 default_level ";
  EXPECT_EQ(dump_text(), head + "3\n");
  dlog_set_level(6, 9);
  dlog_set_level(50, 1);
  EXPECT_EQ(dump_text(), head + "3\nS 6 L 9\nS 50 L 1\n");
  dlog_set_level(0, 4);
  EXPECT_EQ(dump_text(), head + "4\n");
}

TEST_F(Dlog, EventGoesToSyslogWhateverLevelsAndMode) {
  dlog_init();
  dlog_set_level(0, 0);
  dlog_set_mode("dlog_test", 0);
  char host[256] = {0};
  gethostname(host, sizeof(host) - 1);
  // LOG_PERROR makes syslog echo the message on standard error, where the
  // test can read it; the event itself must not add anything there.
  std::string out = captured([] {
    openlog("dlog_test", LOG_PERROR, LOG_LOCAL3);
    dlog_event(3, "1000002", "System_Error", "msg=\"Invalid relay IP mask: %s\"", "10.0.0.0/40");
    closelog();
  });
  std::regex want(
      "id=Antivirus time=\"\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\" fw=" + std::string(host) +
      " pri=3 issueid=1000002 name=System_Error msg=\"Invalid relay IP mask: "
      "10\\.0\\.0\\.0/40\"\n");
  EXPECT_TRUE(std::regex_search(out, want)) << out;
}

}  // namespace
