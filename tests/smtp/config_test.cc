#include "smtp/config.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "foundation/dlog.h"
#include "net/tproxy.h"

namespace {

// Redirects standard error into a file while alive, with dlog writing there.
class LogCapture {
public:
  LogCapture() {
    char name[] = "/tmp/config_test_log.XXXXXX";
    fd_ = mkstemp(name);
    unlink(name);
    fflush(stderr);
    saved_ = dup(2);
    dup2(fd_, 2);
    old_mode_ = dlog_set_mode("config_test", DLOG_MODE_STDERR);
  }
  ~LogCapture() {
    restore();
    close(fd_);
  }
  std::string text() {
    restore();
    std::string out;
    char buf[4096];
    lseek(fd_, 0, SEEK_SET);
    for (ssize_t n; (n = read(fd_, buf, sizeof buf)) > 0;)
      out.append(buf, n);
    return out;
  }

private:
  void restore() {
    if (saved_ < 0)
      return;
    fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    saved_ = -1;
    dlog_set_mode("config_test", old_mode_);
  }
  int fd_ = -1;
  int saved_ = -1;
  unsigned old_mode_ = 0;
};

class ConfigTest : public ::testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/config_test.XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    dir_ = name;
    config_reset();
    layer2_mode = false;
    dlog_set_level(0, 9);
  }
  void TearDown() override {
    config_reset();
    layer2_mode = false;
    dlog_set_level(0, 3);
    std::string cmd = "rm -rf '" + dir_ + "'";
    ASSERT_EQ(system(cmd.c_str()), 0);
  }
  std::string write_file(const std::string &name, const std::string &text) {
    std::string path = dir_ + "/" + name;
    FILE *f = fopen(path.c_str(), "w");
    EXPECT_NE(f, nullptr);
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
    return path;
  }
  std::string missing(const std::string &name) { return dir_ + "/" + name; }
  // Reads a proxy file holding [vigild] plus body, with no common file.
  std::string read_proxy(const std::string &body) {
    std::string proxy = write_file("vigild.conf", "[vigild]\n" + body);
    std::string common = write_file("common.conf", "[scannerd]\n");
    LogCapture log;
    read_config(common.c_str(), proxy.c_str());
    return log.text();
  }
  std::string dir_;
};

TEST_F(ConfigTest, MissingFilesAreLoggedAndDefaultsStay) {
  std::string common = missing("none.conf"), proxy = missing("nor.conf");
  LogCapture log;
  read_config(common.c_str(), proxy.c_str());
  std::string text = log.text();
  EXPECT_NE(text.find("Error importing " + common + ": 4\n"), std::string::npos)
      << text;
  EXPECT_NE(text.find("Error importing " + proxy + ": 4\n"), std::string::npos)
      << text;
  EXPECT_EQ(config.listen_port, 8082);
  EXPECT_EQ(config.max_connections, 2500);
  EXPECT_STREQ(config.user, "vigild");
  EXPECT_STREQ(config.scan_dir, "/var/av/scan");
  EXPECT_EQ(config.spam_tag, nullptr);
  EXPECT_TRUE(config.passthrough_auth);
  EXPECT_STREQ(config.greeting_line, "220 local.domain ESMTP\r\n");
  EXPECT_STREQ(config.helo_response, "250 local.domain ESMTP\r\n");
  EXPECT_STREQ(config.ehlo_response,
               "250-local.domain ESMTP\r\n250-VRFY\r\n250-8BITMIME\r\n250-SIZE "
               "20971520\r\n"
               "250-AUTH LOGIN\r\n250 OK\r\n");
}

struct BoundCase {
  const char *label;
  const char *line; // key=value in [vigild]
  std::function<long long()> field;
  long long expected;
  const char *warning; // expected log line, or "" when none
};

