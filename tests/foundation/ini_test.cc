#include "foundation/ini.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "foundation/dlog.h"
#include "tests/foundation/test_util.h"

namespace {

using foundation_test::contains;
using foundation_test::lacking;
using foundation_test::slurp;
using foundation_test::TempDir;

const std::string NONE = "<null>";

class Ini : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tmp.ok());
    ini_clear();
  }
  void TearDown() override { ini_clear(); }
  std::string write_file(const std::string& text) {
    return tmp.write("in" + std::to_string(++files) + ".conf", text);
  }
  int import_text(const std::string& text) { return ini_import(write_file(text).c_str()); }
  std::string exported() {
    std::string p = tmp.file("out" + std::to_string(++files) + ".conf");
    EXPECT_EQ(ini_export(p.c_str()), INI_OK);
    return slurp(p);
  }
  static std::string get(const char* section, const char* name) {
    const char* v = ini_get_var(section, name);
    return v != nullptr ? v : NONE;
  }
  // What body logs with the ini section at `level`.
  static std::string logged_at(unsigned level, const std::function<void()>& body) {
    unsigned saved = dlog_get_level(DLOG_INI);
    dlog_set_level(DLOG_INI, level);
    std::string log = foundation_test::logged(body);
    dlog_set_level(DLOG_INI, saved);
    return log;
  }

  TempDir tmp;
  int files = 0;
};

// The whole tree after each import shows in its export: variables in place,
// empty ones left out.
TEST_F(Ini, ImportTable) {
  const std::string v509(509, 'v');
  struct {
    const char* label;
    std::string text;
    int code;
    std::string exported;
  } cases[] = {
      {"before any header", "a = b c\n", INI_OK, "a=b c\n"},
      {"empty values", "key=\nother = 1\nblank =   \t\n", INI_OK, "other=1\n"},
      {"value with equals", "x = 1 = 2\ny==\n", INI_OK, "x=1 = 2\ny==\n"},
      {"hash starts only a whole-line comment",
       "# a=1\n   \t# b=2\nc = 3 # not a comment\n#no equals here\n", INI_OK,
       "c=3 # not a comment\n"},
      {"white space and CR LF", "\r\n \t \n\tk\t=\tv w\t\r\n[ s ]\r\n  n =\x0bm\x0c\r\n", INI_OK,
       "k=v w\n[s]\nn=m\n"},
      {"text after the bracket", "[  my sec  ] trailing = junk\nk=v\n", INI_OK, "[my sec]\nk=v\n"},
      {"empty section name", "k=top\n[ ]\nk=empty\n", INI_OK, "k=top\n[]\nk=empty\n"},
      {"case", "[Sec]\nKey=1\nkey=2\n", INI_OK, "[Sec]\nKey=1\nkey=2\n"},
      {"repeated header", "[A]\na=1\n[B]\nb=1\n[A]\nc=1\na=2\n", INI_OK,
       "[A]\na=2\nc=1\n[B]\nb=1\n"},
      {"unnamed first, then sections oldest first", "top=1\n[A]\na1=x\na2=\na3=y = z\n[B]\nb=2\n",
       INI_OK, "top=1\n[A]\na1=x\na3=y = z\n[B]\nb=2\n"},
      {"unterminated section", "[sec\n", INI_UNTERMINATED_SECTION_NAME, ""},
      {"no equals", "plain words\n", INI_MISSING_EQUALS, ""},
      {"empty name", "   = value\n", INI_MISSING_NAME, ""},
      {"empty name, no blanks", "=value\n", INI_MISSING_NAME, ""},
      {"bracket later in line", "a]b[c\n", INI_MISSING_EQUALS, ""},
      {"pairs before an error stay, later ones are not read", "a=1\n[s]\nb=2\nbroken\nc=3\n",
       INI_MISSING_EQUALS, "a=1\n[s]\nb=2\n"},
      {"511 bytes are one line", "k=" + v509 + "\n", INI_OK, "k=" + v509 + "\n"},
      {"longer lines are split after 511 bytes", "k=" + v509 + "x=y\n", INI_OK,
       "k=" + v509 + "\nx=y\n"},
      {"split piece without equals", "k=" + v509 + "vv\n", INI_MISSING_EQUALS, "k=" + v509 + "\n"},
  };
  for (const auto& c : cases) {
    ini_clear();
    EXPECT_EQ(import_text(c.text), c.code) << c.label;
    EXPECT_EQ(exported(), c.exported) << c.label;
  }
}

TEST_F(Ini, LookupTellsUnnamedFromEmptySectionAndMindsCase) {
  ASSERT_EQ(import_text("k=top\nempty=\n[ ]\nk=empty\n[Sec]\nKey=1\n"), INI_OK);
  EXPECT_EQ(get(nullptr, "k"), "top");
  EXPECT_EQ(get("", "k"), "empty");
  EXPECT_EQ(get("Sec", "Key"), "1");
  for (auto [section, name] : {std::pair<const char*, const char*>{nullptr, "empty"},
                               {"sec", "Key"},
                               {"Sec", "key"},
                               {"other", "k"}}) {
    EXPECT_EQ(get(section, name), NONE) << section << " " << name;
  }
}

TEST_F(Ini, LaterFileWinsOnMergeAndEachFileStartsUnnamed) {
  ASSERT_EQ(import_text("[s]\nk=1\nonly_common=c\n[t]\nx=1\ny=1\n"), INI_OK);
  ASSERT_EQ(import_text("b=2\n[s]\nk=2\nonly_proxy=p\n[t]\ny=\n"), INI_OK);
  // The replaced variable keeps its place; the new one comes after.
  EXPECT_EQ(exported(), "b=2\n[s]\nk=2\nonly_common=c\nonly_proxy=p\n[t]\nx=1\n");
}

