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
using net_test::logged;
using net_test::SKIP;

sockaddr_in make_addr(const char* dotted, int port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = inet_addr(dotted);
  return a;
}

TEST(Layer2, FlagFileTurnsLayer2ModeOn) {
  foundation_test::TempDir dir;
  std::string name = dir.write("bridge", "");
  layer2_mode = false;
  int rc = 0;
  EXPECT_EQ(logged([&] { rc = detect_layer2(name.c_str()); }),
            "The proxy is running in Layer 2 mode\n");
  EXPECT_EQ(rc, 1);
  EXPECT_TRUE(layer2_mode);
  layer2_mode = false;
  EXPECT_EQ(logged([&] { rc = detect_layer2(dir.file("none").c_str()); }), "");
  EXPECT_EQ(rc, 0);
  EXPECT_FALSE(layer2_mode);
}

// A stand-in for the kernel facility: records what it was given and answers
// as scripted, writing `result` back into the record as the facility does.
struct FakeKernel {
  int level = -1;
  int optname = -1;
  socklen_t len = 0;
  TproxyAssoc seen{};
  int answer = 0;
  int error = 0;
  sockaddr_in result{};
  sockaddr_in local{};
};
FakeKernel fake;

int fake_set(int, int level, int optname, const void* value, socklen_t len) {
  fake.level = level;
  fake.optname = optname;
  fake.len = len;
  memcpy(&fake.seen, value, sizeof fake.seen);
  const_cast<TproxyAssoc*>(static_cast<const TproxyAssoc*>(value))->result = fake.result;
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
  int found_ = 7;
  sockaddr_in result_ = make_addr("1.2.3.4", 5);
};

TEST_F(TproxyRecordTest, CtlSetAndGetUseTheRecordLayout) {
  ASSERT_EQ(tproxy_ctl_set(3, 17, &src_, &dst_, &local_), 0);
  EXPECT_EQ(fake.level, SOL_IP);
  EXPECT_EQ(fake.optname, 200);
  EXPECT_EQ(fake.len, 72u);
  const auto* bytes = reinterpret_cast<const unsigned char*>(&fake.seen);
  EXPECT_EQ(memcmp(bytes + 0, &src_, 16), 0);
  EXPECT_EQ(memcmp(bytes + 16, &dst_, 16), 0);
  EXPECT_EQ(memcmp(bytes + 32, &local_, 16), 0);
  int32_t fd, op;
  memcpy(&fd, bytes + 48, 4);
  memcpy(&op, bytes + 68, 4);
  EXPECT_EQ(fd, 17);
  EXPECT_EQ(op, 0);
  for (int i = 52; i < 68; i++) EXPECT_EQ(bytes[i], 0) << i;

  sockaddr_in out{};
  fake.local = make_addr("192.0.2.77", 0);
  ASSERT_EQ(tproxy_ctl_get(3, &src_, &dst_, &out), 0);
  EXPECT_EQ(fake.optname, TPROXY_OXB_AT_GET);
  EXPECT_EQ(fake.len, 72u);
  EXPECT_EQ(memcmp(&fake.seen.src, &src_, 16), 0);
  EXPECT_EQ(memcmp(&fake.seen.dst, &dst_, 16), 0);
  EXPECT_EQ(out.sin_addr.s_addr, inet_addr("192.0.2.77"));
}