TEST_F(ConfigTest, OutOfRangeValuesKeepTheValueInForce) {
  auto msg = [] { return config.max_msg_size; };
  auto port = [] { return (long long)config.listen_port; };
  auto idle = [] { return (long long)config.idle_timeout; };
  auto scan = [] { return (long long)config.scanner_timeout; };
  auto rcpt = [] { return (long long)config.max_rcpt; };
  auto conns = [] { return (long long)config.max_connections; };
  auto errs = [] { return (long long)config.max_errors; };
  const char *size_warning =
      "Illegal max message size. Using default: 20971520\n";
  const std::vector<BoundCase> cases = {
      {"size below", "max_msg_size=49999", msg, 20971520, size_warning},
      {"size above", "max_msg_size=1073741825", msg, 20971520, size_warning},
      {"size lowest", "max_msg_size=50000", msg, 50000, ""},
      {"size highest", "max_msg_size=1073741824", msg, 1073741824, ""},
      {"port zero", "listen_port=0", port, 8082,
       "Illegal listen_port. Using 8082\n"},
      {"port above", "listen_port=67108864", port, 8082,
       "Illegal listen_port. Using 8082\n"},
      {"port", "listen_port=2525", port, 2525, ""},
      {"port truncated", "listen_port=65561", port, 25, ""},
      {"idle 29", "idle_timeout=29", idle, 300,
       "Illegal idle_timeout. Using 300\n"},
      {"idle 1", "idle_timeout=1", idle, 300,
       "Illegal idle_timeout. Using 300\n"},
      {"idle 30", "idle_timeout=30", idle, 30, ""},
      {"idle 0", "idle_timeout=0", idle, 0, ""},
      {"idle negative", "idle_timeout=-5", idle, -5, ""},
      {"scan 10", "scanner_timeout=10", scan, 300,
       "Illegal scanner_timeout. Using 300\n"},
      {"scan 0", "scanner_timeout=0", scan, 0, ""},
      {"rcpt 4", "max_rcpt=4", rcpt, 200, "max_rcpt too small. Using 200\n"},
      {"rcpt text", "max_rcpt=many", rcpt, 200,
       "max_rcpt too small. Using 200\n"},
      {"rcpt 5", "max_rcpt=5", rcpt, 5, ""},
      {"conns 4", "max_connections=4", conns, 2500,
       "Bad max connections. Using 2500\n"},
      {"conns 3001", "max_connections=3001", conns, 2500,
       "Bad max connections. Using 2500\n"},
      {"conns 5", "max_connections=5", conns, 5, ""},
      {"conns 3000", "max_connections=3000", conns, 3000, ""},
      {"errors 4", "max_errors=4", errs, 5, "Bad max_errors. Using 5\n"},
      {"errors 9", "max_errors=9", errs, 9, ""},
  };
  for (const BoundCase &c : cases) {
    config_reset();
    std::string log = read_proxy(std::string(c.line) + "\n");
    EXPECT_EQ(c.field(), c.expected) << c.label;
    if (*c.warning != '\0') {
      EXPECT_NE(log.find(c.warning), std::string::npos)
          << c.label << ": " << log;
    } else {
      EXPECT_EQ(log.find("Illegal"), std::string::npos)
          << c.label << ": " << log;
      EXPECT_EQ(log.find("Bad "), std::string::npos) << c.label << ": " << log;
    }
  }
}

TEST_F(ConfigTest, MaxConnectionsWarningIsLevelZero) {
  dlog_set_level(0, 0);
  std::string log = read_proxy("max_connections=3001\nmax_rcpt=1\n");
  EXPECT_NE(log.find("Bad max connections. Using 2500\n"), std::string::npos)
      << log;
  EXPECT_EQ(log.find("max_rcpt too small"), std::string::npos) << log;
}

