// The backend side of a Connection: the connect (plain or transparent), the
// reply reader, the writes and the message-file send, the NOOP keep-alive,
// the client dialogue that replays the transaction (be_state), and the
// teardown that every failure and every close passes through.
#pragma once

#include "smtp/smtp.h"

// be_state values: what the dialogue is waiting for.
enum BeState : int {
  BE_INIT = 0,           // the greeting
  BE_EHLO = 1,           // the reply to EHLO
  BE_HELO = 2,           // the reply to HELO
  BE_AUTH_LOGIN = 3,     // the reply to "auth login"
  BE_AUTH_USER = 4,      // the reply to the user-name line
  BE_AUTH_PASSWORD = 5,  // the reply to the password line
  BE_MAIL = 6,           // the reply to MAIL FROM
  BE_RCPT = 7,           // the reply to the RCPT TO under rcpt_cursor
  BE_DATA = 8,           // the reply to DATA
  BE_SENT_DATA = 9,      // the final reply after the message file
  BE_QUIT = 10,          // the reply to a QUIT passed on from the sender
  BE_RSET = 11,          // the reply to an RSET passed on from the sender
  BE_AUTH_RSET = 12,     // the reply to the RSET after a refused AUTH
  BE_IDLE = 13,          // nothing; NOOP replies
  BE_XCLIENT = 14,       // the reply to XCLIENT (then EHLO once more)
};

// Opens the backend connection for a cleared message (receiver_fd is -1).
// Failures answer the sender "451 Internal Error" and read commands again.
void backend_start(Connection* conn);
// comm_connect completion of backend_start; data is the Connection.
void be_connected(int fd, int error, void* data);
// Read handler of receiver_fd: hands every whole reply line to be_handle_line.
void response_handler(int fd, void* data);
// Arms response_handler on the backend; it runs in the next cycle when
// replies already sit in the stream, which no readiness event would announce.
void be_read_backend(Connection* conn);
// Ends the backend connection (connect, descriptor, stream, keep-alive, a
// message on its way). Idempotent. The transaction and the sender side are
// left alone.
void close_backend(Connection* conn);
// A backend failure. While the backend works for the sender (a message
// being relayed, a passed-on RSET) the sender gets the reply forwarded
// verbatim (then QUIT goes to the backend), or "421 Backend closed
// connection" when it is empty, the message ends and the sender's commands
// are read again. An idle backend's failure reaches a sender between
// messages the same way and leaves the sender's reading alone.
void be_problem(Connection* conn, const DynString* reply);
// The backend stopped reading or answering while working for the sender:
// the backend side goes, the sender gets "451 Internal Error" and its
// commands are read again.
void be_timeout(Connection* conn);
// Starts sending the message file as its one canonical DATA stream (see
// scan/dotstream.h), ending in ".\r\n". 0: started (a later failure is
// reported through the writes); 1: there is no message to send.
int be_send_file(Connection* conn);
// Completion handler of every command written to the backend.
void generic_be_write_callback(int fd, int error, void* data);
// "MAIL FROM:<from>\r\n" for the transaction, with BODY=8BITMIME when the
// sender asked for it and the backend announced it; for a backend that
// announced PIPELINING, followed by every RCPT TO and DATA. Caller frees.
char* be_mail_command(const Connection* conn);
// Timer handler of noop_timer; data is the Connection.
void be_send_noop(void* data);

// One reply line of the backend (command_line). 0: read the next line;
// 1: stop, the read handler stays unregistered.
int be_handle_line(Connection* conn, DynString* line);
// -1 empty, -2 no LF at the end, else the leading number, negated on a
// continuation line ("250-...").
int reply_code(const DynString* line);
// 1 when the line is empty or does not end in LF.
int line_incomplete(const DynString* line);
