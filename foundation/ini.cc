// INI files. The tree is a list of sections, newest first, ending in the
// unnamed section that ini_init creates; variables keep the order in which
// they were first seen. The tree, the iterator and the dereferenced entry are
// module state: there is one of each per process.
#include "foundation/ini.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include "foundation/dlog.h"
#include "foundation/text.h"

struct IniVariable {
  IniVariable* next;
  char* name;
  char* value;  // null when empty
};

struct IniSection {
  IniSection* next;
  char* name;  // null for the unnamed section
  IniVariable* variables;
};

struct IniTree {
  IniSection* sections;  // newest first; the unnamed section is the last
};

namespace {

constexpr int kLineBufferSize = 512;
constexpr const char* kWhiteSpace = " \t\n\v\f\r";

IniTree* tree = nullptr;
IniIterator iterator_state = {nullptr, nullptr};
IniEntry entry_state = {nullptr, nullptr, nullptr};
char unknown_error[100];

// glibc prints "(null)" for a null %s; spelled out so the log does not rely on it.
const char* nz(const char* s) {
  return s != nullptr ? s : "(null)";
}

char* copy_or_null(const char* s) {
  return s != nullptr && *s != 0 ? strdup(s) : nullptr;
}

bool same_name(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) return a == b;
  return strcmp(a, b) == 0;
}

IniSection* find_section(const char* name) {
  for (IniSection* s = tree->sections; s != nullptr; s = s->next) {
    if (same_name(s->name, name)) return s;
  }
  return nullptr;
}

IniSection* push_section(const char* name) {
  IniSection* s = static_cast<IniSection*>(calloc(1, sizeof(IniSection)));
  if (s == nullptr) return nullptr;
  if (name != nullptr) {
    s->name = strdup(name);
    if (s->name == nullptr) {
      free(s);
      return nullptr;
    }
  }
  s->next = tree->sections;
  tree->sections = s;
  return s;
}

IniTree* ensure_tree() {
  return tree != nullptr ? tree : ini_init();
}

// First variable of s, or of a later section, from v on, whose name and value
// are both set.
IniIterator* iterate_from(IniSection* s, IniVariable* v) {
  while (s != nullptr) {
    for (; v != nullptr; v = v->next) {
      if (v->name != nullptr && v->value != nullptr) {
        iterator_state.section = s;
        iterator_state.variable = v;
        return &iterator_state;
      }
    }
    s = s->next;
    if (s != nullptr) v = s->variables;
  }
  iterator_state.section = nullptr;
  iterator_state.variable = nullptr;
  return nullptr;
}

int parse_stream(FILE* f) {
  char line[kLineBufferSize];
  char* section = nullptr;  // the current section's name; null: the unnamed one
  int result = INI_OK;
  while (fgets(line, sizeof(line), f) != nullptr) {
    dlog(DLOG_INI, 9, "line=%s", line);
    char* p = line + strspn(line, kWhiteSpace);
    if (*p == 0 || *p == '#') continue;
    if (*p == '[') {
      char* close = strchr(p, ']');
      if (close == nullptr) {
        dlog(DLOG_INI, 7, "Bad section name: %s", p);
        result = INI_UNTERMINATED_SECTION_NAME;
        break;
      }
      *close = 0;
      free(section);
      section = strdup(str_trim(p + 1));
      continue;
    }
    char* equals = strchr(p, '=');
    if (equals == nullptr) {
      dlog(DLOG_INI, 7, "Missing equals in: %s", p);
      result = INI_MISSING_EQUALS;
      break;
    }
    if (equals == p) {
      // Leading white space is already gone, so the name is empty exactly
      // when the line starts with the equals sign.
      dlog(DLOG_INI, 7, "Missing name in: %s", p);
      result = INI_MISSING_NAME;
      break;
    }
    *equals = 0;
    ini_set_var(section, str_trim(p), str_trim(equals + 1));
  }
  free(section);
  return result;
}

}  // namespace

IniTree* ini_init() {
  if (tree == nullptr) {
    tree = static_cast<IniTree*>(calloc(1, sizeof(IniTree)));
    if (tree != nullptr && push_section(nullptr) == nullptr) {
      free(tree);
      tree = nullptr;
    }
  }
  dlog(DLOG_INI, 7, "%s: %p\n", "ini_init", static_cast<void*>(tree));
  return tree;
}

int ini_import(const char* file_name) {
  ensure_tree();
  FILE* f = file_name != nullptr ? fopen(file_name, "r") : nullptr;
  dlog(DLOG_INI, 7, "%s: %s %p\n", "ini_import", nz(file_name), static_cast<void*>(f));
  if (f == nullptr) {
    dlog(DLOG_INI, 7, "Ini can't open %s\n", nz(file_name));
    return INI_FILE_ERROR;
  }
  int result = parse_stream(f);
  fclose(f);
  return result;
}

