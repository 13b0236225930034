#pragma once
// The camera's side of the telemetry reports: reports built from values as
// the camera sends them (codes and raw numbers, not display texts), at the
// offsets of state/report_layout.h. The simulator, the tests and the fuzzers
// build reports with it; the service only reads them.
#include <cstddef>
#include <cstdint>

#include "state/report_layout.h"

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
