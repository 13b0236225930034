// Status datagrams into records, and command datagrams out of words.
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tarnwickclient.h"
#include "tarnwickclient/interface.h"

using namespace tarnwick::wire;

namespace {

enum class FieldKind { kInteger32, kInteger64, kText, kFormat };

struct StatusField {
    const char* key;
    FieldKind kind;
    size_t offset;
};

#define TEXT(name) {#name, FieldKind::kText, offsetof(tarnwick_status, name)}
#define I32(name) {#name, FieldKind::kInteger32, offsetof(tarnwick_status, name)}

// The items of the status line in the order the relay sends them; bit i of
// `present` belongs to row i.
constexpr StatusField kStatusFields[] = {
    I32(camera_detected), TEXT(camera_model), TEXT(camera_mode), TEXT(sd),
    {"shots_left", FieldKind::kInteger64, offsetof(tarnwick_status, shots_left)},
    TEXT(rec_time_left), TEXT(rec_time), I32(voltage), I32(battery_level), I32(battery_charging),
    TEXT(shot_mode), TEXT(resolution), TEXT(framerate),
    {"format", FieldKind::kFormat, offsetof(tarnwick_status, format)},
    I32(ae), TEXT(aperture), TEXT(shutter), TEXT(shutter_set), I32(iso), TEXT(iso_set), TEXT(ev),
    TEXT(image_mode), TEXT(color_mode), TEXT(wb), I32(wb_temp), TEXT(ratio), I32(sensor), TEXT(video_std),
    TEXT(antiflicker), I32(histogram), TEXT(pl_state), I32(pl_id), TEXT(pl_dur), TEXT(pl_time),
};
#undef TEXT
#undef I32
constexpr int kStatusFieldCount = static_cast<int>(sizeof kStatusFields / sizeof kStatusFields[0]);
static_assert(kStatusFieldCount == TARNWICK_STATUS_FIELD_COUNT, "the status line has 34 items");

int FieldIndex(const char* key, size_t length)
{
    for (int i = 0; i < kStatusFieldCount; ++i)
        if (strlen(kStatusFields[i].key) == length && memcmp(kStatusFields[i].key, key, length) == 0)
            return i;
    return -1;
}

// A whole decimal number, optional minus sign, nothing else.
bool ParseInteger(const char* text, size_t length, long long min, long long max, long long* value)
{
    char digits[24];
    if (length == 0 || length >= sizeof digits)
        return false;
    memcpy(digits, text, length);
    digits[length] = '\0';
    if (!(digits[0] == '-' || (digits[0] >= '0' && digits[0] <= '9')))
        return false;
    char* end = nullptr;
    errno = 0;
    long long number = strtoll(digits, &end, 10);
    if (*end != '\0' || errno == ERANGE || number < min || number > max)
        return false;
    *value = number;
    return true;
}

// Stores one value; false when it is malformed or does not fit its field.
bool StoreField(tarnwick_status* status, const StatusField& field, const char* value, size_t length)
{
    char* at = reinterpret_cast<char*>(status) + field.offset;
    long long number = 0;
    switch (field.kind) {
    case FieldKind::kInteger32:
        if (!ParseInteger(value, length, INT32_MIN, INT32_MAX, &number))
            return false;
        *reinterpret_cast<int32_t*>(at) = static_cast<int32_t>(number);
        return true;
    case FieldKind::kInteger64:
        if (!ParseInteger(value, length, INT64_MIN, INT64_MAX, &number))
            return false;
        *reinterpret_cast<int64_t*>(at) = number;
        return true;
    case FieldKind::kText:
    case FieldKind::kFormat: {
        size_t capacity = field.kind == FieldKind::kText ? TARNWICK_TEXT_CAPACITY : 2 * TARNWICK_TEXT_CAPACITY;
        if (length >= capacity)
            return false;
        memcpy(at, value, length);
        at[length] = '\0';
        return true;
    }
    }
    return false;
}

// "key=value," items; the last comma may be missing (a line cut at its
// longest). Unknown keys are skipped, so a newer relay can add items.
int ParseStatusLine(const uint8_t* data, size_t length, tarnwick_status* status)
{
    memset(status, 0, sizeof *status);
    const char* text = reinterpret_cast<const char*>(data) + 1;
    size_t left = length - 1;
    while (left > 0) {
        const char* comma = static_cast<const char*>(memchr(text, ',', left));
        size_t item_length = comma != nullptr ? static_cast<size_t>(comma - text) : left;
        const char* equals = static_cast<const char*>(memchr(text, '=', item_length));
        if (equals != nullptr) {
            size_t key_length = static_cast<size_t>(equals - text);
            int index = FieldIndex(text, key_length);
            if (index >= 0 && StoreField(status, kStatusFields[index], equals + 1, item_length - key_length - 1))
                status->present |= uint64_t{1} << index;
        }
        if (comma == nullptr)
            break;
        left -= item_length + 1;
        text = comma + 1;
    }
    return 0;
}

uint16_t U16(const uint8_t* data, size_t offset)
{
    return static_cast<uint16_t>(data[offset] | data[offset + 1] << 8);
}

int16_t I16(const uint8_t* data, size_t offset)
{
    return static_cast<int16_t>(U16(data, offset));
}

void ParseStateMessage(const uint8_t* data, tarnwick_state* state)
{
    namespace m = state_message;
    state->gimbal_flags = data[m::kGimbalFlags];
    state->attitude[0] = I16(data, m::kAttitude0);
    state->attitude[1] = I16(data, m::kAttitude1);
    state->attitude[2] = I16(data, m::kAttitude2);
    state->camera_flags = data[m::kCameraFlags];
    state->recording = (state->camera_flags & 0xc0) == 0x80;
    state->camera_aux_1 = data[m::kCameraAux1];
    state->camera_aux_2 = data[m::kCameraAux2];
    state->focus_reported = data[m::kFocusReported];
    state->focus_mode_code = data[m::kFocusModeCode];
    state->focus_param_1 = U16(data, m::kFocusParam1);
    state->focus_param_3 = U16(data, m::kFocusParam3);
    state->focus_point_x = U16(data, m::kFocusPointX) / 1000.0;
    state->focus_point_y = U16(data, m::kFocusPointY) / 1000.0;
    state->focus_param_21 = data[m::kFocusParam21];
    state->focus_param_31 = data[m::kFocusParam31];
    state->ae_aux = data[m::kAeAux];
    state->gimbal_limits[0] = I16(data, m::kGimbalLimit0);
    state->gimbal_limits[1] = I16(data, m::kGimbalLimit1);
    state->gimbal_limits[2] = I16(data, m::kGimbalLimit2);
    state->gimbal_limits[3] = I16(data, m::kGimbalLimit3);
    state->zoom = U16(data, m::kZoom);
    state->zoom_max = U16(data, m::kZoomMax);
    uint8_t bits = data[m::kGimbalBits];
    state->gimbal_bit1 = (bits >> 2) & 1;
    state->gimbal_bit5 = (bits >> 1) & 1;
    state->gimbal_bit4 = bits & 1;
}

void ParseTrackingMessage(const uint8_t* data, tarnwick_tracking* tracking)
{
    namespace m = tracking_message;
    tracking->active = data[m::kActive];
    tracking->x = U16(data, m::kX) / 65535.0;
    tracking->y = U16(data, m::kY) / 65535.0;
    tracking->w = U16(data, m::kW) / 65535.0;
    tracking->h = U16(data, m::kH) / 65535.0;
}

// Appends `text` as a JSON string.
bool AppendJsonString(char* out, size_t capacity, size_t* used, const char* text)
{
    auto put = [&](char c) {
        if (*used + 1 >= capacity)
            return false;
        out[(*used)++] = c;
        return true;
    };
    if (!put('"'))
        return false;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != '\0'; ++p) {
        if (*p < 0x20) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", *p);
            for (const char* e = escaped; *e != '\0'; ++e)
                if (!put(*e))
                    return false;
            continue;
        }
        if ((*p == '"' || *p == '\\') && !put('\\'))
            return false;
        if (!put(static_cast<char>(*p)))
            return false;
    }
    return put('"');
}

}  // namespace

