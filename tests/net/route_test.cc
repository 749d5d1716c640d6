#include "net/route.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/foundation/test_util.h"

namespace {

const std::string HEADING =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

std::string route(const char* iface, uint32_t dest, uint32_t gateway, uint32_t mask) {
  char line[128];
  snprintf(line, sizeof line, "%s\t%08X\t%08X\t0001\t0\t0\t0\t%08X\t0\t0\t0\n", iface, dest,
           gateway, mask);
  return line;
}

// A hand-made interface list, as get_ifi_info gives it, in front of each table.
TEST(Routes, FirstMatchingRouteGivesItsInterfaceAddress) {
  sockaddr_in eth0{AF_INET, 0, {inet_addr("192.168.0.2")}, {}},
      eth1{AF_INET, 0, {inet_addr("10.9.9.9")}, {}};
  IfiInfo ifi1{"eth1", IFF_UP | IFF_BROADCAST, 0, &eth1, nullptr},
      ifi0{"eth0", IFF_UP | IFF_BROADCAST, 0, &eth0, &ifi1};
  RouteTable table;
  auto parse = [&](std::string body, std::string* unknown = nullptr) {
    body = HEADING + body;
    FILE* f = fmemopen(body.data(), body.size(), "r");
    RouteParseResult r = routes_parse(f, &ifi0, &table, unknown);
    fclose(f);
    return r;
  };
  // 192.168.0.0/24 as the kernel prints it. A route without destination and
  // gateway is skipped; a short line ends the table.
  ASSERT_EQ(parse(route("eth0", 0, 0, 0) + route("eth0", 0xA8C0, 0, 0xFFFFFF) +
                  route("eth1", 0, 0x0102A8C0, 0) + "eth0\t0000000A\t00000000\t0001\t0\n" +
                  route("eth1", 0x0A, 0, 0xFF)),
            RouteParseResult::OK);
  ASSERT_EQ(table.entries.size(), 2u);
  EXPECT_EQ(routes_find(table, inet_addr("192.168.0.7")), inet_addr("192.168.0.2"));
  EXPECT_EQ(routes_find(table, inet_addr("172.16.0.1")), inet_addr("10.9.9.9"));
  ASSERT_EQ(parse("eth0\t0000A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\n"), RouteParseResult::OK);
  EXPECT_EQ(routes_find(table, inet_addr("172.16.0.1")), 0u);  // a load replaces the table
  std::string unknown;
  EXPECT_EQ(parse(route("wlan7", 0x0A, 0, 0xFF), &unknown), RouteParseResult::UNKNOWN_INTERFACE);
  EXPECT_EQ(unknown, "wlan7");
  std::string body;
  for (uint32_t i = 1; i <= 6399; i++) body += route("eth0", i, 0, 0xFFFFFFFF);
  ASSERT_EQ(parse(body), RouteParseResult::OK);
  EXPECT_EQ(table.entries.size(), 6399u);
  table = RouteTable{};
  EXPECT_EQ(parse(body + route("eth0", 6400, 0, 0xFFFFFFFF)), RouteParseResult::TOO_MANY);
}

// With the host's interfaces: lo is always there.
TEST(Routes, LoadAnnotatesRoutesWithTheLiveInterfaceAddress) {
  foundation_test::TempDir dir;
  std::string lo = dir.write("route", HEADING + route("lo", 0x7F, 0, 0xFF));
  EXPECT_NE(foundation_test::logged([&] { routes_load(lo.c_str()); }).find("num_routes=1\n"),
            std::string::npos);
  EXPECT_EQ(route_lookup(inet_addr("127.0.0.9")), inet_addr("127.0.0.1"));
}

}  // namespace
