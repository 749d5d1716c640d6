#include "foundation/lstream.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>

namespace {

std::string str(const DynString* b) {
  return std::string(b->data, static_cast<size_t>(b->length));
}

// A connected socket pair; the stream reads the non-blocking end `mine`, the
// test plays the peer on `peer`.
class SocketPair : public ::testing::Test {
 protected:
  void SetUp() override {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    mine = sv[0];
    peer = sv[1];
    ASSERT_EQ(fcntl(mine, F_SETFL, fcntl(mine, F_GETFL) | O_NONBLOCK), 0);
  }
  void TearDown() override {
    if (mine >= 0) close(mine);
    if (peer >= 0) close(peer);
  }
  void send_text(const std::string& s) {
    ASSERT_EQ(write(peer, s.data(), s.size()), static_cast<ssize_t>(s.size()));
  }
  void close_peer() {
    close(peer);
    peer = -1;
  }
  LstreamPtr open(int chunk) { return LstreamPtr(lstream_open(mine, read, chunk)); }

  int mine = -1;
  int peer = -1;
};

TEST_F(SocketPair, OpenSetsFieldsAndBufferOfChunkSize) {
  LstreamPtr s = open(2000);
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->fd, mine);
  EXPECT_EQ(s->chunk_size, 2000);
  ASSERT_NE(s->buffer, nullptr);
  EXPECT_EQ(s->buffer->length, 0);
  EXPECT_EQ(s->buffer->capacity, 2000);
}

TEST_F(SocketPair, HeloLineThenRestStaysBufferedOnEagain) {
  LstreamPtr s = open(2000);
  DstrPtr line(dstr_new(4000));
  send_text("HELO a\r\nMAIL");

  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), 0);
  EXPECT_EQ(str(line.get()), "HELO a\r\n");
  EXPECT_EQ(str(s->buffer), "MAIL");

  dstr_delete(line.get(), 0, line->length);
  errno = 0;
  EXPECT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(line->length, 0);
  EXPECT_EQ(line->data[0], 0);
  EXPECT_EQ(str(s->buffer), "MAIL");

  send_text(" FROM:<a@example.org>\r\n");
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), 0);
  EXPECT_EQ(str(line.get()), "MAIL FROM:<a@example.org>\r\n");
  EXPECT_EQ(s->buffer->length, 0);
}

TEST_F(SocketPair, PartialLineReadFromSocketGoesBackToBuffer) {
  LstreamPtr s = open(2000);
  DstrPtr line(dstr_from_cstr("kept:"));
  send_text("MAI");
  errno = 0;
  EXPECT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), -1);
  EXPECT_EQ(errno, EAGAIN);
  // What was in line before the call stays; what it gained is given back.
  EXPECT_EQ(str(line.get()), "kept:");
  EXPECT_EQ(line->data[line->length], 0);
  EXPECT_EQ(str(s->buffer), "MAI");

  send_text("L\r\n");
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), 0);
  EXPECT_EQ(str(line.get()), "kept:MAIL\r\n");
}

TEST_F(SocketPair, LineArrivingByteByByteLosesNothing) {
  LstreamPtr s = open(16);
  DstrPtr line(dstr_new(100));
  const std::string text = "RCPT TO:<someone@example.org>\r\n";
  for (size_t i = 0; i + 1 < text.size(); i++) {
    send_text(text.substr(i, 1));
    errno = 0;
    ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), -1) << i;
    ASSERT_EQ(errno, EAGAIN);
    ASSERT_EQ(line->length, 0);
    ASSERT_EQ(str(s->buffer), text.substr(0, i + 1));
  }
  send_text("\n");
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), 0);
  EXPECT_EQ(str(line.get()), text);
}

