// Helpers shared by the tests: a private temporary directory, what a piece of
// code writes to standard error or to a stream, and a forked child's answer.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <sstream>
#include <string>

#include "foundation/dlog.h"

namespace foundation_test {

inline std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline bool file_exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The parts that text lacks, each in brackets; empty when it has them all.
inline std::string lacking(const std::string& text, std::initializer_list<std::string> parts) {
  std::string out;
  for (const std::string& part : parts) {
    if (!contains(text, part)) out += "[" + part + "] ";
  }
  return out;
}

// What fd gives until end of file or, when non-blocking, until it has no more.
inline std::string read_to_eof(int fd) {
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) out.append(buf, n);
  return out;
}

// A directory made with mkdtemp, removed with everything in it at the end.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/vigild_test.XXXXXX";
    if (mkdtemp(tmpl) != nullptr) path_ = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  bool ok() const { return !path_.empty(); }
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::string write(const std::string& name, const std::string& text) const {
    std::string p = file(name);
    std::ofstream(p, std::ios::binary) << text;
    return p;
  }

 private:
  std::string path_;
};

// Descriptor 2 points at `path` from construction until finish() (or the
// destructor), which puts the old one back and returns what was written.
class StderrCapture {
 public:
  explicit StderrCapture(const std::string& path) : path_(path) {
    fflush(stderr);
    saved_ = dup(2);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd >= 0) {
      dup2(fd, 2);
      close(fd);
    }
  }
  ~StderrCapture() { finish(); }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  std::string finish() {
    if (saved_ >= 0) {
      fflush(stderr);
      dup2(saved_, 2);
      close(saved_);
      saved_ = -1;
    }
    return slurp(path_);
  }

 private:
  std::string path_;
  int saved_ = -1;
};

// What body writes to standard error, whatever the log's mode.
inline std::string captured(const std::function<void()>& body) {
  TempDir dir;
  StderrCapture capture(dir.file("stderr"));
  body();
  return capture.finish();
}

// What body logs, with the log writing to standard error only.
inline std::string logged(const std::function<void()>& body) {
  return captured([&] {
    unsigned mode = dlog_set_mode("vigild_test", DLOG_MODE_STDERR);
    body();
    dlog_set_mode("vigild_test", mode);
  });
}

// What body writes to a stream.
inline std::string written(const std::function<void(FILE*)>& body) {
  char* text = nullptr;
  size_t size = 0;
  FILE* f = open_memstream(&text, &size);
  body(f);
  fclose(f);
  std::string s(text, size);
  free(text);
  return s;
}

constexpr const char* SKIP = "skip";

// Runs body in a forked child and returns what it answered; SKIP when the
// child exits with 77 (a facility the test needs is missing here).
inline std::string in_child(const std::function<std::string()>& body) {
  int fds[2];
  if (pipe(fds) != 0) return "pipe failed";
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    std::string out = body();
    _exit(write(fds[1], out.data(), out.size()) == static_cast<ssize_t>(out.size()) ? 0 : 1);
  }
  close(fds[1]);
  std::string out = read_to_eof(fds[0]);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) return SKIP;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "child failed: " + out;
  return out;
}

}  // namespace foundation_test
