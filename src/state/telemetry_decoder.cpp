#include "state/telemetry_decoder.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "camera/frame.h"
#include "camera/value_tables.h"
#include "net/clock.h"
#include "net/shared_memory.h"
#include "state/report_texts.h"

namespace {

// The report's payload (frame byte 11 on, checksum excluded), read with
// bounds checks: a byte beyond the payload reads as 0.
class Payload {
public:
    Payload(const uint8_t* frame, size_t frame_length)
        : bytes_(frame + kFramePayloadOffset),
          size_(frame_length >= kFrameMinimumSize ? frame_length - kFrameMinimumSize : 0)
    {
    }
    uint8_t U8(size_t n) const { return n < size_ ? bytes_[n] : 0; }
    uint16_t U16(size_t n) const { return static_cast<uint16_t>(U8(n) | U8(n + 1) << 8); }
    uint32_t U24(size_t n) const { return U16(n) | static_cast<uint32_t>(U8(n + 2)) << 16; }
    uint32_t U32(size_t n) const { return U16(n) | static_cast<uint32_t>(U16(n + 2)) << 16; }
    float F32(size_t n) const
    {
        uint32_t bits = U32(n);
        float value;
        memcpy(&value, &bits, sizeof value);
        return value;
    }
    const uint8_t* Bytes(size_t n, size_t count) const { return n + count <= size_ ? bytes_ + n : nullptr; }

private:
    const uint8_t* bytes_;
    size_t size_;
};

template <size_t N>
void SetText(char (&field)[N], const char* text)
{
    snprintf(field, N, "%s", text);
}

// NowMs as a report time stamp: 0 means "none", so a reading of 0 counts as 1.
uint32_t StampNow()
{
    uint32_t now = NowMs();
    return now != 0 ? now : 1;
}

// The shared attitude region, opened at most once (by the camera receive
// thread, the only caller of the decoder); on failure it stays null. Its
// repairs (another process shrinking or replacing it) are the shared-memory
// watch's; the pointer never changes.
std::atomic<bool> shared_attitude_tried{false};
SharedMapping shared_attitude_mapping;
uint8_t* shared_attitude = nullptr;
const char* shared_attitude_name = kSharedAttitudeName;

void SayAttitudeOpened(SharedMemoryOrigin origin)
{
    fputs(origin == SharedMemoryOrigin::kOpened ? "Shared cam state mem opened\n" : "Creating new shared cam state\n",
          stderr);
}

void OpenSharedAttitude()
{
    if (shared_attitude_tried.exchange(true))
        return;
    // A region left by an earlier run keeps its contents.
    if (SharedMemoryMap(&shared_attitude_mapping, shared_attitude_name, kSharedAttitudeSize, false, nullptr,
                        SayAttitudeOpened, nullptr) != 0) {
        fputs("Shared cam state not available\n", stderr);
        return;
    }
    shared_attitude = shared_attitude_mapping.base;
}

// Each angle is one aligned 16-bit store, so a reader never sees half of an
// old value beside half of a new one.
void PublishAttitude(const int16_t* angles)
{
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the region's angles are little-endian");
    for (int i = 0; i < 3; ++i)
        __atomic_store_n(reinterpret_cast<int16_t*>(shared_attitude) + i, angles[i], __ATOMIC_RELAXED);
}

void DecodeGimbalState(CameraState* state, const Payload& p)
{
    uint8_t bits = p.U8(gimbal_state_report::kBits);
    state->gimbal_bit1 = (bits >> 1) & 1;
    state->gimbal_bit5 = (bits >> 5) & 1;
    state->gimbal_bit4 = (bits >> 4) & 1;
}

void DecodeTracking(CameraState* state, const Payload& p)
{
    namespace r = tracking_report;
    state->tracking_active = (p.U8(r::kSubjectA) != 0 && p.U8(r::kSubjectB) != 0) ? 1 : 0;
    state->tracking_time = StampNow();
    state->tracking_x = p.F32(r::kX);
    state->tracking_y = p.F32(r::kY);
    state->tracking_w = p.F32(r::kW);
    state->tracking_h = p.F32(r::kH);
}

void DecodeBattery(CameraState* state, const Payload& p)
{
    state->battery_level = static_cast<int8_t>(p.U8(battery_report::kLevel));
    state->battery_charging = p.U8(battery_report::kCharging) != 0 ? 1 : 0;
}

// The whole playback frame on standard error, as one write.
void LogPlaybackFrame(const uint8_t* frame, size_t length)
{
    char line[16 + kFrameMaximumSize * 5 + 2];
    int used = snprintf(line, sizeof line, "%zu bytes: ", length);
    for (size_t i = 0; i < length && used >= 0 && static_cast<size_t>(used) < sizeof line; ++i)
        used += snprintf(line + used, sizeof line - used, "0x%02X,", frame[i]);
    fprintf(stderr, "%s\n", line);
}

void DecodePlayback(CameraState* state, const Payload& p)
{
    namespace r = playback_report;
    SetText(state->pl_state, PlaybackStateText(p.U8(r::kState)));
    state->pl_id = p.U16(r::kClipId);
    state->pl_dur_ms = p.U32(r::kDurationMs);
    memset(state->pl_dur, 0, sizeof state->pl_dur);
    FormatTimeText(state->pl_dur_ms / 1000, state->pl_dur, sizeof state->pl_dur);
    state->pl_time_ms = p.U32(r::kPositionMs);
    memset(state->pl_time, 0, sizeof state->pl_time);
    FormatTimeText(state->pl_time_ms / 1000, state->pl_time, sizeof state->pl_time);
}

void DecodeGimbalAttitude(CameraState* state, const Payload& p)
{
    namespace r = gimbal_attitude_report;
    state->gimbal_attitude[0] = static_cast<int16_t>(p.U16(r::kAngle0));
    // Folded about 180.0 degrees (tenths).
    int32_t angle = static_cast<int16_t>(p.U16(r::kAngle1));
    int32_t folded = angle < 0 ? -1800 - angle : (angle > 0 ? 1800 - angle : 0);
    state->gimbal_attitude[1] = static_cast<int16_t>(folded);
    state->gimbal_attitude[2] = static_cast<int16_t>(-static_cast<int32_t>(p.U16(r::kAngle2)));
    if (shared_attitude != nullptr)
        PublishAttitude(state->gimbal_attitude);
    memcpy(state->gimbal_limits, kGimbalLimits, sizeof state->gimbal_limits);
    state->gimbal_mode_flag = (p.U8(r::kModeBits) & 0x80) ? 0 : 1;
}

void DecodeFocus(CameraState* state, const Payload& p)
{
    namespace r = focus_report;
    state->focus_reported = 1;
    state->focus_mode_code = p.U8(r::kMode);
    SetText(state->focus_mode, SettingReadBack(FocusTypeCodes, state->focus_mode_code));
    state->focus_param_1 = p.U8(r::kParam1);
    state->focus_param_3 = p.U8(r::kParam3);
    state->focus_point_x = p.F32(r::kPointX);
    state->focus_point_y = p.F32(r::kPointY);
    state->focus_param_21 = p.U8(r::kParam21);
    state->focus_param_31 = p.U8(r::kParam31);
}

void DecodeHistogram(CameraState* state, const Payload& p)
{
    const uint8_t* bins = p.Bytes(histogram_report::kBins, kHistogramBinCount);
    if (bins == nullptr)
        return;
    memcpy(state->histogram_bins, bins, kHistogramBinCount);
    state->histogram_time = StampNow();
}

void DecodeCameraInfo(CameraState* state, const Payload& p)
{
    namespace r = camera_info_report;
    state->camera_flags = p.U8(r::kFlags);
    state->camera_aux_1 = p.U8(r::kAux1);
    state->camera_aux_2 = p.U8(r::kAux2);
    uint8_t model = p.U8(r::kModel);
    const char* model_text = CameraModelText(model);
    if (model_text != nullptr)
        SetText(state->camera_model, model_text);
    else
        snprintf(state->camera_model, sizeof state->camera_model, "Unknown camera (%d)", model);
    state->camera_detected = 1;
    state->mode_code = p.U8(r::kMode);
    SetText(state->camera_mode, SettingReadBack(CameraModeCodes, state->mode_code));
    state->sd_free_mb = p.U32(r::kSdFreeMb);
    if (state->sd_free_mb != 0)
        snprintf(state->sd, sizeof state->sd, "%1.1fG", static_cast<double>(static_cast<float>(state->sd_free_mb) * 0.001f));
    else
        state->sd[0] = '\0';
    state->shots_left = p.U32(r::kShotsLeft);
    state->rec_time_left_s = p.U32(r::kRecTimeLeft);
    FormatTimeText(state->rec_time_left_s, state->rec_time_left, sizeof state->rec_time_left);
    state->rec_time_s = p.U16(r::kRecTime);
    FormatTimeText(state->rec_time_s, state->rec_time, sizeof state->rec_time);
}

// Highest digital zoom for the mode the last camera information report gave,
// judged before this report updates `sensor`.
void UpdateZoomMax(CameraState* state, uint8_t resolution_code)
{
    switch (state->mode_code) {
    case 0:
        if (state->sensor == 16)
            state->zoom_max = 400;
        else if (state->sensor == 64)
            state->zoom_max = 800;
        break;
    case 1:
        if (resolution_code == 10)
            state->zoom_max = 400;
        else if (resolution_code == 24 || resolution_code == 31 || resolution_code == 52)
            state->zoom_max = 300;
        else
            state->zoom_max = 200;
        break;
    default:
        break;
    }
}

void DecodeSettings(CameraState* state, const Payload& p)
{
    namespace r = settings_report;
    uint8_t resolution_code = p.U8(r::kResolution);
    SetText(state->resolution, VideoResolutionReadBack(resolution_code));
    UpdateZoomMax(state, resolution_code);
    state->zoom = p.U16(r::kZoom);
    SetText(state->framerate, FrameRateReadBack(p.U8(r::kFrameRate)));
    SetText(state->wb, WhiteBalanceReadBack(p.U8(r::kWhiteBalance)));
    state->wb_temp = static_cast<float>(p.U8(r::kWhiteBalanceTemperature) * kWhiteBalanceKelvinPerUnit);
    SetText(state->shot_mode, SettingReadBack(ShotModeCodes, p.U8(r::kShotMode)));
    uint16_t aperture = p.U16(r::kAperture);
    double f_number = aperture * 0.01;
    // Whole f-numbers print without decimals; judged on the integer so that
    // no rounding of the product can make 2.0 look fractional.
    snprintf(state->aperture, sizeof state->aperture, aperture % 100 == 0 ? "%1.0f" : "%1.1f", f_number);
    state->iso = p.U16(r::kIso);
    SetText(state->iso_set, IsoReadBack(p.U8(r::kIsoSet)));
    state->ae = p.U8(r::kAeLock) != 0 ? 1 : 0;
    state->ae_aux = p.U8(r::kAeAux);
    SetText(state->ev, EvReadBack(p.U8(r::kEv)));
    SetText(state->color_mode, SettingReadBack(ColorModeCodes, p.U8(r::kColorMode)));
    SetText(state->image_mode, SettingReadBack(ExposureModeCodes, p.U8(r::kExposureProgram)));
    SetText(state->ratio, SettingReadBack(AspectRatioCodes, p.U8(r::kRatio)));
    uint8_t sensor = SensorResolutionReadBack(p.U8(r::kSensor));
    if (sensor != 0)
        state->sensor = sensor;
    SetText(state->video_std,
            SettingReadBack(VideoStandardCodes, p.U8(r::kVideoStandard) & kVideoStandardReportMask));
    SetText(state->antiflicker, SettingReadBack(AntiFlickerCodes, p.U8(r::kAntiFlicker)));
    state->shutter_set_raw = p.U24(r::kShutterSet);
    FormatShutterText(state->shutter_set_raw, state->shutter_set, sizeof state->shutter_set);
    state->shutter_raw = p.U24(r::kShutter);
    FormatShutterText(state->shutter_raw, state->shutter, sizeof state->shutter);
}

// Only the camera endpoint's receive thread runs the decoder.
TrackingRestoreState tracking_restore;

// Starts tracking; attached at start-up (the commands sit a layer above).
TrackingRestarter restart_tracking = nullptr;

// Tracks the box of the last tracked subject again.
void RestartTracking(const TrackingRestoreState& restore)
{
    if (restart_tracking != nullptr)
        restart_tracking(static_cast<float>(restore.x), static_cast<float>(restore.y), kTrackingRestoreWidth,
                  kTrackingRestoreHeight);
}

void ScanVisitor(const uint8_t* frame, size_t length, void* state)
{
    DecodeTelemetryFrame(static_cast<CameraState*>(state), frame, length);
}

}  // namespace

