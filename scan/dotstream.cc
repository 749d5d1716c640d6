// DATA stream decoding and encoding. Both sides apply one line-end rule: a CR
// LF pair is a line end, a lone LF is made one, a lone CR becomes a space.
// Normalising alone would be dangerous (a lone LF before "." would turn into
// a brand-new end of data), which is why the encoder re-stuffs every line
// start after the rule has been applied, and the decoder only accepts "." as
// the end after a real CR LF.
#include "scan/dotstream.h"

#include <algorithm>
#include <cstring>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "foundation/dlog.h"
#include "foundation/text.h"

namespace {

constexpr char TERMINATOR[] = ".\r\n";
constexpr size_t TERMINATOR_LENGTH = 3;

bool ends_with_terminator(const char* p, size_t n) {
  return n >= TERMINATOR_LENGTH &&
         memcmp(p + n - TERMINATOR_LENGTH, TERMINATOR, TERMINATOR_LENGTH) == 0;
}

// The first CR or LF in p[j, n), or n. One pass over the bytes finds a line's
// end and any stray CR or LF in it alike; 16 bytes are looked at per step.
size_t next_cr_or_lf(const char* p, size_t j, size_t n) {
#ifdef __SSE2__
  const __m128i cr = _mm_set1_epi8('\r'), lf = _mm_set1_epi8('\n');
  for (; j + 16 <= n; j += 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + j));
    const int hits = _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(v, cr), _mm_cmpeq_epi8(v, lf)));
    if (hits != 0) return j + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(hits)));
  }
#endif
  while (j < n && p[j] != '\r' && p[j] != '\n') j++;
  return j;
}

// The bytes up to the next CR or LF, appended in one go.
size_t append_run(const char* p, size_t i, size_t n, std::string* out) {
  const size_t j = next_cr_or_lf(p, i + 1, n);
  out->append(p + i, j - i);
  return j;
}

// A line ended by CR LF with no other CR or LF in it: the rule leaves it as
// it is. Nearly every line of a message is one.
bool plain_line(const char* p, size_t n) {
  return n >= 2 && next_cr_or_lf(p, 0, n) == n - 2 && p[n - 2] == '\r' && p[n - 1] == '\n';
}

// From a line start at i: the end of the run of plain lines that do not
// start with ".", which go out unchanged. A line is plain when the first CR
// or LF in it is a CR with LF right after.
size_t plain_lines(const char* p, size_t i, size_t n) {
  while (i < n && p[i] != '.') {
    const size_t k = next_cr_or_lf(p, i, n);
    if (k + 1 >= n || p[k] != '\r' || p[k + 1] != '\n') break;
    i = k + 2;
  }
  return i;
}

// Content bytes with the line-end rule applied; newline and after_crlf
// follow the last line end.
void take(DotDecoder* d, const char* p, size_t n, std::string* out) {
  if (!d->pending_cr && plain_line(p, n)) {
    out->append(p, n);
    d->newline = d->after_crlf = true;
    return;
  }
  size_t i = 0;
  while (i < n) {
    char c = p[i];
    if (d->pending_cr) {
      d->pending_cr = false;
      if (c == '\n') {
        out->append("\r\n");
        d->newline = d->after_crlf = true;
        i++;
        continue;
      }
      out->push_back(' ');
      d->bare_seen = true;
    }
    if (c == '\r') {
      d->pending_cr = true;
      d->newline = false;
      i++;
    } else if (c == '\n') {
      out->append("\r\n");
      d->bare_seen = true;
      d->newline = true;
      d->after_crlf = false;
      i++;
    } else {
      i = append_run(p, i, n, out);
      d->newline = false;
    }
  }
}

}  // namespace

