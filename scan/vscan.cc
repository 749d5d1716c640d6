// The virus scanner client. One connection, one queue: vs_head is the newest
// request and vs_tail the oldest, `next` points older and `prev` newer. The
// queue is never emptied by the client itself (except after twenty failed
// connects in a row, through the handlers): the callers cancel what they got.
#include "scan/vscan.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "event/comm.h"
#include "event/timer.h"
#include "foundation/dlog.h"
#include "foundation/dstr.h"
#include "foundation/dump.h"
#include "foundation/fatal.h"
#include "foundation/fd.h"
#include "foundation/lstream.h"
#include "foundation/text.h"
#include "scan/clamd.h"

struct VscanRequest {
  VscanRequest* next;  // older
  VscanRequest* prev;  // newer
  char* filename;
  in_addr_t from_addr;
  in_addr_t to_addr;
  char* id;
  int vst;
  VscanHandler handler;
  void* data;
  uint32_t num;
  ClamdJob* clamd;  // the clamd scan carrying it, with that protocol
};

namespace {

constexpr int LINE_LIMIT = 5000;
constexpr int STREAM_CHUNK = 500;
constexpr int CONNECT_RETRY = 3;
constexpr int RECONNECT_DELAY = 5;
constexpr int FAILURES_BEFORE_CLEAR = 19;

struct VscanState {
  int connection_state = 0;  // 0 never connected, 1 not connected, 2 connected
  int scanner_fd = -1;
  sockaddr_un scanner_addr{};
  int client_type = 0;
  CommConnect* connect_handle = nullptr;
  VscanRequest* vs_head = nullptr;
  VscanRequest* vs_tail = nullptr;
  uint32_t next_num = 1;
  int connect_failures = 0;
  DynString* line = nullptr;
  LineStream* stream = nullptr;
  // The scheduled vs_connect, forgotten when it fires or is cancelled.
  Timer* reconnect_timer = nullptr;
  // Bumped whenever the socket is replaced, so a loop that called out (a
  // handler, a write) can tell that the descriptor it reads is gone.
  unsigned epoch = 0;
  // The oldest number this connection was sent: every number from it up to
  // next_num went out on it.
  uint32_t first_num = 1;
  bool dump_registered = false;
  bool clamd = false;
};

VscanState vs;

void vs_connect();

ssize_t stream_read(int fd, void* buffer, size_t size) {
  return read(fd, buffer, size);
}

char* xstrdup(const char* s) {
  char* copy = strdup(s);
  if (copy == nullptr) fatal_exit("virus_scan: out of memory\n");
  return copy;
}

const char* client_type_word(int type) {
  static constexpr const char* words[] = {"smtp", "pop3", "http", "ftp", "nttp", "imap"};
  if (type < 1 || type > 6) fatal_exit("Unsupported scanner type: %d", type);
  return words[type - 1];
}

const char* scan_type_word(int vst) {
  if (vst == 1) return "mscan";
  if (vst == 3) return "cscan";
  return "fscan";
}

void vs_reconnect_fired(void*) {
  vs.reconnect_timer = nullptr;
  vs_connect();
}

void schedule_connect(int delay) {
  timer_cancel_slot(&vs.reconnect_timer);
  vs.reconnect_timer = timer_add(delay, vs_reconnect_fired, nullptr);
}

void close_scanner_fd() {
  if (vs.scanner_fd < 0) return;
  comm_clear_write(vs.scanner_fd, 0);
  comm_clear_read(vs.scanner_fd);
  close(vs.scanner_fd);
  vs.scanner_fd = -1;
}

// The scanner broke the protocol: the connection goes, and a new one is made
// after the same pause as when the scanner hangs up, so a scanner that keeps
// misbehaving costs a reconnect every few seconds rather than a busy loop.
// The queue stays and is sent again on the next connection.
void vs_drop() {
  dlog(DLOG_VSCAN, 3, "Dropping scanner connection, reconnecting in %d seconds.\n",
       RECONNECT_DELAY);
  vs.connection_state = 1;
  close_scanner_fd();
  if (vs.stream != nullptr) lstream_close(nullptr, vs.stream);
  vs.stream = nullptr;
  vs.epoch++;
  schedule_connect(RECONNECT_DELAY);
}

void vs_remove(VscanRequest* r) {
  dlog(DLOG_VSCAN, 9, "vs_remove num %d pvr %p handler %p data %p\n", static_cast<int>(r->num),
       static_cast<void*>(r), reinterpret_cast<void*>(r->handler), r->data);
  if (r->prev != nullptr)
    r->prev->next = r->next;
  else
    vs.vs_head = r->next;
  if (r->next != nullptr)
    r->next->prev = r->prev;
  else
    vs.vs_tail = r->prev;
  r->next = r->prev = nullptr;
}

void vs_free(VscanRequest* r) {
  dlog(DLOG_VSCAN, 9, "vs_free num %d pvr %p\n", static_cast<int>(r->num), static_cast<void*>(r));
  free(r->filename);
  free(r->id);
  free(r);
}

// Fails every pending request with SCAN_TIMEOUT; each handler cancels its own.
void vs_clear_all() {
  while (vs.vs_head != nullptr) {
    VscanRequest* r = vs.vs_head;
    dlog(DLOG_VSCAN, 9, "vs_clear_all pvr %p handler %p data %p\n", static_cast<void*>(r),
         reinterpret_cast<void*>(r->handler), r->data);
    r->handler(4, r->data);
    if (vs.vs_head == r) {  // a handler that broke its contract must not spin us forever
      dlog(DLOG_VSCAN, 1, "vs_clear_all: request %p left queued by its handler\n",
           static_cast<void*>(r));
      return;
    }
  }
}

void vs_connect_failed() {
  vs.connect_failures++;
  dlog(DLOG_VSCAN, 5, "Connect to %s failed: %m. Error %d.\n", vs.scanner_addr.sun_path,
       vs.connect_failures);
  if (vs.connect_failures > FAILURES_BEFORE_CLEAR) {
    dlog(DLOG_VSCAN, 1, "Connect to %s failed: %m.\n", vs.scanner_addr.sun_path);
    vs.connect_failures = 0;
    vs_clear_all();
  }
  // A failed hello write has already started a new connect; a timer on top of
  // it would tear down the connection it makes.
  if (vs.connect_handle == nullptr) schedule_connect(CONNECT_RETRY);
}

void vs_write_callback(int fd, int error, void* data) {
  dlog(DLOG_VSCAN, 9, "vs_write_callback fd %d err %d data %p\n", fd, error, data);
  if (error == 0) return;
  vs.connection_state = 1;
  vs_connect();
}

void vs_send(VscanRequest* r) {
  if (vs.scanner_fd < 0 || vs.connection_state != 2) return;
  char from[50];
  str_copy_bounded(from, inet_ntoa(in_addr{r->from_addr}), sizeof(from));
  char* text = nullptr;
  int size =
      xasprintf(&text, "%d\t%s\t%s\t%s\t%s\t%s\n", static_cast<int>(r->num), scan_type_word(r->vst),
                r->filename, from, inet_ntoa(in_addr{r->to_addr}), r->id);
  dlog(DLOG_VSCAN, 9, "vscan sending request: %s", text);
  if (comm_write(vs.scanner_fd, text, size - 1, vs_write_callback, nullptr, free) < 0)
    dlog(DLOG_VSCAN, 9, "vs_send: comm_write failed\n");
}

// Oldest first, right behind the hello. A send that fails at once reconnects,
// which ends the pass: the next connection sends everything again.
void vs_resend_all() {
  unsigned epoch = vs.epoch;
  for (VscanRequest* r = vs.vs_tail; r != nullptr; r = r->prev) {
    if (vs.connection_state != 2 || vs.epoch != epoch) return;
    vs_send(r);
  }
}

VscanRequest* vs_find(uint32_t num) {
  for (VscanRequest* r = vs.vs_tail; r != nullptr; r = r->prev)
    if (r->num == num) return r;
  return nullptr;
}

// Whether num went out on this connection (counted around the wrap).
bool vs_sent_here(uint32_t num) {
  return num - vs.first_num < vs.next_num - vs.first_num;
}

// 0 when the line was understood (whether or not a request matched it): a
// request cancelled by its caller may still be answered. -1, logged, when the
// scanner broke the protocol; the caller then drops the connection.
int vs_parse(DynString* line) {
  dlog(DLOG_VSCAN, 9, "Parsing line: %s", line->data);
  char name[256];
  memset(name, 0, sizeof(name));
  int num = 0;
  int result = 0;
  if (sscanf(line->data, "%i %i %255s", &num, &result, name) < 2) {
    dlog(DLOG_VSCAN, 0, "Parse error with scanner: %s", line->data);
    return -1;
  }
  dlog(DLOG_VSCAN, 9, "request num %d, result %#x, virus name: %s\n", num, result, name);
  if (num == 0) {
    if (result == 0) return 0;
    // A scanner that refuses us now may take us after a restart: the mail
    // goes on under the callers' bypass and time-out rules meanwhile.
    dlog(DLOG_VSCAN, 1, "Handshaking error with scanner: %s\n", line->data);
    return -1;
  }
  VscanRequest* r = vs_find(static_cast<uint32_t>(num));
  if (r == nullptr) {
    if (!vs_sent_here(static_cast<uint32_t>(num))) {
      dlog(DLOG_VSCAN, 1, "Response to unknown request from scanner: %s", line->data);
      return -1;
    }
    dlog(DLOG_VSCAN, 5, "Response to missing request: %s\n", line->data);
    return 0;
  }
  dlog(DLOG_VSCAN, 9, "vs_parse pvr %p handler %p data %p\n", static_cast<void*>(r),
       reinterpret_cast<void*>(r->handler), r->data);
  r->handler(result, r->data);  // may cancel r and others: not touched again
  return 0;
}

void vs_read_handler(int fd, void*) {
  if (fd != vs.scanner_fd || vs.stream == nullptr) return;
  const unsigned epoch = vs.epoch;
  for (;;) {
    DynString* line = vs.line;
    line->length = 0;
    line->data[0] = '\0';
    // Read up to one byte past the limit: a line cut there is over it, while
    // one of exactly the limit can still wait for its end.
    if (lstream_readline(line, vs.stream, '\n', LINE_LIMIT + 1) < 0) {
      if (is_transient_errno(errno)) {
        dlog(DLOG_VSCAN, 5, "vs_read_handler: read error: %m\n");
        comm_read(fd, vs_read_handler, nullptr);
        return;
      }
      dlog(DLOG_VSCAN, 1, "Scanner died.\n");
      vs.connection_state = 1;
      schedule_connect(RECONNECT_DELAY);
      return;
    }
    if (line->length == 0) {
      dlog(DLOG_VSCAN, 1, "Scanner closed connection.\n");
      vs.connection_state = 1;
      schedule_connect(RECONNECT_DELAY);
      return;
    }
    int content = line->length;
    if (line->data[content - 1] == '\n') content--;
    // What was read of an over-long line is not a reply: no verdict, nor a
    // refusal, is taken from a line cut short.
    if (content > LINE_LIMIT) {
      dlog(DLOG_VSCAN, 1, "Long line from scanner\n");
      vs_drop();
      return;
    }
    dlog(DLOG_VSCAN, 9, "vs_read: %s", line->data);
    if (vs_parse(line) != 0) {
      vs_drop();
      return;
    }
    if (vs.epoch != epoch) return;
  }
}

void vs_connected(int fd, int error, void*) {
  vs.connect_handle = nullptr;
  if (error != 0) {
    vs_connect_failed();
    return;
  }
  vs.connect_failures = 0;
  vs.connection_state = 2;
  vs.first_num = vs.vs_tail != nullptr ? vs.vs_tail->num : vs.next_num;
  if (vs.stream != nullptr) lstream_close(nullptr, vs.stream);
  vs.stream = lstream_open(fd, stream_read, STREAM_CHUNK);
  if (vs.stream == nullptr) fatal_exit("vs_connected: out of memory\n");
  comm_read(fd, vs_read_handler, nullptr);
  char* hello = nullptr;
  int size = xasprintf(&hello, "0\tPROXY\t%s\n", client_type_word(vs.client_type));
  if (comm_write(fd, hello, size - 1, vs_write_callback, nullptr, free) < 0) {
    vs_connect_failed();
    return;
  }
  vs_resend_all();
}

void vs_connect() {
  dlog(DLOG_VSCAN, 9, "vs_connect client_type %d scanner_fd %d handle %p\n", vs.client_type,
       vs.scanner_fd, static_cast<void*>(vs.connect_handle));
  timer_cancel_slot(&vs.reconnect_timer);  // whatever was scheduled happens now
  if (vs.connect_handle != nullptr) return;
  close_scanner_fd();
  vs.epoch++;
  // Out of descriptors, say: that passes, so it is a failed attempt like a
  // refused connect, tried again, also at start-up.
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    dlog(DLOG_VSCAN, 1, "Couldn't create local domain socket in vs_connect: %m\n");
    vs_connect_failed();
    return;
  }
  vs.scanner_fd = fd;
  dlog(DLOG_VSCAN, 7, "Connecting to %s\n", vs.scanner_addr.sun_path);
  socklen_t length = static_cast<socklen_t>(2 + strlen(vs.scanner_addr.sun_path));
  vs.connect_handle = comm_connect(fd, reinterpret_cast<const sockaddr*>(&vs.scanner_addr), length,
                                   vs_connected, nullptr);
  if (vs.connect_handle == nullptr) vs_connect_failed();
}

}  // namespace

