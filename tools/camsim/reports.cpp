// The simulated camera's telemetry: a model of what the camera reports, held
// as the camera holds it (codes and raw numbers), sent as report frames at
// the camera's pace, changed by "set <key> <value>" lines and moving by
// itself (recording time, battery, gimbal sweep, playback, histogram).
//
// The model is shared by the stream thread (SimBuildReports) and whoever
// calls SimHandleReportCommand (the main thread for standard input, the
// receive thread for decoded commands): report_lock guards it.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "camsim.h"
#include "camera/value_tables.h"
#include "net/clock.h"
#include "sim/report_encoder.h"
#include "state/report_texts.h"

namespace {

// Report periods, in data-stream datagrams (one per --report-period, 100 ms
// by default): attitude and tracking every datagram, histogram every second
// one, camera information, settings, focus, gimbal state and playback every
// fifth, battery every tenth.
constexpr uint32_t kHistogramEvery = 2;
constexpr uint32_t kStatusEvery = 5;
constexpr uint32_t kBatteryEvery = 10;

enum class Tracking { kOff, kSubject, kLost };

struct SimModel {
    CameraReportValues values;
    bool recording = false;
    uint32_t recording_since_ms = 0;
    uint16_t recorded_before_s = 0;   // rec_time at the start of this recording
    uint32_t left_before_s = 0;       // rec_time_left at the start of this recording
    bool histogram = true;
    Tracking tracking = Tracking::kOff;
    bool gimbal_sweep = true;
    int16_t attitude[3] = {0, 0, 0};  // as the service shows them (tenths)
    uint32_t playback_since_ms = 0;   // position reference while playing
    uint32_t battery_since_ms = 0;
};

std::mutex report_lock;
SimModel model;      // guarded by report_lock
bool model_ready = false;
uint16_t report_sequence = 0;  // only the stream thread uses it
uint32_t report_tick = 0;

void InitModel(SimModel* m)
{
    CameraReportValues& v = m->values;
    v.model = 47;
    v.mode = 1;
    v.sd_free_mb = 29700;
    v.shots_left = 2150;
    v.rec_time_left_s = 4 * 3600 + 12 * 60;
    v.resolution_code = 16;      // 3840x2160
    v.frame_rate_code = 3;       // 30
    v.shot_mode_code = 1;        // JPG
    v.exposure_program = 1;      // auto
    v.shutter_set = 0x0080f0;    // 1/240
    v.shutter = 0x0080fa;        // 1/250
    v.iso = 200;
    v.iso_set_code = 0;          // auto
    v.ev_code = 16;              // 0
    v.aperture = 180;
    v.white_balance_code = 0;
    v.white_balance_temperature = 56;
    v.color_mode_code = 0;
    v.ratio_code = 1;
    v.sensor_code = 4;
    v.video_standard_bits = 0;   // PAL
    v.antiflicker_code = 1;      // 50 Hz
    v.zoom = 100;
    v.battery_level = 87;
    v.focus_mode = 0x86;
    v.playback_clip = 1;
    v.playback_duration_ms = 95000;
    v.playback_state = 7;
    m->battery_since_ms = NowMs();
}

// The report's raw angles that the service shows as `attitude` (its
// folding about 180.0 degrees and negation undone).
void SetRawAngles(CameraReportValues* v, const int16_t attitude[3])
{
    v->angle0 = attitude[0];
    int32_t shown = attitude[1];
    int32_t raw = shown < 1800 ? 1800 - shown : -1800 - shown;
    v->angle1 = static_cast<int16_t>(raw);
    v->angle2 = static_cast<int16_t>(-attitude[2]);
}

// What moves by itself between reports.
void Advance(SimModel* m, uint32_t now)
{
    CameraReportValues& v = m->values;
    if (m->recording) {
        uint32_t elapsed_s = (now - m->recording_since_ms) / 1000;
        v.rec_time_s = static_cast<uint16_t>(m->recorded_before_s + elapsed_s);
        v.rec_time_left_s = m->left_before_s > elapsed_s ? m->left_before_s - elapsed_s : 0;
        v.camera_flags = static_cast<uint8_t>((v.camera_flags & 0x3f) | 0x80);
    } else {
        v.camera_flags &= 0x3f;
    }
    // One percent a minute, down while discharging, up while charging.
    if (now - m->battery_since_ms >= 60000) {
        m->battery_since_ms = now;
        if (v.battery_charging && v.battery_level < 100)
            ++v.battery_level;
        else if (!v.battery_charging && v.battery_level > 0)
            --v.battery_level;
    }
    int16_t attitude[3] = {m->attitude[0], m->attitude[1], m->attitude[2]};
    if (m->gimbal_sweep) {
        double t = now / 1000.0;
        attitude[0] = static_cast<int16_t>(attitude[0] + 300.0 * sin(t / 4.0));
        attitude[1] = static_cast<int16_t>(attitude[1] + 50.0 * sin(t / 3.0));
        attitude[2] = static_cast<int16_t>(attitude[2] + 20.0 * sin(t / 5.0));
    }
    SetRawAngles(&v, attitude);
    if (v.playback_state == 2 && v.playback_duration_ms > 0) {
        uint32_t played = now - m->playback_since_ms;
        v.playback_position_ms = played % v.playback_duration_ms;
    }
    // A histogram whose peak drifts across the bins.
    double peak = 32.0 + 24.0 * sin(now / 2500.0);
    for (size_t i = 0; i < kHistogramBinCount; ++i) {
        double d = (static_cast<double>(i) - peak) / 9.0;
        v.histogram[i] = static_cast<uint8_t>(8 + 200.0 * exp(-d * d));
    }
}

size_t Append(uint8_t* out, size_t capacity, size_t used, CameraReportKind kind, const CameraReportValues& v)
{
    if (used >= capacity)
        return used;
    return used + BuildCameraReport(kind, v, out + used, capacity - used, report_sequence++);
}

// ---------------------------------------------------------------------------
// "set <key> <value>": values as the status line shows them.

bool ParseLong(const char* text, long low, long high, long* out)
{
    char* end = nullptr;
    long value = strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < low || value > high)
        return false;
    *out = value;
    return true;
}

