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
using testing::PrintToString;

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
  samples.merge(keys_in(DIST + "etc/norvik.conf"));
  samples.merge(keys_in(DIST + "etc/vigild.conf"));
  for (const std::string& k : samples)
    EXPECT_TRUE(known.count(k)) << k << " is documented but not read";
  for (const std::string& k : in_man)
    EXPECT_TRUE(known_names.count(k)) << k << " in vigild.8 is not read";
}

TEST(ConfigDocsTest, SamplesHoldTheDefaultsAndLoadWithoutComplaint) {
  config_reset();
  const Config defaults = config;
  const std::string common = DIST + "examples/norvik.conf", proxy = DIST + "examples/vigild.conf";
  const std::string log = logged([&] { read_config(common.c_str(), proxy.c_str()); }, 1);
  // The default user and group need not exist on a build machine.
  EXPECT_EQ(std::regex_replace(log, std::regex("Bad (user|group): .*\n"), ""), "");
  // clang-format off
#define SAME(f) EXPECT_EQ(PrintToString(config.f), PrintToString(defaults.f)) << #f
  SAME(listen_addr); SAME(listen_port); SAME(idle_timeout); SAME(scanner_timeout);
  SAME(noop_interval); SAME(max_connections); SAME(listen_backlog); SAME(user); SAME(group);
  SAME(max_msg_size); SAME(max_rcpt); SAME(max_errors); SAME(my_domain); SAME(greeting);
  SAME(local_domain_file); SAME(relay_ips_file); SAME(auth_file); SAME(scan_dir); SAME(scan_prefix);
  SAME(address_transparent); SAME(relay_control); SAME(spam_tag); SAME(spam_plus_tag);
  SAME(scanner_addr); SAME(as_connections); SAME(use_scanner); SAME(spam_bypass);
  SAME(passthrough_auth); SAME(allow_null_sender); SAME(mailer_temp_dir); SAME(mailer_local_dir);
  SAME(vscan_fail_block); SAME(vscan_timeout_block); SAME(vscan_bypass); SAME(discard_spam);
  SAME(discard_virus); SAME(support_8bitmime); SAME(max_spam_scan_size); SAME(bare_line_ends);
  SAME(scanner_protocol); SAME(clamd_socket); SAME(antispam_protocol); SAME(spam_reject_score);
  SAME(transparent_method); SAME(backend_addr.sin_family); SAME(proxy_protocol);
  SAME(proxy_networks_file); SAME(xclient);
#undef SAME
  EXPECT_STREQ(config.antispam_addr, config.as_socket_path);
  // clang-format on
  // Each sample list holds one valid line.
  config_set_string(&config.local_domain_file, (DIST + "examples/local_domains").c_str());
  config_set_string(&config.relay_ips_file, (DIST + "examples/relay_ips").c_str());
  config_set_string(&config.auth_file, (DIST + "examples/auth").c_str());
  load_local_domains(), load_relay_ips(), load_auth_file();
  EXPECT_EQ(std::make_tuple(local_domains.size(), relay_ips.size(), passwd_entries.size()),
            std::make_tuple(1u, 1u, 1u));
  config_reset();
}

}  // namespace
