// Process-level services of start-up: the listening
// socket, the privilege drop and the scan-directory cleanup.
#pragma once

#include <netinet/in.h>

#include "foundation/fd.h"

// A non-blocking listening IPv4 TCP socket with the given backlog, or -1.
int make_listen_socket(const sockaddr_in* address, int backlog = 5);
int set_user_group(const char* user, const char* group);  // 0 or 1
// Removes every entry of directory whose name starts with prefix (unless -k).
void cleanup_scan_dir(const char* directory, const char* prefix);
void remove_tree(const char* path);
