#include "smtp/config.h"

#include <arpa/inet.h>
#include <grp.h>
#include <netdb.h>
#include <pwd.h>
#include <strings.h>
#include <syslog.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "foundation/ini.h"
#include "foundation/text.h"
#include "net/tproxy.h"

Config config;

namespace {

// A copy that config_set_string made for a field; freed when the field is set
// again. The store is never destroyed, so config stays valid while exit()
// runs handlers that may still log it.
struct OwnedString {
  const char** field;
  char* copy;
};

std::vector<OwnedString>& owned_strings() {
  static auto* store = new std::vector<OwnedString>;
  return *store;
}

// While config_keys runs, every lookup is noted here instead of made, so the
// list of keys is the reader's own and cannot drift from it.
std::vector<ConfigKey>* key_recorder = nullptr;

// Every key the reader consults goes through here.
const char* setting(const char* section, const char* key) {
  if (key_recorder != nullptr) {
    key_recorder->push_back({section, key});
    return nullptr;
  }
  return ini_get_var(section, key);
}

const char* proxy_var(const char* key) {
  return setting(CONFIG_PROXY_SECTION, key);
}
const char* common_var(const char* key) {
  return setting(CONFIG_COMMON_SECTION, key);
}

// Integers are read as strtol does: text that is not a number gives 0.
bool get_long(const char* key, long* out) {
  const char* v = proxy_var(key);
  if (v == nullptr) return false;
  *out = strtol(v, nullptr, 10);
  return true;
}

bool get_long_long(const char* key, long long* out) {
  const char* v = proxy_var(key);
  if (v == nullptr) return false;
  *out = strtoll(v, nullptr, 10);
  return true;
}

void get_string(const char* section, const char* key, const char** field) {
  const char* v = setting(section, key);
  if (v != nullptr) config_set_string(field, v);
}

// Keys taken as they are, in the order they are read.
enum class Kind { INT, LONG_LONG, BOOL, STRING };
struct PlainKey {
  const char* key;
  Kind kind;
  void* field;
};

const std::array<PlainKey, 18> PLAIN_KEYS = {{
    {"passthrough_auth", Kind::BOOL, &config.passthrough_auth},
    {"mailer_temp_dir", Kind::STRING, &config.mailer_temp_dir},
    {"mailer_local_dir", Kind::STRING, &config.mailer_local_dir},
    {"allow_null_sender", Kind::BOOL, &config.allow_null_sender},
    {"vscan_fail_block", Kind::BOOL, &config.vscan_fail_block},
    {"vscan_timeout_block", Kind::BOOL, &config.vscan_timeout_block},
    {"vscan_bypass", Kind::BOOL, &config.vscan_bypass},
    {"discard_spam", Kind::BOOL, &config.discard_spam},
    {"discard_virus", Kind::BOOL, &config.discard_virus},
    {"as_connections", Kind::INT, &config.as_connections},
    {"use_scanner", Kind::BOOL, &config.use_scanner},
    {"spam_bypass", Kind::BOOL, &config.spam_bypass},
    {"max_spam_scan_size", Kind::LONG_LONG, &config.max_spam_scan_size},
    {"noop_interval", Kind::INT, &config.noop_interval},
    {"support_8bitmime", Kind::BOOL, &config.support_8bitmime},
    {"proxy_protocol", Kind::BOOL, &config.proxy_protocol},
    {"proxy_networks", Kind::STRING, &config.proxy_networks_file},
    {"xclient", Kind::BOOL, &config.xclient},
}};

void read_plain_key(const PlainKey& k) {
  long v = 0;
  switch (k.kind) {
    case Kind::INT:
      if (get_long(k.key, &v)) *static_cast<int*>(k.field) = static_cast<int>(v);
      break;
    case Kind::LONG_LONG:
      get_long_long(k.key, static_cast<long long*>(k.field));
      break;
    case Kind::BOOL:
      if (get_long(k.key, &v)) *static_cast<bool*>(k.field) = v != 0;
      break;
    case Kind::STRING:
      get_string(CONFIG_PROXY_SECTION, k.key, static_cast<const char**>(k.field));
      break;
  }
}

// A time-out of a few seconds would cut off senders and scans that are merely
// slow, so 1 to 29 is refused; 0 and below switch the timer off.
void read_timeout(const char* key, int* field, const char* warning) {
  long v;
  if (!get_long(key, &v)) return;
  if (v >= 1 && v <= 29) {
    dlog(DLOG_SMTP, 1, warning, *field);
    return;
  }
  *field = static_cast<int>(v);
}

void read_limits() {
  long long size;
  if (get_long_long("max_msg_size", &size)) {
    if (size < 50000 || size > 1073741824) {
      dlog(DLOG_SMTP, 1, "Illegal max message size. Using default: %lld\n", config.max_msg_size);
    } else {
      config.max_msg_size = size;
    }
  }

  if (const char* addr = proxy_var("listen_addr")) {
    in_addr a;
    if (inet_aton(addr, &a) != 0) {
      config.listen_addr = ntohl(a.s_addr);
    } else {
      dlog(DLOG_SMTP, 1, "Illegal listen_addr. Using INADDR_ANY.\n");
    }
  }

  // The upper bound is wider than a port; such values are truncated to 16
  // bits like any other assignment to the port field.
  long v;
  if (get_long("listen_port", &v)) {
    if (v >= 1 && v <= 67108863) {
      config.listen_port = static_cast<uint16_t>(v);
    } else {
      dlog(DLOG_SMTP, 1, "Illegal listen_port. Using %d\n", config.listen_port);
    }
  }

  read_timeout("idle_timeout", &config.idle_timeout, "Illegal idle_timeout. Using %d\n");
  read_timeout("scanner_timeout", &config.scanner_timeout, "Illegal scanner_timeout. Using %d\n");
}

void read_identity() {
  if (const char* user = proxy_var("user")) {
    errno = 0;
    if (getpwnam(user) != nullptr) {
      config_set_string(&config.user, user);
    } else {
      dlog(DLOG_SMTP, 1, "Bad user: %m. Using %s\n", config.user);
    }
  }
  if (const char* group = proxy_var("group")) {
    errno = 0;
    if (getgrnam(group) != nullptr) {
      config_set_string(&config.group, group);
    } else {
      dlog(DLOG_SMTP, 1, "Bad group: %m. Using %s\n", config.group);
    }
  }
}

void read_session_keys() {
  long v;
  if (get_long("max_rcpt", &v)) {
    if (v <= 4) {
      dlog(DLOG_SMTP, 1, "max_rcpt too small. Using %d\n", config.max_rcpt);
    } else {
      config.max_rcpt = static_cast<int>(v);
    }
  }
  // The kernel queues at most this many senders that connected before the
  // loop accepts them; a burst beyond it is refused by the kernel, not us.
  if (get_long("listen_backlog", &v)) {
    if (v < 1 || v > 65535) {
      dlog(DLOG_SMTP, 1, "Bad listen_backlog. Using %d\n", config.listen_backlog);
    } else {
      config.listen_backlog = static_cast<int>(v);
    }
  }
  if (get_long("max_connections", &v)) {
    if (v < 5 || v > 3000) {
      dlog(DLOG_SMTP, 0, "Bad max connections. Using %d\n", config.max_connections);
    } else {
      config.max_connections = static_cast<int>(v);
    }
  }

  // On a bridge the proxy can only reach the backend from the sender's own
  // address, so the setting is not consulted at all.
  if (layer2_mode) {
    dlog(DLOG_SMTP, 9, "Running proxy in address_transparent mode in Layer2\n");
    config.address_transparent = true;
  } else if (get_long("address_transparent", &v)) {
    config.address_transparent = v != 0;
    dlog(DLOG_SMTP, 9, "address_transparent %c\n", config.address_transparent ? 1 : 0);
  }

  if (get_long("relay_control", &v)) config.relay_control = v != 0;

  if (get_long("max_errors", &v)) {
    if (v <= 4) {
      dlog(DLOG_SMTP, 1, "Bad max_errors. Using %d\n", config.max_errors);
    } else {
      config.max_errors = static_cast<int>(v);
    }
  }
}

void read_names_and_paths() {
  get_string(CONFIG_PROXY_SECTION, "my_domain", &config.my_domain);
  get_string(CONFIG_PROXY_SECTION, "greeting", &config.greeting);
  get_string(CONFIG_PROXY_SECTION, "local_domain_file", &config.local_domain_file);
  get_string(CONFIG_PROXY_SECTION, "relay_ips_file", &config.relay_ips_file);
  get_string(CONFIG_PROXY_SECTION, "auth_file", &config.auth_file);

  set_log_levels(proxy_var("debug"));

  // Scan file names are built as "<scan_dir>/<prefix>...", so one trailing
  // slash is dropped to keep them tidy.
  if (const char* dir = common_var("scan_dir")) {
    config_set_string(&config.scan_dir, dir);
    size_t len = strlen(dir);
    if (len > 0 && dir[len - 1] == '/') {
      char* copy = strndup(dir, len - 1);
      if (copy == nullptr) fatal_exit("Out of memory reading scan_dir\n");
      config_set_string(&config.scan_dir, copy);
      free(copy);
    }
  }
  get_string(CONFIG_PROXY_SECTION, "scan_prefix", &config.scan_prefix);
  get_string(CONFIG_COMMON_SECTION, "spam_tag", &config.spam_tag);
  get_string(CONFIG_COMMON_SECTION, "spam_plus_tag", &config.spam_plus_tag);
  get_string(CONFIG_COMMON_SECTION, "scanner_addr", &config.scanner_addr);

  if (const char* mode = proxy_var("bare_line_ends")) {
    if (strcasecmp(mode, "normalize") == 0) {
      config.bare_line_ends = BareLineEnds::NORMALIZE;
    } else if (strcasecmp(mode, "reject") == 0) {
      config.bare_line_ends = BareLineEnds::REJECT;
    } else {
      dlog(DLOG_SMTP, 1, "Illegal bare_line_ends. Using normalize\n");
      config.bare_line_ends = BareLineEnds::NORMALIZE;
    }
  }
}

// The protocols are named; an unknown name keeps the one in force.
template <typename E, size_t N>
void read_protocol(const char* key, const std::array<std::pair<const char*, E>, N>& names,
                   E* field) {
  const char* v = proxy_var(key);
  if (v == nullptr) return;
  for (const auto& [name, value] : names) {
    if (strcasecmp(v, name) != 0) continue;
    *field = value;
    return;
  }
  dlog(
      DLOG_SMTP, 1, "Illegal %s %s. Using %s\n", key, v,
      std::find_if(names.begin(), names.end(), [&](auto& n) { return n.second == *field; })->first);
}

void read_scanner_keys() {
  read_protocol<VscanProtocol, 2>(
      "scanner_protocol", {{{"native", VscanProtocol::NATIVE}, {"clamd", VscanProtocol::CLAMD}}},
      &config.scanner_protocol);
  get_string(CONFIG_PROXY_SECTION, "clamd_socket", &config.clamd_socket);
  read_protocol<SpamProtocol, 3>("antispam_protocol",
                                 {{{"native", SpamProtocol::NATIVE},
                                   {"spamd", SpamProtocol::SPAMD},
                                   {"rspamd", SpamProtocol::RSPAMD}}},
                                 &config.antispam_protocol);
  get_string(CONFIG_PROXY_SECTION, "antispam_addr", &config.antispam_addr);
  if (config.antispam_addr == nullptr) {
    constexpr const char* DEFAULTS[] = {nullptr, "127.0.0.1:783", "127.0.0.1:11333"};
    const char* d = DEFAULTS[static_cast<int>(config.antispam_protocol)];
    config.antispam_addr = d != nullptr ? d : config.as_socket_path;
  }
  if (const char* v = proxy_var("spam_reject_score")) {
    char* end = nullptr;
    double score = strtod(v, &end);
    if (end == v || *end != '\0' || !std::isfinite(score))
      dlog(DLOG_SMTP, 1, "Illegal spam_reject_score. Using %.1f\n", config.spam_reject_score);
    else
      config.spam_reject_score = score;
  }
}

// "host:port", the host a dotted address or a name resolved once, now.
bool parse_host_port(const char* text, sockaddr_in* out) {
  const char* colon = strrchr(text, ':');
  if (colon == nullptr || colon == text) return false;
  char* end = nullptr;
  long port = strtol(colon + 1, &end, 10);
  if (end == colon + 1 || *end != '\0' || port < 1 || port > 65535) return false;
  std::string host(text, static_cast<size_t>(colon - text));
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || found == nullptr) return false;
  *out = *reinterpret_cast<const sockaddr_in*>(found->ai_addr);
  out->sin_port = htons(static_cast<uint16_t>(port));
  freeaddrinfo(found);
  return true;
}

