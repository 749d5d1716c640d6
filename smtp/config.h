// The proxy's settings record `config` and the three lists that relay control
// and local authentication read (local domains, relay networks, passwords).
// Everything here is filled once at start-up by read_config and is read-only
// afterwards; strings and list entries stay owned by this module.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/dstr.h"
#include "scan/spam.h"
#include "scan/vscan.h"

constexpr const char* VIGILD_COMMON_CONFIG = "/etc/av/norvik.conf";
constexpr const char* VIGILD_PROXY_CONFIG = "/etc/av/vigild.conf";
constexpr const char* CONFIG_PROXY_SECTION = "vigild";
constexpr const char* CONFIG_COMMON_SECTION = "scannerd";

// What a bare CR or LF in a message body leads to: made into a line end
// (LF) or a space (CR), or the whole message refused.
enum class BareLineEnds { NORMALIZE, REJECT };

// How a transparent backend connection takes the sender's address: through
// the appliance kernel's association option, or with the mainline socket
// option IP_TRANSPARENT (bound to the sender's address, port chosen by the
// kernel).
enum class TransparentMethod { APPLIANCE, MAINLINE };  // "appliance", "ip_transparent"

// The settings. String fields point either at a compiled-in literal or at a
// copy owned by this module; never free or keep them past a config_set_string
// on the same field. A null spam_tag/spam_plus_tag means "no tag".
struct Config {
  uint32_t listen_addr = 0;  // host byte order; 0 is INADDR_ANY
  uint16_t listen_port = 8082;
  int idle_timeout = 300;     // seconds; <= 0 means no idle timer
  int scanner_timeout = 300;  // seconds; stored as configured
  int noop_interval = 240;    // seconds between NOOPs to an idle backend
  int max_connections = 2500;
  int listen_backlog = 5;  // queue of senders not yet accepted
  const char* user = "vigild";
  const char* group = "oxb";
  long long max_msg_size = 20971520;
  int max_rcpt = 200;
  int max_errors = 5;
  const char* my_domain = "local.domain";
  const char* greeting = "ESMTP";
  const char* local_domain_file = "/etc/av/vigild/local_domains";
  const char* relay_ips_file = "/etc/av/vigild/relay_ips";
  const char* auth_file = "/etc/av/vigild/auth";
  const char* scan_dir = "/var/av/scan";  // without a trailing "/"
  const char* scan_prefix = "vigild_";
  bool address_transparent = true;
  bool relay_control = false;
  const char* spam_tag = nullptr;       // Subject tag for spam flag 0x100
  const char* spam_plus_tag = nullptr;  // Subject tag for spam flag 0x200
  const char* scanner_addr = "/var/lib/norvik/scannerd.sock";
  const char* as_socket_path = "/var/lib/norvik/as.sock";    // no INI key
  const char* ctrl_socket_path = "/var/run/smtp_ctrl.sock";  // no INI key
  int as_connections = 10;
  bool use_scanner = true;
  bool spam_bypass = false;
  bool passthrough_auth = true;  // always true when relay_control is false
  bool allow_null_sender = true;
  const char* mailer_temp_dir = "/var/spool/xmail/spool/temp";
  const char* mailer_local_dir = "/var/spool/xmail/spool/local";
  bool vscan_fail_block = false;
  bool vscan_timeout_block = true;
  bool vscan_bypass = false;
  bool discard_spam = false;
  bool discard_virus = false;
  bool support_8bitmime = true;
  long long max_spam_scan_size = 51200;
  BareLineEnds bare_line_ends = BareLineEnds::NORMALIZE;
  // The scanners other than the native ones: ClamAV's clamd for viruses,
  // spamd or rspamd for spam.
  VscanProtocol scanner_protocol = VscanProtocol::NATIVE;
  const char* clamd_socket = "/run/clamav/clamd.ctl";
  SpamProtocol antispam_protocol = SpamProtocol::NATIVE;
  // Null until read_config fills in the protocol's default (the native
  // socket, 127.0.0.1:783 for spamd, 127.0.0.1:11333 for rspamd).
  const char* antispam_addr = nullptr;
  double spam_reject_score = 10.0;  // spamd: spam at or above it is refused
  TransparentMethod transparent_method = TransparentMethod::APPLIANCE;
  // Every message goes here when set (sin_family AF_INET), whatever the
  // sender's connection was addressed to; unset (family 0): the original
  // destination of each connection.
  sockaddr_in backend_addr{};
  // Senders come through a load balancer that names each of them in a
  // PROXY protocol header; only the networks of proxy_networks_file may.
  bool proxy_protocol = false;
  const char* proxy_networks_file = "/etc/av/vigild/proxy_networks";
  // Name the sender to a backend that announces XCLIENT.
  bool xclient = false;

  int num_fds = 0;  // set by start-up from the descriptor budget

  // Reply texts built by read_config from the configured my_domain (not the
  // host name start-up puts there later); null before read_config.
  const char* greeting_line = nullptr;  // "220 <my_domain> <greeting>\r\n"
  const char* helo_response = nullptr;  // "250 <my_domain> <greeting>\r\n"
  const char* ehlo_response = nullptr;  // multi-line 250 with SIZE and AUTH LOGIN
};

extern Config config;

// One relay network: both values in host byte order. addr is kept as written
// in the file (not masked); a sender ip matches when
// (ip & mask) == (addr & mask).
struct RelayIp {
  uint32_t addr;
  uint32_t mask;
};

struct PasswdEntry {
  std::string user;
  std::string password;  // the stored crypt hash
};

// The lists, in file order. Empty unless relay_control is on.
extern std::vector<DstrPtr> local_domains;
extern std::vector<RelayIp> relay_ips;
extern std::vector<PasswdEntry> passwd_entries;
// The load balancers trusted to send a PROXY header; loaded, in the format of
// the relay networks file, only when proxy_protocol is on.
extern std::vector<RelayIp> proxy_networks;

// Whether a host-order address lies in one of the list's networks.
bool network_list_match(const std::vector<RelayIp>& list, uint32_t ip);

// Reads the common file (section scannerd for scan_dir, spam_tag,
// spam_plus_tag, scanner_addr) and then the proxy file (section vigild) into
// config; null names mean the compiled-in paths. An unreadable file is logged
// and the other one still applies. Builds the reply texts and, with
// relay_control on, loads the three lists (an unreadable local domains file
// is fatal); with proxy_protocol on, the proxy networks (unreadable: fatal).
// A backend_addr that is not host:port is fatal too. Reads layer2_mode, so
// detect_layer2 must have run before.
void read_config(const char* common_file, const char* proxy_file);

// One key of the settings files: its section (CONFIG_PROXY_SECTION or
// CONFIG_COMMON_SECTION) and its name, both static strings.
struct ConfigKey {
  const char* section;
  const char* key;
};

// Every key read_config consults, in the order it reads them, found by
// running the reader itself without a file; config is left as it was. For
// documentation checks and tools.
std::vector<ConfigKey> config_keys();

// Each replaces its list with the contents of the file named in config.
void load_local_domains();
void load_relay_ips();
void load_auth_file();
// An unreadable file is fatal: every sender would be refused.
void load_proxy_networks();

// Empties the three lists.
void config_clear_lists();

// Stores a copy of value (null allowed) in a string field of config, freeing
// the copy it held before. Start-up uses it to put the host name into
// my_domain.
void config_set_string(const char** field, const char* value);

// Back to the compiled-in defaults, owned strings freed, lists emptied.
void config_reset();

// The mask with the prefix_length most significant bits set (host byte order);
// the length is clamped into 0..32.
uint32_t prefix_mask(int prefix_length);
