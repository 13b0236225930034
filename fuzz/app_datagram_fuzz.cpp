// Whatever the main application sends goes to the command interpreter, as
// the command endpoint delivers it: at most 9999 bytes followed by zero
// bytes. Commands are built and sent as usual; the camera link is not opened,
// so they go nowhere. Seeds hold every command and every value of its table
// (fuzz/corpus/app_datagram, made by fuzz/make_app_seeds.py); the dictionary
// fuzz/app_datagram.dict holds the keys and words.
#include <cstdint>
#include <cstring>

#include "app/main_app_link.h"
#include "control/app_commands.h"
#include "fuzz_world.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    EnterFuzzWorld();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ResetServiceRecords();
    static uint8_t buffer[kAppCommandBufferSize];
    size_t length = size < sizeof buffer - 1 ? size : sizeof buffer - 1;
    memset(buffer, 0, sizeof buffer);
    if (length > 0)
        memcpy(buffer, data, length);
    if (length > 0)   // the endpoint never hands on an empty datagram
        HandleAppDatagram(buffer, static_cast<uint16_t>(length), "127.0.0.1", 5000);
    return 0;
}
