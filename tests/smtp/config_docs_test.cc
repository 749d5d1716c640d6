// The shipped documentation of the settings (sample files, man page) against
// the reader itself, so that neither can drift from the other.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "smtp/config.h"
#include "tests/foundation/test_util.h"

namespace {

using foundation_test::logged;
using foundation_test::slurp;

// Proxy-file keys documented ahead of their readers, which are being written
// elsewhere; each leaves this list once the reader consults it (the test says so).
const std::string PENDING_KEYS =
    " scanner_protocol clamd_socket antispam_protocol antispam_addr spam_reject_score"
    " transparent_method backend_addr proxy_protocol proxy_networks xclient ";

bool pending(const std::string& name) {
  return PENDING_KEYS.find(" " + name + " ") != std::string::npos;
}

const std::string DIST = VIGILD_SOURCE_DIR "/dist/";

// "section.key" for every key line of an INI file.
std::set<std::string> keys_in(const std::string& path) {
  std::set<std::string> keys;
  std::istringstream in(slurp(path));
  std::string section, line;
  std::smatch m;
  while (std::getline(in, line)) {
    if (std::regex_match(line, m, std::regex(R"(\[(\w+)\])"))) section = m[1];
    if (std::regex_match(line, m, std::regex(R"((\w+) *=.*)")))
      keys.insert(section + "." + m[1].str());
  }
  return keys;
}

// What the reader complains about at levels 0 and 1, less the default user and
// group, which a build machine need not have.
std::string complaints(const std::string& common, const std::string& proxy) {
  return std::regex_replace(logged([&] { read_config(common.c_str(), proxy.c_str()); }, 1),
                            std::regex("Bad (user|group): .*\n"), "");
}

TEST(ConfigDocsTest, SamplesAndManPageNameEveryKeyTheReaderKnowsAndNoOther) {
  std::set<std::string> known, known_names, in_man;
  for (const ConfigKey& k : config_keys()) {
    known.insert(std::string(k.section) + "." + k.key);
    known_names.insert(k.key);
  }
  std::set<std::string> samples = keys_in(DIST + "examples/norvik.conf");
  samples.merge(keys_in(DIST + "examples/vigild.conf"));
  const std::string man = slurp(DIST + "vigild.8");
  const std::regex man_key(R"(\n\.TP\n\.B ([a-z][a-z0-9_]*)\n)");
  for (std::sregex_iterator i(man.begin(), man.end(), man_key), end; i != end; ++i)
    in_man.insert((*i)[1]);

  for (const std::string& k : known) EXPECT_TRUE(samples.count(k)) << k << " not in the samples";
  for (const std::string& k : known_names) EXPECT_TRUE(in_man.count(k)) << k << " not in vigild.8";
  std::istringstream pending_keys(PENDING_KEYS);
  for (std::string k; pending_keys >> k;) {
    EXPECT_FALSE(known_names.count(k)) << k << " is read now: take it off PENDING_KEYS";
    EXPECT_TRUE(samples.count(std::string(CONFIG_PROXY_SECTION) + "." + k))
        << k << " not in the samples";
    EXPECT_TRUE(in_man.count(k)) << k << " not in vigild.8";
  }
  samples.merge(keys_in(DIST + "etc/norvik.conf"));
  samples.merge(keys_in(DIST + "etc/vigild.conf"));
  for (const std::string& k : samples)
    EXPECT_TRUE(known.count(k) || pending(k.substr(k.find('.') + 1)))
        << k << " is documented but not read";
  for (const std::string& k : in_man)
    EXPECT_TRUE(known_names.count(k) || pending(k)) << k << " in vigild.8 is not read";
}

TEST(ConfigDocsTest, SamplesHoldTheDefaultsAndEveryFileLoadsWithoutComplaint) {
  config_reset();
  const Config defaults = config;
  EXPECT_EQ(complaints(DIST + "examples/norvik.conf", DIST + "examples/vigild.conf"), "");
  auto text = [](auto v) {
    if constexpr (std::is_pointer_v<decltype(v)>)
      return std::string(v ? v : "(null)");
    else
      return std::to_string(static_cast<long long>(v));
  };
  auto settings = [&](const Config& c) {
    std::string s;
    // clang-format off
#define F(f) s += #f " " + text(c.f) + "\n"
    F(listen_addr); F(listen_port); F(idle_timeout); F(scanner_timeout); F(noop_interval);
    F(max_connections); F(listen_backlog); F(user); F(group); F(max_msg_size); F(max_rcpt);
    F(max_errors); F(my_domain); F(greeting); F(local_domain_file); F(relay_ips_file); F(auth_file);
    F(scan_dir); F(scan_prefix); F(address_transparent); F(relay_control); F(spam_tag);
    F(spam_plus_tag); F(scanner_addr); F(as_connections); F(use_scanner); F(spam_bypass);
    F(passthrough_auth); F(allow_null_sender); F(mailer_temp_dir); F(mailer_local_dir);
    F(vscan_fail_block); F(vscan_timeout_block); F(vscan_bypass); F(discard_spam);
    F(discard_virus); F(support_8bitmime); F(max_spam_scan_size); F(bare_line_ends);
#undef F
    // clang-format on
    return s;
  };
  EXPECT_EQ(settings(config), settings(defaults));

  // Each sample list holds one valid line.
  config_set_string(&config.local_domain_file, (DIST + "examples/local_domains").c_str());
  config_set_string(&config.relay_ips_file, (DIST + "examples/relay_ips").c_str());
  config_set_string(&config.auth_file, (DIST + "examples/auth").c_str());
  EXPECT_EQ(logged([] { load_local_domains(), load_relay_ips(), load_auth_file(); }, 1), "");
  EXPECT_EQ(std::make_tuple(local_domains.size(), relay_ips.size(), passwd_entries.size()),
            std::make_tuple(1u, 1u, 1u));

  EXPECT_EQ(complaints(DIST + "etc/norvik.conf", DIST + "etc/vigild.conf"), "");
  EXPECT_FALSE(config.address_transparent);
  config_reset();
}

}  // namespace