TEST_F(TproxyRecordTest, EachOperationSendsItsCodeAndNamesItsRefusal) {
  struct Case {
    const char* name;
    std::function<int()> call;
    int op;
  };
  const std::vector<Case> cases = {
      {"CTL", [&] { return tproxy_ctl_set(3, 1, &src_, &dst_, &local_); }, 0},
      {"P2S", [&] { return tproxy_p2s(3, 1, &src_, &dst_, &local_); }, 1},
      {"S2P", [&] { return tproxy_s2p(3, 1, &src_, &dst_, &local_, &found_, &result_); }, 2},
      {"S2C", [&] { return tproxy_s2c(3, 1, &src_, &dst_, &local_); }, 3},
      {"C2P", [&] { return tproxy_c2p(3, 1, &src_, &dst_, &local_, &found_, &result_); }, 4},
      {"CTL", [&] { return tproxy_ctl_get(3, &src_, &dst_, &result_); }, 0},
  };
  for (const Case& c : cases) {
    fake.answer = 0;
    EXPECT_EQ(c.call(), 0) << c.name;
    EXPECT_EQ(fake.seen.op, c.op) << c.name;
    fake.answer = -1;
    fake.error = EOPNOTSUPP;
    int rc = 0;
    EXPECT_EQ(logged([&] { rc = c.call(); }),
              std::string("TPROXY_OXB_AT ") + c.name + " error: Operation not supported\n");
    EXPECT_EQ(rc, 1) << c.name;
  }
}

TEST_F(TproxyRecordTest, LookupCopiesResultOnlyWhenKernelFoundAnEntry) {
  fake.result = make_addr("10.0.0.1", 25);
  fake.answer = 0;
  ASSERT_EQ(tproxy_s2p(3, 1, &src_, &dst_, &local_, &found_, &result_), 0);
  EXPECT_EQ(found_, 0);
  EXPECT_EQ(result_.sin_addr.s_addr, inet_addr("1.2.3.4"));
  fake.answer = 1;
  ASSERT_EQ(tproxy_c2p(3, 1, &src_, &dst_, &local_, &found_, &result_), 0);
  EXPECT_EQ(found_, 1);
  EXPECT_EQ(memcmp(&result_, &fake.result, sizeof result_), 0);
}

TEST(TproxyKernel, StockKernelRefusesTheAssociation) {
  int sock = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(sock, 0);
  sockaddr_in src = make_addr("198.51.100.7", 40000), dst = make_addr("203.0.113.25", 25);
  sockaddr_in local = make_addr("127.0.0.1", 0);
  dlog_set_level(0, 9);
  std::string log = logged([&] {
    EXPECT_EQ(tproxy_ctl_get(sock, &src, &dst, &local), 1);
    EXPECT_EQ(tproxy_ctl_set(sock, 0, &src, &dst, &local), 1);
  });
  dlog_set_level(0, 3);
  close(sock);
  EXPECT_EQ(log.rfind("TPROXY_OXB_AT CTL error: ", 0), 0u) << log;
}

// "<result> <address>:<port> <log>" of one bind_local call.
std::string bind_in_netns(const char* dotted, int port) {
  int sock = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = make_addr(dotted, port);
  int rc = 0;
  std::string log = logged([&] { rc = bind_local(sock, &a); });
  close(sock);
  return std::to_string(rc) + " " + inet_ntoa(a.sin_addr) + ":" +
         std::to_string(ntohs(a.sin_port)) + " " + log;
}

TEST(BindLocal, OnlyLoopbackFindsNoLocalAddress) {
  std::string out = in_netns({"ip link set lo up"}, [] { return bind_in_netns("0.0.0.0", 2525); });
  if (out == SKIP) GTEST_SKIP() << out;
  EXPECT_EQ(out, "-1 0.0.0.0:2525 Couldn't find a local addr.\n");
}

TEST(BindLocal, AnyAddressTakesFirstBroadcastInterfaceAndFailedBindReloadsRoutes) {
  std::string out = in_netns(net_test::LO_ALIAS_AND_VETH, [] {
    timer_init();
    dlog_set_level(0, 5);
    std::string any = bind_in_netns("0.0.0.0", 2525);
    std::string bad = bind_in_netns("192.0.2.99", 2525);
    return any + "| " + bad + std::to_string(routes_table().entries.size());
  });
  if (out == SKIP) GTEST_SKIP() << out;
  EXPECT_EQ(out, "0 192.0.2.10:2525 | " + std::to_string(EADDRNOTAVAIL) +
                     " 192.0.2.99:2525 Unable to bind to address 192.0.2.99, port 2525. "
                     "Cannot assign requested address\n1");
}

}  // namespace