void AttachTrackingRestarter(TrackingRestarter restart)
{
    restart_tracking = restart;
}

void ScanTelemetryBuffer(CameraState* state, const uint8_t* block, uint32_t length)
{
    if (block == nullptr)
        return;
    // A candidate needs room for its header checksum and frame checksum, so
    // length bytes 0 to 3 never make a frame; the scan then moves on by one.
    ForEachCameraFrame(block, length, ScanVisitor, state != nullptr ? state : GetCameraState());
}

void DecodeTelemetryFrame(CameraState* state, const uint8_t* frame, size_t length)
{
    if (frame == nullptr || length < kDecodableMinimumLength)
        return;
    if (state == nullptr)
        state = GetCameraState();
    if (shared_attitude == nullptr)
        OpenSharedAttitude();

    const Payload p(frame, length);
    uint8_t command_type = frame[kFrameCommandTypeOffset];
    uint8_t command_set = frame[kFrameCommandSetOffset];
    uint8_t command_id = frame[kFrameCommandIdOffset];
    switch (length) {
    case kGimbalStateReportLength:
        if (command_set == kGimbalCommandSet && command_id == kGimbalStateCommandId) {
            CameraStateGuard guard(camera_state_lock);
            DecodeGimbalState(state, p);
        }
        break;
    case kTrackingReportLength: {
        uint8_t active;
        float x, y;
        {
            CameraStateGuard guard(camera_state_lock);
            DecodeTracking(state, p);
            active = state->tracking_active;
            x = state->tracking_x;
            y = state->tracking_y;
        }
        // Outside the lock: the restart reads and writes the record itself.
        if (TrackingRestoreStep(&tracking_restore, active, x, y, NowMs()))
            RestartTracking(tracking_restore);
        break;
    }
    case kBatteryReportLength:
    case kBatteryReportLongLength:
        if (command_set == kBatteryCommandSet) {
            CameraStateGuard guard(camera_state_lock);
            DecodeBattery(state, p);
        }
        break;
    case kPlaybackReportLength: {
        LogPlaybackFrame(frame, length);
        CameraStateGuard guard(camera_state_lock);
        DecodePlayback(state, p);
        break;
    }
    case kAttitudeOrFocusReportLength:
        if (command_set == kGimbalCommandSet) {
            CameraStateGuard guard(camera_state_lock);
            DecodeGimbalAttitude(state, p);
        } else if (command_set == kCameraCommandSet && command_type == 0) {
            CameraStateGuard guard(camera_state_lock);
            DecodeFocus(state, p);
        }
        break;
    case kHistogramReportLength: {
        CameraStateGuard guard(camera_state_lock);
        DecodeHistogram(state, p);
        break;
    }
    case kCameraInfoReportLength: {
        CameraStateGuard guard(camera_state_lock);
        DecodeCameraInfo(state, p);
        break;
    }
    case kSettingsReportLength:
    case kSettingsReportLongLength: {
        CameraStateGuard guard(camera_state_lock);
        DecodeSettings(state, p);
        break;
    }
    default:
        break;
    }
}