TEST_F(ConfigTest, ListenAddrIsStoredInHostOrderOrRefused) {
  read_proxy("listen_addr=192.0.2.1\n");
  EXPECT_EQ(config.listen_addr, 0xC0000201u);
  config_reset();
  std::string log = read_proxy("listen_addr=mail.example\n");
  EXPECT_EQ(config.listen_addr, 0u);
  EXPECT_NE(log.find("Illegal listen_addr. Using INADDR_ANY.\n"),
            std::string::npos)
      << log;
}

TEST_F(ConfigTest, UnknownUserAndGroupKeepTheDefaults) {
  std::string log = read_proxy("user=no-such-user-x\ngroup=no-such-group-x\n");
  EXPECT_STREQ(config.user, "vigild");
  EXPECT_STREQ(config.group, "oxb");
  EXPECT_NE(log.find("Bad user: "), std::string::npos) << log;
  EXPECT_NE(log.find(". Using vigild\n"), std::string::npos) << log;
  EXPECT_NE(log.find(". Using oxb\n"), std::string::npos) << log;
  config_reset();
  read_proxy("user=root\ngroup=root\n");
  EXPECT_STREQ(config.user, "root");
  EXPECT_STREQ(config.group, "root");
}

TEST_F(ConfigTest, ProxyFileWinsOverCommonFile) {
  std::string common = write_file(
      "common.conf", "[scannerd]\nscan_dir=/srv/scan/\nspam_tag=[SPAM]\n"
                     "scanner_addr=/run/scan.sock\n[vigild]\ngreeting=Common\n"
                     "max_rcpt=50\n");
  std::string proxy = write_file(
      "vigild.conf", "[vigild]\ngreeting=Proxy\nscan_dir=/ignored\n");
  read_config(common.c_str(), proxy.c_str());
  EXPECT_STREQ(config.greeting, "Proxy");
  EXPECT_EQ(config.max_rcpt, 50);
  EXPECT_STREQ(config.scan_dir, "/srv/scan");
  EXPECT_STREQ(config.spam_tag, "[SPAM]");
  EXPECT_EQ(config.spam_plus_tag, nullptr);
  EXPECT_STREQ(config.scanner_addr, "/run/scan.sock");
}

TEST_F(ConfigTest, UnreadableCommonFileStillAppliesProxyFile) {
  std::string proxy =
      write_file("vigild.conf", "[vigild]\nmy_domain=mx.example\n");
  read_config(missing("gone.conf").c_str(), proxy.c_str());
  EXPECT_STREQ(config.my_domain, "mx.example");
}

TEST_F(ConfigTest, ScanDirLosesOnlyOneTrailingSlash) {
  std::string common =
      write_file("common.conf", "[scannerd]\nscan_dir=/var/scan//\n");
  read_config(common.c_str(), missing("none").c_str());
  EXPECT_STREQ(config.scan_dir, "/var/scan/");
}

TEST_F(ConfigTest, Layer2IgnoresAddressTransparentKey) {
  layer2_mode = true;
  std::string log = read_proxy("address_transparent=0\n");
  EXPECT_TRUE(config.address_transparent);
  EXPECT_NE(log.find("Running proxy in address_transparent mode in Layer2\n"),
            std::string::npos);
}

TEST_F(ConfigTest, AddressTransparentIsLoggedAsCharacterValue) {
  std::string log = read_proxy("address_transparent=0\n");
  EXPECT_FALSE(config.address_transparent);
  EXPECT_NE(log.find(std::string("address_transparent \0\n", 22)),
            std::string::npos);
}

TEST_F(ConfigTest, RelayControlOffOpensNoListAndForcesPassthrough) {
  std::string body = "relay_control=0\npassthrough_auth=0\nlocal_domain_file=" +
                     missing("domains") + "\n";
  read_proxy(body);
  EXPECT_TRUE(config.passthrough_auth);
  EXPECT_TRUE(local_domains.empty());
}

