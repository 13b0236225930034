#include "control/remote_control.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>

#include "camera/camera_link.h"
#include "control/app_commands.h"
#include "control/camera_commands.h"
#include "control/setting_commands.h"
#include "camera/value_tables.h"
#include "net/clock.h"
#include "net/shared_memory.h"
#include "state/camera_state.h"

namespace {

constexpr int kStickCount = 3;
constexpr int kCentringCalls = 3;
constexpr int kEvIndexLast = static_cast<int>(EvNames.size()) - 1;

// The box that the tracking button starts with: centre of the picture.
constexpr float kTrackingBoxX = 0.5f;
constexpr float kTrackingBoxY = 0.5f;
constexpr float kTrackingBoxW = 0.1f;
constexpr float kTrackingBoxH = 0.17f;

// The remote-control thread's own state. StartRemoteControl writes it before
// the thread starts; from then on only the thread touches it. Static storage:
// everything starts at zero, last_ev_index included (it is never reset).
struct RcControlState {
    RcRawState* record;                  // null until mapped; then a whole mapping for ever
    SharedMapping mapping;               // the record's (see net/shared_memory.h)
    RcRawState snapshot;                 // the record as this cycle reads it
    CameraState* camera;
    int32_t edge_state[kRcSlotCount];    // the sign that last acted, per slot
    int32_t last_ev_index;               // EvNames index last sent by the EV axis
    double axis_copy[kStickCount];       // slots 0, 1, 2 as read at the start of the cycle
    uint8_t moving;                      // a stick was off centre: centring calls owed
    bool open_failed;                    // an attempt to map the record has failed
    uint32_t last_open_attempt_ms;
    uint32_t generation_seen;            // the mapping's generation at the last cycle's copy
};
RcControlState rc;

// ---------------------------------------------------------------------------
// Actions that read the camera state when they fire. The state is read under
// camera_state_lock; the command is called after the lock is released (the
// commands take it themselves).

void ToggleOrientationLock()
{
    uint8_t requested;
    {
        CameraStateGuard guard(camera_state_lock);
        requested = rc.camera->gimbal_lock_requested;
    }
    GimbalSetOrientationLock(requested == 1 ? "unlock" : "lock");
}

void ToggleCameraMode()
{
    uint8_t mode;
    {
        CameraStateGuard guard(camera_state_lock);
        mode = rc.camera->mode_code;
    }
    if (mode == kCameraModeVideo)
        CameraSetMode("photo");
    else if (mode == kCameraModePhoto)
        CameraSetMode("video");
}

void ToggleFocusType()
{
    const char* type = nullptr;
    {
        CameraStateGuard guard(camera_state_lock);
        if (SameText(rc.camera->focus_mode, "AFS"))
            type = "afc";
        else if (SameText(rc.camera->focus_mode, "AFC"))
            type = "afs";
    }
    if (type != nullptr)
        CameraSetFocusType(type);
}

void ToggleExposureLock()
{
    uint8_t locked;
    {
        CameraStateGuard guard(camera_state_lock);
        locked = rc.camera->ae;
    }
    if (locked == 1)
        CameraSetExposureLock("unlock");
    else if (locked == 0)
        CameraSetExposureLock("lock");
}

void ToggleTracking()
{
    uint32_t tracking_time;
    {
        CameraStateGuard guard(camera_state_lock);
        tracking_time = rc.camera->tracking_time;
    }
    if (tracking_time == 0)
        TrackingStart(kTrackingBoxX, kTrackingBoxY, kTrackingBoxW, kTrackingBoxH);
    else
        TrackingStop();
}

// ---------------------------------------------------------------------------
// The slots, in the order in which a cycle serves them, with their handling.

enum class RcHandling : uint8_t { kButton, kRocker, kLevel, kZoom, kSwitch, kEvAxis };

using RcAction = void (*)();

struct RcSlotRule {
    uint8_t slot;
    RcHandling handling;
    RcAction action = nullptr;       // button: its action; rocker: the up action
    RcAction down_action = nullptr;  // rocker: the down action
    int8_t zoom_direction = 0;       // zoom: +1 in, -1 out
};

constexpr RcSlotRule kRcServiceOrder[] = {
    {kRcSlotNextPosition, RcHandling::kButton, GimbalNextPosition},
    {kRcSlotLockSwitch, RcHandling::kSwitch},
    {kRcSlotOrientationLock, RcHandling::kButton, ToggleOrientationLock},
    {kRcSlotCameraMode, RcHandling::kButton, ToggleCameraMode},
    {kRcSlotRecordShot, RcHandling::kLevel},
    {kRcSlotFocusType, RcHandling::kButton, ToggleFocusType},
    {kRcSlotExposureLock, RcHandling::kButton, ToggleExposureLock},
    {kRcSlotTracking, RcHandling::kButton, ToggleTracking},
    {kRcSlotExposureModeNext, RcHandling::kButton, CameraNextExposureMode},
    {kRcSlotExposureModePrev, RcHandling::kButton, CameraPrevExposureMode},
    {kRcSlotExposureModeRocker, RcHandling::kRocker, CameraNextExposureMode, CameraPrevExposureMode},
    {kRcSlotIsoNext, RcHandling::kButton, CameraNextIso},
    {kRcSlotIsoPrev, RcHandling::kButton, CameraPrevIso},
    {kRcSlotIsoRocker, RcHandling::kRocker, CameraNextIso, CameraPrevIso},
    {kRcSlotShutterNext, RcHandling::kButton, CameraNextShutter},
    {kRcSlotShutterPrev, RcHandling::kButton, CameraPrevShutter},
    {kRcSlotShutterRocker, RcHandling::kRocker, CameraNextShutter, CameraPrevShutter},
    {kRcSlotColorNext, RcHandling::kButton, CameraNextColor},
    {kRcSlotColorPrev, RcHandling::kButton, CameraPrevColor},
    {kRcSlotColorRocker, RcHandling::kRocker, CameraNextColor, CameraPrevColor},
    {kRcSlotWhiteBalanceNext, RcHandling::kButton, CameraNextWhiteBalance},
    {kRcSlotWhiteBalancePrev, RcHandling::kButton, CameraPrevWhiteBalance},
    {kRcSlotWhiteBalanceRocker, RcHandling::kRocker, CameraNextWhiteBalance, CameraPrevWhiteBalance},
    {kRcSlotEvNext, RcHandling::kButton, CameraNextEv},
    {kRcSlotEvPrev, RcHandling::kButton, CameraPrevEv},
    {kRcSlotEvRocker, RcHandling::kRocker, CameraNextEv, CameraPrevEv},
    {kRcSlotEvAxis, RcHandling::kEvAxis},
    {kRcSlotZoomIn, RcHandling::kZoom, nullptr, nullptr, +1},
    {kRcSlotZoomOut, RcHandling::kZoom, nullptr, nullptr, -1},
    {kRcSlotZoomInAlternate, RcHandling::kZoom, nullptr, nullptr, +1},
};

// Adds `step` to zoom_set in 16-bit signed arithmetic and commands the result
// (the command clamps it and stores what it sent).
void StepDigitalZoom(int32_t step)
{
    int16_t zoom;
    {
        CameraStateGuard guard(camera_state_lock);
        zoom = static_cast<int16_t>(static_cast<uint16_t>(rc.camera->zoom_set + step));
        rc.camera->zoom_set = static_cast<uint16_t>(zoom);
    }
    CameraSetDigitalZoom(zoom);
}

void ServeLevel(int32_t* edge, int sign)
{
    if (!RcChangeStep(edge, sign))
        return;
    uint8_t mode;
    {
        CameraStateGuard guard(camera_state_lock);
        mode = rc.camera->mode_code;
    }
    if (mode == kCameraModeVideo)
        CameraRecord(sign != 0);
    if (mode == kCameraModePhoto && sign != 0)
        CameraShot();
}

void ServeSlot(const RcRawState* record, const RcSlotRule& rule)
{
    int32_t* edge = &rc.edge_state[rule.slot];
    switch (rule.handling) {
    case RcHandling::kButton:
        if (RcButtonStep(edge, RcSign(LoadRcSlotValue(record, rule.slot))))
            rule.action();
        break;
    case RcHandling::kRocker: {
        int fired = RcRockerStep(edge, RcSign(LoadRcSlotValue(record, rule.slot)));
        if (fired > 0)
            rule.action();
        else if (fired < 0)
            rule.down_action();
        break;
    }
    case RcHandling::kLevel:
        ServeLevel(edge, RcSign(LoadRcSlotValue(record, rule.slot)));
        break;
    case RcHandling::kZoom: {
        int sign = RcSign(LoadRcSlotValue(record, rule.slot));
        if (RcChangeStep(edge, sign)) {
            int32_t step = sign * rule.zoom_direction;
            ZoomRate.store(step);
            StepDigitalZoom(step);
        }
        break;
    }
    case RcHandling::kSwitch:
        if (LoadRcSlotFlag(record, rule.slot) != 0) {
            uint8_t requested = LoadRcSlotValue(record, rule.slot) > 0.0 ? 1 : 0;
            CameraStateGuard guard(camera_state_lock);
            rc.camera->gimbal_lock_requested = requested;
        }
        break;
    case RcHandling::kEvAxis:
        if (LoadRcSlotFlag(record, rule.slot) != 0) {
            int index = RcEvAxisIndex(LoadRcSlotValue(record, rule.slot));
            if (index >= 0 && index != rc.last_ev_index) {
                CameraSetEv(EvNames[static_cast<size_t>(index)]);
                rc.last_ev_index = index;
            }
        }
        break;
    }
}

// The sticks of this cycle (axis_copy): speed (relative) or angle (absolute)
// commands while off centre, three centring calls on release, and in relative
// mode the orientation-lock speed command while centred.
void ApplySticks(int32_t movement)
{
    const double* axis = rc.axis_copy;
    bool relative = movement == kMovementRelative;
    if (axis[0] != 0.0 || axis[1] != 0.0 || axis[2] != 0.0) {
        rc.moving = 1;
        if (relative)
            GimbalSetSpeed(axis[0], axis[1], axis[2]);
        else
            GimbalSetAngle(axis[0], axis[1], axis[2]);
        return;
    }
    if (rc.moving != 0) {
        for (int i = 0; i < kCentringCalls; ++i) {
            if (relative)
                GimbalSetSpeed(0.0, 0.0, 0.0);
            else
                GimbalSetAngle(0.0, 0.0, 0.0);
        }
        rc.moving = 0;
    }
    if (!relative)
        return;
    bool hold_orientation;
    {
        CameraStateGuard guard(camera_state_lock);
        hold_orientation = rc.camera->gimbal_lock_requested != 0 && rc.camera->gimbal_mode_flag == 0;
    }
    if (hold_orientation)
        GimbalSetSpeedRaw(1, 1, 1);
}

// Clears a tracking stamp older than kRcTrackingLostMs.
void WatchTracking()
{
    bool lost = false;
    {
        CameraStateGuard guard(camera_state_lock);
        uint32_t stamp = rc.camera->tracking_time;
        if (stamp != 0 && static_cast<uint32_t>(NowMs() - stamp) > kRcTrackingLostMs) {
            rc.camera->tracking_time = 0;
            lost = true;
        }
    }
    if (lost)
        fputs("Tracking lost\n", stderr);
}

// The slots and flags as the remote-control process left them, copied once
// per cycle; neutral (all zero: sticks centred, nothing pressed, no flag)
// while the mapping does not show the object, when it was spoilt or restored
// during the copy, and in the first cycle after it was spoilt or restored
// since the last: an object that was cut short or replaced went through
// neutral input, and every edge re-arms whether or not a cycle happened to
// fall into that moment. Without that, a button held before the object was
// restored and pressed again in the restored one would not fire when no
// cycle (one a second before a movement mode is chosen) saw it released.
const RcRawState* TakeSnapshot()
{
    RcRawState* snapshot = &rc.snapshot;
    uint32_t generation = SharedMemoryGeneration(&rc.mapping);
    bool usable = SharedMemoryUsable(&rc.mapping) && generation == rc.generation_seen;
    rc.generation_seen = generation;
    for (size_t slot = 0; usable && slot < kRcSlotCount; ++slot) {
        snapshot->slot_value[slot] = LoadRcSlotValue(rc.record, slot);
        snapshot->slot_flag[slot] = LoadRcSlotFlag(rc.record, slot);
    }
    if (!usable || !SharedMemoryUsable(&rc.mapping) || SharedMemoryGeneration(&rc.mapping) != generation)
        memset(snapshot, 0, sizeof *snapshot);
    return snapshot;
}

// One cycle after the camera's stream has been seen; returns the time to
// sleep before the next.
uint32_t RemoteControlCycle()
{
    if (rc.record == nullptr && static_cast<uint32_t>(NowMs() - rc.last_open_attempt_ms) >= kRcReopenIntervalMs)
        OpenRcRawState();
    const RcRawState* record = rc.record != nullptr ? TakeSnapshot() : nullptr;
    if (record != nullptr) {
        for (int i = 0; i < kStickCount; ++i)
            rc.axis_copy[i] = LoadRcSlotValue(record, kRcSlotStick0 + i);
        for (const RcSlotRule& rule : kRcServiceOrder)
            ServeSlot(record, rule);
    }

    int32_t movement = MovementMode.load();
    if (movement == kMovementUnset)
        return kRcIdleCyclePeriodMs;
    int32_t rate = ZoomRate.load();
    if (rate != 0)
        StepDigitalZoom(rate);
    ApplySticks(movement);
    WatchTracking();
    return kRcCyclePeriodMs;
}

}  // namespace

