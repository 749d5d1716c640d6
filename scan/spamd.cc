// Jobs live in one list (newest first) whatever their state: streaming (a
// connection), waiting (neither connection nor answer) or answered (waiting
// for the owner's cancel). Waiting ones are served newest first, as the
// native pool serves its stack. A check that cannot be done passes with 0,
// never an error: the caller's mail goes on unscanned, as with the native
// service.
#include "scan/spamd.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>

#include "event/timer.h"
#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "foundation/text.h"
#include "scan/rspamd.h"
#include "scan/scanconn.h"

struct SpamdJob {
  SpamdJob* next = nullptr;
  std::string head;
  std::string filename;  // opened when the check starts
  int64_t length = 0;
  SpamHandler handler = nullptr;
  void* data = nullptr;
  bool answered = false;
  ScanConn* conn = nullptr;
};

namespace {

// rspamd lists every symbol it matched: room for a few hundred.
constexpr size_t MAX_REPLY = 256 * 1024;

struct SpamdState {
  SpamProtocol protocol = SpamProtocol::SPAMD;
  ScanAddr addr{};
  std::string name;
  int count = 0;
  int busy = 0;
  double reject_score = 10.0;
  bool down = true;  // until a connection succeeds, as the native pool
  SpamdJob* jobs = nullptr;
  Timer* pump_timer = nullptr;
};

SpamdState sd;

void pump();

void answer(SpamdJob* j, int result) {
  j->answered = true;
  j->handler(j->data, result);
}

SpamdJob* newest_waiting() {
  for (SpamdJob* j = sd.jobs; j != nullptr; j = j->next)
    if (!j->answered && j->conn == nullptr) return j;
  return nullptr;
}

// The service is down: every waiting check passes, as the native pool fails
// its stack when a connection breaks.
void service_down() {
  sd.down = true;
  while (SpamdJob* j = newest_waiting()) answer(j, 0);
}

void job_done(void* data, ScanConnEnd end, std::string_view reply) {
  auto* j = static_cast<SpamdJob*>(data);
  int result = -1;
  if (end == ScanConnEnd::REPLY)
    result = sd.protocol == SpamProtocol::RSPAMD ? rspamd_verdict(reply)
                                                 : spamd_verdict(reply, sd.reject_score);
  if (end == ScanConnEnd::CONNECT_FAILED)
    dlog(DLOG_SPAM, 1, "Could not connect to anti-spam server: %m\n");
  else if (result < 0)
    dlog(DLOG_SPAM, 1, "Invalid response from anti-spam: %.*s\n",
         static_cast<int>(reply.size() > 200 ? 200 : reply.size()), reply.data());
  else
    dlog(DLOG_SPAM, 4, "%s verdict %d for %p\n", sd.name.c_str(), result, j->data);
  scanconn_free(j->conn);
  j->conn = nullptr;
  sd.busy--;
  if (end == ScanConnEnd::CONNECT_FAILED) {
    answer(j, 0);
    service_down();
  } else {
    sd.down = false;
    answer(j, result < 0 ? 0 : result);
  }
  pump();
}

// False when the check passed at once (its handler ran).
bool start(SpamdJob* j) {
  ScanConnSpec spec;
  spec.file_fd = open(j->filename.c_str(), O_RDONLY | O_CLOEXEC);
  if (spec.file_fd < 0) {
    dlog(DLOG_SPAM, 1, "Cannot read %s for the anti-spam check: %m\n", j->filename.c_str());
    answer(j, 0);
    return false;
  }
  spec.head = std::move(j->head);
  spec.length = j->length;
  spec.max_reply = MAX_REPLY;
  j->conn = scanconn_start(sd.addr, std::move(spec), job_done, j);
  if (j->conn == nullptr) {
    dlog(DLOG_SPAM, 1, "Could not connect to anti-spam server: %m\n");
    answer(j, 0);
    service_down();
    return false;
  }
  sd.busy++;
  return true;
}

void pump() {
  while (sd.busy < sd.count) {
    SpamdJob* j = newest_waiting();
    if (j == nullptr) return;
    start(j);
  }
}

void pump_fired(void*) {
  sd.pump_timer = nullptr;
  pump();
}

std::string spamd_head(int64_t length) {
  return "CHECK SPAMC/1.5\r\nContent-length: " + std::to_string(length) + "\r\n\r\n";
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  return s;
}

bool parse_score(std::string_view s, double* out) {
  s = trim(s);
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), *out);
  return ec == std::errc() && end == s.data() + s.size();
}

}  // namespace

