#pragma once
// The camera's telemetry reports: where each value sits in a report's
// payload (payload byte N is frame byte 11 + N; numbers little-endian). The
// decoder reads these offsets; the simulator's report encoder
// (sim/report_encoder.h) writes from them, so the layout is written down once.
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
