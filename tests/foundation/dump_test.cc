#include "foundation/dump.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>

#include "foundation/dlog.h"
#include "tests/foundation/test_util.h"

namespace {

using foundation_test::file_exists;
using foundation_test::logged;
using foundation_test::slurp;
using foundation_test::TempDir;

const std::string kSeparator(70, '*');

// The errno line's text, and the rest of the file after the header
// "Dump started at <ctime>\n" (ctime's own line end makes a blank line) and
// the errno line, or "<no header>" when the file does not start with one.
struct Parsed {
  std::string error_text;
  std::string rest;
};
Parsed parse(const std::string& text) {
  static const std::regex header(
      "^Dump started at [A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} "
      "[0-9]{4,}\n\nerrno: ([^\n]*)\n");
  std::smatch m;
  if (!std::regex_search(text, m, header)) return {"", "<no header>"};
  return {m[1], m.suffix()};
}

// Registered again each time a test runs (a test may be repeated in one
// process), so calls are counted against registrations.
int calls_c = 0, regs_c = 0;
int calls_d = 0, regs_d = 0;
void contributor_c(FILE* stream) {
  calls_c++;
  fputs("section C\n", stream);
}
void contributor_d(FILE* stream) {
  calls_d++;
  fprintf(stream, "section D %d\n", 7);
}

class Dump : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tmp.ok());
    // Quiet unless a test captures the log itself.
    saved_mode = dlog_set_mode("dump_test", 0);
    dlog_set_level(0, 3);
  }
  void TearDown() override {
    dlog_set_level(0, 3);
    dlog_set_mode("dump_test", saved_mode);
  }

  TempDir tmp;
  unsigned saved_mode = 0;
};

TEST_F(Dump, ContributorsRunNewestFirstEachFollowedByAsterisks) {
  dump_register(contributor_c);
  regs_c++;
  dump_register(contributor_d);
  regs_d++;
  int c0 = calls_c, d0 = calls_d;
  std::string path = tmp.file("two.txt");
  dump_state(path.c_str());
  EXPECT_EQ(calls_c, c0 + regs_c);
  EXPECT_EQ(calls_d, d0 + regs_d);

  std::string text = slurp(path);
  // The two newest come first; older contributors (of other modules and
  // tests) may follow them.
  std::string want = "section D 7\n" + kSeparator + "\nsection C\n" + kSeparator + "\n";
  EXPECT_EQ(parse(text).rest.substr(0, want.size()), want) << text;
  EXPECT_EQ(text.substr(text.size() - kSeparator.size() - 1), kSeparator + "\n");
}

TEST_F(Dump, ErrnoLineShowsErrnoOfTheCaller) {
  std::string path = tmp.file("errno.txt");
  for (auto [error, text] :
       {std::pair{EACCES, "Permission denied"}, {ENOSPC, "No space left on device"}}) {
    errno = error;
    dump_state(path.c_str());
    EXPECT_EQ(parse(slurp(path)).error_text, text);
  }
}

TEST_F(Dump, SecondDumpReplacesTheFirst) {
  std::string path = tmp.write("again.txt", std::string(100000, 'g') + "\n");
  dump_state(path.c_str());
  std::string first = slurp(path);
  EXPECT_EQ(first.find('g'), std::string::npos);
  EXPECT_NE(parse(first).rest, "<no header>");
  dump_state(path.c_str());
  std::string second = slurp(path);
  EXPECT_EQ(second.size(), first.size());
  EXPECT_EQ(second.find("Dump started at ", 1), std::string::npos);
}

TEST_F(Dump, UnopenableFileIsLoggedAndNothingWritten) {
  dump_register(contributor_c);
  regs_c++;
  int c0 = calls_c;
  std::string missing_dir = tmp.file("no/such/dir/dump.txt");
  std::string log = logged([&] {
    dump_state(missing_dir.c_str());
    dump_state(tmp.path().c_str());  // a directory: fails even for root
  });
  EXPECT_EQ(log, "Dumping state to " + missing_dir + "\nCan't open dump file " + missing_dir +
                     ": No such file or directory\nDumping state to " + tmp.path() +
                     "\nCan't open dump file " + tmp.path() + ": Is a directory\n");
  EXPECT_FALSE(file_exists(tmp.file("no")));
  EXPECT_EQ(calls_c, c0);

  // At level 0 the level 1 "Dumping state" is held back; the failure is not.
  dlog_set_level(DLOG_DUMP, 0);
  log = logged([&] {
    dump_state(missing_dir.c_str());
    dump_state(tmp.file("ok.txt").c_str());
  });
  EXPECT_EQ(log, "Can't open dump file " + missing_dir + ": No such file or directory\n");
}

TEST_F(Dump, LogSectionShowsInTheDump) {
  dlog_init();  // registers the log's own contributor
  dlog_set_level(50, 7);
  std::string path = tmp.file("dlog.txt");
  dump_state(path.c_str());
  std::string text = slurp(path);
  EXPECT_NE(
      text.find("DLOG DUMP:\nDLOG_MAX_SECTIONS 99 DLOG_MAX_LEVEL 9 default_level 3\nS 50 L 7\n" +
                kSeparator + "\n"),
      std::string::npos)
      << text;
}

}  // namespace