void FormatTimeText(uint32_t seconds, char* out, size_t capacity)
{
    if (out == nullptr || capacity == 0)
        return;
    snprintf(out, capacity, "%02u:%02u:%02u", seconds / 3600, (seconds / 60) % 60, seconds % 60);
}

bool FormatShutterText(uint32_t code, char* out, size_t capacity)
{
    unsigned b0 = code & 0xff;
    unsigned b1 = (code >> 8) & 0xff;
    unsigned b2 = (code >> 16) & 0xff;
    if (b1 == 0) {
        if (b2 != 0)
            snprintf(out, capacity, "%u.%u\"", b0, b2);
        else
            snprintf(out, capacity, "%u\"", b0);
        return true;
    }
    if ((b1 & 0x80) == 0)
        return false;
    unsigned denominator = b0 + 256 * (b1 - 128);
    if (b2 != 0)
        snprintf(out, capacity, "1/%u.%u", denominator, b2);
    else
        snprintf(out, capacity, "1/%u", denominator);
    return true;
}

bool TrackingRestoreStep(TrackingRestoreState* restore, uint8_t tracking_active, float x, float y,
                         uint32_t now_ms)
{
    if (tracking_active == 1) {
        restore->pending = true;
        restore->since_ms = now_ms;
        restore->x = x;
        restore->y = y;
        return false;
    }
    if (!restore->pending)
        return false;
    uint32_t elapsed = now_ms - restore->since_ms;
    fprintf(stderr, "Waiting restore tracking %d...\n", static_cast<int>(elapsed));
    if (elapsed <= kTrackingRestoreDelayMs)
        return false;
    fputs("Restore tracking...\n", stderr);
    return true;
}

void SetSharedAttitudeName(const char* name)
{
    shared_attitude_name = name;
}

void ResetTelemetryDecoder()
{
    tracking_restore = TrackingRestoreState();
}
