#include "daemon/watchdog.h"

#include <unistd.h>

#include <fstream>
#include <string>

#include "gtest/gtest.h"

namespace {

TEST(RestartDelay, GrowsByTenSecondsPerQuickFailureUpToFiveMinutes) {
  int quick = 0;
  EXPECT_EQ(watchdog_restart_delay(10, &quick), 10);
  EXPECT_EQ(watchdog_restart_delay(10, &quick), 20);
  EXPECT_EQ(watchdog_restart_delay(10, &quick), 30);
  for (int i = 4; i < 30; i++) watchdog_restart_delay(0, &quick);
  EXPECT_EQ(watchdog_restart_delay(0, &quick), 300);  // the 30th
  EXPECT_EQ(watchdog_restart_delay(0, &quick), 300);  // and beyond
}

TEST(RestartDelay, LongRunResetsTheSeries) {
  int quick = 5;
  EXPECT_EQ(watchdog_restart_delay(600, &quick), 1);
  EXPECT_EQ(quick, 0);
  EXPECT_EQ(watchdog_restart_delay(299, &quick), 10);  // 299 s is still quick
}

class PidFile : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vigild_pid_XXXXXX";
    int fd = mkstemp(tmpl);
    close(fd);
    path_ = tmpl;
  }
  void TearDown() override { unlink(path_.c_str()); }
  bool exists() const { return access(path_.c_str(), F_OK) == 0; }
  std::string path_;
};

TEST_F(PidFile, LiveOwnerIsReported) {
  write_pid_file(path_.c_str());
  std::ifstream in(path_);
  int pid = 0;
  in >> pid;
  EXPECT_EQ(pid, getpid());
  EXPECT_EQ(check_previous(path_.c_str()), 1);
  EXPECT_TRUE(exists());
}

TEST_F(PidFile, StaleOrEmptyFileIsRemoved) {
  // Beyond pid_max no process exists; -1 would name every process we may signal.
  for (const char* content : {"999999999\n", "not a number\n", "-1\n"}) {
    std::ofstream(path_) << content;
    EXPECT_EQ(check_previous(path_.c_str()), 0) << content;
    EXPECT_FALSE(exists()) << content;
  }
}

TEST_F(PidFile, MissingFileOrNoNameIsNoInstance) {
  unlink(path_.c_str());
  EXPECT_EQ(check_previous(path_.c_str()), 0);
  EXPECT_EQ(check_previous(nullptr), 0);
}

}  // namespace