// The settings for gateways without the appliance's kernel: they change
// where mail goes, so a backend_addr that cannot be used stops start-up
// rather than letting mail follow the original destinations.
void read_gateway_keys() {
  read_protocol<TransparentMethod, 2>("transparent_method",
                                      {{{"appliance", TransparentMethod::APPLIANCE},
                                        {"ip_transparent", TransparentMethod::MAINLINE}}},
                                      &config.transparent_method);
  if (const char* backend = proxy_var("backend_addr")) {
    config.backend_addr = sockaddr_in{};
    if (backend[0] != '\0' && !parse_host_port(backend, &config.backend_addr))
      fatal_exit("Illegal backend_addr %s: host:port expected\n", backend);
  }
}

void set_owned_text(const char** field, char* text) {
  config_set_string(field, text);
  free(text);
}

void build_replies() {
  char* text;
  xasprintf(&text, "220 %s %s\r\n", config.my_domain, config.greeting);
  set_owned_text(&config.greeting_line, text);
  xasprintf(&text, "250 %s %s\r\n", config.my_domain, config.greeting);
  set_owned_text(&config.helo_response, text);
  if (config.support_8bitmime) {
    xasprintf(&text,
              "250-%s %s\r\n250-VRFY\r\n250-8BITMIME\r\n250-SIZE %lld\r\n250-AUTH LOGIN\r\n250 "
              "OK\r\n",
              config.my_domain, config.greeting, config.max_msg_size);
  } else {
    xasprintf(&text, "250-%s %s\r\n250-VRFY\r\n250-SIZE %lld\r\n250-AUTH LOGIN\r\n250 OK\r\n",
              config.my_domain, config.greeting, config.max_msg_size);
  }
  set_owned_text(&config.ehlo_response, text);
}