bool ParseDouble(const char* text, double* out)
{
    char* end = nullptr;
    double value = strtod(text, &end);
    if (end == text || (*end != '\0' && strcmp(end, "G") != 0))
        return false;
    *out = value;
    return true;
}

// "hh:mm:ss" or a number of seconds.
bool ParseSeconds(const char* text, uint32_t* out)
{
    unsigned h, m, s;
    char tail;
    if (sscanf(text, "%u:%u:%u%c", &h, &m, &s, &tail) == 3 && m < 60 && s < 60) {
        *out = h * 3600 + m * 60 + s;
        return true;
    }
    long seconds;
    if (!ParseLong(text, 0, UINT32_MAX, &seconds))
        return false;
    *out = static_cast<uint32_t>(seconds);
    return true;
}

bool ParseFlag(const char* text, bool* out)
{
    long value;
    if (!ParseLong(text, 0, 1, &value))
        return false;
    *out = value != 0;
    return true;
}

// The code whose read-back text is `text` in a value table.
bool CodeOfReadBack(const SettingTable& table, const char* text, uint8_t* code)
{
    for (size_t i = 0; i < table.count; ++i) {
        const SettingCode& row = table.rows[i];
        if ((row.read_back != nullptr && strcmp(row.read_back, text) == 0) ||
            (row.text != nullptr && strcmp(row.text, text) == 0)) {
            *code = row.code;
            return true;
        }
    }
    return false;
}

bool ShutterCodeOf(const char* text, uint32_t* code)
{
    const ShutterCode* row = FindShutterCode(text);
    if (row == nullptr)
        return false;
    *code = row->value | static_cast<uint32_t>(row->decimal) << 16;
    return true;
}

bool SetResolution(CameraReportValues* v, const char* text)
{
    for (const VideoResolutionCode& row : VideoResolutionCodes)
        if (strcmp(row.text, text) == 0) {
            v->resolution_code = row.code;
            return true;
        }
    return false;
}

bool SetFrameRate(CameraReportValues* v, const char* text)
{
    for (const FrameRateCode& row : FrameRateCodes)
        if (row.text != nullptr && strcmp(row.text, text) == 0) {
            v->frame_rate_code = row.code;
            return true;
        }
    return false;
}

