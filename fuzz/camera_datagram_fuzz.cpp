// Whatever the camera sends, through the whole receive path of the camera
// link: the transport header, reassembly and dispatch, the acknowledgement
// (built; the link is not opened, so it goes nowhere), the telemetry scanner
// and decoder, and the video path into the frame buffers (made in the
// target's private /dev/shm). One input is a run of datagrams, each behind a
// 16-bit little-endian length, so that state carried from one datagram to the
// next (the telemetry buffer, the live resolution) is explored too.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "camera/camera_link.h"
#include "camera/reassembly.h"
#include "fuzz_world.h"
#include "video/frame_buffer.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    EnterFuzzWorld();
    if (InitFrameBuffers() != 0)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ResetServiceRecords();
    // As the endpoint delivers it: at most one receive buffer.
    static uint8_t datagram[kCameraReceiveBufferSize];
    while (size >= 2) {
        size_t length = static_cast<size_t>(data[0] | data[1] << 8);
        data += 2;
        size -= 2;
        if (length > size)
            length = size;
        if (length > sizeof datagram)
            length = sizeof datagram;
        memcpy(datagram, data, length);
        if (length > 0)   // the endpoint never hands on an empty datagram: it ends the process
            OnCameraDatagram(datagram, static_cast<uint16_t>(length), "127.0.0.1", 9004);
        data += length;
        size -= length;
    }
    return 0;
}
