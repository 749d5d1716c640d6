// Envelope address rules: the one pattern that finds the address in a MAIL or
// RCPT line, and the relay policy (trusted sender networks, local domains).
// The compiled pattern and its match registers belong to this module and live
// for the whole process; the lists it reads are config's (smtp/config.h).
#pragma once

#include <cstdint>

#include "foundation/dstr.h"

// Searches the whole line, command word included, for the leftmost address.
// Empties both outputs first, then fills them with the address (local part @
// domain) and its domain; both stay empty for the null path "<>".
// Returns 0 on a match and 1 when the line holds no address. A pattern that
// cannot be compiled or searched is a bug and ends the process.
int addr_parse(const DynString* line, DynString* domain_out, DynString* addr_out);

// True when a sender at ip (IPv4, host byte order) may relay anywhere: relay
// control is off, or ip lies in one of the relay networks.
bool relay_check(uint32_t ip);

// True for the empty domain and for any local domain, compared without regard
// to case.
bool is_local_domain(const char* domain);
