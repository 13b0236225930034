// Whatever the main application sends goes to the command interpreter, as
// command_endpoint delivers it: at most 9999 bytes followed by zero bytes.
// The camera link is not opened here, so commands go nowhere.
#include <cstdint>
#include <cstring>

#include "app/main_app_link.h"
#include "control/app_commands.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static uint8_t buffer[kAppCommandBufferSize];
    size_t length = size < sizeof buffer - 1 ? size : sizeof buffer - 1;
    memset(buffer, 0, sizeof buffer);
    if (length > 0)
        memcpy(buffer, data, length);
    HandleAppDatagram(buffer, static_cast<uint16_t>(length), "127.0.0.1", 5000);
    return 0;
}
