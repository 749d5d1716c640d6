// Root cleans the scan directory, which the daemon's own user can write:
// nothing planted there, nor swapped in while it runs, may lead it outside.
#include "daemon/util.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>

#include <cstdarg>
#include <filesystem>
#include <utility>

#include "gtest/gtest.h"
#include "tests/foundation/test_util.h"

namespace fs = std::filesystem;
static fs::path swapped, victim;  // swapped turns into a symlink to victim as it is opened

static void swap_if_armed(const char* path) {
  if (swapped.empty() || swapped.filename() != fs::path(path).filename()) return;
  fs::rename(swapped, victim.parent_path() / "aside");
  fs::create_directory_symlink(victim, std::exchange(swapped, fs::path()));
}
// Both ways of opening a directory pass through the swap.
extern "C" DIR* opendir(const char* path) {
  swap_if_armed(path);
  return reinterpret_cast<DIR* (*)(const char*)>(dlsym(RTLD_NEXT, "opendir"))(path);
}
extern "C" int openat(int dir, const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  mode_t mode = __OPEN_NEEDS_MODE(flags) ? va_arg(args, mode_t) : 0;
  va_end(args);
  swap_if_armed(path);
  return reinterpret_cast<int (*)(int, const char*, int, ...)>(dlsym(RTLD_NEXT, "openat"))(
      dir, path, flags, mode);
}

TEST(CleanupScanDir, RemovesSymlinksAsLinksAndNeverLeavesTheDirectory) {
  foundation_test::TempDir tmp;
  fs::path scan = tmp.file("parent/scan");
  victim = tmp.file("victim");
  for (const char* dir : {"parent/scan/vigild_tree", "parent/scan/vigild_swapped", "victim"})
    fs::create_directories(tmp.file(dir));
  for (const char* file : {"victim/keep", "parent/keep", "parent/scan/other.txt"})
    tmp.write(file, "x");
  fs::create_directory_symlink(victim, scan / "vigild_link");
  fs::create_directory_symlink(victim, scan / "vigild_tree/link");
  swapped = scan / "vigild_swapped";
  foundation_test::logged([&] { cleanup_scan_dir(scan.c_str(), "vigild_"); });
  EXPECT_TRUE(swapped.empty()) << "vigild_swapped was never opened";
  EXPECT_TRUE(fs::exists(victim / "keep"));
  EXPECT_EQ(std::distance(fs::directory_iterator(scan), {}), 1) << "other.txt alone is left";
  // "*" matches "." and ".." too: an empty prefix empties the directory, no more.
  foundation_test::logged([&] { cleanup_scan_dir(scan.c_str(), ""); });
  EXPECT_TRUE(fs::exists(tmp.file("parent/keep")) && fs::is_empty(scan));
}
