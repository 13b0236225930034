#pragma once
#include <cstddef>
#include <cstdint>

#include "state/camera_state.h"

// The status report to the main application, sent from command_endpoint.
//
// Every datagram begins with a type byte: 7 for the status line (text of
// "key=value," items, no terminator), 6 for a binary message, whose second
// byte is its kind. Binary numbers are little-endian. The recording notice
// ("rec_active" / "rec_inactive") goes to 127.0.0.1:5255 as bare text.
//
// The status thread takes one copy of CameraState per 100 ms tick (under
// camera_state_lock) and builds every message of that tick from the copy.
// It is never stopped: the process ends with exit(), which ends it too.

constexpr uint8_t kStatusLineType = 7;
constexpr uint8_t kBinaryMessageType = 6;
constexpr uint8_t kStateMessageKind = 0;
constexpr uint8_t kHistogramMessageKind = 1;
constexpr uint8_t kTrackingMessageKind = 2;
constexpr size_t kStatusLineMaximumSize = 1299;  // type byte included

constexpr uint32_t kStatusTickMs = 100;
constexpr uint32_t kStatusLineTicks = 10;        // also the peer check
constexpr uint32_t kBinaryMessageTicks = 2;
constexpr uint32_t kRecordingNoticeTicks = 5;
constexpr uint32_t kReportStaleMs = 3000;        // histogram (and tracking) age limit

constexpr const char* kRecordingActiveNotice = "rec_active";
constexpr const char* kRecordingInactiveNotice = "rec_inactive";

// StateMessage: byte offsets.
namespace state_message {
constexpr size_t kGimbalFlags = 2;      // gimbal_lock_requested | gimbal_mode_flag
constexpr size_t kAttitude0 = 3;        // i16 gimbal_attitude[0..2]
constexpr size_t kAttitude1 = 5;
constexpr size_t kAttitude2 = 7;
constexpr size_t kCameraFlags = 9;
constexpr size_t kCameraAux1 = 10;
constexpr size_t kCameraAux2 = 11;
constexpr size_t kFocusReported = 12;
constexpr size_t kFocusModeCode = 13;
constexpr size_t kZero = 14;
constexpr size_t kFocusParam1 = 15;     // u16
constexpr size_t kFocusParam3 = 17;     // u16
constexpr size_t kFocusPointX = 19;     // u16, x 1000
constexpr size_t kFocusPointY = 21;     // u16, x 1000
constexpr size_t kFocusParam21 = 23;
constexpr size_t kFocusParam31 = 24;
constexpr size_t kAeAux = 25;
constexpr size_t kGimbalLimit1 = 26;    // i16 each, in the order 1, 0, 3, 2
constexpr size_t kGimbalLimit0 = 28;
constexpr size_t kGimbalLimit3 = 30;
constexpr size_t kGimbalLimit2 = 32;
constexpr size_t kZoom = 34;            // u16
constexpr size_t kZoomMax = 36;         // u16
constexpr size_t kGimbalBits = 38;      // bit1 x 4 + bit5 x 2 + bit4
constexpr size_t kSize = 39;
}  // namespace state_message

// TrackingMessage: tracking_active, then x, y, w, h as u16 (x 65535).
namespace tracking_message {
constexpr size_t kActive = 2;
constexpr size_t kX = 3;
constexpr size_t kY = 5;
constexpr size_t kW = 7;
constexpr size_t kH = 9;
constexpr size_t kSize = 11;
}  // namespace tracking_message

// HistogramMessage: the 64 bins from byte 2.
namespace histogram_message {
constexpr size_t kBins = 2;
constexpr size_t kSize = kBins + kHistogramBinCount;
}  // namespace histogram_message

// A scaled real as sent: the single product truncated toward zero into an
// unsigned 32-bit integer (negative and NaN give 0, too large saturates),
// of which the low 16 bits go out.
uint16_t ScaledField(float value, float scale);

// The status line of a record: type byte and text. Returns its length.
size_t BuildStatusLine(const CameraState& state, uint8_t* out, size_t capacity);
// The binary messages; `out` holds the message's kSize bytes.
void BuildStateMessage(const CameraState& state, uint8_t* out);
void BuildTrackingMessage(const CameraState& state, uint8_t* out);
void BuildHistogramMessage(const CameraState& state, uint8_t* out);
// "rec_active" when bits 7..6 of the camera flags are 2, else "rec_inactive".
const char* RecordingNotice(uint8_t camera_flags);

// Builds the status line of `state` and sends it with SendToMainApp. The
// record must not change meanwhile: the status thread passes its copy.
void FormatStatusLine(const CameraState* state);

// The status thread (argument: the CameraState record; null for the
// process-wide one). Never returns.
void* StatusThreadMain(void* camera_state);
