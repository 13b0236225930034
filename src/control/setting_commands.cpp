#include "control/setting_commands.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "control/camera_commands.h"
#include "control/command_templates.h"
#include "camera/value_tables.h"
#include "state/camera_state.h"

namespace {

// Decimal conversions as the main application's texts are read: leading
// white space skipped, stop at the first character that does not fit, 0 for
// a text without a number.
long WholeNumberOf(const char* text)
{
    return strtol(TextOrEmpty(text), nullptr, 10);
}

double NumberOf(const char* text)
{
    return strtod(TextOrEmpty(text), nullptr);
}

constexpr float kApertureScale = 100.0f;

}  // namespace

void CameraSetExposureMode(const char* mode)
{
    SendByteSetting(kExposureModeSetting, mode);
}

void CameraSetShutter(const char* speed)
{
    fprintf(stderr, "Camera set shutter %s\n", TextOrEmpty(speed));
    const ShutterCode* row = FindShutterCode(speed);
    CommandFrame frame = FrameFrom(kShutterTemplate);
    SetPayloadLe16(&frame, 1, row != nullptr ? row->value : 0);
    SetPayloadByte(&frame, 3, row != nullptr ? row->decimal : 0);
    SendCommandFrame(&frame);
}

// The f-number in single precision; the camera takes f x 100, computed in
// single precision and truncated (2.8 gives 280).
void CameraSetAperture(const char* f_number)
{
    float value = static_cast<float>(NumberOf(f_number));
    fprintf(stderr, "Camera set aperture %1.2f\n", value);
    float scaled = value * kApertureScale;
    CommandFrame frame = FrameFrom(kApertureTemplate);
    SetPayloadLe16(&frame, 0, static_cast<uint16_t>(SaturateToInt32(scaled)));
    SendCommandFrame(&frame);
}

void CameraSetIso(const char* iso)
{
    long number = WholeNumberOf(iso);
    fprintf(stderr, "Camera set iso %d\n", static_cast<int>(number));
    SendTemplateWithByte(kIsoTemplate, IsoCodeOf(number));
}

void CameraSetEv(const char* ev)
{
    double number = NumberOf(ev);
    fprintf(stderr, "Camera set EV %1.1f\n", number);
    const EvCode* row = FindEvCode(number);
    if (row != nullptr)
        SendTemplateWithByte(kEvTemplate, row->code);
}

void CameraSetWhiteBalance(const char* mode, const char* temperature)
{
    fprintf(stderr, "Camera set WB %s\n", TextOrEmpty(mode));
    const WhiteBalanceCode* row = FindWhiteBalanceCode(mode);
    if (row == nullptr)
        return;
    uint8_t second_byte = row->second_byte;
    if (row == &WhiteBalanceCodes[kWhiteBalanceCustomRow]) {
        if (temperature == nullptr)
            return;
        long kelvin = WholeNumberOf(temperature);
        {
            CameraStateGuard lock(camera_state_lock);
            GetCameraState()->wb_temp_set = static_cast<float>(kelvin);
        }
        fprintf(stderr, "Camera set WB temperature %s\n", temperature);
        int temperature_byte = WhiteBalanceTemperatureByte(kelvin);
        if (temperature_byte < 0)
            return;
        second_byte = static_cast<uint8_t>(temperature_byte);
    }
    CommandFrame frame = FrameFrom(kWhiteBalanceTemplate);
    SetPayloadByte(&frame, 0, row->mode_code);
    SetPayloadByte(&frame, 1, second_byte);
    SendCommandFrame(&frame);
}

void CameraSetColor(const char* color)
{
    SendByteSetting(kColorSetting, color);
}

void CameraSetVideoResolution(int width, int height, int fps)
{
    fprintf(stderr, "Camera set video resolution %dx%d@%d\n", width, height, fps);
    uint8_t resolution = VideoResolutionCodeOf(width, height);
    uint8_t frame_rate = FrameRateCodeOf(fps);
    CommandFrame frame = FrameFrom(kVideoResolutionTemplate);
    SetPayloadByte(&frame, 0, resolution);
    SetPayloadByte(&frame, 1, frame_rate);
    SendCommandFrame(&frame);
    CommandFrame confirm = FrameFrom(kVideoResolutionConfirmTemplate);
    SetPayloadByte(&confirm, 0, resolution);
    SetPayloadByte(&confirm, 1, frame_rate);
    SendCommandFrame(&confirm);
}

void CameraSetAspectRatio(const char* ratio)
{
    fprintf(stderr, "Camera set image aspect ratio %s\n", TextOrEmpty(ratio));
    int16_t code = SettingCodeOf(AspectRatioCodes, ratio);
    if (code == kSendNothing)
        return;
    CommandFrame frame = FrameFrom(kPhotoFormatTemplate);
    SetPayloadByte(&frame, 0, kAspectRatioSizeCode);
    SetPayloadByte(&frame, 1, static_cast<uint8_t>(code));
    SendCommandFrame(&frame);
}