bool SetCameraModel(CameraReportValues* v, const char* text)
{
    for (unsigned code = 0; code < 256; ++code) {
        const char* known = CameraModelText(static_cast<uint8_t>(code));
        if (known != nullptr && strcmp(known, text) == 0) {
            v->model = static_cast<uint8_t>(code);
            return true;
        }
    }
    long code;
    if (!ParseLong(text, 0, 255, &code))
        return false;
    v->model = static_cast<uint8_t>(code);
    return true;
}

bool SetPlaybackState(SimModel* m, const char* text, uint32_t now)
{
    for (unsigned code = 0; code < 256; ++code) {
        const char* known = PlaybackStateText(static_cast<uint8_t>(code));
        if (known[0] != '\0' && strcmp(known, text) == 0) {
            if (code == 2 && m->values.playback_state != 2)
                m->playback_since_ms = now - m->values.playback_position_ms;
            m->values.playback_state = static_cast<uint8_t>(code);
            return true;
        }
    }
    return false;
}

bool SetTracking(SimModel* m, const char* text)
{
    CameraReportValues& v = m->values;
    if (strcmp(text, "off") == 0) {
        m->tracking = Tracking::kOff;
        return true;
    }
    if (strcmp(text, "lost") == 0) {
        m->tracking = Tracking::kLost;
        v.tracking_subject = false;
        return true;
    }
    float x, y, w, h;
    char tail;
    if (sscanf(text, "%f %f %f %f%c", &x, &y, &w, &h, &tail) != 4)
        return false;
    m->tracking = Tracking::kSubject;
    v.tracking_subject = true;
    v.tracking_x = x;
    v.tracking_y = y;
    v.tracking_w = w;
    v.tracking_h = h;
    return true;
}

