#include "net/clock.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>

uint32_t NowMs()
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000u +
                                 static_cast<uint64_t>(now.tv_nsec) / 1000000u);
}

namespace {

int64_t MonotonicMs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

void SleepUntilNextTick(TickSchedule* schedule, uint32_t period_ms)
{
    int64_t now = MonotonicMs();
    if (schedule->next_ms < 0 || now - schedule->next_ms > kTickCatchUpMs)
        schedule->next_ms = now;
    schedule->next_ms += period_ms;
    struct timespec until = {static_cast<time_t>(schedule->next_ms / 1000),
                             static_cast<long>(schedule->next_ms % 1000) * 1000000};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

void SleepMs(uint32_t ms)
{
    usleep(static_cast<useconds_t>(ms) * 1000u);
}