TEST_F(ConfigTest, RelayControlOnLoadsAllThreeLists) {
  std::string domains = write_file("domains", "example.com\n");
  std::string relays = write_file("relays", "10.0.0.0/8\n");
  std::string auth = write_file("auth", "alice:hash\n");
  read_proxy(
      "relay_control=1\npassthrough_auth=0\nlocal_domain_file=" + domains +
      "\nrelay_ips_file=" + relays + "\nauth_file=" + auth + "\n");
  EXPECT_FALSE(config.passthrough_auth);
  EXPECT_EQ(local_domains.size(), 1u);
  EXPECT_EQ(relay_ips.size(), 1u);
  EXPECT_EQ(passwd_entries.size(), 1u);
}

TEST_F(ConfigTest, RepliesUseConfiguredDomainNotLaterHostName) {
  read_proxy("my_domain=mx.example\ngreeting=Hi "
             "there\nsupport_8bitmime=0\nmax_msg_size=50000\n");
  config_set_string(&config.my_domain, "host.local");
  EXPECT_STREQ(config.greeting_line, "220 mx.example Hi there\r\n");
  EXPECT_STREQ(config.helo_response, "250 mx.example Hi there\r\n");
  EXPECT_STREQ(config.ehlo_response,
               "250-mx.example Hi there\r\n250-VRFY\r\n250-SIZE "
               "50000\r\n250-AUTH LOGIN\r\n"
               "250 OK\r\n");
}

TEST_F(ConfigTest, UncheckedKeysAreTakenAsWritten) {
  read_proxy("as_connections=-3\nmax_spam_scan_size=99999999999\nnoop_interval="
             "7\nuse_scanner=0\n"
             "spam_bypass=yes\nvscan_fail_block=2\nallow_null_sender=0\nmailer_"
             "temp_dir=/t\n"
             "support_8bitmime=0\nscan_prefix=p_\n");
  EXPECT_EQ(config.as_connections, -3);
  EXPECT_EQ(config.max_spam_scan_size, 99999999999LL);
  EXPECT_EQ(config.noop_interval, 7);
  EXPECT_FALSE(config.use_scanner);
  EXPECT_FALSE(config.spam_bypass); // not a number: 0
  EXPECT_TRUE(config.vscan_fail_block);
  EXPECT_FALSE(config.allow_null_sender);
  EXPECT_STREQ(config.mailer_temp_dir, "/t");
  EXPECT_FALSE(config.support_8bitmime);
  EXPECT_STREQ(config.scan_prefix, "p_");
}

TEST_F(ConfigTest, DebugKeySetsLogLevels) {
  read_proxy("debug=69,509,12\n");
  EXPECT_EQ(dlog_get_level(6), 9u);
  EXPECT_EQ(dlog_get_level(50), 9u);
  EXPECT_EQ(dlog_get_level(1), 2u);
}

TEST(PrefixMask, LengthsAreClamped) {
  const std::vector<std::pair<int, uint32_t>> cases = {
      {0, 0},
      {1, 0x80000000u},
      {8, 0xFF000000u},
      {24, 0xFFFFFF00u},
      {32, 0xFFFFFFFFu},
      {-1, 0},
      {40, 0xFFFFFFFFu},
  };
  for (auto [len, mask] : cases)
    EXPECT_EQ(prefix_mask(len), mask) << len;
}

// ---- list files ----

