// The remote-control record through the cycle's decision step: fuzzed slot
// values and flags are written into "/shared_rc_raw" (in the target's private
// /dev/shm) and one cycle runs after each change, as the remote-control
// thread would every 20 ms, so edges between cycles are explored. The camera
// commands the cycle makes are built and sent as usual; the camera link is
// not opened, so they go nowhere.
//
// Input: a header of five bytes (movement mode, zoom rate, camera mode, focus
// mode, exposure and gimbal bits), then cycles: triples [slot][value][flag],
// slot 0xff ending a cycle. A value byte v stands for v / 64 as a signed
// byte, 0x80 for not-a-number and 0x7f for infinity.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "control/app_commands.h"
#include "control/remote_control.h"
#include "fuzz_world.h"
#include "state/camera_state.h"

namespace {

RcRawState* record = nullptr;
constexpr uint8_t kEndOfCycle = 0xff;
constexpr size_t kHeaderSize = 5;
constexpr int kCycleLimit = 64;

double SlotValue(uint8_t byte)
{
    if (byte == 0x80)
        return std::numeric_limits<double>::quiet_NaN();
    if (byte == 0x7f)
        return std::numeric_limits<double>::infinity();
    return static_cast<int8_t>(byte) / 64.0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    EnterFuzzWorld();
    ResetRemoteControl();
    RunRemoteControlCycle();   // maps the record, creating it in the private /dev/shm
    int fd = -1;
    bool missing = false;
    record = MapRcRawState(kRcRawStateName, &fd, &missing);
    if (record == nullptr)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ResetServiceRecords();
    memset(record, 0, sizeof *record);
    if (size < kHeaderSize)
        return 0;
    static const int32_t kMovements[] = {kMovementUnset, kMovementRelative, kMovementAbsolute};
    MovementMode.store(kMovements[data[0] % 3]);
    ZoomRate.store(static_cast<int8_t>(data[1]));
    {
        CameraStateGuard guard(camera_state_lock);
        CameraState* state = GetCameraState();
        state->mode_code = data[2] % 3 == 2 ? 7 : data[2] % 3;
        state->focus_mode_code = static_cast<uint8_t>(0x84 + data[3] % 3);
        state->ae = data[4] & 1;
        state->gimbal_mode_flag = (data[4] >> 1) & 1;
        state->gimbal_lock_requested = (data[4] >> 2) & 1;
        state->zoom_max = static_cast<uint16_t>(100 * (1 + (data[4] >> 3) % 8));
    }
    data += kHeaderSize;
    size -= kHeaderSize;
    for (int cycle = 0; cycle < kCycleLimit && size > 0; ++cycle) {
        while (size >= 3 && data[0] != kEndOfCycle) {
            size_t slot = data[0] % kRcSlotCount;
            StoreRcSlotValue(record, slot, SlotValue(data[1]));
            StoreRcSlotFlag(record, slot, data[2]);
            data += 3;
            size -= 3;
        }
        if (size > 0) {   // the end mark, or the last bytes of a cut triple
            size_t skip = data[0] == kEndOfCycle ? 1 : size;
            data += skip;
            size -= skip;
        }
        RunRemoteControlCycle();
    }
    return 0;
}
