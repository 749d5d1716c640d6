// clamd's jobs sit in one list, oldest first; a job with a connection is
// streaming, one without is waiting, an answered one waits for its owner's
// cancel. Public calls never answer a job before they return: what they
// start runs from a zero-delay timer, so a caller never sees its handler run
// inside its own call.
#include "scan/clamd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "event/timer.h"
#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "scan/scanconn.h"

struct ClamdJob {
  ClamdJob* prev = nullptr;  // older
  ClamdJob* next = nullptr;  // newer
  std::string filename;
  VscanHandler handler = nullptr;
  void* data = nullptr;
  bool bypass = false;
  bool answered = false;
  ScanConn* conn = nullptr;  // while streaming
};

namespace {

constexpr int CONNECT_RETRY = 3;
constexpr int RECONNECT_DELAY = 5;
constexpr int FAILURES_BEFORE_CLEAR = 19;
constexpr size_t MAX_REPLY = 1024;

struct ClamdState {
  ScanAddr addr{};
  std::string path;
  bool up = false;
  int failures = 0;
  ScanConn* probe = nullptr;
  Timer* probe_timer = nullptr;
  Timer* pump_timer = nullptr;
  bool pumping = false;
  ClamdJob* oldest = nullptr;
  ClamdJob* newest = nullptr;
  int streams = 0;
};

ClamdState cl;

void pump();
void probe();

ClamdJob* first_waiting(bool bypass_only) {
  for (ClamdJob* j = cl.oldest; j != nullptr; j = j->next)
    if (!j->answered && j->conn == nullptr && (j->bypass || !bypass_only)) return j;
  return nullptr;
}

// The handler cancels the job, as a rule: j is not touched afterwards.
void answer(ClamdJob* j, int result) {
  j->answered = true;
  j->handler(result, j->data);
}

void probe_fired(void*) {
  cl.probe_timer = nullptr;
  probe();
}

void pump_fired(void*) {
  cl.pump_timer = nullptr;
  pump();
}

void schedule_pump() {
  if (cl.pump_timer == nullptr) cl.pump_timer = timer_add(0, pump_fired, nullptr);
}

// clamd could not be reached or broke the protocol: scans wait for the next
// probe, and those whose callers let mail pass an absent scanner pass now.
void clamd_down(int delay) {
  cl.up = false;
  if (cl.probe == nullptr) {
    timer_cancel_slot(&cl.probe_timer);
    cl.probe_timer = timer_add(delay, probe_fired, nullptr);
  }
  while (ClamdJob* j = first_waiting(true)) answer(j, 0);
}

void probe_failed(int delay) {
  cl.failures++;
  dlog(DLOG_VSCAN, 5, "Connect to %s failed: %m. Error %d.\n", cl.path.c_str(), cl.failures);
  if (cl.failures > FAILURES_BEFORE_CLEAR) {
    dlog(DLOG_VSCAN, 1, "Connect to %s failed: %m.\n", cl.path.c_str());
    cl.failures = 0;
    while (ClamdJob* j = first_waiting(false)) answer(j, CLAMD_GAVE_UP);
  }
  clamd_down(delay);
}

void probe_done(void*, ScanConnEnd end, std::string_view reply) {
  bool pong = end == ScanConnEnd::REPLY && reply == "PONG";
  if (!pong && end != ScanConnEnd::CONNECT_FAILED)
    dlog(DLOG_VSCAN, 1, "Unexpected answer from clamd to PING: %.*s\n",
         static_cast<int>(reply.size() > 100 ? 100 : reply.size()), reply.data());
  scanconn_free(cl.probe);
  cl.probe = nullptr;
  if (!pong) {
    probe_failed(end == ScanConnEnd::CONNECT_FAILED ? CONNECT_RETRY : RECONNECT_DELAY);
    return;
  }
  if (!cl.up) dlog(DLOG_VSCAN, 3, "clamd answers on %s\n", cl.path.c_str());
  cl.up = true;
  cl.failures = 0;
  pump();
}

void probe() {
  if (cl.probe != nullptr) return;
  ScanConnSpec spec;
  spec.head.assign("zPING", 6);  // with its NUL
  spec.end_byte = 0;
  spec.max_reply = MAX_REPLY;
  cl.probe = scanconn_start(cl.addr, std::move(spec), probe_done, nullptr);
  if (cl.probe == nullptr) probe_failed(CONNECT_RETRY);
}

void job_done(void* data, ScanConnEnd end, std::string_view reply) {
  auto* j = static_cast<ClamdJob*>(data);
  int verdict = end == ScanConnEnd::REPLY ? clamd_verdict(reply) : -1;
  const int shown = static_cast<int>(reply.size() > 200 ? 200 : reply.size());
  if (verdict >= 0)
    dlog(DLOG_VSCAN, 4, "clamd: %s: %.*s\n", j->filename.c_str(), shown, reply.data());
  else if (end == ScanConnEnd::REPLY)
    dlog(DLOG_VSCAN, 0, "Parse error with scanner: %.*s\n", shown, reply.data());
  else if (end == ScanConnEnd::BROKEN)
    dlog(DLOG_VSCAN, 1, "Scanner closed connection.\n");
  else
    dlog(DLOG_VSCAN, 5, "Connect to %s failed: %m.\n", cl.path.c_str());
  scanconn_free(j->conn);
  j->conn = nullptr;
  cl.streams--;
  if (verdict >= 0) {
    answer(j, verdict);
    pump();
    return;
  }
  // The job keeps its place and is streamed again once clamd answers a
  // probe; its caller's time-out bounds how long it waits.
  clamd_down(end == ScanConnEnd::CONNECT_FAILED ? CONNECT_RETRY : RECONNECT_DELAY);
}

void start(ClamdJob* j) {
  int file = open(j->filename.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat st {};
  if (file < 0 || fstat(file, &st) != 0) {
    dlog(DLOG_VSCAN, 1, "clamd: cannot open %s: %m\n", j->filename.c_str());
    if (file >= 0) close(file);
    answer(j, CLAMD_ERROR);
    return;
  }
  ScanConnSpec spec;
  spec.head.assign("zINSTREAM", 10);
  spec.file_fd = file;
  spec.length = st.st_size;
  spec.framed = true;
  spec.end_byte = 0;
  spec.max_reply = MAX_REPLY;
  j->conn = scanconn_start(cl.addr, std::move(spec), job_done, j);
  if (j->conn == nullptr) {
    dlog(DLOG_VSCAN, 5, "Connect to %s failed: %m.\n", cl.path.c_str());
    clamd_down(CONNECT_RETRY);
    return;
  }
  cl.streams++;
}

void pump() {
  if (cl.pumping) return;
  cl.pumping = true;
  while (cl.up && cl.streams < CLAMD_MAX_STREAMS) {
    ClamdJob* j = first_waiting(false);
    if (j == nullptr) break;
    start(j);
  }
  cl.pumping = false;
}

void unlink_job(ClamdJob* j) {
  (j->prev != nullptr ? j->prev->next : cl.oldest) = j->next;
  (j->next != nullptr ? j->next->prev : cl.newest) = j->prev;
  j->prev = j->next = nullptr;
}

}  // namespace

void clamd_init(const char* path) {
  cl.path = path;
  if (!scan_addr_parse(path, &cl.addr)) fatal_exit("Bad clamd socket: %s\n", path);
  dlog(DLOG_VSCAN, 3, "Scanning with clamd on %s\n", path);
  probe();
}

bool clamd_up() {
  return cl.up;
}

ClamdJob* clamd_scan(const char* filename, VscanHandler handler, void* data, bool bypass) {
  auto* j = new ClamdJob;
  j->filename = filename;
  j->handler = handler;
  j->data = data;
  j->bypass = bypass;
  j->prev = cl.newest;
  (cl.newest != nullptr ? cl.newest->next : cl.oldest) = j;
  cl.newest = j;
  schedule_pump();
  return j;
}

void clamd_cancel(ClamdJob* j) {
  if (j == nullptr) return;
  if (j->conn != nullptr) {
    scanconn_free(j->conn);
    cl.streams--;
    schedule_pump();
  }
  unlink_job(j);
  delete j;
}

int clamd_verdict(std::string_view r) {
  while (!r.empty() && (r.back() == '\n' || r.back() == '\0')) r.remove_suffix(1);
  if (r.ends_with(" ERROR")) return CLAMD_ERROR;
  constexpr std::string_view STREAM = "stream: ";
  constexpr std::string_view FOUND = " FOUND";
  if (!r.starts_with(STREAM)) return -1;
  r.remove_prefix(STREAM.size());
  if (r == "OK") return 0;
  if (!r.ends_with(FOUND) || r.size() == FOUND.size() || r.find(' ') < r.size() - FOUND.size())
    return -1;
  return r.starts_with("Heuristics.Encrypted") ? CLAMD_ENCRYPTED : CLAMD_FOUND;
}

void clamd_dump(FILE* stream) {
  fprintf(stream, "clamd %s up %d failures %d streams %d probe %p\n", cl.path.c_str(), cl.up,
          cl.failures, cl.streams, static_cast<void*>(cl.probe));
  for (ClamdJob* j = cl.oldest; j != nullptr; j = j->next)
    fprintf(stream, "clamd job %s answered %d fd %d\n", j->filename.c_str(), j->answered,
            j->conn != nullptr ? scanconn_fd(j->conn) : -1);
}

void clamd_shutdown() {
  scanconn_free(cl.probe);
  cl.probe = nullptr;
  timer_cancel_slot(&cl.probe_timer);
  timer_cancel_slot(&cl.pump_timer);
  while (cl.oldest != nullptr) {
    ClamdJob* j = cl.oldest;
    scanconn_free(j->conn);
    unlink_job(j);
    delete j;
  }
  cl.streams = 0;
  cl.up = false;
  cl.failures = 0;
}
