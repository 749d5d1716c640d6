#include "smtp/config.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "foundation/dlog.h"
#include "net/tproxy.h"
#include "tests/foundation/test_util.h"

namespace {

using foundation_test::contains;
using foundation_test::lacking;
using foundation_test::logged;
using foundation_test::TempDir;

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.ok());
    config_reset();
    layer2_mode = false;
    dlog_set_level(0, 9);
  }
  void TearDown() override {
    config_reset();
    layer2_mode = false;
    dlog_set_level(0, 3);
  }
  // Reads a proxy file holding [vigild] plus body, with an empty common file.
  std::string read_proxy(const std::string& body) {
    std::string proxy = dir_.write("vigild.conf", "[vigild]\n" + body);
    std::string common = dir_.write("common.conf", "[scannerd]\n");
    return logged([&] { read_config(common.c_str(), proxy.c_str()); });
  }
  void set_file(const char** field, const std::string& name, const std::string& text) {
    config_set_string(field, dir_.write(name, text).c_str());
  }
  TempDir dir_;
};

TEST_F(ConfigTest, MissingFilesAreLoggedAndDefaultsStay) {
  std::string common = dir_.file("none.conf"), proxy = dir_.file("nor.conf");
  std::string log = logged([&] { read_config(common.c_str(), proxy.c_str()); });
  EXPECT_EQ(
      lacking(log, {"Error importing " + common + ": 4\n", "Error importing " + proxy + ": 4\n"}),
      "");
  EXPECT_EQ(config.listen_port, 8082);
  EXPECT_STREQ(config.user, "vigild");
  EXPECT_EQ(config.spam_tag, nullptr);
  EXPECT_STREQ(config.greeting_line, "220 local.domain ESMTP\r\n");
  EXPECT_STREQ(config.helo_response, "250 local.domain ESMTP\r\n");
  EXPECT_STREQ(config.ehlo_response,
               "250-local.domain ESMTP\r\n250-VRFY\r\n250-8BITMIME\r\n250-SIZE 20971520\r\n"
               "250-AUTH LOGIN\r\n250 OK\r\n");
}

TEST_F(ConfigTest, OutOfRangeValuesKeepTheValueInForce) {
  auto size = [] { return config.max_msg_size; };
  auto port = [] { return (long long)config.listen_port; };
  auto addr = [] { return (long long)config.listen_addr; };
  auto idle = [] { return (long long)config.idle_timeout; };
  auto scan = [] { return (long long)config.scanner_timeout; };
  auto rcpt = [] { return (long long)config.max_rcpt; };
  auto conns = [] { return (long long)config.max_connections; };
  auto errs = [] { return (long long)config.max_errors; };
  const char* size_warning = "Illegal max message size. Using default: 20971520\n";
  struct Case {
    const char* line;  // key=value in [vigild]
    std::function<long long()> field;
    long long expected;
    const char* warning;  // expected log line, or "" for none
  };
  const std::vector<Case> cases = {
      {"max_msg_size=49999", size, 20971520, size_warning},
      {"max_msg_size=1073741825", size, 20971520, size_warning},
      {"max_msg_size=50000", size, 50000, ""},
      {"max_msg_size=1073741824", size, 1073741824, ""},
      {"listen_addr=192.0.2.1", addr, 0xC0000201, ""},
      {"listen_addr=mail.example", addr, 0, "Illegal listen_addr. Using INADDR_ANY.\n"},
      {"listen_port=0", port, 8082, "Illegal listen_port. Using 8082\n"},
      {"listen_port=67108864", port, 8082, "Illegal listen_port. Using 8082\n"},
      {"listen_port=65561", port, 25, ""},  // passes the check, keeps the low 16 bits
      {"idle_timeout=29", idle, 300, "Illegal idle_timeout. Using 300\n"},
      {"idle_timeout=1", idle, 300, "Illegal idle_timeout. Using 300\n"},
      {"idle_timeout=30", idle, 30, ""},
      {"idle_timeout=0", idle, 0, ""},
      {"idle_timeout=-5", idle, -5, ""},
      {"scanner_timeout=10", scan, 300, "Illegal scanner_timeout. Using 300\n"},
      {"max_rcpt=4", rcpt, 200, "max_rcpt too small. Using 200\n"},
      {"max_rcpt=many", rcpt, 200, "max_rcpt too small. Using 200\n"},
      {"max_rcpt=5", rcpt, 5, ""},
      {"max_connections=4", conns, 2500, "Bad max connections. Using 2500\n"},
      {"max_connections=3001", conns, 2500, "Bad max connections. Using 2500\n"},
      {"max_connections=3000", conns, 3000, ""},
      {"max_errors=4", errs, 5, "Bad max_errors. Using 5\n"},
      {"max_errors=9", errs, 9, ""},
  };
  for (const Case& c : cases) {
    config_reset();
    std::string log = read_proxy(std::string(c.line) + "\n");
    EXPECT_EQ(c.field(), c.expected) << c.line;
    if (*c.warning != '\0') {
      EXPECT_TRUE(contains(log, c.warning)) << c.line << ": " << log;
    } else {
      EXPECT_FALSE(contains(log, "Illegal") || contains(log, "Bad ")) << c.line << ": " << log;
    }
  }
}

