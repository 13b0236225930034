// The telemetry decoder: the code tables of each report kind, zoom_max, shutter texts, the scanner against junk and
// frames that fail their tests, and the re-arming of tracking. Report values seen whole are checked through the daemon.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "camera/crc.h"
#include "camera/frame.h"
#include "control/value_tables.h"
#include "state/report_layout.h"
#include "state/telemetry_decoder.h"

namespace {

using Bytes = std::vector<uint8_t>;

// The decoder publishes the attitude (checked by the daemon test): point it
// at a region of this test process, and remove that region at exit.
struct PrivateAttitudeRegion {
    char name[64];
    PrivateAttitudeRegion()
    {
        snprintf(name, sizeof name, "/tarnwick_unit_camstate_%d", static_cast<int>(getpid()));
        SetSharedAttitudeName(name);
    }
    ~PrivateAttitudeRegion() { shm_unlink(name); }
};
PrivateAttitudeRegion attitude_region;

Bytes Report(CameraReportKind kind, const CameraReportValues& values)
{
    Bytes frame(kFrameMaximumSize);
    frame.resize(BuildCameraReport(kind, values, frame.data(), frame.size(), 7));
    return frame;
}

struct CodeText { uint8_t code; const char* text; };

class Decoder : public ::testing::Test {
protected:
    void SetUp() override { memset(&state, 0, sizeof state); }
    void Decode(CameraReportKind kind, const CameraReportValues& values)
    {
        Bytes frame = Report(kind, values);
        DecodeTelemetryFrame(&state, frame.data(), frame.size());
    }
    void Scan(const Bytes& block) { ScanTelemetryBuffer(&state, block.data(), static_cast<uint32_t>(block.size())); }
    bool Unchanged() const
    {
        CameraState zero;
        memset(&zero, 0, sizeof zero);
        return memcmp(&zero, &state, sizeof state) == 0;
    }
    // Decodes a report of `kind` per row with `set` applied; the text `field` must read the row's text.
    template <typename Set, typename Field>
    void ExpectTexts(CameraReportKind kind, const std::vector<CodeText>& rows, Set set, Field field)
    {
        for (const CodeText& row : rows) {
            CameraReportValues v;
            set(&v, row.code);
            Decode(kind, v);
            EXPECT_STREQ(field(state), row.text) << "code " << int(row.code);
        }
    }

