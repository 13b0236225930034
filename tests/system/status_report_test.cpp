// The status report end to end: a fake camera sends telemetry through the daemon's camera socket; the main
// application (127.0.0.1:5000 by default) checks the status line and the binary messages byte for byte, a peer on
// port 5255 the recording notices; also the shared attitude region, junk in the stream and the tracking restore.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>

#include "camera/reassembly.h"
#include "support/command_peers.h"
#include "support/isolation.h"
#include "sim/report_encoder.h"

namespace {

using Clock = std::chrono::steady_clock;
using Kind = CameraReportKind;

const char kEmptyStatusText[] =
    "camera_detected=0,camera_model=,camera_mode=,sd=,shots_left=0,rec_time_left=,rec_time=,"
    "voltage=0,battery_level=0,battery_charging=0,shot_mode=,resolution=,framerate=,format=@,ae=0,"
    "aperture=,shutter=,shutter_set=,iso=0,iso_set=,ev=,image_mode=,color_mode=,wb=,wb_temp=0,"
    "ratio=,sensor=0,video_std=,antiflicker=,histogram=0,pl_state=,pl_id=0,pl_dur=,pl_time=,";

// The six bytes of "/shared_camstate" once the daemon has sized it (it says it opened the object before it sizes
// it, so the size is waited for, up to a second); empty when it never gets its size.
Bytes AttitudeRegion()
{
    Bytes region(6);
    const auto end = Clock::now() + std::chrono::seconds(1);
    for (;; std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
        int fd = shm_open("/shared_camstate", O_RDONLY, 0);
        bool sized = fd >= 0 && lseek(fd, 0, SEEK_END) == 6 && pread(fd, region.data(), 6, 0) == 6;
        if (fd >= 0)
            close(fd);
        if (sized)
            return region;
        if (Clock::now() >= end)
            return Bytes();
    }
}

class StatusReportTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port())));
        ASSERT_TRUE(camera.AwaitDaemon(5000)) << daemon.Stderr();
    }

    void Send(std::initializer_list<Kind> kinds, const CameraReportValues& values)
    {
        std::vector<Bytes> frames;
        for (Kind kind : kinds)
            frames.push_back(CameraReport(kind, values));
        camera.SendReports(frames);
    }

    bool NoticeTurns(const std::string& text)
    {
        for (int i = 0; i < 10; ++i) {
            Bytes datagram = notices.Receive(1000);
            if (std::string(datagram.begin(), datagram.end()) == text)
                return true;
        }
        return false;
    }

    MainAppPeer app{5000};
    UdpPeer notices{5255};
    CommandCamera camera;
    ChildProcess daemon;
};

// A region left by an earlier run is opened, not created, sized to 6 bytes, and keeps its contents until the first
// attitude report.
TEST_F(StatusReportTest, NothingBeforeTheDataStreamThenTheEmptyRecordAndAnOldRegion)
{
    int fd = shm_open("/shared_camstate", O_RDWR | O_CREAT, 0600);
    const Bytes old = {1, 2, 3, 4, 5, 6};
    ASSERT_TRUE(fd >= 0 && ftruncate(fd, 100) == 0 && pwrite(fd, old.data(), 6, 0) == 6);
    close(fd);
    EXPECT_TRUE(app.Next(nullptr, 2500).empty());
    EXPECT_TRUE(notices.Receive(100).empty());
    camera.StartKeepAlive();
    EXPECT_EQ(app.StatusLineWith("", 4000), kEmptyStatusText);
    const uint16_t status_port = app.command_port();

    // Each second one status line and five all-zero state messages, nothing else.
    Bytes empty_state(39, 0);
    empty_state[0] = 6;
    size_t lines = 0, states = 0, others = 0;
    for (auto end = Clock::now() + std::chrono::seconds(3); Clock::now() < end;) {
        Bytes datagram = app.Next(nullptr, 50);
        if (!datagram.empty())
            ++(datagram[0] == 7 ? lines : datagram == empty_state ? states : others);
    }
    EXPECT_TRUE(lines >= 2 && lines <= 4) << lines;
    EXPECT_TRUE(states >= 12 && states <= 17) << states;
    EXPECT_EQ(others, 0u);
    uint16_t notice_port = 0;
    Bytes notice = notices.Receive(1500, &notice_port);
    EXPECT_EQ(std::string(notice.begin(), notice.end()), "rec_inactive");
    EXPECT_NE(notice_port, status_port) << "the notice leaves from a socket of its own";

    Send({Kind::kBattery}, CameraReportValues());
    ASSERT_TRUE(daemon.WaitForStderr("Shared cam state mem opened\n", 3000)) << daemon.Stderr();
    EXPECT_EQ(daemon.Stderr().find("Creating new shared cam state"), std::string::npos);
    EXPECT_EQ(AttitudeRegion(), old);
    shm_unlink("/shared_camstate");
}

