#pragma once
#include <cstdint>

// Milliseconds of the wall clock, modulo 2^32. Elapsed time is always the
// unsigned 32-bit difference of two readings, so the wrap is harmless; a step
// of the wall clock shows up as elapsed time.
uint32_t NowMs();

// Sleeps for the given number of milliseconds (usleep; the system's periods
// are all multiples of a millisecond).
void SleepMs(uint32_t ms);
