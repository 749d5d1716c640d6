// The transaction of a sender connection: the envelope from MAIL FROM on,
// and the message from DATA to its final reply. Everything a message holds
// (the scan file, the scan requests, the scan timer) is owned here and goes
// when the message ends, whichever way it ends.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "event/timer.h"
#include "foundation/dstr.h"
#include "foundation/text.h"
#include "scan/dotstream.h"
#include "scan/spam.h"
#include "scan/spool.h"
#include "scan/vscan.h"

// Who may read the sender: the command reader in ENVELOPE (and between
// transactions), the DATA reader in RECEIVING, nobody while the message is
// SCANNING and RELAYING, so nothing the sender sends meanwhile can change
// the message or the backend dialogue.
enum class TxnPhase { ENVELOPE, RECEIVING, SCANNING, RELAYING };

// One message, from DATA to its final reply.
struct Message {
  SpoolPtr file;
  DotDecoder rx;
  // A copy of the header as it streams in, for the Message-ID; given up
  // (header_long) when the header outgrows it, and freed at the end of data.
  std::string header;
  bool header_done = false;
  bool header_long = false;
  // A stored line starts with "." (doubled on the wire), or the file was
  // rewritten: the relay must encode the file instead of sending it as it is.
  bool dot_lines = false;
  const char* refusal = nullptr;  // the reply the end of data gets instead of a scan
  CharsPtr msgid;                 // Message-ID of the message; null when it has none
  AsRequestPtr spam_request;
  VscanRequestPtr vs_request;
  TimerPtr scan_timer;
  int scan_result = 0;  // verdict bits of both scans
};

struct Transaction {
  TxnPhase phase = TxnPhase::ENVELOPE;
  DstrPtr from;  // empty for the null sender
  DstrPtr from_domain;
  int64_t declared_size = 0;          // SIZE= of MAIL FROM; 0 when none
  bool body_8bitmime = false;         // MAIL FROM carried BODY=8BITMIME
  std::vector<DstrPtr> rcpts;         // in RCPT order; the backend gets them newest first
  std::vector<DstrPtr> failed_rcpts;  // refused by the backend, in its order
  int rcpt_cursor = -1;               // index in rcpts of the recipient the backend is answering
  std::unique_ptr<Message> msg;
};
