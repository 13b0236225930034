#include "control/camera_commands.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "camera/camera_link.h"
#include "control/command_templates.h"
#include "camera/value_tables.h"
#include "state/camera_state.h"

namespace {

constexpr int kDigitalZoomNone = 100;

// Gimbal angle factors: tenths of a degree per unit, chosen by the argument's sign.
constexpr double kAngleFactorANegative = -600.0;
constexpr double kAngleFactorA = -2400.0;
constexpr double kAngleFactorBNegative = 1500.0;
constexpr double kAngleFactorB = 900.0;
constexpr double kAngleFactorC = 450.0;
constexpr double kSpeedFactor = 1000.0;

// The gimbal's three values go out in the order first, third, second.
void SendGimbalTriple(const CommandTemplate& image, int32_t a, int32_t b, int32_t c)
{
    CommandFrame frame = FrameFrom(image);
    SetPayloadLe16(&frame, 0, static_cast<uint16_t>(a));
    SetPayloadLe16(&frame, 2, static_cast<uint16_t>(c));
    SetPayloadLe16(&frame, 4, static_cast<uint16_t>(b));
    SendCommandFrame(&frame);
}

void SendGimbalPosition(uint8_t position)
{
    CommandFrame frame = FrameFrom(kGimbalPositionTemplate);
    SetPayloadByte(&frame, 1, position);
    SendCommandFrame(&frame);
}

// The gimbal faces the other way (selfie) when its first attitude angle lies
// in -2299 .. -1301 tenths of a degree.
bool IsGimbalFlipped()
{
    int16_t attitude;
    {
        CameraStateGuard lock(camera_state_lock);
        attitude = GetCameraState()->gimbal_attitude[0];
    }
    return static_cast<uint16_t>(attitude + 2299) <= 998;
}

}  // namespace

int32_t SaturateToInt32(double value)
{
    if (std::isnan(value))
        return 0;
    if (value >= 2147483647.0)
        return INT32_MAX;
    if (value <= -2147483648.0)
        return INT32_MIN;
    return static_cast<int32_t>(value);
}

void CameraRecord(int start)
{
    fputs(start != 0 ? "Record start\n" : "Record stop\n", stderr);
    SendTemplateWithByte(kRecordTemplate, start != 0 ? 1 : 0);
}

void CameraShot()
{
    fputs("Camera shot\n", stderr);
    SendTemplate(kShotTemplate);
}

void CameraSetMode(const char* mode)
{
    int16_t code = SettingCodeOf(CameraModeCodes, mode);
    if (code == kSendNothing)
        return;
    if (SameText(mode, "playback")) {
        fputs("Camera set playback mode\n", stderr);
        SendTemplate(kSetPlaybackModeTemplate);
        SendTemplate(kPlaybackStartTemplate);
        return;
    }
    fprintf(stderr, "Camera set mode %s\n", mode);
    SendTemplateWithByte(kSetModeTemplate, static_cast<uint8_t>(code));
}

void CameraSetFocusType(const char* type)
{
    SendByteSetting(kFocusTypeSetting, type);
}

void CameraSetFocusPoint(float x, float y)
{
    fprintf(stderr, "Camera set focus point %f,%f\n", x, y);
    CommandFrame frame = FrameFrom(kFocusPointTemplate);
    SetPayloadFloat(&frame, 0, x);
    SetPayloadFloat(&frame, 4, y);
    SendCommandFrame(&frame);
}

void CameraSetExposureLock(const char* lock)
{
    if (SameText(lock, "lock"))
        fputs("Set auto exposure locked\n", stderr);
    else if (SameText(lock, "unlock"))
        fputs("Set auto exposure unlocked\n", stderr);
    SendTemplateWithByte(kExposureLockTemplate, static_cast<uint8_t>(SettingCodeOf(ExposureLockCodes, lock)));
}

void CameraSetExposurePoint(int point)
{
    fprintf(stderr, "Set exposure point %d (0x%02x)\n", point, static_cast<unsigned>(point));
    SendTemplateWithByte(kExposurePointTemplate, static_cast<uint8_t>(point));
}

void CameraSetExposureCenter()
{
    fputs("Set exposure to center\n", stderr);
    SendTemplate(kExposureCenterTemplate);
}

void GimbalSetSpeed(double a, double b, double c)
{
    SendGimbalTriple(kGimbalSpeedTemplate, SaturateToInt32(a * kSpeedFactor), SaturateToInt32(b * kSpeedFactor),
                     SaturateToInt32(c * kSpeedFactor));
}

void GimbalSetSpeedRaw(int a, int b, int c)
{
    SendGimbalTriple(kGimbalSpeedTemplate, a, b, c);
}

void GimbalSetAngle(double a, double b, double c)
{
    double va = a * (a < 0 ? kAngleFactorANegative : kAngleFactorA);
    double vb = b * (b < 0 ? kAngleFactorBNegative : kAngleFactorB);
    double vc = c * kAngleFactorC;
    SendGimbalTriple(kGimbalAngleTemplate, SaturateToInt32(va), SaturateToInt32(vb), SaturateToInt32(vc));
}