extern "C" {

int tarnwick_status_field_index(const char* key)
{
    return key != nullptr ? FieldIndex(key, strlen(key)) : -1;
}

int tarnwick_status_present(const tarnwick_status* status, const char* key)
{
    int index = tarnwick_status_field_index(key);
    return index >= 0 && (status->present >> index & 1) != 0;
}

const char* tarnwick_status_field_name(int index)
{
    return index >= 0 && index < kStatusFieldCount ? kStatusFields[index].key : nullptr;
}

int tarnwick_status_field_text(const tarnwick_status* status, int index, char* out, size_t capacity)
{
    if (index < 0 || index >= kStatusFieldCount || (status->present >> index & 1) == 0 || capacity == 0)
        return -1;
    const StatusField& field = kStatusFields[index];
    const char* at = reinterpret_cast<const char*>(status) + field.offset;
    int written = -1;
    switch (field.kind) {
    case FieldKind::kInteger32: written = snprintf(out, capacity, "%d", *reinterpret_cast<const int32_t*>(at)); break;
    case FieldKind::kInteger64:
        written = snprintf(out, capacity, "%lld", static_cast<long long>(*reinterpret_cast<const int64_t*>(at)));
        break;
    case FieldKind::kText:
    case FieldKind::kFormat: written = snprintf(out, capacity, "%s", at); break;
    }
    return written >= 0 && static_cast<size_t>(written) < capacity ? written : -1;
}

int tarnwick_parse_report(const uint8_t* data, size_t length, tarnwick_report* report)
{
    report->kind = TARNWICK_REPORT_UNKNOWN;
    if (data == nullptr || length == 0)
        return -1;
    if (data[0] == kStatusLineType) {
        ParseStatusLine(data, length, &report->status);
        report->kind = TARNWICK_REPORT_STATUS;
    } else if (data[0] == kBinaryMessageType && length >= 2) {
        if (data[1] == kStateMessageKind && length == state_message::kSize) {
            ParseStateMessage(data, &report->state);
            report->kind = TARNWICK_REPORT_STATE;
        } else if (data[1] == kTrackingMessageKind && length == tracking_message::kSize) {
            ParseTrackingMessage(data, &report->tracking);
            report->kind = TARNWICK_REPORT_TRACKING;
        } else if (data[1] == kHistogramMessageKind && length == histogram_message::kSize) {
            memcpy(report->histogram.bins, data + histogram_message::kBins, kHistogramBinCount);
            report->kind = TARNWICK_REPORT_HISTOGRAM;
        }
    }
    return report->kind == TARNWICK_REPORT_UNKNOWN ? -1 : static_cast<int>(report->kind);
}

int tarnwick_parse_notice(const uint8_t* data, size_t length)
{
    auto is = [&](const char* text) { return length == strlen(text) && memcmp(data, text, length) == 0; };
    if (is(kRecordingActiveNotice))
        return 1;
    if (is(kRecordingInactiveNotice))
        return 0;
    return -1;
}

int tarnwick_format_command(char* out, size_t capacity, const char* cmd, const char* name_or_param,
                            const char* value, const char* value2, const char* value3, const char* value4)
{
    if (out == nullptr || capacity < 4 || cmd == nullptr)
        return -1;
    const char* second = strcmp(cmd, "set") == 0 ? "name" : "param";
    const char* keys[] = {"cmd", second, "value", "value2", "value3", "value4"};
    const char* values[] = {cmd, name_or_param, value, value2, value3, value4};
    size_t used = 0;
    out[used++] = static_cast<char>(kJsonCommandMark);
    out[used++] = '{';
    bool first = true;
    for (size_t i = 0; i < sizeof keys / sizeof keys[0]; ++i) {
        if (values[i] == nullptr)
            continue;
        if (!first && used + 1 < capacity)
            out[used++] = ',';
        first = false;
        if (!AppendJsonString(out, capacity, &used, keys[i]) || used + 1 >= capacity)
            return -1;
        out[used++] = ':';
        if (!AppendJsonString(out, capacity, &used, values[i]))
            return -1;
    }
    if (used + 1 >= capacity)
        return -1;
    out[used++] = '}';
    out[used] = '\0';
    return static_cast<int>(used);
}

void tarnwick_format_zoom_rate(uint8_t out[4], int16_t rate)
{
    out[0] = kZoomRateMark;
    out[1] = kZoomRateKind;
    out[2] = static_cast<uint8_t>(static_cast<uint16_t>(rate));
    out[3] = static_cast<uint8_t>(static_cast<uint16_t>(rate) >> 8);
}

}  // extern "C"
