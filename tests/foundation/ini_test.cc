#include "foundation/ini.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "foundation/dlog.h"
#include "tests/foundation/test_util.h"

namespace {

using foundation_test::slurp;
using foundation_test::StderrCapture;
using foundation_test::TempDir;

// The log writing to standard error only, captured, with section 5 at the
// given level, for the lifetime of the object.
class LogCapture {
 public:
  LogCapture(const std::string& path, unsigned level) : capture_(path) {
    saved_mode_ = dlog_set_mode("ini_test", DLOG_MODE_STDERR);
    saved_level_ = dlog_get_level(DLOG_INI);
    dlog_set_level(DLOG_INI, level);
  }
  ~LogCapture() { finish(); }
  std::string finish() {
    if (!done_) {
      done_ = true;
      dlog_set_mode("ini_test", saved_mode_);
      dlog_set_level(DLOG_INI, saved_level_);
    }
    return capture_.finish();
  }

 private:
  StderrCapture capture_;
  bool done_ = false;
  unsigned saved_mode_ = 0;
  unsigned saved_level_ = 0;
};

class Ini : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tmp.ok());
    dir = tmp.path();
    ini_clear();
  }
  void TearDown() override { ini_clear(); }
  std::string path(const std::string& name) {
    files++;
    return tmp.file(name);
  }
  std::string write_file(const std::string& name, const std::string& text) {
    files++;
    return tmp.write(name, text);
  }
  int import_text(const std::string& text) {
    return ini_import(write_file("in" + std::to_string(files) + ".conf", text).c_str());
  }
  std::string exported() {
    std::string p = path("out" + std::to_string(files) + ".conf");
    EXPECT_EQ(ini_export(p.c_str()), INI_OK);
    return slurp(p);
  }
  static std::string get(const char* section, const char* name) {
    const char* v = ini_get_var(section, name);
    return v != nullptr ? v : "<null>";
  }

  TempDir tmp;
  std::string dir;
  int files = 0;
};

TEST_F(Ini, VariableBeforeAnyHeaderIsInUnnamedSection) {
  ASSERT_EQ(import_text("a = b c\n"), INI_OK);
  EXPECT_EQ(get(nullptr, "a"), "b c");
  EXPECT_EQ(get("", "a"), "<null>");
}

TEST_F(Ini, EmptyValueStoresNullAndIsNotExported) {
  ASSERT_EQ(import_text("key=\nother = 1\nblank =   \t\n"), INI_OK);
  EXPECT_EQ(ini_get_var(nullptr, "key"), nullptr);
  EXPECT_EQ(ini_get_var(nullptr, "blank"), nullptr);
  EXPECT_EQ(get(nullptr, "other"), "1");
  EXPECT_EQ(exported(), "other=1\n");
}

TEST_F(Ini, ValueMayContainEquals) {
  ASSERT_EQ(import_text("x = 1 = 2\ny==\n"), INI_OK);
  EXPECT_EQ(get(nullptr, "x"), "1 = 2");
  EXPECT_EQ(get(nullptr, "y"), "=");
}

TEST_F(Ini, HashOnlyStartsAWholeLineComment) {
  ASSERT_EQ(import_text("# a=1\n   \t# b=2\nc = 3 # not a comment\n#no equals here\n"), INI_OK);
  EXPECT_EQ(ini_get_var(nullptr, "a"), nullptr);
  EXPECT_EQ(ini_get_var(nullptr, "b"), nullptr);
  EXPECT_EQ(get(nullptr, "c"), "3 # not a comment");
}

TEST_F(Ini, WhiteSpaceAndCrLfAreTrimmed) {
  ASSERT_EQ(import_text("\r\n \t \n\tk\t=\tv w\t\r\n[ s ]\r\n  n =\x0bm\x0c\r\n"), INI_OK);
  EXPECT_EQ(get(nullptr, "k"), "v w");
  EXPECT_EQ(get("s", "n"), "m");
}

TEST_F(Ini, SectionNameIsTrimmedAndTextAfterBracketIgnored) {
  ASSERT_EQ(import_text("[  my sec  ] trailing = junk\nk=v\n"), INI_OK);
  EXPECT_EQ(get("my sec", "k"), "v");
  EXPECT_EQ(ini_get_var(nullptr, "trailing"), nullptr);
  EXPECT_EQ(ini_get_var("my sec", "trailing"), nullptr);
}

