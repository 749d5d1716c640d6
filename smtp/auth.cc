// AUTH LOGIN: the command, the user name and password lines, the local check
// against the password table, and the base64 decoder the check needs.
#include "smtp/auth.h"

#include <arpa/inet.h>
#include <crypt.h>
#include <strings.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "foundation/fd.h"
#include "smtp/config.h"

namespace {

constexpr const char* USER_PROMPT = "334 VXNlcm5hbWU6\r\n";
constexpr const char* PASS_PROMPT = "334 UGFzc3dvcmQ6\r\n";
constexpr const char* PENDING = "501 Mail transaction pending\r\n";
constexpr const char* ABORTED = "501 Authentication aborted by sender\r\n";
constexpr const char* ACCEPTED = "235 Authentication accepted\r\n";
constexpr const char* REJECTED = "500 Authentication rejected\r\n";
// Logged in place of user names, passwords and their hashes, in any form.
constexpr const char* HIDDEN = "<hidden>";

constexpr int B64_ILLEGAL = -1;
constexpr int B64_PAD = 64;

// Value of every byte: 0 to 63 for the alphabet, B64_PAD for "=", B64_ILLEGAL
// for everything else (bytes from 128 up included).
constexpr std::array<int, 256> B64_TABLE = [] {
  std::array<int, 256> t{};
  t.fill(B64_ILLEGAL);
  const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (int i = 0; i < 64; ++i) t[static_cast<unsigned char>(alphabet[i])] = i;
  t['='] = B64_PAD;
  return t;
}();

CharsPtr checked_strdup(const char* s) {
  char* copy = strdup(s);
  if (copy == nullptr) fatal_exit("Out of memory: %m\n");
  return CharsPtr(copy);
}

// Reads the next user name or password line into command_line. False when
// the handler must not go on: it waits for more (re-registered) or the
// connection was closed.
bool read_auth_line(int fd, Connection* conn, bool password) {
  command_line->length = 0;
  command_line->data[0] = '\0';
  errno = 0;
  if (lstream_readline(command_line, conn->sender_stream.get(), '\n', COMMAND_LINE_MAX) == -1) {
    if (is_transient_errno(errno)) {
      comm_read(fd, password ? password_handler : username_handler, conn);
    } else {
      dlog(DLOG_SMTP, 1, password ? "Auth password error: %m\n" : "Auth username error: %m\n");
      close_connection(conn);
    }
    return false;
  }
  // A sender that hangs up in the middle of the dialogue has nothing more to say.
  if (command_line->length == 0) {
    dlog(DLOG_SMTP, 4, "Connection closed by sender(%s:%d).\n",
         inet_ntoa(conn->sender_addr.sin_addr), ntohs(conn->sender_addr.sin_port));
    close_connection(conn);
    return false;
  }
  return true;
}

// A "*" line ends the dialogue; the sender is back at the command prompt.
bool cancelled(Connection* conn) {
  if (command_line->data[0] != '*') return false;
  dlog(DLOG_SMTP, 4, "%p, Authentication canceled by sender.\n", log_ptr(conn));
  smtp_reply_and_resume(conn, ABORTED);
  return true;
}

// Decoded text for the check; an undecodable line counts as empty.
std::string decode_or_empty(const char* line, bool password) {
  DstrPtr decoded(b64_decode(line));
  if (decoded == nullptr) {
    dlog(
        DLOG_SMTP, 3,
        password ? "Error decoding base64 password: %s\n" : "Error decoding base64 user name: %s\n",
        HIDDEN);
    return std::string();
  }
  // Compared and hashed as C strings: the text ends at a decoded NUL.
  return std::string(decoded->data);
}

// The front of both login steps: the sender's line stored in slot. Null when
// the handler has nothing more to do: the connection is gone, busy with a
// transaction, has no complete line yet, or the sender cancelled.
Connection* login_step(int fd, void* data, CharsPtr Connection::*slot, bool password) {
  auto* conn = static_cast<Connection*>(data);
  if (conn == nullptr || conn->closed) return nullptr;
  if (conn->transaction_pending) {
    smtp_reply(conn, PENDING);
    return nullptr;
  }
  if (!read_auth_line(fd, conn, password)) return nullptr;
  conn->*slot = checked_strdup(command_line->data);
  return cancelled(conn) ? nullptr : conn;
}

}  // namespace

