#include "foundation/dlog.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <regex>
#include <string>

#include "tests/foundation/test_util.h"

namespace {

using foundation_test::StderrCapture;
using foundation_test::TempDir;

std::string dump_text() {
  char* text = nullptr;
  size_t size = 0;
  FILE* f = open_memstream(&text, &size);
  dlog_dump(f);
  fclose(f);
  std::string s(text, size);
  free(text);
  return s;
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
    ASSERT_TRUE(tmp.ok());
    saved_mode = dlog_set_mode("dlog_test", DLOG_MODE_STDERR);
    dlog_set_level(0, 3);
  }
  void TearDown() override {
    dlog_set_level(0, 3);
    dlog_set_mode("dlog_test", saved_mode);
  }
  std::string logged(const std::function<void()>& body) {
    StderrCapture capture(tmp.file("stderr" + std::to_string(++captures)));
    body();
    return capture.finish();
  }

  TempDir tmp;
  unsigned saved_mode = 0;
  int captures = 0;
};

TEST_F(Dlog, DefaultLevelThreeLetsZeroToThreeThrough) {
  EXPECT_EQ(logged([] { dlog(6, 9, "hidden\n"); }), "");
  EXPECT_EQ(logged([] { dlog(50, 3, "shown\n"); }), "shown\n");
  EXPECT_EQ(logged([] { dlog(50, 4, "hidden\n"); }), "");
  EXPECT_EQ(logged([] {
              for (unsigned l = 0; l <= 9; l++) dlog(12, l, "%u", l);
            }),
            "0123");
}

TEST_F(Dlog, SectionOf99OrMoreIsJudgedAsSectionZero) {
  dlog_set_level(0, 0);
  for (unsigned s = 1; s < DLOG_MAX_SECTIONS; s++) dlog_set_level(s, 9);
  EXPECT_EQ(logged([] { dlog(150, 1, "150 at 1\n"); }), "");
  EXPECT_EQ(logged([] { dlog(99, 1, "99 at 1\n"); }), "");
  EXPECT_EQ(logged([] { dlog(UINT_MAX, 1, "max at 1\n"); }), "");
  EXPECT_EQ(logged([] { dlog(150, 0, "150 at 0\n"); }), "150 at 0\n");
  EXPECT_EQ(logged([] { dlog(98, 9, "98 at 9\n"); }), "98 at 9\n");
}

TEST_F(Dlog, LevelAboveNineIsJudgedAsNine) {
  dlog_set_level(0, 9);
  EXPECT_EQ(logged([] { dlog(6, 12, "twelve\n"); }), "twelve\n");
  EXPECT_EQ(logged([] { dlog(6, UINT_MAX, "max\n"); }), "max\n");
  dlog_set_level(6, 8);
  EXPECT_EQ(logged([] { dlog(6, 12, "twelve\n"); }), "");
  EXPECT_EQ(logged([] { dlog(6, 8, "eight\n"); }), "eight\n");
}

TEST_F(Dlog, SetLevelOfSectionZeroSetsAllAndReturns99) {
  EXPECT_EQ(dlog_set_level(0, 5), 99u);
  for (unsigned s = 0; s < DLOG_MAX_SECTIONS; s++) ASSERT_EQ(dlog_get_level(s), 5u) << s;
  EXPECT_EQ(default_level_from_dump(), 5u);
}

TEST_F(Dlog, SetLevelOfOneSectionReturnsItAndClampsLevel) {
  EXPECT_EQ(dlog_set_level(6, 12), 6u);
  EXPECT_EQ(dlog_get_level(6), 9u);
  EXPECT_EQ(dlog_set_level(98, 1), 98u);
  EXPECT_EQ(dlog_get_level(98), 1u);
  EXPECT_EQ(dlog_get_level(7), 3u);
  EXPECT_EQ(default_level_from_dump(), 3u);
}

TEST_F(Dlog, TextIsWrittenExactlyWithoutPrefix) {
  EXPECT_EQ(logged([] { dlog(1, 0, "n=%d s=%s", 5, "x"); }), "n=5 s=x");
  EXPECT_EQ(logged([] { dlog(1, 0, "line\n"); }), "line\n");
}

TEST_F(Dlog, ModeBitsChooseStandardError) {
  dlog_set_mode("dlog_test", 0);
  EXPECT_EQ(logged([] { dlog(1, 0, "mode 0\n"); }), "");
  dlog_set_mode("dlog_test", DLOG_MODE_SYSLOG);
  EXPECT_EQ(logged([] { dlog(1, 0, "mode 2\n"); }), "");
  dlog_set_mode("dlog_test", DLOG_MODE_STDERR | DLOG_MODE_SYSLOG);
  EXPECT_EQ(logged([] { dlog(1, 0, "mode 3\n"); }), "mode 3\n");
  dlog_set_mode("dlog_test", DLOG_MODE_STDERR);
  EXPECT_EQ(logged([] { dlog(1, 0, "mode 1\n"); }), "mode 1\n");
}

