#include "state/status_report.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "camera/frame.h"
#include "camera/camera_link.h"
#include "net/clock.h"

namespace {

// Written once by the link before the thread starts, read by the thread only.
StatusReportOutputs outputs;

// Appends one formatted item; a full buffer keeps what fitted.
class LineWriter {
public:
    LineWriter(char* out, size_t capacity) : out_(out), capacity_(capacity) {}
    void Add(const char* format, ...) __attribute__((format(printf, 2, 3)))
    {
        if (used_ + 1 >= capacity_)
            return;
        va_list arguments;
        va_start(arguments, format);
        int written = vsnprintf(out_ + used_, capacity_ - used_, format, arguments);
        va_end(arguments);
        if (written > 0)
            used_ += static_cast<size_t>(written) < capacity_ - used_ ? static_cast<size_t>(written)
                                                                      : capacity_ - used_ - 1;
    }
    size_t used() const { return used_; }

private:
    char* out_;
    size_t capacity_;
    size_t used_ = 0;
};

void PutI16(uint8_t* out, int16_t value)
{
    WriteLe16(out, static_cast<uint16_t>(value));
}

void SendBinaryMessages(const CameraState& state)
{
    uint8_t message[histogram_message::kSize];
    BuildStateMessage(state, message);
    outputs.send_to_app(message, state_message::kSize);
    if (state.tracking_time != 0) {
        BuildTrackingMessage(state, message);
        outputs.send_to_app(message, tracking_message::kSize);
    }
    if (state.histogram_time != 0) {
        BuildHistogramMessage(state, message);
        outputs.send_to_app(message, histogram_message::kSize);
    }
}

// Ages the histogram and takes the tick's copy, under one hold of the lock.
void AgeAndCopy(CameraState* state, CameraState* copy)
{
    CameraStateGuard guard(camera_state_lock);
    if (state->histogram_time != 0 && NowMs() - state->histogram_time > kReportStaleMs)
        state->histogram_time = 0;
    memcpy(copy, state, sizeof *copy);
}

}  // namespace

void AttachStatusReportOutputs(const StatusReportOutputs& attached)
{
    outputs = attached;
}

uint16_t ScaledField(float value, float scale)
{
    float product = value * scale;
    uint32_t whole;
    if (!(product > 0.0f))
        whole = 0;  // negative, zero or NaN
    else if (product >= 4294967296.0f)
        whole = UINT32_MAX;
    else
        whole = static_cast<uint32_t>(product);
    return static_cast<uint16_t>(whole);
}

size_t BuildStatusLine(const CameraState& s, uint8_t* out, size_t capacity)
{
    if (capacity < 2)
        return 0;
    if (capacity > kStatusLineMaximumSize + 1)
        capacity = kStatusLineMaximumSize + 1;  // room for vsnprintf's terminator
    out[0] = kStatusLineType;
    LineWriter line(reinterpret_cast<char*>(out + 1), capacity - 1);
    line.Add("camera_detected=%d,", s.camera_detected);
    line.Add("camera_model=%s,", s.camera_model);
    line.Add("camera_mode=%s,", s.camera_mode);
    line.Add("sd=%s,", s.sd);
    line.Add("shots_left=%d,", static_cast<int>(s.shots_left));
    line.Add("rec_time_left=%s,", s.rec_time_left);
    line.Add("rec_time=%s,", s.rec_time);
    line.Add("voltage=%d,", s.voltage);
    line.Add("battery_level=%d,", s.battery_level);
    line.Add("battery_charging=%d,", s.battery_charging);
    line.Add("shot_mode=%s,", s.shot_mode);
    line.Add("resolution=%s,", s.resolution);
    line.Add("framerate=%s,", s.framerate);
    line.Add("format=%s@%s,", s.resolution, s.framerate);
    line.Add("ae=%d,", s.ae);
    line.Add("aperture=%s,", s.aperture);
    line.Add("shutter=%s,", s.shutter);
    line.Add("shutter_set=%s,", s.shutter_set);
    line.Add("iso=%d,", s.iso);
    line.Add("iso_set=%s,", s.iso_set);
    line.Add("ev=%s,", s.ev);
    line.Add("image_mode=%s,", s.image_mode);
    line.Add("color_mode=%s,", s.color_mode);
    line.Add("wb=%s,", s.wb);
    line.Add("wb_temp=%1.0f,", static_cast<double>(s.wb_temp));
    line.Add("ratio=%s,", s.ratio);
    line.Add("sensor=%d,", s.sensor);
    line.Add("video_std=%s,", s.video_std);
    line.Add("antiflicker=%s,", s.antiflicker);
    line.Add("histogram=%d,", s.histogram_time != 0 ? 1 : 0);
    line.Add("pl_state=%s,", s.pl_state);
    line.Add("pl_id=%d,", s.pl_id);
    line.Add("pl_dur=%s,", s.pl_dur);
    line.Add("pl_time=%s,", s.pl_time);
    return 1 + line.used();
}

