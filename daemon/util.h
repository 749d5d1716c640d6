// Process-level services of start-up: the listening
// socket, the privilege drop and the scan-directory cleanup.
#pragma once

#include <netinet/in.h>

#include "foundation/fd.h"

// A non-blocking listening IPv4 TCP socket with the given backlog, or -1.
int make_listen_socket(const sockaddr_in* address, int backlog = 5);
// Drops root for user and group with no supplementary groups, and checks that
// root cannot be had back: 0, or 1 when any step failed. keep_cap >= 0 (a
// CAP_ number) stays in the permitted and effective sets, the only
// capability left; -1 keeps none.
int set_user_group(const char* user, const char* group, int keep_cap = -1);
// Removes every entry of directory whose name starts with prefix (unless -k).
// Nothing below directory is followed: a symlink is removed as a link.
void cleanup_scan_dir(const char* directory, const char* prefix);
// Removes the directory path (not followed if a symlink) and everything below it.
void remove_tree(const char* path);