int spamd_verdict(std::string_view reply, double reject_score) {
  size_t eol = reply.find('\n');
  std::string_view status = trim(reply.substr(0, eol));
  // "SPAMD/1.1 0 EX_OK": anything but code 0 is an error without a verdict.
  size_t blank = status.find(' ');
  if (!status.starts_with("SPAMD/") || blank == std::string_view::npos ||
      !status.substr(blank + 1).starts_with("0 "))
    return -1;
  while (eol != std::string_view::npos) {
    reply.remove_prefix(eol + 1);
    eol = reply.find('\n');
    std::string_view line = trim(reply.substr(0, eol));
    if (line.empty()) break;  // end of the headers
    if (line.size() < 5 || strncasecmp(line.data(), "Spam:", 5) != 0) continue;
    // "Spam: True ; 15.0 / 5.0"
    std::string_view value = line.substr(5);
    size_t semi = value.find(';');
    size_t slash = value.find('/');
    if (semi == std::string_view::npos || slash == std::string_view::npos || slash < semi)
      return -1;
    std::string_view word = trim(value.substr(0, semi));
    double score = 0;
    double threshold = 0;
    if (!parse_score(value.substr(semi + 1, slash - semi - 1), &score) ||
        !parse_score(value.substr(slash + 1), &threshold))
      return -1;
    if (word == "True" || word == "Yes") return score >= reject_score ? 3 : 1;
    if (word == "False" || word == "No") return 0;
    return -1;
  }
  return -1;
}

void spamd_init(SpamProtocol protocol, const char* addr, int count, double reject_score) {
  sd.protocol = protocol;
  sd.name = protocol == SpamProtocol::RSPAMD ? "rspamd" : "spamd";
  sd.count = count;
  sd.reject_score = reject_score;
  sd.down = true;
  if (!scan_addr_parse(addr, &sd.addr)) fatal_exit("Bad antispam_addr: %s\n", addr);
  dlog(DLOG_SPAM, 3, "Checking spam with %s on %s, %d at once\n", sd.name.c_str(), addr, count);
}

SpamdJob* spamd_scan(SpamHandler handler, void* data, const char* filename,
                     const SpamEnvelope& envelope, int64_t max_size, bool bypass) {
  dlog(DLOG_SPAM, 9, "spam_scan: for %s with %s\n", filename, sd.name.c_str());
  struct stat st {};
  bool readable = sd.count > 0 && stat(filename, &st) == 0;
  if (sd.count > 0 && !readable)
    dlog(DLOG_SPAM, 1, "Cannot read %s for the anti-spam check: %m\n", filename);
  if (readable && st.st_size > max_size) {
    dlog(DLOG_SPAM, 5, "%s is larger than %lld bytes: not checked for spam\n", filename,
         static_cast<long long>(max_size));
    readable = false;
  }
  if (readable && sd.busy >= sd.count && (bypass || sd.down)) {
    dlog(DLOG_SPAM, 5, "No free AS servers, bypass");
    readable = false;
  }
  if (!readable) {
    handler(data, 0);
    return nullptr;
  }
  auto* j = new SpamdJob;
  j->head = sd.protocol == SpamProtocol::RSPAMD ? rspamd_head(envelope, st.st_size)
                                                : spamd_head(st.st_size);
  j->filename = filename;
  j->length = st.st_size;
  j->handler = handler;
  j->data = data;
  if (sd.busy < sd.count && !start(j)) {
    delete j;
    return nullptr;
  }
  j->next = sd.jobs;
  sd.jobs = j;
  return j;
}

void spamd_cancel(SpamdJob* j) {
  for (SpamdJob** p = &sd.jobs; *p != nullptr; p = &(*p)->next) {
    if (*p != j) continue;
    *p = j->next;
    break;
  }
  if (j->conn != nullptr) {
    scanconn_free(j->conn);
    sd.busy--;
    // The freed slot goes to the newest waiting check from the loop, not
    // inside the caller's cancel.
    if (sd.pump_timer == nullptr) sd.pump_timer = timer_add(0, pump_fired, nullptr);
  }
  delete j;
}

void spamd_shutdown() {
  while (sd.jobs != nullptr) {
    SpamdJob* j = sd.jobs;
    sd.jobs = j->next;
    scanconn_free(j->conn);
    delete j;
  }
  timer_cancel_slot(&sd.pump_timer);
  sd.busy = 0;
  sd.count = 0;
}
