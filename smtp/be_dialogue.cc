// The client dialogue that replays a cleared transaction to the backend: EHLO
// (HELO when refused), the sender's AUTH LOGIN when passed through, MAIL FROM,
// the RCPT TOs, DATA and the message file. A backend that announces
// PIPELINING gets MAIL FROM, the RCPT TOs and DATA in one write; any other
// one command at a time. Either way the replies are taken one by one, in
// the commands' order. Every reply line the backend sends arrives in
// be_handle_line through response_handler; be_state says what it answers.
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "foundation/text.h"
#include "scan/dsn.h"
#include "smtp/auth.h"
#include "smtp/backend.h"
#include "smtp/config.h"
#include "smtp/verdict.h"

namespace {

// line is command_line, which the next read overwrites, so a queued write
// needs a copy of its own.
int write_line_copy(int fd, const DynString* line, CommHandler handler, Connection* conn) {
  char* copy = static_cast<char*>(malloc(static_cast<size_t>(line->length) + 1));
  if (copy == nullptr) fatal_exit("Out of memory: %m\n");
  memcpy(copy, line->data, static_cast<size_t>(line->length) + 1);
  return comm_write(fd, copy, line->length, handler, conn, free);
}

// Writes one command. An owned text came from xasprintf and goes back with
// free. False when the write failed at once: its completion has told the
// sender, and the whole connection is closed here.
bool send_command(Connection* conn, const char* text, bool owned) {
  if (comm_write(conn->receiver_fd, text, static_cast<int>(strlen(text)), generic_be_write_callback,
                 conn, owned ? free : nullptr) == 0)
    return true;
  close_connection(conn);
  return false;
}

// The backend refused or failed: log, hand its line to the sender, tear
// down. Formats take conn and, where they have a %s, the line.
int problem(Connection* conn, const DynString* line, const char* format) {
  dlog(DLOG_SMTP, 3, format, log_ptr(conn), line->data);
  be_problem(conn, line);
  return 1;
}

void go_idle(Connection* conn) {
  conn->noop_timer.reset(timer_add(config.noop_interval, be_send_noop, conn));
  dlog(DLOG_SMTP, 9, "backend in idle state\n");
  conn->be_state = BE_IDLE;
}

int send_mail_from(Connection* conn, const DynString* line, const char* null_format) {
  if (conn->txn == nullptr) return problem(conn, line, null_format);
  if (!send_command(conn, be_mail_command(conn), true)) return 1;
  if (conn->closed) return 1;
  dlog(DLOG_SMTP, 4, "%p, sent 'MAIL FROM:<%s>' to backend\n", log_ptr(conn),
       conn->txn->from->data);
  conn->be_state = BE_MAIL;
  return 0;
}

// The recipient under rcpt_cursor: the backend gets them newest first.
const char* cursor_address(const Connection* conn) {
  const Transaction* txn = conn->txn.get();
  if (txn == nullptr || txn->rcpt_cursor < 0 ||
      static_cast<size_t>(txn->rcpt_cursor) >= txn->rcpts.size())
    return nullptr;
  return txn->rcpts[static_cast<size_t>(txn->rcpt_cursor)]->data;
}

int send_rcpt(Connection* conn) {
  const char* address = cursor_address(conn);
  char* text;
  xasprintf(&text, "RCPT TO:<%s>\r\n", address);
  if (!send_command(conn, text, true)) return 1;
  if (conn->closed) return 1;
  dlog(DLOG_SMTP, 4, "%p, sent 'RCPT TO:<%s>' to backend\n", log_ptr(conn), address);
  conn->be_state = BE_RCPT;
  return 0;
}

// The recipient under rcpt_cursor has been answered: the next one, or DATA
// (already written when pipelining).
int advance_rcpt(Connection* conn, const DynString* line) {
  conn->txn->rcpt_cursor -= 1;
  if (conn->be_pipelining) {
    if (conn->txn->rcpt_cursor < 0) conn->be_state = BE_DATA;
    return 0;
  }
  if (conn->txn->rcpt_cursor < 0) {
    if (!send_command(conn, "DATA\r\n", false)) return 1;
    dlog(DLOG_SMTP, 4, "%p, sent 'DATA' to backend\n", log_ptr(conn));
    conn->be_state = BE_DATA;
    return 0;
  }
  if (cursor_address(conn) == nullptr)
    return problem(conn, line, "%p, unexpected error in BE_RCPT state - null rcpt to.\n");
  return send_rcpt(conn);
}

// One line of the EHLO reply: does it announce the extension?
bool announces(const DynString* line, const char* extension) {
  const size_t n = strlen(extension);
  if (static_cast<size_t>(line->length) < 4 + n + 1) return false;
  const char* keyword = line->data + 4;
  return strncasecmp(keyword, extension, n) == 0 && strchr(" \r\n", keyword[n]) != nullptr;
}

// XCLIENT values are xtext: "+", "=" and bytes outside "!" to "~" as "+XX".
std::string xtext(const char* value) {
  std::string out;
  for (const char* p = value; *p != '\0'; p++) {
    const auto c = static_cast<unsigned char>(*p);
    if (c < '!' || c > '~' || c == '+' || c == '=') {
      char hex[4];
      snprintf(hex, sizeof hex, "+%02X", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// A refused AUTH step: the message goes on unauthenticated after an RSET.
int auth_rset(Connection* conn) {
  if (!send_command(conn, "RSET\r\n", false)) return 1;
  conn->be_state = BE_AUTH_RSET;
  return 0;
}

bool is_2xx(int c) {
  return c >= 200 && c <= 299;
}

bool is_3xx(int c) {
  return c >= 300 && c <= 399;
}

int send_ehlo(Connection* conn, const DynString* line) {
  conn->be_8bitmime = conn->be_xclient = conn->be_pipelining = false;
  if (conn->helo_domain == nullptr)
    return problem(conn, line, "%p, unexpected error in BE_INIT state - null helo domain.\n");
  char* text;
  xasprintf(&text, "EHLO %s\r\n", conn->helo_domain->data);
  if (!send_command(conn, text, true)) return 1;
  dlog(DLOG_SMTP, 4, "%p, sent 'EHLO %s' to backend\n", log_ptr(conn), conn->helo_domain->data);
  conn->be_state = BE_EHLO;
  return 0;
}

int on_init(Connection* conn, const DynString* line, int c, bool more) {
  if (!is_2xx(c)) return problem(conn, line, "%p, Backend problem in init state: %s");
  if (more) return 0;
  conn->transaction_pending = false;
  return send_ehlo(conn, line);
}

// Names the sender to the backend, which then starts its session over: the
// backend logs and checks the sender's address, not the proxy's.
int send_xclient(Connection* conn) {
  conn->xclient_sent = true;
  const Dotted addr(conn->sender_addr);
  char* text;
  xasprintf(
      &text, "XCLIENT ADDR=%s NAME=[UNAVAILABLE] HELO=%s\r\n", addr.text,
      conn->helo_domain != nullptr ? xtext(conn->helo_domain->data).c_str() : "[UNAVAILABLE]");
  if (!send_command(conn, text, true)) return 1;
  dlog(DLOG_SMTP, 4, "%p, sent 'XCLIENT ADDR=%s' to backend\n", log_ptr(conn), addr.text);
  conn->be_state = BE_XCLIENT;
  return 0;
}

// The backend's session is ready for the message: AUTH first when the
// sender's is passed through, else MAIL FROM.
int after_ehlo(Connection* conn, const DynString* line) {
  // The sender's lines are passed on as typed: only plain base64 ones, since
  // a stray CR inside one would be a line end, and a command, to some backends.
  if (config.passthrough_auth && is_base64_line(conn->auth_user.get()) &&
      is_base64_line(conn->auth_pass.get())) {
    if (!send_command(conn, "auth login\r\n", false)) return 1;
    dlog(DLOG_SMTP, 4, "%p, sent 'auth login' to backend\n", log_ptr(conn));
    conn->be_state = BE_AUTH_LOGIN;
    return 0;
  }
  return send_mail_from(conn, line, "%p, unexpected error in BE_EHLO state - null maill from\n");
}

int on_xclient(Connection* conn, const DynString* line, int c, bool more) {
  if (more) return 0;
  if (c == 220) return send_ehlo(conn, line);
  // Not authorised (550) or not now: the message still goes, from our address.
  dlog(DLOG_SMTP, 3, "%p, XCLIENT refused, going on without it: %s", log_ptr(conn), line->data);
  return after_ehlo(conn, line);
}

int on_ehlo(Connection* conn, const DynString* line, int c, bool more) {
  if (c >= 500 && c <= 509) {
    // A HELO from the sender during the relay may have cleared the domain.
    if (conn->helo_domain == nullptr)
      return problem(conn, line, "%p, unexpected error in BE_EHLO state - null helo domain.\n");
    char* text;
    xasprintf(&text, "HELO %s\r\n", conn->helo_domain->data);
    if (!send_command(conn, text, true)) return 1;
    dlog(DLOG_SMTP, 4, "%p, backend MTA doesn't support EHLO?\n", log_ptr(conn));
    conn->be_state = BE_HELO;
    return 0;
  }
  if (!is_2xx(c)) return problem(conn, line, "%p, Backend problem in EHLO state: %s");
  if (announces(line, "8BITMIME")) conn->be_8bitmime = true;
  if (announces(line, "XCLIENT")) conn->be_xclient = true;
  if (announces(line, "PIPELINING")) conn->be_pipelining = true;
  if (more) return 0;
  if (config.xclient && conn->be_xclient && !conn->xclient_sent) return send_xclient(conn);
  return after_ehlo(conn, line);
}

// A queued write owns its buffer until it is out, so the stored line goes
// out as a copy; a missing line ends the attempt.
char* auth_line_copy(Connection* conn, const char* stored, const DynString* line) {
  if (stored != nullptr) {
    char* copy = strdup(stored);
    if (copy == nullptr) fatal_exit("Out of memory: %m\n");
    return copy;
  }
  dlog(DLOG_SMTP, 3, "%p, unexpected error in BE_AUTH state - null auth line.\n", log_ptr(conn));
  be_problem(conn, line);
  return nullptr;
}

int on_auth_login(Connection* conn, const DynString* line, int c, bool more) {
  if (c != 334) {
    dlog(DLOG_SMTP, 3, "%p, auth login problem %s", log_ptr(conn), line->data);
    return auth_rset(conn);
  }
  if (more) return 0;
  char* user = auth_line_copy(conn, conn->auth_user.get(), line);
  if (user == nullptr) return 1;
  // A write that fails at once has told the sender and torn the backend down.
  if (comm_write(conn->receiver_fd, user, static_cast<int>(strlen(user)), generic_be_write_callback,
                 conn, free) < 0)
    return 1;
  if (conn->closed) return 1;
  dlog(DLOG_SMTP, 4, "%p, sent '%s' to backend\n", log_ptr(conn), "<hidden>");
  conn->be_state = BE_AUTH_USER;
  return 0;
}

int on_auth_user(Connection* conn, const DynString* line, int c, bool more) {
  if (c != 334) {
    dlog(DLOG_SMTP, 3, "%p, auth user problem: %s", log_ptr(conn), line->data);
    return auth_rset(conn);
  }
  if (more) return 0;
  char* pass = auth_line_copy(conn, conn->auth_pass.get(), line);
  if (pass == nullptr || !send_command(conn, pass, true)) return 1;
  dlog(DLOG_SMTP, 4, "%p, sent '%s' to backend\n", log_ptr(conn), "<hidden>");
  conn->be_state = BE_AUTH_PASSWORD;
  return 0;
}

int on_mail(Connection* conn, const DynString* line, int c, bool more) {
  if (!is_2xx(c)) return problem(conn, line, "%p, Backend problem in MAIL state: %s");
  if (more) return 0;
  conn->be_state = BE_RCPT;
  if (conn->txn == nullptr || conn->txn->rcpts.empty())
    return problem(conn, line, "%p, unexpected error in BE_MAIL state - null rcpt list.\n");
  conn->txn->rcpt_cursor = static_cast<int>(conn->txn->rcpts.size()) - 1;
  return conn->be_pipelining ? 0 : send_rcpt(conn);
}

int on_rcpt(Connection* conn, const DynString* line, int c, bool more) {
  // A multi-line refusal is counted once, on its last line.
  if (more) return 0;
  const char* address = cursor_address(conn);
  if (address == nullptr)
    return problem(conn, line, "%p, unexpected error in BE_RCPT state - null rcpt to.\n");
  if (is_2xx(c)) return advance_rcpt(conn, line);
  add_failed_rcpt(conn, smtp_checked(dstr_from_cstr(address)));
  dlog(DLOG_SMTP, 3, "Backend problem in RCPT state: %s", line->data);
  if (conn->txn->failed_rcpts.size() == conn->txn->rcpts.size()) {
    be_problem(conn, line);
    return 1;
  }
  return advance_rcpt(conn, line);
}

int on_data(Connection* conn, const DynString* line, int c, bool more) {
  if (!is_3xx(c)) return problem(conn, line, "%p, Backend problem in DATA state: %s");
  if (more) return 0;
  conn->be_state = BE_SENT_DATA;
  if (be_send_file(conn) != 0 || conn->closed) {
    dlog(DLOG_SMTP, 1, "%p, Couldn't send file in DATA state: %m\n", log_ptr(conn));
    if (conn->closed) return 1;
    DstrPtr reply(smtp_checked(dstr_from_cstr("451 Failed to send email to backend\r\n")));
    be_problem(conn, reply.get());
    return 1;
  }
  // A send that failed at once has told the sender and ended the backend.
  if (conn->receiver_fd == -1) return 1;
  dlog(DLOG_SMTP, 4, "%p, fnished sening data to backend\n", log_ptr(conn));
  return 0;
}

// The refused recipients listed in a notification to the message's sender.
void notify_refused(Connection* conn) {
  const Transaction* txn = conn->txn.get();
  const Message* m = txn_message(conn);
  DsnMessage note{conn, txn->from->data, {}, m != nullptr && m->file ? m->file->fd : -1};
  for (auto it = txn->failed_rcpts.rbegin(); it != txn->failed_rcpts.rend(); ++it)
    note.refused.push_back((*it)->data);
  send_dsn(note, DsnSettings{config.my_domain, config.mailer_temp_dir, config.mailer_local_dir,
                             config.max_msg_size});
}

int on_sent_data(Connection* conn, const DynString* line, int c, bool more) {
  if (!is_2xx(c)) return problem(conn, line, "%p, Backend problem in SENT_DATA state: %s");
  if (more) return 0;
  // The proxy's own acceptance, never the backend's text: the sender must
  // not see the backend's queue id or wording.
  if (!smtp_reply(conn, "250 OK\r\n") || conn->closed) return 1;
  dlog(DLOG_SMTP, 4, "%p, response to sender DATA: 250 OK\n", log_ptr(conn));
  if (!conn->txn->failed_rcpts.empty()) notify_refused(conn);
  go_idle(conn);
  txn_answered(conn, true);
  return 0;
}

int on_rset(Connection* conn, const DynString* line) {
  if (write_line_copy(conn->sender_fd, line, sender_write_callback, conn) != 0) {
    close_connection(conn);
    return 1;
  }
  if (conn->closed) return 1;
  dlog(DLOG_SMTP, 4, "%p, response to sender RESET: %s\n", log_ptr(conn), line->data);
  go_idle(conn);
  txn_answered(conn, true);
  return 0;
}

}  // namespace

int reply_code(const DynString* line) {
  if (line->length == 0) return -1;
  if (line->data[line->length - 1] != '\n') return -2;
  int code = static_cast<int>(strtol(line->data, nullptr, 10));
  if (line->length > 3 && line->data[3] == '-') return -code;
  return code;
}

int line_incomplete(const DynString* line) {
  return line->length == 0 || line->data[line->length - 1] != '\n' ? 1 : 0;
}

char* be_mail_command(const Connection* conn) {
  const Transaction* txn = conn->txn.get();
  std::string text = std::string("MAIL FROM:<") + txn->from->data + ">" +
                     (txn->body_8bitmime && conn->be_8bitmime ? " BODY=8BITMIME" : "") + "\r\n";
  if (conn->be_pipelining) {
    // Newest recipient first, as rcpt_cursor walks them.
    for (auto it = txn->rcpts.rbegin(); it != txn->rcpts.rend(); ++it)
      text.append("RCPT TO:<").append((*it)->data).append(">\r\n");
    text.append("DATA\r\n");
  }
  char* copy = strdup(text.c_str());
  if (copy == nullptr) fatal_exit("Out of memory: %m\n");
  return copy;
}

void be_problem(Connection* conn, const DynString* reply) {
  dlog(DLOG_SMTP, 5, "Backend problem, connection %p\n", log_ptr(conn));
  const TxnPhase phase = txn_phase(conn);
  const bool rset = conn->be_state == BE_RSET;
  // Working for the sender: the failure is the answer it waits for. An idle
  // backend's failure is news a sender between messages may hear, but one
  // in the middle of a message (or of its reading) must not.
  const bool answer = phase == TxnPhase::RELAYING || rset;
  if (answer || phase == TxnPhase::ENVELOPE) {
    if (reply->length == 0) {
      if (!smtp_reply(conn, "421 Backend closed connection\r\n")) return;
    } else {
      if (write_line_copy(conn->sender_fd, reply, sender_write_callback, conn) != 0) {
        close_connection(conn);
        return;
      }
      dlog(DLOG_SMTP, 4, "%p, backend problem, responese to sender: %s", log_ptr(conn),
           reply->data);
    }
  }
  // Courtesy only: a QUIT that cannot go out at once is dropped with the
  // socket below, and no answer to it is awaited.
  //
  // Not while a pipelined DATA is unanswered (MAIL refused, or every RCPT):
  // the backend should refuse that DATA (503 or 554), but RFC 2920 warns
  // that it may say 354 all the same, and then a QUIT would be message text.
  // RFC 2920 has the client end such a DATA with a lone ".", which leaves it
  // to the backend to refuse an empty message without recipients. Closing
  // unannounced is safe whatever the backend did: a connection that ends
  // inside DATA cancels the transaction as an RSET would (RFC 5321 3.8), so
  // nothing can be delivered. The sender has its refusal either way, as
  // without pipelining, and the backend connection goes as it did then.
  const bool data_ahead =
      conn->be_pipelining && (conn->be_state == BE_MAIL || conn->be_state == BE_RCPT);
  if (reply->length > 0 && !conn->closed && !data_ahead &&
      comm_write(conn->receiver_fd, "QUIT\r\n", 6, nullptr, nullptr, nullptr) != 0) {
    close_connection(conn);
    return;
  }
  close_backend(conn);
  if (!conn->closed && answer) txn_answered(conn, rset);
}

int be_handle_line(Connection* conn, DynString* line) {
  // Backend activity keeps the sender connection alive too, except the
  // answers to keep-alive NOOPs.
  if (conn->be_state != BE_IDLE) reset_idle_timer(conn);
  if (line_incomplete(line) && conn->be_state != BE_QUIT) {
    dlog(DLOG_SMTP, 3, "%p, Partial response. Aborted transfer\n", log_ptr(conn));
    be_problem(conn, line);
    return 1;
  }
  int c = reply_code(line);
  bool more = c < 0;
  if (c < 0) c = -c;
  dlog(DLOG_SMTP, 4, "%p, Backend response=%d (incomplete=%d)\n", log_ptr(conn), c, more ? 1 : 0);
  // Replies come in the order of the commands. A keep-alive NOOP written
  // just before a new message's MAIL FROM is answered first; read as the
  // answer to MAIL it would shift every later reply by one, up to a RCPT's
  // 250 being forwarded to the sender as if it were the message's.
  if (conn->noops_pending > 0) {
    if (!more) conn->noops_pending -= 1;
    if (is_2xx(c)) return 0;
  }

  switch (conn->be_state) {
    case BE_INIT:
      return on_init(conn, line, c, more);
    case BE_EHLO:
      return on_ehlo(conn, line, c, more);
    case BE_HELO:
      if (!is_2xx(c)) return problem(conn, line, "%p, Backend problem in HELO state: %s");
      if (more) return 0;
      return send_mail_from(conn, line,
                            "%p, unexpected error in BE_HELO state - null maill from\n");
    case BE_AUTH_LOGIN:
      return on_auth_login(conn, line, c, more);
    case BE_AUTH_USER:
      return on_auth_user(conn, line, c, more);
    case BE_AUTH_PASSWORD:
      if (!is_2xx(c)) return problem(conn, line, "%p, password not accepted: %s");
      if (more) return 0;
      return send_mail_from(conn, line,
                            "%p, unexpected error in BE_AUTH_PASSWORD state - null maill from\n");
    case BE_AUTH_RSET:
      if (!is_2xx(c)) return problem(conn, line, "%p, Reset problem: %s");
      if (more) return 0;
      return send_mail_from(conn, line,
                            "%p, unexpected error in BE_AUTH_RSET state - null maill from\n");
    case BE_MAIL:
      return on_mail(conn, line, c, more);
    case BE_RCPT:
      return on_rcpt(conn, line, c, more);
    case BE_DATA:
      return on_data(conn, line, c, more);
    case BE_SENT_DATA:
      return on_sent_data(conn, line, c, more);
    case BE_QUIT:
      dlog(DLOG_SMTP, 5, "Quit response: %d\n", c);
      close_backend(conn);
      return 1;
    case BE_RSET:
      return on_rset(conn, line);
    case BE_XCLIENT:
      return on_xclient(conn, line, c, more);
    case BE_IDLE:
      if (!is_2xx(c)) return problem(conn, line, "%p, Backend problem in IDEL state: %s");
      return 0;
    default:
      fatal_exit("Wierd state at %s %s %d\n", __FILE__, "be_handle_line", __LINE__);
  }
}