TEST_F(Ini, EmptySectionNameIsDistinctFromUnnamed) {
  ASSERT_EQ(import_text("k=top\n[ ]\nk=empty\n"), INI_OK);
  EXPECT_EQ(get(nullptr, "k"), "top");
  EXPECT_EQ(get("", "k"), "empty");
  EXPECT_EQ(exported(), "k=top\n[]\nk=empty\n");
}

TEST_F(Ini, NamesAreCaseSensitive) {
  ASSERT_EQ(import_text("[Sec]\nKey=1\nkey=2\n"), INI_OK);
  EXPECT_EQ(get("Sec", "Key"), "1");
  EXPECT_EQ(get("Sec", "key"), "2");
  EXPECT_EQ(ini_get_var("sec", "Key"), nullptr);
}

TEST_F(Ini, ParseErrorCodes) {
  struct {
    const char* label;
    const char* text;
    int code;
  } cases[] = {
      {"unterminated section", "[sec\n", INI_UNTERMINATED_SECTION_NAME},
      {"no equals", "plain words\n", INI_MISSING_EQUALS},
      {"empty name", "   = value\n", INI_MISSING_NAME},
      {"empty name, no blanks", "=value\n", INI_MISSING_NAME},
      {"bracket later in line", "a]b[c\n", INI_MISSING_EQUALS},
  };
  for (const auto& c : cases) {
    ini_clear();
    EXPECT_EQ(import_text(c.text), c.code) << c.label;
  }
}

TEST_F(Ini, PairsBeforeAnErrorStayAndLaterOnesAreNotRead) {
  EXPECT_EQ(import_text("a=1\n[s]\nb=2\nbroken\nc=3\n"), INI_MISSING_EQUALS);
  EXPECT_EQ(get(nullptr, "a"), "1");
  EXPECT_EQ(get("s", "b"), "2");
  EXPECT_EQ(ini_get_var("s", "c"), nullptr);
}

TEST_F(Ini, MissingFileIsFileError) {
  EXPECT_EQ(ini_import((dir + "/does-not-exist").c_str()), INI_FILE_ERROR);
}

TEST_F(Ini, StrerrorNames) {
  EXPECT_STREQ(ini_strerror(0), "INI_OK");
  EXPECT_STREQ(ini_strerror(1), "INI_UNTERMINATED_SECTION_NAME");
  EXPECT_STREQ(ini_strerror(2), "INI_MISSING_EQUALS");
  EXPECT_STREQ(ini_strerror(3), "unknown ini error 3");
  EXPECT_STREQ(ini_strerror(4), "INI_FILE_ERROR");
  EXPECT_STREQ(ini_strerror(5), "unknown ini error 5");
  EXPECT_STREQ(ini_strerror(-1), "unknown ini error -1");
}

TEST_F(Ini, LaterFileWinsOnMerge) {
  std::string common = write_file("common.conf", "[s]\nk=1\nonly_common=c\n[t]\nx=1\n");
  std::string proxy = write_file("proxy.conf", "[s]\nk=2\nonly_proxy=p\n");
  ASSERT_EQ(ini_import(common.c_str()), INI_OK);
  ASSERT_EQ(ini_import(proxy.c_str()), INI_OK);
  EXPECT_EQ(get("s", "k"), "2");
  EXPECT_EQ(get("s", "only_common"), "c");
  EXPECT_EQ(get("s", "only_proxy"), "p");
  EXPECT_EQ(get("t", "x"), "1");
  // The replaced variable keeps its place; the new one comes after.
  EXPECT_EQ(exported(), "[s]\nk=2\nonly_common=c\nonly_proxy=p\n[t]\nx=1\n");
}

TEST_F(Ini, EachFileStartsInTheUnnamedSection) {
  ASSERT_EQ(import_text("[s]\na=1\n"), INI_OK);
  ASSERT_EQ(import_text("b=2\n"), INI_OK);
  EXPECT_EQ(get(nullptr, "b"), "2");
  EXPECT_EQ(ini_get_var("s", "b"), nullptr);
}

TEST_F(Ini, EmptiedValueInLaterFileHidesEarlierOne) {
  ASSERT_EQ(import_text("[s]\nk=1\n"), INI_OK);
  ASSERT_EQ(import_text("[s]\nk=\n"), INI_OK);
  EXPECT_EQ(ini_get_var("s", "k"), nullptr);
}