// Applies one key; false when the key or its value is not understood.
bool ApplySetting(SimModel* m, const char* key, const char* text, uint32_t now)
{
    CameraReportValues& v = m->values;
    long number;
    double real;
    uint32_t seconds;
    bool flag;
    uint8_t code;
    if (strcmp(key, "camera_model") == 0)
        return SetCameraModel(&v, text);
    if (strcmp(key, "camera_mode") == 0) {
        if (CodeOfReadBack(CameraModeCodes, text, &code))
            v.mode = code;
        else if (ParseLong(text, 0, 255, &number))
            v.mode = static_cast<uint8_t>(number);
        else
            return false;
        return true;
    }
    if (strcmp(key, "sd") == 0) {
        if (text[0] == '\0') {
            v.sd_free_mb = 0;
            return true;
        }
        if (!ParseDouble(text, &real) || real < 0 || real > 4000000.0)
            return false;
        v.sd_free_mb = static_cast<uint32_t>(lround(real * 1000.0));
        return true;
    }
    if (strcmp(key, "shots_left") == 0 && ParseLong(text, 0, UINT32_MAX, &number)) {
        v.shots_left = static_cast<uint32_t>(number);
        return true;
    }
    if (strcmp(key, "rec_time_left") == 0 && ParseSeconds(text, &seconds)) {
        v.rec_time_left_s = seconds;
        m->left_before_s = seconds + (now - m->recording_since_ms) / 1000;
        return true;
    }
    if (strcmp(key, "rec_time") == 0 && ParseSeconds(text, &seconds) && seconds <= UINT16_MAX) {
        v.rec_time_s = static_cast<uint16_t>(seconds);
        m->recorded_before_s = v.rec_time_s;
        m->left_before_s = v.rec_time_left_s;
        m->recording_since_ms = now;
        return true;
    }
    if ((strcmp(key, "battery_level") == 0 || strcmp(key, "battery") == 0) && ParseLong(text, -128, 127, &number)) {
        v.battery_level = static_cast<int8_t>(number);
        m->battery_since_ms = now;
        return true;
    }
    if (strcmp(key, "battery_charging") == 0 && ParseFlag(text, &flag)) {
        v.battery_charging = flag ? 1 : 0;
        return true;
    }
    if (strcmp(key, "shot_mode") == 0 && CodeOfReadBack(ShotModeCodes, text, &code)) {
        v.shot_mode_code = code;
        return true;
    }
    if (strcmp(key, "resolution") == 0)
        return SetResolution(&v, text);
    if (strcmp(key, "framerate") == 0)
        return SetFrameRate(&v, text);
    if (strcmp(key, "format") == 0) {
        char resolution[16];
        const char* at = strchr(text, '@');
        if (at == nullptr || static_cast<size_t>(at - text) >= sizeof resolution)
            return false;
        memcpy(resolution, text, static_cast<size_t>(at - text));
        resolution[at - text] = '\0';
        CameraReportValues changed = v;
        if (!SetResolution(&changed, resolution) || !SetFrameRate(&changed, at + 1))
            return false;
        v = changed;
        return true;
    }
    if (strcmp(key, "ae") == 0 && ParseFlag(text, &flag)) {
        v.ae_lock = flag ? 1 : 0;
        return true;
    }
    if (strcmp(key, "aperture") == 0 && ParseDouble(text, &real) && real >= 0 && real < 655.0) {
        v.aperture = static_cast<uint16_t>(lround(real * 100.0));
        return true;
    }
    if (strcmp(key, "shutter") == 0)
        return ShutterCodeOf(text, &v.shutter);
    if (strcmp(key, "shutter_set") == 0)
        return ShutterCodeOf(text, &v.shutter_set);
    if (strcmp(key, "iso") == 0 && ParseLong(text, 0, UINT16_MAX, &number)) {
        v.iso = static_cast<uint16_t>(number);
        return true;
    }
    if (strcmp(key, "iso_set") == 0) {
        if (strcmp(text, "auto") == 0) {
            v.iso_set_code = kIsoCodeOther;
            return true;
        }
        if (!ParseLong(text, 0, 1000000, &number) || IsoCodeOf(number) == kIsoCodeOther)
            return false;
        v.iso_set_code = IsoCodeOf(number);
        return true;
    }
    if (strcmp(key, "ev") == 0) {
        for (const EvCode& row : EvCodes)
            if (strcmp(row.text, text) == 0) {
                v.ev_code = row.code;
                return true;
            }
        return false;
    }
    if (strcmp(key, "image_mode") == 0 && CodeOfReadBack(ExposureModeCodes, text, &code)) {
        v.exposure_program = code;
        return true;
    }
    if (strcmp(key, "color_mode") == 0 && CodeOfReadBack(ColorModeCodes, text, &code)) {
        v.color_mode_code = code;
        return true;
    }
    if (strcmp(key, "wb") == 0) {
        const WhiteBalanceCode* row = FindWhiteBalanceCode(text);
        if (row == nullptr)
            return false;
        v.white_balance_code = row->read_back_code;
        return true;
    }
    if (strcmp(key, "wb_temp") == 0 && ParseLong(text, 0, 25500, &number)) {
        v.white_balance_temperature = static_cast<uint8_t>(number / kWhiteBalanceKelvinPerUnit);
        return true;
    }
    if (strcmp(key, "ratio") == 0 && CodeOfReadBack(AspectRatioCodes, text, &code)) {
        v.ratio_code = code;
        return true;
    }
    if (strcmp(key, "sensor") == 0) {
        const SensorResolutionCode* row = FindSensorResolutionCode(text);
        if (row == nullptr)
            return false;
        v.sensor_code = row->size_code;
        return true;
    }
    if (strcmp(key, "video_std") == 0 && CodeOfReadBack(VideoStandardCodes, text, &code)) {
        v.video_standard_bits = code;
        return true;
    }
    if (strcmp(key, "antiflicker") == 0) {
        if (strcmp(text, "auto") == 0) {
            v.antiflicker_code = 0;
            return true;
        }
        if (!CodeOfReadBack(AntiFlickerCodes, text, &code))
            return false;
        v.antiflicker_code = code;
        return true;
    }
    if (strcmp(key, "histogram") == 0 && ParseFlag(text, &flag)) {
        m->histogram = flag;
        return true;
    }
    if (strcmp(key, "pl_state") == 0)
        return SetPlaybackState(m, text, now);
    if (strcmp(key, "pl_id") == 0 && ParseLong(text, 0, UINT16_MAX, &number)) {
        v.playback_clip = static_cast<uint16_t>(number);
        return true;
    }
    if (strcmp(key, "pl_dur") == 0 && ParseSeconds(text, &seconds) && seconds <= UINT32_MAX / 1000) {
        v.playback_duration_ms = seconds * 1000;
        return true;
    }
    if (strcmp(key, "pl_time") == 0 && ParseSeconds(text, &seconds) && seconds <= UINT32_MAX / 1000) {
        v.playback_position_ms = seconds * 1000;
        m->playback_since_ms = now - v.playback_position_ms;
        return true;
    }
    // Values the binary messages carry.
    if (strcmp(key, "recording") == 0 && ParseFlag(text, &flag)) {
        if (flag && !m->recording) {
            m->recording_since_ms = now;
            m->recorded_before_s = 0;
            m->left_before_s = v.rec_time_left_s;
            v.rec_time_s = 0;
        }
        m->recording = flag;
        return true;
    }
    if (strcmp(key, "zoom") == 0 && ParseLong(text, 0, UINT16_MAX, &number)) {
        v.zoom = static_cast<uint16_t>(number);
        return true;
    }
    if (strcmp(key, "attitude") == 0) {
        int a0, a1, a2;
        char tail;
        if (sscanf(text, "%d %d %d%c", &a0, &a1, &a2, &tail) != 3 || a0 < INT16_MIN || a0 > INT16_MAX ||
            a1 < -30000 || a1 > 30000 || a2 <= INT16_MIN || a2 > INT16_MAX)
            return false;
        m->attitude[0] = static_cast<int16_t>(a0);
        m->attitude[1] = static_cast<int16_t>(a1);
        m->attitude[2] = static_cast<int16_t>(a2);
        return true;
    }
    if (strcmp(key, "gimbal_sweep") == 0 && ParseFlag(text, &flag)) {
        m->gimbal_sweep = flag;
        return true;
    }
    if (strcmp(key, "gimbal_mode_flag") == 0 && ParseFlag(text, &flag)) {
        v.attitude_mode_bits = flag ? 0x00 : 0x80;
        return true;
    }
    if (strcmp(key, "focus_mode") == 0 && CodeOfReadBack(FocusTypeCodes, text, &code) && code >= 0x84) {
        v.focus_mode = code;
        return true;
    }
    if (strcmp(key, "focus_point") == 0) {
        float x, y;
        char tail;
        if (sscanf(text, "%f %f%c", &x, &y, &tail) != 2)
            return false;
        v.focus_x = x;
        v.focus_y = y;
        return true;
    }
    if (strcmp(key, "tracking") == 0)
        return SetTracking(m, text);
    return false;
}

}  // namespace

