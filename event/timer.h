// One-shot timers of one-second resolution in a binary min-heap, counted from
// the loop's cached current time. A handle is valid until its timer fires or
// is cancelled; the owner must forget it then.
#pragma once

#include <cstdio>
#include <ctime>
#include <memory>

using TimerHandler = void (*)(void* data);

struct Timer;

void timer_init();
// Runs handler(data) once, delay (>= 0) seconds after the cached time.
Timer* timer_add(int delay, TimerHandler handler, void* data);
// Frees a pending timer. From the timer's own handler it is harmless: the
// record goes when the handler returns.
void timer_cancel(Timer* timer);
// Cancels the timer a record holds, if any, and forgets it: the slot is null
// afterwards, so a later cancel of the same slot does nothing.
void timer_cancel_slot(Timer** slot);
// Moves a pending timer to delay seconds after the cached time. From the
// timer's own handler it re-arms the timer, and the handle stays valid.
void timer_reschedule(int delay, Timer* timer);
// Seconds until the earliest timer (0 when due), -1 when none.
int timer_next_timeout();
void timer_run();
void timer_dump(FILE* stream);

// A record's own timer: cancelled when the owner lets go. The timer's handler
// must release() it first, since a fired timer is freed by this module.
struct TimerCancel {
  void operator()(Timer* timer) const noexcept { timer_cancel(timer); }
};
using TimerPtr = std::unique_ptr<Timer, TimerCancel>;
