#include "net/tproxy.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "event/timer.h"
#include "net/route.h"
#include "tests/net/net_test_support.h"

namespace {

using net_test::in_netns;
using net_test::LogCapture;
using net_test::SKIP;

sockaddr_in make_addr(const char* dotted, int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = inet_addr(dotted);
  return a;
}

TEST(Layer2, FlagFileTurnsLayer2ModeOn) {
  char name[] = "/tmp/tproxy_bridge.XXXXXX";
  int fd = mkstemp(name);
  ASSERT_GE(fd, 0);
  close(fd);
  layer2_mode = false;
  {
    LogCapture log;
    EXPECT_EQ(detect_layer2(name), 1);
    EXPECT_EQ(log.text(), "The proxy is running in Layer 2 mode\n");
  }
  EXPECT_TRUE(layer2_mode);
  unlink(name);
  layer2_mode = false;
  LogCapture log;
  EXPECT_EQ(detect_layer2(name), 0);
  EXPECT_FALSE(layer2_mode);
  EXPECT_EQ(log.text(), "");
}

// A stand-in for the kernel facility: records what was passed and answers
// with a scripted result.
struct FakeKernel {
  int level = -1;
  int optname = -1;
  socklen_t len = 0;
  TproxyAssoc seen{};
  int answer = 0;
  int error = 0;
  bool write_result = false;
  sockaddr_in result{};
  sockaddr_in local{};
};
FakeKernel fake;

int fake_set(int, int level, int optname, const void* value, socklen_t len) {
  fake.level = level;
  fake.optname = optname;
  fake.len = len;
  memcpy(&fake.seen, value, sizeof fake.seen);
  if (fake.write_result) {
    // The facility writes its answer back into the caller's record.
    const_cast<TproxyAssoc*>(static_cast<const TproxyAssoc*>(value))->result = fake.result;
  }
  errno = fake.error;
  return fake.answer;
}

int fake_get(int, int level, int optname, void* value, socklen_t* len) {
  fake.level = level;
  fake.optname = optname;
  fake.len = *len;
  memcpy(&fake.seen, value, sizeof fake.seen);
  static_cast<TproxyAssoc*>(value)->local = fake.local;
  errno = fake.error;
  return fake.answer;
}

class TproxyRecordTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake = FakeKernel{};
    tproxy_set_sockopt_calls(fake_get, fake_set);
    dlog_set_level(0, 9);
  }
  void TearDown() override {
    tproxy_set_sockopt_calls(nullptr, nullptr);
    dlog_set_level(0, 3);
  }
  sockaddr_in src_ = make_addr("198.51.100.7", 40000);
  sockaddr_in dst_ = make_addr("203.0.113.25", 25);
  sockaddr_in local_ = make_addr("192.0.2.10", 0);
};

TEST_F(TproxyRecordTest, CtlSetSendsTheRecordLayout) {
  ASSERT_EQ(tproxy_ctl_set(3, 17, &src_, &dst_, &local_), 0);
  EXPECT_EQ(fake.level, SOL_IP);
  EXPECT_EQ(fake.optname, 200);
  EXPECT_EQ(fake.len, 72u);
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&fake.seen);
  EXPECT_EQ(memcmp(bytes + 0, &src_, 16), 0);
  EXPECT_EQ(memcmp(bytes + 16, &dst_, 16), 0);
  EXPECT_EQ(memcmp(bytes + 32, &local_, 16), 0);
  int32_t fd, op;
  memcpy(&fd, bytes + 48, 4);
  memcpy(&op, bytes + 68, 4);
  EXPECT_EQ(fd, 17);
  EXPECT_EQ(op, 0);
  for (int i = 52; i < 68; i++) EXPECT_EQ(bytes[i], 0) << i;
}

TEST_F(TproxyRecordTest, EachOperationSendsItsCode) {
  int found;
  sockaddr_in result;
  struct Case {
    const char* label;
    std::function<int()> call;
    int op;
  };
  const std::vector<Case> cases = {
      {"ctl", [&] { return tproxy_ctl_set(3, 1, &src_, &dst_, &local_); }, 0},
      {"p2s", [&] { return tproxy_p2s(3, 1, &src_, &dst_, &local_); }, 1},
      {"s2p", [&] { return tproxy_s2p(3, 1, &src_, &dst_, &local_, &found, &result); }, 2},
      {"s2c", [&] { return tproxy_s2c(3, 1, &src_, &dst_, &local_); }, 3},
      {"c2p", [&] { return tproxy_c2p(3, 1, &src_, &dst_, &local_, &found, &result); }, 4},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.call(), 0) << c.label;
    EXPECT_EQ(fake.seen.op, c.op) << c.label;
    EXPECT_EQ(fake.optname, TPROXY_OXB_AT) << c.label;
  }
}

