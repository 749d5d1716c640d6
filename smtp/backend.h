// The backend side of a Connection: the states of the relay dialogue and the
// teardown that every failure and every close passes through. The connect,
// the dialogue and the keep-alive join this module as they are built.
#pragma once

#include "smtp/smtp.h"

// be_state values that the sender side sets itself.
constexpr int BE_INIT = 0;
constexpr int BE_QUIT = 10;
constexpr int BE_RSET = 11;

// Ends the backend connection and drops the scan state of the current
// message (scan timer, scan file and its name). Idempotent. The envelope and
// the sender side are left alone.
void close_backend(Connection* conn);
