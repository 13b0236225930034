#include "sim/report_encoder.h"

#include <cstring>

#include "sim/camera_side.h"

namespace {

void Put32(uint8_t* out, uint32_t value)
{
    WriteLe16(out, static_cast<uint16_t>(value));
    WriteLe16(out + 2, static_cast<uint16_t>(value >> 16));
}

void Put24(uint8_t* out, uint32_t value)
{
    WriteLe16(out, static_cast<uint16_t>(value));
    out[2] = static_cast<uint8_t>(value >> 16);
}

void PutFloat(uint8_t* out, float value)
{
    uint32_t bits;
    memcpy(&bits, &value, sizeof bits);
    Put32(out, bits);
}

size_t FrameLength(CameraReportKind kind, const CameraReportValues& values)
{
    switch (kind) {
    case CameraReportKind::kGimbalState: return kGimbalStateReportLength;
    case CameraReportKind::kTracking: return kTrackingReportLength;
    case CameraReportKind::kBattery:
        return values.battery_long_form ? kBatteryReportLongLength : kBatteryReportLength;
    case CameraReportKind::kPlayback: return kPlaybackReportLength;
    case CameraReportKind::kGimbalAttitude: return kAttitudeOrFocusReportLength;
    case CameraReportKind::kFocus: return kAttitudeOrFocusReportLength;
    case CameraReportKind::kHistogram: return kHistogramReportLength;
    case CameraReportKind::kCameraInfo: return kCameraInfoReportLength;
    case CameraReportKind::kSettings:
        return values.settings_long_form ? kSettingsReportLongLength : kSettingsReportLength;
    }
    return 0;
}

void EncodeSettings(const CameraReportValues& v, uint8_t* p)
{
    namespace r = settings_report;
    Put24(p + r::kShutterSet, v.shutter_set);
    p[r::kIsoSet] = v.iso_set_code;
    p[r::kEv] = v.ev_code;
    p[r::kSensor] = v.sensor_code;
    p[r::kRatio] = v.ratio_code;
    p[r::kShotMode] = v.shot_mode_code;
    p[r::kResolution] = v.resolution_code;
    p[r::kFrameRate] = v.frame_rate_code;
    p[r::kExposureProgram] = v.exposure_program;
    p[r::kWhiteBalance] = v.white_balance_code;
    p[r::kWhiteBalanceTemperature] = v.white_balance_temperature;
    p[r::kColorMode] = v.color_mode_code;
    p[r::kAntiFlicker] = v.antiflicker_code;
    WriteLe16(p + r::kAperture, v.aperture);
    Put24(p + r::kShutter, v.shutter);
    WriteLe16(p + r::kIso, v.iso);
    p[r::kVideoStandard] = v.video_standard_bits;
    p[r::kAeLock] = v.ae_lock;
    p[r::kAeAux] = v.ae_aux;
    WriteLe16(p + r::kZoom, v.zoom);
}

void EncodeCameraInfo(const CameraReportValues& v, uint8_t* p)
{
    namespace r = camera_info_report;
    p[r::kFlags] = v.camera_flags;
    p[r::kAux2] = v.aux_2;
    p[r::kMode] = v.mode;
    Put32(p + r::kSdFreeMb, v.sd_free_mb);
    Put32(p + r::kShotsLeft, v.shots_left);
    Put32(p + r::kRecTimeLeft, v.rec_time_left_s);
    WriteLe16(p + r::kRecTime, v.rec_time_s);
    p[r::kAux1] = v.aux_1;
    p[r::kModel] = v.model;
}

}  // namespace

// The ids of the reports that are not told by their id are the camera's;
// the decoder does not look at them.
uint8_t ReportCommandSet(CameraReportKind kind)
{
    switch (kind) {
    case CameraReportKind::kGimbalState:
    case CameraReportKind::kGimbalAttitude: return kGimbalCommandSet;
    case CameraReportKind::kBattery: return kBatteryCommandSet;
    default: return kCameraCommandSet;
    }
}

