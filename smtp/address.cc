#include "smtp/address.h"

#include <regex.h>
#include <strings.h>

#include <cstring>
#include <utility>
#include <vector>

#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "smtp/config.h"

namespace {

// Group 2 is the whole address, group 7 its domain; the "<>" alternative sets
// no group at all. Group 1 lets the match start at the line's beginning when
// the address follows the colon without angle brackets.
constexpr const char* ADDRESS_REGEX =
    "([^\":]+:)?((([-[:alnum:]!#$%&'*+/=?^_`{|}~]+(\\.[-[:alnum:]!#$%&'*+/=?^_`{|}~]+)*)|"
    "(\"[^\"]*\"))@([-[:alnum:]!#$%&'*+/=?^_`{|}~]+(\\.[-[:alnum:]!#$%&'*+/=?^_`{|}~]+)*))|<>";

constexpr int ADDRESS_GROUP = 2;
constexpr int DOMAIN_GROUP = 7;

// The classic egrep syntax. Spelled out bit by bit because newer C libraries
// give RE_SYNTAX_EGREP a different meaning (intervals, GNU operators).
constexpr reg_syntax_t ADDRESS_SYNTAX = RE_CHAR_CLASSES | RE_CONTEXT_INDEP_ANCHORS |
                                        RE_CONTEXT_INDEP_OPS | RE_HAT_LISTS_NOT_NEWLINE |
                                        RE_NEWLINE_ALT | RE_NO_BK_PARENS | RE_NO_BK_VBAR;
static_assert(ADDRESS_SYNTAX == 0xa91c);

re_pattern_buffer pattern;
re_registers registers;
bool compiled = false;
char fastmap[256];

void compile_pattern() {
  re_syntax_options = ADDRESS_SYNTAX;
  compiled = true;
  pattern.fastmap = fastmap;
  const char* error = re_compile_pattern(ADDRESS_REGEX, strlen(ADDRESS_REGEX), &pattern);
  if (error != nullptr) fatal_exit("regcomp error in %s: %s\n", "addr_parse", error);
}

void clear(DynString* s) {
  s->length = 0;
  s->data[0] = '\0';
}

// A byte that may belong to an atom. A superset of the pattern's atom class
// in any locale: only ASCII bytes that can never be letters, digits or atom
// specials are excluded.
bool atomish(unsigned char c) {
  if (c <= ' ' || c == 0x7f) return false;
  switch (c) {
    case '"':
    case '(':
    case ')':
    case ',':
    case '.':
    case ':':
    case ';':
    case '<':
    case '>':
    case '@':
    case '[':
    case '\\':
    case ']':
      return false;
    default:
      return true;
  }
}

// Where a match may start. Searching a whole line with re_search costs time
// quadratic in its length when most start positions fail only near the line
// end (a run of thousands of atom characters without "@", or blanks before
// the address), and a sender controls every byte of the line. This scan
// rules out, in one pass, every start at which no match can begin, using only
// necessary conditions of the pattern; the pattern is then tried at the
// remaining starts alone, in order, so the first success is exactly the
// leftmost match re_search would have found.
class StartFilter {
 public:
  explicit StartFilter(const DynString* line) : p_(line->data), n_(line->length), next_(n_ + 2) {
    Next end{n_, n_, n_, n_, n_};
    next_[n_] = next_[n_ + 1] = end;
    for (int i = n_ - 1; i >= 0; --i) {
      Next& x = next_[i];
      x = next_[i + 1];
      char c = p_[i];
      if (c == ':') x.colon = i;
      if (c == '"') x.quote = i;
      if (c == '"' || c == '\n') x.barrier = i;
      if (!(atomish(c) || c == '.')) x.run_end = i;
      if (c == '.' && i + 1 < n_ && p_[i + 1] == '.') x.double_dot = i;
    }
  }

  bool may_start(int s) const {
    if (s + 1 < n_ && p_[s] == '<' && p_[s + 1] == '>') return true;
    if (may_start_address(s)) return true;
    // An optional prefix up to the first colon, with no quote or line end
    // before it, and the address right after that colon.
    char c = p_[s];
    if (c == '"' || c == ':' || c == '\n') return false;
    int colon = next_[s].colon;
    return colon < next_[s].barrier && may_start_address(colon + 1);
  }

 private:
  struct Next {
    int colon, quote, barrier, run_end, double_dot;  // first index >= i, or n_
  };

  bool atom_at(int i) const { return i < n_ && atomish(p_[i]); }

  bool may_start_address(int i) const {
    if (i >= n_) return false;
    if (p_[i] == '"') {
      int q = next_[i + 1].quote;
      return q + 1 < n_ && p_[q + 1] == '@' && atom_at(q + 2);
    }
    if (!atomish(p_[i])) return false;
    // A dot-atom local part fills the whole run up to "@": no ".." inside and
    // no dot at its end.
    int end = next_[i].run_end;
    return end < n_ && p_[end] == '@' && p_[end - 1] != '.' && next_[i].double_dot >= end - 1 &&
           atom_at(end + 1);
  }

  const char* p_;
  int n_;
  std::vector<Next> next_;
};

}  // namespace

int addr_parse(const DynString* line, DynString* domain_out, DynString* addr_out) {
  if (!compiled) compile_pattern();
  clear(domain_out);
  clear(addr_out);

  StartFilter filter(line);
  int r = -1;
  for (int s = 0; s < line->length && r == -1; ++s) {
    if (filter.may_start(s)) r = re_search(&pattern, line->data, line->length, s, 0, &registers);
  }
  dlog(DLOG_SMTP, 9, "re_search result %d on %s with %s", r, ADDRESS_REGEX, line->data);
  if (r == -1) {
    dlog(DLOG_SMTP, 9, "no match\n");
    return 1;
  }
  if (r < 0) fatal_exit("Internal error, re_search in %s\n", "addr_parse");

  for (auto [group, out] : {std::pair{ADDRESS_GROUP, addr_out}, {DOMAIN_GROUP, domain_out}}) {
    if (static_cast<unsigned>(group) >= registers.num_regs || registers.start[group] < 0) continue;
    int begin = registers.start[group];
    if (dstr_cat_block(out, line->data + begin, registers.end[group] - begin) != 0)
      fatal_exit("Out of memory in %s\n", "addr_parse");
  }
  dlog(DLOG_SMTP, 9, "addr_parse: full_addr %s domain %s\n", addr_out->data, domain_out->data);
  return 0;
}

bool relay_check(uint32_t ip) {
  if (!config.relay_control) {
    dlog(DLOG_SMTP, 9, "relay control is off\n");
    return true;
  }
  for (const RelayIp& entry : relay_ips) {
    dlog(DLOG_SMTP, 9, "relay check nbo 0x%08x mask 0x%08x ip 0x%08x\n", ip, entry.mask,
         entry.addr);
    if ((ip & entry.mask) == (entry.addr & entry.mask)) {
      dlog(DLOG_SMTP, 9, "can relay: %08x\n", ip);
      return true;
    }
  }
  dlog(DLOG_SMTP, 9, "can not relay: %08x\n", ip);
  return false;
}

bool is_local_domain(const char* domain) {
  if (domain == nullptr || domain[0] == '\0') return true;
  for (const DstrPtr& local : local_domains) {
    if (local != nullptr && strcasecmp(domain, local->data) == 0) return true;
  }
  return false;
}
