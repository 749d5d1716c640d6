// The anti-spam client. Each pooled connection carries at most one request;
// a free connection sits on the free stack, a request without one on the
// pending stack (both newest on top). Handlers are called from inside the
// client and cancel their request there, which may hand the freed connection
// the next pending request at once: every loop that calls out re-checks the
// connection afterwards.
#include "scan/spam.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "event/comm.h"
#include "event/timer.h"
#include "foundation/dlog.h"
#include "foundation/dstr.h"
#include "foundation/fatal.h"
#include "foundation/fd.h"
#include "foundation/lstream.h"
#include "foundation/text.h"
#include "scan/spamd.h"

struct AsServer;

struct AsRequest {
  AsRequest* next;  // pending stack
  char* text;       // the request line
  const char* key;  // inside text: the last 6 characters of the file name
  AsServer* ps;     // the connection carrying it, null while pending
  SpamHandler handler;
  void* data;
  // Its line went out and no reply was read for it yet.
  bool awaiting;
  SpamdJob* remote;  // the spamd or rspamd check carrying it, with those protocols
};

struct AsServer {
  AsServer* next = nullptr;  // free stack
  AsRequest* asr = nullptr;
  int status = 0;  // 0 not connected, 1 free, 2 busy
  int failures = 0;
  int fd = -1;
  CommConnect* connect_handle = nullptr;
  LineStream* stream = nullptr;
  // The scheduled as_connect, forgotten when it fires or is cancelled.
  Timer* reconnect_timer = nullptr;
  // Bumped whenever the socket is replaced, so a read loop that called a
  // handler can tell that its descriptor and stream are gone.
  unsigned epoch = 0;
  // Replies still owed on this connection to requests whose callers gave up
  // waiting (their time-out): such a reply comes late, with a key no request
  // waits for, and is no fault of the service.
  int late_replies = 0;
};

