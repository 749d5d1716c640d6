// Fuzzes both directions of a DATA stream: sender bytes decoded in a line
// reader's pieces must give canonical content and end only where a strict
// server ends; the relayed stream must carry exactly that content; and a
// well-formed stream made of the same bytes must come back byte for byte.
// Input: SIZE (2 bytes, 0 for none), idle bits (4; bit k: the socket runs dry
// after a piece that ends at an offset k modulo 32), a seed for the encoder's chunk sizes (1), the
// reader's limit (1: below 128 the real 5,000 bytes, else 1 to 128, which reaches what happens at
// cuts, like a piece of CRs only, with far shorter inputs), the stream.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "scan/dotstream.h"

namespace {

void check(bool ok) {
  if (!ok) __builtin_trap();
}

// Every CR is followed by LF and every LF preceded by CR.
bool canonical(std::string_view s) {
  for (size_t i = 0; i < s.size(); i++) {
    if (s[i] == '\r' && (i + 1 == s.size() || s[i + 1] != '\n')) return false;
    if (s[i] == '\n' && (i == 0 || s[i - 1] != '\r')) return false;
  }
  return true;
}

struct Decoded {
  std::string content;
  bool end = false;
  size_t used = 0;  // raw bytes handed over, the end-of-data line included
  bool bare = false, held = false;
};

// bulk: first offer dot_decode_bulk that many bytes at every step (0: never).
Decoded decode(std::string_view raw, size_t cut, int64_t size, uint32_t idle_bits,
               size_t bulk = 0) {
  DotDecoder d{.declared_size = size};
  Decoded r;
  while (r.used < raw.size() && !r.end) {
    if (bulk > 0) {
      size_t n = std::min(bulk, raw.size() - r.used);
      size_t plain = dot_decode_bulk(&d, raw.data() + r.used, n);
      r.content.append(raw.data() + r.used, plain);
      r.used += plain;
      if (r.used == raw.size()) break;
    }
    size_t lf = raw.find('\n', r.used);
    size_t n = std::min((lf == raw.npos ? raw.size() : lf + 1) - r.used, cut);
    r.end = dot_decode_piece(&d, raw.data() + r.used, n, &r.content) == DotResult::END;
    r.used += n;
    std::string_view seen = raw.substr(0, r.used);
    if (r.end) check(seen == ".\r\n" || seen.ends_with("\r\n.\r\n"));  // as a strict server
    if (!r.end && ((idle_bits >> (r.used % 32)) & 1) &&
        dot_decode_idle(&d, &r.content) == DotResult::END) {
      // The SIZE rule: the sender stopped right after ".\r\n" at SIZE + 3.
      check(seen.ends_with(".\r\n") && static_cast<int64_t>(seen.size()) == size + 3);
      r.end = true;
    }
  }
  check(canonical(r.content) && (!r.end || r.content.empty() || r.content.ends_with("\r\n")));
  r.bare = d.bare_seen;
  r.held = d.held;
  return r;
}

std::string encode(std::string_view content, uint32_t seed) {
  DotEncoder e;
  std::string out;
  for (size_t i = 0, n; i < content.size(); i += n) {
    seed = seed * 1103515245 + 12345;
    n = std::min<size_t>(seed >> 16 & 0x7f, content.size() - i);
    dot_encode(&e, content.data() + i, n, &out);
  }
  dot_encode_finish(&e, &out);
  check(canonical(out) && out.size() <= 2 * content.size() + 6);
  return out;
}

// What a strict backend stores of a relayed stream, which must end in its
// only "." line; every other line that starts with "." has one to lose.
std::string unstuff(std::string_view s) {
  std::string out;
  for (size_t i = 0, e;; i = e + 2) {
    e = s.find("\r\n", i);
    check(e != s.npos);
    std::string_view line = s.substr(i, e - i);
    if (e + 2 == s.size()) {
      check(line == ".");
      return out;
    }
    if (line.starts_with('.')) {
      check(line.starts_with(".."));
      line.remove_prefix(1);
    }
    out.append(line).append("\r\n");
  }
}

// The raw bytes as lines with CR LF ends and every leading dot stuffed.
std::string well_formed(std::string_view raw) {
  std::string out;
  for (size_t i = 0, e; i < raw.size(); i = e + 1) {
    e = std::min(raw.find('\n', i), raw.size());
    std::string line(raw.substr(i, e - i));
    std::replace(line.begin(), line.end(), '\r', ' ');
    out.append(line.starts_with('.') ? "." : "").append(line).append("\r\n");
  }
  return out + ".\r\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 8) return 0;
  int64_t declared = data[0] << 8 | data[1];
  uint32_t idle_bits = 0, seed = data[6];
  for (int i = 2; i < 6; i++) idle_bits = idle_bits << 8 | data[i];
  size_t cut = data[7] < 128 ? 5000 : data[7] - 127;
  std::string_view raw(reinterpret_cast<const char*>(data + 8), size - 8);

  Decoded d = decode(raw, cut, declared, idle_bits);
  // The bulk path taken first changes nothing, whatever the reads' sizes.
  for (size_t bulk : {size_t{1} + data[6] * 3u, raw.size() + 1}) {
    Decoded b = decode(raw, cut, declared, idle_bits, bulk);
    check(b.content == d.content && b.used == d.used && b.end == d.end && b.bare == d.bare &&
          b.held == d.held);
  }
  std::string relayed = encode(d.content, seed);
  bool line_open = !d.content.empty() && !d.content.ends_with("\r\n");  // input ran out
  check(unstuff(relayed) == d.content + (line_open ? "\r\n" : ""));

  std::string stream = well_formed(raw);
  Decoded w = decode(stream, std::max<size_t>(cut, 3), declared, 0);  // ".\r\n" kept whole
  check(w.content == decode(stream, std::max<size_t>(cut, 3), declared, 0, cut).content);
  check(w.end && w.used == stream.size() && encode(w.content, seed) == stream);
  return 0;
}
