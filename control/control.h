// The control socket: a Unix datagram socket on which local processes ask for
// the number of sender connections in use. Request and reply are one int in
// host byte order; the reply goes to the address the request came from, so a
// requester must be bound to a path. The module owns the socket it opens.
#pragma once

#include <sys/un.h>

#include "event/comm.h"

constexpr int CTRL_STATS = 1;

// The open control socket, -1 while there is none. Start-up stores what
// ctrl_init returns; shutdown hands it to ctrl_close.
extern int ctrl_fd;

// Replaces a socket left at path with one that every local user may write to
// and registers handler for its requests. -1 (errno set) when no socket could
// be made, or something other than a socket stands at path.
int ctrl_init(const char* path, IoHandler handler);
// Unregisters and closes fd (unless -1) and removes a socket file at path.
void ctrl_close(int fd, const char* path);
// Takes one request per readiness and registers itself again on fd.
void ctrl_read_handler(int fd, void* data);
// Sends num_connections to address.
void send_stats(int fd, const sockaddr_un* address);
