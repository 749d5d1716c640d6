// File-to-file conversions between the transfer forms of a message: SMTP
// dot-stuffing and HTTP/1.1 chunked coding. Each writes a new file beside its
// source (mkstemp in the source's directory) and never leaves a partial copy
// under the source's name.
#pragma once

// Replaces name, open on fd, by its dot-stuffed form ending in ".\r\n".
// 0: done, fd closed, name holds the stuffed copy. -1: no copy could be made;
// the file and fd are untouched.
int stuff_file(const char* name, int fd);
// A new file with the stuffing removed and the ".\r\n" line dropped; null when
// name cannot be opened. Caller frees the path.
char* destuff_file(const char* name);
// Writes in_name to out_name dot-stuffed, ending in ".\r\n". 0 when done.
int restuff_file(const char* in_name, const char* out_name);
// Decodes a chunked file; null on malformed input (the copy is removed).
char* dechunk_file(const char* name);
// Encodes a whole file as one chunk.
char* chunk_file(const char* name);