TEST_F(Ini, ExportReplacesAnExistingFileAndReadsBack) {
  std::string out = write_file("old content that is longer than the new one\n");
  ini_set_var("s", "k", "v");
  ASSERT_EQ(ini_export(out.c_str()), INI_OK);
  EXPECT_EQ(slurp(out), "[s]\nk=v\n");
  ini_clear();
  ASSERT_EQ(ini_import(out.c_str()), INI_OK);
  EXPECT_EQ(get("s", "k"), "v");
}

TEST_F(Ini, MissingOrUnwritableFileIsFileError) {
  EXPECT_EQ(ini_import(tmp.file("does-not-exist").c_str()), INI_FILE_ERROR);
  ini_set_var(nullptr, "k", "v");
  EXPECT_EQ(ini_export(tmp.file("no/such/dir/out.conf").c_str()), INI_FILE_ERROR);
}

TEST_F(Ini, StrerrorNames) {
  const std::pair<int, const char*> cases[] = {{0, "INI_OK"},
                                               {1, "INI_UNTERMINATED_SECTION_NAME"},
                                               {2, "INI_MISSING_EQUALS"},
                                               {3, "unknown ini error 3"},
                                               {4, "INI_FILE_ERROR"},
                                               {5, "unknown ini error 5"},
                                               {-1, "unknown ini error -1"}};
  for (auto [code, name] : cases) EXPECT_STREQ(ini_strerror(code), name) << code;
}

TEST_F(Ini, SetStoresACopyEmptyUnsetsAndClearForgets) {
  IniTree* tree = ini_init();
  ASSERT_NE(tree, nullptr);
  EXPECT_EQ(ini_init(), tree);
  char value[] = "v1";
  ini_set_var("s", "k", value);
  value[0] = 'X';
  EXPECT_EQ(get("s", "k"), "v1");
  ini_set_var("s", "k", "v2");
  EXPECT_EQ(get("s", "k"), "v2");
  EXPECT_EQ(get("s", "missing"), NONE);
  for (const char* empty : {"", static_cast<const char*>(nullptr)}) {
    ini_set_var("s", "k", "v");
    ini_set_var("s", "k", empty);
    EXPECT_EQ(get("s", "k"), NONE);
  }
  ini_set_var("s", "k", "v");
  ini_clear();
  EXPECT_EQ(get("s", "k"), NONE);
  ini_clear();  // twice is harmless
  ini_set_var("s", "j", "w");
  EXPECT_EQ(get("s", "j"), "w");
  EXPECT_EQ(get("s", "k"), NONE);
}

using Triple = std::tuple<std::string, std::string, std::string>;

std::vector<Triple> iterate_all() {
  std::vector<Triple> out;
  for (IniIterator* it = ini_iterate(nullptr); it != nullptr && out.size() <= 100;
       it = ini_iterate(it)) {
    IniEntry* e = ini_dereference(it);
    if (e == nullptr) {
      ADD_FAILURE() << "dereference failed";
      break;
    }
    out.emplace_back(e->section ? e->section : "<unnamed>", e->name, e->value);
  }
  return out;
}

TEST_F(Ini, IterationRunsNewestSectionFirstAndSkipsEmptyValues) {
  EXPECT_EQ(ini_iterate(nullptr), nullptr);
  ini_set_var("s", "k", nullptr);
  EXPECT_EQ(ini_iterate(nullptr), nullptr);
  EXPECT_EQ(ini_dereference(nullptr), nullptr);
  IniIterator empty = {nullptr, nullptr};
  EXPECT_EQ(ini_dereference(&empty), nullptr);

  ASSERT_EQ(import_text("u=0\n[A]\na1=1\na2=\na3=3\n[B]\nb1=1\n[C]\nc=\n"), INI_OK);
  std::vector<Triple> want = {
      {"B", "b1", "1"}, {"A", "a1", "1"}, {"A", "a3", "3"}, {"<unnamed>", "u", "0"}};
  EXPECT_EQ(iterate_all(), want);
}

TEST_F(Ini, LogLinesAtLevelNine) {
  std::string in = write_file("a=1\n[s]\n");
  std::string log = logged_at(9, [&] {
    ASSERT_EQ(ini_import(in.c_str()), INI_OK);
    ini_get_var("s", "a");
    ini_dereference(ini_iterate(nullptr));
    ini_clear();
  });
  EXPECT_EQ(
      lacking(log, {"ini_import: " + in + " 0x", "line=a=1\nini_set_var: (null) a 1\nline=[s]\n",
                    "ini_get_var: 0x", " s a\n", "ini_iterate: (nil)\n",
                    "ini_dereference: (null) a 1\n", "ini_clear:\n"}),
      "")
      << log;
}

TEST_F(Ini, ErrorsAreLoggedAtLevelSevenAndNothingAtThree) {
  std::string bad[] = {write_file("[sec\n"), write_file("  plain words\n"), write_file(" = v\n"),
                       tmp.file("missing.conf")};
  std::string log = logged_at(7, [&] {
    for (int code = 1; code <= 4; code++) EXPECT_EQ(ini_import(bad[code - 1].c_str()), code);
  });
  EXPECT_EQ(lacking(log, {"Bad section name: [sec\n", "Missing equals in: plain words\n",
                          "Missing name in: = v\n", "Ini can't open " + bad[3] + "\n"}),
            "")
      << log;
  EXPECT_FALSE(contains(log, "line=")) << log;  // level 9 lines are held back at 7

  std::string quiet = write_file("a=1\nbroken\n");
  auto import_quiet = [&] { EXPECT_EQ(ini_import(quiet.c_str()), INI_MISSING_EQUALS); };
  EXPECT_EQ(logged_at(3, import_quiet), "");
}

}  // namespace
