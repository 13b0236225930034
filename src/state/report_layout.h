#pragma once
// The camera's telemetry reports: where each value sits in a report's
// payload (payload byte N is frame byte 11 + N; numbers little-endian), and
// builders of the reports as the camera sends them. The decoder reads these
// offsets; the camera simulator and the tests build from them, so the layout
// is written down once.
//
// Reports are told apart by frame length; only the gimbal state (command set
// 4, id 0x19), battery (set 5), gimbal attitude (set 4) and focus (set 2,
// command type 0) reports are also told by their command set / id / type.
#include <cstddef>
#include <cstdint>

#include "camera/frame.h"
#include "state/camera_state.h"

// Frame lengths (byte 1) of the report kinds.
constexpr size_t kGimbalStateReportLength = 17;
constexpr size_t kTrackingReportLength = 36;
constexpr size_t kBatteryReportLength = 53;
constexpr size_t kBatteryReportLongLength = 57;
constexpr size_t kPlaybackReportLength = 54;
constexpr size_t kAttitudeOrFocusReportLength = 58;
constexpr size_t kHistogramReportLength = 77;
constexpr size_t kCameraInfoReportLength = 81;
constexpr size_t kSettingsReportLength = 107;
constexpr size_t kSettingsReportLongLength = 116;

constexpr uint8_t kGimbalCommandSet = 4;
constexpr uint8_t kGimbalStateCommandId = 0x19;
constexpr uint8_t kCameraCommandSet = 2;
constexpr uint8_t kBatteryCommandSet = 5;

constexpr size_t ReportPayloadSize(size_t frame_length)
{
    return frame_length - kFrameMinimumSize;
}

namespace gimbal_state_report {
constexpr size_t kBits = 0;          // bit 1, bit 5, bit 4
}
namespace tracking_report {
constexpr size_t kSubjectA = 5;      // both non-zero: a subject is tracked
constexpr size_t kSubjectB = 6;
constexpr size_t kX = 7;             // f32 each, normalised box
constexpr size_t kY = 11;
constexpr size_t kW = 15;
constexpr size_t kH = 19;
}
namespace battery_report {
constexpr size_t kLevel = 0;         // i8
constexpr size_t kCharging = 39;     // non-zero: charging
}
namespace playback_report {
constexpr size_t kState = 0;         // 2 playing, 3 paused, 7 stopped
constexpr size_t kClipId = 4;        // u16
constexpr size_t kDurationMs = 9;    // u32
constexpr size_t kPositionMs = 13;   // u32
}
namespace gimbal_attitude_report {
constexpr size_t kAngle1 = 0;        // i16, folded about 180.0 degrees into attitude[1]
constexpr size_t kAngle2 = 2;        // i16, negated into attitude[2]
constexpr size_t kModeBits = 6;      // bit 7 clear: gimbal_mode_flag 1
constexpr size_t kAngle0 = 8;        // i16, attitude[0]
}
namespace focus_report {
constexpr size_t kMode = 0;          // 0x84 MF, 0x85 AFS, 0x86 AFC
constexpr size_t kParam1 = 1;
constexpr size_t kParam3 = 3;
constexpr size_t kPointX = 13;       // f32
constexpr size_t kPointY = 17;       // f32
constexpr size_t kParam21 = 21;
constexpr size_t kParam31 = 31;
}
namespace histogram_report {
constexpr size_t kBins = 0;          // 64 bytes
}
namespace camera_info_report {
constexpr size_t kFlags = 0;         // bits 7..6 == 2: recording
constexpr size_t kAux2 = 2;
constexpr size_t kMode = 4;          // 0 photo, 1 video, 7 playback
constexpr size_t kSdFreeMb = 9;      // u32
constexpr size_t kShotsLeft = 13;    // u32
constexpr size_t kRecTimeLeft = 17;  // u32 seconds
constexpr size_t kRecTime = 29;      // u16 seconds
constexpr size_t kAux1 = 31;
constexpr size_t kModel = 33;        // 24 Osmo Pocket, 47 Pocket 2
}
namespace settings_report {
constexpr size_t kShutterSet = 2;    // 24-bit shutter code
constexpr size_t kIsoSet = 5;
constexpr size_t kEv = 6;
constexpr size_t kSensor = 9;        // size code: 4 (16 MP), 5 (64 MP)
constexpr size_t kRatio = 10;
constexpr size_t kShotMode = 12;
constexpr size_t kResolution = 13;
constexpr size_t kFrameRate = 14;
constexpr size_t kExposureProgram = 20;
constexpr size_t kWhiteBalance = 23;
constexpr size_t kWhiteBalanceTemperature = 24;  // x 100 kelvin
constexpr size_t kColorMode = 31;
constexpr size_t kAntiFlicker = 32;
constexpr size_t kAperture = 38;     // u16, f-number x 100
constexpr size_t kShutter = 40;      // 24-bit shutter code in use
constexpr size_t kIso = 43;          // u16
constexpr size_t kVideoStandard = 55;  // bit 0: NTSC
constexpr size_t kAeLock = 56;
constexpr size_t kAeAux = 58;
constexpr size_t kZoom = 89;         // u16
}