    CameraState state;
};

#define FIELD(in, out) \
    [](CameraReportValues* v, uint8_t c) { v->in = c; }, [](const CameraState& s) { return s.out; }

TEST_F(Decoder, CodeTables)
{
    using K = CameraReportKind;
    ExpectTexts(K::kCameraInfo, {{24, "DJI Pocket Osmo"}, {47, "DJI Pocket 2"}, {0, "Unknown camera (0)"},
                                 {255, "Unknown camera (255)"}}, FIELD(model, camera_model));
    ExpectTexts(K::kCameraInfo, {{0, "photo"}, {1, "video"}, {7, "playback"}, {2, "unknown"}, {255, "unknown"}},
                FIELD(mode, camera_mode));
    EXPECT_EQ(state.mode_code, 255);
    EXPECT_EQ(state.camera_detected, 1);
    ExpectTexts(K::kSettings, {{4, "1280x720"}, {10, "1920x1080"}, {16, "3840x2160"}, {22, "4096x2160"},
                               {24, "2704x1520"}, {31, "2720x1530"}, {48, "4000x3000"}, {52, "2720x2040"},
                               {0, ""}, {5, ""}}, FIELD(resolution_code, resolution));
    ExpectTexts(K::kSettings, {{1, "24"}, {2, "25"}, {3, "30"}, {4, "48"}, {5, "50"}, {6, "60"}, {7, "120"},
                               {8, ""}, {0, ""}}, FIELD(frame_rate_code, framerate));
    ExpectTexts(K::kSettings, {{0, "auto"}, {1, "sunny"}, {2, "cloudy"}, {3, "custom"}, {4, "incandescent"},
                               {5, "neon"}, {6, "custom"}, {200, "custom"}}, FIELD(white_balance_code, wb));
    ExpectTexts(K::kSettings, {{0, "RAW"}, {1, "JPG"}, {2, "JPG+RAW"}, {3, ""}}, FIELD(shot_mode_code, shot_mode));
    ExpectTexts(K::kSettings, {{3, "100"}, {4, "200"}, {5, "400"}, {6, "800"}, {7, "1600"}, {8, "3200"},
                               {9, "6400"}, {0, "auto"}, {2, "auto"}, {10, "auto"}}, FIELD(iso_set_code, iso_set));
    ExpectTexts(K::kSettings, {{7, "-3.0"}, {14, "-0.7"}, {16, "0"}, {17, "+0.3"}, {25, "+3.0"}, {6, "0"},
                               {26, "0"}}, FIELD(ev_code, ev));
    ExpectTexts(K::kSettings, {{1, "art"}, {4, "black white"}, {5, "vivid"}, {6, "d-cinelike"}, {7, "portrait"},
                               {14, "beach"}, {16, "dream"}, {18, "classic"}, {19, "nostalgia"}, {23, "d-log"},
                               {52, "d-clike"}, {0, "none"}, {2, "none"}, {53, "none"}},
                FIELD(color_mode_code, color_mode));
    ExpectTexts(K::kSettings, {{2, "shutter"}, {3, "aperture"}, {4, "manual"}, {1, "auto"}, {0, "auto"},
                               {5, "auto"}}, FIELD(exposure_program, image_mode));
    ExpectTexts(K::kSettings, {{1, "16:9"}, {0, "4:3"}, {2, "4:3"}}, FIELD(ratio_code, ratio));
    ExpectTexts(K::kSettings, {{1, "NTSC"}, {0, "PAL"}, {0xff, "NTSC"}, {0xfe, "PAL"}},
                FIELD(video_standard_bits, video_std));
    ExpectTexts(K::kSettings, {{1, "50 Hz"}, {2, "60 Hz"}, {0, "auto"}, {3, "auto"}}, FIELD(antiflicker_code, antiflicker));
    ExpectTexts(K::kFocus, {{0x84, "MF"}, {0x85, "AFS"}, {0x86, "AFC"}, {0x01, ""}}, FIELD(focus_mode, focus_mode));
    EXPECT_EQ(state.focus_mode_code, 0x01);
    testing::internal::CaptureStderr();  // playback frames are logged
    ExpectTexts(K::kPlayback, {{2, "playing"}, {3, "paused"}, {7, "stopped"}, {0, ""}, {4, ""}},
                FIELD(playback_state, pl_state));
    CameraReportValues v;
    v.playback_clip = 513, v.playback_duration_ms = 3725999, v.playback_position_ms = 999;
    Decode(K::kPlayback, v);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(state.pl_id, 513);
    EXPECT_STREQ(state.pl_dur, "01:02:05");
    EXPECT_STREQ(state.pl_time, "00:00:00");
}

TEST_F(Decoder, NumbersTimesAndAperture)
{
    CameraReportValues v;
    v.sd_free_mb = 0;
    Decode(CameraReportKind::kCameraInfo, v);
    EXPECT_STREQ(state.sd, "") << "no free space reported: empty";
    v.iso = 6400, v.ae_lock = 9, v.settings_long_form = true;  // the 116-byte form
    Decode(CameraReportKind::kSettings, v);
    EXPECT_EQ(state.iso, 6400);
    EXPECT_EQ(state.ae, 1);
    const struct { uint16_t raw; const char* text; } apertures[] = {
        {200, "2"}, {180, "1.8"}, {280, "2.8"}, {1100, "11"}, {0, "0"}, {250, "2.5"}, {65500, "655"}};
    for (const auto& c : apertures) {
        v.aperture = c.raw;
        Decode(CameraReportKind::kSettings, v);
        EXPECT_STREQ(state.aperture, c.text) << c.raw;
    }
    char text[20], small[10];
    FormatTimeText(360000, text, sizeof text);
    EXPECT_STREQ(text, "100:00:00");
    FormatTimeText(UINT32_MAX, small, sizeof small);
    EXPECT_STREQ(small, "1193046:2") << "bounded by the buffer";
}

// zoom_max reads the mode of the last camera information report and the
// sensor as it was before this settings report; the sensor keeps its value
// for unknown codes.
TEST_F(Decoder, ZoomMaxAndSensor)
{
    const struct { uint8_t mode, sensor_before, resolution_code; uint16_t zoom_max_before, zoom_max; } cases[] = {
        {0, 16, 10, 0, 400},   {0, 64, 10, 0, 800}, {0, 0, 10, 123, 123},  // photo: by sensor, else unchanged
        {1, 0, 10, 0, 400},    {1, 0, 24, 0, 300},  {1, 0, 31, 0, 300},  {1, 0, 52, 0, 300},  // video: by resolution
        {1, 64, 16, 0, 200},   {1, 0, 0, 800, 200},
        {7, 16, 10, 321, 321}, {2, 64, 24, 0, 0},  // other modes: unchanged
    };
    for (const auto& c : cases) {
        memset(&state, 0, sizeof state);
        CameraReportValues info;
        info.mode = c.mode;
        Decode(CameraReportKind::kCameraInfo, info);
        state.sensor = c.sensor_before;
        state.zoom_max = c.zoom_max_before;
        CameraReportValues settings;
        settings.resolution_code = c.resolution_code;
        settings.sensor_code = 5;
        Decode(CameraReportKind::kSettings, settings);
        EXPECT_EQ(state.zoom_max, c.zoom_max) << int(c.mode) << " " << int(c.sensor_before) << " " << int(c.resolution_code);
    }
    const uint8_t steps[][2] = {{4, 16}, {0, 16}, {5, 64}, {6, 64}, {4, 16}};  // code, sensor after
    for (const auto& step : steps) {
        CameraReportValues v;
        v.sensor_code = step[0];
        Decode(CameraReportKind::kSettings, v);
        EXPECT_EQ(state.sensor, step[1]) << int(step[0]);
    }
}

TEST_F(Decoder, ShutterTexts)
{
    std::vector<std::pair<uint32_t, const char*>> cases = {
        {0x000008, "8\""},   {0x020003, "3.2\""}, {0x009f40, "1/8000"},      {0x198001, "1/1.25"},
        {0x05800c, "1/12.5"}, {0x000000, "0\""},   {0xffffff, "1/32767.255"}, {0xff00ff, "255.255\""}};
    for (const ShutterCode& row : ShutterValueTable)  // each settable text reads back as itself
        cases.push_back({row.value | static_cast<uint32_t>(row.decimal) << 16, row.text});
    for (const auto& c : cases) {
        char text[kShutterSetCapacity] = {};
        EXPECT_TRUE(FormatShutterText(c.first, text, sizeof text) && strcmp(text, c.second) == 0) << c.second;
    }
    // The longest text fits shutter_set without running into the next field; codes in no form leave the texts.
    CameraReportValues v;
    v.shutter_set = 0xffffff, v.shutter = 0x0080f0, v.iso = 0;
    Decode(CameraReportKind::kSettings, v);
    v.shutter_set = 0x001240, v.shutter = 0x007f00;
    Decode(CameraReportKind::kSettings, v);
    EXPECT_STREQ(state.shutter_set, "1/32767.255");
    EXPECT_STREQ(state.shutter, "1/240");
    EXPECT_EQ(state.iso, 0);
    EXPECT_EQ(state.shutter_set_raw, 0x001240u);
}

TEST_F(Decoder, GimbalAttitudeFoldsAndBits)
{
    const struct { int16_t angle[3]; int16_t attitude[3]; } cases[] = {
        {{100, 0, 50}, {100, 0, -50}},   {{-1800, -300, -20}, {-1800, -1500, 20}},
        {{5, 1799, 0}, {5, 1, 0}},       {{0, -32768, -32768}, {0, 30968, -32768}}};
    for (const auto& c : cases) {
        CameraReportValues v;
        v.angle0 = c.angle[0], v.angle1 = c.angle[1], v.angle2 = c.angle[2], v.attitude_mode_bits = 0x7f;
        Decode(CameraReportKind::kGimbalAttitude, v);
        EXPECT_EQ(0, memcmp(state.gimbal_attitude, c.attitude, sizeof c.attitude)) << c.angle[1];
        EXPECT_EQ(state.gimbal_mode_flag, 1) << "bit 7 alone clears it";
    }
    CameraReportValues v;
    v.gimbal_state_bits = 0xcd;  // all but bits 1, 4, 5
    Decode(CameraReportKind::kGimbalState, v);
    EXPECT_EQ(state.gimbal_bit1 + state.gimbal_bit4 + state.gimbal_bit5, 0);
}

TEST_F(Decoder, BatteryAndTracking)
{
    CameraReportValues v;
    v.battery_long_form = true, v.battery_level = -1, v.battery_charging = 3;  // the 57-byte form
    Decode(CameraReportKind::kBattery, v);
    EXPECT_EQ(state.battery_level, -1);
    EXPECT_EQ(state.battery_charging, 1);
    // One of the two subject bytes alone is no subject.
    v.tracking_subject = true;
    Bytes frame = Report(CameraReportKind::kTracking, v);
    frame[kFramePayloadOffset + tracking_report::kSubjectB] = 0;
    SealCameraPacket(frame.data(), frame.size(), 2);
    state.tracking_active = 1;
    DecodeTelemetryFrame(&state, frame.data(), frame.size());
    EXPECT_EQ(state.tracking_active, 0);
}

// A sealed frame of a known length that fails its further test (set, id, type) changes nothing, nor does a frame too
// short to decode; the same focus frame with command type 0 is decoded. Corrupt frames are checked through the daemon.
TEST_F(Decoder, FramesThatFailTheirTestsChangeNothing)
{
    const struct { size_t length; uint8_t set, id, type; } rejected[] = {
        {kGimbalStateReportLength, 4, 0x18, 0}, {kGimbalStateReportLength, 2, 0x19, 0}, {kBatteryReportLength, 4, 0, 0},
        {kBatteryReportLongLength, 2, 0, 0}, {kAttitudeOrFocusReportLength, 2, 0, 0x40},
        {kAttitudeOrFocusReportLength, 5, 0, 0}, {kAttitudeOrFocusReportLength, 0, 0, 0}, {12, 0, 0, 0},
        {80, 2, 0, 0}, {255, 2, 0, 0}};
    auto raw = [](size_t length, uint8_t set, uint8_t id, uint8_t type, uint8_t fill) {
        Bytes frame(length, fill);
        frame[0] = kFrameStartByte;
        frame[kFrameLengthOffset] = static_cast<uint8_t>(length);
        frame[kFrameVersionOffset] = kFrameVersion;
        frame[kFrameHeaderCrcOffset] = Crc8(frame.data(), 3);
        frame[kFrameCommandTypeOffset] = type;
        frame[kFrameCommandSetOffset] = set;
        frame[kFrameCommandIdOffset] = id;
        SealCameraPacket(frame.data(), length, 1);
        return frame;
    };
    for (const auto& r : rejected) {
        Scan(raw(r.length, r.set, r.id, r.type, 0xff));
        EXPECT_TRUE(Unchanged()) << "length " << r.length << " set " << int(r.set) << " id " << int(r.id);
    }
    // Valid checksums, lengths 6 to 9: skipped whole; length bytes 0 to 3, alone and at the very end of a block.
    for (uint8_t length = 6; length < 10; ++length) {
        Bytes frame = {0x55, length, 0x04, 0, 0, 0, 0, 0, 0, 0};
        frame[3] = Crc8(frame.data(), 3);
        WriteLe16(frame.data() + length - 2, Crc16(frame.data(), length - 2));
        Scan(Bytes(frame.begin(), frame.begin() + length));
    }
    for (uint8_t length = 0; length < 4; ++length) {
        Scan({0x55, length});
        Scan({0x55, length, 0x04, 0x00, 0x00, 0x00});
    }
    Scan({0x55});
    Scan({});
    EXPECT_TRUE(Unchanged());
    Scan(raw(kAttitudeOrFocusReportLength, 2, 0x25, 0, 0));
    EXPECT_EQ(state.focus_reported, 1);
}

TEST_F(Decoder, ScannerFindsFramesAmongJunkAndDropsCutOnes)
{
    CameraReportValues v;
    v.battery_level = 42;
    v.model = 24;
    Bytes battery = Report(CameraReportKind::kBattery, v), info = Report(CameraReportKind::kCameraInfo, v);
    Bytes block = {0x00, 0x55, 0x55, 0x02, 0x13};
    block.insert(block.end(), battery.begin(), battery.end());
    block.insert(block.end(), {0x55, 0x51, 0x04, 0x00, 0xff});
    block.insert(block.end(), info.begin(), info.end());
    block.insert(block.end(), {0x55, 0x10, 0x55});
    Scan(block);
    EXPECT_EQ(state.battery_level, 42);
    EXPECT_STREQ(state.camera_model, "DJI Pocket Osmo");

    // A start byte whose length reaches past the end, a whole frame inside
    // the bytes it claims, then a frame cut short by one byte.
    memset(&state, 0, sizeof state);
    v.battery_level = 33;
    battery = Report(CameraReportKind::kBattery, v);
    block = {0x55, 0xf0, 0x04};
    block.insert(block.end(), battery.begin(), battery.end());
    block.insert(block.end(), info.begin(), info.end() - 1);
    Scan(block);
    EXPECT_EQ(state.battery_level, 33);
    EXPECT_EQ(state.camera_detected, 0);
}

TEST(TrackingRestore, RestartsAfterMoreThanTwoSecondsWithoutASubject)
{
    TrackingRestoreState restore;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(TrackingRestoreStep(&restore, 0, 0.1f, 0.1f, 1000)) << "nothing tracked yet";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(TrackingRestoreStep(&restore, 1, 0.5f, 0.25f, 10000));
    EXPECT_TRUE(restore.pending);
    const struct { uint32_t now; bool restart; const char* log; } steps[] = {
        {10500, false, "Waiting restore tracking 500...\n"},
        {12000, false, "Waiting restore tracking 2000...\n"},
        {12001, true, "Waiting restore tracking 2001...\nRestore tracking...\n"},
        {15000, true, "Waiting restore tracking 5000...\nRestore tracking...\n"}};
    for (const auto& step : steps) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(TrackingRestoreStep(&restore, 0, 0.9f, 0.9f, step.now), step.restart) << step.now;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), step.log);
    }
    EXPECT_EQ(restore.x, 0.5) << "a report without a subject keeps the last position";
    EXPECT_EQ(restore.y, 0.25);
    // A new subject moves the reference position; the clock may wrap.
    EXPECT_FALSE(TrackingRestoreStep(&restore, 1, 0.75f, 0.5f, 0xffffff00u));
    testing::internal::CaptureStderr();
    EXPECT_FALSE(TrackingRestoreStep(&restore, 0, 0, 0, 0x00000100u));
    EXPECT_TRUE(TrackingRestoreStep(&restore, 0, 0, 0, 0x00000800u));
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(restore.x, 0.75);
}

}  // namespace