void GimbalSetAngleRaw(int a, int b, int c)
{
    SendGimbalTriple(kGimbalAngleTemplate, a, b, c);
}

// Sends "next position" exactly when the requested facing differs from the
// current one, and "centre" when it is the same.
void GimbalSetPosition(const char* position)
{
    bool normal = SameText(position, "normal");
    if (!normal && !SameText(position, "selfie"))
        return;
    fputs(normal ? "Gimbal set center position\n" : "Gimbal set selfie position\n", stderr);
    bool flipped = IsGimbalFlipped();
    if (normal != flipped) {
        fputs("Gimbal set center position\n", stderr);
        SendGimbalPosition(kGimbalPositionCenter);
    } else {
        fputs("Gimbal set next position\n", stderr);
        SendGimbalPosition(kGimbalPositionNext);
    }
}

void GimbalNextPosition()
{
    fputs("Gimbal set next position\n", stderr);
    SendGimbalPosition(kGimbalPositionNext);
}

void GimbalSetOrientationLock(const char* lock)
{
    uint8_t requested;
    if (SameText(lock, "lock")) {
        fputs("Gimbal orientation lock\n", stderr);
        requested = 1;
    } else if (SameText(lock, "unlock")) {
        fputs("Gimbal orientation unlock\n", stderr);
        requested = 0;
    } else {
        return;
    }
    CameraStateGuard guard(camera_state_lock);
    GetCameraState()->gimbal_lock_requested = requested;
}

void GimbalSetMode(const char* mode)
{
    fprintf(stderr, "Gimbal set mode %s\n", TextOrEmpty(mode));
    const GimbalModeCode* row = FindGimbalModeCode(mode);
    if (row == nullptr)
        return;
    SendTemplateWithByte(kGimbalModeTemplate, row->mode);
    CommandFrame tilt = FrameFrom(kGimbalTiltLockTemplate);
    SetPayloadByte(&tilt, 3, row->tilt_lock);
    SendCommandFrame(&tilt);
}

void GimbalSetFollowSpeed(const char* speed)
{
    fprintf(stderr, "Gimbal set follow mode %s\n", TextOrEmpty(speed));
    CommandFrame frame = FrameFrom(kGimbalFollowSpeedTemplate);
    SetPayloadByte(&frame, 3, static_cast<uint8_t>(SettingCodeOf(GimbalFollowSpeedCodes, speed)));
    SendCommandFrame(&frame);
}

void GimbalCalibrate(const char* action)
{
    if (!SameText(action, "calibrate"))
        return;
    fputs("Gimbal full calibrate\n", stderr);
    SendTemplate(kGimbalCalibrateFirstTemplate);
    SendTemplate(kGimbalCalibrateSecondTemplate);
    SendTemplate(kGimbalCalibrateThirdTemplate);
}

void TrackingStop()
{
    fputs("Stop tracking\n", stderr);
    SendTemplate(kTrackingStopTemplate);
}

void TrackingStart(float x, float y, float w, float h)
{
    TrackingStop();
    fprintf(stderr, "Start tracking %1.1f %1.1f %1.1f %1.1f\n", x, y, w, h);
    CommandFrame frame = FrameFrom(kTrackingStartTemplate);
    SetPayloadFloat(&frame, kTrackingBoxPayloadOffset, x);
    SetPayloadFloat(&frame, kTrackingBoxPayloadOffset + 4, y);
    SetPayloadFloat(&frame, kTrackingBoxPayloadOffset + 8, w);
    SetPayloadFloat(&frame, kTrackingBoxPayloadOffset + 12, h);
    SendCommandFrame(&frame);
}

void CameraSetDigitalZoom(int zoom)
{
    int zoom_max;
    {
        CameraStateGuard lock(camera_state_lock);
        zoom_max = GetCameraState()->zoom_max;
    }
    if (zoom_max < kDigitalZoomNone)
        zoom_max = kDigitalZoomNone;  // range not known yet (see the header)
    int clamped = zoom < kDigitalZoomNone ? kDigitalZoomNone : zoom;
    if (zoom_max < clamped)
        clamped = zoom_max;
    fprintf(stderr, "Set digital zoom %d\n", clamped);
    CommandFrame frame = FrameFrom(kDigitalZoomTemplate);
    SetPayloadLe16(&frame, kDigitalZoomPayloadOffset, static_cast<uint16_t>(clamped - kDigitalZoomNone));
    SendCommandFrame(&frame);
    CameraStateGuard lock(camera_state_lock);
    GetCameraState()->zoom_set = static_cast<uint16_t>(clamped);
}

void CameraFormatSd(const char* medium)
{
    if (!SameText(medium, "sd"))
        return;
    fputs("Format microSD card\n", stderr);
    SendTemplate(kFormatSdTemplate);
}

void CameraReset()
{
    SendTemplate(kResetTemplate);
}

void CameraSetHistogram(const char* on)
{
    SendByteSetting(kHistogramSetting, on);
}

void SendRawCameraPacket(uint8_t* frame, uint16_t length)
{
    if (frame == nullptr || length < kFrameMinimumSize || length > kFrameMaximumSize)
        return;
    SendCameraPacket(frame, length);
}
