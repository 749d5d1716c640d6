#include "scan/vscan.h"

#include <arpa/inet.h>

#include <regex>

#include "scan_test_support.h"

namespace {

using namespace foundation_test;
using scan_test::V;
using Job = scan_test::Job<VscanRequest>;

class VscanTest : public scan_test::ClientTest<VscanRequest, vscan_cancel, vs_shutdown> {
 protected:
  static void on_verdict(int result, void* job) { done(static_cast<Job*>(job), result); }
  VscanRequest* scan(int i, int vst, const char* id, bool bypass = false) {
    Job& j = jobs_[i];
    j.req = virus_scan(("/scan/f" + std::to_string(i)).c_str(), inet_addr("10.1.2.3"),
                       inet_addr("10.9.0.1"), id, vst, on_verdict, &j, bypass);
    return j.req;
  }
  void start() {
    fake_.listen();
    vs_init(fake_.path(), 1);
    ASSERT_TRUE(fake_.run_until([&] { return fake_.lines(0) == 1; }));  // the hello
    fake_.send(0, "0 0\n");
  }
};

TEST_F(VscanTest, RequestLinesNumbersAndRepliesMatchedByNumberInAnyOrder) {
  vs_set_next_num(0xFFFFFFFF);  // the next one after it is 1: 0 is the hello's
  start();
  ASSERT_NE(scan(0, 1, nullptr), nullptr);
  ASSERT_NE(scan(1, 3, "m1"), nullptr);
  ASSERT_NE(scan(2, 7, "m2"), nullptr);
  ASSERT_TRUE(fake_.run_until([&] { return fake_.lines(0) == 4; }));
  EXPECT_EQ(fake_.received(0), std::string("0\tPROXY\tsmtp\n") +
                                   "-1\tmscan\t/scan/f0\t10.1.2.3\t10.9.0.1\tunknown\n"
                                   "1\tcscan\t/scan/f1\t10.1.2.3\t10.9.0.1\tm1\n"
                                   "2\tfscan\t/scan/f2\t10.1.2.3\t10.9.0.1\tm2\n");
  const std::string ptr = "(0x[0-9a-f]+|\\(nil\\))";  // a %p value
  EXPECT_TRUE(std::regex_match(
      written(vs_dump),
      std::regex("vscan dump:\nconnection_state 2 scanner_fd \\d+ scanner_addr: " +
                 std::string(fake_.path()) + "\nconnect_handle \\(nil\\) vs_head " + ptr +
                 " vs_tail " + ptr + " line " + ptr + " stream " + ptr +
                 "\nPending vscan requests: \n"  // newest first
                 "filename /scan/f2 id m2 from 10.1.2.3\nto 10.9.0.1 vst 7 num 2\n"
                 "filename /scan/f1 id m1 from 10.1.2.3\nto 10.9.0.1 vst 3 num 1\n"
                 "filename /scan/f0 id unknown from 10.1.2.3\nto 10.9.0.1 vst 1 num -1\n")));

  // Any order, C integer syntax, an optional name; a cancelled request's
  // reply finds nothing and changes nothing.
  vscan_cancel(jobs_[1].req);
  jobs_[1].req = nullptr;
  fake_.send(0, "2 010\n1 0x10\n-1 0x2 Eicar-Test-Signature\n");
  EXPECT_EQ(result_of(0), V{2});
  EXPECT_EQ(result_of(2), V{8});
  EXPECT_EQ(jobs_[1].results, V{});
}

// Waits for the client's 5-second reconnect timer.
TEST_F(VscanTest, RestartResendsPendingOldestFirstAndBypassAnswersWhileDown) {
  start();
  for (int i = 0; i < 3; i++) ASSERT_NE(scan(i, 1, nullptr), nullptr);
  ASSERT_TRUE(fake_.run_until([&] { return fake_.lines(0) == 4; }));
  fake_.stop();
  ASSERT_TRUE(fake_.run_until([] { return contains(written(vs_dump), "connection_state 1 "); }));
  EXPECT_EQ(scan(3, 1, nullptr, true), nullptr);
  EXPECT_EQ(jobs_[3].results, V{0});
  fake_.listen();
  ASSERT_TRUE(fake_.run_until([&] { return fake_.lines(1) == 4; }));
  EXPECT_EQ(fake_.received(1), fake_.received(0)) << "hello, then the same requests in order";
  fake_.send(1, "0 0\n3 0\n1 4\n2 0x8 X\n");
  const std::array<V, 3> want = {V{4}, V{8}, V{0}};
  for (int i = 0; i < 3; i++) EXPECT_EQ(result_of(i), want[i]) << "request " << i;
}

// A scanner that breaks the protocol costs its connection, never the process
// nor a verdict: the client reconnects after its pause (5 seconds a case) and
// sends the queue again. An id cannot add a line or a field to a request.
TEST_F(VscanTest, FaultyScannerIsDroppedAndTheQueueResentOnTheNextConnection) {
  fake_.listen();
  vs_init(fake_.path(), 1);
  ASSERT_NE(scan(0, 1, "<a b\r\n9\tmscan\x7f>"), nullptr);  // number 1
  const std::string faults[] = {"0 7\n", "0 0\n99 0\n", "0 0\n1\n",
                                "0 0\n1 0" + std::string(5000, ' ') + "X\n"};
  for (size_t c = 0; c < std::size(faults); c++) {
    SCOPED_TRACE(c);
    ASSERT_TRUE(fake_.run_until([&] { return fake_.lines(c) == 2; }));  // hello and request
    fake_.send(c, faults[c]);
    ASSERT_TRUE(fake_.run_until([&] { return fake_.peers() == c + 2; }));
    EXPECT_FALSE(answered(0));
  }
  ASSERT_TRUE(fake_.run_until([&] { return fake_.lines(4) == 2; }));
  EXPECT_EQ(fake_.received(4),
            "0\tPROXY\tsmtp\n1\tmscan\t/scan/f0\t10.1.2.3\t10.9.0.1\t<a?b??9?mscan?>\n");
  fake_.send(4, "0 0\n1 0x8\n");
  EXPECT_EQ(result_of(0), V{8});
}

}  // namespace
