// A scan connection sends from a pump that queues one piece (the head, a file
// chunk, the end chunk) and goes on when that piece's write completes. A
// write may complete inside comm_write, so the pump loops instead of
// recursing, and a completion that arrives while it runs only asks it to go
// on. Nothing here calls the owner back except the read handler and the
// connect completion, both from the loop.
#include "scan/scanconn.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "event/comm.h"
#include "foundation/dlog.h"
#include "foundation/fatal.h"
#include "foundation/fd.h"
#include "foundation/text.h"

struct ScanConn {
  int fd = -1;
  int file_fd = -1;
  CommConnect* connect = nullptr;
  std::string head;
  int64_t length = 0;
  int64_t offset = 0;
  bool framed = false;
  int end_byte = -1;
  size_t max_reply = 0;
  bool head_sent = false;
  bool all_sent = false;
  bool pumping = false;
  bool again = false;
  bool write_failed = false;
  std::string reply;
  ScanConnDone done = nullptr;
  void* data = nullptr;
};

namespace {

constexpr int64_t CHUNK = 64 * 1024;

void close_all(ScanConn* c) {
  if (c->connect != nullptr) comm_connect_abort(c->connect);
  c->connect = nullptr;
  if (c->fd >= 0) {
    comm_clear_write(c->fd, 0);
    comm_clear_read(c->fd);
    close(c->fd);
    c->fd = -1;
  }
  if (c->file_fd >= 0) close(c->file_fd);
  c->file_fd = -1;
}

void finish(ScanConn* c, ScanConnEnd end) {
  close_all(c);
  c->done(c->data, end, c->reply);
}

char* xmalloc(size_t size) {
  auto* p = static_cast<char*>(malloc(size));
  if (p == nullptr) fatal_exit("scanconn: out of memory\n");
  return p;
}

// The next piece to queue, or null when everything is out (or the file could
// not be read: then write_failed is set).
char* next_piece(ScanConn* c, int* size) {
  if (!c->head_sent) {
    c->head_sent = true;
    if (!c->head.empty()) {
      *size = static_cast<int>(c->head.size());
      char* p = xmalloc(c->head.size());
      memcpy(p, c->head.data(), c->head.size());
      return p;
    }
  }
  if (c->all_sent) return nullptr;
  const int frame = c->framed ? 4 : 0;
  int64_t want = c->length - c->offset < CHUNK ? c->length - c->offset : CHUNK;
  if (want == 0) {
    c->all_sent = true;
    if (!c->framed) return nullptr;
    *size = frame;
    return static_cast<char*>(calloc(1, 4));  // the empty chunk that ends the stream
  }
  char* p = xmalloc(static_cast<size_t>(frame + want));
  ssize_t n = pread(c->file_fd, p + frame, static_cast<size_t>(want), c->offset);
  if (n <= 0) {
    // A scan file that cannot be read (or shrank) is not sent in part: the
    // service hears the end of our side and answers or closes.
    dlog(DLOG_VSCAN, 1, "scan connection: cannot read the scan file: %m\n");
    free(p);
    c->write_failed = true;
    shutdown(c->fd, SHUT_WR);
    return nullptr;
  }
  if (c->framed) {
    uint32_t be = htonl(static_cast<uint32_t>(n));
    memcpy(p, &be, 4);
  }
  c->offset += n;
  *size = frame + static_cast<int>(n);
  return p;
}

void written(int, int error, void* data);

void pump(ScanConn* c) {
  if (c->pumping) {
    c->again = true;
    return;
  }
  c->pumping = true;
  do {
    c->again = false;
    int size = 0;
    char* piece = c->write_failed ? nullptr : next_piece(c, &size);
    if (piece == nullptr) break;
    comm_write(c->fd, piece, size, written, c, free);
  } while (c->again);
  c->pumping = false;
}

// A failed write ends our side only: a service that refuses more (clamd over
// its stream limit) still answers, and the read side takes that answer.
void written(int, int error, void* data) {
  auto* c = static_cast<ScanConn*>(data);
  if (error != 0) {
    c->write_failed = true;
    return;
  }
  pump(c);
}

void readable(int fd, void* data) {
  auto* c = static_cast<ScanConn*>(data);
  char buffer[4096];
  ssize_t n = read(fd, buffer, sizeof(buffer));
  if (n < 0 && is_transient_errno(errno)) {
    comm_read(fd, readable, c);
    return;
  }
  if (n < 0) {
    dlog(DLOG_VSCAN, 3, "scan connection: read error: %m\n");
    finish(c, ScanConnEnd::BROKEN);
    return;
  }
  if (n == 0) {
    finish(c, c->reply.empty() ? ScanConnEnd::BROKEN : ScanConnEnd::REPLY);
    return;
  }
  c->reply.append(buffer, static_cast<size_t>(n));
  size_t end = c->end_byte >= 0 ? c->reply.find(static_cast<char>(c->end_byte)) : std::string::npos;
  if (end != std::string::npos) {
    c->reply.resize(end);
    finish(c, ScanConnEnd::REPLY);
    return;
  }
  if (c->reply.size() > c->max_reply) {
    finish(c, ScanConnEnd::BROKEN);
    return;
  }
  comm_read(fd, readable, c);
}

void connected(int fd, int error, void* data) {
  auto* c = static_cast<ScanConn*>(data);
  c->connect = nullptr;
  if (error != 0) {
    finish(c, ScanConnEnd::CONNECT_FAILED);
    return;
  }
  comm_read(fd, readable, c);
  pump(c);
}

}  // namespace