namespace {

constexpr int STREAM_CHUNK = 200;
constexpr int MIN_REPLY = 2;
constexpr int MAX_REPLY = 256;
constexpr int KEY_LENGTH = 6;
constexpr int RECONNECT_DELAY = 6;
constexpr int FAILURES_BEFORE_GIVING_UP = 9;

struct SpamState {
  // Sized once by spam_init and never resized: servers are referred to by
  // address from timers, connects and the stacks.
  std::vector<AsServer> servers;
  AsServer* free_servers = nullptr;
  int free_count = 0;
  AsRequest* pending_head = nullptr;
  sockaddr_un addr{};
  DynString* line = nullptr;
  bool as_down = true;
  bool remote = false;  // spamd or rspamd in place of the pool
  // The server inside as_send's comm_write: a write failing at once is
  // reported by as_send's result, not by the completion handler.
  AsServer* sending = nullptr;
};

SpamState as;

void as_connect(AsServer* ps);
void as_read(int fd, void* data);
void as_fail_requests(AsServer* ps);
void ps_free(AsServer* ps);

ssize_t stream_read(int fd, void* buffer, size_t size) {
  return read(fd, buffer, size);
}

void as_reconnect_fired(void* data) {
  auto* ps = static_cast<AsServer*>(data);
  ps->reconnect_timer = nullptr;
  as_connect(ps);
}

void schedule_connect(AsServer* ps) {
  timer_cancel_slot(&ps->reconnect_timer);
  ps->reconnect_timer = timer_add(RECONNECT_DELAY, as_reconnect_fired, ps);
}

// Takes a free server off the free stack; it is then no longer free.
void take_off_free(AsServer* ps) {
  dlog(DLOG_SPAM, 9, "Begin - free_servers=%p, count=%d\n", static_cast<void*>(as.free_servers),
       as.free_count);
  if (as.free_servers == ps) {
    as.free_servers = ps->next;
    as.free_count--;
    dlog(DLOG_SPAM, 9, "Matched first entry - free_servers=%p, count=%d\n",
         static_cast<void*>(as.free_servers), as.free_count);
  } else {
    AsServer* p = as.free_servers;
    while (p != nullptr && p->next != ps) p = p->next;
    if (p == nullptr) {
      dlog(DLOG_SPAM, 9, "End, should not get here - free_servers=%p, count=%d\n",
           static_cast<void*>(as.free_servers), as.free_count);
      return;
    }
    p->next = ps->next;
    as.free_count--;
    dlog(DLOG_SPAM, 9, "Match - free_servers=%p, count=%d\n", static_cast<void*>(as.free_servers),
         as.free_count);
  }
  ps->next = nullptr;
  ps->status = 0;
}

AsServer* get_free_server() {
  AsServer* ps = as.free_servers;
  if (ps == nullptr) {
    dlog(DLOG_SPAM, 9, "get_free_server: No free AS server\n");
    return nullptr;
  }
  as.free_servers = ps->next;
  ps->next = nullptr;
  as.free_count--;
  dlog(DLOG_SPAM, 9, "get_free_server: count=%d\n", as.free_count);
  ps->status = 2;
  return ps;
}

void asr_free(AsRequest* r) {
  free(r->text);
  free(r);
}

void as_write_callback(int, int error, void* data) {
  auto* ps = static_cast<AsServer*>(data);
  if (error == 0 || ps == as.sending) return;
  dlog(DLOG_SPAM, 1, "Write error to anti-spam server: %m\n");
  as_fail_requests(ps);
  as_connect(ps);
}

// The line goes out as a copy: the request may be cancelled by its caller's
// time-out while the line still waits in the write queue.
int as_send(AsServer* ps) {
  dlog(DLOG_SPAM, 9, "as_send: ps %p asr %p\n", static_cast<void*>(ps),
       static_cast<void*>(ps->asr));
  comm_read(ps->fd, as_read, ps);
  if (ps->asr == nullptr) {
    ps_free(ps);
    return 0;
  }
  char* copy = strdup(ps->asr->text);
  if (copy == nullptr) fatal_exit("as_send: out of memory\n");
  as.sending = ps;
  int r = comm_write(ps->fd, copy, static_cast<int>(strlen(copy)), as_write_callback, ps, free);
  as.sending = nullptr;
  if (r < 0) {
    dlog(DLOG_SPAM, 3, "Write error to anti-spam server: %m\n");
    return -1;
  }
  return 0;
}

int send_request(AsRequest* r, AsServer* ps) {
  dlog(DLOG_SPAM, 4, "send_request: ps=%p, asr=%p, id=%s, fd=%d\n", static_cast<void*>(ps),
       static_cast<void*>(r), r->key, ps->fd);
  r->ps = ps;
  ps->asr = r;
  ps->failures = 0;
  if (as_send(ps) != 0) return -1;
  r->awaiting = true;
  return 0;
}

// A server became available: the newest pending request takes it, or it goes
// back on the free stack. A pending request whose line cannot be queued stays
// on the server unanswered; its caller's time-out ends it.
void ps_free(AsServer* ps) {
  ps->asr = nullptr;
  if (as.pending_head != nullptr) {
    dlog(DLOG_SPAM, 5, "penging_head=%p\n", static_cast<void*>(as.pending_head));
    AsRequest* r = as.pending_head;
    dlog(DLOG_SPAM, 9, "ps_free: pulling request off pending list: %p\n", static_cast<void*>(r));
    as.pending_head = r->next;
    r->next = nullptr;
    ps->status = 2;
    send_request(r, ps);
    return;
  }
  dlog(DLOG_SPAM, 9, "ps_free: none pending, status: %d\n", ps->status);
  ps->failures = 0;
  if (ps->status == 1) return;
  ps->next = as.free_servers;
  as.free_servers = ps;
  ps->status = 1;
  as.free_count++;
  dlog(DLOG_SPAM, 9, "ps_free: put %p back to free pool, count=%d\n", static_cast<void*>(ps),
       as.free_count);
}

// A scan that cannot be done passes with 0: every waiting request (of the whole
// pool) first, then the one in flight here. Each handler cancels its own.
void as_fail_requests(AsServer* ps) {
  while (as.pending_head != nullptr) {
    AsRequest* r = as.pending_head;
    as.pending_head = r->next;
    r->next = nullptr;
    r->handler(r->data, 0);
  }
  if (ps->asr == nullptr) return;
  ps->asr->awaiting = false;  // the connection is remade: nothing comes for it
  ps->asr->handler(ps->asr->data, 0);
}

// A reply that breaks the protocol: the requests pass with 0 and the connection
// is made anew at once, as after a read error.
void as_drop(AsServer* ps) {
  dlog(DLOG_SPAM, 1, "Invalid response from anti-spam.\n");
  as_fail_requests(ps);
  if (ps->status == 1) take_off_free(ps);
  as_connect(ps);
}

void as_read(int fd, void* data) {
  auto* ps = static_cast<AsServer*>(data);
  dlog(DLOG_SPAM, 9, "as_read: fd %d ps %p\n", fd, data);
  if (ps == nullptr) {
    dlog(DLOG_SPAM, 5, "null server data\n");
    return;
  }
  if (ps->stream == nullptr || ps->fd < 0) {
    dlog(DLOG_SPAM, 9, "as_read: stream not open\n");
    return;
  }
  const unsigned epoch = ps->epoch;
  for (;;) {
    DynString* line = as.line;
    line->length = 0;
    line->data[0] = '\0';
    // Read up to one byte past the longest reply: a line cut there is too long
    // whatever its first bytes say, while one of exactly the limit can still
    // wait for its end. The rest of a longer line is never buffered.
    if (lstream_readline(line, ps->stream, '\n', MAX_REPLY + 1) < 0) {
      if (is_transient_errno(errno)) {
        dlog(DLOG_SPAM, 9, "as_read: fd %d data %p err %m\n", fd, data);
        comm_read(fd, as_read, ps);
        return;
      }
      dlog(DLOG_SPAM, 1, "Read error from AS server: %m\n");
      as_fail_requests(ps);
      if (ps->status == 1) take_off_free(ps);
      as_connect(ps);
      return;
    }
    if (line->length == 0) {
      dlog(DLOG_SPAM, 1, "Anti-spam server shut down\n");
      as_fail_requests(ps);
      dlog(DLOG_SPAM, 9, "status = %d\n", ps->status);
      if (ps->status == 1) take_off_free(ps);
      ps->status = 0;
      as.as_down = true;
      schedule_connect(ps);
      return;
    }
    if (line->data[line->length - 1] == '\n') line->data[--line->length] = '\0';
    AsRequest* r = ps->asr;
    dlog(DLOG_SPAM, 9, "as_read: ps %p asr %p line \"%s\"\n", data, static_cast<void*>(r),
         line->data);
    char* end = nullptr;
    int result = static_cast<int>(strtol(line->data, &end, 10));
    if (line->length < MIN_REPLY || line->length > MAX_REPLY || end == line->data) {
      as_drop(ps);
      return;
    }
    const char* key = strpbrk(line->data, " \t\v\f\r");
    key = key != nullptr ? key + 1 : "";
    dlog(DLOG_SPAM, 4, "AS reply id=%s ps=%p, asr=%p, fd=%d\n", key, data, static_cast<void*>(r),
         fd);
    if (r == nullptr || strncmp(key, r->key, KEY_LENGTH) != 0) {
      dlog(DLOG_SPAM, 3, "Can't find matching spam request for %s, connection %p\n", key,
           r != nullptr ? r->data : nullptr);
      if (ps->late_replies == 0) {
        as_drop(ps);
        return;
      }
      ps->late_replies--;
      continue;
    }
    r->awaiting = false;
    r->handler(r->data, result);
    if (ps->epoch != epoch || ps->stream == nullptr) return;
  }
}

void as_connect_failed(AsServer* ps) {
  int saved = errno;
  if (ps->failures++ > FAILURES_BEFORE_GIVING_UP) {
    as_fail_requests(ps);
    errno = saved;
    dlog(DLOG_SPAM, 1, "Could not connect to anti-spam server: %m\n");
  }
  schedule_connect(ps);
}

void as_connected(int fd, int error, void* data) {
  auto* ps = static_cast<AsServer*>(data);
  ps->connect_handle = nullptr;
  if (error != 0) {
    dlog(DLOG_SPAM, 7, "Could not connect to anti-spam server: %m. Will try in 5 seconds.\n");
    as_connect_failed(ps);
    return;
  }
  dlog(DLOG_SPAM, 3, "Successfully connected to anti-spam server\n");
  ps->failures = 0;
  ps->stream = lstream_open(fd, stream_read, STREAM_CHUNK);
  if (ps->stream == nullptr) fatal_exit("as_connected: out of memory\n");
  ps_free(ps);
  as.as_down = false;
  comm_read(fd, as_read, ps);
}

void as_connect(AsServer* ps) {
  if (ps == nullptr || ps->connect_handle != nullptr) return;
  timer_cancel_slot(&ps->reconnect_timer);  // whatever was scheduled happens now
  if (ps->stream != nullptr) lstream_close(nullptr, ps->stream);
  ps->stream = nullptr;
  as.as_down = true;
  if (ps->status == 1) take_off_free(ps);  // a connecting server must not be handed out
  if (ps->fd >= 0) {
    comm_clear_write(ps->fd, 0);
    comm_clear_read(ps->fd);
    close(ps->fd);
    ps->fd = -1;
  }
  ps->epoch++;
  ps->late_replies = 0;
  ps->status = 0;
  // Out of descriptors, say: that passes, so it is a failed attempt like a
  // refused connect, tried again, also at start-up.
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    dlog(DLOG_SPAM, 1, "Couldn't create anti-spam socket: %m\n");
    as_connect_failed(ps);
    return;
  }
  ps->fd = fd;
  dlog(DLOG_SPAM, 7, "Connecting to %s %d\n", as.addr.sun_path, fd);
  socklen_t length = static_cast<socklen_t>(2 + strlen(as.addr.sun_path));
  ps->connect_handle =
      comm_connect(fd, reinterpret_cast<const sockaddr*>(&as.addr), length, as_connected, ps);
  if (ps->connect_handle == nullptr) as_connect_failed(ps);
}

