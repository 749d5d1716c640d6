#include "foundation/lstream.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>

namespace {

// The peer: pieces handed out in reads of at most the asked size, and errors
// (a piece with error set); an empty script is end of file.
std::deque<std::pair<std::string, int>> script;
int reads_made = 0;
ssize_t scripted_read(int, void* buffer, size_t size) {
  reads_made++;
  if (script.empty()) return 0;
  auto& [data, error] = script.front();
  size_t n = std::min(size, data.size());
  memcpy(buffer, data.data(), n);
  data.erase(0, n);
  errno = error;
  ssize_t result = error ? -1 : static_cast<ssize_t>(n);
  if (data.empty()) script.pop_front();
  return result;
}

// The next line, or "<errno>" when there is none; a failed call must leave the
// line as it was.
std::string next(LineStream* s, int limit = 2000, char terminator = '\n') {
  DstrPtr line(dstr_from_cstr("<"));
  errno = 0;
  if (lstream_readline(line.get(), s, terminator, limit) == 0)
    return std::string(line->data + 1, line->length - 1);
  EXPECT_STREQ(line->data, "<");
  return "<" + std::to_string(errno) + ">";
}
const std::string AGAIN = "<" + std::to_string(EAGAIN) + ">";

TEST(Lstream, PartialLineStaysBufferedAndAnErrorLosesNothing) {
  script = {{"HELO a\r\nMA", 0}, {"", EAGAIN}, {"IL", 0}, {"", EINTR}, {"\r\none\ntwo\n", 0}};
  LstreamPtr s(lstream_open(7, scripted_read, 8));
  EXPECT_EQ(next(s.get()), "HELO a\r\n");
  EXPECT_EQ(next(s.get()), AGAIN);
  EXPECT_EQ(next(s.get()), "<" + std::to_string(EINTR) + ">");
  EXPECT_STREQ(s->buffer->data, "MAIL");
  EXPECT_EQ(next(s.get()), "MAIL\r\n");
  int reads = reads_made;
  EXPECT_EQ(next(s.get(), 2), "one\n");  // found whole in the buffer: not cut at the limit
  EXPECT_EQ(reads_made, reads);
  EXPECT_EQ(next(s.get(), 2000, ';'), "two\n");  // end of file delivers the rest
  EXPECT_EQ(next(s.get()), "");
}

}  // namespace
