// Whatever the camera sends goes through the receive path of the camera
// link: reassembly, the telemetry scanner and decoder, the video path. The
// link is not opened here, so acknowledgements go nowhere.
#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "camera/camera_link.h"
#include "camera/frame.h"
#include "camera/reassembly.h"
#include "state/telemetry_decoder.h"

namespace {

// Attitude reports publish to shared memory: a region of the fuzzer's own,
// removed when it ends, never the board's.
const char kFuzzAttitudeRegion[] = "/tarnwick_fuzz_camstate";

void RemoveFuzzRegion()
{
    shm_unlink(kFuzzAttitudeRegion);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static bool region_named = false;
    if (!region_named) {
        SetSharedAttitudeName(kFuzzAttitudeRegion);
        atexit(RemoveFuzzRegion);
        region_named = true;
    }
    // As the endpoint delivers it: at most one receive buffer.
    static uint8_t datagram[kCameraReceiveBufferSize];
    size_t length = size < sizeof datagram ? size : sizeof datagram;
    if (length > 0)
        memcpy(datagram, data, length);
    HandleCameraDatagram(datagram, length);
    // The same bytes as a telemetry block of their own.
    ScanTelemetryBuffer(nullptr, datagram, static_cast<uint32_t>(length));
    return 0;
}