TEST_F(SocketPair, PendingBytesLongerThanChunkGoBackWhole) {
  // Three reads of a 4-byte chunk before EAGAIN: 10 bytes go back, more than
  // the buffer was made for.
  LstreamPtr s = open(4);
  DstrPtr line(dstr_new(8));
  send_text("abcdefghij");
  errno = 0;
  EXPECT_EQ(lstream_readline(line.get(), s.get(), '\n', 100), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(line->length, 0);
  EXPECT_EQ(str(s->buffer), "abcdefghij");
  send_text("kl\nmn");
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 100), 0);
  EXPECT_EQ(str(line.get()), "abcdefghijkl\n");
  // One chunk of 4 brought "kl\nm": only "m" is buffered, "n" is still unread.
  EXPECT_EQ(str(s->buffer), "m");
  dstr_delete(line.get(), 0, line->length);
  EXPECT_EQ(lstream_readline(line.get(), s.get(), '\n', 100), -1);
  EXPECT_EQ(str(s->buffer), "mn");
}

TEST_F(SocketPair, SeveralLinesInOneReadComeOutOneByOne) {
  LstreamPtr s = open(2000);
  DstrPtr line(dstr_new(100));
  send_text("one\ntwo\n\nthree\n");
  const char* want[] = {"one\n", "two\n", "\n", "three\n"};
  for (const char* w : want) {
    dstr_delete(line.get(), 0, line->length);
    ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), 0);
    EXPECT_EQ(str(line.get()), w);
  }
  dstr_delete(line.get(), 0, line->length);
  errno = 0;
  EXPECT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(line->length, 0);
}

TEST_F(SocketPair, OtherTerminator) {
  LstreamPtr s = open(64);
  DstrPtr line(dstr_new(100));
  send_text("a\nb;c");
  ASSERT_EQ(lstream_readline(line.get(), s.get(), ';', 100), 0);
  EXPECT_EQ(str(line.get()), "a\nb;");
  EXPECT_EQ(str(s->buffer), "c");
}

TEST_F(SocketPair, LongRunWithoutNewlineIsCutAtLimit) {
  LstreamPtr s = open(2000);
  DstrPtr line(dstr_new(4000));
  send_text(std::string(5000, 'x'));
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), 0);
  EXPECT_GE(line->length, 2000);
  EXPECT_LT(line->length, 2000 + 2000);
  EXPECT_EQ(str(line.get()).find('\n'), std::string::npos);
  EXPECT_EQ(line->data[line->length], 0);
  EXPECT_EQ(s->buffer->length, 0);

  // The rest is still readable: nothing was dropped.
  int total = line->length;
  for (;;) {
    dstr_delete(line.get(), 0, line->length);
    int r = lstream_readline(line.get(), s.get(), '\n', 2000);
    if (r != 0) break;
    total += line->length;
  }
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(total + s->buffer->length, 5000);
}

TEST_F(SocketPair, LimitMayBeExceededByLessThanAChunk) {
  LstreamPtr s = open(10);
  DstrPtr line(dstr_new(8));
  send_text(std::string(100, 'y'));
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 25), 0);
  EXPECT_GE(line->length, 25);
  EXPECT_LE(line->length, 25 + 10 - 1);
}

TEST_F(SocketPair, PeerClosesWithEmptyBufferLineUnchanged) {
  LstreamPtr s = open(2000);
  DstrPtr line(dstr_from_cstr("before"));
  close_peer();
  EXPECT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), 0);
  EXPECT_EQ(str(line.get()), "before");
}

TEST_F(SocketPair, QuitWithoutLineEndThenCloseGivesQuit) {
  LstreamPtr s = open(2000);
  DstrPtr line(dstr_new(100));
  send_text("QUIT");
  close_peer();
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), 0);
  EXPECT_EQ(str(line.get()), "QUIT");
  EXPECT_EQ(s->buffer->length, 0);
  dstr_delete(line.get(), 0, line->length);
  EXPECT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), 0);
  EXPECT_EQ(line->length, 0);
}

TEST_F(SocketPair, BufferedPartialLineDeliveredAtEof) {
  LstreamPtr s = open(2000);
  DstrPtr line(dstr_new(100));
  send_text("QU");
  errno = 0;
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), -1);
  ASSERT_EQ(errno, EAGAIN);
  send_text("IT");
  close_peer();
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), 0);
  EXPECT_EQ(str(line.get()), "QUIT");
}

