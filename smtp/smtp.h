// The sender side of the proxy: the Connection record of every accepted
// sender, the lists that hold records while in use and after closing, the
// listener, the command reader with its command table, and the session and
// envelope commands. A Connection owns its descriptors, streams, timers and
// envelope; the record itself is freed only between poll passes
// (free_closed_connections), so a callback may still look at a closed one.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "event/comm.h"
#include "event/timer.h"
#include "foundation/dstr.h"
#include "foundation/lstream.h"
#include "foundation/text.h"
#include "smtp/txn.h"

struct RelaySend;  // the message on its way to the backend (smtp/backend.cc)
struct RelaySendFree {
  void operator()(RelaySend* r) const noexcept;
};

struct ProxyWait;  // a load balancer's PROXY header being read (smtp/proxy_header.cc)
struct ProxyWaitFree {
  void operator()(ProxyWait* w) const noexcept;
};

// Made by new_connection; closed by close_connection, which lets go of
// everything the record owns; freed between poll passes.
struct Connection {
  Connection* next = nullptr;  // in active_connections or closed_connections
  Connection* prev = nullptr;  // null at the head and in closed_connections
  int sender_fd = -1;
  CommConnect* be_connect = nullptr;
  int receiver_fd = -1;            // backend socket; -1 when none
  sockaddr_in sender_addr{};       // the sender's peer address
  sockaddr_in receiver_addr{};     // where the sender meant to go (the backend)
  sockaddr_in my_receiver_addr{};  // our end of the backend connection
  sockaddr_in my_sender_addr{};    // our end of the sender connection
  DstrPtr helo_domain;             // null until HELO/EHLO named a domain
  int errors = 0;                  // sender errors counted against max_errors
  LstreamPtr receiver_stream;
  LstreamPtr sender_stream;
  TimerPtr idle_timer;
  TimerPtr noop_timer;
  int be_state = 0;
  bool can_relay = false;
  bool be_pipelining = false;  // the backend announced PIPELINING
  bool be_8bitmime = false;    // the backend announced 8BITMIME
  bool be_xclient = false;     // the backend announced XCLIENT
  bool xclient_sent = false;   // on this backend connection
  int noops_pending = 0;       // keep-alive NOOPs whose reply has not come yet
  bool closed = false;         // set once, on entry to close_connection
  CharsPtr auth_user;          // base64 lines as received, with their line end
  CharsPtr auth_pass;
  bool transaction_pending = false;  // a backend connection is being opened for a message
  std::unique_ptr<Transaction> txn;  // from MAIL FROM to the end of the envelope
  std::unique_ptr<RelaySend, RelaySendFree> relay;
  std::unique_ptr<ProxyWait, ProxyWaitFree> proxy_wait;  // until the PROXY header is in
};

extern Connection* active_connections;  // newest first
extern Connection* closed_connections;  // through next; freed between passes
extern int num_connections;             // records in active_connections
extern int listen_fd;                   // opened by start-up; -1 after shutdown
extern CommAccept* accept_handle;       // null while accepting is paused

// Where the first refusal at max_connections writes the connections section.
// Tests point it elsewhere.
extern const char* smtp_refusal_dump_file;

// Every sender line is read into this one buffer; handlers get it as their
// line and must not keep it past their return.
extern DynString* command_line;
constexpr int COMMAND_LINE_CAPACITY = 4000;
// Large reads: a whole small message, or a good part of a large one, per call.
constexpr int SENDER_READ_SIZE = LSTREAM_READ_MAX;
constexpr int COMMAND_LINE_MAX = 2000;

// --- Lifecycle (smtp/listener.cc) ---

// Start-up: empties the lists, registers the accept handler on listen_fd,
// creates command_line and registers dump_connections with the state dump.
void smtp_init_listener();
// Shutdown: closes every active connection; records stay for
// free_closed_connections.
void smtp_close_all();

