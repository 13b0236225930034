#pragma once
#include <cstdint>

// Milliseconds of the wall clock, modulo 2^32. Elapsed time is always the
// unsigned 32-bit difference of two readings, so the wrap is harmless; a step
// of the wall clock shows up as elapsed time.
uint32_t NowMs();

// Sleeps for the given number of milliseconds (usleep; the system's periods
// are all multiples of a millisecond).
void SleepMs(uint32_t ms);

// A fixed-rate schedule on the monotonic clock, for a thread that must keep a
// rate (the status thread's 100 ms tick): a tick that starts late does not
// push the later ones back, as a sleep of one period after each tick's work
// would. A thread that fell more than kTickCatchUpMs behind (stopped, or
// starved) starts the schedule afresh from now rather than sending a burst.
struct TickSchedule {
    int64_t next_ms = -1;   // monotonic milliseconds of the next tick; -1: not started
};
constexpr int64_t kTickCatchUpMs = 1000;
// Sleeps until the schedule's next tick, `period_ms` after the last one.
void SleepUntilNextTick(TickSchedule* schedule, uint32_t period_ms);
