// Only as much JSON as finding the top-level "action" takes: the reader walks
// the outer object key by key and skips every other value whole (nested
// objects and arrays, strings with their escapes), so an "action" inside
// a symbol's description is never mistaken for the verdict.
#include "scan/rspamd.h"

#include <cstdlib>

#include "foundation/text.h"

namespace {

void add_header(std::string* head, const char* name, const char* value) {
  if (value == nullptr || value[0] == '\0') return;
  char* safe = str_field_copy(value);  // no CR, LF or blank can end or split the header
  *head += name;
  *head += ": ";
  *head += safe;
  *head += "\r\n";
  free(safe);
}

struct JsonReader {
  std::string_view s;
  size_t at = 0;

  void blank() {
    while (at < s.size() && (s[at] == ' ' || s[at] == '\t' || s[at] == '\r' || s[at] == '\n')) at++;
  }
  bool eat(char c) {
    blank();
    if (at >= s.size() || s[at] != c) return false;
    at++;
    return true;
  }
  // A string, with the simple escapes decoded (\uXXXX kept as it is: no
  // action needs one).
  bool string(std::string* out) {
    if (!eat('"')) return false;
    out->clear();
    while (at < s.size() && s[at] != '"') {
      if (s[at] == '\\' && ++at >= s.size()) return false;
      out->push_back(s[at++]);
    }
    return at++ < s.size();
  }
  // Any value: a string, or brackets counted up to their match, or a bare
  // number or literal.
  bool skip() {
    blank();
    std::string ignored;
    if (at < s.size() && s[at] == '"') return string(&ignored);
    int depth = 0;
    while (at < s.size()) {
      char c = s[at];
      if (c == '"') {
        if (!string(&ignored)) return false;
        continue;
      }
      if (c == '{' || c == '[') depth++;
      if (c == '}' || c == ']') {
        if (depth == 0) return true;
        depth--;
      }
      if (depth == 0 && c == ',') return true;
      at++;
    }
    return depth == 0;
  }
};

}  // namespace

std::string rspamd_head(const SpamEnvelope& e, int64_t length) {
  std::string head = "POST /checkv2 HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n";
  head += "Content-Length: " + std::to_string(length) + "\r\n";
  add_header(&head, "IP", e.sender_ip);
  add_header(&head, "Helo", e.helo);
  add_header(&head, "From", e.from);
  for (size_t i = 0; i < e.rcpt_count; i++) add_header(&head, "Rcpt", e.rcpts[i]);
  add_header(&head, "Queue-Id", e.queue_id);
  return head + "\r\n";
}

int rspamd_verdict(std::string_view reply) {
  size_t body = reply.find("\r\n\r\n");
  if (reply.size() < 13 || !reply.starts_with("HTTP/1.") || reply.substr(8, 5) != " 200 " ||
      body == std::string_view::npos)
    return -1;
  JsonReader json{reply.substr(body + 4)};
  if (!json.eat('{')) return -1;
  std::string key;
  std::string action;
  while (json.string(&key)) {
    if (!json.eat(':')) return -1;
    if (key == "action") {
      if (!json.string(&action)) return -1;
      if (action == "reject") return 3;
      return action == "rewrite subject" || action == "add header" ? 1 : 0;
    }
    if (!json.skip() || !json.eat(',')) return -1;
  }
  return -1;
}
