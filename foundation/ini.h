// INI files: one process-wide tree of sections and variables, filled by
// ini_import (later values win, also across files), queried while the settings
// are read, and cleared. All strings are owned by the tree.
#pragma once

enum IniResult : int {
  INI_OK = 0,
  INI_UNTERMINATED_SECTION_NAME = 1,
  INI_MISSING_EQUALS = 2,
  INI_MISSING_NAME = 3,  // has no name of its own in ini_strerror
  INI_FILE_ERROR = 4,
};

struct IniSection;
struct IniVariable;

struct IniIterator {
  IniSection* section;
  IniVariable* variable;
};

struct IniEntry {
  const char* section;  // null for the unnamed section
  const char* name;
  const char* value;
};

struct IniTree;

IniTree* ini_init();
int ini_import(const char* file_name);
// Valid until the variable is set again or the tree is cleared.
const char* ini_get_var(const char* section, const char* name);
void ini_set_var(const char* section, const char* name, const char* value);
int ini_export(const char* file_name);
void ini_clear();
IniIterator* ini_iterate(IniIterator* previous);
IniEntry* ini_dereference(IniIterator* iterator);
const char* ini_strerror(int code);
