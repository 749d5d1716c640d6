#include "net/tproxy.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <tuple>

#include "tests/foundation/test_util.h"

namespace {

using foundation_test::logged;

sockaddr_in addr(const char* dotted, int port) {
  return sockaddr_in{AF_INET, htons(port), {inet_addr(dotted)}, {}};
}

// A stand-in for the kernel facility: records the call and answers as
// scripted, writing `result` (set) or `local` (get) back into the record.
struct FakeKernel {
  int optname = -1, answer = 0, error = 0;
  socklen_t len = 0;
  TproxyAssoc seen{};
  sockaddr_in result{}, local{};
} fake;

int fake_set(int, int level, int optname, const void* value, socklen_t len) {
  fake.optname = level == SOL_IP ? optname : -1;
  fake.len = len;
  memcpy(&fake.seen, value, sizeof fake.seen);
  const_cast<TproxyAssoc*>(static_cast<const TproxyAssoc*>(value))->result = fake.result;
  errno = fake.error;
  return fake.answer;
}
int fake_get(int sock, int level, int optname, void* value, socklen_t* len) {
  fake_set(sock, level, optname, value, *len);
  static_cast<TproxyAssoc*>(value)->local = fake.local;
  return fake.answer;
}

TEST(Tproxy, EachOperationFillsTheRecordAndNamesItsRefusal) {
  tproxy_set_sockopt_calls(fake_get, fake_set);
  sockaddr_in src = addr("198.51.100.7", 40000), dst = addr("203.0.113.25", 25),
              local = addr("192.0.2.10", 0);
  sockaddr_in result = addr("1.2.3.4", 5);
  int found = 7;
  const std::tuple<const char*, int, int, std::function<int()>> cases[] = {
      {"CTL", 0, 200, [&] { return tproxy_ctl_set(3, 17, &src, &dst, &local); }},
      {"P2S", 1, 200, [&] { return tproxy_p2s(3, 17, &src, &dst, &local); }},
      {"S2P", 2, 200, [&] { return tproxy_s2p(3, 17, &src, &dst, &local, &found, &result); }},
      {"S2C", 3, 200, [&] { return tproxy_s2c(3, 17, &src, &dst, &local); }},
      {"C2P", 4, 200, [&] { return tproxy_c2p(3, 17, &src, &dst, &local, &found, &result); }},
      {"CTL", 0, 201, [&] { return tproxy_ctl_get(3, &src, &dst, &result); }}};
  for (const auto& [name, op, optname, call] : cases) {
    fake = FakeKernel{};
    EXPECT_EQ(call(), 0) << name;
    EXPECT_EQ(std::pair(fake.optname, fake.len), std::pair(optname, 72u)) << name;
    TproxyAssoc want{};  // the get call passes no descriptor or local address
    want.src = src, want.dst = dst, want.op = op;
    if (optname == 200) want.fd = 17, want.local = local;
    EXPECT_EQ(memcmp(&fake.seen, &want, sizeof want), 0) << name;
    fake.answer = -1;
    fake.error = EOPNOTSUPP;
    EXPECT_EQ(logged([&] { EXPECT_EQ(call(), 1) << name; }),
              std::string("TPROXY_OXB_AT ") + name + " error: Operation not supported\n");
  }
  // A lookup copies the kernel's result only when the kernel found an entry.
  fake = FakeKernel{};
  fake.result = addr("10.0.0.1", 25);
  result = addr("1.2.3.4", 5);
  ASSERT_EQ(tproxy_s2p(3, 1, &src, &dst, &local, &found, &result), 0);
  EXPECT_EQ(std::pair(found, result.sin_addr.s_addr), std::pair(0, inet_addr("1.2.3.4")));
  fake.answer = 1;
  ASSERT_EQ(tproxy_c2p(3, 1, &src, &dst, &local, &found, &result), 0);
  EXPECT_EQ(std::pair(found, result.sin_addr.s_addr), std::pair(1, inet_addr("10.0.0.1")));
  tproxy_set_sockopt_calls(nullptr, nullptr);
}

}  // namespace