bool scan_addr_parse(const char* text, ScanAddr* out) {
  *out = ScanAddr{};
  if (text == nullptr || text[0] == '\0') return false;
  if (text[0] == '/') {
    auto* un = reinterpret_cast<sockaddr_un*>(&out->ss);
    if (strlen(text) >= sizeof(un->sun_path)) return false;
    un->sun_family = AF_UNIX;
    str_copy_bounded(un->sun_path, text, sizeof(un->sun_path));
    out->length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(text) + 1);
    return true;
  }
  const char* colon = strrchr(text, ':');
  if (colon == nullptr) return false;
  std::string host(text, colon);
  char* end = nullptr;
  long port = strtol(colon + 1, &end, 10);
  if (end == colon + 1 || *end != '\0' || port < 1 || port > 65535) return false;
  auto* in = reinterpret_cast<sockaddr_in*>(&out->ss);
  in->sin_family = AF_INET;
  in->sin_port = htons(static_cast<uint16_t>(port));
  if (host == "localhost") host = "127.0.0.1";
  if (inet_pton(AF_INET, host.c_str(), &in->sin_addr) != 1) return false;
  out->length = sizeof(sockaddr_in);
  return true;
}

ScanConn* scanconn_start(const ScanAddr& addr, ScanConnSpec spec, ScanConnDone done, void* data) {
  int fd = socket(addr.ss.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    int saved = errno;
    if (spec.file_fd >= 0) close(spec.file_fd);
    errno = saved;
    return nullptr;
  }
  auto* c = new ScanConn;
  c->fd = fd;
  c->file_fd = spec.file_fd;
  c->head = std::move(spec.head);
  c->length = spec.file_fd >= 0 ? spec.length : 0;
  c->framed = spec.framed;
  c->end_byte = spec.end_byte;
  c->max_reply = spec.max_reply;
  c->done = done;
  c->data = data;
  c->connect =
      comm_connect(fd, reinterpret_cast<const sockaddr*>(&addr.ss), addr.length, connected, c);
  if (c->connect == nullptr) {
    int saved = errno;
    close_all(c);
    delete c;
    errno = saved;
    return nullptr;
  }
  return c;
}

void scanconn_free(ScanConn* c) {
  if (c == nullptr) return;
  close_all(c);
  delete c;
}

int scanconn_fd(const ScanConn* c) {
  return c->fd;
}