void BuildStateMessage(const CameraState& s, uint8_t* out)
{
    namespace m = state_message;
    memset(out, 0, m::kSize);
    out[0] = kBinaryMessageType;
    out[1] = kStateMessageKind;
    out[m::kGimbalFlags] = s.gimbal_lock_requested | s.gimbal_mode_flag;
    PutI16(out + m::kAttitude0, s.gimbal_attitude[0]);
    PutI16(out + m::kAttitude1, s.gimbal_attitude[1]);
    PutI16(out + m::kAttitude2, s.gimbal_attitude[2]);
    out[m::kCameraFlags] = s.camera_flags;
    out[m::kCameraAux1] = s.camera_aux_1;
    out[m::kCameraAux2] = s.camera_aux_2;
    out[m::kFocusReported] = s.focus_reported;
    out[m::kFocusModeCode] = s.focus_mode_code;
    out[m::kZero] = 0;
    WriteLe16(out + m::kFocusParam1, s.focus_param_1);
    WriteLe16(out + m::kFocusParam3, s.focus_param_3);
    WriteLe16(out + m::kFocusPointX, ScaledField(s.focus_point_x, 1000.0f));
    WriteLe16(out + m::kFocusPointY, ScaledField(s.focus_point_y, 1000.0f));
    out[m::kFocusParam21] = s.focus_param_21;
    out[m::kFocusParam31] = s.focus_param_31;
    out[m::kAeAux] = s.ae_aux;
    PutI16(out + m::kGimbalLimit1, s.gimbal_limits[1]);
    PutI16(out + m::kGimbalLimit0, s.gimbal_limits[0]);
    PutI16(out + m::kGimbalLimit3, s.gimbal_limits[3]);
    PutI16(out + m::kGimbalLimit2, s.gimbal_limits[2]);
    WriteLe16(out + m::kZoom, s.zoom);
    WriteLe16(out + m::kZoomMax, s.zoom_max);
    out[m::kGimbalBits] = static_cast<uint8_t>(s.gimbal_bit1 * 4 + s.gimbal_bit5 * 2 + s.gimbal_bit4);
}

void BuildTrackingMessage(const CameraState& s, uint8_t* out)
{
    namespace m = tracking_message;
    out[0] = kBinaryMessageType;
    out[1] = kTrackingMessageKind;
    out[m::kActive] = s.tracking_active;
    WriteLe16(out + m::kX, ScaledField(s.tracking_x, 65535.0f));
    WriteLe16(out + m::kY, ScaledField(s.tracking_y, 65535.0f));
    WriteLe16(out + m::kW, ScaledField(s.tracking_w, 65535.0f));
    WriteLe16(out + m::kH, ScaledField(s.tracking_h, 65535.0f));
}

void BuildHistogramMessage(const CameraState& s, uint8_t* out)
{
    out[0] = kBinaryMessageType;
    out[1] = kHistogramMessageKind;
    memcpy(out + histogram_message::kBins, s.histogram_bins, kHistogramBinCount);
}

const char* RecordingNotice(uint8_t camera_flags)
{
    return (camera_flags >> 6) == 2 ? kRecordingActiveNotice : kRecordingInactiveNotice;
}

void FormatStatusLine(const CameraState* state)
{
    uint8_t line[kStatusLineMaximumSize + 1];
    size_t length = BuildStatusLine(*state, line, sizeof line);
    outputs.send_to_app(line, length);
}

void* StatusThreadMain(void* camera_state)
{
    CameraState* state = camera_state != nullptr ? static_cast<CameraState*>(camera_state) : GetCameraState();
    static CameraState copy;  // only this thread uses it
    TickSchedule schedule;    // the rates hold on a loaded machine (see net/clock.h)
    for (uint32_t tick = 0;; ++tick) {
        AgeAndCopy(state, &copy);
        bool stream_live = IsCameraStreamSeen();
        if (tick % kStatusLineTicks == 0) {
            outputs.check_app_peer();
            if (stream_live)
                FormatStatusLine(&copy);
        }
        if (stream_live) {
            if (tick % kBinaryMessageTicks == 0)
                SendBinaryMessages(copy);
            if (tick % kRecordingNoticeTicks == 0)
                outputs.send_notice(RecordingNotice(copy.camera_flags));
        }
        SleepUntilNextTick(&schedule, kStatusTickMs);
    }
    return nullptr;
}