void asr_remove(AsRequest* r) {
  for (AsRequest** p = &as.pending_head; *p != nullptr; p = &(*p)->next) {
    if (*p != r) continue;
    *p = r->next;
    r->next = nullptr;
    dlog(DLOG_SPAM, 5, "asr_remove: remove from pending list: %p\n", static_cast<void*>(r));
    return;
  }
}

}  // namespace

void spam_init(const char* path, int count) {
  dlog(DLOG_SPAM, 5, "spam_init %s %d\n", path, count);
  if (count <= 0) return;
  as.free_servers = nullptr;
  as.free_count = 0;
  if (as.line == nullptr) as.line = dstr_new(500);
  if (as.line == nullptr) fatal_exit("spam_init: out of memory\n");
  as.servers.assign(static_cast<size_t>(count), AsServer{});
  as.addr.sun_family = AF_UNIX;
  str_copy_bounded(as.addr.sun_path, path, sizeof(as.addr.sun_path));
  for (AsServer& ps : as.servers) as_connect(&ps);
}

AsRequest* spam_scan(SpamHandler handler, void* data, const char* filename, const char* id,
                     const char* sender, int64_t size, bool bypass) {
  // An empty id would leave its field out: it is "unknown", as a missing one.
  // The id and the sender come from the sender's message and envelope.
  char* safe_id = str_field_copy(id != nullptr && id[0] != '\0' ? id : "unknown");
  dlog(DLOG_SPAM, 9, "spam_scan: for %s id= %s\n", filename, safe_id);
  if (as.servers.empty()) {
    free(safe_id);
    handler(data, 0);
    return nullptr;
  }
  auto* r = static_cast<AsRequest*>(calloc(1, sizeof(AsRequest)));
  if (r == nullptr) fatal_exit("spam_scan: out of memory\n");
  long long n = size;
  if (sender != nullptr && sender[0] != '\0') {
    char* safe_sender = str_field_copy(sender);
    xasprintf(&r->text, "%s %s %lld %s\n", filename, safe_id, n, safe_sender);
    free(safe_sender);
  } else {
    xasprintf(&r->text, "%s %s %lld\n", filename, safe_id, n);
  }
  free(safe_id);
  size_t name_length = strlen(filename);
  r->key = r->text + (name_length > KEY_LENGTH ? name_length - KEY_LENGTH : 0);
  r->handler = handler;
  r->data = data;

  if (AsServer* ps = get_free_server(); ps != nullptr) {
    if (send_request(r, ps) != 0) {
      spam_cancel(r);
      return nullptr;
    }
    return r;
  }
  if (bypass || as.as_down) {
    dlog(DLOG_SPAM, 5, "No free AS servers, bypass");
    asr_free(r);
    handler(data, 0);
    return nullptr;
  }
  dlog(DLOG_SPAM, 5, "No AS free servers, queue the request, pending head=%p\n",
       static_cast<void*>(as.pending_head));
  r->next = as.pending_head;
  as.pending_head = r;
  return r;
}

