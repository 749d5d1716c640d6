// File-to-file conversions between the transfer forms of a message: SMTP
// dot-stuffing and HTTP/1.1 chunked coding. Each writes a new file beside its
// source (mkstemp in the source's directory) and never leaves a partial copy
// under the source's name. Failing to create or write a copy is fatal, except
// in stuff_file; the copy is removed before the process ends.
#pragma once

// Replaces name, open on fd, by its dot-stuffed form ending in ".\r\n"; fd is
// read from offset 0. A last line without LF gets CRLF before the terminator.
// 0: done, fd closed, name holds the stuffed copy. -1: no copy could be made,
// read or moved; name is unchanged and fd still open.
int stuff_file(const char* name, int fd);
// A new file with the stuffing removed and the ".\r\n" line dropped (what came
// before the end of file when the terminator is missing); null when name
// cannot be opened or read. Caller frees the path.
char* destuff_file(const char* name);
// Writes in_name to out_name (created or truncated) dot-stuffed, ending in
// ".\r\n". 0 when done; -1 when in_name cannot be opened (out_name untouched)
// or out_name cannot be written (out_name removed).
int restuff_file(const char* in_name, const char* out_name);
// Decodes a chunked file up to its last chunk; null on malformed input (the
// copy is removed). Caller frees the path.
char* dechunk_file(const char* name);
// Encodes a whole file as one chunk, an empty one as the last chunk alone.
// Null when name cannot be opened. Caller frees the path.
char* chunk_file(const char* name);

// "<directory of name>/<prefix>XXXXXX" for mkstemp, so that a copy can be
// renamed over name without crossing file systems. Caller frees.
char* template_beside(const char* name, const char* prefix);