TEST_F(Ini, RepeatedHeaderAddsToTheSameSection) {
  ASSERT_EQ(import_text("[A]\na=1\n[B]\nb=1\n[A]\nc=1\na=2\n"), INI_OK);
  EXPECT_EQ(get("A", "a"), "2");
  EXPECT_EQ(get("A", "c"), "1");
  EXPECT_EQ(exported(), "[A]\na=2\nc=1\n[B]\nb=1\n");
}

TEST_F(Ini, LineOf511BytesIsWholeAndLongerIsSplit) {
  std::string fits = "k=" + std::string(509, 'v') + "\n";  // 511 bytes before the line end
  ASSERT_EQ(import_text(fits), INI_OK);
  EXPECT_EQ(get(nullptr, "k"), std::string(509, 'v'));

  ini_clear();
  std::string longer = "k=" + std::string(600, 'v') + "\n";
  EXPECT_EQ(import_text(longer), INI_MISSING_EQUALS);
  // The first 511 bytes were a line of their own.
  EXPECT_EQ(get(nullptr, "k"), std::string(509, 'v'));

  ini_clear();
  std::string second_piece_pair = "k=" + std::string(509, 'v') + "x=y\n";
  EXPECT_EQ(import_text(second_piece_pair), INI_OK);
  EXPECT_EQ(get(nullptr, "k"), std::string(509, 'v'));
  EXPECT_EQ(get(nullptr, "x"), "y");
}

TEST_F(Ini, ExportWritesUnnamedThenSectionsOldestFirst) {
  ASSERT_EQ(import_text("top=1\n[A]\na1=x\na2=\na3=y = z\n[B]\nb=2\n"), INI_OK);
  EXPECT_EQ(exported(), "top=1\n[A]\na1=x\na3=y = z\n[B]\nb=2\n");
}

TEST_F(Ini, ExportReplacesAnExistingFileAndReadsBack) {
  std::string out = write_file("out.conf", "old content that is longer than the new one\n");
  ini_set_var("s", "k", "v");
  ASSERT_EQ(ini_export(out.c_str()), INI_OK);
  EXPECT_EQ(slurp(out), "[s]\nk=v\n");
  ini_clear();
  ASSERT_EQ(ini_import(out.c_str()), INI_OK);
  EXPECT_EQ(get("s", "k"), "v");
}

TEST_F(Ini, ExportToUnwritablePlaceIsFileError) {
  ini_set_var(nullptr, "k", "v");
  EXPECT_EQ(ini_export((dir + "/no/such/dir/out.conf").c_str()), INI_FILE_ERROR);
}

TEST_F(Ini, SetAndGet) {
  ini_set_var("s", "k", "v1");
  EXPECT_EQ(get("s", "k"), "v1");
  ini_set_var("s", "k", "v2");
  EXPECT_EQ(get("s", "k"), "v2");
  ini_set_var("s", "k", "");
  EXPECT_EQ(ini_get_var("s", "k"), nullptr);
  ini_set_var("s", "k", nullptr);
  EXPECT_EQ(ini_get_var("s", "k"), nullptr);
  ini_set_var(nullptr, "k", "top");
  EXPECT_EQ(get(nullptr, "k"), "top");
  EXPECT_EQ(ini_get_var("other", "k"), nullptr);
  EXPECT_EQ(ini_get_var("s", "missing"), nullptr);
}

TEST_F(Ini, SetStoresACopy) {
  char value[] = "original";
  ini_set_var("s", "k", value);
  value[0] = 'X';
  EXPECT_EQ(get("s", "k"), "original");
}

TEST_F(Ini, ClearForgetsEverythingAndNextUseStartsAnew) {
  ini_set_var("s", "k", "v");
  ini_clear();
  EXPECT_EQ(ini_get_var("s", "k"), nullptr);
  ini_clear();  // twice is harmless
  ini_set_var("s", "j", "w");
  EXPECT_EQ(get("s", "j"), "w");
  EXPECT_EQ(ini_get_var("s", "k"), nullptr);
}

TEST_F(Ini, InitCreatesTheTreeOnce) {
  IniTree* t = ini_init();
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(ini_init(), t);
}

using Triple = std::tuple<std::string, std::string, std::string>;

