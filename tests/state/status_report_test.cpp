// The status line at its limits, the scaled fields of the binary messages and the recording notice; the line and
// the messages byte for byte are checked through the daemon.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>

#include "state/status_report.h"

namespace {

// Every text at its capacity still gives a whole line under the limit; a small buffer bounds the line.
TEST(StatusLine, FullTextsFitTheLimit)
{
    CameraState s;
    memset(&s, 'x', sizeof s);
#define TERMINATE(field) s.field[sizeof s.field - 1] = '\0';
    TERMINATE(camera_model) TERMINATE(camera_mode) TERMINATE(sd) TERMINATE(rec_time_left) TERMINATE(rec_time)
    TERMINATE(shot_mode) TERMINATE(resolution) TERMINATE(framerate) TERMINATE(aperture) TERMINATE(shutter)
    TERMINATE(shutter_set) TERMINATE(iso_set) TERMINATE(ev) TERMINATE(image_mode) TERMINATE(color_mode) TERMINATE(wb)
    TERMINATE(ratio) TERMINATE(video_std) TERMINATE(antiflicker) TERMINATE(pl_state) TERMINATE(pl_dur)
    TERMINATE(pl_time)
#undef TERMINATE
    s.wb_temp = 3.0e38f;
    uint8_t line[kStatusLineMaximumSize + 1];
    size_t length = BuildStatusLine(s, line, sizeof line);
    ASSERT_LE(length, kStatusLineMaximumSize);
    std::string text(reinterpret_cast<char*>(line) + 1, length - 1);
    EXPECT_NE(text.find(",pl_time=xxxxxxxxxxxxxxxxxxx,"), std::string::npos) << "the last item is whole";

    memset(&s, 0, sizeof s);
    memset(line, 0xee, sizeof line);
    EXPECT_EQ(BuildStatusLine(s, line, 20), 19u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(line) + 1, 18), "camera_detected=0,");
    EXPECT_EQ(line[20], 0xee);
}

TEST(ScaledField, TruncatesTowardZeroAndKeepsTheLowBits)
{
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const struct { float value, scale; uint16_t sent; } cases[] = {
        {0.9999f, 1000, 999}, {0.0005f, 1000, 0}, {-0.5f, 1000, 0}, {65.536f, 1000, 0}, {65.537f, 1000, 1},
        {1.0f, 65535, 65535}, {2.0f, 65535, 65534}, {-0.0f, 65535, 0}, {1e30f, 1, 0xffff}, {nan, 1, 0},
        {inf, 1, 0xffff}};
    for (const auto& c : cases)
        EXPECT_EQ(ScaledField(c.value, c.scale), c.sent) << c.value << " x " << c.scale;
}

TEST(RecordingNotice, BitsSevenAndSix)
{
    for (uint8_t flags : {0x80, 0xbf})
        EXPECT_STREQ(RecordingNotice(flags), "rec_active") << int(flags);
    for (uint8_t flags : {0xc0, 0x40, 0x00, 0x7f})
        EXPECT_STREQ(RecordingNotice(flags), "rec_inactive") << int(flags);
}

}  // namespace