void spam_init_remote(SpamProtocol protocol, const char* addr, int count, double reject_score) {
  as.remote = true;
  spamd_init(protocol, addr, count, reject_score);
}

AsRequest* spam_check(SpamHandler handler, void* data, const char* filename, const char* id,
                      const SpamEnvelope& envelope, int64_t size, bool bypass) {
  if (!as.remote) return spam_scan(handler, data, filename, id, envelope.from, size, bypass);
  SpamdJob* job = spamd_scan(handler, data, filename, envelope, size, bypass);
  if (job == nullptr) return nullptr;
  auto* r = static_cast<AsRequest*>(calloc(1, sizeof(AsRequest)));
  if (r == nullptr) fatal_exit("spam_check: out of memory\n");
  r->remote = job;
  return r;
}

void spam_cancel(AsRequest* r) {
  if (r->remote != nullptr) spamd_cancel(r->remote);
  asr_remove(r);
  // A server that was reconnected under a request no longer carries it.
  if (r->ps != nullptr && r->ps->asr == r) {
    if (r->awaiting) r->ps->late_replies++;
    ps_free(r->ps);
  }
  asr_free(r);
}

void spam_shutdown() {
  spamd_shutdown();
  as.remote = false;
  while (as.pending_head != nullptr) {
    AsRequest* r = as.pending_head;
    as.pending_head = r->next;
    asr_free(r);
  }
  for (AsServer& ps : as.servers) {
    if (ps.connect_handle != nullptr) comm_connect_abort(ps.connect_handle);
    timer_cancel_slot(&ps.reconnect_timer);
    if (ps.fd >= 0) {
      comm_clear_write(ps.fd, 0);
      comm_clear_read(ps.fd);
      close(ps.fd);
    }
    if (ps.stream != nullptr) lstream_close(nullptr, ps.stream);
    if (ps.asr != nullptr) asr_free(ps.asr);
  }
  std::vector<AsServer>().swap(as.servers);
  as.free_servers = nullptr;
  as.free_count = 0;
  dstr_free(as.line);
  as.line = nullptr;
  as.as_down = true;
}