void vs_init(const char* path, int client_type, VscanProtocol protocol) {
  dlog(DLOG_VSCAN, 1, "Initializing virus module\n");
  vs.scanner_addr.sun_family = AF_UNIX;
  str_copy_bounded(vs.scanner_addr.sun_path, path, sizeof(vs.scanner_addr.sun_path));
  client_type_word(client_type);  // an unknown type ends the start-up, not a later connect
  vs.client_type = client_type;
  if (!vs.dump_registered) dump_register(vs_dump);
  vs.dump_registered = true;
  if (vs.line == nullptr) vs.line = dstr_new(100);
  if (vs.line == nullptr) fatal_exit("vs_init: out of memory\n");
  vs.clamd = protocol == VscanProtocol::CLAMD;
  if (vs.clamd)
    clamd_init(path);
  else
    vs_connect();
}

VscanRequest* virus_scan(const char* filename, in_addr_t from_addr, in_addr_t to_addr,
                         const char* id, int vst, VscanHandler handler, void* data, bool bypass) {
  bool up = vs.clamd ? clamd_up() : vs.connection_state == 2;
  if (!up && bypass) {
    handler(0, data);
    return nullptr;
  }
  auto* r = static_cast<VscanRequest*>(calloc(1, sizeof(VscanRequest)));
  if (r == nullptr) fatal_exit("virus_scan: out of memory\n");
  r->filename = xstrdup(filename);
  r->from_addr = from_addr;
  r->to_addr = to_addr;
  // The id comes from the sender's message; an empty one is "unknown", as a
  // missing one.
  r->id = str_field_copy(id != nullptr && id[0] != '\0' ? id : "unknown");
  r->vst = vst;
  r->handler = handler;
  r->data = data;
  r->num = vs.next_num++;
  if (vs.next_num == 0) vs.next_num = 1;  // 0 is the hello's
  dlog(DLOG_VSCAN, 9, "virus_scan filename %s addr %s id %s vst %d pvr %p handler %p data %p\n",
       r->filename, inet_ntoa(in_addr{from_addr}), r->id, vst, static_cast<void*>(r),
       reinterpret_cast<void*>(handler), data);
  r->next = vs.vs_head;
  if (vs.vs_head != nullptr) vs.vs_head->prev = r;
  vs.vs_head = r;
  if (vs.vs_tail == nullptr) vs.vs_tail = r;
  if (vs.clamd)
    r->clamd = clamd_scan(r->filename, handler, data, bypass);
  else
    vs_send(r);
  return r;
}