TEST_F(SocketPair, ReadTakesBufferedBytesFirstThenReadsTheRest) {
  LstreamPtr s = open(2000);
  DstrPtr line(dstr_new(100));
  send_text("x\nABCD");
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), 0);
  ASSERT_EQ(str(s->buffer), "ABCD");
  send_text("0123456789");

  DstrPtr out(dstr_from_cstr(">"));
  ASSERT_EQ(lstream_read(out.get(), s.get(), 10), 0);
  EXPECT_EQ(str(out.get()), ">ABCD012345");
  EXPECT_EQ(out->data[out->length], 0);
  EXPECT_EQ(s->buffer->length, 0);
  // At most 6 were read: the peer's last 4 bytes are still in the socket.
  char rest[16];
  EXPECT_EQ(read(mine, rest, sizeof(rest)), 4);
  EXPECT_EQ(std::string(rest, 4), "6789");
}

TEST_F(SocketPair, ReadWithEnoughBufferedDoesNotTouchTheSocket) {
  LstreamPtr s = open(2000);
  DstrPtr line(dstr_new(100));
  send_text("x\nABCD");
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), 0);
  send_text("zz");
  DstrPtr out(dstr_new(1));
  ASSERT_EQ(lstream_read(out.get(), s.get(), 2), 0);
  EXPECT_EQ(str(out.get()), "AB");
  EXPECT_EQ(str(s->buffer), "CD");
  ASSERT_EQ(lstream_read(out.get(), s.get(), 2), 0);
  EXPECT_EQ(str(out.get()), "ABCD");
  EXPECT_EQ(s->buffer->length, 0);
  char rest[4];
  EXPECT_EQ(read(mine, rest, sizeof(rest)), 2);
}

TEST_F(SocketPair, ReadOnEmptySocketFailsButBufferedBytesCount) {
  LstreamPtr s = open(2000);
  DstrPtr out(dstr_new(1));
  errno = 0;
  EXPECT_EQ(lstream_read(out.get(), s.get(), 10), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(out->length, 0);

  DstrPtr line(dstr_new(100));
  send_text("x\nAB");
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 2000), 0);
  EXPECT_EQ(lstream_read(out.get(), s.get(), 10), 0);
  EXPECT_EQ(str(out.get()), "AB");
}

TEST_F(SocketPair, ReadAtEofAddsNothing) {
  LstreamPtr s = open(2000);
  DstrPtr out(dstr_from_cstr("q"));
  close_peer();
  EXPECT_EQ(lstream_read(out.get(), s.get(), 10), 0);
  EXPECT_EQ(str(out.get()), "q");
}

TEST_F(SocketPair, CloseHandsBackBufferedBytesAndTheFd) {
  LineStream* s = lstream_open(mine, read, 2000);
  ASSERT_NE(s, nullptr);
  DstrPtr line(dstr_new(100));
  send_text("a\nrest of it");
  ASSERT_EQ(lstream_readline(line.get(), s, '\n', 2000), 0);
  DstrPtr rest(dstr_from_cstr("<"));
  EXPECT_EQ(lstream_close(rest.get(), s), mine);
  EXPECT_EQ(str(rest.get()), "<rest of it");
  // The descriptor is still open: the caller owns it.
  EXPECT_EQ(fcntl(mine, F_GETFD), 0);
  EXPECT_EQ(lstream_close(nullptr, nullptr), -1);
}

// A read function that plays a script of pieces and errors, for failures a
// socket does not produce on demand.
struct Step {
  std::string data;
  int error;  // when non-zero: fail with this errno
};
std::deque<Step> script;
int reads_made = 0;

