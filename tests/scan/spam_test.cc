#include "scan/spam.h"

#include "scan_test_support.h"

namespace {

using scan_test::V;
using Job = scan_test::Job<AsRequest>;

class SpamTest : public scan_test::ClientTest<AsRequest, spam_cancel, spam_shutdown> {
 protected:
  static void on_result(void* job, int result) { done(static_cast<Job*>(job), result); }
  // Scan files end in a 6-character unique part, the reply key.
  static std::string file(int i) { return "/var/av/scan/vigild_Key00" + std::to_string(i); }
  static std::string key(int i) { return "Key00" + std::to_string(i); }
  static std::string line(int i) { return file(i) + " mid 51200 s@x.test\n"; }
  AsRequest* scan(int i, bool bypass, const char* sender = "s@x.test", const char* id = "mid") {
    Job& j = jobs_[i];
    j.req = spam_scan(on_result, &j, file(i).c_str(), id, sender, 51200, bypass);
    return j.req;
  }
  void reply(int i, const std::string& text) {
    ASSERT_TRUE(fake_.run_until([&] { return fake_.peer_with(file(i) + " ") >= 0; })) << i;
    fake_.send(fake_.peer_with(file(i) + " "), text);
  }
  void start(size_t pool) {
    fake_.listen();
    spam_init(fake_.path(), static_cast<int>(pool));
    ASSERT_TRUE(fake_.run_until([&] { return fake_.peers() == pool; }));
  }
};

TEST_F(SpamTest, PoolOfThreeAnswersByKeyQueuesNewestFirstOrBypasses) {
  start(3);
  for (int i = 0; i < 3; i++) ASSERT_NE(scan(i, false, i == 0 ? "" : "s@x.test"), nullptr);
  ASSERT_TRUE(fake_.run_until([&] { return fake_.peer_with(line(2)) >= 0; }));
  EXPECT_GE(fake_.peer_with(file(0) + " mid 51200\n"), 0) << "no sender: three fields";
  EXPECT_NE(scan(3, false), nullptr) << "all busy: waits";
  EXPECT_EQ(scan(4, true), nullptr) << "bypass: passes at once";
  EXPECT_EQ(jobs_[4].results, V{0});
  EXPECT_NE(scan(5, false), nullptr);
  EXPECT_FALSE(answered(3) || answered(5));

  reply(0, "7 " + key(0) + "\n");
  ASSERT_TRUE(fake_.run_until([&] { return answered(0) && fake_.peer_with(line(5)) >= 0; }));
  EXPECT_EQ(fake_.peer_with(line(5)), fake_.peer_with(file(0) + " ")) << "newest pending first";
  reply(5, "15 " + key(5) + " trailing words\n");
  reply(1, "11 " + key(1) + "\n");
  reply(2, "12 " + key(2) + "\n");
  reply(3, "13 " + key(3) + "\n");
  const std::array<V, 6> want = {V{7}, V{11}, V{12}, V{13}, V{0}, V{15}};
  for (int i = 0; i < 6; i++) EXPECT_EQ(result_of(i), want[i]) << "request " << i;
}

TEST_F(SpamTest, ReplyOfBadLengthFailsEveryRequestWithZeroAndReconnectsAtOnce) {
  start(1);
  const std::string bad[] = {"5", std::string(300, '1')};
  for (int c = 0; c < 2; c++) {
    SCOPED_TRACE(bad[c].size());
    int a = 2 * c, b = a + 1;
    ASSERT_NE(scan(a, false), nullptr);
    ASSERT_NE(scan(b, false), nullptr);  // waits behind a
    reply(a, bad[c] + "\n");
    ASSERT_TRUE(fake_.run_until([&] { return fake_.peers() == static_cast<size_t>(c) + 2; }));
    EXPECT_EQ(result_of(a), V{0});
    EXPECT_EQ(result_of(b), V{0});
  }
}

// A reply that breaks the protocol costs its connection, however it arrives:
// the request passes with 0 and the next one is answered on a new connection.
// A late reply to a request its caller gave up on is no such fault.
TEST_F(SpamTest, FaultyReplyDropsTheConnectionALateOneDoesNot) {
  start(1);
  const std::string cut = "7 " + key(1) + std::string(248, ' ');  // 256 bytes, then more
  const std::string faults[][2] = {{std::string(65536, '7'), ""},
                                   {cut, "...\n"},
                                   {"x " + key(2) + "\n", ""},
                                   {"7 zzzzzz\n", ""}};
  for (int c = 0; c < 4; c++) {
    SCOPED_TRACE(c);
    ASSERT_NE(scan(c, false), nullptr);
    reply(c, faults[c][0]);
    if (!faults[c][1].empty()) {  // once the client has read the first part
      fake_.run_until([n = 0]() mutable { return ++n == 3; });
      reply(c, faults[c][1]);
    }
    EXPECT_EQ(result_of(c), V{0});
    ASSERT_TRUE(fake_.run_until([&] { return fake_.peers() == static_cast<size_t>(c) + 2; }));
  }
  ASSERT_NE(scan(4, false), nullptr);
  ASSERT_TRUE(fake_.run_until([&] { return fake_.peer_with(line(4)) == 4; }));
  spam_cancel(jobs_[4].req);  // its caller's time-out
  jobs_[4].req = nullptr;
  ASSERT_NE(scan(5, false, "a b@x\r\n", "<m i\r\nd\x7f>"), nullptr);
  reply(5, "5 " + key(4) + "\n6 " + key(5) + "\n");
  EXPECT_EQ(result_of(5), V{6});
  EXPECT_EQ(fake_.received(4), line(4) + file(5) + " <m?i??d?> 51200 a?b@x??\n");
  EXPECT_EQ(fake_.peers(), 5u);
}

}  // namespace
