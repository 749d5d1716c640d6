// The proxy's copy of the kernel IPv4 routing table, each route annotated with
// the address of the interface it leaves through, and the list of IPv4
// interfaces used to annotate it. The table is built on first lookup,
// refreshed by a 600-second timer and rebuilt after a failed bind.
#pragma once

#include <net/if.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

constexpr const char* ROUTES_PROC_FILE = "/proc/net/route";
constexpr int ROUTES_REFRESH_SECONDS = 600;

// Raw 32-bit values as /proc/net/route prints them: network-order addresses
// read as host integers.
struct RouteEntry {
  uint32_t ifaddr;  // address of the route's interface
  uint32_t dest;
  uint32_t mask;
};

struct RouteTable {
  std::vector<RouteEntry> entries;  // kernel order
  int max_routes = 200;             // doubles when full, up to 6400 (6399 routes)
  bool exists = false;              // false until the first load
};

// One interface. The list owns every element and its addr.
struct IfiInfo {
  char name[IFNAMSIZ];  // alias suffix (":...") removed
  short flags;          // IFF_UP, IFF_BROADCAST, IFF_LOOPBACK, ...
  short alias;          // 1 when an alias of the preceding interface
  sockaddr_in* addr;    // null when the family is not AF_INET
  IfiInfo* next;
};

// The up interfaces of family, in the kernel's order; null (logged) when there
// are none or the kernel refuses. Free with free_ifi_info.
IfiInfo* get_ifi_info(int family, int aliases);
void free_ifi_info(IfiInfo* list);
// The first up, broadcast, non-loopback interface's address, in a static
// record that the next call overwrites; null when there is none.
const sockaddr_in* first_local_addr();

enum class RouteParseResult { OK, UNKNOWN_INTERFACE, TOO_MANY };

// Replaces table->entries with the routes of stream, /proc/net/route text with
// its heading line. Routes with Destination and Gateway both 0 are skipped; a
// line with fewer than eight fields ends the reading. On UNKNOWN_INTERFACE the
// interface name is stored in *unknown (if not null).
RouteParseResult routes_parse(FILE* stream, const IfiInfo* interfaces, RouteTable* table,
                              std::string* unknown);
// The ifaddr of the first entry whose dest equals addr & mask, or 0.
uint32_t routes_find(const RouteTable& table, uint32_t addr);

// The process-wide table. route_lookup loads it (and starts the refresh
// timer) on first use; addr is a raw network-order address.
uint32_t route_lookup(uint32_t addr);
// Rebuilds the table from path with the current interface list. An unreadable
// file keeps the old table (fatal when that is empty); so does a missing
// interface list. A route through an unknown interface is fatal.
void routes_load(const char* path = ROUTES_PROC_FILE);
// Loads now and restarts the refresh cycle.
void routes_reload();
void routes_refresh();
const RouteTable& routes_table();