std::string auth_line_for_log(const DynString* line) {
  constexpr std::string_view BLANKS = " \t\r\n";
  std::string_view rest(line->data, line->length);
  std::string text(rest.substr(0, 4));
  rest.remove_prefix(text.size());
  for (bool first = true;; first = false) {
    size_t start = rest.find_first_not_of(BLANKS);
    if (start == std::string_view::npos) break;
    bool spaced = start > 0;
    rest.remove_prefix(start);
    std::string_view word = rest.substr(0, rest.find_first_of(BLANKS));
    rest.remove_prefix(word.size());
    // The one mechanism spoken here names nothing secret. Any other word may
    // be a credential: an initial response, or one sent where the mechanism
    // belongs.
    bool login = first && spaced && word.size() == 5 && strncasecmp(word.data(), "login", 5) == 0;
    text += ' ';
    text += login ? word : HIDDEN;
  }
  return text;
}

int smtp_auth(const DynString* line, Connection* conn) {
  dlog(DLOG_SMTP, 9, "auth: %s\n", auth_line_for_log(line).c_str());
  if (conn->transaction_pending) {
    smtp_reply(conn, PENDING);
    return conn->closed;
  }
  // "AUTH LOGIN\r\n" splits into three words, the last one empty; an
  // initial response makes a fourth.
  DstrListPtr words(dstr_split_set(line, " \t\r\n"));
  if (words == nullptr) fatal_exit("Out of memory: %m\n");
  if (words->count < 3) {
    smtp_reply(conn, "501 AUTH command needs parameter\r\n");
    dlog(DLOG_SMTP, 4, "%p, response to AUTH: 501 AUTH command needs parameter\n", log_ptr(conn));
    if (!conn->closed) txn_end(conn);
    return conn->closed;
  }
  if (strncasecmp(words->entries[1]->data, "login", 5) != 0) {
    smtp_reply(conn, "501 authentication type not supported\r\n");
    dlog(DLOG_SMTP, 4, "%p, response to AUTH: 501 authentication type not supported\n",
         log_ptr(conn));
    if (!conn->closed) txn_end(conn);
    return conn->closed;
  }

  conn->auth_user.reset();
  if (words->count > 3) {
    std::string initial = std::string(words->entries[2]->data) + "\r\n";
    conn->auth_user = checked_strdup(initial.c_str());
  }
  if (conn->auth_user != nullptr) {
    if (!smtp_reply(conn, PASS_PROMPT)) return 1;
    dlog(DLOG_SMTP, 4, "%p, response to AUTH: 334 UGFzc3dvcmQ6\n", log_ptr(conn));
    smtp_read_sender(conn, password_handler);
  } else {
    if (!smtp_reply(conn, USER_PROMPT)) return 1;
    dlog(DLOG_SMTP, 4, "%p, response to AUTH: 334 VXNlcm5hbWU6\n", log_ptr(conn));
    smtp_read_sender(conn, username_handler);
  }
  return 1;
}

void username_handler(int fd, void* data) {
  Connection* conn = login_step(fd, data, &Connection::auth_user, false);
  if (conn == nullptr || !smtp_reply(conn, PASS_PROMPT)) return;
  dlog(DLOG_SMTP, 4, "%p, response to 'User': 334 UGFzc3dvcmQ6\n", log_ptr(conn));
  smtp_read_sender(conn, password_handler);
}

