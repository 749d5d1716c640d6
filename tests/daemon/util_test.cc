#include "daemon/util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>

#include "daemon/vigild.h"
#include "gtest/gtest.h"

namespace {

class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/vigild_util_XXXXXX";
    path_ = mkdtemp(tmpl);
  }
  ~TempDir() { std::system(("rm -rf " + path_).c_str()); }
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

void touch(const std::string& path) {
  std::ofstream(path) << "x";
}

TEST(TransientErrno, WaitsOnlyForReadinessErrors) {
  EXPECT_TRUE(is_transient_errno(EINTR));
  EXPECT_TRUE(is_transient_errno(EAGAIN));
  EXPECT_TRUE(is_transient_errno(EWOULDBLOCK));
  EXPECT_TRUE(is_transient_errno(EALREADY));
  EXPECT_TRUE(is_transient_errno(EINPROGRESS));
  EXPECT_TRUE(is_transient_errno(85));  // ERESTART
  EXPECT_FALSE(is_transient_errno(ECONNRESET));
  EXPECT_FALSE(is_transient_errno(EPIPE));
  EXPECT_FALSE(is_transient_errno(0));
}

TEST(SetNonblock, AddsFlagAndRejectsBadDescriptor) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  EXPECT_EQ(set_nonblock(fds[0]), 0);
  EXPECT_TRUE(fcntl(fds[0], F_GETFL) & O_NONBLOCK);
  close(fds[0]);
  close(fds[1]);
  EXPECT_EQ(set_nonblock(fds[0]), 1);
}

TEST(ListenSocket, AcceptsOnItsPortWithoutBlocking) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;  // any free port
  UniqueFd listener(make_listen_socket(&address));
  ASSERT_GE(listener.get(), 0);
  EXPECT_TRUE(fcntl(listener.get(), F_GETFL) & O_NONBLOCK);

  sockaddr_in bound{};
  socklen_t len = sizeof(bound);
  ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&bound), &len), 0);
  ASSERT_NE(bound.sin_port, 0);

  // Nothing pending: accept must fail at once with EAGAIN rather than block.
  EXPECT_LT(accept(listener.get(), nullptr, nullptr), 0);
  EXPECT_TRUE(is_transient_errno(errno));

  UniqueFd client(socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&bound), sizeof(bound)), 0);
  UniqueFd served;
  for (int i = 0; i < 1000 && served.get() < 0; i++)
    served.reset(accept(listener.get(), nullptr, nullptr));
  EXPECT_GE(served.get(), 0);
}

TEST(ListenSocket, PortInUseFailsWithoutLeakingTheSocket) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  UniqueFd first(make_listen_socket(&address));
  ASSERT_GE(first.get(), 0);
  socklen_t len = sizeof(address);
  getsockname(first.get(), reinterpret_cast<sockaddr*>(&address), &len);
  int probe = dup(0);
  close(probe);
  EXPECT_EQ(make_listen_socket(&address), -1);
  int after = dup(0);
  close(after);
  EXPECT_EQ(after, probe) << "the failed socket's descriptor stayed open";
}

TEST(CleanupScanDir, RemovesOnlyEntriesWithThePrefix) {
  TempDir dir;
  touch(dir.file("vigild_1234"));
  ASSERT_EQ(mkdir(dir.file("vigild_x").c_str(), 0700), 0);
  ASSERT_EQ(mkdir(dir.file("vigild_x/deeper").c_str(), 0700), 0);
  touch(dir.file("vigild_x/inner"));
  touch(dir.file("vigild_x/deeper/leaf"));
  touch(dir.file("other.txt"));
  touch(dir.file("xvigild_1"));

  startup_options.cleanup_disabled = false;
  cleanup_scan_dir(dir.path().c_str(), "vigild_");

  EXPECT_FALSE(exists(dir.file("vigild_1234")));
  EXPECT_FALSE(exists(dir.file("vigild_x")));
  EXPECT_TRUE(exists(dir.file("other.txt")));
  EXPECT_TRUE(exists(dir.file("xvigild_1")));
}

TEST(CleanupScanDir, DisabledByOptionRemovesNothing) {
  TempDir dir;
  touch(dir.file("vigild_1"));
  startup_options.cleanup_disabled = true;
  cleanup_scan_dir(dir.path().c_str(), "vigild_");
  startup_options.cleanup_disabled = false;
  EXPECT_TRUE(exists(dir.file("vigild_1")));
}

TEST(CleanupScanDir, MissingDirectoryIsSurvived) {
  startup_options.cleanup_disabled = false;
  cleanup_scan_dir("/nonexistent/vigild/scan", "vigild_");
}

TEST(FdLimit, GrantsWhatTheProcessMayHave) {
  long granted = set_fd_limit(1024);
  EXPECT_GE(granted, 1);
  EXPECT_LE(granted, 1024);
  if (getuid() == 0) {
    EXPECT_EQ(granted, 1024);
  }
}

}  // namespace
