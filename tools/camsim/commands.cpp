// The simulated camera obeys the commands it receives: each checked command
// frame that changes a setting becomes "set <status key> <value>" lines of
// the telemetry model, so the next reports show the change as a camera's
// would. Codes are read through the same value-table rows the service sends
// them from. Commands that move the gimbal, shoot, format or reset are only
// logged (inbox.cpp).
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "camera/frame.h"
#include "camsim.h"
#include "camera/value_tables.h"
#include "state/telemetry_decoder.h"

namespace {

constexpr uint8_t kCameraSet = 0x02;

// Feeds one formatted "set ..." line to the model and logs it.
void Apply(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Apply(const char* format, ...)
{
    char line[128];
    va_list arguments;
    va_start(arguments, format);
    int length = vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (length < 0 || static_cast<size_t>(length) >= sizeof line)
        return;
    printf("applied: %s\n", line);
    SimHandleReportCommand(line);
}

float FloatAt(const uint8_t* bytes)
{
    uint32_t bits = static_cast<uint32_t>(ReadLe16(bytes)) | (static_cast<uint32_t>(ReadLe16(bytes + 2)) << 16);
    float value;
    memcpy(&value, &bits, sizeof value);
    return value;
}

using CommandEffect = void (*)(const uint8_t* payload);

struct CommandRule {
    uint8_t command_set;
    uint8_t command_id;
    size_t payload_length;  // at least this many payload bytes
    CommandEffect apply;
};

void ApplyShutter(const uint8_t* p)
{
    uint16_t value = ReadLe16(p + 1);
    if (value == 0)
        return;  // a text the service could not encode: the camera keeps its setting
    char text[16];
    uint32_t code = value | (static_cast<uint32_t>(p[3]) << 16);
    if (FormatShutterText(code, text, sizeof text))
        Apply("set shutter_set %s", text);
}

void ApplyEv(const uint8_t* p)
{
    for (const EvCode& row : EvCodes)
        if (row.code == p[0])
            Apply("set ev %s", row.text);
}

void ApplyWhiteBalance(const uint8_t* p)
{
    for (const WhiteBalanceCode& row : WhiteBalanceCodes) {
        if (row.mode_code != p[0])
            continue;
        Apply("set wb %s", row.text);
        if (&row == &WhiteBalanceCodes[kWhiteBalanceCustomRow])
            Apply("set wb_temp %d", p[1] * kWhiteBalanceKelvinPerUnit);
    }
}

void ApplyVideoResolution(const uint8_t* p)
{
    const char* resolution = VideoResolutionReadBack(p[0]);
    const char* frame_rate = FrameRateReadBack(p[1]);
    if (resolution[0] != '\0')
        Apply("set resolution %s", resolution);
    if (frame_rate[0] != '\0')
        Apply("set framerate %s", frame_rate);
}

// One command for both: image-size code 0 sets the ratio, any other the sensor.
void ApplyPhotoFormat(const uint8_t* p)
{
    if (p[0] == kAspectRatioSizeCode) {
        Apply("set ratio %s", SettingReadBack(AspectRatioCodes, p[1]));
        return;
    }
    uint8_t megapixels = SensorResolutionReadBack(p[0]);
    if (megapixels != 0)
        Apply("set sensor %u", megapixels);
}

void ApplyText(const char* key, const SettingTable& table, unsigned code)
{
    const char* text = SettingReadBack(table, code);
    if (text[0] != '\0')
        Apply("set %s %s", key, text);
}

const CommandRule kRules[] = {
    {kCameraSet, 0x02, 1, [](const uint8_t* p) { Apply("set recording %d", p[0] != 0); }},
    {kCameraSet, 0x10, 1, [](const uint8_t* p) { Apply("set camera_mode %u", p[0]); }},
    {kCameraSet, 0x1e, 1, [](const uint8_t* p) { ApplyText("image_mode", ExposureModeCodes, p[0]); }},
    {kCameraSet, 0x28, 4, ApplyShutter},
    {kCameraSet, 0x26, 2, [](const uint8_t* p) { Apply("set aperture %.2f", ReadLe16(p) / 100.0); }},
    {kCameraSet, 0x2a, 1, [](const uint8_t* p) { Apply("set iso_set %s", IsoReadBack(p[0])); }},
    {kCameraSet, 0x2e, 1, ApplyEv},
    {kCameraSet, 0x2c, 2, ApplyWhiteBalance},
    {kCameraSet, 0x42, 1, [](const uint8_t* p) { ApplyText("color_mode", ColorModeCodes, p[0]); }},
    {kCameraSet, 0x18, 2, ApplyVideoResolution},
    {kCameraSet, 0x12, 2, ApplyPhotoFormat},
    {kCameraSet, 0x16, 1, [](const uint8_t* p) { ApplyText("shot_mode", ShotModeCodes, p[0]); }},
    {kCameraSet, 0x46, 1, [](const uint8_t* p) { ApplyText("antiflicker", AntiFlickerCodes, p[0]); }},
    {kCameraSet, 0x66, 1,
     [](const uint8_t* p) { ApplyText("video_std", VideoStandardCodes, p[0] & kVideoStandardReportMask); }},
    {kCameraSet, 0x68, 1, [](const uint8_t* p) { Apply("set ae %d", p[0] != 0); }},
    {kCameraSet, 0x34, 5, [](const uint8_t* p) { Apply("set zoom %u", ReadLe16(p + 3) + 100u); }},
    {kCameraSet, 0x60, 1, [](const uint8_t* p) { Apply("set histogram %d", p[0] != 0); }},
    // The camera reports the focus type it was given in its own codes.
    {kCameraSet, 0x24, 1,
     [](const uint8_t* p) {
         if (p[0] == 1 || p[0] == 2)
             Apply("set focus_mode %s", p[0] == 1 ? "AFS" : "AFC");
     }},
    {kCameraSet, 0x30, 8, [](const uint8_t* p) { Apply("set focus_point %g %g", FloatAt(p), FloatAt(p + 4)); }},
    {kCameraSet, 0xa6, 21,
     [](const uint8_t* p) {
         if (p[0] == 1)
             Apply("set tracking %g %g %g %g", FloatAt(p + 5), FloatAt(p + 9), FloatAt(p + 13), FloatAt(p + 17));
         else
             Apply("set tracking off");
     }},
    {kCameraSet, 0x7b, 0, [](const uint8_t*) { Apply("set pl_state playing"); }},
    {kCameraSet, 0x7a, 1,
     [](const uint8_t* p) {
         if (p[0] == 0x05)
             Apply("set pl_state paused");
         else if (p[0] == 0x01)
             Apply("set pl_state playing");
     }},
};

}  // namespace

void SimApplyCommand(const uint8_t* frame, size_t length)
{
    if (length < kFrameMinimumSize)
        return;
    size_t payload_length = length - kFrameMinimumSize;
    for (const CommandRule& rule : kRules)
        if (frame[kFrameCommandSetOffset] == rule.command_set && frame[kFrameCommandIdOffset] == rule.command_id &&
            payload_length >= rule.payload_length)
            rule.apply(frame + kFramePayloadOffset);
}
