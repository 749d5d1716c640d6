#include "foundation/lstream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace {

struct Pipe {
  int fd[2];
  Pipe() { EXPECT_EQ(pipe2(fd, O_NONBLOCK), 0); }
  ~Pipe() { close(fd[0]), fd[1] >= 0 && close(fd[1]); }
  void put(const std::string& s) { ASSERT_EQ(write(fd[1], s.data(), s.size()), ssize_t(s.size())); }
};

// Taken lines move an offset over the kept bytes (no shifting); a line in
// pieces waits for its end; the kept bytes go once all are taken, so an idle
// stream holds no buffer; a line runs to the limit at most.
TEST(Lstream, LinesMoveAnOffsetPartialOnesWaitAndAnEmptyStreamHoldsNothing) {
  Pipe p;
  LstreamPtr s(lstream_open(p.fd[0], read, LSTREAM_READ_MAX));
  DstrPtr line(dstr_new(8));
  auto next = [&](int limit = 2000) {
    line->length = 0;
    errno = 0;
    return lstream_readline(line.get(), s.get(), '\n', limit);
  };
  p.put("HELO a\r\nNOOP\r\nMAIL");
  ASSERT_EQ(next(), 0);
  EXPECT_EQ(std::string(line->data), "HELO a\r\n");
  const char* kept = s->buffer->data;
  ASSERT_EQ(next(), 0);
  EXPECT_EQ(std::string(line->data), "NOOP\r\n");
  EXPECT_EQ(s->buffer->data, kept);
  EXPECT_EQ(s->offset, 6);
  EXPECT_EQ(next(), -1);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(line->length, 0);
  EXPECT_EQ(lstream_buffered(s.get()), 4);
  p.put(" FROM:<a>\r\n");
  ASSERT_EQ(next(), 0);
  EXPECT_EQ(std::string(line->data), "MAIL FROM:<a>\r\n");
  EXPECT_EQ(s->buffer, nullptr);
  p.put(std::string(2500, 'x') + "\nQUIT");
  ASSERT_EQ(next(), 0);
  EXPECT_EQ(line->length, 2000);
  ASSERT_EQ(next(), 0);
  EXPECT_EQ(std::string(line->data), std::string(500, 'x') + "\n");
  close(p.fd[1]);
  p.fd[1] = -1;
  ASSERT_EQ(next(), 0);
  EXPECT_EQ(std::string(line->data), "QUIT");
  EXPECT_EQ(next() + line->length, 0);  // end of file: nothing
  EXPECT_EQ(s->buffer, nullptr);
}

}  // namespace