TEST_F(TproxyRecordTest, RefusalsAreLoggedWithTheOperationName) {
  fake.answer = -1;
  fake.error = EOPNOTSUPP;
  int found = 7;
  sockaddr_in result{};
  struct Case {
    std::function<int()> call;
    const char* line;
  };
  const std::vector<Case> cases = {
      {[&] { return tproxy_ctl_set(3, 1, &src_, &dst_, &local_); },
       "TPROXY_OXB_AT CTL error: Operation not supported\n"},
      {[&] { return tproxy_p2s(3, 1, &src_, &dst_, &local_); },
       "TPROXY_OXB_AT P2S error: Operation not supported\n"},
      {[&] { return tproxy_s2p(3, 1, &src_, &dst_, &local_, &found, &result); },
       "TPROXY_OXB_AT S2P error: Operation not supported\n"},
      {[&] { return tproxy_s2c(3, 1, &src_, &dst_, &local_); },
       "TPROXY_OXB_AT S2C error: Operation not supported\n"},
      {[&] { return tproxy_c2p(3, 1, &src_, &dst_, &local_, &found, &result); },
       "TPROXY_OXB_AT C2P error: Operation not supported\n"},
      {[&] { return tproxy_ctl_get(3, &src_, &dst_, &result); },
       "TPROXY_OXB_AT CTL error: Operation not supported\n"},
  };
  for (const Case& c : cases) {
    LogCapture log;
    EXPECT_EQ(c.call(), 1) << c.line;
    EXPECT_EQ(log.text(), c.line);
  }
  EXPECT_EQ(found, 7);
}

TEST_F(TproxyRecordTest, S2pWithoutEntryLeavesResultUntouched) {
  sockaddr_in result = make_addr("1.2.3.4", 5);
  int found = 9;
  fake.answer = 0;
  fake.write_result = true;
  fake.result = make_addr("10.0.0.1", 25);
  ASSERT_EQ(tproxy_s2p(3, 1, &src_, &dst_, &local_, &found, &result), 0);
  EXPECT_EQ(found, 0);
  EXPECT_EQ(result.sin_addr.s_addr, inet_addr("1.2.3.4"));
}

TEST_F(TproxyRecordTest, S2pWithEntryCopiesTheKernelResult) {
  sockaddr_in result{};
  int found = 0;
  fake.answer = 1;
  fake.write_result = true;
  fake.result = make_addr("10.0.0.1", 25);
  ASSERT_EQ(tproxy_s2p(3, 1, &src_, &dst_, &local_, &found, &result), 0);
  EXPECT_EQ(found, 1);
  EXPECT_EQ(memcmp(&result, &fake.result, sizeof result), 0);
}

TEST_F(TproxyRecordTest, CtlGetReadsTheLocalAddress) {
  sockaddr_in out{};
  fake.local = make_addr("192.0.2.77", 0);
  ASSERT_EQ(tproxy_ctl_get(3, &src_, &dst_, &out), 0);
  EXPECT_EQ(fake.optname, TPROXY_OXB_AT_GET);
  EXPECT_EQ(fake.len, 72u);
  EXPECT_EQ(memcmp(&fake.seen.src, &src_, 16), 0);
  EXPECT_EQ(memcmp(&fake.seen.dst, &dst_, 16), 0);
  EXPECT_EQ(out.sin_addr.s_addr, inet_addr("192.0.2.77"));
}

TEST(TproxyKernel, StockKernelRefusesTheAssociation) {
  int sock = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(sock, 0);
  sockaddr_in src = make_addr("198.51.100.7", 40000), dst = make_addr("203.0.113.25", 25);
  sockaddr_in local = make_addr("127.0.0.1", 0);
  dlog_set_level(0, 9);
  LogCapture log;
  EXPECT_EQ(tproxy_ctl_get(sock, &src, &dst, &local), 1);
  EXPECT_EQ(tproxy_ctl_set(sock, 0, &src, &dst, &local), 1);
  std::string text = log.text();
  dlog_set_level(0, 3);
  close(sock);
  EXPECT_EQ(text.rfind("TPROXY_OXB_AT CTL error: ", 0), 0u) << text;
}

const std::vector<std::string> ONE_BROADCAST_INTERFACE = {
    "ip link set lo up",
    "ip link add v0 type veth peer name v1",
    "ip addr add 192.0.2.10/24 brd + dev v0",
    "ip link set v0 up",
};

std::string bind_in_netns(const char* dotted, int port) {
  int sock = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = make_addr(dotted, port);
  LogCapture log;
  int rc = bind_local(sock, &a);
  std::string out = std::to_string(rc) + " " + inet_ntoa(a.sin_addr) + ":" +
                    std::to_string(ntohs(a.sin_port)) + " " + log.text();
  close(sock);
  return out;
}

TEST(BindLocal, AnyAddressTakesFirstBroadcastInterface) {
  std::string out =
      in_netns(ONE_BROADCAST_INTERFACE, [] { return bind_in_netns("0.0.0.0", 2525); });
  if (out == SKIP) GTEST_SKIP() << out;
  EXPECT_EQ(out, "0 192.0.2.10:2525 ");
}

TEST(BindLocal, OnlyLoopbackFindsNoLocalAddress) {
  std::string out = in_netns({"ip link set lo up"}, [] { return bind_in_netns("0.0.0.0", 2525); });
  if (out == SKIP) GTEST_SKIP() << out;
  EXPECT_EQ(out, "-1 0.0.0.0:2525 Couldn't find a local addr.\n");
}

TEST(BindLocal, FailedBindReturnsErrnoAndReloadsRoutes) {
  std::string out = in_netns(ONE_BROADCAST_INTERFACE, [] {
    timer_init();
    dlog_set_level(0, 5);
    std::string s = bind_in_netns("192.0.2.99", 2525);
    return s + std::to_string(routes_table().entries.size());
  });
  if (out == SKIP) GTEST_SKIP() << out;
  EXPECT_EQ(out, std::to_string(EADDRNOTAVAIL) +
                     " 192.0.2.99:2525 Unable to bind to address 192.0.2.99, port 2525. "
                     "Cannot assign requested address\n1");
}

}  // namespace
