// The two directions of an SMTP DATA stream. The decoder turns what a sender
// wrote after 354 into the message content (dot-stuffing undone, every line
// ended by CR LF) and finds the end of data; the encoder turns content back
// into the one stream the backend may see: CR LF line ends only, every line
// that starts with "." doubled, exactly one ".\r\n" at the end. Whatever a
// sender sends, the backend can therefore never find an end of data, or a
// line end, that the proxy did not see.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// The decoder of one message. Pieces are what a line reader hands over: the
// bytes up to and including LF, or fewer when cut at its limit; a piece that
// follows a cut one continues the same line.
struct DotDecoder {
  const void* log_id = nullptr;  // the %p that starts the decoder's log lines
  int64_t declared_size = 0;     // SIZE= of MAIL FROM; 0 when none
  int64_t bytes = 0;             // raw bytes taken, the end-of-data line included
  bool newline = true;           // the next piece starts a line
  bool after_crlf = true;        // ... and the line before ended in CR LF
  bool pending_cr = false;       // a CR whose next byte has not come yet
  bool held = false;             // ".\r\n" held back by the SIZE rule
  bool bare_seen = false;        // a CR or LF not part of a CR LF pair came
};

enum class DotResult { MORE, END };

// Takes one piece and appends the content it carries to out. END: the piece
// ended the data, which happens only on a "." line whose previous line ended
// in CR LF (or by the SIZE rule, through dot_decode_idle). A bare LF is
// stored as CR LF and a bare CR as a space; bare_seen records either.
DotResult dot_decode_piece(DotDecoder* d, const char* piece, size_t n, std::string* out);
// The fast path for the bulk of a body: at a line start with nothing pending
// or held, takes the longest prefix of p[0, n) made of whole lines that end
// in CR LF, hold no other CR or LF and do not start with "." (lines the rule
// leaves as they are, none of which can end the data), and stops before the
// SIZE rule could apply. Returns their length (0: take the next piece with
// dot_decode_piece): p[0, length) is their content as it stands, for the
// caller to store from where it is; the decoder is left exactly as
// dot_decode_piece would leave it after those lines.
size_t dot_decode_bulk(DotDecoder* d, const char* p, size_t n);
// The sender has nothing more for now. END when bytes held back by the SIZE
// rule end the data here (they become the last line's CR LF).
DotResult dot_decode_idle(DotDecoder* d, std::string* out);

// The encoder of one relayed message.
struct DotEncoder {
  bool line_start = true;
  bool pending_cr = false;
};

// Appends the relay form of content[0, n) to out; never more than 2n + 1
// bytes. Content is expected with CR LF line ends already; a stray CR or LF
// is still made harmless (a space, or CR LF), so no input can end the stream.
void dot_encode(DotEncoder* e, const char* content, size_t n, std::string* out);
// Ends the stream: CR LF for a last line without one, then ".\r\n".
void dot_encode_finish(DotEncoder* e, std::string* out);