TEST_F(ConfigTest, MaxConnectionsWarningIsLevelZero) {
  dlog_set_level(0, 0);
  std::string log = read_proxy("max_connections=3001\nmax_rcpt=1\n");
  EXPECT_TRUE(contains(log, "Bad max connections. Using 2500\n")) << log;
  EXPECT_FALSE(contains(log, "max_rcpt too small")) << log;
}

TEST_F(ConfigTest, UnknownUserAndGroupKeepTheDefaults) {
  std::string log = read_proxy("user=no-such-user-x\ngroup=no-such-group-x\n");
  EXPECT_STREQ(config.user, "vigild");
  EXPECT_STREQ(config.group, "oxb");
  EXPECT_EQ(lacking(log, {"Bad user: ", ". Using vigild\n", "Bad group: ", ". Using oxb\n"}), "");
  read_proxy("user=root\ngroup=root\n");
  EXPECT_STREQ(config.user, "root");
  EXPECT_STREQ(config.group, "root");
}

TEST_F(ConfigTest, ProxyFileWinsOverCommonFile) {
  std::string common = dir_.write("common.conf",
                                  "[scannerd]\nscan_dir=/srv/scan//\nspam_tag=[SPAM]\n"
                                  "scanner_addr=/run/scan.sock\n[vigild]\ngreeting=Common\n"
                                  "max_rcpt=50\n");
  std::string proxy = dir_.write("vigild.conf", "[vigild]\ngreeting=Proxy\nscan_dir=/ignored\n");
  read_config(common.c_str(), proxy.c_str());
  EXPECT_STREQ(config.greeting, "Proxy");
  EXPECT_EQ(config.max_rcpt, 50);
  EXPECT_STREQ(config.scan_dir, "/srv/scan/");  // one trailing slash goes
  EXPECT_STREQ(config.spam_tag, "[SPAM]");
  EXPECT_EQ(config.spam_plus_tag, nullptr);
  EXPECT_STREQ(config.scanner_addr, "/run/scan.sock");

  config_reset();
  read_config(dir_.file("gone.conf").c_str(), proxy.c_str());
  EXPECT_STREQ(config.greeting, "Proxy");
}

TEST_F(ConfigTest, Layer2IgnoresAddressTransparentKey) {
  std::string log = read_proxy("address_transparent=0\n");
  EXPECT_FALSE(config.address_transparent);
  // The value is logged as a character: byte 0 here.
  EXPECT_TRUE(contains(log, std::string("address_transparent \0\n", 22))) << log;

  layer2_mode = true;
  log = read_proxy("address_transparent=0\n");
  EXPECT_TRUE(config.address_transparent);
  EXPECT_TRUE(contains(log, "Running proxy in address_transparent mode in Layer2\n")) << log;
}

TEST_F(ConfigTest, RelayControlDecidesWhetherListsAreLoaded) {
  // Off: not even a missing local domains file is opened.
  read_proxy("relay_control=0\npassthrough_auth=0\nlocal_domain_file=" + dir_.file("none") + "\n");
  EXPECT_TRUE(config.passthrough_auth);
  EXPECT_TRUE(local_domains.empty());

  std::string domains = dir_.write("domains", "example.com\n");
  std::string relays = dir_.write("relays", "10.0.0.0/8\n");
  std::string auth = dir_.write("auth", "alice:hash\n");
  read_proxy("relay_control=1\npassthrough_auth=0\nlocal_domain_file=" + domains +
             "\nrelay_ips_file=" + relays + "\nauth_file=" + auth + "\n");
  EXPECT_FALSE(config.passthrough_auth);
  EXPECT_EQ(local_domains.size(), 1u);
  EXPECT_EQ(relay_ips.size(), 1u);
  EXPECT_EQ(passwd_entries.size(), 1u);
}

