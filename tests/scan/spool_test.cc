// The scan file's writer: what is buffered and what goes straight through
// reach the file in order, and a write the file system cuts short leaves the
// file marked failed with exactly the bytes that did arrive.
#include "scan/spool.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

namespace {

std::string contents(const std::string& name) {
  std::ifstream in(name, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

SpoolPtr make_file(std::string* name) {
  char path[] = "/tmp/spool_testXXXXXX";
  int fd = mkstemp(path);
  EXPECT_GE(fd, 0);
  *name = path;
  return SpoolPtr(spool_adopt(fd, path));
}

TEST(Spool, BufferedAndWrittenThroughBytesKeepTheirOrderAndACutShortWriteFailsForGood) {
  std::string name;
  SpoolPtr f = make_file(&name);
  const std::string head = "Received: x\r\n", big(100000, 'b'), tail = "tail\r\n";
  ASSERT_TRUE(spool_write(f.get(), head.data(), head.size()));
  EXPECT_EQ(f->size, 0) << "a small piece waits in the buffer";
  ASSERT_TRUE(spool_write(f.get(), big.data(), big.size()));
  ASSERT_TRUE(spool_write(f.get(), tail.data(), tail.size()));
  ASSERT_TRUE(spool_finish(f.get()));
  EXPECT_EQ(contents(name), head + big + tail);
  EXPECT_EQ(f->size, static_cast<int64_t>(head.size() + big.size() + tail.size()));
  f.reset();
  EXPECT_NE(access(name.c_str(), F_OK), 0) << "the file leaves the disk with its owner";

  // A file size limit stands in for a full disk: the kernel takes part of
  // the big piece, then refuses the rest.
  f = make_file(&name);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, SIG_IGN);
  const rlim_t limit = 70000;
  rlimit small{limit, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  bool ok = spool_write(f.get(), head.data(), head.size()) &&
            spool_write(f.get(), big.data(), big.size());
  int err = errno;
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_FALSE(ok);
  EXPECT_EQ(err, EFBIG);
  EXPECT_EQ(f->size, static_cast<int64_t>(limit));
  EXPECT_EQ(contents(name), (head + big).substr(0, limit));
  EXPECT_FALSE(spool_write(f.get(), tail.data(), tail.size()));
  EXPECT_FALSE(spool_finish(f.get()));
}

}  // namespace