std::vector<Triple> iterate_all() {
  std::vector<Triple> out;
  for (IniIterator* it = ini_iterate(nullptr); it != nullptr; it = ini_iterate(it)) {
    IniEntry* e = ini_dereference(it);
    if (e == nullptr) {
      ADD_FAILURE() << "dereference failed";
      break;
    }
    out.emplace_back(e->section ? e->section : "<unnamed>", e->name, e->value);
    if (out.size() > 100) break;
  }
  return out;
}

TEST_F(Ini, IterationRunsNewestSectionFirstAndSkipsEmptyValues) {
  ASSERT_EQ(import_text("u=0\n[A]\na1=1\na2=\na3=3\n[B]\nb1=1\n[C]\nc=\n"), INI_OK);
  std::vector<Triple> want = {
      {"B", "b1", "1"}, {"A", "a1", "1"}, {"A", "a3", "3"}, {"<unnamed>", "u", "0"}};
  EXPECT_EQ(iterate_all(), want);
}

TEST_F(Ini, IterationOverEmptyTreeEndsAtOnce) {
  EXPECT_EQ(ini_iterate(nullptr), nullptr);
  ini_set_var("s", "k", nullptr);
  EXPECT_EQ(ini_iterate(nullptr), nullptr);
}

TEST_F(Ini, DereferenceOfNothingIsNull) {
  EXPECT_EQ(ini_dereference(nullptr), nullptr);
  IniIterator empty = {nullptr, nullptr};
  EXPECT_EQ(ini_dereference(&empty), nullptr);
}

TEST_F(Ini, LogLinesAtLevelNine) {
  std::string in = write_file("log.conf", "a=1\n[s]\n");
  LogCapture capture(path("log9.txt"), 9);
  ASSERT_EQ(ini_import(in.c_str()), INI_OK);
  ini_get_var("s", "a");
  IniIterator* it = ini_iterate(nullptr);
  ini_dereference(it);
  ini_clear();
  std::string log = capture.finish();

  EXPECT_NE(log.find("ini_import: " + in + " 0x"), std::string::npos) << log;
  EXPECT_NE(log.find("line=a=1\nini_set_var: (null) a 1\nline=[s]\n"), std::string::npos) << log;
  EXPECT_NE(log.find("ini_get_var: 0x"), std::string::npos) << log;
  EXPECT_NE(log.find(" s a\n"), std::string::npos) << log;
  EXPECT_NE(log.find("ini_iterate: (nil)\n"), std::string::npos) << log;
  EXPECT_NE(log.find("ini_dereference: (null) a 1\n"), std::string::npos) << log;
  EXPECT_NE(log.find("ini_clear:\n"), std::string::npos) << log;
}

TEST_F(Ini, ErrorLogLinesAtLevelSeven) {
  std::string bad_section = write_file("b1.conf", "[sec\n");
  std::string no_equals = write_file("b2.conf", "  plain words\n");
  std::string no_name = write_file("b3.conf", " = v\n");
  std::string missing = dir + "/missing.conf";
  LogCapture capture(path("log7.txt"), 7);
  EXPECT_EQ(ini_import(bad_section.c_str()), 1);
  EXPECT_EQ(ini_import(no_equals.c_str()), 2);
  EXPECT_EQ(ini_import(no_name.c_str()), 3);
  EXPECT_EQ(ini_import(missing.c_str()), 4);
  std::string log = capture.finish();

  EXPECT_NE(log.find("Bad section name: [sec\n"), std::string::npos) << log;
  EXPECT_NE(log.find("Missing equals in: plain words\n"), std::string::npos) << log;
  EXPECT_NE(log.find("Missing name in: = v\n"), std::string::npos) << log;
  EXPECT_NE(log.find("Ini can't open " + missing + "\n"), std::string::npos) << log;
  // Level 9 lines are not let through at level 7.
  EXPECT_EQ(log.find("line="), std::string::npos) << log;
}

TEST_F(Ini, NothingLoggedAtDefaultLevel) {
  std::string in = write_file("quiet.conf", "a=1\nbroken\n");
  LogCapture capture(path("log3.txt"), 3);
  EXPECT_EQ(ini_import(in.c_str()), INI_MISSING_EQUALS);
  ini_clear();
  EXPECT_EQ(capture.finish(), "");
}

}  // namespace
