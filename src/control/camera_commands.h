#pragma once
// Camera and gimbal commands: record, shoot, switch mode, focus, meter, move
// and re-centre the gimbal, calibrate it, track a subject, zoom, format the
// card, reset, histogram.
//
// Each operation writes its log line on standard error and sends one or more
// frames, each a copy of a constant CommandTemplate (control/command_templates.h)
// with its payload bytes filled in, through SendCameraPacket. Nothing is
// waited for or read back; the camera's answer shows in its telemetry.
//
// Callers: the JSON command interpreter (command thread), the remote control
// (its own thread) and the telemetry decoder (TrackingStart, camera receive
// thread). Frames live in local buffers; SendCameraPacket keeps concurrent
// senders in order. The CameraState fields read or written here are accessed
// under camera_state_lock, never held while sending or logging.
//
// Text arguments are non-null NUL-terminated texts compared exactly and
// case-sensitively; a null text is treated as a text in no row.
#include <cstdint>

// Capture and mode.
void CameraRecord(int start);              // non-zero: start
void CameraShot();
void CameraSetMode(const char* mode);      // "photo", "video", "playback"

// Focus and metering.
void CameraSetFocusType(const char* type);  // "afc", "afs"
void CameraSetFocusPoint(float x, float y);
void CameraSetExposureLock(const char* lock);  // "lock", anything else unlocks
void CameraSetExposurePoint(int point);
void CameraSetExposureCenter();

// Gimbal. The real-valued forms scale their arguments (see the .cpp) and
// saturate at the 32-bit limits before the low 16 bits are sent.
void GimbalSetSpeed(double a, double b, double c);
void GimbalSetSpeedRaw(int a, int b, int c);
void GimbalSetAngle(double a, double b, double c);
void GimbalSetAngleRaw(int a, int b, int c);
void GimbalSetPosition(const char* position);  // "normal", "selfie"
void GimbalNextPosition();
void GimbalSetOrientationLock(const char* lock);  // "lock", "unlock"; sends nothing
void GimbalSetMode(const char* mode);             // "tiltlocked", "fpv", "follow"
void GimbalSetFollowSpeed(const char* speed);     // "slow", anything else is fast
void GimbalCalibrate(const char* action);         // "calibrate"

// Tracking and zoom.
void TrackingStop();
// Stops any running tracking, then tracks the box (normalised position, size).
void TrackingStart(float x, float y, float w, float h);
// zoom in hundredths (100: no zoom), clamped to 100 .. zoom_max, then stored
// in zoom_set. While zoom_max is below 100 (0 until the camera has reported
// its range) the limit is 100: the plain clamp would send zoom_max - 100 as
// 16 bits (9C FF for 0), a zoom below 1x the camera never offered, and no
// zoom is the only value known to be valid before the range is known.
void CameraSetDigitalZoom(int zoom);

// Card, reset, histogram.
void CameraFormatSd(const char* medium);  // "sd"
void CameraReset();
void CameraSetHistogram(const char* on);  // "1", "0"

// Sends a complete frame built by the caller; only its sequence number and
// CRC16 are written. Frames outside 13 .. 255 bytes are not sent.
void SendRawCameraPacket(uint8_t* frame, uint16_t length);

// Real-to-integer conversion of the gimbal commands: the double-precision
// value truncated toward zero, saturated to the signed 32-bit range; NaN
// (a "nan" text from the main application) gives 0.
int32_t SaturateToInt32(double value);