TEST_F(ConfigTest, LocalDomainsAreTrimmedAndLongLinesSplit) {
  std::string long_line(150, 'd');
  std::string path = write_file(
      "domains", "  example.com \t\n\n   \nExample.org\n" + long_line + "\n");
  config_set_string(&config.local_domain_file, path.c_str());
  LogCapture log;
  load_local_domains();
  std::string text = log.text();
  ASSERT_EQ(local_domains.size(), 4u);
  EXPECT_STREQ(local_domains[0]->data, "example.com");
  EXPECT_STREQ(local_domains[1]->data, "Example.org");
  EXPECT_EQ(std::string(local_domains[2]->data), std::string(99, 'd'));
  EXPECT_EQ(std::string(local_domains[3]->data), std::string(51, 'd'));
  EXPECT_NE(text.find("Added example.com as local domain 0\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("Added Example.org as local domain 1\n"),
            std::string::npos)
      << text;
}

TEST_F(ConfigTest, LoadingDomainsAgainReplacesTheList) {
  config_set_string(&config.local_domain_file,
                    write_file("d", "a.example\nb.example\n").c_str());
  load_local_domains();
  config_set_string(&config.local_domain_file,
                    write_file("e", "c.example\n").c_str());
  load_local_domains();
  ASSERT_EQ(local_domains.size(), 1u);
  EXPECT_STREQ(local_domains[0]->data, "c.example");
}

TEST_F(ConfigTest, MissingLocalDomainFileIsFatal) {
  config_set_string(&config.local_domain_file, missing("domains").c_str());
  config_set_string(&config.scan_dir, dir_.c_str());
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
  config_set_string(
      &config.relay_ips_file,
      write_file("relays",
                 "10.0.0.0/8\n10.1.2.3/24\n192.168.1.0/ 24\n\nno-slash\n"
                 "bad.addr/8\n10.0.0.0/3\n10.0.0.0/33\n1.2.3.4/32")
          .c_str());
  LogCapture log;
  load_relay_ips();
  std::string text = log.text();
  struct Want {
    uint32_t addr, mask;
  };
  const std::vector<Want> want = {{0x0A000000u, 0xFF000000u},
                                  {0x0A010203u, 0xFFFFFF00u},
                                  {0xC0A80100u, 0xFFFFFF00u},
                                  {0x01020304u, 0xFFFFFFFFu}};
  ASSERT_EQ(relay_ips.size(), want.size());
  for (size_t i = 0; i < want.size(); i++) {
    EXPECT_EQ(relay_ips[i].addr, want[i].addr) << i;
    EXPECT_EQ(relay_ips[i].mask, want[i].mask) << i;
  }
  EXPECT_NE(text.find("Adding addr a010203 10.1.2.3 mask ffffff00 index 1\n"),
            std::string::npos)
      << text;
  // The unmasked address still matches the whole network.
  auto matches = [](const RelayIp &r, uint32_t ip) {
    return (ip & r.mask) == (r.addr & r.mask);
  };
  EXPECT_TRUE(matches(relay_ips[1], 0x0A0102FEu));
  EXPECT_FALSE(matches(relay_ips[1], 0x0A010302u));
  EXPECT_TRUE(matches(relay_ips[2], 0xC0A8014Du));
  EXPECT_FALSE(matches(relay_ips[2], 0xC0A80201u));
}

TEST_F(ConfigTest, MissingRelayFileKeepsTheList) {
  config_set_string(&config.relay_ips_file,
                    write_file("r", "10.0.0.0/8\n").c_str());
  load_relay_ips();
  config_set_string(&config.relay_ips_file, missing("relays").c_str());
  LogCapture log;
  load_relay_ips();
  EXPECT_EQ(relay_ips.size(), 1u);
  EXPECT_NE(log.text().find("Can't read relay ip file " + missing("relays") +
                            ": No such file or directory\n"),
            std::string::npos);
}

// Runs body in a child with a private /dev holding our own /dev/log, and
// returns what reached it through syslog. Skips without mount privileges.
std::string syslog_of(const std::function<void()> &body) {
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0)
    return "pipe failed";
  pid_t pid = fork();
  if (pid == 0) {
    close(pipe_fds[0]);
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
        mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0)
      _exit(77);
    int sock = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    if (bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
      _exit(78);
    closelog();
    dlog_set_mode("config_test", 0);
    body();
    char buf[2048];
    for (int i = 0; i < 100; i++) {
      ssize_t n = recv(sock, buf, sizeof buf, MSG_DONTWAIT);
      if (n <= 0)
        break;
      if (write(pipe_fds[1], buf, n) != n || write(pipe_fds[1], "|", 1) != 1)
        _exit(79);
    }
    _exit(0);
  }
  close(pipe_fds[1]);
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = read(pipe_fds[0], buf, sizeof buf)) > 0;)
    out.append(buf, n);
  close(pipe_fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77)
    return "skip";
  return out;
}

