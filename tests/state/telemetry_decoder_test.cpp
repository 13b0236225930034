// The telemetry decoder: each report kind and its code tables, the scanner
// against junk, short and corrupt frames, and the re-arming of tracking.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "camera/crc.h"
#include "camera/frame.h"
#include "control/value_tables.h"
#include "state/report_layout.h"
#include "state/telemetry_decoder.h"

namespace {

using Bytes = std::vector<uint8_t>;

// The decoder publishes the attitude on its first frame: point it at a
// region of this test process, and remove that region at exit.
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

// A sealed frame of any length (13 and up) with chosen set, id and type.
Bytes RawFrame(size_t length, uint8_t command_set, uint8_t command_id, uint8_t command_type = 0)
{
    Bytes frame(length, 0);
    frame[0] = kFrameStartByte;
    frame[kFrameLengthOffset] = static_cast<uint8_t>(length);
    frame[kFrameVersionOffset] = kFrameVersion;
    frame[kFrameHeaderCrcOffset] = Crc8(frame.data(), 3);
    frame[kFrameCommandTypeOffset] = command_type;
    frame[kFrameCommandSetOffset] = command_set;
    frame[kFrameCommandIdOffset] = command_id;
    SealCameraPacket(frame.data(), length, 1);
    return frame;
}

class Decoder : public ::testing::Test {
protected:
    void SetUp() override { memset(&state, 0, sizeof state); }

    void Decode(CameraReportKind kind, const CameraReportValues& values)
    {
        Bytes frame = Report(kind, values);
        ASSERT_FALSE(frame.empty());
        DecodeTelemetryFrame(&state, frame.data(), frame.size());
    }
    void Scan(const Bytes& block) { ScanTelemetryBuffer(&state, block.data(), static_cast<uint32_t>(block.size())); }
    bool Unchanged() const
    {
        CameraState zero;
        memset(&zero, 0, sizeof zero);
        return memcmp(&zero, &state, sizeof state) == 0;
    }