void CameraSetSensorResolution(const char* megapixels)
{
    fprintf(stderr, "Camera set sensor resolution %s\n", TextOrEmpty(megapixels));
    const SensorResolutionCode* row = FindSensorResolutionCode(megapixels);
    if (row == nullptr)
        return;
    CommandFrame frame = FrameFrom(kPhotoFormatTemplate);
    SetPayloadByte(&frame, 0, row->size_code);
    SetPayloadByte(&frame, 1, kSensorResolutionRatioCode);
    SendCommandFrame(&frame);
}

void CameraSetShotMode(const char* format)
{
    SendByteSetting(kShotModeSetting, format);
}

void CameraSetAntiFlicker(const char* hertz)
{
    SendByteSetting(kAntiFlickerSetting, hertz);
}

void CameraSetVideoStandard(const char* standard)
{
    SendByteSetting(kVideoStandardSetting, standard);
}

// ---------------------------------------------------------------------------
// Step commands.

namespace {

constexpr int kNext = 1;
constexpr int kPrev = -1;

// Longest reported setting text (color_mode, wb) with its terminator.
constexpr size_t kStepTextCapacity = 20;

// A consistent copy of one text field of the record.
template <size_t N>
void ReadStateText(char (CameraState::*field)[N], char (&out)[kStepTextCapacity])
{
    static_assert(N <= kStepTextCapacity, "step text buffer too small");
    CameraStateGuard lock(camera_state_lock);
    memcpy(out, GetCameraState()->*field, N);
    out[N - 1] = '\0';
}

// The neighbour of `current` in `names`, with wrap-around; a text in no entry
// counts as entry 0.
template <size_t N>
const char* Neighbour(const std::array<const char*, N>& names, const char* current, int direction)
{
    int index = NameIndex(names, current);
    if (index < 0)
        index = 0;
    int count = static_cast<int>(N);
    return names[static_cast<size_t>((index + direction + count) % count)];
}

template <size_t N, size_t Capacity>
const char* NeighbourOfState(const std::array<const char*, N>& names, char (CameraState::*field)[Capacity],
                             int direction)
{
    char current[kStepTextCapacity];
    ReadStateText(field, current);
    return Neighbour(names, current, direction);
}

void StepExposureMode(int direction)
{
    fputs(direction == kNext ? "Camera set next image mode\n" : "Camera set prev image mode\n", stderr);
    CameraSetExposureMode(NeighbourOfState(ExposureModeNames, &CameraState::image_mode, direction));
}

void StepShutter(int direction)
{
    fputs(direction == kNext ? "Camera set next shutter value\n" : "Camera set prev shutter value\n", stderr);
    const char* chosen = NeighbourOfState(ShutterNames, &CameraState::shutter_set, direction);
    fprintf(stderr, "new shutter value = %s\n", chosen);
    CameraSetShutter(chosen);
}

void StepIso(int direction)
{
    fputs(direction == kNext ? "Camera set next ISO\n" : "Camera set prev ISO\n", stderr);
    CameraSetIso(NeighbourOfState(IsoNames, &CameraState::iso_set, direction));
}

void StepEv(int direction)
{
    fputs(direction == kNext ? "Camera set next EV\n" : "Camera set prev EV\n", stderr);
    CameraSetEv(NeighbourOfState(EvNames, &CameraState::ev, direction));
}

// The white-balance steps also hand over a temperature: the last commanded
// one, or the last reported one while none was commanded, as "%1.0f\n" (the
// newline ends the number's conversion, and shows in the temperature log line).
void StepWhiteBalance(int direction)
{
    fputs(direction == kNext ? "Camera set next WB\n" : "Camera set prev WB\n", stderr);
    const char* chosen = NeighbourOfState(WhiteBalanceNames, &CameraState::wb, direction);
    float kelvin;
    {
        CameraStateGuard lock(camera_state_lock);
        const CameraState* state = GetCameraState();
        kelvin = state->wb_temp_set != 0.0f ? state->wb_temp_set : state->wb_temp;
    }
    char temperature[48];
    snprintf(temperature, sizeof temperature, "%1.0f\n", kelvin);
    CameraSetWhiteBalance(chosen, temperature);
}

void StepColor(int direction)
{
    fputs(direction == kNext ? "Camera set next color mode\n" : "Camera set prev color mode\n", stderr);
    CameraSetColor(NeighbourOfState(ColorModeNames, &CameraState::color_mode, direction));
}

}  // namespace

void CameraNextExposureMode() { StepExposureMode(kNext); }
void CameraPrevExposureMode() { StepExposureMode(kPrev); }
void CameraNextShutter() { StepShutter(kNext); }
void CameraPrevShutter() { StepShutter(kPrev); }
void CameraNextIso() { StepIso(kNext); }
void CameraPrevIso() { StepIso(kPrev); }
void CameraNextEv() { StepEv(kNext); }
void CameraPrevEv() { StepEv(kPrev); }
void CameraNextWhiteBalance() { StepWhiteBalance(kNext); }
void CameraPrevWhiteBalance() { StepWhiteBalance(kPrev); }
void CameraNextColor() { StepColor(kNext); }
void CameraPrevColor() { StepColor(kPrev); }
