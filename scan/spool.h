// A message file in the scan directory: what the scanners judge and what the
// relay sends. Every write into it is checked, so a message is never taken
// for stored when part of it is missing, and the file leaves the disk when
// its owner lets go of it, on whatever path the message ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

struct SpoolFile {
  int fd = -1;          // open for reading and writing
  std::string name;     // where it is on the disk
  std::string pending;  // written bytes still in the buffer
  int64_t size = 0;     // bytes in the file (not counting the buffer)
  bool failed = false;  // a write failed: the file is incomplete for good
};

// Takes fd, made by mkstemp under name.
SpoolFile* spool_adopt(int fd, const char* name);
// Buffers n bytes, writing out full buffers; a large piece is written at
// once, behind what the buffer holds. False once any write failed (errno
// tells why the first time); later bytes are dropped.
bool spool_write(SpoolFile* f, const char* bytes, size_t n);
// The buffer itself, for a producer that appends to it in place instead of
// handing over a copy; spool_sync after each append.
inline std::string* spool_buffer(SpoolFile* f) {
  return &f->pending;
}
// Writes the buffer out once it is full. False once any write failed; what
// was appended then is dropped.
bool spool_sync(SpoolFile* f);
// Writes out the buffer and has the file system report any error a close
// would: true when every byte is on the disk as far as the kernel can tell.
bool spool_finish(SpoolFile* f);
// Looks at the file system of the directory the files are made in: on local
// ones (tmpfs, ext2-4, xfs, btrfs) a close reports nothing the writes did
// not, so spool_finish skips asking. Until called, it always asks.
void spool_probe_dir(const char* dir);
// The file under f's name was replaced (a tagged copy renamed over it): fd
// is reopened on it. False, fd closed, when it cannot be opened.
bool spool_reopen(SpoolFile* f);
// Closes and removes the file.
void spool_free(SpoolFile* f);

struct SpoolFree {
  void operator()(SpoolFile* f) const noexcept { spool_free(f); }
};
using SpoolPtr = std::unique_ptr<SpoolFile, SpoolFree>;
