#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <string>

#include "camera/frame.h"
#include "control/value_tables.h"
#include "monitor.h"
#include "state/status_report.h"

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

int16_t I16(const uint8_t* data, size_t offset)
{
    return static_cast<int16_t>(ReadLe16(data + offset));
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

// "key=value," items, one per line: by default only the items whose value
// changed since the last status line (all of them the first time), every
// item with --all. Values may hold blanks but no commas.
void PrintStatusLine(const uint8_t* data, size_t length)
{
    static std::map<std::string, std::string> last_values;
    PrintTime();
    printf("status line, %zu bytes\n", length);
    const char* text = reinterpret_cast<const char*>(data) + 1;
    size_t left = length - 1;
    while (left > 0) {
        const char* comma = static_cast<const char*>(memchr(text, ',', left));
        size_t item_length = comma != nullptr ? static_cast<size_t>(comma - text) : left;
        const char* equals = static_cast<const char*>(memchr(text, '=', item_length));
        if (equals == nullptr) {
            printf("  %.*s (no value)\n", static_cast<int>(item_length), text);
        } else {
            int key_length = static_cast<int>(equals - text);
            int value_length = static_cast<int>(item_length) - key_length - 1;
            std::string key(text, static_cast<size_t>(key_length)), value(equals + 1, static_cast<size_t>(value_length));
            auto last = last_values.find(key);
            bool changed = last == last_values.end() || last->second != value;
            if (changed || monitor.options.every_message)
                printf("  %-18.*s %.*s\n", key_length, text, value_length, equals + 1);
            last_values[key] = value;
        }
        if (comma == nullptr) {
            printf("  (last item without its comma)\n");
            break;
        }
        left -= item_length + 1;
        text = comma + 1;
    }
}

void PrintStateMessage(const uint8_t* data, size_t length)
{
    namespace m = state_message;
    if (length != m::kSize) {
        PrintUnknown("state message of a wrong length", data, length);
        return;
    }
    if (Skip(&last_state, data, length))
        return;
    PrintTime();
    uint8_t flags = data[m::kCameraFlags];
    uint8_t focus_mode = data[m::kFocusModeCode];
    uint8_t bits = data[m::kGimbalBits];
    printf("state: gimbal lock|mode %u, attitude %d %d %d (tenths of a degree)\n", data[m::kGimbalFlags],
           I16(data, m::kAttitude0), I16(data, m::kAttitude1), I16(data, m::kAttitude2));
    printf("  camera flags 0x%02x (%s), aux1 0x%02x, aux2 0x%02x\n", flags, RecordingNotice(flags),
           data[m::kCameraAux1], data[m::kCameraAux2]);
    printf("  focus reported %u, mode 0x%02x (%s), param1 %u, param3 %u, point %.3f %.3f, param21 %u, "
           "param31 %u\n",
           data[m::kFocusReported], focus_mode, SettingReadBack(FocusTypeCodes, focus_mode),
           ReadLe16(data + m::kFocusParam1), ReadLe16(data + m::kFocusParam3),
           ReadLe16(data + m::kFocusPointX) / 1000.0, ReadLe16(data + m::kFocusPointY) / 1000.0,
           data[m::kFocusParam21], data[m::kFocusParam31]);
    printf("  ae_aux %u, gimbal limits %d %d %d %d, zoom %u of %u, gimbal bits %u (bit1 %u, bit5 %u, bit4 %u)\n",
           data[m::kAeAux], I16(data, m::kGimbalLimit0), I16(data, m::kGimbalLimit1), I16(data, m::kGimbalLimit2),
           I16(data, m::kGimbalLimit3), ReadLe16(data + m::kZoom), ReadLe16(data + m::kZoomMax), bits,
           (bits >> 2) & 1, (bits >> 1) & 1, bits & 1);
}

void PrintTrackingMessage(const uint8_t* data, size_t length)
{
    namespace m = tracking_message;
    if (length != m::kSize) {
        PrintUnknown("tracking message of a wrong length", data, length);
        return;
    }
    if (Skip(&last_tracking, data, length))
        return;
    PrintTime();
    printf("tracking: active %u, box x %.4f y %.4f w %.4f h %.4f\n", data[m::kActive],
           ReadLe16(data + m::kX) / 65535.0, ReadLe16(data + m::kY) / 65535.0, ReadLe16(data + m::kW) / 65535.0,
           ReadLe16(data + m::kH) / 65535.0);
}

// The 64 bins as a bar line (darkest to brightest, left to right) and the
// numbers.
void PrintHistogramMessage(const uint8_t* data, size_t length)
{
    namespace m = histogram_message;
    if (length != m::kSize) {
        PrintUnknown("histogram message of a wrong length", data, length);
        return;
    }
    if (Skip(&last_histogram, data, length))
        return;
    static const char kShades[] = " .:-=+*#%@";
    const uint8_t* bins = data + m::kBins;
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