static_assert(tracking_report::kH + 4 <= ReportPayloadSize(kTrackingReportLength), "tracking layout");
static_assert(battery_report::kCharging < ReportPayloadSize(kBatteryReportLength), "battery layout");
static_assert(playback_report::kPositionMs + 4 <= ReportPayloadSize(kPlaybackReportLength), "playback layout");
static_assert(focus_report::kParam31 < ReportPayloadSize(kAttitudeOrFocusReportLength), "focus layout");
static_assert(histogram_report::kBins + kHistogramBinCount <= ReportPayloadSize(kHistogramReportLength),
              "histogram layout");
static_assert(camera_info_report::kModel < ReportPayloadSize(kCameraInfoReportLength), "camera info layout");
static_assert(settings_report::kZoom + 2 <= ReportPayloadSize(kSettingsReportLength), "settings layout");

// ---------------------------------------------------------------------------
// The camera's side: reports built from values as the camera sends them
// (codes and raw numbers, not display texts). Used by the simulator and tests.

enum class CameraReportKind {
    kGimbalState,
    kTracking,
    kBattery,
    kPlayback,
    kGimbalAttitude,
    kFocus,
    kHistogram,
    kCameraInfo,
    kSettings,
};

struct CameraReportValues {
    // Camera information.
    uint8_t camera_flags = 0;
    uint8_t aux_1 = 0;
    uint8_t aux_2 = 0;
    uint8_t mode = 1;
    uint8_t model = 47;
    uint32_t sd_free_mb = 0;
    uint32_t shots_left = 0;
    uint32_t rec_time_left_s = 0;
    uint16_t rec_time_s = 0;
    // Settings.
    bool settings_long_form = false;   // 116-byte frame instead of 107
    uint32_t shutter_set = 0;          // 24-bit shutter codes
    uint32_t shutter = 0;
    uint8_t iso_set_code = 0;
    uint8_t ev_code = 16;
    uint8_t sensor_code = 0;
    uint8_t ratio_code = 0;
    uint8_t shot_mode_code = 0;
    uint8_t resolution_code = 0;
    uint8_t frame_rate_code = 0;
    uint8_t exposure_program = 1;
    uint8_t white_balance_code = 0;
    uint8_t white_balance_temperature = 0;
    uint8_t color_mode_code = 0;
    uint8_t antiflicker_code = 0;
    uint8_t video_standard_bits = 0;
    uint8_t ae_lock = 0;
    uint8_t ae_aux = 0;
    uint16_t aperture = 0;
    uint16_t iso = 0;
    uint16_t zoom = 0;
    // Battery.
    bool battery_long_form = false;    // 57-byte frame instead of 53
    int8_t battery_level = 0;
    uint8_t battery_charging = 0;
    // Gimbal.
    int16_t angle0 = 0;                // report values, before folding/negation
    int16_t angle1 = 0;
    int16_t angle2 = 0;
    uint8_t attitude_mode_bits = 0;
    uint8_t gimbal_state_bits = 0;
    // Focus.
    uint8_t focus_mode = 0x85;
    uint8_t focus_param_1 = 0;
    uint8_t focus_param_3 = 0;
    float focus_x = 0.5f;
    float focus_y = 0.5f;
    uint8_t focus_param_21 = 0;
    uint8_t focus_param_31 = 0;
    // Histogram.
    uint8_t histogram[kHistogramBinCount] = {};
    // Tracking.
    bool tracking_subject = false;
    float tracking_x = 0.0f;
    float tracking_y = 0.0f;
    float tracking_w = 0.0f;
    float tracking_h = 0.0f;
    // Playback.
    uint8_t playback_state = 0;
    uint16_t playback_clip = 0;
    uint32_t playback_duration_ms = 0;
    uint32_t playback_position_ms = 0;
};

// The command set and id a report of `kind` goes with.
uint8_t ReportCommandSet(CameraReportKind kind);
uint8_t ReportCommandId(CameraReportKind kind);
// Writes the payload of a report (zeros where no value sits); returns its
// length, or 0 when `capacity` is too small.
size_t EncodeReportPayload(CameraReportKind kind, const CameraReportValues& values, uint8_t* payload,
                           size_t capacity);
// The whole frame, sealed with `sequence`; returns its length or 0.
size_t BuildCameraReport(CameraReportKind kind, const CameraReportValues& values, uint8_t* out, size_t capacity,
                         uint16_t sequence);
