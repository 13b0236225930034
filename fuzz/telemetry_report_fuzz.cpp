// The telemetry decoder behind valid frames: each frame of the block is built
// around fuzzed bytes with its start byte, length, version and both checksums
// right, so mutation explores the report decoders rather than the checksums.
// Per frame the input gives one byte that picks the length (one of the report
// kinds' lengths, or any other from 13 to 255), then the frame's bytes from
// the sender on (sender, receiver, sequence, command type, set and id, the
// payload), zero-filled when the input runs out.
#include <cstdint>
#include <cstring>

#include "camera/crc.h"
#include "camera/frame.h"
#include "fuzz_world.h"
#include "state/report_layout.h"
#include "state/telemetry_decoder.h"

namespace {

constexpr size_t kReportLengths[] = {
    kGimbalStateReportLength, kTrackingReportLength,       kBatteryReportLength,   kBatteryReportLongLength,
    kPlaybackReportLength,    kAttitudeOrFocusReportLength, kHistogramReportLength, kCameraInfoReportLength,
    kSettingsReportLength,    kSettingsReportLongLength,
};
constexpr size_t kKinds = sizeof kReportLengths / sizeof kReportLengths[0];
constexpr size_t kBlockCapacity = 4096;   // the most the reassembly hands over at once, with room

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    EnterFuzzWorld();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ResetServiceRecords();
    static uint8_t block[kBlockCapacity];
    size_t filled = 0;
    while (size > 0) {
        uint8_t pick = data[0];
        ++data;
        --size;
        size_t length = pick < 2 * kKinds ? kReportLengths[pick % kKinds]
                                           : kFrameMinimumSize + pick % (kFrameMaximumSize - kFrameMinimumSize + 1);
        if (filled + length > sizeof block)
            break;
        uint8_t* frame = block + filled;
        memset(frame, 0, length);
        frame[0] = kFrameStartByte;
        frame[kFrameLengthOffset] = static_cast<uint8_t>(length);
        frame[kFrameVersionOffset] = kFrameVersion;
        frame[kFrameHeaderCrcOffset] = Crc8(frame, kFrameHeaderCrcOffset);
        size_t body = length - kFrameSenderOffset - 2;
        size_t taken = size < body ? size : body;
        memcpy(frame + kFrameSenderOffset, data, taken);
        data += taken;
        size -= taken;
        WriteLe16(frame + length - 2, Crc16(frame, length - 2));
        filled += length;
    }
    ScanTelemetryBuffer(nullptr, block, static_cast<uint32_t>(filled));
    return 0;
}
