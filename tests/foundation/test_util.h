// Helpers shared by the unit tests: a private temporary directory, and what
// code logs or writes to a stream.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "foundation/dlog.h"

namespace foundation_test {

inline std::string read_to_eof(int fd) {  // or, when non-blocking, until it has no more
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) out.append(buf, n);
  return out;
}

inline std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

struct TempDir {  // removed with everything in it at the end
  std::string path = [] {
    char tmpl[] = "/tmp/vigild_test.XXXXXX";
    return std::string(mkdtemp(tmpl));
  }();
  ~TempDir() { std::filesystem::remove_all(path); }
  std::string file(const std::string& name) const { return path + "/" + name; }
  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(file(name), std::ios::binary) << text;
    return file(name);
  }
};

// What body writes to a stream.
inline std::string written(const std::function<void(FILE*)>& body) {
  FILE* f = tmpfile();
  body(f);
  fflush(f);
  rewind(f);
  std::string out = read_to_eof(fileno(f));
  fclose(f);
  return out;
}

// What body logs with every section at `level`, to standard error only.
inline std::string logged(const std::function<void()>& body, unsigned level = 9) {
  return written([&](FILE* sink) {
    fflush(stderr);
    int saved = dup(2);
    dup2(fileno(sink), 2);
    unsigned mode = dlog_set_mode("vigild_test", DLOG_MODE_STDERR), before = dlog_get_level(0);
    dlog_set_level(0, level);  // the tests set no single section
    body();
    dlog_set_level(0, before);
    dlog_set_mode("vigild_test", mode);
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
  });
}

}  // namespace foundation_test
