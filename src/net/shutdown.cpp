#include "net/shutdown.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

void ServiceExit(int code)
{
    static std::atomic<bool> ending{false};
    if (ending.exchange(true)) {
        for (;;)
            pause();
    }
    fflush(stderr);
    exit(code);
}