// With no key present nothing below changes config, which config_keys
// relies on.
void read_keys() {
  read_limits();
  read_identity();
  read_session_keys();
  read_names_and_paths();
  for (const PlainKey& k : PLAIN_KEYS) read_plain_key(k);
  read_scanner_keys();
  read_gateway_keys();
}

void import_file(const char* name) {
  int rc = ini_import(name);
  if (rc != 0) dlog(DLOG_SMTP, 1, "Error importing %s: %d\n", name, rc);
}

}  // namespace

void config_set_string(const char** field, const char* value) {
  char* copy = nullptr;
  if (value != nullptr) {
    copy = strdup(value);
    if (copy == nullptr) fatal_exit("Out of memory storing a setting\n");
  }
  auto& store = owned_strings();
  for (auto& owned : store) {
    if (owned.field == field) {
      free(owned.copy);
      owned.copy = copy;
      *field = copy;
      return;
    }
  }
  store.push_back({field, copy});
  *field = copy;
}

void config_reset() {
  for (auto& owned : owned_strings()) free(owned.copy);
  owned_strings().clear();
  config = Config{};
  config_clear_lists();
}

std::vector<ConfigKey> config_keys() {
  std::vector<ConfigKey> keys;
  // On a bridge address_transparent is not consulted; it is a key all the same.
  const bool bridge = layer2_mode;
  layer2_mode = false;
  key_recorder = &keys;
  read_keys();
  key_recorder = nullptr;
  layer2_mode = bridge;
  return keys;
}

void read_config(const char* common_file, const char* proxy_file) {
  import_file(common_file != nullptr ? common_file : VIGILD_COMMON_CONFIG);
  import_file(proxy_file != nullptr ? proxy_file : VIGILD_PROXY_CONFIG);

  read_keys();
  ini_clear();

  build_replies();

  if (config.relay_control) {
    load_local_domains();
    load_relay_ips();
    load_auth_file();
  } else {
    // Without relay control there is no password table to check against,
    // so AUTH can only be the backend's business.
    config.passthrough_auth = true;
  }
  if (config.proxy_protocol) load_proxy_networks();
}