void vscan_cancel(VscanRequest* r) {
  if (r == nullptr) return;
  dlog(DLOG_VSCAN, 9, "vscan_cancel num %d pvr %p handler %p data %p\n", static_cast<int>(r->num),
       static_cast<void*>(r), reinterpret_cast<void*>(r->handler), r->data);
  clamd_cancel(r->clamd);
  vs_remove(r);
  vs_free(r);
}

void vs_dump(FILE* stream) {
  fprintf(stream, "vscan dump:\n");
  int state = vs.clamd ? (clamd_up() ? 2 : 1) : vs.connection_state;
  fprintf(stream, "connection_state %d scanner_fd %d scanner_addr: %s\n", state, vs.scanner_fd,
          vs.scanner_addr.sun_path);
  fprintf(stream, "connect_handle %p vs_head %p vs_tail %p line %p stream %p\n",
          static_cast<void*>(vs.connect_handle), static_cast<void*>(vs.vs_head),
          static_cast<void*>(vs.vs_tail), static_cast<void*>(vs.line),
          static_cast<void*>(vs.stream));
  fprintf(stream, "Pending vscan requests: \n");
  for (VscanRequest* r = vs.vs_head; r != nullptr; r = r->next) {
    fprintf(stream, "filename %s id %s from %s\n", r->filename, r->id,
            inet_ntoa(in_addr{r->from_addr}));
    fprintf(stream, "to %s vst %d num %d\n", inet_ntoa(in_addr{r->to_addr}), r->vst,
            static_cast<int>(r->num));
  }
  if (vs.clamd) clamd_dump(stream);
}

void vs_shutdown() {
  if (vs.connect_handle != nullptr) comm_connect_abort(vs.connect_handle);
  vs.connect_handle = nullptr;
  timer_cancel_slot(&vs.reconnect_timer);
  close_scanner_fd();
  if (vs.stream != nullptr) lstream_close(nullptr, vs.stream);
  vs.stream = nullptr;
  dstr_free(vs.line);
  vs.line = nullptr;
  clamd_shutdown();  // frees the jobs the requests point at
  vs.clamd = false;
  while (vs.vs_head != nullptr) {
    VscanRequest* r = vs.vs_head;
    vs_remove(r);
    vs_free(r);
  }
  vs.connection_state = 0;
  vs.connect_failures = 0;
  vs.next_num = 1;
}

void vs_set_next_num(uint32_t num) {
  vs.next_num = num;
}
