#include "net/route.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <string>

#include "tests/net/net_test_support.h"

namespace {

using net_test::in_netns;
using net_test::logged;
using net_test::SKIP;

const char* const HEADING =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

uint32_t raw(const char* dotted) {
  return inet_addr(dotted);
}

// A hand-made interface list, as get_ifi_info would return it.
struct FakeInterfaces {
  void add(const char* name, const char* dotted) {
    sockaddr_in& a = addrs.emplace_back();
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = raw(dotted);
    IfiInfo& ifi = ifis.emplace_back(IfiInfo{{}, IFF_UP | IFF_BROADCAST, 0, &a, nullptr});
    strncpy(ifi.name, name, IFNAMSIZ - 1);
    if (ifis.size() > 1) ifis[ifis.size() - 2].next = &ifi;
  }
  const IfiInfo* list() const { return ifis.empty() ? nullptr : &ifis.front(); }

  std::deque<sockaddr_in> addrs;  // a deque keeps the addresses in place
  std::deque<IfiInfo> ifis;
};

RouteParseResult parse(const std::string& text, const FakeInterfaces& ifs, RouteTable* table,
                       std::string* unknown = nullptr) {
  FILE* f = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
  RouteParseResult r = routes_parse(f, ifs.list(), table, unknown);
  fclose(f);
  return r;
}

class RouteParseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ifs_.add("eth0", "192.168.0.2");
    ifs_.add("eth1", "10.9.9.9");
  }
  FakeInterfaces ifs_;
  RouteTable table_;
};

TEST_F(RouteParseTest, FirstMatchingRouteGivesTheInterfaceAddress) {
  std::string text = std::string(HEADING) +
                     "eth0\t0000A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
                     "eth1\t00000000\t0102A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n";
  ASSERT_EQ(parse(text, ifs_, &table_), RouteParseResult::OK);
  ASSERT_EQ(table_.entries.size(), 2u);
  EXPECT_EQ(table_.entries[0].ifaddr, raw("192.168.0.2"));
  EXPECT_EQ(table_.entries[0].dest, 0x0000A8C0u);
  EXPECT_EQ(table_.entries[0].mask, 0x00FFFFFFu);
  EXPECT_EQ(routes_find(table_, raw("192.168.0.7")), raw("192.168.0.2"));
  EXPECT_EQ(routes_find(table_, 0), raw("10.9.9.9"));
  EXPECT_EQ(routes_find(table_, raw("172.16.0.1")), raw("10.9.9.9"));
}

TEST_F(RouteParseTest, LinesAreTakenSkippedOrEndTheTable) {
  const char* const net = "eth0\t0000A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";
  const char* const other = "eth1\t0000000A\t00000000\t0001\t0\t0\t0\t000000FF\t0\t0\t0\n";
  struct Case {
    const char* label;
    std::string body;
    std::vector<uint32_t> dests;
  };
  const std::vector<Case> cases = {
      {"no destination, no gateway",
       std::string("eth0\t00000000\t00000000\t0201\t0\t0\t0\t00000000\t0\t0\t0\n") + net,
       {0x0000A8C0u}},
      {"five fields end the table",
       std::string(net) + "eth0\t0000A8C0\t00000000\t0001\t0\n" + other,
       {0x0000A8C0u}},
      {"mask as last field", "eth0\t0000A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\n", {0x0000A8C0u}},
      {"later load replaces", other, {0x0000000Au}},
      {"heading only", "", {}},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(parse(std::string(HEADING) + c.body, ifs_, &table_), RouteParseResult::OK) << c.label;
    std::vector<uint32_t> dests;
    for (const RouteEntry& r : table_.entries) dests.push_back(r.dest);
    EXPECT_EQ(dests, c.dests) << c.label;
  }
  EXPECT_EQ(routes_find(table_, raw("192.168.1.7")), 0u);
}

TEST_F(RouteParseTest, UnknownInterfaceIsReportedByName) {
  std::string text =
      std::string(HEADING) + "wlan7\t0000000A\t00000000\t0001\t0\t0\t0\t000000FF\t0\t0\t0\n";
  std::string unknown;
  EXPECT_EQ(parse(text, ifs_, &table_, &unknown), RouteParseResult::UNKNOWN_INTERFACE);
  EXPECT_EQ(unknown, "wlan7");
}

std::string many_routes(int n) {
  std::string text = HEADING;
  for (int i = 0; i < n; i++) {
    char line[128];
    snprintf(line, sizeof line, "eth0\t%08X\t00000000\t0001\t0\t0\t0\tFFFFFFFF\t0\t0\t0\n", i + 1);
    text += line;
  }
  return text;
}

TEST_F(RouteParseTest, TableGrowsTo6399RoutesAndNoFurther) {
  ASSERT_EQ(parse(many_routes(6399), ifs_, &table_), RouteParseResult::OK);
  EXPECT_EQ(table_.entries.size(), 6399u);
  EXPECT_EQ(table_.max_routes, 6400);
  RouteTable fresh;
  EXPECT_EQ(parse(many_routes(6400), ifs_, &fresh), RouteParseResult::TOO_MANY);
}

TEST(RoutesLoad, LoadsFileWithLiveInterfacesAndLooksUp) {
  foundation_test::TempDir dir;
  std::string name = dir.write(
      "route", std::string(HEADING) + "lo\t0000007F\t00000000\t0001\t0\t0\t0\t000000FF\t0\t0\t0\n");
  dlog_set_level(0, 9);
  std::string out = logged([&] { routes_load(name.c_str()); });
  dlog_set_level(0, 3);
  EXPECT_NE(out.find("num_routes=1\n"), std::string::npos) << out;
  EXPECT_TRUE(routes_table().exists);
  EXPECT_EQ(route_lookup(raw("127.0.0.9")), raw("127.0.0.1"));
  EXPECT_EQ(route_lookup(raw("192.0.2.1")), 0u);
}

std::string describe(const IfiInfo* list) {
  std::string out;
  for (; list != nullptr; list = list->next) {
    out += list->name;
    if (list->alias) out += "(alias)";
    if (list->addr != nullptr) out += std::string("=") + inet_ntoa(list->addr->sin_addr);
    out += " ";
  }
  return out;
}

TEST(IfiInfo, AliasesAreListedOnlyWhenAskedAndFirstLocalAddrSkipsLoopback) {
  std::string out = in_netns(net_test::LO_ALIAS_AND_VETH, [] {
    IfiInfo* plain = get_ifi_info(AF_INET, 0);
    IfiInfo* with = get_ifi_info(AF_INET, 1);
    std::string s = describe(plain) + "| " + describe(with) + "| ";
    free_ifi_info(plain);
    free_ifi_info(with);
    const sockaddr_in* a = first_local_addr();
    return s + (a != nullptr ? inet_ntoa(a->sin_addr) : "null");
  });
  if (out == SKIP) GTEST_SKIP() << out;
  // v2 is down and never listed.
  EXPECT_EQ(out,
            "lo=127.0.0.1 v0=192.0.2.10 | lo=127.0.0.1 lo(alias)=127.0.0.2 v0=192.0.2.10 | "
            "192.0.2.10");
}

TEST(IfiInfo, NoInterfaceUpIsAnError) {
  std::string out = in_netns({}, [] {
    IfiInfo* list = nullptr;
    std::string log = logged([&] { list = get_ifi_info(AF_INET, 0); });
    return std::string(list == nullptr ? "null " : "list ") + log;
  });
  if (out == SKIP) GTEST_SKIP() << out;
  EXPECT_EQ(out, "null get_ifi_info error\n");
}

}  // namespace
