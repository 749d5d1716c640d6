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

#include "event/comm.h"
#include "event/timer.h"
#include "foundation/dstr.h"
#include "foundation/lstream.h"

struct VscanRequest;
struct AsRequest;

// One recipient address; the node owns its string.
struct RcptNode {
  RcptNode* next;
  DynString* address;
};

// Allocated zero-filled by new_connection; closed by close_connection.
struct Connection {
  Connection* next;  // in active_connections or closed_connections
  Connection* prev;  // null at the head and in closed_connections
  int sender_fd;     // -1 when none
  CommConnect* be_connect;
  int receiver_fd;               // backend socket; -1 when none
  sockaddr_in sender_addr;       // the sender's peer address
  sockaddr_in receiver_addr;     // where the sender meant to go (the backend)
  sockaddr_in my_receiver_addr;  // our end of the backend connection
  sockaddr_in my_sender_addr;    // our end of the sender connection
  int num_rcpts;
  int num_failed_rcpts;
  RcptNode* rcpts;        // newest first
  RcptNode* rcpt_cursor;  // the recipient the backend is answering; not owned
  RcptNode* failed_rcpts;
  DynString* helo_domain;  // null until HELO/EHLO named a domain
  DynString* from;         // null before MAIL; empty for the null sender
  DynString* from_domain;
  int errors;  // sender errors counted against max_errors
  LineStream* receiver_stream;
  LineStream* sender_stream;
  Timer* idle_timer;
  Timer* scan_timer;
  Timer* noop_timer;
  DynString* scan_file_name;
  FILE* scan_file;
  int be_state;
  bool can_relay;
  bool be_pipelining;
  int noops_pending;  // keep-alive NOOPs whose reply has not come yet
  bool newline;
  bool closed;  // set once, on entry to close_connection
  bool unstuffed;
  VscanRequest* vs_request;
  AsRequest* spam_request;
  char* auth_user;  // base64 lines as received, with their line end
  char* auth_pass;
  char* msgid;
  int scan_result;
  bool transaction_pending;  // a backend connection is being opened for a message
  int64_t declared_size;     // SIZE= of MAIL FROM; 0 when none
  int64_t bytes_received;
  bool in_header;
  bool binary_body;
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
constexpr int SENDER_READ_SIZE = 2000;
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
// sender_fd and addresses are filled in. smtp_accept ends with it; tests use
// it on sockets of their own.
void smtp_start_session(Connection* conn);
Connection* new_connection();
// Idempotent; every failure path ends here. The record stays readable until
// free_closed_connections.
void close_connection(Connection* conn);
void free_closed_connections();
void reset_idle_timer(Connection* conn);
// Drops the envelope and the scan state; HELO domain, relay right, AUTH and
// the error count survive.
void reset_transaction(Connection* conn);
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
// Both take ownership of address and push it at the head of their list.
void add_rcpt(Connection* conn, DynString* address);
void add_failed_rcpt(Connection* conn, DynString* address);

// --- Message reception (smtp/data.cc) ---
int smtp_data(const DynString* line, Connection* conn);
// Read handler of sender_fd during DATA; data is the Connection.
void data_handler(int fd, void* data);
// End of data: closes the scan file, reads the Message-ID and starts the
// spam check (or goes straight to the verdicts without an anti-spam pool).
void finish_data(Connection* conn);
// Timer handlers of scan_timer; data is the Connection.
void av_scan_timeout(void* data);
void spam_scan_timeout(void* data);

// --- Authentication (smtp/auth.cc; helpers in smtp/auth.h) ---
int smtp_auth(const DynString* line, Connection* conn);
