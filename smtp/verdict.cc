// The verdicts of the two scans decide each message's fate. The spam verdict
// comes first; spam to be refused never reaches the virus scanner. The virus
// verdict is read through an ordered table: the first matching row refuses or
// drops the message, and a message no row stops is tagged and relayed.
#include "smtp/verdict.h"

#include <arpa/inet.h>

#include <array>
#include <cstdlib>
#include <cstring>

#include "foundation/dlog.h"
#include "foundation/text.h"
#include "scan/header.h"
#include "scan/spam.h"
#include "scan/vscan.h"
#include "smtp/backend.h"
#include "smtp/config.h"

namespace {

// The sender hears the refusal and may go on with its next transaction. A
// reply that cannot be written has closed the connection (smtp_reply).
void refuse(Connection* conn, const char* reply, const char* log_after = nullptr) {
  if (!smtp_reply(conn, reply)) return;
  if (log_after != nullptr) dlog(DLOG_SMTP, 4, log_after, log_ptr(conn));
  txn_answered(conn, false);
}

void drop(Connection* conn) {
  reply_discard_ok(conn);
  if (!conn->closed) txn_answered(conn, false);
}

// One row of the virus verdict table. A row whose setting is off (block is
// null or false) lets the message go on to the next row; rows with a discard
// setting drop instead of refusing when it is on.
struct VirusRow {
  int bits;
  const bool* discard;  // null: the row refuses or passes, never drops
  const bool* block;    // null: the row always acts
  const char* discard_log;
  const char* refuse_log;
  const char* reply;
  bool log_after_reply;
};

const std::array<VirusRow, 6> VIRUS_ROWS{{
    {SCAN_VIRUS_SIGNATURE, &config.discard_virus, nullptr,
     "%p, vscan response: virus found by signature, discard mail.\n",
     "%p, vscan response: 552 Seems to have a virus (signature).\n",
     "552 Seems to have a virus (signature).\r\n", false},
    {SCAN_ENCRYPTED, &config.discard_virus, nullptr,
     "%p, vscan response: encrypted file found, discard mail.\n",
     "%p, vscan response: 552 Encrypted file found (signature).\n",
     "552 Encrypted file found (signature).\r\n", false},
    {SCAN_ERROR, nullptr, &config.vscan_fail_block, nullptr,
     "%p, vscan response: 451 AV scanner error\n", "451 AV scanner error\r\n", true},
    {SCAN_TIMEOUT, nullptr, &config.vscan_timeout_block, nullptr,
     "%p, vscan response: 451 AV scanner timeout\n", "451 AV scanner timeout\r\n", false},
    {SCAN_VIRUS_VPS, &config.discard_virus, nullptr,
     "%p, vscan response: virus found by VPS, discard mail.\n",
     "%p, vscan response: 552 Seems to have a virus (VPS), reject\n",
     "552 Seems to have a virus (VPS).\r\n", false},
    {SCAN_FORBIDDEN_EXTENSION, &config.discard_virus, nullptr,
     "%p, vscan response: forbiden file extension found, discard mail.\n",
     "%p, vscan response: 552 File with restricted extension, reject\n",
     "552 File type not allowed.\r\n", false},
}};

// True when a row stopped the message.
bool apply_virus_rows(Connection* conn, int scan_result) {
  for (const VirusRow& row : VIRUS_ROWS) {
    if ((scan_result & row.bits) == 0) continue;
    if (row.block != nullptr && !*row.block) continue;
    if (row.discard != nullptr && *row.discard) {
      dlog(DLOG_SMTP, 4, row.discard_log, log_ptr(conn));
      drop(conn);
      return true;
    }
    if (row.log_after_reply) {
      refuse(conn, row.reply, row.refuse_log);
      return true;
    }
    dlog(DLOG_SMTP, 4, row.refuse_log, log_ptr(conn));
    refuse(conn, row.reply);
    return true;
  }
  return false;
}

const char* spam_tag_for(int scan_result) {
  if (scan_result & SCAN_SPAM_TAG) return config.spam_tag;
  if (scan_result & SCAN_SPAM_PLUS_TAG) return config.spam_plus_tag;
  return nullptr;
}

// The backend is connected and idle: the new message starts at MAIL FROM.
void reuse_backend(Connection* conn) {
  dlog(DLOG_SMTP, 9, "backend already connected\n");
  conn->noop_timer.reset();
  CharsPtr command(be_mail_command(conn));
  int n = static_cast<int>(strlen(command.get()));
  if (comm_write(conn->receiver_fd, command.release(), n, generic_be_write_callback, conn, free) !=
      0) {
    close_connection(conn);
    return;
  }
  conn->be_state = BE_MAIL;
  dlog(DLOG_SMTP, 4, "%p, sent 'MAIL FROM:<%s>' to backend\n", log_ptr(conn),
       conn->txn->from->data);
}

// The Subject tag goes into a copy renamed over the scan file, so the file
// is opened again. False when the message was refused instead.
bool tag_subject(Connection* conn, Message* m, const char* tag) {
  if (rfc822_tag("subject:", tag, m->file->name.c_str()) < 0) {
    dlog(DLOG_SMTP, 1, "%p, cannot tag the subject of %s\n", log_ptr(conn), m->file->name.c_str());
    refuse(conn, "451 Internal Error\r\n", "%p, vscan response: 451 Internal Error\n");
    return false;
  }
  m->dot_lines = true;  // the copy was written by other hands
  if (!spool_reopen(m->file.get())) {
    dlog(DLOG_SMTP, 1, "virus_callback: cannot open scan file. %m\n");
    refuse(conn, "451 Couldn't open temporary file\r\n",
           "%p, vscan response: 451 Couldn't open temporary file\n");
    return false;
  }
  return true;
}

}  // namespace

