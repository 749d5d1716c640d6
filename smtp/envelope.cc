// Envelope commands: MAIL FROM (sender, null sender, SIZE) and RCPT TO
// (recipient limit and relay control). Both find the address with addr_parse.
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "smtp/address.h"
#include "smtp/config.h"
#include "smtp/smtp.h"

namespace {

// Scratch strings for RCPT, made on first use and reused by every
// connection: only the accepted address is copied into the envelope.
DynString* rcpt_address = nullptr;
DynString* rcpt_domain = nullptr;

bool begins_with(const DynString* line, const char* prefix) {
  size_t n = strlen(prefix);
  return static_cast<size_t>(line->length) >= n && strncasecmp(line->data, prefix, n) == 0;
}

bool is_space(char c) {
  return c != '\0' && strchr(" \t\n\v\f\r", c) != nullptr;
}

// Nothing but white space after the line's first colon.
bool empty_after_colon(const DynString* line) {
  const char* colon = static_cast<const char*>(memchr(line->data, ':', line->length));
  if (colon == nullptr) return false;
  const char* end = line->data + line->length;
  const char* p = colon + 1;
  while (p < end && is_space(*p)) ++p;
  return p == end;
}

// The SIZE= parameter anywhere in the line, case-sensitive; 0 when absent or
// without digits.
bool find_size(const DynString* line, int64_t* size) {
  const void* at = memmem(line->data, line->length, "SIZE=", 5);
  if (at == nullptr) return false;
  // strtoll skips leading white space and stops at the first non-digit; the
  // line's terminating NUL bounds it.
  *size = strtoll(static_cast<const char*>(at) + 5, nullptr, 10);
  return true;
}

// BODY=8BITMIME among the parameters after the address (a local part may
// hold any text, so the address itself is not searched).
bool asks_8bitmime(const DynString* line) {
  const char* params = static_cast<const char*>(memrchr(line->data, '>', line->length));
  if (params == nullptr) {
    params = static_cast<const char*>(memchr(line->data, ':', line->length));
    if (params == nullptr) return false;
    for (params++; is_space(*params); params++) {
    }
    while (*params != '\0' && !is_space(*params)) params++;
  }
  return strcasestr(params, "BODY=8BITMIME") != nullptr;
}

// CR, LF, NUL and the other control characters must never reach a backend
// command, a scanner request or a notification: an address holding one is
// refused outright (a quoted local part may otherwise hold anything).
bool has_control(const DynString* s) {
  for (int i = 0; i < s->length; i++) {
    unsigned char c = static_cast<unsigned char>(s->data[i]);
    if (c < 0x20 || c == 0x7f) return true;
  }
  return false;
}

// A refused MAIL: the reply, the error count, and the envelope dropped.
int refuse_mail(Connection* conn, const char* reply, const char* log) {
  smtp_reply(conn, reply);
  conn->errors += 1;
  txn_end(conn);
  dlog(DLOG_SMTP, 4, "%p: response to MAIL FROM: %s\n", log_ptr(conn), log);
  return conn->closed;
}

int refuse_rcpt(Connection* conn, const char* reply, const char* log) {
  smtp_reply(conn, reply);
  conn->errors += 1;
  dlog(DLOG_SMTP, 4, "%p: response to RCPT TO: %s\n", log_ptr(conn), log);
  return conn->closed;
}

}  // namespace

