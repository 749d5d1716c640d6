// The frame of the plain-text state dump: modules register a contributor at
// initialisation; dump_state writes a header and calls each, newest first.
#pragma once

#include <cstdio>
#include <ctime>

using DumpFunction = void (*)(FILE* stream);

constexpr const char* DUMP_DEFAULT_FILE = "/tmp/proxy_dump.txt";

void dump_register(DumpFunction function);
// Writes a full dump to name (null: DUMP_DEFAULT_FILE). An unopenable file is
// logged and the dump skipped.
void dump_state(const char* name);

// The header's time comes from the event loop's cached clock, which the loop
// installs here; without one the wall clock is read.
using DumpClock = time_t (*)();
void dump_set_clock(DumpClock clock);