void reply_discard_ok(Connection* conn) {
  smtp_reply(conn, "250 OK\r\n");
}

void spam_callback(void* data, int result) {
  auto* conn = static_cast<Connection*>(data);
  Message* m = txn_message(conn);
  if (m == nullptr) return;
  dlog(DLOG_SMTP, 4, "%p, spam_callback r = %#x\n", data, result);
  m->scan_timer.reset();
  m->spam_request.reset();

  switch (result) {
    case 0:
      dlog(DLOG_SMTP, 9, "Normal scan result.\n");
      break;
    case 1:
      m->scan_result |= SCAN_SPAM_TAG;
      break;
    case 2:
      m->scan_result |= SCAN_SPAM_PLUS_TAG;
      break;
    case 3:
      if (config.discard_spam) {
        drop(conn);
        return;
      }
      refuse(conn, "552 Seems to be spam.\r\n", "%p, vscan response: 552 Seems to be spam.\n");
      return;
    default:
      break;
  }

  if (!config.use_scanner) {
    virus_callback(0, conn);
    return;
  }
  m->vs_request.reset();
  m->scan_timer.reset(timer_add(config.scanner_timeout, av_scan_timeout, conn));
  // With the scanner down and bypass on, virus_callback runs inside this call
  // and may already have relayed, refused or closed: m is touched again only
  // when a request came back, which means it has not run.
  VscanRequest* request = virus_scan(m->file->name.c_str(), conn->sender_addr.sin_addr.s_addr,
                                     conn->receiver_addr.sin_addr.s_addr, m->msgid.get(), 1,
                                     virus_callback, conn, config.vscan_bypass);
  if (request != nullptr) m->vs_request.reset(request);
  dlog(DLOG_SMTP, 7, "New vscan request %p for connection %p\n", static_cast<void*>(request), data);
}

void virus_callback(int result, void* data) {
  auto* conn = static_cast<Connection*>(data);
  Message* m = txn_message(conn);
  if (m == nullptr) return;
  dlog(DLOG_SMTP, 4, "%p, virus_callback r = %#x\n", data, result);
  m->scan_timer.reset();
  m->vs_request.reset();
  m->scan_result |= result;

  if (apply_virus_rows(conn, m->scan_result)) return;

  const char* tag = spam_tag_for(m->scan_result);
  if (tag != nullptr && !tag_subject(conn, m, tag)) return;

  dlog(DLOG_SMTP, 7, "%p, ready to start backend\n", data);
  // From here the backend dialogue gives the sender its final answer; the
  // sender stays unread until then.
  conn->txn->phase = TxnPhase::RELAYING;
  reset_idle_timer(conn);
  if (conn->receiver_fd == -1) {
    backend_start(conn);
    return;
  }
  reuse_backend(conn);
}
