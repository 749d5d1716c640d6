#include "net/route.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "event/timer.h"
#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "foundation/fd.h"

namespace {

// SIOCGIFCONF does not say how much room it needed, so the buffer grows until
// two calls in a row return the same length.
constexpr size_t IFCONF_INITIAL = 100 * sizeof(ifreq);
constexpr size_t IFCONF_GROWTH = 10 * sizeof(ifreq);

constexpr int ROUTE_LINE_SIZE = 500;
// Past this capacity a full table is an error rather than a reason to grow.
constexpr int ROUTES_GROWTH_LIMIT = 5000;
constexpr int ROUTE_FIELDS = 8;  // Iface .. Mask

RouteTable route_table;
Timer* routes_timer = nullptr;

struct FileCloser {
  void operator()(FILE* f) const noexcept { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

struct IfiFree {
  void operator()(IfiInfo* list) const noexcept { free_ifi_info(list); }
};
using IfiPtr = std::unique_ptr<IfiInfo, IfiFree>;

// Returns the SIOCGIFCONF answer in *buffer (owned by the caller) and its
// length, or -1 after logging.
int read_ifconf(int sock, std::unique_ptr<char[]>* buffer) {
  size_t size = IFCONF_INITIAL;
  int last_len = 0;
  for (;;) {
    std::unique_ptr<char[]> buf(new (std::nothrow) char[size]);
    if (!buf) {
      dlog(DLOG_UTIL, 0, "malloc error: %m\n");
      return -1;
    }
    ifconf ifc;
    ifc.ifc_len = static_cast<int>(size);
    ifc.ifc_buf = buf.get();
    if (ioctl(sock, SIOCGIFCONF, &ifc) < 0) {
      if (errno != EINVAL || last_len != 0) {
        dlog(DLOG_UTIL, 0, "ioctl error: %m\n");
        return -1;
      }
    } else if (ifc.ifc_len == last_len) {
      *buffer = std::move(buf);
      return last_len;
    } else {
      last_len = ifc.ifc_len;
    }
    size += IFCONF_GROWTH;
  }
}

const IfiInfo* find_interface(const IfiInfo* list, const char* name) {
  for (; list != nullptr; list = list->next)
    if (strcmp(list->name, name) == 0) return list;
  return nullptr;
}

// The timer record is freed once this returns; forget it before anything
// schedules the next one.
void routes_refresh_handler(void*) {
  routes_timer = nullptr;
  routes_refresh();
}

void schedule_refresh() {
  routes_timer = timer_add(ROUTES_REFRESH_SECONDS, routes_refresh_handler, nullptr);
}

// Walks the SIOCGIFCONF answer. The kernel lays the entries out as ifreq
// records; entries with the same name as the one before (after the alias
// suffix is cut) are aliases.
IfiInfo* build_ifi_list(int family, int aliases) {
  UniqueFd sock(socket(AF_INET, SOCK_DGRAM, 0));
  if (sock.get() < 0) {
    dlog(DLOG_UTIL, 0, "socket error: %m\n");
    return nullptr;
  }
  std::unique_ptr<char[]> buf;
  int len = read_ifconf(sock.get(), &buf);
  if (len < 0) return nullptr;

  IfiPtr head;
  IfiInfo* last = nullptr;
  char last_name[IFNAMSIZ] = "";
  for (int off = 0; off + static_cast<int>(sizeof(ifreq)) <= len; off += sizeof(ifreq)) {
    ifreq* ifr = reinterpret_cast<ifreq*>(buf.get() + off);
    if (ifr->ifr_addr.sa_family != family) continue;
    ifr->ifr_name[IFNAMSIZ - 1] = '\0';
    if (char* colon = strchr(ifr->ifr_name, ':')) *colon = '\0';
    short alias = 0;
    if (strcmp(last_name, ifr->ifr_name) == 0) {
      if (!aliases) continue;
      alias = 1;
    }
    memcpy(last_name, ifr->ifr_name, IFNAMSIZ);

    ifreq flags_req;
    memcpy(&flags_req, ifr, sizeof flags_req);
    if (ioctl(sock.get(), SIOCGIFFLAGS, &flags_req) < 0) {
      dlog(DLOG_UTIL, 0, "ioctl failed: %m\n");
      return nullptr;
    }
    if ((flags_req.ifr_flags & IFF_UP) == 0) continue;

    auto* ifi = static_cast<IfiInfo*>(calloc(1, sizeof(IfiInfo)));
    if (ifi == nullptr) fatal_exit("Out of memory listing interfaces\n");
    if (last == nullptr) {
      head.reset(ifi);
    } else {
      last->next = ifi;
    }
    last = ifi;
    ifi->flags = flags_req.ifr_flags;
    ifi->alias = alias;
    memcpy(ifi->name, ifr->ifr_name, IFNAMSIZ);
    if (family == AF_INET) {
      ifi->addr = static_cast<sockaddr_in*>(malloc(sizeof(sockaddr_in)));
      if (ifi->addr == nullptr) fatal_exit("Out of memory listing interfaces\n");
      memcpy(ifi->addr, &ifr->ifr_addr, sizeof(sockaddr_in));
    }
  }
  return head.release();
}

}  // namespace

IfiInfo* get_ifi_info(int family, int aliases) {
  IfiInfo* list = build_ifi_list(family, aliases);
  if (list == nullptr) dlog(DLOG_UTIL, 0, "get_ifi_info error\n");
  return list;
}

void free_ifi_info(IfiInfo* list) {
  while (list != nullptr) {
    IfiInfo* next = list->next;
    free(list->addr);
    free(list);
    list = next;
  }
}

const sockaddr_in* first_local_addr() {
  static sockaddr_in found;
  IfiPtr list(get_ifi_info(AF_INET, 0));
  for (const IfiInfo* ifi = list.get(); ifi != nullptr; ifi = ifi->next) {
    if ((ifi->flags & IFF_UP) && (ifi->flags & IFF_BROADCAST) && !(ifi->flags & IFF_LOOPBACK) &&
        ifi->addr != nullptr) {
      found = *ifi->addr;
      return &found;
    }
  }
  return nullptr;
}

RouteParseResult routes_parse(FILE* stream, const IfiInfo* interfaces, RouteTable* table,
                              std::string* unknown) {
  char line[ROUTE_LINE_SIZE];
  table->entries.clear();
  if (fgets(line, sizeof line, stream) == nullptr) return RouteParseResult::OK;  // heading
  while (fgets(line, sizeof line, stream) != nullptr) {
    char* fields[ROUTE_FIELDS];
    char* rest = nullptr;
    int n = 0;
    for (char* tok = strtok_r(line, "\t", &rest); tok != nullptr && n < ROUTE_FIELDS;
         tok = strtok_r(nullptr, "\t", &rest))
      fields[n++] = tok;
    if (n < ROUTE_FIELDS) break;

    uint32_t dest = static_cast<uint32_t>(strtoul(fields[1], nullptr, 16));
    uint32_t gateway = static_cast<uint32_t>(strtoul(fields[2], nullptr, 16));
    uint32_t mask = static_cast<uint32_t>(strtoul(fields[7], nullptr, 16));
    // A route with neither destination nor gateway (a blackhole, say) can't
    // tell us which local address to use.
    if (dest == 0 && gateway == 0) continue;

    const IfiInfo* ifi = find_interface(interfaces, fields[0]);
    if (ifi == nullptr || ifi->addr == nullptr) {
      if (unknown != nullptr) *unknown = fields[0];
      return RouteParseResult::UNKNOWN_INTERFACE;
    }
    table->entries.push_back({ifi->addr->sin_addr.s_addr, dest, mask});
    if (static_cast<int>(table->entries.size()) == table->max_routes) {
      if (table->max_routes > ROUTES_GROWTH_LIMIT) return RouteParseResult::TOO_MANY;
      table->max_routes *= 2;
      table->entries.reserve(table->max_routes);
    }
  }
  return RouteParseResult::OK;
}

uint32_t routes_find(const RouteTable& table, uint32_t addr) {
  for (const RouteEntry& r : table.entries)
    if ((addr & r.mask) == r.dest) return r.ifaddr;
  return 0;
}

void routes_load(const char* path) {
  IfiPtr interfaces(get_ifi_info(AF_INET, 0));
  FilePtr file(fopen(path, "r"));
  if (!route_table.exists) {
    route_table.entries.reserve(route_table.max_routes);
    route_table.exists = true;
  }
  if (!file) {
    dlog(DLOG_UTIL, 1, "Could not open routing table, %m\n");
    if (route_table.entries.empty()) fatal_exit("Couldn't initialize routes\n");
    return;
  }
  if (!interfaces) {
    dlog(DLOG_UTIL, 1, "Couldn't get interface information.\n");
    return;
  }
  std::string unknown;
  switch (routes_parse(file.get(), interfaces.get(), &route_table, &unknown)) {
    case RouteParseResult::OK:
      break;
    case RouteParseResult::UNKNOWN_INTERFACE:
      fatal_exit("Couldn't find address of interface %s\n", unknown.c_str());
    case RouteParseResult::TOO_MANY:
      fatal_exit("Too many routes\n");
  }
  dlog(DLOG_UTIL, 9, "num_routes=%d\n", static_cast<int>(route_table.entries.size()));
}

uint32_t route_lookup(uint32_t addr) {
  if (!route_table.exists) routes_refresh();
  return routes_find(route_table, addr);
}

void routes_reload() {
  dlog(DLOG_UTIL, 9, "Reloading internal routing table\n");
  timer_cancel_slot(&routes_timer);
  routes_load();
  schedule_refresh();
}

void routes_refresh() {
  dlog(DLOG_UTIL, 9, "Refreshing internal routing table\n");
  timer_cancel_slot(&routes_timer);
  routes_load();
  schedule_refresh();
}

const RouteTable& routes_table() {
  return route_table;
}
