// The frame of the plain-text state dump: modules register a contributor at
// initialisation; dump_state writes a header and calls each, newest first.
#pragma once

#include <cstdio>

using DumpFunction = void (*)(FILE* stream);

constexpr const char* DUMP_DEFAULT_FILE = "/tmp/proxy_dump.txt";

void dump_register(DumpFunction function);
// Writes a full dump to name (null: DUMP_DEFAULT_FILE). An unopenable file is
// logged and the dump skipped.
void dump_state(const char* name);