// Also the attitude region, the lock commanded back through the status source port, the notice and the histogram's
// ageing.
TEST_F(StatusReportTest, BinaryMessagesByteForByte)
{
    camera.StartKeepAlive();
    CameraReportValues v;
    v.camera_flags = 0x80, v.aux_1 = 0x31, v.aux_2 = 0x02, v.resolution_code = 10, v.zoom = 150, v.ae_aux = 0x58;
    v.angle0 = -1800, v.angle1 = -300, v.angle2 = 25, v.gimbal_state_bits = 0x12;
    v.focus_mode = 0x84, v.focus_param_1 = 7, v.focus_param_3 = 9, v.focus_x = 0.25f, v.focus_y = -0.5f;
    v.focus_param_21 = 0x21, v.focus_param_31 = 0x31;
    Send({Kind::kCameraInfo, Kind::kSettings, Kind::kGimbalAttitude, Kind::kGimbalState, Kind::kFocus}, v);
    Bytes expected = {
        0x06, 0x00, 0x01,                                // lock 0 | mode flag 1
        0xf8, 0xf8, 0x24, 0xfa, 0xe7, 0xff,              // attitude -1800, -1500 (folded), -25 (negated)
        0x80, 0x31, 0x02, 0x01, 0x84, 0x00,              // flags, aux 1, aux 2, focus reported, MF, 0
        0x07, 0x00, 0x09, 0x00, 0xfa, 0x00, 0x00, 0x00,  // focus params 1, 3; point 250, 0 (negative)
        0x21, 0x31, 0x58,                                // focus params 21, 31; ae_aux
        0x18, 0xff, 0x49, 0x00, 0x9a, 0xff, 0x34, 0x00,  // limits 1, 0, 3, 2
        0x96, 0x00, 0x90, 0x01,                          // zoom 150 of 400 (video, 1920x1080)
        0x05,                                            // bit1 x 4 + bit4
    };
    EXPECT_EQ(app.Binary(0, 3000, [&](const Bytes& m) { return m == expected; }), expected);
    EXPECT_EQ(AttitudeRegion(), Bytes(expected.begin() + 3, expected.begin() + 9));
    EXPECT_NE(daemon.Stderr().find("Creating new shared cam state\n"), std::string::npos);
    EXPECT_TRUE(NoticeTurns("rec_active"));

    // Mode flag 0 and gimbal bit 5 only; the lock requested shows in byte 2.
    v.attitude_mode_bits = 0x80, v.gimbal_state_bits = 0x20;
    Send({Kind::kGimbalAttitude, Kind::kGimbalState}, v);
    EXPECT_FALSE(app.Binary(0, 3000, [](const Bytes& m) { return m[2] == 0 && m[38] == 2; }).empty());
    app.SendJson(R"({"cmd":"orientation","param":"lock"})");
    EXPECT_FALSE(app.Binary(0, 3000, [](const Bytes& m) { return m[2] == 1 && m[38] == 2; }).empty());

    // Tracking and histogram messages come with their reports.
    v.tracking_subject = true, v.tracking_x = 0.5f, v.tracking_y = 0.25f, v.tracking_w = 0.1f, v.tracking_h = 1.0f;
    for (size_t i = 0; i < kHistogramBinCount; ++i)
        v.histogram[i] = static_cast<uint8_t>(i * 4);
    auto sent_at = Clock::now();
    Send({Kind::kTracking, Kind::kHistogram}, v);
    EXPECT_EQ(app.Binary(2, 3000), (Bytes{0x06, 0x02, 0x01, 0xff, 0x7f, 0xff, 0x3f, 0x99, 0x19, 0xff, 0xff}));
    Bytes histogram = {0x06, 0x01};
    histogram.insert(histogram.end(), v.histogram, v.histogram + kHistogramBinCount);
    EXPECT_EQ(app.Binary(1, 3000), histogram);
    EXPECT_NE(app.StatusLineWith("histogram=1,", 3000), "");
    v.camera_flags = 0xc0;
    Send({Kind::kCameraInfo}, v);
    EXPECT_TRUE(NoticeTurns("rec_inactive"));

    // The histogram ages out about 3 s after its report: no more messages, and the status line shows 0.
    auto last = sent_at;
    while (Clock::now() < sent_at + std::chrono::seconds(5))
        if (!app.Binary(1, 100).empty())
            last = Clock::now();
    auto lasted = std::chrono::duration_cast<std::chrono::milliseconds>(last - sent_at).count();
    EXPECT_TRUE(lasted >= 2500 && lasted <= 3800) << lasted;
    EXPECT_NE(app.StatusLineWith("histogram=0,", 3000), "");
}

