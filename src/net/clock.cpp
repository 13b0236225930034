#include "net/clock.h"

#include <time.h>
#include <unistd.h>

uint32_t NowMs()
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000u +
                                 static_cast<uint64_t>(now.tv_nsec) / 1000000u);
}

void SleepMs(uint32_t ms)
{
    usleep(static_cast<useconds_t>(ms) * 1000u);
}
