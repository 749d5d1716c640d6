// The anti-spam client: a pool of connections to the local anti-spam service
// over a Unix stream socket, one request in flight per connection, a stack of
// free connections and a stack of waiting requests, reconnects on timers.
// A request belongs to this module until its caller cancels it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

struct AsRequest;

// Called with the caller's data and the verdict (0 when none could be had).
// The handler must spam_cancel the request it was given back, if any.
using SpamHandler = void (*)(void* data, int result);

// The service's protocol: the native lines, SpamAssassin's spamd (SPAMC/1.5
// CHECK) or rspamd (HTTP POST /checkv2).
enum class SpamProtocol { NATIVE, SPAMD, RSPAMD };

// What the services other than the native one are told about a message.
// Everything is borrowed for the call.
struct SpamEnvelope {
  const char* sender_ip = nullptr;  // dotted
  const char* helo = nullptr;       // null when none was given
  const char* from = nullptr;       // empty or null for the null sender
  const char* const* rcpts = nullptr;
  size_t rcpt_count = 0;
  const char* queue_id = nullptr;
};

// Start-up: opens count connections to path (count <= 0: none; every
// request then passes with 0).
void spam_init(const char* path, int count);
// Starts a check of filename (at least 6 characters: the last 6 are the reply
// key). id null means "unknown"; sender may be null or empty. Returns the
// request, or null when the handler has already been called (no pool, no
// free connection with bypass or while the service is down) or sending
// failed (handler not called).
AsRequest* spam_scan(SpamHandler handler, void* data, const char* filename, const char* id,
                     const char* sender, int64_t size, bool bypass);
// Start-up for spamd or rspamd at addr (a Unix socket path or host:port): at
// most count requests at once, each on a connection of its own; a spamd
// verdict of spam with at least reject_score is 3 (refuse), below it 1 (tag).
// A bad address ends the start-up.
void spam_init_remote(SpamProtocol protocol, const char* addr, int count, double reject_score);
// As spam_scan, with whichever protocol was initialised. The remote services
// get the message itself, unless it is larger than size: then it passes with 0
// at once.
AsRequest* spam_check(SpamHandler handler, void* data, const char* filename, const char* id,
                      const SpamEnvelope& envelope, int64_t size, bool bypass);
// Drops a request (not null): off the waiting stack, its connection freed for
// the next waiting request. Also after its handler ran.
void spam_cancel(AsRequest* request);
struct SpamCancel {
  void operator()(AsRequest* r) const noexcept { spam_cancel(r); }
};
using AsRequestPtr = std::unique_ptr<AsRequest, SpamCancel>;
// Shutdown: closes every connection and frees the pool; waiting requests are
// not answered.
void spam_shutdown();
