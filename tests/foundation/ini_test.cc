#include "foundation/ini.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/foundation/test_util.h"

namespace {

using namespace foundation_test;

// The whole tree after each import shows in its export; empty values are left out.
TEST(Ini, ImportTable) {
  TempDir tmp;
  const std::string v509(509, 'v');
  const std::tuple<std::string, int, std::string> cases[] = {
      {"a = b c\nempty=\nx = 1 = 2\n  # a=1\nc = 3 # no comment\n", INI_OK,
       "a=b c\nx=1 = 2\nc=3 # no comment\n"},
      {"\r\n\tk\t=\tv w\t\r\n[ s ] junk\r\nn =m\r\n", INI_OK, "k=v w\n[s]\nn=m\n"},
      {"[A]\na=1\n[B]\nB=1\n[A]\nc=1\na=2\n", INI_OK, "[A]\na=2\nc=1\n[B]\nB=1\n"},
      {"[sec\n", INI_UNTERMINATED_SECTION_NAME, ""},
      {"   = value\n", INI_MISSING_NAME, ""},
      {"a=1\n[s]\nb=2\nbroken\nc=3\n", INI_MISSING_EQUALS, "a=1\n[s]\nb=2\n"},
      {"k=" + v509 + "\n", INI_OK, "k=" + v509 + "\n"},  // 511 bytes are one line, more split
      {"k=" + v509 + "x=y\n", INI_OK, "k=" + v509 + "\nx=y\n"}};
  for (const auto& [text, code, exported] : cases) {
    ini_clear();
    EXPECT_EQ(ini_import(tmp.write("in", text).c_str()), code) << text;
    EXPECT_EQ(ini_export(tmp.file("out").c_str()), INI_OK);
    EXPECT_EQ(slurp(tmp.file("out")), exported) << text;
  }
  EXPECT_EQ(ini_import(tmp.file("missing").c_str()), INI_FILE_ERROR);
  EXPECT_EQ(ini_export(tmp.file("no/dir").c_str()), INI_FILE_ERROR);
  EXPECT_STREQ(ini_strerror(INI_MISSING_NAME), "unknown ini error 3");
  EXPECT_STREQ(ini_strerror(INI_FILE_ERROR), "INI_FILE_ERROR");
  // Errors are logged at level 7, and nothing at 3.
  EXPECT_EQ(logged([&] { ini_import(tmp.write("bad", " = v\n").c_str()); }, 3), "");
  EXPECT_TRUE(
      contains(logged([&] { ini_import(tmp.file("bad").c_str()); }, 7), "Missing name in: = v\n"));
  ini_clear();
}

TEST(Ini, LaterFileWinsAndLookupMindsSectionAndCase) {
  TempDir tmp;
  ASSERT_EQ(ini_import(tmp.write("1", "k=top\n[s]\nk=1\nc=c\n[t]\nx=1\ny=1\n").c_str()), INI_OK);
  ASSERT_EQ(ini_import(tmp.write("2", "[s]\nk=2\np=p\n[ ]\nk=empty\n[t]\ny=\n").c_str()), INI_OK);
  EXPECT_STREQ(ini_get_var(nullptr, "k"), "top");
  EXPECT_STREQ(ini_get_var("", "k"), "empty");
  EXPECT_EQ(ini_get_var("S", "k"), nullptr);
  EXPECT_EQ(ini_get_var("t", "y"), nullptr);
  // Newest section first; a replaced variable keeps its place; an emptied one is gone.
  std::string seen;
  for (IniIterator* it = ini_iterate(nullptr); it != nullptr; it = ini_iterate(it)) {
    IniEntry* e = ini_dereference(it);
    seen += std::string(e->section ? e->section : "-") + "." + e->name + "=" + e->value + " ";
  }
  EXPECT_EQ(seen, ".k=empty t.x=1 s.k=2 s.c=c s.p=p -.k=top ");
  ini_clear();
}

}  // namespace