// Then junk and corrupt frames change nothing that the main application sees.
TEST_F(StatusReportTest, ReportsShowInTheStatusLineAndJunkChangesNothing)
{
    camera.StartKeepAlive();
    const Kind kinds[] = {Kind::kCameraInfo, Kind::kSettings, Kind::kBattery, Kind::kGimbalAttitude};
    CameraReportValues v, other;
    v.sd_free_mb = 29700, v.shots_left = 512, v.rec_time_left_s = 3725, v.rec_time_s = 61;
    v.shot_mode_code = 2, v.resolution_code = 24, v.frame_rate_code = 6, v.aperture = 280;
    v.shutter = 0x0080fa, v.shutter_set = 0x020003, v.iso = 800, v.iso_set_code = 6, v.ev_code = 14;
    v.exposure_program = 4, v.color_mode_code = 6, v.white_balance_code = 3, v.white_balance_temperature = 43;
    v.sensor_code = 5, v.video_standard_bits = 1, v.antiflicker_code = 2, v.ae_lock = 1;
    v.battery_level = -5, v.battery_charging = 1, v.angle0 = 77;
    v.playback_state = 3, v.playback_clip = 12, v.playback_duration_ms = 95000, v.playback_position_ms = 61999;
    other.model = 24, other.battery_level = 99, other.iso_set_code = 9, other.angle0 = 555;
    Send({kinds[0], kinds[1], kinds[2], kinds[3], Kind::kPlayback}, v);
    const std::string before = app.StatusLineWith("camera_detected=1", 4000);
    EXPECT_EQ(before,
              "camera_detected=1,camera_model=DJI Pocket 2,camera_mode=video,sd=29.7G,shots_left=512,"
              "rec_time_left=01:02:05,rec_time=00:01:01,voltage=0,battery_level=-5,battery_charging=1,"
              "shot_mode=JPG+RAW,resolution=2704x1520,framerate=60,format=2704x1520@60,ae=1,aperture=2.8,"
              "shutter=1/250,shutter_set=3.2\",iso=800,iso_set=800,ev=-0.7,image_mode=manual,"
              "color_mode=d-cinelike,wb=custom,wb_temp=4300,ratio=4:3,sensor=64,video_std=NTSC,"
              "antiflicker=60 Hz,histogram=0,pl_state=paused,pl_id=12,pl_dur=00:01:35,pl_time=00:01:01,")
        << daemon.Stderr();
    EXPECT_TRUE(daemon.WaitForStderr("54 bytes: 0x55,0x36,0x04,", 1000)) << "the playback frame is logged";
    const Bytes state_before = app.Binary(0, 3000, [](const Bytes& m) { return m[3] == 77; });
    ASSERT_FALSE(state_before.empty());

    // Each kind with other values, corrupt in its header check byte, its body or its CRC16.
    for (Kind kind : kinds)
        for (size_t at : {3, 20, 0}) {
            Bytes frame = CameraReport(kind, other);
            frame[at == 0 ? frame.size() - 1 : at] ^= 0x01;
            camera.SendReports({frame});
        }
    // Random junk, dense in start bytes.
    std::mt19937 random(99);
    for (int i = 0; i < 20; ++i) {
        Bytes junk(600 + random() % 900);
        for (uint8_t& byte : junk)
            byte = random() % 3 == 0 ? 0x55 : static_cast<uint8_t>(random());
        camera.SendPayload(junk);
    }
    // A good frame cut by the end of a block: its rest comes with the next block; neither half is decoded.
    Bytes info = CameraReport(Kind::kCameraInfo, other);
    ASSERT_GT(info.size(), 40u);
    Bytes first(kTelemetryBlockThreshold + 1, 0);
    std::copy(info.begin(), info.begin() + 40, first.end() - 40);
    camera.SendPayload(first);
    camera.SendReports({Bytes(info.begin() + 40, info.end())});

    app.StatusLineWith("", 3000);
    EXPECT_EQ(app.StatusLineWith("", 3000), before);
    EXPECT_EQ(app.Binary(0, 3000), state_before);
    EXPECT_EQ(daemon.WaitExit(0), -1) << "still running";
}

// A subject tracked, then lost for more than two seconds, is tracked again with the last box.
TEST_F(StatusReportTest, LostSubjectIsTrackedAgain)
{
    camera.StartKeepAlive();
    CameraReportValues v;
    v.tracking_subject = true, v.tracking_x = 0.7f, v.tracking_y = 0.4f, v.tracking_w = 0.3f, v.tracking_h = 0.3f;
    auto tracked_at = Clock::now();
    Send({Kind::kTracking}, v);
    v.tracking_subject = false;
    Send({Kind::kTracking}, v);
    ASSERT_TRUE(daemon.WaitForStderr("Waiting restore tracking ", 2000)) << daemon.Stderr();
    EXPECT_TRUE(camera.NextFrame(300).empty()) << "not at once";

    std::this_thread::sleep_until(tracked_at + std::chrono::milliseconds(2500));
    Send({Kind::kTracking}, v);
    EXPECT_EQ(MaskedFrameHex(camera.NextFrame(3000)), ExpectedFrameHex(0x02, 0xa6, std::string(42, '0')));
    // 01 00 00 0e 00, then 0.7, 0.4, 0.1, 0.2 as IEEE-754 singles.
    EXPECT_EQ(MaskedFrameHex(camera.NextFrame(3000)),
              ExpectedFrameHex(0x02, 0xa6, "01 00 00 0e 00 33 33 33 3f cd cc cc 3e cd cc cc 3d cd cc 4c 3e"));
    EXPECT_TRUE(daemon.WaitForStderr("Restore tracking...\nStop tracking\nStart tracking 0.7 0.4 0.1 0.2\n", 2000))
        << daemon.Stderr();
}

}  // namespace
