// AUTH LOGIN towards the sender: the two-line dialogue, the local check
// against the password table's crypt hashes, and the base64 decoder. The
// user and password lines are kept as received (base64, line end included)
// so that the backend dialogue can log in with them.
#pragma once

#include <string>
#include <string_view>

#include "smtp/smtp.h"

// Read handlers of sender_fd while the user name or password is awaited.
void username_handler(int fd, void* data);
void password_handler(int fd, void* data);
// True when the decoded user is the first entry of that name in the password
// table and crypt(password, stored hash) gives the stored hash.
bool check_local_auth(const char* user_line, const char* pass_line);
// Decoded bytes, or null on a short or illegal input. Bytes below 33 are
// skipped wherever they stand.
DynString* b64_decode(std::string_view text);
// Nothing but base64 characters and "=", then CR LF or LF; false for null.
bool is_base64_line(const char* line);
// An AUTH command line as it may be logged, without its line end: the verb,
// the mechanism when it is LOGIN, and "<hidden>" for every other word.
std::string auth_line_for_log(const DynString* line);
