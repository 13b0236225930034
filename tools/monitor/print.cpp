#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "monitor.h"
#include "tarnwickclient/client.h"

using namespace tarnwick::wire;

namespace {

void PrintTime()
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    printf("%02d:%02d:%02d.%03ld ", local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<long>(now.tv_usec / 1000));
}

const char* FocusModeName(uint8_t code)
{
    switch (code) {
    case 0x84: return "MF";
    case 0x85: return "AFS";
    case 0x86: return "AFC";
    default: return "?";
    }
}

int64_t MonotonicMs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Binary messages come five times a second and notices twice: by default a
// message is shown when it differs from the one last shown, at most once a
// second per kind (a change is still shown within a second).
constexpr int64_t kShowAtMostEveryMs = 1000;

struct LastShown {
    uint8_t bytes[histogram_message::kSize];
    size_t length = 0;
    int64_t at_ms = 0;
};

bool Skip(LastShown* last, const uint8_t* data, size_t length, bool rate_limited = true)
{
    if (monitor.options.every_message || length > sizeof last->bytes)
        return false;
    int64_t now = MonotonicMs();
    bool same = last->length == length && memcmp(last->bytes, data, length) == 0;
    if (same || (rate_limited && last->length != 0 && now - last->at_ms < kShowAtMostEveryMs))
        return true;
    memcpy(last->bytes, data, length);
    last->length = length;
    last->at_ms = now;
    return false;
}

LastShown last_state, last_tracking, last_histogram, last_notice;

}  // namespace

void PrintUnknown(const char* what, const uint8_t* data, size_t length)
{
    PrintTime();
    printf("%s, %zu bytes:", what, length);
    for (size_t i = 0; i < length && i < 64; ++i)
        printf(" %02x", data[i]);
    printf(length > 64 ? " ...\n" : "\n");
}

// The status line's items, one per line: by default only the items whose
// value changed since the last status line (all of them the first time),
// every item with --all. An item missing or malformed is left out.
void PrintStatusLine(const uint8_t* data, size_t length)
{
    static char last_values[TARNWICK_STATUS_FIELD_COUNT][2 * TARNWICK_TEXT_CAPACITY];
    static bool shown_once = false;
    tarnwick::Report report;
    tarnwick::ParseReport(data, length, &report);
    PrintTime();
    printf("status line, %zu bytes\n", length);
    for (int i = 0; i < TARNWICK_STATUS_FIELD_COUNT; ++i) {
        char value[sizeof last_values[0]];
        if (tarnwick_status_field_text(&report.status, i, value, sizeof value) < 0)
            continue;
        bool changed = !shown_once || strcmp(value, last_values[i]) != 0;
        if (changed || monitor.options.every_message)
            printf("  %-18s %s\n", tarnwick_status_field_name(i), value);
        memcpy(last_values[i], value, sizeof value);
    }
    shown_once = true;
    // What the record could not hold: unknown keys, malformed values, a cut line.
    const char* text = reinterpret_cast<const char*>(data) + 1;
    size_t items = 0;
    for (size_t i = 0; i + 1 < length; ++i)
        items += text[i] == ',';
    bool cut = length > 1 && text[length - 2] != ',';
    items += cut;
    size_t understood = static_cast<size_t>(__builtin_popcountll(report.status.present));
    if (items > understood)
        printf("  (%zu items not understood)\n", items - understood);
    if (cut)
        printf("  (last item without its comma)\n");
}

