// The status line and the state message built from a record, byte for byte;
// the scaled fields and the recording notice.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "camera/frame.h"
#include "state/status_report.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string StatusText(const CameraState& state)
{
    uint8_t line[kStatusLineMaximumSize + 1];
    size_t length = BuildStatusLine(state, line, sizeof line);
    EXPECT_GE(length, 1u);
    EXPECT_LE(length, kStatusLineMaximumSize);
    EXPECT_EQ(line[0], kStatusLineType);
    return std::string(reinterpret_cast<char*>(line) + 1, length - 1);
}

CameraState ZeroState()
{
    CameraState state;
    memset(&state, 0, sizeof state);
    return state;
}

template <size_t N>
void Put(char (&field)[N], const char* text)
{
    snprintf(field, N, "%s", text);
}

TEST(StatusLine, EveryItemFromItsField)
{
    CameraState s = ZeroState();
    s.camera_detected = 1, s.shots_left = 812, s.battery_level = -5, s.battery_charging = 1, s.ae = 1;
    s.iso = 6400, s.wb_temp = 5649.6f, s.sensor = 64, s.histogram_time = 12345, s.pl_id = 65535;
    Put(s.camera_model, "DJI Pocket 2"), Put(s.camera_mode, "video"), Put(s.sd, "29.7G");
    Put(s.rec_time_left, "02:10:00"), Put(s.rec_time, "00:00:42"), Put(s.shot_mode, "JPG");
    Put(s.resolution, "3840x2160"), Put(s.framerate, "30"), Put(s.aperture, "2"), Put(s.shutter, "1/250");
    Put(s.shutter_set, "1/240"), Put(s.iso_set, "auto"), Put(s.ev, "+0.7"), Put(s.image_mode, "manual");
    Put(s.color_mode, "d-cinelike"), Put(s.wb, "custom"), Put(s.ratio, "16:9"), Put(s.video_std, "PAL");
    Put(s.antiflicker, "50 Hz"), Put(s.pl_state, "paused"), Put(s.pl_dur, "00:01:00"), Put(s.pl_time, "00:00:30");
    EXPECT_EQ(StatusText(s),
              "camera_detected=1,camera_model=DJI Pocket 2,camera_mode=video,sd=29.7G,shots_left=812,"
              "rec_time_left=02:10:00,rec_time=00:00:42,voltage=0,battery_level=-5,battery_charging=1,"
              "shot_mode=JPG,resolution=3840x2160,framerate=30,format=3840x2160@30,ae=1,aperture=2,"
              "shutter=1/250,shutter_set=1/240,iso=6400,iso_set=auto,ev=+0.7,image_mode=manual,"
              "color_mode=d-cinelike,wb=custom,wb_temp=5650,ratio=16:9,sensor=64,video_std=PAL,"
              "antiflicker=50 Hz,histogram=1,pl_state=paused,pl_id=65535,pl_dur=00:01:00,pl_time=00:00:30,");
}

// Every text at its capacity still gives a whole line under the limit.
TEST(StatusLine, FullTextsFitTheLimit)
{
    CameraState s = ZeroState();
    memset(&s, 'x', sizeof s);
#define TERMINATE(field) s.field[sizeof s.field - 1] = '\0'
    TERMINATE(camera_model); TERMINATE(camera_mode); TERMINATE(sd); TERMINATE(rec_time_left);
    TERMINATE(rec_time); TERMINATE(shot_mode); TERMINATE(resolution); TERMINATE(framerate);
    TERMINATE(aperture); TERMINATE(shutter); TERMINATE(shutter_set); TERMINATE(iso_set); TERMINATE(ev);
    TERMINATE(image_mode); TERMINATE(color_mode); TERMINATE(wb); TERMINATE(ratio); TERMINATE(video_std);
    TERMINATE(antiflicker); TERMINATE(pl_state); TERMINATE(pl_dur); TERMINATE(pl_time);
#undef TERMINATE
    s.wb_temp = 3.0e38f;
    std::string text = StatusText(s);
    ASSERT_GE(text.size(), 9u);
    EXPECT_EQ(text.substr(text.size() - 9), "xxxxxxxx,") << "the last item is whole";
    EXPECT_NE(text.find(",pl_time=xxxxxxxxxxxxxxxxxxx,"), std::string::npos);
}