uint8_t ReportCommandId(CameraReportKind kind)
{
    switch (kind) {
    case CameraReportKind::kGimbalState: return kGimbalStateCommandId;
    case CameraReportKind::kTracking: return 0xa7;
    case CameraReportKind::kBattery: return 0x02;
    case CameraReportKind::kPlayback: return 0x7c;
    case CameraReportKind::kGimbalAttitude: return 0x05;
    case CameraReportKind::kFocus: return 0x25;
    case CameraReportKind::kHistogram: return 0x61;
    case CameraReportKind::kCameraInfo: return 0x80;
    case CameraReportKind::kSettings: return 0x81;
    }
    return 0;
}

size_t EncodeReportPayload(CameraReportKind kind, const CameraReportValues& v, uint8_t* p, size_t capacity)
{
    size_t frame_length = FrameLength(kind, v);
    if (frame_length < kFrameMinimumSize)
        return 0;
    size_t size = ReportPayloadSize(frame_length);
    if (capacity < size)
        return 0;
    memset(p, 0, size);
    switch (kind) {
    case CameraReportKind::kGimbalState:
        p[gimbal_state_report::kBits] = v.gimbal_state_bits;
        break;
    case CameraReportKind::kTracking:
        p[tracking_report::kSubjectA] = v.tracking_subject ? 1 : 0;
        p[tracking_report::kSubjectB] = v.tracking_subject ? 1 : 0;
        PutFloat(p + tracking_report::kX, v.tracking_x);
        PutFloat(p + tracking_report::kY, v.tracking_y);
        PutFloat(p + tracking_report::kW, v.tracking_w);
        PutFloat(p + tracking_report::kH, v.tracking_h);
        break;
    case CameraReportKind::kBattery:
        p[battery_report::kLevel] = static_cast<uint8_t>(v.battery_level);
        p[battery_report::kCharging] = v.battery_charging;
        break;
    case CameraReportKind::kPlayback:
        p[playback_report::kState] = v.playback_state;
        WriteLe16(p + playback_report::kClipId, v.playback_clip);
        Put32(p + playback_report::kDurationMs, v.playback_duration_ms);
        Put32(p + playback_report::kPositionMs, v.playback_position_ms);
        break;
    case CameraReportKind::kGimbalAttitude:
        WriteLe16(p + gimbal_attitude_report::kAngle1, static_cast<uint16_t>(v.angle1));
        WriteLe16(p + gimbal_attitude_report::kAngle2, static_cast<uint16_t>(v.angle2));
        p[gimbal_attitude_report::kModeBits] = v.attitude_mode_bits;
        WriteLe16(p + gimbal_attitude_report::kAngle0, static_cast<uint16_t>(v.angle0));
        break;
    case CameraReportKind::kFocus:
        p[focus_report::kMode] = v.focus_mode;
        p[focus_report::kParam1] = v.focus_param_1;
        p[focus_report::kParam3] = v.focus_param_3;
        PutFloat(p + focus_report::kPointX, v.focus_x);
        PutFloat(p + focus_report::kPointY, v.focus_y);
        p[focus_report::kParam21] = v.focus_param_21;
        p[focus_report::kParam31] = v.focus_param_31;
        break;
    case CameraReportKind::kHistogram:
        memcpy(p + histogram_report::kBins, v.histogram, kHistogramBinCount);
        break;
    case CameraReportKind::kCameraInfo:
        EncodeCameraInfo(v, p);
        break;
    case CameraReportKind::kSettings:
        EncodeSettings(v, p);
        break;
    }
    return size;
}

size_t BuildCameraReport(CameraReportKind kind, const CameraReportValues& values, uint8_t* out, size_t capacity,
                         uint16_t sequence)
{
    uint8_t payload[kFrameMaximumSize];
    size_t size = EncodeReportPayload(kind, values, payload, sizeof payload);
    if (size == 0)
        return 0;
    return BuildReportFrame(out, capacity, ReportCommandSet(kind), ReportCommandId(kind), payload, size, sequence);
}
