#include "state/status_report.h"

#include "app/main_app_link.h"
#include "net/clock.h"

constexpr uint32_t kStatusTickMs = 100;
constexpr int kTicksPerPeerCheck = 10;

// Only the peer check runs until the status line and messages exist.
void* StatusThreadMain(void*)
{
    for (int tick = 0;; ++tick) {
        if (tick % kTicksPerPeerCheck == 0)
            main_app_link.command_endpoint.CheckPeerTimeout();
        SleepMs(kStatusTickMs);
    }
    return nullptr;
}