// comm_accept handler: fd is the new socket (status 0) or -1 (status 1).
void smtp_accept(int fd, int status, void* data);
// Greets the sender and starts reading commands on a connection whose
// sender_fd and addresses are filled in; early holds bytes the sender sent
// that were read already (behind a PROXY header). Tests use it on sockets of
// their own.
void smtp_start_session(Connection* conn, std::string_view early = {});
// A connection whose addresses are final: refused as a mail loop when it
// would relay to the proxy itself, else the session starts.
void smtp_admit(Connection* conn, std::string_view early = {});
// From a trusted load balancer, reads its PROXY header before the greeting,
// within PROXY_HEADER_TIMEOUT seconds, then admits the client it names;
// anything else (an untrusted peer, no header, a bad or late one) is logged
// and closed without a greeting.
void smtp_await_proxy_header(Connection* conn);
constexpr int PROXY_HEADER_TIMEOUT = 5;
Connection* new_connection();
// Idempotent; every failure path ends here. The record stays readable until
// free_closed_connections.
void close_connection(Connection* conn);
void free_closed_connections();
void reset_idle_timer(Connection* conn);
// Ends the transaction, envelope and message: files deleted, scan requests
// and the scan timer cancelled. HELO domain, relay right, AUTH and the error
// count survive.
void txn_end(Connection* conn);
// Ends the message of the transaction and keeps its envelope, so the sender
// may send DATA again: after a refusal, a drop or a failure.
void txn_end_message(Connection* conn);
// After the final reply of a message: the message ends (the whole
// transaction when whole is set) and the sender's commands are read again.
void txn_answered(Connection* conn, bool whole);
// The transaction's phase; ENVELOPE when there is none.
TxnPhase txn_phase(const Connection* conn);
// The message of the transaction; null when there is none, and so for a null
// or closed connection (closing ends the transaction).
Message* txn_message(const Connection* conn);
// Completion handler of every reply to the sender; data is the Connection.
void sender_write_callback(int fd, int status, void* data);
void idle_timeout_handler(void* data);
void dump_connections(FILE* stream);

// The %p that names a connection at the start of its log lines.
inline void* log_ptr(Connection* conn) {
  return conn;
}

// Dotted form of an address, for log lines that name two of them at once
// (inet_ntoa's one static buffer would not do).
struct Dotted {
  explicit Dotted(const sockaddr_in& a) {
    if (inet_ntop(AF_INET, &a.sin_addr, text, sizeof text) == nullptr) text[0] = '?', text[1] = 0;
  }
  char text[INET_ADDRSTRLEN];
};
inline int port_of(const sockaddr_in& a) {
  return ntohs(a.sin_port);
}

// Returns s; a null s (allocation failed) ends the process.
DynString* smtp_checked(DynString* s);

// Writes a constant reply text to the sender. On failure the connection is
// closed and false returned; handlers then return conn->closed.
bool smtp_reply(Connection* conn, const char* text);
// smtp_reply, then the sender's commands are read again: the step after any
// answer that ends a transaction but not the connection. False when the
// connection is closed.
bool smtp_reply_and_resume(Connection* conn, const char* text);
// Hands the sender's descriptor to handler. Input the stream already holds
// (pipelined behind the last line) is handled in the next loop pass, since
// the kernel will not announce it again.
void smtp_read_sender(Connection* conn, IoHandler handler);
// The sender's commands are read again: after a message's final reply.
void smtp_resume(Connection* conn);

// --- Command reader (smtp/commands.cc) ---

// A command handler gets the whole line with its line end. 0: go on reading
// commands; non-zero: stop, the handler has taken the descriptor elsewhere or
// the connection is closed.
using SmtpHandler = int (*)(const DynString* line, Connection* conn);
struct SmtpCommand {
  const char* verb;  // matched without regard to case on the line's first bytes
  SmtpHandler handler;
};
extern const SmtpCommand smtp_commands[];  // ends with a null verb

void command_handler(int fd, void* data);
void clear_line_handler(int fd, void* data);
int smtp_unknown(const DynString* line, Connection* conn);
// Null, empty, or only space, tab, LF, VT, FF and CR.
bool is_blank(const DynString* s);

// --- Session commands (smtp/session.cc) ---
int smtp_quit(const DynString* line, Connection* conn);
int smtp_helo(const DynString* line, Connection* conn);
int smtp_ehlo(const DynString* line, Connection* conn);
int smtp_rset(const DynString* line, Connection* conn);
int smtp_help(const DynString* line, Connection* conn);
int smtp_noop(const DynString* line, Connection* conn);
int smtp_vrfy(const DynString* line, Connection* conn);
void quit_callback(int fd, int status, void* data);

// --- Envelope commands (smtp/envelope.cc) ---
int smtp_mail(const DynString* line, Connection* conn);
int smtp_rcpt(const DynString* line, Connection* conn);
// Both take ownership of address and add it to their list.
void add_rcpt(Connection* conn, DynString* address);
void add_failed_rcpt(Connection* conn, DynString* address);

// --- Message reception (smtp/data.cc) ---
int smtp_data(const DynString* line, Connection* conn);
// Read handler of sender_fd during DATA; data is the Connection.
void data_handler(int fd, void* data);
// End of data: the scan file is complete; reads the Message-ID and starts
// the spam check (or goes straight to the verdicts without an anti-spam
// pool).
void finish_data(Connection* conn);
// Timer handlers of scan_timer; data is the Connection.
void av_scan_timeout(void* data);
void spam_scan_timeout(void* data);

// --- Authentication (smtp/auth.cc; helpers in smtp/auth.h) ---
int smtp_auth(const DynString* line, Connection* conn);