TEST_F(ConfigTest, RepliesUseConfiguredDomainNotLaterHostName) {
  read_proxy("my_domain=mx.example\ngreeting=Hi there\nsupport_8bitmime=0\nmax_msg_size=50000\n");
  config_set_string(&config.my_domain, "host.local");
  EXPECT_STREQ(config.greeting_line, "220 mx.example Hi there\r\n");
  EXPECT_STREQ(config.helo_response, "250 mx.example Hi there\r\n");
  EXPECT_STREQ(config.ehlo_response,
               "250-mx.example Hi there\r\n250-VRFY\r\n250-SIZE 50000\r\n250-AUTH LOGIN\r\n"
               "250 OK\r\n");
}

TEST_F(ConfigTest, UncheckedKeysAndDebugAreTakenAsWritten) {
  read_proxy(
      "as_connections=-3\nmax_spam_scan_size=99999999999\nnoop_interval=7\nuse_scanner=0\n"
      "spam_bypass=yes\nvscan_fail_block=2\nmailer_temp_dir=/t\nscan_prefix=p_\n"
      "debug=69,509,12\n");
  EXPECT_EQ(config.as_connections, -3);
  EXPECT_EQ(config.max_spam_scan_size, 99999999999LL);
  EXPECT_EQ(config.noop_interval, 7);
  EXPECT_FALSE(config.use_scanner);
  EXPECT_FALSE(config.spam_bypass);  // not a number: 0
  EXPECT_TRUE(config.vscan_fail_block);
  EXPECT_STREQ(config.mailer_temp_dir, "/t");
  EXPECT_STREQ(config.scan_prefix, "p_");
  EXPECT_EQ(dlog_get_level(6), 9u);
  EXPECT_EQ(dlog_get_level(50), 9u);
  EXPECT_EQ(dlog_get_level(1), 2u);
}

TEST(PrefixMask, LengthsAreClamped) {
  const std::vector<std::pair<int, uint32_t>> cases = {
      {0, 0},  {1, 0x80000000u},  {8, 0xFF000000u}, {24, 0xFFFFFF00u}, {32, 0xFFFFFFFFu},
      {-1, 0}, {40, 0xFFFFFFFFu},
  };
  for (auto [len, mask] : cases) EXPECT_EQ(prefix_mask(len), mask) << len;
}

TEST_F(ConfigTest, LocalDomainsAreTrimmedAndLongLinesSplit) {
  set_file(&config.local_domain_file, "d1", "stale.example\n");
  load_local_domains();
  set_file(&config.local_domain_file, "d2",
           "  example.com \t\n\n   \nExample.org\n" + std::string(150, 'd') + "\n");
  std::string log = logged(load_local_domains);
  ASSERT_EQ(local_domains.size(), 4u);
  EXPECT_STREQ(local_domains[0]->data, "example.com");
  EXPECT_STREQ(local_domains[1]->data, "Example.org");
  EXPECT_EQ(std::string(local_domains[2]->data), std::string(99, 'd'));
  EXPECT_EQ(std::string(local_domains[3]->data), std::string(51, 'd'));
  EXPECT_EQ(lacking(log, {"Added example.com as local domain 0\n",
                          "Added Example.org as local domain 1\n"}),
            "");
}

TEST_F(ConfigTest, MissingLocalDomainFileIsFatal) {
  config_set_string(&config.local_domain_file, dir_.file("domains").c_str());
  config_set_string(&config.scan_dir, dir_.path().c_str());
  EXPECT_EXIT(
      {
        dlog_set_mode("config_test", DLOG_MODE_STDERR);
        load_local_domains();
      },
      ::testing::ExitedWithCode(1),
      "Couldn't open local domain file .*/domains: No such file or directory\n"
      "Shuting down due to the above error.");
}