    CameraState state;
};

// ---------------------------------------------------------------------------
// Camera information report.

TEST_F(Decoder, CameraModelTexts)
{
    const struct {
        uint8_t code;
        const char* text;
    } cases[] = {{24, "DJI Pocket Osmo"}, {47, "DJI Pocket 2"}, {99, "Unknown camera (99)"},
                 {0, "Unknown camera (0)"}, {255, "Unknown camera (255)"}};
    for (const auto& c : cases) {
        CameraReportValues v;
        v.model = c.code;
        Decode(CameraReportKind::kCameraInfo, v);
        EXPECT_STREQ(state.camera_model, c.text) << int(c.code);
        EXPECT_EQ(state.camera_detected, 1);
    }
}

TEST_F(Decoder, CameraModeTexts)
{
    const struct {
        uint8_t code;
        const char* text;
    } cases[] = {{0, "photo"}, {1, "video"}, {7, "playback"}, {2, "unknown"}, {255, "unknown"}};
    for (const auto& c : cases) {
        CameraReportValues v;
        v.mode = c.code;
        Decode(CameraReportKind::kCameraInfo, v);
        EXPECT_STREQ(state.camera_mode, c.text) << int(c.code);
        EXPECT_EQ(state.mode_code, c.code);
    }
}

TEST_F(Decoder, CameraInfoNumbersAndTimes)
{
    CameraReportValues v;
    v.camera_flags = 0x80;
    v.aux_1 = 0x31;
    v.aux_2 = 0x02;
    v.sd_free_mb = 29700;
    v.shots_left = 1234567;
    v.rec_time_left_s = 3725;
    v.rec_time_s = 59;
    Decode(CameraReportKind::kCameraInfo, v);
    EXPECT_EQ(state.camera_flags, 0x80);
    EXPECT_EQ(state.camera_aux_1, 0x31);
    EXPECT_EQ(state.camera_aux_2, 0x02);
    EXPECT_STREQ(state.sd, "29.7G");
    EXPECT_EQ(state.shots_left, 1234567u);
    EXPECT_STREQ(state.rec_time_left, "01:02:05");
    EXPECT_STREQ(state.rec_time, "00:00:59");

    v.sd_free_mb = 0;
    Decode(CameraReportKind::kCameraInfo, v);
    EXPECT_STREQ(state.sd, "") << "no free space reported: empty";
    EXPECT_EQ(state.voltage, 0) << "no report sets the voltage";
}

TEST(TimeText, TwoDigitFieldsAndLongHours)
{
    const struct {
        uint32_t seconds;
        const char* text;
    } cases[] = {{0, "00:00:00"},          {9, "00:00:09"},        {3725, "01:02:05"},
                 {35999, "09:59:59"},      {36000, "10:00:00"},    {359999, "99:59:59"},
                 {360000, "100:00:00"},    {UINT32_MAX, "1193046:28:15"}};
    for (const auto& c : cases) {
        char text[20];
        memset(text, 'x', sizeof text);
        FormatTimeText(c.seconds, text, sizeof text);
        EXPECT_STREQ(text, c.text) << c.seconds;
    }
    char small[10];
    FormatTimeText(UINT32_MAX, small, sizeof small);
    EXPECT_EQ(strlen(small), 9u) << "bounded by the buffer";
}

// ---------------------------------------------------------------------------
// Settings report, one table at a time.

struct SettingsCase {
    uint8_t code;
    const char* text;
};

// Decodes a settings report with `set` applied and returns the text `field`.
template <typename Set, typename Field>
void ExpectSettingsTexts(CameraState* state, const std::vector<SettingsCase>& cases, Set set, Field field)
{
    for (const SettingsCase& c : cases) {
        CameraReportValues v;
        set(&v, c.code);
        Bytes frame = Report(CameraReportKind::kSettings, v);
        DecodeTelemetryFrame(state, frame.data(), frame.size());
        EXPECT_STREQ(field(*state), c.text) << "code " << int(c.code);
    }
}

TEST_F(Decoder, ResolutionTexts)
{
    ExpectSettingsTexts(&state,
                        {{4, "1280x720"}, {10, "1920x1080"}, {16, "3840x2160"}, {22, "4096x2160"},
                         {24, "2704x1520"}, {31, "2720x1530"}, {48, "4000x3000"}, {52, "2720x2040"},
                         {0, ""}, {5, ""}},
                        [](CameraReportValues* v, uint8_t c) { v->resolution_code = c; },
                        [](const CameraState& s) { return s.resolution; });
}

TEST_F(Decoder, FrameRateTexts)
{
    ExpectSettingsTexts(&state,
                        {{1, "24"}, {2, "25"}, {3, "30"}, {4, "48"}, {5, "50"}, {6, "60"}, {7, "120"},
                         {8, ""}, {10, ""}, {0, ""}},
                        [](CameraReportValues* v, uint8_t c) { v->frame_rate_code = c; },
                        [](const CameraState& s) { return s.framerate; });
}

TEST_F(Decoder, WhiteBalanceTexts)
{
    ExpectSettingsTexts(&state,
                        {{0, "auto"}, {1, "sunny"}, {2, "cloudy"}, {3, "custom"}, {4, "incandescent"},
                         {5, "neon"}, {6, "custom"}, {200, "custom"}},
                        [](CameraReportValues* v, uint8_t c) { v->white_balance_code = c; },
                        [](const CameraState& s) { return s.wb; });
    CameraReportValues v;
    v.white_balance_temperature = 56;
    Decode(CameraReportKind::kSettings, v);
    EXPECT_EQ(state.wb_temp, 5600.0f);
}

TEST_F(Decoder, ShotModeTexts)
{
    ExpectSettingsTexts(&state, {{0, "RAW"}, {1, "JPG"}, {2, "JPG+RAW"}, {3, ""}},
                        [](CameraReportValues* v, uint8_t c) { v->shot_mode_code = c; },
                        [](const CameraState& s) { return s.shot_mode; });
}

TEST_F(Decoder, IsoSettingTexts)
{
    ExpectSettingsTexts(&state,
                        {{3, "100"}, {4, "200"}, {5, "400"}, {6, "800"}, {7, "1600"}, {8, "3200"},
                         {9, "6400"}, {0, "auto"}, {2, "auto"}, {10, "auto"}},
                        [](CameraReportValues* v, uint8_t c) { v->iso_set_code = c; },
                        [](const CameraState& s) { return s.iso_set; });
}

TEST_F(Decoder, EvTextsAreTheStepTexts)
{
    std::vector<SettingsCase> cases;
    for (size_t i = 0; i < EvNames.size(); ++i)
        cases.push_back({static_cast<uint8_t>(7 + i), EvNames[i]});
    cases.push_back({6, "0"});
    cases.push_back({26, "0"});
    ExpectSettingsTexts(&state, cases, [](CameraReportValues* v, uint8_t c) { v->ev_code = c; },
                        [](const CameraState& s) { return s.ev; });
    EXPECT_STREQ(EvNames[0], "-3.0");
    EXPECT_STREQ(EvNames[10], "+0.3");
}

TEST_F(Decoder, ColorModeTexts)
{
    ExpectSettingsTexts(&state,
                        {{1, "art"}, {4, "black white"}, {5, "vivid"}, {6, "d-cinelike"}, {7, "portrait"},
                         {14, "beach"}, {16, "dream"}, {18, "classic"}, {19, "nostalgia"}, {23, "d-log"},
                         {52, "d-clike"}, {0, "none"}, {2, "none"}, {53, "none"}},
                        [](CameraReportValues* v, uint8_t c) { v->color_mode_code = c; },
                        [](const CameraState& s) { return s.color_mode; });
}

TEST_F(Decoder, ExposureProgramTexts)
{
    ExpectSettingsTexts(&state,
                        {{2, "shutter"}, {3, "aperture"}, {4, "manual"}, {1, "auto"}, {0, "auto"}, {5, "auto"}},
                        [](CameraReportValues* v, uint8_t c) { v->exposure_program = c; },
                        [](const CameraState& s) { return s.image_mode; });
}

TEST_F(Decoder, RatioVideoStandardAndAntiFlickerTexts)
{
    ExpectSettingsTexts(&state, {{1, "16:9"}, {0, "4:3"}, {2, "4:3"}},
                        [](CameraReportValues* v, uint8_t c) { v->ratio_code = c; },
                        [](const CameraState& s) { return s.ratio; });
    ExpectSettingsTexts(&state, {{1, "NTSC"}, {0, "PAL"}, {0xff, "NTSC"}, {0xfe, "PAL"}},
                        [](CameraReportValues* v, uint8_t c) { v->video_standard_bits = c; },
                        [](const CameraState& s) { return s.video_std; });
    ExpectSettingsTexts(&state, {{1, "50 Hz"}, {2, "60 Hz"}, {0, "auto"}, {3, "auto"}},
                        [](CameraReportValues* v, uint8_t c) { v->antiflicker_code = c; },
                        [](const CameraState& s) { return s.antiflicker; });
}

TEST_F(Decoder, ApertureWholeOrOneDecimal)
{
    const struct {
        uint16_t raw;
        const char* text;
    } cases[] = {{200, "2"}, {180, "1.8"}, {280, "2.8"}, {1100, "11"}, {0, "0"}, {700, "7"}, {250, "2.5"}, {65500, "655"}};
    for (const auto& c : cases) {
        CameraReportValues v;
        v.aperture = c.raw;
        Decode(CameraReportKind::kSettings, v);
        EXPECT_STREQ(state.aperture, c.text) << c.raw;
    }
}

TEST_F(Decoder, SettingsNumbersAndFlags)
{
    CameraReportValues v;
    v.iso = 6400;
    v.zoom = 250;
    v.ae_lock = 9;
    v.ae_aux = 0x5a;
    v.settings_long_form = true;
    Decode(CameraReportKind::kSettings, v);
    EXPECT_EQ(state.iso, 6400);
    EXPECT_EQ(state.zoom, 250);
    EXPECT_EQ(state.ae, 1);
    EXPECT_EQ(state.ae_aux, 0x5a);
}

TEST_F(Decoder, SensorKeepsItsValueForUnknownCodes)
{
    const struct {
        uint8_t code;
        uint8_t sensor;
    } steps[] = {{4, 16}, {0, 16}, {5, 64}, {6, 64}, {4, 16}};
    for (const auto& step : steps) {
        CameraReportValues v;
        v.sensor_code = step.code;
        Decode(CameraReportKind::kSettings, v);
        EXPECT_EQ(state.sensor, step.sensor) << int(step.code);
    }
}

// zoom_max reads the mode of the last camera information report and the
// sensor as it was before this settings report.
TEST_F(Decoder, ZoomMaxRulesInOrder)
{
    const struct {
        uint8_t mode;
        uint8_t sensor_before;
        uint8_t resolution_code;
        uint16_t zoom_max_before;
        uint16_t zoom_max;
    } cases[] = {
        {0, 16, 10, 0, 400},   {0, 64, 10, 0, 800},   {0, 0, 10, 123, 123},  // photo: by sensor, else unchanged
        {1, 0, 10, 0, 400},    {1, 0, 24, 0, 300},    {1, 0, 31, 0, 300},    {1, 0, 52, 0, 300},
        {1, 64, 16, 0, 200},   {1, 0, 0, 800, 200},                          // video: by resolution
        {7, 16, 10, 321, 321}, {2, 64, 24, 0, 0},                            // other modes: unchanged
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
        settings.sensor_code = 5;  // updated after zoom_max is judged
        Decode(CameraReportKind::kSettings, settings);
        EXPECT_EQ(state.zoom_max, c.zoom_max)
            << "mode " << int(c.mode) << " sensor " << int(c.sensor_before) << " code " << int(c.resolution_code);
        EXPECT_EQ(state.sensor, 64);
    }
}

// ---------------------------------------------------------------------------
// Shutter texts.

uint32_t ShutterCode24(const ShutterCode& row)
{
    return row.value | static_cast<uint32_t>(row.decimal) << 16;
}

TEST(ShutterText, EverySettableValueReadsBackAsItsOwnText)
{
    for (const ShutterCode& row : ShutterValueTable) {
        char text[kShutterSetCapacity] = {};
        ASSERT_TRUE(FormatShutterText(ShutterCode24(row), text, sizeof text)) << row.text;
        EXPECT_STREQ(text, row.text);
    }
}

TEST(ShutterText, FormsAndTheCodesLeftAlone)
{
    const struct {
        uint32_t code;
        const char* text;
    } cases[] = {
        {0x000008, "8\""},       {0x020003, "3.2\""},     {0x009f40, "1/8000"},     {0x190001 | 0x8000, "1/1.25"},
        {0x05800c, "1/12.5"},    {0x000000, "0\""},       {0xffffff, "1/32767.255"}, {0xff00ff, "255.255\""},
    };
    for (const auto& c : cases) {
        char text[kShutterSetCapacity] = {};
        ASSERT_TRUE(FormatShutterText(c.code, text, sizeof text)) << std::hex << c.code;
        EXPECT_STREQ(text, c.text);
    }
    char text[kShutterSetCapacity] = "1/240";
    EXPECT_FALSE(FormatShutterText(0x001240, text, sizeof text));
    EXPECT_FALSE(FormatShutterText(0x007f00, text, sizeof text));
    EXPECT_STREQ(text, "1/240");
}

TEST_F(Decoder, ShutterFieldsKeepTheirTextForUnusedCodes)
{
    CameraReportValues v;
    v.shutter_set = 0x0080f0;   // 1/240
    v.shutter = 0xffffff;       // longest text
    Decode(CameraReportKind::kSettings, v);
    EXPECT_STREQ(state.shutter_set, "1/240");
    EXPECT_STREQ(state.shutter, "1/32767.255");
    EXPECT_EQ(state.shutter_set_raw, 0x0080f0u);

    v.shutter_set = 0xffffff;
    Decode(CameraReportKind::kSettings, v);
    EXPECT_STREQ(state.shutter_set, "1/32767.255") << "the longest text fits shutter_set";
    EXPECT_EQ(state.iso, 0) << "and does not run into the next field";

    v.shutter_set = 0x001200;
    Decode(CameraReportKind::kSettings, v);
    EXPECT_STREQ(state.shutter_set, "1/32767.255");
    EXPECT_EQ(state.shutter_set_raw, 0x001200u);
}

// ---------------------------------------------------------------------------
// Gimbal, focus, battery, histogram, playback.

TEST_F(Decoder, GimbalAttitudeFoldsAndPublishes)
{
    const struct {
        int16_t angle0, angle1, angle2;
        int16_t attitude[3];
    } cases[] = {
        {100, 0, 50, {100, 0, -50}},
        {-1800, -300, -20, {-1800, -1500, 20}},
        {5, 1799, 0, {5, 1, 0}},
        {0, -32768, -32768, {0, 30968, -32768}},
    };
    for (const auto& c : cases) {
        CameraReportValues v;
        v.angle0 = c.angle0;
        v.angle1 = c.angle1;
        v.angle2 = c.angle2;
        Decode(CameraReportKind::kGimbalAttitude, v);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(state.gimbal_attitude[i], c.attitude[i]) << "element " << i << " of " << c.angle1;

        int fd = shm_open(attitude_region.name, O_RDONLY, 0);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(lseek(fd, 0, SEEK_END), 6);
        uint8_t region[6];
        ASSERT_EQ(pread(fd, region, sizeof region, 0), 6);
        close(fd);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(static_cast<int16_t>(ReadLe16(region + 2 * i)), c.attitude[i]);
    }
    const int16_t limits[4] = {73, -232, 52, -102};
    EXPECT_EQ(0, memcmp(state.gimbal_limits, limits, sizeof limits));
}

TEST_F(Decoder, GimbalModeFlagAndStateBits)
{
    CameraReportValues v;
    v.attitude_mode_bits = 0x7f;
    Decode(CameraReportKind::kGimbalAttitude, v);
    EXPECT_EQ(state.gimbal_mode_flag, 1);
    v.attitude_mode_bits = 0x80;
    Decode(CameraReportKind::kGimbalAttitude, v);
    EXPECT_EQ(state.gimbal_mode_flag, 0);

    v.gimbal_state_bits = 0x32;  // bits 1, 4, 5
    Decode(CameraReportKind::kGimbalState, v);
    EXPECT_EQ(state.gimbal_bit1, 1);
    EXPECT_EQ(state.gimbal_bit4, 1);
    EXPECT_EQ(state.gimbal_bit5, 1);
    v.gimbal_state_bits = 0xcd;  // all but bits 1, 4, 5
    Decode(CameraReportKind::kGimbalState, v);
    EXPECT_EQ(state.gimbal_bit1 + state.gimbal_bit4 + state.gimbal_bit5, 0);
}

TEST_F(Decoder, FocusModesAndValues)
{
    const SettingsCase modes[] = {{0x84, "MF"}, {0x85, "AFS"}, {0x86, "AFC"}, {0x01, ""}, {0x02, ""}};
    for (const SettingsCase& c : modes) {
        CameraReportValues v;
        v.focus_mode = c.code;
        Decode(CameraReportKind::kFocus, v);
        EXPECT_STREQ(state.focus_mode, c.text);
        EXPECT_EQ(state.focus_mode_code, c.code);
    }
    CameraReportValues v;
    v.focus_param_1 = 0xa1;
    v.focus_param_3 = 0xa3;
    v.focus_x = 0.25f;
    v.focus_y = 0.75f;
    v.focus_param_21 = 0x21;
    v.focus_param_31 = 0x31;
    Decode(CameraReportKind::kFocus, v);
    EXPECT_EQ(state.focus_reported, 1);
    EXPECT_EQ(state.focus_param_1, 0xa1);
    EXPECT_EQ(state.focus_param_3, 0xa3);
    EXPECT_EQ(state.focus_point_x, 0.25f);
    EXPECT_EQ(state.focus_point_y, 0.75f);
    EXPECT_EQ(state.focus_param_21, 0x21);
    EXPECT_EQ(state.focus_param_31, 0x31);
}

TEST_F(Decoder, BatteryBothLengths)
{
    CameraReportValues v;
    v.battery_level = 57;
    v.battery_charging = 3;
    Decode(CameraReportKind::kBattery, v);
    EXPECT_EQ(state.battery_level, 57);
    EXPECT_EQ(state.battery_charging, 1);
    v.battery_long_form = true;
    v.battery_level = -1;
    v.battery_charging = 0;
    Decode(CameraReportKind::kBattery, v);
    EXPECT_EQ(state.battery_level, -1);
    EXPECT_EQ(state.battery_charging, 0);
}

TEST_F(Decoder, HistogramBinsAndTime)
{
    CameraReportValues v;
    for (size_t i = 0; i < kHistogramBinCount; ++i)
        v.histogram[i] = static_cast<uint8_t>(i * 3);
    Decode(CameraReportKind::kHistogram, v);
    EXPECT_EQ(0, memcmp(state.histogram_bins, v.histogram, kHistogramBinCount));
    EXPECT_NE(state.histogram_time, 0u);
}

TEST_F(Decoder, PlaybackStatesTimesAndLogLine)
{
    const SettingsCase states[] = {{2, "playing"}, {3, "paused"}, {7, "stopped"}, {0, ""}, {4, ""}};
    for (const SettingsCase& c : states) {
        CameraReportValues v;
        v.playback_state = c.code;
        Decode(CameraReportKind::kPlayback, v);
        EXPECT_STREQ(state.pl_state, c.text);
    }
    CameraReportValues v;
    v.playback_clip = 513;
    v.playback_duration_ms = 3725999;
    v.playback_position_ms = 999;
    Bytes frame = Report(CameraReportKind::kPlayback, v);
    testing::internal::CaptureStderr();
    DecodeTelemetryFrame(&state, frame.data(), frame.size());
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(state.pl_id, 513);
    EXPECT_EQ(state.pl_dur_ms, 3725999u);
    EXPECT_STREQ(state.pl_dur, "01:02:05");
    EXPECT_STREQ(state.pl_time, "00:00:00");

    std::string expected = "54 bytes: ";
    for (uint8_t byte : frame) {
        char item[8];
        snprintf(item, sizeof item, "0x%02X,", byte);
        expected += item;
    }
    EXPECT_EQ(log, expected + "\n");
}

TEST_F(Decoder, TrackingReport)
{
    CameraReportValues v;
    v.tracking_subject = true;
    v.tracking_x = 0.5f;
    v.tracking_y = 0.25f;
    v.tracking_w = 0.1f;
    v.tracking_h = 0.2f;
    Decode(CameraReportKind::kTracking, v);
    EXPECT_EQ(state.tracking_active, 1);
    EXPECT_NE(state.tracking_time, 0u);
    EXPECT_EQ(state.tracking_x, 0.5f);
    EXPECT_EQ(state.tracking_y, 0.25f);
    EXPECT_EQ(state.tracking_w, 0.1f);
    EXPECT_EQ(state.tracking_h, 0.2f);

    // One of the two subject bytes alone is no subject.
    Bytes frame = Report(CameraReportKind::kTracking, v);
    frame[kFramePayloadOffset + tracking_report::kSubjectB] = 0;
    SealCameraPacket(frame.data(), frame.size(), 2);
    testing::internal::CaptureStderr();
    DecodeTelemetryFrame(&state, frame.data(), frame.size());
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(state.tracking_active, 0);
}

// ---------------------------------------------------------------------------
// Frames of a known length that fail their further test change nothing.

TEST_F(Decoder, KindsToldByCommandSetIdAndType)
{
    const struct {
        size_t length;
        uint8_t set, id, type;
    } rejected[] = {
        {kGimbalStateReportLength, 4, 0x18, 0},  {kGimbalStateReportLength, 2, 0x19, 0},
        {kBatteryReportLength, 4, 0, 0},         {kBatteryReportLongLength, 2, 0, 0},
        {kAttitudeOrFocusReportLength, 2, 0, 0x40}, {kAttitudeOrFocusReportLength, 5, 0, 0},
        {kAttitudeOrFocusReportLength, 0, 0, 0}, {12, 0, 0, 0}, {80, 2, 0, 0}, {255, 2, 0, 0},
    };
    for (const auto& r : rejected) {
        Bytes frame = RawFrame(r.length, r.set, r.id, r.type);
        // Payload bytes that would change the record if decoded.
        for (size_t i = kFramePayloadOffset; i + 2 < frame.size(); ++i)
            frame[i] = 0xff;
        SealCameraPacket(frame.data(), frame.size(), 3);
        ScanTelemetryBuffer(&state, frame.data(), static_cast<uint32_t>(frame.size()));
        EXPECT_TRUE(Unchanged()) << "length " << r.length << " set " << int(r.set) << " id " << int(r.id);
    }
    // The same focus frame with command type 0 is decoded.
    Bytes focus = RawFrame(kAttitudeOrFocusReportLength, 2, 0x25, 0);
    Scan(focus);
    EXPECT_EQ(state.focus_reported, 1);
}

// ---------------------------------------------------------------------------
// The scanner.

TEST_F(Decoder, TwoFramesAmongJunk)
{
    CameraReportValues v;
    v.battery_level = 42;
    v.model = 24;
    Bytes battery = Report(CameraReportKind::kBattery, v);
    Bytes info = Report(CameraReportKind::kCameraInfo, v);
    Bytes block = {0x00, 0x55, 0x55, 0x02, 0x13};
    block.insert(block.end(), battery.begin(), battery.end());
    block.insert(block.end(), {0x55, 0x51, 0x04, 0x00, 0xff});
    block.insert(block.end(), info.begin(), info.end());
    block.insert(block.end(), {0x55, 0x10, 0x55});
    Scan(block);
    EXPECT_EQ(state.battery_level, 42);
    EXPECT_STREQ(state.camera_model, "DJI Pocket Osmo");
}

TEST_F(Decoder, FrameBeyondTheBlockIsLostAndTheScanGoesOn)
{
    CameraReportValues v;
    v.battery_level = 33;
    Bytes battery = Report(CameraReportKind::kBattery, v);
    // A start byte whose length reaches past the end, with a whole frame
    // inside the bytes it claims.
    Bytes block = {0x55, 0xf0, 0x04};
    block.insert(block.end(), battery.begin(), battery.end());
    Bytes info = Report(CameraReportKind::kCameraInfo, v);
    block.insert(block.end(), info.begin(), info.end() - 1);  // cut short by one byte
    Scan(block);
    EXPECT_EQ(state.battery_level, 33);
    EXPECT_EQ(state.camera_detected, 0);
}

TEST_F(Decoder, ShortAndDegenerateFramesChangeNothing)
{
    // Valid checksums, lengths 6 to 9 (below 6 the checksums overlap the
    // header): skipped whole, never decoded.
    for (size_t length = 6; length < 10; ++length) {
        Bytes frame(length, 0);
        frame[0] = 0x55;
        frame[1] = static_cast<uint8_t>(length);
        frame[2] = 0x04;
        frame[3] = Crc8(frame.data(), 3);
        WriteLe16(frame.data() + length - 2, Crc16(frame.data(), length - 2));
        Scan(frame);
        EXPECT_TRUE(Unchanged()) << length;
    }
    // Length bytes 0 to 3, alone and at the very end of a block.
    for (uint8_t length = 0; length < 4; ++length) {
        Scan({0x55, length});
        Scan({0x55, length, 0x04, 0x00, 0x00, 0x00});
        EXPECT_TRUE(Unchanged()) << int(length);
    }
    Scan({0x55});
    Scan({});
    EXPECT_TRUE(Unchanged());
}

TEST_F(Decoder, CorruptChecksumsChangeNothing)
{
    CameraReportValues v;
    v.battery_level = 90;
    v.model = 24;
    v.resolution_code = 10;
    const CameraReportKind kinds[] = {CameraReportKind::kBattery, CameraReportKind::kCameraInfo,
                                      CameraReportKind::kSettings, CameraReportKind::kGimbalAttitude};
    for (CameraReportKind kind : kinds) {
        Bytes good = Report(kind, v);
        for (size_t byte : {size_t{2}, size_t{3}, size_t{12}, good.size() - 2, good.size() - 1}) {
            Bytes bad = good;
            bad[byte] ^= 0x01;
            Scan(bad);
            EXPECT_TRUE(Unchanged()) << "flipped byte " << byte;
        }
    }
}

// Random blocks, and valid frames cut and spliced at random: nothing is read
// outside the block (the sanitizer builds check that) and no junk block
// changes the record.
TEST_F(Decoder, RandomBlocksAreHarmless)
{
    std::mt19937 random(12345);
    for (int round = 0; round < 2000; ++round) {
        Bytes block(random() % 700);
        for (uint8_t& byte : block)
            byte = (random() % 4 == 0) ? 0x55 : static_cast<uint8_t>(random());
        Scan(block);
    }
    EXPECT_TRUE(Unchanged());

    CameraReportValues v;
    Bytes pieces;
    for (CameraReportKind kind : {CameraReportKind::kSettings, CameraReportKind::kPlayback, CameraReportKind::kTracking}) {
        Bytes frame = Report(kind, v);
        pieces.insert(pieces.end(), frame.begin(), frame.end());
    }
    testing::internal::CaptureStderr();
    for (int round = 0; round < 2000; ++round) {
        size_t begin = random() % pieces.size();
        size_t end = begin + random() % (pieces.size() - begin + 1);
        Bytes block(pieces.begin() + static_cast<long>(begin), pieces.begin() + static_cast<long>(end));
        ScanTelemetryBuffer(&state, block.data(), static_cast<uint32_t>(block.size()));
    }
    testing::internal::GetCapturedStderr();
}

// ---------------------------------------------------------------------------
// Re-arming lost tracking.

TEST(TrackingRestore, RestartsAfterMoreThanTwoSecondsWithoutASubject)
{
    TrackingRestoreState restore;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(TrackingRestoreStep(&restore, 0, 0.1f, 0.1f, 1000)) << "nothing tracked yet";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    EXPECT_FALSE(TrackingRestoreStep(&restore, 1, 0.5f, 0.25f, 10000));
    EXPECT_TRUE(restore.pending);
    EXPECT_EQ(restore.x, 0.5);
    EXPECT_EQ(restore.y, 0.25);

    const struct {
        uint32_t now;
        bool restart;
        const char* log;
    } steps[] = {
        {10500, false, "Waiting restore tracking 500...\n"},
        {12000, false, "Waiting restore tracking 2000...\n"},
        {12001, true, "Waiting restore tracking 2001...\nRestore tracking...\n"},
        {15000, true, "Waiting restore tracking 5000...\nRestore tracking...\n"},
    };
    for (const auto& step : steps) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(TrackingRestoreStep(&restore, 0, 0.9f, 0.9f, step.now), step.restart) << step.now;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), step.log);
    }
    EXPECT_EQ(restore.x, 0.5) << "a report without a subject keeps the last position";

    // A new subject moves the reference time and position.
    EXPECT_FALSE(TrackingRestoreStep(&restore, 1, 0.75f, 0.5f, 20000));
    testing::internal::CaptureStderr();
    EXPECT_FALSE(TrackingRestoreStep(&restore, 0, 0, 0, 21000));
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(restore.x, 0.75);

    // The clock wraps: elapsed time is the unsigned difference.
    EXPECT_FALSE(TrackingRestoreStep(&restore, 1, 0.5f, 0.5f, 0xffffff00u));
    testing::internal::CaptureStderr();
    EXPECT_TRUE(TrackingRestoreStep(&restore, 0, 0, 0, 0x00000800u));
    testing::internal::GetCapturedStderr();
}

}  // namespace