int StartRemoteControl()
{
    rc.camera = GetCameraState();
    for (double& axis : rc.axis_copy)
        axis = 0.0;
    if (rc.record == nullptr)
        OpenRcRawState();
    for (int32_t& edge : rc.edge_state)
        edge = 0;
    pthread_t thread;
    if (pthread_create(&thread, nullptr, RemoteControlLoop, nullptr) != 0)
        fputs("Remote control thread not started\n", stderr);
    return 0;
}

RcRawState* OpenRcRawState()
{
    SharedMemoryOrigin origin = SharedMemoryOrigin::kOpened;
    bool mapped = SharedMemoryMap(&rc.mapping, kRcRawStateName, kRcRawStateSize, false, nullptr, nullptr, &origin) == 0;
    // After a failure the retries stay quiet until one succeeds.
    if (mapped || !rc.open_failed)
        fputs(origin == SharedMemoryOrigin::kCreated ? "Creating new shared raw RC\n" : "Shared raw RC mem opened\n",
              stderr);
    if (!mapped) {
        if (!rc.open_failed)
            fputs("Shared raw RC unavailable, retrying\n", stderr);
        rc.open_failed = true;
        rc.last_open_attempt_ms = NowMs();
        return nullptr;
    }
    rc.record = reinterpret_cast<RcRawState*>(rc.mapping.base);
    rc.generation_seen = SharedMemoryGeneration(&rc.mapping);
    return rc.record;
}