TEST_F(ConfigTest, RelayLinesBecomeAddressAndMask) {
  set_file(&config.relay_ips_file, "relays",
           "10.0.0.0/8\n10.1.2.3/24\n192.168.1.0/ 24\n\nno-slash\nbad.addr/8\n10.0.0.0/3\n"
           "10.0.0.0/33\n1.2.3.4/32");
  std::string log = logged(load_relay_ips);
  const std::vector<RelayIp> want = {{0x0A000000u, 0xFF000000u},
                                     {0x0A010203u, 0xFFFFFF00u},
                                     {0xC0A80100u, 0xFFFFFF00u},
                                     {0x01020304u, 0xFFFFFFFFu}};
  ASSERT_EQ(relay_ips.size(), want.size());
  for (size_t i = 0; i < want.size(); i++) {  // the address is kept unmasked
    EXPECT_EQ(relay_ips[i].addr, want[i].addr) << i;
    EXPECT_EQ(relay_ips[i].mask, want[i].mask) << i;
  }
  EXPECT_TRUE(contains(log, "Adding addr a010203 10.1.2.3 mask ffffff00 index 1\n")) << log;

  config_set_string(&config.relay_ips_file, dir_.file("gone").c_str());
  log = logged(load_relay_ips);
  EXPECT_EQ(relay_ips.size(), want.size());
  EXPECT_TRUE(contains(
      log, "Can't read relay ip file " + dir_.file("gone") + ": No such file or directory\n"))
      << log;
}

// Runs body in a child with a private /dev holding our own /dev/log, and
// returns the syslog datagrams that reached it, each followed by "|"; SKIP
// when no mount namespace can be made here.
std::string syslog_of(const std::function<void()>& body) {
  return foundation_test::in_child([&] {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0)
      _exit(77);
    int sock = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    if (bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
      return std::string("bind");
    dlog_set_mode("config_test", 0);  // also drops a connection inherited from the parent
    body();
    std::string out;
    char buf[2048];
    for (ssize_t n; (n = recv(sock, buf, sizeof buf, MSG_DONTWAIT)) > 0;) out.append(buf, n) += "|";
    return out;
  });
}

TEST_F(ConfigTest, BadRelayLinesRaiseSystemErrorEvents) {
  set_file(&config.relay_ips_file, "relays", "\nbad.addr/8\n10.0.0.0/3\n10.0.0.0/8\n");
  std::string events = syslog_of(load_relay_ips);
  if (events == foundation_test::SKIP) GTEST_SKIP() << "no mount namespace";
  const char* want[] = {
      "pri=3 issueid=1000002 name=System_Error msg=\"Bad line in relay ips file: \n\"|",
      "pri=3 issueid=1000002 name=System_Error msg=\"Invalid inet address: bad.addr/8\n\"|",
      "pri=3 issueid=1000002 name=System_Error msg=\"Invalid relay IP mask: 10.0.0.0/3\n\"|",
  };
  size_t pos = 0;
  for (const char* w : want) {
    pos = events.find(w, pos);
    ASSERT_NE(pos, std::string::npos) << w << "\nin: " << events;
  }
  EXPECT_TRUE(contains(events, "id=Antivirus time=\"")) << events;
  EXPECT_FALSE(contains(events, "10.0.0.0/8")) << events;
}

TEST_F(ConfigTest, PasswordLinesAreSplitAtColons) {
  set_file(&config.auth_file, "auth",
           "  alice:$1$salt$0123456789abcdefghijkl:extra  \n\nbob\n::\ncarol::pw\n");
  std::string log = logged(load_auth_file);
  ASSERT_EQ(passwd_entries.size(), 2u);
  EXPECT_EQ(passwd_entries[0].user, "alice");
  EXPECT_EQ(passwd_entries[0].password, "$1$salt$0123456789abcdefghijkl");
  EXPECT_EQ(passwd_entries[1].user, "carol");
  EXPECT_EQ(passwd_entries[1].password, "pw");
  EXPECT_EQ(lacking(log, {"user=bob, password=(null)Error with password file. Skipping line.\n",
                          "user=(null), password=(null)Error with password file."}),
            "");

  config_set_string(&config.auth_file, dir_.file("gone").c_str());
  log = logged(load_auth_file);
  EXPECT_EQ(passwd_entries.size(), 2u);
  EXPECT_TRUE(contains(
      log, "Error opening auth file: " + dir_.file("gone") + ": No such file or directory\n"))
      << log;
}

TEST_F(ConfigTest, PasswordTableStopsAfterTenThousandAndTwenty) {
  std::string body;
  for (int i = 0; i < 20000; i++) body += "u" + std::to_string(i) + ":h\n";
  set_file(&config.auth_file, "auth", body);
  dlog_set_level(0, 3);
  std::string log = logged(load_auth_file);
  EXPECT_EQ(passwd_entries.size(), 10020u);
  EXPECT_EQ(passwd_entries.back().user, "u10019");
  size_t first = log.find("Too many entries in password file.\n");
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(log.find("Too many entries", first + 1), std::string::npos);
}

}  // namespace