size_t SimBuildReports(uint8_t* out, size_t capacity)
{
    std::lock_guard<std::mutex> lock(report_lock);
    if (!model_ready) {
        InitModel(&model);
        model_ready = true;
    }
    uint32_t tick = report_tick++;
    Advance(&model, NowMs());
    const CameraReportValues& v = model.values;
    size_t used = 0;
    used = Append(out, capacity, used, CameraReportKind::kGimbalAttitude, v);
    if (model.tracking != Tracking::kOff)
        used = Append(out, capacity, used, CameraReportKind::kTracking, v);
    if (model.histogram && tick % kHistogramEvery == 0)
        used = Append(out, capacity, used, CameraReportKind::kHistogram, v);
    if (tick % kStatusEvery == 0) {
        used = Append(out, capacity, used, CameraReportKind::kCameraInfo, v);
        used = Append(out, capacity, used, CameraReportKind::kSettings, v);
        used = Append(out, capacity, used, CameraReportKind::kFocus, v);
        used = Append(out, capacity, used, CameraReportKind::kGimbalState, v);
        if (v.mode == 7)
            used = Append(out, capacity, used, CameraReportKind::kPlayback, v);
    }
    if (tick % kBatteryEvery == 0)
        used = Append(out, capacity, used, CameraReportKind::kBattery, v);
    return used;
}

bool SimHandleReportCommand(const char* line)
{
    if (strncmp(line, "set ", 4) != 0)
        return false;
    const char* key_begin = line + 4;
    while (*key_begin == ' ')
        ++key_begin;
    const char* key_end = strchr(key_begin, ' ');
    char key[32];
    size_t key_length = key_end != nullptr ? static_cast<size_t>(key_end - key_begin) : strlen(key_begin);
    if (key_length == 0 || key_length >= sizeof key)
        return false;
    memcpy(key, key_begin, key_length);
    key[key_length] = '\0';
    const char* value = key_end != nullptr ? key_end + 1 : "";

    std::lock_guard<std::mutex> lock(report_lock);
    if (!model_ready) {
        InitModel(&model);
        model_ready = true;
    }
    if (!ApplySetting(&model, key, value, NowMs()))
        printf("bad setting: %s\n", line);
    return true;
}
