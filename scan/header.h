// Header tools for message files: the value of one header field (folded lines
// joined), the mail-header date, and tagging a field in place. Files are read
// in pieces of at most 999 bytes, so a longer line counts as several lines.
#pragma once

#include <cstddef>
#include <ctime>

// The value of the first header line starting with field (which includes its
// colon, compared without regard to case), continuation lines joined; null
// when the file cannot be opened or the header lacks it. Caller frees.
char* header_field_value(const char* field, const char* file_name);
// The same, from a message (or its header) of n bytes held in memory.
char* header_field_value_in(const char* field, const char* bytes, size_t n);

// *time as local time, "%a, %d %b %Y %H:%M:%S %z" in the C locale. Caller frees.
char* rfc822_date(const time_t* time);

// Puts tag in front of the field's value, or adds the field when the header
// lacks it, through a copy renamed over the file (mode 0600 afterwards).
// 1: tag null or field added; 0: tagged, already tagged, or no end of header;
// -1: file unreadable, or the copy not made, not written or not moved into
// place (the file is unchanged).
int rfc822_tag(const char* field, const char* tag, const char* file_name);
