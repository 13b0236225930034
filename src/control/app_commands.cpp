#include "control/app_commands.h"

#include <cjson/cJSON.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "control/camera_commands.h"
#include "control/command_templates.h"
#include "control/setting_commands.h"
#include "camera/value_tables.h"

// Malformed input: see the header.

std::atomic<int32_t> MovementMode{kMovementUnset};
std::atomic<int32_t> ZoomRate{0};

namespace {


// The members of one command, each a text or null when absent.
struct AppCommand {
    const char* cmd;
    const char* name;
    const char* param;
    const char* value;
    const char* value2;
    const char* value3;
    const char* value4;
};

// Members that a row needs present before it makes its call.
enum RequiredMember : uint8_t {
    kNeedsParam = 1 << 0,
    kNeedsValue = 1 << 1,
    kNeedsValue2 = 1 << 2,
    kNeedsValue3 = 1 << 3,
    kNeedsValue4 = 1 << 4,
};
constexpr uint8_t kNeedsValues3 = kNeedsValue | kNeedsValue2 | kNeedsValue3;
constexpr uint8_t kNeedsValues4 = kNeedsValues3 | kNeedsValue4;

using CommandAction = void (*)(const AppCommand& command);

struct CommandRow {
    const char* cmd;
    const char* param;  // the word "param" must equal; null: any (or none)
    uint8_t required;
    CommandAction action;
};

// The parse arena: a bump allocator that cJSON allocates from, emptied before
// each parse; freeing is a no-op. Used only by command_endpoint's receive
// thread, the one user of cJSON in the process.
constexpr size_t kArenaAlignment = alignof(std::max_align_t);
alignas(kArenaAlignment) uint8_t parse_arena[kJsonParseArenaSize];
size_t parse_arena_used = 0;

void* ArenaAllocate(size_t size)
{
    size_t rounded = (size + kArenaAlignment - 1) & ~(kArenaAlignment - 1);
    if (rounded < size || rounded > sizeof parse_arena - parse_arena_used)
        return nullptr;   // cJSON gives up the parse cleanly
    void* block = parse_arena + parse_arena_used;
    parse_arena_used += rounded;
    return block;
}

void ArenaFree(void*)
{
}

// cJSON parsed in the arena: hooks set once, the arena emptied first.
cJSON* ParseInArena(const char* text)
{
    static const bool hooks_set = [] {
        cJSON_Hooks hooks = {ArenaAllocate, ArenaFree};
        cJSON_InitHooks(&hooks);
        return true;
    }();
    (void)hooks_set;
    parse_arena_used = 0;
    return cJSON_Parse(text);
}

int IntOf(const char* text)
{
    return static_cast<int>(strtol(text, nullptr, 10));
}

double DoubleOf(const char* text)
{
    return strtod(text, nullptr);
}

float FloatOf(const char* text)
{
    return static_cast<float>(strtod(text, nullptr));
}

void SendPlaybackFrame(const uint8_t* stored, uint16_t length)
{
    uint8_t frame[kFrameMaximumSize];
    memcpy(frame, stored, length);
    SendRawCameraPacket(frame, length);
}

void SetVideoResolutionByWord(const char* word)
{
    const VideoResolutionWord* row = FindVideoResolutionWord(word);
    if (row != nullptr)
        CameraSetVideoResolution(row->width, row->height, row->fps);
}

// In the order of testing; every matching row acts.
const CommandRow kCommandRows[] = {
    {"record", "start", 0, [](const AppCommand&) { CameraRecord(1); }},
    {"record", "stop", 0, [](const AppCommand&) { CameraRecord(0); }},
    {"shot", nullptr, 0, [](const AppCommand&) { CameraShot(); }},
    {"camera", "mode", kNeedsValue, [](const AppCommand& c) { CameraSetMode(c.value); }},
    {"position", "normal", 0, [](const AppCommand&) { GimbalSetPosition("normal"); }},
    {"position", "selfie", 0, [](const AppCommand&) { GimbalSetPosition("selfie"); }},
    {"position", "abs", kNeedsValues3,
     [](const AppCommand& c) { GimbalSetAngleRaw(IntOf(c.value), IntOf(c.value2), IntOf(c.value3)); }},
    {"position", "abs_norm", kNeedsValues3,
     [](const AppCommand& c) { GimbalSetAngle(DoubleOf(c.value), DoubleOf(c.value2), DoubleOf(c.value3)); }},
    {"tracking", "start", kNeedsValues4,
     [](const AppCommand& c) {
         TrackingStart(FloatOf(c.value), FloatOf(c.value2), FloatOf(c.value3), FloatOf(c.value4));
     }},
    {"tracking", "stop", 0, [](const AppCommand&) { TrackingStop(); }},
    {"orientation", "lock", 0, [](const AppCommand&) { GimbalSetOrientationLock("lock"); }},
    {"orientation", "unlock", 0, [](const AppCommand&) { GimbalSetOrientationLock("unlock"); }},
    {"focus", "type", kNeedsValue, [](const AppCommand& c) { CameraSetFocusType(c.value); }},
    {"focus", "point", kNeedsValue | kNeedsValue2,
     [](const AppCommand& c) { CameraSetFocusPoint(FloatOf(c.value), FloatOf(c.value2)); }},
    {"dzoom", "set", kNeedsValue, [](const AppCommand& c) { CameraSetDigitalZoom(IntOf(c.value)); }},
    {"exposure", "point", kNeedsValue,
     [](const AppCommand& c) {
         CameraSetExposureLock("unlock");
         CameraSetExposurePoint(IntOf(c.value));
     }},
    {"exposure", "center", 0,
     [](const AppCommand&) {
         CameraSetExposureLock("unlock");
         CameraSetExposureCenter();
     }},
    {"exposure", "auto", kNeedsValue, [](const AppCommand& c) { CameraSetExposureLock(c.value); }},
    {"video_mode", nullptr, kNeedsParam, [](const AppCommand& c) { CameraSetExposureMode(c.param); }},
    {"shutter", nullptr, kNeedsParam, [](const AppCommand& c) { CameraSetShutter(c.param); }},
    {"aperture", nullptr, kNeedsParam, [](const AppCommand& c) { CameraSetAperture(c.param); }},
    {"iso", nullptr, kNeedsParam, [](const AppCommand& c) { CameraSetIso(c.param); }},
    {"ev", nullptr, kNeedsParam, [](const AppCommand& c) { CameraSetEv(c.param); }},
    {"wb", nullptr, kNeedsParam, [](const AppCommand& c) { CameraSetWhiteBalance(c.param, c.value); }},
    {"color", nullptr, kNeedsParam, [](const AppCommand& c) { CameraSetColor(c.param); }},
    {"video_resolution", nullptr, kNeedsParam, [](const AppCommand& c) { SetVideoResolutionByWord(c.param); }},
    {"video_aspect", nullptr, kNeedsParam, [](const AppCommand& c) { CameraSetAspectRatio(c.param); }},
    {"sensor_res", nullptr, kNeedsParam, [](const AppCommand& c) { CameraSetSensorResolution(c.param); }},
    {"shotmode", nullptr, kNeedsParam, [](const AppCommand& c) { CameraSetShotMode(c.param); }},
    {"antiflicker", nullptr, kNeedsParam, [](const AppCommand& c) { CameraSetAntiFlicker(c.param); }},
    {"video_std", nullptr, kNeedsParam, [](const AppCommand& c) { CameraSetVideoStandard(c.param); }},
    {"horizont", nullptr, kNeedsParam, [](const AppCommand& c) { GimbalCalibrate(c.param); }},
    {"resetcamera", nullptr, 0, [](const AppCommand&) { CameraReset(); }},
    {"format", nullptr, kNeedsParam, [](const AppCommand& c) { CameraFormatSd(c.param); }},
    {"histogram", nullptr, kNeedsParam, [](const AppCommand& c) { CameraSetHistogram(c.param); }},
    {"gimbal", "mode", kNeedsValue, [](const AppCommand& c) { GimbalSetMode(c.value); }},
    {"gimbal", "follow", kNeedsValue, [](const AppCommand& c) { GimbalSetFollowSpeed(c.value); }},
    {"playback", "play", 0,
     [](const AppCommand&) { SendPlaybackFrame(kPlaybackPlayFrame, sizeof kPlaybackPlayFrame); }},
    {"playback", "pause", 0,
     [](const AppCommand&) { SendPlaybackFrame(kPlaybackPauseFrame, sizeof kPlaybackPauseFrame); }},
    {"playback", "resume", 0,
     [](const AppCommand&) { SendPlaybackFrame(kPlaybackResumeFrame, sizeof kPlaybackResumeFrame); }},
};

bool HasRequired(const AppCommand& command, uint8_t required)
{
    return !(((required & kNeedsParam) && command.param == nullptr) ||
             ((required & kNeedsValue) && command.value == nullptr) ||
             ((required & kNeedsValue2) && command.value2 == nullptr) ||
             ((required & kNeedsValue3) && command.value3 == nullptr) ||
             ((required & kNeedsValue4) && command.value4 == nullptr));
}

// A member's text, or null when it is missing or not a JSON string. Keys are
// compared without regard to case; the first match counts.
const char* MemberText(const cJSON* tree, const char* key)
{
    if (tree == nullptr || (tree->type & 0xFF) != cJSON_Object)
        return nullptr;
    const cJSON* item = cJSON_GetObjectItem(tree, key);
    if (item == nullptr || (item->type & 0xFF) != cJSON_String)
        return nullptr;
    return item->valuestring;
}

void SetMovementMode(const AppCommand& command)
{
    if (!SameText(command.name, "movement"))
        return;
    if (SameText(command.value, "abs"))
        MovementMode.store(kMovementAbsolute);
    else if (SameText(command.value, "rel"))
        MovementMode.store(kMovementRelative);
}

void HandleJsonCommand(const char* text)
{
    cJSON* tree = ParseInArena(text);
    if (tree == nullptr) {
        fprintf(stderr, "Malformed JSON command from app: %s\n", text);
        return;
    }
    AppCommand command = {
        MemberText(tree, "cmd"),    MemberText(tree, "name"),   MemberText(tree, "param"),
        MemberText(tree, "value"),  MemberText(tree, "value2"), MemberText(tree, "value3"),
        MemberText(tree, "value4"),
    };
    if (SameText(command.cmd, "set")) {
        SetMovementMode(command);
    } else {
        fprintf(stderr, "JSON commands from app: %s\n", text);
        for (const CommandRow& row : kCommandRows) {
            if (!SameText(command.cmd, row.cmd))
                continue;
            if (row.param != nullptr && !SameText(command.param, row.param))
                continue;
            if (HasRequired(command, row.required))
                row.action(command);
        }
    }
    // No cJSON_Delete: the tree lives in the arena, which the next parse empties.
}

}  // namespace

void HandleAppDatagram(uint8_t* buffer, uint16_t, const char*, uint16_t)
{
    if (buffer == nullptr)
        return;
    if (buffer[0] == kZoomRateMark) {
        if (buffer[1] == kZoomRateKind)
            ZoomRate.store(static_cast<int16_t>(ReadLe16(buffer + 2)));
        return;
    }
    if (buffer[0] != kJsonCommandMark)
        return;
    HandleJsonCommand(reinterpret_cast<const char*>(buffer + 1));
}

void ResetAppCommands()
{
    MovementMode.store(kMovementUnset);
    ZoomRate.store(0);
}