const char* ini_get_var(const char* section, const char* name) {
  dlog(DLOG_INI, 9, "%s: %p %s %s\n", "ini_get_var", static_cast<void*>(tree), nz(section),
       nz(name));
  if (tree == nullptr || name == nullptr) return nullptr;
  IniSection* s = find_section(section);
  if (s == nullptr) return nullptr;
  for (IniVariable* v = s->variables; v != nullptr; v = v->next) {
    if (v->name != nullptr && strcmp(v->name, name) == 0) return v->value;
  }
  return nullptr;
}

void ini_set_var(const char* section, const char* name, const char* value) {
  dlog(DLOG_INI, 7, "%s: %s %s %s\n", "ini_set_var", nz(section), nz(name), nz(value));
  if (name == nullptr || ensure_tree() == nullptr) return;
  IniSection* s = find_section(section);
  if (s == nullptr) s = push_section(section);
  if (s == nullptr) return;
  IniVariable** link = &s->variables;
  IniVariable* v = nullptr;
  for (; *link != nullptr; link = &(*link)->next) {
    if ((*link)->name != nullptr && strcmp((*link)->name, name) == 0) {
      v = *link;
      break;
    }
  }
  if (v == nullptr) {
    v = static_cast<IniVariable*>(calloc(1, sizeof(IniVariable)));
    if (v == nullptr) return;
    v->name = strdup(name);
    if (v->name == nullptr) {
      free(v);
      return;
    }
    *link = v;
  }
  free(v->value);
  v->value = copy_or_null(value);
}

int ini_export(const char* file_name) {
  FILE* f = nullptr;
  if (file_name != nullptr) {
    unlink(file_name);
    f = fopen(file_name, "w");
  }
  dlog(DLOG_INI, 7, "%s: %p %s\n", "ini_export", static_cast<void*>(f), nz(file_name));
  if (f == nullptr) return INI_FILE_ERROR;
  // The list runs newest first; the file is written oldest first.
  std::vector<IniSection*> order;
  if (tree != nullptr) {
    for (IniSection* s = tree->sections; s != nullptr; s = s->next) order.push_back(s);
  }
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    IniSection* s = *it;
    if (s->name != nullptr) fprintf(f, "[%s]\n", s->name);
    for (IniVariable* v = s->variables; v != nullptr; v = v->next) {
      if (v->value != nullptr) fprintf(f, "%s=%s\n", v->name, v->value);
    }
  }
  fclose(f);
  return INI_OK;
}

void ini_clear() {
  dlog(DLOG_INI, 7, "%s:\n", "ini_clear");
  if (tree != nullptr) {
    IniSection* s = tree->sections;
    while (s != nullptr) {
      IniVariable* v = s->variables;
      while (v != nullptr) {
        IniVariable* next_v = v->next;
        free(v->name);
        free(v->value);
        free(v);
        v = next_v;
      }
      IniSection* next_s = s->next;
      free(s->name);
      free(s);
      s = next_s;
    }
    free(tree);
    tree = nullptr;
  }
  iterator_state = {nullptr, nullptr};
  entry_state = {nullptr, nullptr, nullptr};
}

IniIterator* ini_iterate(IniIterator* previous) {
  dlog(DLOG_INI, 9, "%s: %p\n", "ini_iterate", static_cast<void*>(previous));
  if (ensure_tree() == nullptr) return nullptr;
  if (previous == nullptr) {
    IniSection* first = tree->sections;
    return iterate_from(first, first != nullptr ? first->variables : nullptr);
  }
  if (previous->section == nullptr) return nullptr;
  IniVariable* v = previous->variable != nullptr ? previous->variable->next : nullptr;
  return iterate_from(previous->section, v);
}

IniEntry* ini_dereference(IniIterator* iterator) {
  if (iterator == nullptr || iterator->section == nullptr || iterator->variable == nullptr) {
    return nullptr;
  }
  entry_state.section = iterator->section->name;
  entry_state.name = iterator->variable->name;
  entry_state.value = iterator->variable->value;
  dlog(DLOG_INI, 9, "%s: %s %s %s\n", "ini_dereference", nz(entry_state.section),
       nz(entry_state.name), nz(entry_state.value));
  return &entry_state;
}

const char* ini_strerror(int code) {
  switch (code) {
    case INI_OK:
      return "INI_OK";
    case INI_UNTERMINATED_SECTION_NAME:
      return "INI_UNTERMINATED_SECTION_NAME";
    case INI_MISSING_EQUALS:
      return "INI_MISSING_EQUALS";
    case INI_FILE_ERROR:
      return "INI_FILE_ERROR";
    default:
      snprintf(unknown_error, sizeof(unknown_error), "unknown ini error %d", code);
      return unknown_error;
  }
}
