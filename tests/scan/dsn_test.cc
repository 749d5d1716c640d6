#include "scan/dsn.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <filesystem>

#include "event/comm.h"
#include "tests/foundation/test_util.h"

namespace {

using namespace foundation_test;
using namespace std::string_literals;

const std::string kNode = [] {
  utsname host;
  return uname(&host) == 0 ? std::string(host.nodename) : "";
}();

// s@example.org's message (scan bytes), with fresh spool directories.
struct Spool {
  TempDir temp, local, work;
  DsnMessage note{nullptr, "s@example.org", {}, -1};
  DsnSettings settings{"local.domain", temp.path.c_str(), local.path.c_str(), 20971520};
  explicit Spool(const std::string& scan) {
    note.message_fd = open(work.write("scan", scan).c_str(), O_RDONLY);
  }
  ~Spool() { close(note.message_fd); }
  // Refused after those already listed: the list is newest first.
  void refuse(const char* address) { note.refused.insert(note.refused.begin(), address); }
  void send() { send_dsn(note, settings); }
  // The one file in the local spool; "" when there is none.
  std::string delivered() {
    std::filesystem::directory_iterator it(local.path);
    return it == decltype(it)() ? "" : it->path().filename().string();
  }
};

std::string name_for(int seq) {
  char n[8];
  snprintf(n, sizeof n, "-%.3d.", seq);
  return std::to_string(comm_current_time()) + n + std::to_string(getpid()) + "." + kNode;
}

// The whole notification, byte for byte: the recipients are listed, and
// their status given, newest first; the message is attached as it is only
// when smaller than max_msg_size.
TEST(SendDsn, RefusedNewestFirstAndMessageOnlyBelowTheLimit) {
  const std::string msg = "Subject: t\r\n\r\n..x\r\n.\r\n", mega = '\0' + std::string(1 << 20, 'm');
  const std::tuple<const char*, std::string, std::vector<const char*>, int, const char*> cases[] = {
      // label, scan file, refused in order, max_msg_size - scan size, log
      {"one refused", msg, {"a@x"}, 1, ""},
      {"two refused, message below the limit", msg, {"a@x", "b@x"}, 1, ""},
      {"message of exactly max_msg_size", msg, {"a@x"}, 0, ""},
      {"empty scan file", "", {"a@x"}, 1, "send_dsn: empty scan file, no message part\n"},
      {"NULs and a 1 MB line", mega, {"a@x"}, 1, ""},
  };
  time_t now = comm_current_time();
  char date[64];  // the mail-header date, in the C locale the tests run in
  strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S %z", localtime(&now));
  const std::string b = std::to_string(now) + "." + std::to_string(getpid()) + "/" + kNode;
  for (const auto& [label, scan, refused, over, log] : cases) {
    Spool spool(scan);
    std::string list, status;
    for (const char* r : refused) {
      spool.refuse(r);
      list = " "s + r + "\r\n" + list;
      status =
          "Final-Recipient: rfc822;"s + r + "\r\nAction: failed\r\nStatus: 5.1.0\r\n\r\n" + status;
    }
    spool.settings.max_msg_size = static_cast<long long>(scan.size()) + over;
    EXPECT_TRUE(contains(logged([&] { spool.send(); }), log)) << label;
    std::string name = spool.delivered();
    std::string part = "--" + b + "\r\nContent-Type: message/rfc822\r\n\r\n" + scan;
    EXPECT_EQ(slurp(spool.local.file(name)),
              "MAIL FROM: <>\r\nRCPT TO: <s@example.org>\r\n\r\nMessage-ID: <" + name +
                  ">\r\nFrom: Mail Delivery Subsystem <MAILER-DAEMON@local.domain>\r\nSubject: "
                  "Returned mail: see transcript for details\r\nTo: s@example.org\r\nDate: " +
                  date +
                  "\r\nMIME-Version: 1.0\r\nContent-Type: multipart/report; "
                  "report-type=delivery-status;\r\n        boundary=\"" +
                  b + "\"\r\n\r\n--" + b +
                  "\r\nContent-Type: text/plain; charset=us-ascii\r\n\r\nThe following "
                  "address(es) had delivery problems:\r\n" +
                  list + "\r\n--" + b +
                  "\r\nContent-Type: message/delivery-status\r\n\r\nReporting-MTA: dns; "
                  "local.domain\r\n\r\n" +
                  status + (over > 0 && !scan.empty() ? part : "") + "\r\n--" + b + "--\r\n\r\n")
        << label;
  }
}

TEST(SendDsn, NumbersWrapAfter256AndFailuresUseNone) {
  Spool spool("m\r\n");
  spool.refuse("a@x");
  std::string last;  // the number runs on from earlier tests
  for (int i = 0; i < 257 && last != name_for(256); i++) {
    spool.send();
    last = spool.delivered();
    unlink(spool.local.file(last).c_str());
  }
  ASSERT_EQ(last, name_for(256));
  std::string none = spool.work.file("none");
  spool.settings.temp_dir = none.c_str();
  EXPECT_TRUE(contains(logged([&] { spool.send(); }), "send_dsn: cannot open mail file "));
  EXPECT_EQ(spool.delivered(), "");
  spool.settings.temp_dir = spool.temp.path.c_str();
  spool.send();
  EXPECT_EQ(spool.delivered(), name_for(1));
  EXPECT_TRUE(std::filesystem::is_empty(spool.temp.path));
}

}  // namespace