int smtp_mail(const DynString* line, Connection* conn) {
  if (conn->transaction_pending) {
    smtp_reply(conn, "501 Mail transaction pending\r\n");
    return conn->closed;
  }
  if (conn->txn != nullptr) conn->txn->declared_size = 0;
  dlog(DLOG_SMTP, 9, "mail line: %s", line->data);

  // These two refusals leave an earlier envelope as it was.
  if (!begins_with(line, "mail from:")) {
    smtp_reply(conn, "500 malformed mail from\r\n");
    conn->errors += 1;
    dlog(DLOG_SMTP, 4, "%p: response to MAIL FROM: 500 malformed mail from\n", log_ptr(conn));
    return conn->closed;
  }
  if (conn->helo_domain == nullptr) {
    smtp_reply(conn, "553 Need EHLO before MAIL\r\n");
    conn->errors += 1;
    dlog(DLOG_SMTP, 4, "%p: response to MAIL FROM: 553 Need EHLO before MAIL\n", log_ptr(conn));
    return conn->closed;
  }

  txn_end(conn);
  if (conn->closed) return 1;
  conn->txn.reset(new (std::nothrow) Transaction{});
  if (conn->txn == nullptr) fatal_exit("Out of memory: %m\n");
  Transaction* txn = conn->txn.get();
  txn->from.reset(smtp_checked(dstr_new(100)));
  txn->from_domain.reset(smtp_checked(dstr_new(100)));

  if (empty_after_colon(line)) {
    dlog(DLOG_SMTP, 9, "empty MAIL FROM field\n");
  } else if (addr_parse(line, txn->from_domain.get(), txn->from.get()) != 0) {
    return refuse_mail(conn, "552 Invalid path\r\n", "552 Invalid path");
  } else if (has_control(txn->from.get())) {
    return refuse_mail(conn, "501 Invalid address\r\n", "501 Invalid address");
  }

  if (!config.allow_null_sender) {
    if (txn->from->length == 0) return refuse_mail(conn, "552 Null sender\r\n", "552 Null sender");
    if (txn->from_domain->length == 0)
      return refuse_mail(conn, "552 Missing domain\r\n", "552 Missing domain");
  }

  if (find_size(line, &txn->declared_size)) {
    dlog(DLOG_SMTP, 9, "%p, MAIL FROM has SIZE=%lld parameter\n", log_ptr(conn),
         static_cast<long long>(txn->declared_size));
    if (txn->declared_size > config.max_msg_size) {
      return refuse_mail(conn, "552 Message size exceeds fixed maximum message size\r\n",
                         "552 Message size exceeds fixed maximum message size");
    }
  }

  txn->body_8bitmime = asks_8bitmime(line);
  smtp_reply(conn, "250 OK\r\n");
  dlog(DLOG_SMTP, 4, "%p, response to MAIL FROM: 250 OK\n", log_ptr(conn));
  return conn->closed;
}

int smtp_rcpt(const DynString* line, Connection* conn) {
  if (conn->transaction_pending) {
    smtp_reply(conn, "501 Mail transaction pending\r\n");
    return conn->closed;
  }
  dlog(DLOG_SMTP, 9, "rcpt line: %s", line->data);
  if (rcpt_address == nullptr) rcpt_address = smtp_checked(dstr_new(100));
  if (rcpt_domain == nullptr) rcpt_domain = smtp_checked(dstr_new(100));

  if (!begins_with(line, "rcpt to:"))
    return refuse_rcpt(conn, "500 malformed rcpt command\r\n", "500 malformed rcpt command");
  if (conn->txn == nullptr)
    return refuse_rcpt(conn, "503 Need MAIL before RCPT\r\n", "503 Need MAIL before RCPT");
  // Checked before the address, so the limit holds even for recipients that
  // relay control would refuse anyway.
  if (conn->txn->rcpts.size() >= static_cast<size_t>(config.max_rcpt))
    return refuse_rcpt(conn, "550 Too many recipients\r\n", "550 Too many recipients");
  if (addr_parse(line, rcpt_domain, rcpt_address) != 0)
    return refuse_rcpt(conn, "552 Invalid path\r\n", "552 Invalid path");
  if (has_control(rcpt_address))
    return refuse_rcpt(conn, "501 Invalid address\r\n", "501 Invalid address");

  if (!conn->can_relay && !is_local_domain(rcpt_domain->data)) {
    dlog(DLOG_SMTP, 9, "Relaying denied to %s\n", rcpt_domain->data);
    smtp_reply(conn, "550 relaying denied\r\n");
    conn->errors += 1;
    dlog(DLOG_SMTP, 4, "%p, response to RCPT TO: 550 relaying denied\n", log_ptr(conn));
    return conn->closed;
  }

  add_rcpt(conn, smtp_checked(dstr_copy(rcpt_address)));
  smtp_reply(conn, "250 OK\r\n");
  dlog(DLOG_SMTP, 4, "%p, response to RCPT TO: 250 OK\n", log_ptr(conn));
  return conn->closed;
}

void add_rcpt(Connection* conn, DynString* address) {
  conn->txn->rcpts.emplace_back(address);
}

void add_failed_rcpt(Connection* conn, DynString* address) {
  conn->txn->failed_rcpts.emplace_back(address);
}
