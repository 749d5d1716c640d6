// What clamd, spamd and rspamd answer, garbage included, as verdicts.
#include <gtest/gtest.h>

#include <string>

#include "scan/clamd.h"
#include "scan/rspamd.h"
#include "scan/scanconn.h"
#include "scan/spamd.h"

namespace {

struct Case {
  const char* label;
  std::string reply;
  int verdict;
};

TEST(ScannerReplies, ClamdLinesMapOntoVerdictBits) {
  const Case cases[] = {
      {"clean", std::string("stream: OK\0", 11), 0},
      {"found", "stream: Win.Test.EICAR_HDB-1 FOUND", CLAMD_FOUND},
      {"encrypted", "stream: Heuristics.Encrypted.Zip FOUND\n", CLAMD_ENCRYPTED},
      {"over the limit", "INSTREAM size limit exceeded. ERROR", CLAMD_ERROR},
      {"error", "stream: Can't allocate memory ERROR", CLAMD_ERROR},
      {"no name", "stream:  FOUND", -1},
      {"no stream", "OK", -1},
      {"spaces in name", "stream: a b FOUND", -1},
      {"empty", "", -1},
      {"binary", std::string("\xff\0stream: OK", 12), -1},
  };
  for (const Case& c : cases) EXPECT_EQ(clamd_verdict(c.reply), c.verdict) << c.label;
}

TEST(ScannerReplies, SpamdScoreAgainstTheRejectScore) {
  const std::string ok = "SPAMD/1.1 0 EX_OK\r\n";
  const Case cases[] = {
      {"over", ok + "Content-length: 5\r\nSpam: True ; 15.0 / 5.0\r\n\r\n", 3},
      {"at", ok + "spam: True ; 10 / 5.0\r\n\r\n", 3},
      {"below", ok + "Spam: True ; 9.9 / 5.0\r\n\r\n", 1},
      {"ham", ok + "Spam: False ; 4.2 / 5.0\r\n\r\n", 0},
      {"error code", "SPAMD/1.0 76 Bad header line\r\n\r\n", -1},
      {"no header", ok + "\r\n", -1},
      {"after the headers", ok + "\r\nSpam: True ; 15.0 / 5.0\r\n", -1},
      {"bad score", ok + "Spam: True ; lots / 5.0\r\n\r\n", -1},
      {"bad word", ok + "Spam: Maybe ; 1.0 / 5.0\r\n\r\n", -1},
      {"no slash", ok + "Spam: True ; 1.0\r\n\r\n", -1},
      {"garbage", "\x01\x02 SPAM", -1},
  };
  for (const Case& c : cases) EXPECT_EQ(spamd_verdict(c.reply, 10.0), c.verdict) << c.label;
}

TEST(ScannerReplies, RspamdActionOfTheOuterObject) {
  const std::string ok = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n";
  const Case cases[] = {
      {"reject", ok + R"({"score":15.0,"action":"reject"})", 3},
      {"rewrite", ok + R"({"action" : "rewrite subject","score":7})", 1},
      {"add header",
       ok + R"( {"symbols":{"X":{"action":"reject","o":["}",1]}},)"
            R"("m":"a\"b","action":"add header"})",
       1},
      {"no action", ok + R"({"action":"no action"})", 0},
      {"soft reject", ok + R"({"action":"soft reject"})", 0},
      {"only nested", ok + R"({"symbols":{"action":"reject"}})", -1},
      {"number", ok + R"({"action":3})", -1},
      {"cut", ok + R"({"score":1,"act)", -1},
      {"not 200", "HTTP/1.1 500 Internal\r\n\r\n{\"action\":\"reject\"}", -1},
      {"short", "HTTP/1.1", -1},
      {"no json", ok + "pong", -1},
  };
  for (const Case& c : cases) EXPECT_EQ(rspamd_verdict(c.reply), c.verdict) << c.label;
}

TEST(ScannerReplies, RspamdHeadCarriesASafeEnvelope) {
  const char* rcpts[] = {"a@x.test", "b@x.test\r\nX-Evil: 1"};
  SpamEnvelope e{"127.0.1.10", nullptr, "", rcpts, 2, "vigild_Ab12Cd"};
  EXPECT_EQ(rspamd_head(e, 42),
            "POST /checkv2 HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n"
            "Content-Length: 42\r\nIP: 127.0.1.10\r\nRcpt: a@x.test\r\n"
            "Rcpt: b@x.test??X-Evil:?1\r\nQueue-Id: vigild_Ab12Cd\r\n\r\n");
}

TEST(ScannerReplies, ServiceAddresses) {
  ScanAddr a;
  EXPECT_TRUE(scan_addr_parse("/run/clamav/clamd.ctl", &a));
  EXPECT_TRUE(scan_addr_parse("127.0.0.1:783", &a));
  EXPECT_TRUE(scan_addr_parse("localhost:11333", &a));
  for (const char* bad :
       {"", "127.0.0.1", "127.0.0.1:0", "127.0.0.1:99999", "host.test:783", "127.0.0.1:78x"})
    EXPECT_FALSE(scan_addr_parse(bad, &a)) << bad;
}

}  // namespace