TEST(StatusLine, CapacityBoundsTheOutput)
{
    CameraState s = ZeroState();
    uint8_t small[40];
    memset(small, 0xee, sizeof small);
    size_t length = BuildStatusLine(s, small, 20);
    EXPECT_EQ(length, 19u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(small) + 1, 18), "camera_detected=0,");
    EXPECT_EQ(small[20], 0xee);
}

TEST(StateMessage, ByteForByte)
{
    CameraState s = ZeroState();
    s.gimbal_lock_requested = 1, s.gimbal_mode_flag = 0, s.gimbal_bit1 = 1, s.gimbal_bit5 = 0, s.gimbal_bit4 = 1;
    s.gimbal_attitude[0] = -1800, s.gimbal_attitude[1] = 900, s.gimbal_attitude[2] = -2;
    s.camera_flags = 0x80, s.camera_aux_1 = 0x11, s.camera_aux_2 = 0x22, s.focus_reported = 1;
    s.focus_mode_code = 0x86, s.focus_param_1 = 0x1234, s.focus_param_3 = 0x00ab, s.focus_point_x = 0.5f;
    s.focus_point_y = -0.25f, s.focus_param_21 = 0x21, s.focus_param_31 = 0x31, s.ae_aux = 0x58;
    s.zoom = 150, s.zoom_max = 400;
    const int16_t limits[4] = {73, -232, 52, -102};
    memcpy(s.gimbal_limits, limits, sizeof limits);

    uint8_t message[state_message::kSize];
    BuildStateMessage(s, message);
    const Bytes expected = {
        0x06, 0x00, 0x01,                    // type, kind, lock | mode flag
        0xf8, 0xf8, 0x84, 0x03, 0xfe, 0xff,  // attitude -1800, 900, -2
        0x80, 0x11, 0x22, 0x01, 0x86, 0x00,  // flags, aux 1, aux 2, focus reported, focus mode, 0
        0x34, 0x12, 0xab, 0x00,              // focus params 1 and 3
        0xf4, 0x01, 0x00, 0x00,              // focus point 500, 0 (negative)
        0x21, 0x31, 0x58,                    // focus params 21 and 31, ae_aux
        0x18, 0xff, 0x49, 0x00, 0x9a, 0xff, 0x34, 0x00,  // limits 1, 0, 3, 2
        0x96, 0x00, 0x90, 0x01,              // zoom 150, zoom_max 400
        0x05,                                // bit1 x 4 + bit5 x 2 + bit4
    };
    EXPECT_EQ(Bytes(message, message + sizeof message), expected);

    s.gimbal_lock_requested = 0, s.gimbal_mode_flag = 1, s.gimbal_bit1 = 0, s.gimbal_bit5 = 1, s.gimbal_bit4 = 0;
    BuildStateMessage(s, message);
    EXPECT_EQ(message[2], 1);
    EXPECT_EQ(message[38], 2);
}

TEST(ScaledField, TruncatesTowardZeroAndKeepsTheLowBits)
{
    const struct { float value, scale; uint16_t sent; } cases[] = {
        {0.9999f, 1000.0f, 999},  {0.0005f, 1000.0f, 0},   {-0.5f, 1000.0f, 0},      {65.536f, 1000.0f, 0},
        {65.537f, 1000.0f, 1},    {1.0f, 65535.0f, 65535}, {-0.0f, 65535.0f, 0},     {1e30f, 1.0f, 0xffff},
        {std::numeric_limits<float>::quiet_NaN(), 1.0f, 0}, {std::numeric_limits<float>::infinity(), 1.0f, 0xffff},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ScaledField(c.value, c.scale), c.sent) << c.value << " x " << c.scale;
}

TEST(RecordingNotice, BitsSevenAndSix)
{
    const struct { uint8_t flags; const char* notice; } cases[] = {{0x80, "rec_active"}, {0xbf, "rec_active"}, {0xc0, "rec_inactive"}, {0x40, "rec_inactive"},
                 {0x00, "rec_inactive"}};
    for (const auto& c : cases)
        EXPECT_STREQ(RecordingNotice(c.flags), c.notice) << int(c.flags);
}

}  // namespace