TEST_F(Dlog, SetModeReturnsPreviousMode) {
  EXPECT_EQ(dlog_set_mode("dlog_test", 0), DLOG_MODE_STDERR);
  EXPECT_EQ(dlog_set_mode("dlog_test", 3), 0u);
  EXPECT_EQ(dlog_get_mode(), 3u);
  EXPECT_EQ(dlog_set_mode("dlog_test", DLOG_MODE_STDERR), 3u);
}

TEST_F(Dlog, PercentMNamesErrnoAndErrnoIsKept) {
  std::string out = logged([] {
    errno = ENOENT;
    dlog(1, 0, "open: %m\n");
    EXPECT_EQ(errno, ENOENT);
  });
  EXPECT_EQ(out, "open: No such file or directory\n");
  dlog_set_mode("dlog_test", DLOG_MODE_STDERR | DLOG_MODE_SYSLOG);
  out = logged([] {
    errno = EACCES;
    dlog(1, 0, "%m\n");
    EXPECT_EQ(errno, EACCES);
  });
  EXPECT_EQ(out, "Permission denied\n");
}

// The whole level table after set_log_levels, from all sections at 3.
struct LevelCase {
  const char* label;
  const char* text;
  unsigned all;                             // every section not listed below
  std::map<unsigned, unsigned> exceptions;  // section -> level
  unsigned default_level;
};

TEST_F(Dlog, SetLogLevelsTable) {
  const LevelCase cases[] = {
      {"single commas", "69,509,12", 3, {{6, 9}, {50, 9}, {1, 2}}, 3},
      {"comma and space: empty tokens zero all", "69, 509, 12", 0, {{1, 2}}, 0},
      {"empty text is one empty token", "", 0, {}, 0},
      {"one digit sets all", "7", 7, {}, 7},
      {"later all-token wins", "63 7", 7, {}, 7},
      {"all then one", "5,63", 5, {{6, 3}}, 5},
      {"leading zeros", "006", 6, {}, 6},
      {"two-digit section", "567", 3, {{56, 7}}, 3},
      {"every separator", "69;509:12\t43", 3, {{6, 9}, {50, 9}, {1, 2}, {4, 3}}, 3},
      {"trailing separator adds nothing", "69,", 3, {{6, 9}}, 3},
      {"leading separator zeroes first", ",69", 0, {{6, 9}}, 0},
      {"leading blanks", "  69", 0, {{6, 9}}, 0},
      {"later token for same section wins", "69,62", 3, {{6, 2}}, 3},
      {"not a number reads as 0", "x5", 0, {}, 0},
      {"number with trailing junk", "12abc", 3, {{1, 2}}, 3},
  };
  for (const auto& c : cases) {
    dlog_set_level(0, 3);
    set_log_levels(c.text);
    for (unsigned s = 0; s < DLOG_MAX_SECTIONS; s++) {
      auto it = c.exceptions.find(s);
      unsigned want = it != c.exceptions.end() ? it->second : c.all;
      ASSERT_EQ(dlog_get_level(s), want) << c.label << " (\"" << c.text << "\"): section " << s;
    }
    EXPECT_EQ(default_level_from_dump(), c.default_level) << c.label;
  }
}

TEST_F(Dlog, SetLogLevelsOfNullChangesNothing) {
  dlog_set_level(6, 9);
  set_log_levels(nullptr);
  EXPECT_EQ(dlog_get_level(6), 9u);
  EXPECT_EQ(dlog_get_level(1), 3u);
  EXPECT_EQ(default_level_from_dump(), 3u);
}

TEST_F(Dlog, DumpListsOnlySectionsThatDifferFromDefault) {
  EXPECT_EQ(dump_text(), "DLOG DUMP:\nDLOG_MAX_SECTIONS 99 DLOG_MAX_LEVEL 9 default_level 3\n");
  dlog_set_level(6, 9);
  dlog_set_level(50, 1);
  EXPECT_EQ(dump_text(),
            "DLOG DUMP:\nDLOG_MAX_SECTIONS 99 DLOG_MAX_LEVEL 9 default_level 3\n"
            "S 6 L 9\nS 50 L 1\n");
  dlog_set_level(0, 4);
  EXPECT_EQ(dump_text(), "DLOG DUMP:\nDLOG_MAX_SECTIONS 99 DLOG_MAX_LEVEL 9 default_level 4\n");
}

TEST_F(Dlog, EventGoesToSyslogWhateverLevelsAndMode) {
  dlog_init();
  dlog_set_level(0, 0);
  dlog_set_mode("dlog_test", 0);
  char host[256] = {0};
  gethostname(host, sizeof(host) - 1);
  // LOG_PERROR makes syslog echo the message on standard error, where the
  // test can read it; the event itself must not add anything there.
  std::string out = logged([] {
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
