#include "scan/dsn.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <filesystem>

#include "foundation/text.h"
#include "smtp/config.h"
#include "tests/foundation/test_util.h"

namespace {

using foundation_test::logged;
using Names = std::vector<std::string>;

const std::string kNode = [] {
  utsname host;
  return uname(&host) == 0 ? std::string(host.nodename) : "";
}();

// s@example.org's message (scan bytes), with fresh spool directories.
struct Spool {
  foundation_test::TempDir temp, local, work;
  Connection conn{};
  explicit Spool(const std::string& scan) {
    config_set_string(&config.mailer_temp_dir, temp.path().c_str());
    config_set_string(&config.mailer_local_dir, local.path().c_str());
    conn.from = dstr_from_cstr("s@example.org");
    conn.scan_file_name = dstr_from_cstr(work.write("scan", scan).c_str());
    conn.scan_file = fopen(conn.scan_file_name->data, "r");
  }
  ~Spool() {
    reset_transaction(&conn);
    config_reset();
  }
  // The one file in the local spool; "" when there is none.
  std::string delivered() {
    std::filesystem::directory_iterator it(local.path());
    return it == decltype(it)() ? "" : it->path().filename().string();
  }
};

std::string name_for(int seq) {
  char n[8];
  snprintf(n, sizeof n, "-%.3d.", seq);
  return std::to_string(comm_current_time()) + n + std::to_string(getpid()) + "." + kNode;
}

// The notification in file name for the recipients listed, with the message part.
std::string expected(const std::string& name, const Names& listed, const std::string* message) {
  time_t now = comm_current_time();
  char date[64];  // the mail-header date, in the C locale the tests run in
  strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S %z", localtime(&now));
  std::string list, status, b = std::to_string(now) + "." + std::to_string(getpid()) + "/" + kNode;
  for (const std::string& r : listed) {
    list += " " + r + "\r\n";
    status += "Final-Recipient: rfc822;" + r + "\r\nAction: failed\r\nStatus: 5.1.0\r\n\r\n";
  }
  char* head = nullptr;
  xasprintf(&head,
            "MAIL FROM: <>\r\nRCPT TO: <s@example.org>\r\n\r\nMessage-ID: <%s>\r\nFrom: Mail "
            "Delivery Subsystem <MAILER-DAEMON@local.domain>\r\nSubject: Returned mail: see "
            "transcript for details\r\nTo: s@example.org\r\nDate: %s\r\nMIME-Version: "
            "1.0\r\nContent-Type: multipart/report; report-type=delivery-status;\r\n        "
            "boundary=\"%s\"\r\n\r\n--%s\r\nContent-Type: text/plain; charset=us-ascii\r\n\r\nThe "
            "following address(es) had delivery problems:\r\n",
            name.c_str(), date, b.c_str(), b.c_str());
  std::string s = head + list + "\r\n--" + b + "\r\nContent-Type: message/delivery-status\r\n\r\n" +
                  "Reporting-MTA: dns; local.domain\r\n\r\n" + status;
  if (message) s += "--" + b + "\r\nContent-Type: message/rfc822\r\n\r\n" + *message;
  free(head);
  return s + "\r\n--" + b + "--\r\n\r\n";
}

TEST(SendDsn, RefusedNewestFirstAndMessageOnlyBelowTheLimit) {
  const std::string msg = "Subject: t\r\n\r\n..x\r\n.\r\n", mega = '\0' + std::string(1 << 20, 'm');
  const std::tuple<const char*, std::string, Names, int, const char*> cases[] = {
      // label, scan file, refused in order, max_msg_size - scan size, log
      {"one refused", msg, {"a@x"}, 1, ""},
      {"two refused", msg, {"a@x", "b@x"}, 1, ""},
      {"message of exactly max_msg_size", msg, {"a@x"}, 0, ""},
      {"empty scan file", "", {"a@x"}, 1, "Error mmap()ing file: "},
      {"NULs and a 1 MB line", mega, {"a@x"}, 1, ""},
  };
  for (const auto& [label, scan, refused, over, log] : cases) {
    Spool spool(scan);
    for (const std::string& r : refused) add_failed_rcpt(&spool.conn, dstr_from_cstr(r.c_str()));
    config.max_msg_size = static_cast<long long>(scan.size()) + over;
    EXPECT_TRUE(foundation_test::contains(logged([&] { send_dsn(&spool.conn); }), log)) << label;
    std::string name = spool.delivered();
    ASSERT_NE(name, "") << label;
    bool attached = over > 0 && !scan.empty();
    EXPECT_EQ(foundation_test::slurp(spool.local.file(name)),
              expected(name, Names(refused.rbegin(), refused.rend()), attached ? &scan : nullptr))
        << label;
  }
}

TEST(SendDsn, NumbersWrapAfter256AndFailuresUseNone) {
  Spool spool("m\r\n");
  add_failed_rcpt(&spool.conn, dstr_from_cstr("a@x"));
  std::string last;  // the number runs on from earlier tests
  for (int i = 0; i < 257 && last != name_for(256); i++) {
    send_dsn(&spool.conn);
    last = spool.delivered();
    unlink(spool.local.file(last).c_str());
  }
  ASSERT_EQ(last, name_for(256));
  config_set_string(&config.mailer_temp_dir, spool.work.file("none").c_str());
  EXPECT_NE(logged([&] { send_dsn(&spool.conn); }).find("send_dsn: cannot open mail file "),
            std::string::npos);
  EXPECT_EQ(spool.delivered(), "");
  config_set_string(&config.mailer_temp_dir, spool.temp.path().c_str());
  send_dsn(&spool.conn);
  EXPECT_EQ(spool.delivered(), name_for(1));
  EXPECT_TRUE(std::filesystem::is_empty(spool.temp.path()));
}

}  // namespace
