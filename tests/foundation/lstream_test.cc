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
// test plays the peer.
struct Wire {
  explicit Wire(int chunk) {
    int sv[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    mine = sv[0];
    peer = sv[1];
    EXPECT_EQ(fcntl(mine, F_SETFL, fcntl(mine, F_GETFL) | O_NONBLOCK), 0);
    stream.reset(lstream_open(mine, read, chunk));
  }
  ~Wire() {
    stream.reset();
    close(mine);
    if (peer >= 0) close(peer);
  }
  void send(const std::string& s) {
    ASSERT_EQ(write(peer, s.data(), s.size()), static_cast<ssize_t>(s.size()));
  }
  void close_peer() {
    close(peer);
    peer = -1;
  }
  std::string buffered() const { return str(stream->buffer); }

  int mine = -1;
  int peer = -1;
  LstreamPtr stream;
};

// The next line from s, or "<errno text>" when there is none; a failed call
// must leave the line as it was.
std::string next_line(LineStream* s, char terminator = '\n', int limit = 2000) {
  DstrPtr line(dstr_new(8));
  errno = 0;
  if (lstream_readline(line.get(), s, terminator, limit) == 0) return str(line.get());
  std::string error = std::string("<") + strerror(errno) + ">";
  EXPECT_EQ(line->length, 0);
  EXPECT_EQ(line->data[0], 0);
  return error;
}

const std::string AGAIN = std::string("<") + strerror(EAGAIN) + ">";

TEST(Lstream, PartialLineStaysBufferedUntilItsEnd) {
  Wire w(2000);
  w.send("HELO a\r\nMAIL");
  EXPECT_EQ(next_line(w.stream.get()), "HELO a\r\n");
  EXPECT_EQ(w.buffered(), "MAIL");
  EXPECT_EQ(next_line(w.stream.get()), AGAIN);
  EXPECT_EQ(w.buffered(), "MAIL");
  w.send(" FROM:<a@example.org>\r\n");
  EXPECT_EQ(next_line(w.stream.get()), "MAIL FROM:<a@example.org>\r\n");
  EXPECT_EQ(w.buffered(), "");

  // What was in the line before the call stays; what it gained is given back.
  DstrPtr line(dstr_from_cstr("kept:"));
  w.send("MAI");
  errno = 0;
  EXPECT_EQ(lstream_readline(line.get(), w.stream.get(), '\n', 2000), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(str(line.get()), "kept:");
  EXPECT_EQ(line->data[line->length], 0);
  EXPECT_EQ(w.buffered(), "MAI");
  w.send("L\r\n");
  ASSERT_EQ(lstream_readline(line.get(), w.stream.get(), '\n', 2000), 0);
  EXPECT_EQ(str(line.get()), "kept:MAIL\r\n");
}

TEST(Lstream, LineArrivingByteByByteLosesNothing) {
  Wire w(16);
  const std::string text = "RCPT TO:<someone@example.org>\r\n";
  for (size_t i = 0; i + 1 < text.size(); i++) {
    w.send(text.substr(i, 1));
    ASSERT_EQ(next_line(w.stream.get()), AGAIN) << i;
    ASSERT_EQ(w.buffered(), text.substr(0, i + 1));
  }
  w.send("\n");
  EXPECT_EQ(next_line(w.stream.get()), text);
}

TEST(Lstream, PendingBytesLongerThanChunkGoBackWhole) {
  // Three reads of a 4-byte chunk before EAGAIN: 10 bytes go back, more than
  // the buffer was made for.
  Wire w(4);
  w.send("abcdefghij");
  EXPECT_EQ(next_line(w.stream.get(), '\n', 100), AGAIN);
  EXPECT_EQ(w.buffered(), "abcdefghij");
  w.send("kl\nmn");
  EXPECT_EQ(next_line(w.stream.get(), '\n', 100), "abcdefghijkl\n");
  // One chunk of 4 brought "kl\nm": only "m" is buffered, "n" is still unread.
  EXPECT_EQ(w.buffered(), "m");
  EXPECT_EQ(next_line(w.stream.get(), '\n', 100), AGAIN);
  EXPECT_EQ(w.buffered(), "mn");
}

TEST(Lstream, SeveralLinesInOneReadComeOutOneByOne) {
  Wire w(64);
  w.send("one\ntwo\n\nthree\na\nb;c");
  for (const char* want : {"one\n", "two\n", "\n", "three\n"}) {
    EXPECT_EQ(next_line(w.stream.get()), want);
  }
  EXPECT_EQ(next_line(w.stream.get(), ';'), "a\nb;");
  EXPECT_EQ(w.buffered(), "c");
  EXPECT_EQ(next_line(w.stream.get()), AGAIN);
}

TEST(Lstream, LongRunIsCutAtLimitOverByLessThanAChunkAndNothingIsLost) {
  struct {
    int chunk, limit, sent;
  } cases[] = {{2000, 2000, 5000}, {10, 25, 100}};
  for (const auto& c : cases) {
    Wire w(c.chunk);
    w.send(std::string(c.sent, 'x'));
    std::string first = next_line(w.stream.get(), '\n', c.limit);
    EXPECT_GE(first.size(), static_cast<size_t>(c.limit)) << c.chunk;
    EXPECT_LE(first.size(), static_cast<size_t>(c.limit + c.chunk - 1)) << c.chunk;
    EXPECT_EQ(first, std::string(first.size(), 'x'));
    EXPECT_EQ(w.buffered(), "") << c.chunk;
    size_t total = first.size();
    for (std::string s; (s = next_line(w.stream.get(), '\n', c.limit)) != AGAIN;) total += s.size();
    EXPECT_EQ(total + w.buffered().size(), static_cast<size_t>(c.sent)) << c.chunk;
  }
}

TEST(Lstream, PartialLineIsDeliveredAtEofThenNothing) {
  Wire w(2000);
  w.send("QU");
  EXPECT_EQ(next_line(w.stream.get()), AGAIN);
  w.send("IT");
  w.close_peer();
  EXPECT_EQ(next_line(w.stream.get()), "QUIT");
  EXPECT_EQ(w.buffered(), "");
  DstrPtr line(dstr_from_cstr("before"));
  EXPECT_EQ(lstream_readline(line.get(), w.stream.get(), '\n', 2000), 0);
  EXPECT_EQ(str(line.get()), "before");
  EXPECT_EQ(lstream_read(line.get(), w.stream.get(), 10), 0);
  EXPECT_EQ(str(line.get()), "before");
}

TEST(Lstream, ReadOnEmptySocketFailsButBufferedBytesCount) {
  Wire w(2000);
  DstrPtr out(dstr_new(1));
  errno = 0;
  EXPECT_EQ(lstream_read(out.get(), w.stream.get(), 10), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(out->length, 0);
  w.send("x\nAB");
  ASSERT_EQ(next_line(w.stream.get()), "x\n");
  EXPECT_EQ(lstream_read(out.get(), w.stream.get(), 10), 0);
  EXPECT_EQ(str(out.get()), "AB");
}

TEST(Lstream, CloseHandsBackBufferedBytesAndTheFd) {
  Wire w(2000);
  w.send("a\nrest of it");
  ASSERT_EQ(next_line(w.stream.get()), "a\n");
  DstrPtr rest(dstr_from_cstr("<"));
  EXPECT_EQ(lstream_close(rest.get(), w.stream.release()), w.mine);
  EXPECT_EQ(str(rest.get()), "<rest of it");
  // The descriptor is still open: the caller owns it.
  EXPECT_EQ(fcntl(w.mine, F_GETFD), 0);
  EXPECT_EQ(lstream_close(nullptr, nullptr), -1);
}

TEST(Lstream, NullArgumentsFail) {
  LstreamPtr s(lstream_open(0, read, 10));
  DstrPtr line(dstr_new(10));
  EXPECT_EQ(lstream_readline(nullptr, s.get(), '\n', 10), -1);
  EXPECT_EQ(lstream_readline(line.get(), nullptr, '\n', 10), -1);
  EXPECT_EQ(lstream_read(nullptr, s.get(), 10), -1);
  EXPECT_EQ(lstream_read(line.get(), nullptr, 10), -1);
}

// A read function that plays a script of pieces and errors, for failures and
// call counts a socket does not show.
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
  LstreamPtr open(std::deque<Step> steps, int chunk) {
    script = std::move(steps);
    reads_made = 0;
    return LstreamPtr(lstream_open(7, scripted_read, chunk));
  }
};

TEST_F(Scripted, ErrorKeepsTheBytesGainedAndTheLineAsItWas) {
  LstreamPtr s = open({{"", EINTR}, {"abc", 0}, {"defgh", 0}, {"", EBADF}, {"ij\n", 0}}, 8);
  DstrPtr line(dstr_from_cstr("L0"));
  errno = 0;
  EXPECT_EQ(lstream_readline(line.get(), s.get(), '\n', 100), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(s->buffer->length, 0);
  EXPECT_EQ(lstream_readline(line.get(), s.get(), '\n', 100), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(str(line.get()), "L0");
  EXPECT_EQ(str(s->buffer), "abcdefgh");
  ASSERT_EQ(lstream_readline(line.get(), s.get(), '\n', 100), 0);
  EXPECT_EQ(str(line.get()), "L0abcdefghij\n");
}

TEST_F(Scripted, LineInBufferNeedsNoRead) {
  LstreamPtr s = open({{"first\nsecond\n", 0}}, 64);
  EXPECT_EQ(next_line(s.get(), '\n', 3), "first\n");
  EXPECT_EQ(reads_made, 1);
  // Found in the buffer, the line is whole even though it exceeds the limit.
  EXPECT_EQ(next_line(s.get(), '\n', 3), "second\n");
  EXPECT_EQ(reads_made, 1);
}

TEST_F(Scripted, ReadTakesBufferedBytesFirstThenMakesAtMostOneCall) {
  LstreamPtr s = open({{"x\nABCD", 0}, {"0123456789", 0}}, 64);
  ASSERT_EQ(next_line(s.get()), "x\n");
  DstrPtr out(dstr_from_cstr(">"));
  ASSERT_EQ(lstream_read(out.get(), s.get(), 10), 0);
  EXPECT_EQ(str(out.get()), ">ABCD012345");
  EXPECT_EQ(out->data[out->length], 0);
  EXPECT_EQ(s->buffer->length, 0);
  EXPECT_EQ(reads_made, 2);
  ASSERT_EQ(script.size(), 1u);
  EXPECT_EQ(script.front().data, "6789");

  // Enough buffered, or exactly enough: no call at all.
  s = open({{"x\nABCD", 0}, {"more", 0}}, 64);
  ASSERT_EQ(next_line(s.get()), "x\n");
  out.reset(dstr_new(1));
  ASSERT_EQ(lstream_read(out.get(), s.get(), 2), 0);
  EXPECT_EQ(str(s->buffer), "CD");
  ASSERT_EQ(lstream_read(out.get(), s.get(), 2), 0);
  EXPECT_EQ(str(out.get()), "ABCD");
  EXPECT_EQ(reads_made, 1);
}

}  // namespace