ssize_t scripted_read(int, void* buffer, size_t size) {
  reads_made++;
  if (script.empty()) return 0;
  Step& step = script.front();
  if (step.error != 0) {
    errno = step.error;
    script.pop_front();
    return -1;
  }
  size_t n = std::min(size, step.data.size());
  memcpy(buffer, step.data.data(), n);
  step.data.erase(0, n);
  if (step.data.empty()) script.pop_front();
  return static_cast<ssize_t>(n);
}

class Scripted : public ::testing::Test {
 protected:
  void SetUp() override {
    script.clear();
    reads_made = 0;
  }
};

TEST_F(Scripted, HardErrorAfterPartialLineKeepsTheBytes) {
  LstreamPtr s(lstream_open(7, scripted_read, 8));
  DstrPtr line(dstr_new(4));
  script = {{"abc", 0}, {"defgh", 0}, {"", EBADF}, {"ij\n", 0}};
  errno = 0;
  EXPECT_EQ(lstream_readline(line.get(), s.get(), '\n', 100), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(line->length, 0);
  EXPECT_EQ(str(s->buffer), "abcdefgh");
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 100), 0);
  EXPECT_EQ(str(line.get()), "abcdefghij\n");
}

TEST_F(Scripted, ErrorWithNothingGainedLeavesEverything) {
  LstreamPtr s(lstream_open(7, scripted_read, 8));
  DstrPtr line(dstr_from_cstr("L0"));
  script = {{"", EINTR}};
  errno = 0;
  EXPECT_EQ(lstream_readline(line.get(), s.get(), '\n', 100), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(str(line.get()), "L0");
  EXPECT_EQ(s->buffer->length, 0);
}

TEST_F(Scripted, LineInBufferNeedsNoRead) {
  LstreamPtr s(lstream_open(7, scripted_read, 64));
  DstrPtr line(dstr_new(4));
  script = {{"first\nsecond\n", 0}};
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 3), 0);
  EXPECT_EQ(str(line.get()), "first\n");
  EXPECT_EQ(reads_made, 1);
  dstr_delete(line.get(), 0, line->length);
  // Found in the buffer, the line is whole even though it exceeds the limit.
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 3), 0);
  EXPECT_EQ(str(line.get()), "second\n");
  EXPECT_EQ(reads_made, 1);
}

TEST_F(Scripted, ReadOfNMakesOneCallForTheRemainder) {
  LstreamPtr s(lstream_open(7, scripted_read, 64));
  DstrPtr line(dstr_new(4));
  script = {{"x\nABCD", 0}, {"0123456789", 0}};
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 100), 0);
  ASSERT_EQ(reads_made, 1);
  DstrPtr out(dstr_new(1));
  ASSERT_EQ(lstream_read(out.get(), s.get(), 10), 0);
  EXPECT_EQ(reads_made, 2);
  EXPECT_EQ(str(out.get()), "ABCD012345");
  ASSERT_EQ(script.size(), 1u);
  EXPECT_EQ(script.front().data, "6789");
}

TEST_F(Scripted, ReadOfExactlyTheBufferedCountMakesNoCall) {
  LstreamPtr s(lstream_open(7, scripted_read, 64));
  DstrPtr line(dstr_new(4));
  script = {{"x\nABCD", 0}, {"more", 0}};
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 100), 0);
  DstrPtr out(dstr_new(1));
  ASSERT_EQ(lstream_read(out.get(), s.get(), 4), 0);
  EXPECT_EQ(str(out.get()), "ABCD");
  EXPECT_EQ(reads_made, 1);
}

TEST(LstreamArguments, NullArgumentsFail) {
  LstreamPtr s(lstream_open(0, read, 10));
  DstrPtr line(dstr_new(10));
  EXPECT_EQ(lstream_readline(nullptr, s.get(), '\n', 10), -1);
  EXPECT_EQ(lstream_readline(line.get(), nullptr, '\n', 10), -1);
  EXPECT_EQ(lstream_read(nullptr, s.get(), 10), -1);
  EXPECT_EQ(lstream_read(line.get(), nullptr, 10), -1);
}

}  // namespace