void password_handler(int fd, void* data) {
  Connection* conn = login_step(fd, data, &Connection::auth_pass, true);
  if (conn == nullptr) return;
  bool accepted = true;
  // Without local checking the lines stay stored: the backend dialogue logs
  // in with them.
  if (config.relay_control && !config.passthrough_auth) {
    accepted = check_local_auth(conn->auth_user.get(), conn->auth_pass.get());
    if (accepted) {
      conn->auth_user.reset();
      conn->auth_pass.reset();
      dlog(DLOG_SMTP, 9, "Proxy local authentication accepted\n");
      conn->can_relay = true;
    }
  }
  dlog(DLOG_SMTP, 9,
       accepted ? "Authentication accepted by proxy\n" : "Authentication rejected by proxy\n");
  const char* reply = accepted ? ACCEPTED : REJECTED;
  dlog(DLOG_SMTP, 4, "%p, response to password: %s", log_ptr(conn), reply);
  if (accepted) {
    smtp_reply_and_resume(conn, reply);
    return;
  }
  // A wrong password is a sender error like any other, so a sender guessing
  // passwords is cut off at max_errors. The command reader checks the limit
  // before it reads: it closes the connection now, not at the next line.
  conn->errors += 1;
  if (smtp_reply(conn, reply) && !conn->closed) command_handler(fd, conn);
}

bool check_local_auth(const char* user_line, const char* pass_line) {
  if (passwd_entries.empty() || user_line == nullptr || pass_line == nullptr) return false;
  std::string user = decode_or_empty(user_line, false);
  std::string pass = decode_or_empty(pass_line, true);
  // Only the first entry of a name counts, whatever its outcome.
  const PasswdEntry* entry = nullptr;
  for (const PasswdEntry& e : passwd_entries) {
    if (e.user == user) {
      entry = &e;
      break;
    }
  }
  // An unknown name costs the same crypt as a known one, so the time of the
  // reply does not tell a guesser which names exist: the password is hashed
  // against the first entry's hash (the table's method and cost) and the
  // result thrown away. The stored hash is its own salt; crypt reports an
  // unusable one with null or a failure text that never equals the hash.
  const std::string& stored = entry != nullptr ? entry->password : passwd_entries.front().password;
  const char* hash = crypt(pass.c_str(), stored.c_str());
  return entry != nullptr && hash != nullptr && stored == hash;
}

bool is_base64_line(const char* line) {
  if (line == nullptr) return false;
  const char* p = line;
  while (B64_TABLE[static_cast<unsigned char>(*p)] != B64_ILLEGAL) p++;
  return strcmp(p, "\r\n") == 0 || strcmp(p, "\n") == 0;
}

// Its input is a user name or a password: never logged.
DynString* b64_decode(std::string_view text) {
  DstrPtr out(dstr_new(static_cast<int>(text.size())));
  if (out == nullptr) fatal_exit("Out of memory: %m\n");
  size_t pos = 0;
  for (;;) {
    int quad[4];
    bool padded[4];
    int got = 0;
    while (got < 4 && pos < text.size()) {
      unsigned char c = static_cast<unsigned char>(text[pos++]);
      if (c < 33) continue;
      int value = B64_TABLE[c];
      if (value == B64_ILLEGAL) {
        dlog(DLOG_BASE64, 1, "base64 decoding illegal char in %s\n", HIDDEN);
        return nullptr;
      }
      padded[got] = value == B64_PAD;
      quad[got] = padded[got] ? 0 : value;
      ++got;
    }
    if (got == 0) return out.release();
    if (got < 4) {
      dlog(DLOG_BASE64, 1, "Short b64 string: %s\n", HIDDEN);
      return nullptr;
    }
    const char bytes[3] = {static_cast<char>(quad[0] * 4 + quad[1] / 16),
                           static_cast<char>((quad[1] % 16) * 16 + quad[2] / 4),
                           static_cast<char>((quad[2] % 4) * 64 + quad[3])};
    // Padding ends the text: whatever follows it is ignored.
    int keep = padded[2] ? 1 : padded[3] ? 2 : 3;
    if (dstr_cat_block(out.get(), bytes, keep) != 0) fatal_exit("Out of memory: %m\n");
    if (keep < 3) return out.release();
  }
}
