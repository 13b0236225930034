// The telemetry decoder: the code tables of each report kind, shutter texts, zoom_max, the scanner against junk and
// frames that fail their tests, and the re-arming of tracking. Report values seen whole are checked through the daemon.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "camera/crc.h"
#include "camera/value_tables.h"
#include "state/telemetry_decoder.h"
#include "support/command_peers.h"
#include "sim/report_encoder.h"

namespace {

using K = CameraReportKind;

// The decoder publishes the attitude (checked by the daemon test): point it at a region of this test process, and
// remove that region at exit.
struct PrivateAttitudeRegion {
    char name[64];
    PrivateAttitudeRegion()
    {
        snprintf(name, sizeof name, "/tarnwick_unit_camstate_%d", static_cast<int>(getpid()));
        SetSharedAttitudeName(name);
    }
    ~PrivateAttitudeRegion() { shm_unlink(name); }
} attitude_region;

struct CodeText { uint32_t code; const char* text; };

class Decoder : public ::testing::Test {
protected:
    void SetUp() override { memset(&state, 0, sizeof state); }
    void Decode(K kind, const CameraReportValues& values)
    {
        Bytes frame = CameraReport(kind, values);
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
    void ExpectTexts(K kind, const std::vector<CodeText>& rows, Set set, Field field)
    {
        for (const CodeText& row : rows) {
            CameraReportValues v;
            set(&v, row.code);
            Decode(kind, v);
            EXPECT_STREQ(field(state), row.text) << "code " << row.code;
        }
    }

    CameraState state;
};

#define FIELD(in, out) \
    [](CameraReportValues* v, uint32_t c) { v->in = static_cast<decltype(v->in)>(c); }, \
        [](const CameraState& s) { return s.out; }

TEST_F(Decoder, CodeTables)
{
    ExpectTexts(K::kCameraInfo, {{24, "DJI Pocket Osmo"}, {47, "DJI Pocket 2"}, {0, "Unknown camera (0)"},
                                 {255, "Unknown camera (255)"}}, FIELD(model, camera_model));
    ExpectTexts(K::kCameraInfo, {{0, "photo"}, {1, "video"}, {7, "playback"}, {2, "unknown"}, {255, "unknown"}},
                FIELD(mode, camera_mode));
    EXPECT_EQ(state.mode_code, 255);
    ExpectTexts(K::kCameraInfo, {{0, ""}, {29700, "29.7G"}}, FIELD(sd_free_mb, sd));
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
    ExpectTexts(K::kSettings, {{1, "50 Hz"}, {2, "60 Hz"}, {0, "auto"}, {3, "auto"}},
                FIELD(antiflicker_code, antiflicker));
    ExpectTexts(K::kSettings, {{200, "2"}, {180, "1.8"}, {280, "2.8"}, {1100, "11"}, {0, "0"}, {250, "2.5"},
                               {65500, "655"}}, FIELD(aperture, aperture));
    ExpectTexts(K::kFocus, {{0x84, "MF"}, {0x85, "AFS"}, {0x86, "AFC"}, {0x01, ""}}, FIELD(focus_mode, focus_mode));
    EXPECT_EQ(state.focus_mode_code, 0x01);
    testing::internal::CaptureStderr();  // playback frames are logged
    ExpectTexts(K::kPlayback, {{2, "playing"}, {3, "paused"}, {7, "stopped"}, {0, ""}, {4, ""}},
                FIELD(playback_state, pl_state));
    ExpectTexts(K::kPlayback, {{3725999, "01:02:05"}, {999, "00:00:00"}}, FIELD(playback_duration_ms, pl_dur));
    testing::internal::GetCapturedStderr();
    char text[20], small[10];
    FormatTimeText(360000, text, sizeof text);
    EXPECT_STREQ(text, "100:00:00");
    FormatTimeText(UINT32_MAX, small, sizeof small);
    EXPECT_STREQ(small, "1193046:2") << "bounded by the buffer";
}

// Every settable shutter text reads back as itself; the longest text fits without running into the next field; a
// code in no form leaves the text as it was.
TEST_F(Decoder, ShutterTexts)
{
    std::vector<CodeText> rows = {{0x000008, "8\""},   {0x020003, "3.2\""}, {0x009f40, "1/8000"},
                                  {0x198001, "1/1.25"}, {0x05800c, "1/12.5"}, {0x000000, "0\""},
                                  {0xff00ff, "255.255\""}, {0xffffff, "1/32767.255"}, {0x001240, "1/32767.255"}};
    for (const ShutterCode& row : ShutterValueTable)
        rows.insert(rows.end() - 2, {row.value | static_cast<uint32_t>(row.decimal) << 16, row.text});
    ExpectTexts(K::kSettings, rows, FIELD(shutter_set, shutter_set));
    EXPECT_EQ(state.iso, 0);
    EXPECT_EQ(state.shutter_set_raw, 0x001240u);
    ExpectTexts(K::kSettings, {{0x0080f0, "1/240"}, {0x007f00, "1/240"}}, FIELD(shutter, shutter));
}

// zoom_max reads the mode of the last camera information report and the sensor as it was before this settings
// report; the sensor keeps its value for unknown codes.
TEST_F(Decoder, ZoomMaxAndSensor)
{
    const struct { uint8_t mode, sensor_before, resolution_code; uint16_t zoom_max_before, zoom_max; } cases[] = {
        {0, 16, 10, 0, 400},   {0, 64, 10, 0, 800}, {0, 0, 10, 123, 123},  // photo: by sensor, else unchanged
        {1, 0, 10, 0, 400},    {1, 0, 24, 0, 300},  {1, 0, 31, 0, 300},  {1, 0, 52, 0, 300},  // video: by resolution
        {1, 64, 16, 0, 200},   {1, 0, 0, 800, 200},
        {7, 16, 10, 321, 321}, {2, 64, 24, 0, 0},  // other modes: unchanged
    };
    for (const auto& c : cases) {
        CameraReportValues v;
        v.mode = c.mode, v.resolution_code = c.resolution_code, v.sensor_code = 5;
        Decode(K::kCameraInfo, v);
        state.sensor = c.sensor_before, state.zoom_max = c.zoom_max_before;
        Decode(K::kSettings, v);
        EXPECT_EQ(state.zoom_max, c.zoom_max) << int(c.mode) << " " << int(c.sensor_before)
                                              << " " << int(c.resolution_code);
    }
    for (const auto& step : {std::pair<int, int>{4, 16}, {0, 16}, {5, 64}, {6, 64}, {4, 16}}) {  // code, sensor
        CameraReportValues v;
        v.sensor_code = static_cast<uint8_t>(step.first);
        Decode(K::kSettings, v);
        EXPECT_EQ(state.sensor, step.second) << step.first;
    }
}

// The attitude folded and negated, the mode flag by bit 7 alone, the gimbal bits, the long battery form, and one
// subject byte alone, which is no subject.
TEST_F(Decoder, GimbalBatteryAndTracking)
{
    const struct { int16_t angle[3]; int16_t attitude[3]; } cases[] = {
        {{100, 0, 50}, {100, 0, -50}}, {{-1800, -300, -20}, {-1800, -1500, 20}}, {{5, 1799, 0}, {5, 1, 0}},
        {{0, -32768, -32768}, {0, 30968, -32768}}};
    CameraReportValues v;
    for (const auto& c : cases) {
        v.angle0 = c.angle[0], v.angle1 = c.angle[1], v.angle2 = c.angle[2], v.attitude_mode_bits = 0x7f;
        Decode(K::kGimbalAttitude, v);
        EXPECT_EQ(0, memcmp(state.gimbal_attitude, c.attitude, sizeof c.attitude)) << c.angle[1];
        EXPECT_EQ(state.gimbal_mode_flag, 1);
    }
    v.gimbal_state_bits = 0xcd;  // all but bits 1, 4, 5
    Decode(K::kGimbalState, v);
    EXPECT_EQ(state.gimbal_bit1 + state.gimbal_bit4 + state.gimbal_bit5, 0);
    v.battery_long_form = true, v.battery_level = -1, v.battery_charging = 3;  // the 57-byte form
    Decode(K::kBattery, v);
    EXPECT_EQ(state.battery_level, -1);
    EXPECT_EQ(state.battery_charging, 1);
    v.tracking_subject = true;
    Bytes frame = CameraReport(K::kTracking, v);
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
        frame[0] = kFrameStartByte, frame[kFrameLengthOffset] = static_cast<uint8_t>(length);
        frame[kFrameVersionOffset] = kFrameVersion, frame[kFrameHeaderCrcOffset] = Crc8(frame.data(), 3);
        frame[kFrameCommandTypeOffset] = type, frame[kFrameCommandSetOffset] = set, frame[kFrameCommandIdOffset] = id;
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

// Two frames among junk, a start byte whose length reaches past the end with a whole frame inside the bytes it
// claims, and a frame cut short by one byte.
TEST_F(Decoder, ScannerFindsFramesAmongJunkAndDropsCutOnes)
{
    CameraReportValues v;
    v.battery_level = 42, v.model = 24;
    Bytes battery = CameraReport(K::kBattery, v), info = CameraReport(K::kCameraInfo, v);
    Bytes block = {0x00, 0x55, 0x55, 0x02, 0x13};
    for (const Bytes& part : {battery, Bytes{0x55, 0x51, 0x04, 0x00, 0xff}, info, Bytes{0x55, 0x10, 0x55}})
        block.insert(block.end(), part.begin(), part.end());
    Scan(block);
    EXPECT_EQ(state.battery_level, 42);
    EXPECT_STREQ(state.camera_model, "DJI Pocket Osmo");

    memset(&state, 0, sizeof state);
    v.battery_level = 33;
    battery = CameraReport(K::kBattery, v);
    block = {0x55, 0xf0, 0x04};
    block.insert(block.end(), battery.begin(), battery.end());
    block.insert(block.end(), info.begin(), info.end() - 1);
    Scan(block);
    EXPECT_EQ(state.battery_level, 33);
    EXPECT_EQ(state.camera_detected, 0);
}

// Each report kind written here byte by byte from the documented layout (payload byte N at frame byte 11 + N,
// little-endian), not through the simulator's encoder: a wrong offset in the layout shows here even when the encoder
// shares it. Unset bytes are 0xee, so a field read from a wrong place reads junk.
Bytes HandReport(size_t length, uint8_t set, uint8_t id, const std::vector<std::pair<size_t, std::string>>& fields)
{
    Bytes frame(length, 0xee);
    frame[0] = 0x55, frame[1] = static_cast<uint8_t>(length), frame[2] = 0x04;
    frame[8] = 0, frame[9] = set, frame[10] = id;
    for (const auto& field : fields)
        for (size_t i = 0; i < field.second.size() / 2; ++i)
            frame[11 + field.first + i] = static_cast<uint8_t>(std::stoi(field.second.substr(2 * i, 2), nullptr, 16));
    frame[3] = Crc8(frame.data(), 3);
    SealCameraPacket(frame.data(), length, 7);
    return frame;
}

TEST_F(Decoder, ReportsWrittenByHandFromTheLayout)
{
    auto decode = [&](const Bytes& frame) { DecodeTelemetryFrame(&state, frame.data(), frame.size()); };
    // Camera information (81): flags p0, aux2 p2, mode p4, sd MB p9-12, shots p13-16, rec left p17-20,
    // rec time p29-30, aux1 p31, model p33.
    decode(HandReport(81, 2, 0x80, {{0, "80"}, {2, "22"}, {4, "01"}, {9, "04740000"}, {13, "39300000"},
                                    {17, "100e0000"}, {29, "0700"}, {31, "11"}, {33, "2f"}}));
    EXPECT_EQ(state.camera_flags, 0x80);
    EXPECT_EQ(state.camera_aux_2, 0x22);
    EXPECT_STREQ(state.camera_mode, "video");
    EXPECT_STREQ(state.sd, "29.7G");
    EXPECT_EQ(state.shots_left, 12345u);
    EXPECT_STREQ(state.rec_time_left, "01:00:00");
    EXPECT_STREQ(state.rec_time, "00:00:07");
    EXPECT_EQ(state.camera_aux_1, 0x11);
    EXPECT_STREQ(state.camera_model, "DJI Pocket 2");
    // Settings (107): shutter set p2-4, ISO set p5, EV p6, sensor p9, ratio p10, shot mode p12, resolution p13,
    // frame rate p14, program p20, WB p23, WB temperature p24, colour p31, flicker p32, aperture p38-39,
    // shutter p40-42, ISO p43-44, standard p55, AE lock p56, AE aux p58, zoom p89-90.
    decode(HandReport(107, 2, 0x81, {{2, "f08000"}, {5, "05"}, {6, "11"}, {9, "04"}, {10, "01"}, {12, "02"},
                                     {13, "0a"}, {14, "03"}, {20, "04"}, {23, "03"}, {24, "38"}, {31, "17"},
                                     {32, "01"}, {38, "1801"}, {40, "408101"}, {43, "9001"}, {55, "01"},
                                     {56, "01"}, {58, "05"}, {89, "9600"}}));
    EXPECT_STREQ(state.shutter_set, "1/240");
    EXPECT_STREQ(state.iso_set, "400");
    EXPECT_STREQ(state.ev, "+0.3");
    EXPECT_EQ(state.sensor, 16);
    EXPECT_STREQ(state.ratio, "16:9");
    EXPECT_STREQ(state.shot_mode, "JPG+RAW");
    EXPECT_STREQ(state.resolution, "1920x1080");
    EXPECT_STREQ(state.framerate, "30");
    EXPECT_STREQ(state.image_mode, "manual");
    EXPECT_STREQ(state.wb, "custom");
    EXPECT_EQ(state.wb_temp, 5600.0f);
    EXPECT_STREQ(state.color_mode, "d-log");
    EXPECT_STREQ(state.antiflicker, "50 Hz");
    EXPECT_STREQ(state.aperture, "2.8");
    EXPECT_STREQ(state.shutter, "1/320.1");
    EXPECT_EQ(state.iso, 400);
    EXPECT_STREQ(state.video_std, "NTSC");
    EXPECT_EQ(state.ae, 1);
    EXPECT_EQ(state.ae_aux, 5);
    EXPECT_EQ(state.zoom, 150);
    EXPECT_EQ(state.zoom_max, 400) << "video at 1920x1080";
    // Battery (53, set 5): level p0, charging p39.
    decode(HandReport(53, 5, 0x02, {{0, "57"}, {39, "01"}}));
    EXPECT_EQ(state.battery_level, 0x57);
    EXPECT_EQ(state.battery_charging, 1);
    // Gimbal attitude (58, set 4): p0-1 folded, p2-3 negated, mode bit 7 of p6, p8-9 element 0.
    decode(HandReport(58, 4, 0x05, {{0, "2c01"}, {2, "0a00"}, {6, "00"}, {8, "9cff"}}));
    EXPECT_EQ(state.gimbal_attitude[0], -100);
    EXPECT_EQ(state.gimbal_attitude[1], 1500);
    EXPECT_EQ(state.gimbal_attitude[2], -10);
    EXPECT_EQ(state.gimbal_mode_flag, 1);
    // Focus (58, set 2, type 0): mode p0, param1 p1, param3 p3, point f32 p13 and p17, param21 p21, param31 p31.
    decode(HandReport(58, 2, 0x05, {{0, "86"}, {1, "07"}, {3, "09"}, {13, "0000003f"}, {17, "0000803e"},
                                    {21, "15"}, {31, "1f"}}));
    EXPECT_STREQ(state.focus_mode, "AFC");
    EXPECT_EQ(state.focus_param_1, 7);
    EXPECT_EQ(state.focus_param_3, 9);
    EXPECT_EQ(state.focus_point_x, 0.5f);
    EXPECT_EQ(state.focus_point_y, 0.25f);
    EXPECT_EQ(state.focus_param_21, 0x15);
    EXPECT_EQ(state.focus_param_31, 0x1f);
    // Gimbal state (17, set 4, id 0x19): bits 1, 5, 4 of p0.
    decode(HandReport(17, 4, 0x19, {{0, "32"}}));
    EXPECT_EQ(state.gimbal_bit1 * 4 + state.gimbal_bit5 * 2 + state.gimbal_bit4, 7);
    // Tracking (36): subject p5 and p6, box f32 p7, p11, p15, p19.
    decode(HandReport(36, 2, 0x7c, {{5, "01"}, {6, "01"}, {7, "0000803e"}, {11, "0000003f"}, {15, "cdcccc3d"},
                                    {19, "cdcc4c3e"}}));
    EXPECT_EQ(state.tracking_active, 1);
    EXPECT_EQ(state.tracking_x, 0.25f);
    EXPECT_EQ(state.tracking_y, 0.5f);
    EXPECT_EQ(state.tracking_w, 0.1f);
    EXPECT_EQ(state.tracking_h, 0.2f);
    // Playback (54): state p0, clip p4-5, duration ms p9-12, position ms p13-16 (the frame is logged).
    testing::internal::CaptureStderr();
    decode(HandReport(54, 2, 0x7b, {{0, "03"}, {4, "2a00"}, {9, "e8fd0000"}, {13, "d0070000"}}));
    testing::internal::GetCapturedStderr();
    EXPECT_STREQ(state.pl_state, "paused");
    EXPECT_EQ(state.pl_id, 42);
    EXPECT_STREQ(state.pl_dur, "00:01:05");
    EXPECT_STREQ(state.pl_time, "00:00:02");
    // Histogram (77): 64 bins from p0.
    std::string bins;
    for (int i = 0; i < 64; ++i) {
        char hex[3];
        snprintf(hex, sizeof hex, "%02x", i * 4);
        bins += hex;
    }
    decode(HandReport(77, 2, 0x7d, {{0, bins}}));
    EXPECT_EQ(state.histogram_bins[0], 0);
    EXPECT_EQ(state.histogram_bins[63], 252);
    EXPECT_NE(state.histogram_time, 0u);
}

// Restarts when more than 2000 ms have passed without a subject, from the last position; the clock may wrap.
TEST(TrackingRestore, RestartsAfterMoreThanTwoSecondsWithoutASubject)
{
    TrackingRestoreState restore;
    const struct { int active; float x, y; uint32_t now; bool restart; const char* log; } steps[] = {
        {0, 0.1f, 0.1f, 1000, false, ""},  // nothing tracked yet
        {1, 0.5f, 0.25f, 10000, false, ""},
        {0, 0.9f, 0.9f, 10500, false, "Waiting restore tracking 500...\n"},
        {0, 0.9f, 0.9f, 12000, false, "Waiting restore tracking 2000...\n"},
        {0, 0.9f, 0.9f, 12001, true, "Waiting restore tracking 2001...\nRestore tracking...\n"},
        {0, 0.9f, 0.9f, 15000, true, "Waiting restore tracking 5000...\nRestore tracking...\n"},
        {1, 0.75f, 0.5f, 0xffffff00u, false, ""},
        {0, 0, 0, 0x00000100u, false, "Waiting restore tracking 512...\n"},
        {0, 0, 0, 0x00000800u, true, "Waiting restore tracking 2304...\nRestore tracking...\n"}};
    for (const auto& step : steps) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(TrackingRestoreStep(&restore, step.active, step.x, step.y, step.now), step.restart) << step.now;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), step.log);
        EXPECT_TRUE(step.now != 15000 || (restore.x == 0.5 && restore.y == 0.25)) << "no subject keeps the position";
    }
    EXPECT_EQ(restore.x, 0.75);
}

}  // namespace