void PrintStateMessage(const uint8_t* data, size_t length)
{
    tarnwick::Report report;
    if (tarnwick::ParseReport(data, length, &report) != TARNWICK_REPORT_STATE) {
        PrintUnknown("state message of a wrong length", data, length);
        return;
    }
    if (Skip(&last_state, data, length))
        return;
    PrintTime();
    const tarnwick::StateMessage& m = report.state;
    printf("state: gimbal lock|mode %u, attitude %d %d %d (tenths of a degree)\n", m.gimbal_flags, m.attitude[0],
           m.attitude[1], m.attitude[2]);
    printf("  camera flags 0x%02x (%s), aux1 0x%02x, aux2 0x%02x\n", m.camera_flags,
           m.recording ? kRecordingActiveNotice : kRecordingInactiveNotice, m.camera_aux_1, m.camera_aux_2);
    printf("  focus reported %u, mode 0x%02x (%s), param1 %u, param3 %u, point %.3f %.3f, param21 %u, "
           "param31 %u\n",
           m.focus_reported, m.focus_mode_code, FocusModeName(m.focus_mode_code), m.focus_param_1, m.focus_param_3,
           m.focus_point_x, m.focus_point_y, m.focus_param_21, m.focus_param_31);
    printf("  ae_aux %u, gimbal limits %d %d %d %d, zoom %u of %u, gimbal bits %u (bit1 %u, bit5 %u, bit4 %u)\n",
           m.ae_aux, m.gimbal_limits[0], m.gimbal_limits[1], m.gimbal_limits[2], m.gimbal_limits[3], m.zoom,
           m.zoom_max, data[state_message::kGimbalBits], m.gimbal_bit1, m.gimbal_bit5, m.gimbal_bit4);
}

void PrintTrackingMessage(const uint8_t* data, size_t length)
{
    tarnwick::Report report;
    if (tarnwick::ParseReport(data, length, &report) != TARNWICK_REPORT_TRACKING) {
        PrintUnknown("tracking message of a wrong length", data, length);
        return;
    }
    if (Skip(&last_tracking, data, length))
        return;
    PrintTime();
    const tarnwick::TrackingMessage& m = report.tracking;
    printf("tracking: active %d, box x %.4f y %.4f w %.4f h %.4f\n", m.active, m.x, m.y, m.w, m.h);
}

// The 64 bins as a bar line (darkest to brightest, left to right) and the
// numbers.
void PrintHistogramMessage(const uint8_t* data, size_t length)
{
    tarnwick::Report report;
    if (tarnwick::ParseReport(data, length, &report) != TARNWICK_REPORT_HISTOGRAM) {
        PrintUnknown("histogram message of a wrong length", data, length);
        return;
    }
    if (Skip(&last_histogram, data, length))
        return;
    static const char kShades[] = " .:-=+*#%@";
    const uint8_t* bins = report.histogram.bins;
    uint8_t highest = 1;
    for (size_t i = 0; i < kHistogramBinCount; ++i)
        highest = bins[i] > highest ? bins[i] : highest;
    char bar[kHistogramBinCount + 1];
    for (size_t i = 0; i < kHistogramBinCount; ++i)
        bar[i] = kShades[bins[i] * (sizeof kShades - 2) / highest];
    bar[kHistogramBinCount] = '\0';
    PrintTime();
    printf("histogram: [%s] peak %u\n  bins", bar, highest);
    for (size_t i = 0; i < kHistogramBinCount; ++i)
        printf(" %u", bins[i]);
    printf("\n");
}

void PrintStatusDatagram(const uint8_t* data, size_t length)
{
    if (length >= 1 && data[0] == kStatusLineType) {
        PrintStatusLine(data, length);
        return;
    }
    if (length >= 2 && data[0] == kBinaryMessageType) {
        switch (data[1]) {
        case kStateMessageKind: PrintStateMessage(data, length); return;
        case kTrackingMessageKind: PrintTrackingMessage(data, length); return;
        case kHistogramMessageKind: PrintHistogramMessage(data, length); return;
        default: break;
        }
    }
    PrintUnknown("unknown datagram", data, length);
}

void PrintNotice(const uint8_t* data, size_t length)
{
    if (Skip(&last_notice, data, length, false))
        return;
    PrintTime();
    printf("notice: %.*s\n", static_cast<int>(length), reinterpret_cast<const char*>(data));
}
