// Helpers shared by the foundation tests: a private temporary directory and a
// capture of standard error (descriptor 2) into a file, for the log's output.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

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

// A directory made with mkdtemp, removed with everything in it at the end.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/vigild_found.XXXXXX";
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

}  // namespace foundation_test
