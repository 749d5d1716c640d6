// The list files that relay control, local authentication and the PROXY
// protocol read: local domains, relay networks, passwords and trusted load
// balancers, each loaded whole at start-up.
#include <arpa/inet.h>
#include <syslog.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "foundation/text.h"
#include "smtp/config.h"

namespace {

// List files are read in pieces of at most this many bytes; a longer line
// becomes several pieces.
constexpr int LIST_LINE_SIZE = 100;
constexpr size_t LIST_INITIAL_CAPACITY = 20;
constexpr size_t PASSWD_GROWTH = 100;
// The password table stops growing once it holds more than this.
constexpr size_t PASSWD_SOFT_LIMIT = 10000;

const char* const RELAY_EVENT_ID = "1000002";
const char* const RELAY_EVENT_NAME = "System_Error";

struct FileCloser {
  void operator()(FILE* f) const noexcept { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// Parses one relay line: "a.b.c.d/n" with n from 4 to 32. Reports the line
// itself, line end included, as the appliance's collector expects it.
void add_relay_line(char* line, std::vector<RelayIp>* list) {
  char* slash = strchr(line, '/');
  if (slash == nullptr) {
    dlog_event(LOG_ERR, RELAY_EVENT_ID, RELAY_EVENT_NAME, "msg=\"Bad line in relay ips file: %s\"",
               line);
    return;
  }
  *slash = '\0';
  in_addr a;
  bool address_ok = inet_aton(line, &a) != 0;
  *slash = '/';
  if (!address_ok) {
    dlog_event(LOG_ERR, RELAY_EVENT_ID, RELAY_EVENT_NAME, "msg=\"Invalid inet address: %s\"", line);
    return;
  }
  long prefix = strtol(slash + 1, nullptr, 10);
  if (prefix < 4 || prefix > 32) {
    dlog_event(LOG_ERR, RELAY_EVENT_ID, RELAY_EVENT_NAME, "msg=\"Invalid relay IP mask: %s\"",
               line);
    return;
  }
  RelayIp entry{ntohl(a.s_addr), prefix_mask(static_cast<int>(prefix))};
  list->push_back(entry);
  dlog(DLOG_SMTP, 9, "Adding addr %x %s mask %x index %d\n", entry.addr, inet_ntoa(a), entry.mask,
       static_cast<int>(list->size() - 1));
}

// Replaces list with the networks of a file in the relay-IPs format; false,
// list untouched, when the file cannot be opened.
bool load_networks(const char* path, std::vector<RelayIp>* list) {
  FilePtr file(fopen(path, "r"));
  if (!file) return false;
  list->clear();
  list->reserve(LIST_INITIAL_CAPACITY);
  char line[LIST_LINE_SIZE];
  while (fgets(line, sizeof line, file.get()) != nullptr) add_relay_line(line, list);
  return true;
}

}  // namespace

std::vector<DstrPtr> local_domains;
std::vector<RelayIp> relay_ips;
std::vector<PasswdEntry> passwd_entries;
std::vector<RelayIp> proxy_networks;

bool network_list_match(const std::vector<RelayIp>& list, uint32_t ip) {
  for (const RelayIp& entry : list)
    if ((ip & entry.mask) == (entry.addr & entry.mask)) return true;
  return false;
}

uint32_t prefix_mask(int prefix_length) {
  static const std::array<uint32_t, 33> table = [] {
    std::array<uint32_t, 33> t{};
    for (int n = 1; n <= 32; n++) t[n] = t[n - 1] | (1u << (32 - n));
    return t;
  }();
  if (prefix_length < 0) prefix_length = 0;
  if (prefix_length > 32) prefix_length = 32;
  return table[prefix_length];
}

void config_clear_lists() {
  local_domains.clear();
  relay_ips.clear();
  passwd_entries.clear();
  proxy_networks.clear();
}

void load_local_domains() {
  FilePtr file(fopen(config.local_domain_file, "r"));
  if (!file) fatal_exit("Couldn't open local domain file %s: %m\n", config.local_domain_file);

  local_domains.clear();
  local_domains.reserve(LIST_INITIAL_CAPACITY);
  char line[LIST_LINE_SIZE];
  while (fgets(line, sizeof line, file.get()) != nullptr) {
    str_trim(line);
    if (line[0] == '\0') continue;
    DstrPtr domain(dstr_from_cstr(line));
    if (!domain) fatal_exit("Out of memory loading local domains\n");
    local_domains.push_back(std::move(domain));
    dlog(DLOG_SMTP, 3, "Added %s as local domain %d\n", line,
         static_cast<int>(local_domains.size() - 1));
  }
}

void load_relay_ips() {
  if (!load_networks(config.relay_ips_file, &relay_ips))
    dlog(DLOG_SMTP, 1, "Can't read relay ip file %s: %m\n", config.relay_ips_file);
}

void load_proxy_networks() {
  if (!load_networks(config.proxy_networks_file, &proxy_networks))
    fatal_exit("Couldn't open proxy networks file %s: %m\n", config.proxy_networks_file);
}

void load_auth_file() {
  FilePtr file(fopen(config.auth_file, "r"));
  if (!file) {
    dlog(DLOG_SMTP, 5, "Error opening auth file: %s: %m\n", config.auth_file);
    return;
  }
  passwd_entries.clear();
  // The table grows in steps, and a file that fills it past the soft limit
  // is cut there: this bounds the memory a runaway file can take.
  size_t capacity = LIST_INITIAL_CAPACITY;
  passwd_entries.reserve(capacity);
  char line[LIST_LINE_SIZE];
  while (fgets(line, sizeof line, file.get()) != nullptr) {
    str_trim(line);
    if (line[0] == '\0') continue;
    char* rest = nullptr;
    const char* user = strtok_r(line, ":", &rest);
    const char* password = strtok_r(nullptr, ":", &rest);
    // Names and hashes stay out of the log; whether each is there does not.
    dlog(DLOG_SMTP, 9, "user=%s, password=%s", user != nullptr ? "<hidden>" : "(null)",
         password != nullptr ? "<hidden>" : "(null)");
    if (user == nullptr || password == nullptr) {
      dlog(DLOG_SMTP, 1, "Error with password file. Skipping line.\n");
      continue;
    }
    if (passwd_entries.size() == capacity) {
      if (passwd_entries.size() > PASSWD_SOFT_LIMIT) {
        dlog(DLOG_SMTP, 1, "Too many entries in password file.\n");
        break;
      }
      capacity += PASSWD_GROWTH;
      passwd_entries.reserve(capacity);
    }
    passwd_entries.push_back({user, password});
  }
}