void* RemoteControlLoop(void*)
{
    while (!IsCameraStreamSeen())
        SleepMs(kRcStreamPollMs);
    for (;;)
        SleepMs(RemoteControlCycle());
    return nullptr;
}

RcRawState* MapRcRawState(const char* name, int* fd, bool* missing)
{
    *fd = -1;
    *missing = false;
    int descriptor = shm_open(name, O_RDWR, 0600);
    if (descriptor < 0) {
        *missing = true;
        descriptor = shm_open(name, O_RDWR | O_CREAT, 0600);
        if (descriptor < 0)
            return nullptr;
    }
    if (ftruncate(descriptor, static_cast<off_t>(kRcRawStateSize)) != 0) {
        close(descriptor);
        return nullptr;
    }
    void* mapping = mmap(nullptr, kRcRawStateSize, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (mapping == MAP_FAILED) {
        close(descriptor);
        return nullptr;
    }
    *fd = descriptor;
    return static_cast<RcRawState*>(mapping);
}

double LoadRcSlotValue(const RcRawState* record, size_t slot)
{
    const volatile double* value = &record->slot_value[slot];
    return *value;
}

uint16_t LoadRcSlotFlag(const RcRawState* record, size_t slot)
{
    const volatile uint16_t* flag = &record->slot_flag[slot];
    return *flag;
}

void StoreRcSlotValue(RcRawState* record, size_t slot, double value)
{
    volatile double* target = &record->slot_value[slot];
    *target = value;
}

void StoreRcSlotFlag(RcRawState* record, size_t slot, uint16_t flag)
{
    volatile uint16_t* target = &record->slot_flag[slot];
    *target = flag;
}

int RcSign(double value)
{
    if (value > 0.0)
        return 1;
    if (value < 0.0)
        return -1;
    return 0;  // zero, or not a number
}

bool RcButtonStep(int32_t* edge, int sign)
{
    if (sign == 0) {
        *edge = 0;
        return false;
    }
    if (sign == *edge)
        return false;
    *edge = sign;
    return true;
}

int RcRockerStep(int32_t* edge, int sign)
{
    if (sign > 0) {
        if (*edge == 1)
            return 0;
        *edge = 1;
        return 1;
    }
    if (sign == *edge)
        return 0;
    *edge = sign;
    return sign < 0 ? -1 : 0;
}

bool RcChangeStep(int32_t* edge, int sign)
{
    if (sign == *edge)
        return false;
    *edge = sign;
    return true;
}

int RcEvAxisIndex(double value)
{
    if (std::isnan(value))
        return -1;
    double index = std::trunc(9.5 * value + 9.5);
    if (index < 0.0)
        return 0;
    if (index > kEvIndexLast)
        return kEvIndexLast;
    return static_cast<int>(index);
}

uint32_t RunRemoteControlCycle()
{
    return RemoteControlCycle();
}

void ResetRemoteControl()
{
    rc.camera = GetCameraState();
    memset(rc.edge_state, 0, sizeof rc.edge_state);
    rc.last_ev_index = 0;
    for (double& axis : rc.axis_copy)
        axis = 0.0;
    rc.moving = 0;
}