TEST_F(ConfigTest, BadRelayLinesRaiseSystemErrorEvents) {
  config_set_string(
      &config.relay_ips_file,
      write_file("relays", "\nbad.addr/8\n10.0.0.0/3\n10.0.0.0/8\n").c_str());
  std::string events = syslog_of([] { load_relay_ips(); });
  if (events == "skip")
    GTEST_SKIP() << "no mount namespace";
  const char *want[] = {
      "pri=3 issueid=1000002 name=System_Error msg=\"Bad line in relay ips "
      "file: \n\"|",
      "pri=3 issueid=1000002 name=System_Error msg=\"Invalid inet address: "
      "bad.addr/8\n\"|",
      "pri=3 issueid=1000002 name=System_Error msg=\"Invalid relay IP mask: "
      "10.0.0.0/3\n\"|",
  };
  size_t pos = 0;
  for (const char *w : want) {
    size_t at = events.find(w, pos);
    EXPECT_NE(at, std::string::npos) << w << "\nin: " << events;
    if (at != std::string::npos)
      pos = at;
  }
  EXPECT_NE(events.find("id=Antivirus time=\""), std::string::npos) << events;
  EXPECT_EQ(events.find("10.0.0.0/8"), std::string::npos) << events;
}

TEST_F(ConfigTest, PasswordLinesAreSplitAtColons) {
  config_set_string(
      &config.auth_file,
      write_file("auth",
                 "  alice:$1$salt$0123456789abcdefghijkl:extra  \n\nbob\n::\n"
                 "carol::pw\n")
          .c_str());
  LogCapture log;
  load_auth_file();
  std::string text = log.text();
  ASSERT_EQ(passwd_entries.size(), 2u);
  EXPECT_EQ(passwd_entries[0].user, "alice");
  EXPECT_EQ(passwd_entries[0].password, "$1$salt$0123456789abcdefghijkl");
  EXPECT_EQ(passwd_entries[1].user, "carol");
  EXPECT_EQ(passwd_entries[1].password, "pw");
  EXPECT_NE(text.find("user=bob, password=(null)Error with password file. "
                      "Skipping line.\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("user=(null), password=(null)Error with password file."),
            std::string::npos);
}

TEST_F(ConfigTest, PasswordTableStopsAfterTenThousandAndTwenty) {
  std::string body;
  for (int i = 0; i < 20000; i++)
    body += "u" + std::to_string(i) + ":h\n";
  config_set_string(&config.auth_file, write_file("auth", body).c_str());
  dlog_set_level(0, 3);
  LogCapture log;
  load_auth_file();
  std::string text = log.text();
  EXPECT_EQ(passwd_entries.size(), 10020u);
  EXPECT_EQ(passwd_entries.back().user, "u10019");
  size_t first = text.find("Too many entries in password file.\n");
  ASSERT_NE(first, std::string::npos);
  EXPECT_EQ(text.find("Too many entries", first + 1), std::string::npos);
}

TEST_F(ConfigTest, MissingAuthFileKeepsTheTable) {
  config_set_string(&config.auth_file, write_file("auth", "a:b\n").c_str());
  load_auth_file();
  config_set_string(&config.auth_file, missing("auth2").c_str());
  LogCapture log;
  load_auth_file();
  EXPECT_EQ(passwd_entries.size(), 1u);
  EXPECT_NE(log.text().find("Error opening auth file: " + missing("auth2") +
                            ": No such file or directory\n"),
            std::string::npos);
}

} // namespace