DotResult dot_decode_piece(DotDecoder* d, const char* piece, size_t n, std::string* out) {
  if (n == 0) return DotResult::MORE;
  d->bytes += static_cast<int64_t>(n);
  if (d->held) {
    // More came after the bytes the SIZE rule held back, so they were the
    // end of a text line; they are put back before anything else is looked
    // at, so the next piece is judged as the start of a line.
    dlog(DLOG_SMTP, 9, "%p, Adding stripped .<CR><LF> back to the data stream.\n", d->log_id);
    d->held = false;
    take(d, TERMINATOR, TERMINATOR_LENGTH, out);
  }
  if (d->newline) {
    if (str_is_blank(piece, n)) dlog(DLOG_SMTP, 9, "End of MIME header\n");
    if (d->after_crlf && n == TERMINATOR_LENGTH && memcmp(piece, TERMINATOR, n) == 0) {
      dlog(DLOG_SMTP, 9, "%p, normal end of data encountered, done fetching.\n", d->log_id);
      return DotResult::END;
    }
  }
  // A client that declared SIZE and ends its last text directly with
  // ".\r\n": whether those bytes end the data is known only once it is clear
  // if more follows.
  const bool hold =
      d->declared_size > 0 && d->bytes == d->declared_size + 3 && ends_with_terminator(piece, n);
  // The stuffing dot of a line that starts with two is dropped. Only a piece
  // that starts a line can carry one; the tail of a line longer than a piece
  // may begin with ".." as plain text.
  if (d->newline && n >= 2 && piece[0] == '.' && piece[1] == '.') {
    piece++;
    n--;
  }
  if (hold) {
    dlog(DLOG_SMTP, 9, "%p, MS end of data encountered, continue to read.\n", d->log_id);
    take(d, piece, n - TERMINATOR_LENGTH, out);
    d->held = true;
    return DotResult::MORE;
  }
  take(d, piece, n, out);
  return DotResult::MORE;
}

size_t dot_decode_bulk(DotDecoder* d, const char* p, size_t n) {
  if (!d->newline || !d->after_crlf || d->pending_cr || d->held) return 0;
  if (d->declared_size > 0) {
    // The SIZE rule looks only at a piece that ends at SIZE + 3 bytes; lines
    // that end by SIZE never reach it, and whatever follows goes piece by
    // piece.
    if (d->bytes >= d->declared_size) return 0;
    n = std::min(n, static_cast<size_t>(d->declared_size - d->bytes));
  }
  const size_t end = plain_lines(p, 0, n);
  d->bytes += static_cast<int64_t>(end);
  return end;
}

DotResult dot_decode_idle(DotDecoder* d, std::string* out) {
  if (!d->held) return DotResult::MORE;
  dlog(DLOG_SMTP, 5, "%p, MS end of data encountered, stop reading data\n", d->log_id);
  d->held = false;
  take(d, "\r\n", 2, out);
  return DotResult::END;
}

void dot_encode(DotEncoder* e, const char* content, size_t n, std::string* out) {
  out->reserve(out->size() + 2 * n + 1);
  size_t i = 0;
  while (i < n) {
    if (e->line_start && !e->pending_cr) {
      size_t end = plain_lines(content, i, n);
      if (end > i) {
        out->append(content + i, end - i);
        i = end;
        continue;
      }
    }
    char c = content[i];
    if (e->pending_cr) {
      e->pending_cr = false;
      if (c == '\n') {
        out->append("\r\n");
        e->line_start = true;
        i++;
        continue;
      }
      out->push_back(' ');
      e->line_start = false;
    }
    if (c == '\r') {
      e->pending_cr = true;
      i++;
    } else if (c == '\n') {
      out->append("\r\n");
      e->line_start = true;
      i++;
    } else {
      if (e->line_start && c == '.') out->push_back('.');
      i = append_run(content, i, n, out);
      e->line_start = false;
    }
  }
}

void dot_encode_finish(DotEncoder* e, std::string* out) {
  if (e->pending_cr) {
    e->pending_cr = false;
    out->push_back(' ');
    e->line_start = false;
  }
  if (!e->line_start) out->append("\r\n");
  out->append(TERMINATOR);
  e->line_start = true;
}
