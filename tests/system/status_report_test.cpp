// The status report end to end: a fake camera sends telemetry through the
// daemon's real camera socket; a peer at the main application's address
// (127.0.0.1:5000 by default) checks the status line text and the binary
// messages byte for byte, another the recording notices on port 5255, and
// the test reads the shared attitude region "/shared_camstate".
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <thread>

#include "camera/crc.h"
#include "camera/frame.h"
#include "camera/reassembly.h"
#include "state/report_layout.h"
#include "support/child_process.h"
#include "support/isolation.h"
#include "support/reporting_camera.h"
#include "support/udp_peer.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr uint16_t kMainAppPort = 5000;
constexpr uint16_t kNoticePort = 5255;

const char kEmptyStatusText[] =
    "camera_detected=0,camera_model=,camera_mode=,sd=,shots_left=0,rec_time_left=,rec_time=,"
    "voltage=0,battery_level=0,battery_charging=0,shot_mode=,resolution=,framerate=,format=@,ae=0,"
    "aperture=,shutter=,shutter_set=,iso=0,iso_set=,ev=,image_mode=,color_mode=,wb=,wb_temp=0,"
    "ratio=,sensor=0,video_std=,antiflicker=,histogram=0,pl_state=,pl_id=0,pl_dur=,pl_time=,";

bool IsStatusLine(const Bytes& datagram) { return !datagram.empty() && datagram[0] == 7; }
bool IsBinary(const Bytes& datagram, uint8_t kind) { return datagram.size() >= 2 && datagram[0] == 6 && datagram[1] == kind; }
std::string Text(const Bytes& status_line) { return std::string(status_line.begin() + 1, status_line.end()); }

class StatusReportTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port())));
        ASSERT_TRUE(camera.AwaitDaemon(5000)) << daemon.Stderr();
    }

    // The next status line whose text contains `needle`.
    std::string StatusLineWith(const std::string& needle, int timeout_ms = 4000)
    {
        auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
        while (Clock::now() < deadline) {
            Bytes datagram = main_app.Receive(200);
            if (IsStatusLine(datagram) && Text(datagram).find(needle) != std::string::npos)
                return Text(datagram);
        }
        ADD_FAILURE() << "no status line with " << needle << "\n" << daemon.Stderr();
        return {};
    }

    // The next binary message of `kind` for which `accept` holds.
    template <typename Accept>
    Bytes BinaryMessage(uint8_t kind, Accept accept, int timeout_ms = 3000)
    {
        auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
        while (Clock::now() < deadline) {
            Bytes datagram = main_app.Receive(200);
            if (IsBinary(datagram, kind) && accept(datagram))
                return datagram;
        }
        return {};
    }
    Bytes BinaryMessage(uint8_t kind) { return BinaryMessage(kind, [](const Bytes&) { return true; }); }
    // Waits for the notice `text` on the notice port.
    void ExpectNotice(const std::string& text)
    {
        std::string notice;
        for (int i = 0; i < 10 && notice != text; ++i) {
            Bytes datagram = notices.Receive(1000);
            notice.assign(datagram.begin(), datagram.end());
        }
        EXPECT_EQ(notice, text);
    }

    // Everything the main application gets during `ms`.
    std::vector<Bytes> Collect(int ms)
    {
        std::vector<Bytes> all;
        auto deadline = Clock::now() + std::chrono::milliseconds(ms);
        while (Clock::now() < deadline) {
            Bytes datagram = main_app.Receive(50);
            if (!datagram.empty())
                all.push_back(datagram);
        }
        return all;
    }

    UdpPeer main_app{kMainAppPort};
    UdpPeer notices{kNoticePort};
    ReportingCamera camera;
    ChildProcess daemon;
};

// ---------------------------------------------------------------------------

TEST_F(StatusReportTest, NothingBeforeTheDataStreamThenTheEmptyRecord)
{
    // The camera has answered nothing yet: no status, no notice.
    EXPECT_TRUE(main_app.Receive(2500).empty());
    EXPECT_TRUE(notices.Receive(100).empty());

    camera.StartKeepAlive();
    uint16_t status_port = 0;
    Bytes line;
    auto deadline = Clock::now() + std::chrono::seconds(4);
    while (!IsStatusLine(line) && Clock::now() < deadline)
        line = main_app.Receive(500, &status_port);
    ASSERT_TRUE(IsStatusLine(line));
    EXPECT_EQ(Text(line), kEmptyStatusText);

    // With no histogram or tracking report, each binary tick is one state
    // message; per second: one status line and five state messages.
    std::vector<Bytes> second = Collect(3000);
    Bytes empty_state(39, 0);
    empty_state[0] = 6;
    size_t status_lines = 0, states = 0, others = 0;
    for (const Bytes& datagram : second)
        ++(IsStatusLine(datagram) ? status_lines : datagram == empty_state ? states : others);
    EXPECT_GE(status_lines, 2u);
    EXPECT_LE(status_lines, 4u);
    EXPECT_GE(states, 12u);
    EXPECT_LE(states, 17u);
    EXPECT_EQ(others, 0u);

    // The notice: "rec_inactive" from a port of its own.
    uint16_t notice_port = 0;
    Bytes notice = notices.Receive(1500, &notice_port);
    EXPECT_EQ(std::string(notice.begin(), notice.end()), "rec_inactive");
    EXPECT_NE(notice_port, 0);
    EXPECT_NE(notice_port, status_port);
}

TEST_F(StatusReportTest, ReportsShowInTheStatusLine)
{
    camera.StartKeepAlive();
    CameraReportValues v;
    v.model = 47, v.mode = 1, v.sd_free_mb = 29700, v.shots_left = 512, v.rec_time_left_s = 3725, v.rec_time_s = 61;
    v.shot_mode_code = 2, v.resolution_code = 24, v.frame_rate_code = 6, v.aperture = 280, v.shutter = 0x0080fa;
    v.shutter_set = 0x020003, v.iso = 800, v.iso_set_code = 6, v.ev_code = 14, v.exposure_program = 4;
    v.color_mode_code = 6, v.white_balance_code = 3, v.white_balance_temperature = 43, v.ratio_code = 0;
    v.sensor_code = 5, v.video_standard_bits = 1, v.antiflicker_code = 2, v.ae_lock = 1, v.battery_level = 57;
    v.battery_charging = 1, v.playback_state = 3, v.playback_clip = 12, v.playback_duration_ms = 95000;
    v.playback_position_ms = 61999;
    camera.SendFrames({CameraReport(CameraReportKind::kCameraInfo, v), CameraReport(CameraReportKind::kSettings, v),
                       CameraReport(CameraReportKind::kBattery, v), CameraReport(CameraReportKind::kPlayback, v)});
    EXPECT_EQ(StatusLineWith("camera_detected=1"),
              "camera_detected=1,camera_model=DJI Pocket 2,camera_mode=video,sd=29.7G,shots_left=512,"
              "rec_time_left=01:02:05,rec_time=00:01:01,voltage=0,battery_level=57,battery_charging=1,"
              "shot_mode=JPG+RAW,resolution=2704x1520,framerate=60,format=2704x1520@60,ae=1,aperture=2.8,"
              "shutter=1/250,shutter_set=3.2\",iso=800,iso_set=800,ev=-0.7,image_mode=manual,"
              "color_mode=d-cinelike,wb=custom,wb_temp=4300,ratio=4:3,sensor=64,video_std=NTSC,"
              "antiflicker=60 Hz,histogram=0,pl_state=paused,pl_id=12,pl_dur=00:01:35,pl_time=00:01:01,");
    EXPECT_TRUE(daemon.WaitForStderr("54 bytes: 0x55,0x36,0x04,", 1000)) << "the playback frame is logged";

    // A second camera information report replaces the model; the camera
    // stays detected.
    v.model = 99;
    v.mode = 0;
    camera.SendFrames({CameraReport(CameraReportKind::kCameraInfo, v)});
    std::string line = StatusLineWith("camera_model=Unknown camera (99)");
    EXPECT_NE(line.find("camera_detected=1,camera_model=Unknown camera (99),camera_mode=photo,"), std::string::npos)
        << line;
}

TEST_F(StatusReportTest, BinaryMessagesByteForByteAndTheRecordingNotice)
{
    camera.StartKeepAlive();
    CameraReportValues v;
    v.camera_flags = 0x80, v.aux_1 = 0x31, v.aux_2 = 0x02, v.mode = 1, v.zoom = 150, v.ae_aux = 0x58;  // recording
    v.resolution_code = 10;  // zoom_max 400 in video
    v.angle0 = -1800, v.angle1 = -300, v.angle2 = 25;  // shown as -1800, -1500, -25
    v.attitude_mode_bits = 0x00, v.gimbal_state_bits = 0x12;  // bits 1 and 4
    v.focus_mode = 0x84, v.focus_param_1 = 7, v.focus_param_3 = 9, v.focus_x = 0.25f, v.focus_y = 0.5f;
    v.focus_param_21 = 0x21, v.focus_param_31 = 0x31;
    camera.SendFrames({CameraReport(CameraReportKind::kCameraInfo, v), CameraReport(CameraReportKind::kSettings, v),
                       CameraReport(CameraReportKind::kGimbalAttitude, v),
                       CameraReport(CameraReportKind::kGimbalState, v), CameraReport(CameraReportKind::kFocus, v)});
    const Bytes expected_state = {
        0x06, 0x00, 0x01,                                // lock 0 | mode flag 1
        0xf8, 0xf8, 0x24, 0xfa, 0xe7, 0xff,              // -1800, -1500, -25
        0x80, 0x31, 0x02, 0x01, 0x84, 0x00,              // flags, aux, focus reported, MF
        0x07, 0x00, 0x09, 0x00, 0xfa, 0x00, 0xf4, 0x01,  // params 1, 3; point 250, 500
        0x21, 0x31, 0x58,                                // params 21, 31; ae_aux
        0x18, 0xff, 0x49, 0x00, 0x9a, 0xff, 0x34, 0x00,  // limits 1, 0, 3, 2
        0x96, 0x00, 0x90, 0x01,                          // zoom 150 of 400
        0x05,                                            // bit1 x 4 + bit4
    };
    Bytes state = BinaryMessage(0, [&](const Bytes& m) { return m == expected_state; });
    EXPECT_EQ(state, expected_state);
    ExpectNotice("rec_active");
    // The attitude is published in the shared region, 3 x i16.
    int fd = shm_open("/shared_camstate", O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(lseek(fd, 0, SEEK_END), 6);
    uint8_t region[6];
    ASSERT_EQ(pread(fd, region, sizeof region, 0), 6);
    close(fd);
    EXPECT_EQ(Bytes(region, region + 6), (Bytes{0xf8, 0xf8, 0x24, 0xfa, 0xe7, 0xff}));
    EXPECT_TRUE(daemon.WaitForStderr("Creating new shared cam state\n", 100));

    // Tracking and histogram messages appear with their reports.
    v.tracking_subject = true, v.tracking_x = 0.5f, v.tracking_y = 0.25f, v.tracking_w = 0.1f, v.tracking_h = 1.0f;
    for (size_t i = 0; i < kHistogramBinCount; ++i)
        v.histogram[i] = static_cast<uint8_t>(i * 4);
    camera.SendFrames({CameraReport(CameraReportKind::kTracking, v), CameraReport(CameraReportKind::kHistogram, v)});
    const Bytes expected_tracking = {0x06, 0x02, 0x01, 0xff, 0x7f, 0xff, 0x3f, 0x99, 0x19, 0xff, 0xff};
    EXPECT_EQ(BinaryMessage(2), expected_tracking);
    Bytes histogram = BinaryMessage(1);
    ASSERT_EQ(histogram.size(), 66u);
    EXPECT_EQ(Bytes(histogram.begin() + 2, histogram.end()), Bytes(v.histogram, v.histogram + 64));

    // Recording stops: the notice follows.
    v.camera_flags = 0xc0;
    camera.SendFrames({CameraReport(CameraReportKind::kCameraInfo, v)});
    ExpectNotice("rec_inactive");
}

TEST_F(StatusReportTest, HistogramAgesOutAfterThreeSeconds)
{
    camera.StartKeepAlive();
    CameraReportValues v;
    v.histogram[5] = 200;
    camera.SendFrames({CameraReport(CameraReportKind::kHistogram, v)});
    auto sent_at = Clock::now();
    ASSERT_EQ(BinaryMessage(1).size(), 66u);
    StatusLineWith("histogram=1,");

    // The last histogram message comes no later than about 3.1 s after the report.
    auto last_histogram = sent_at;
    auto deadline = sent_at + std::chrono::milliseconds(5000);
    while (Clock::now() < deadline) {
        Bytes datagram = main_app.Receive(100);
        if (IsBinary(datagram, 1))
            last_histogram = Clock::now();
    }
    auto lasted = std::chrono::duration_cast<std::chrono::milliseconds>(last_histogram - sent_at).count();
    EXPECT_GE(lasted, 2500);
    EXPECT_LE(lasted, 3800);
    StatusLineWith("histogram=0,");
}

// A region left by an earlier run is opened, not recreated, sized to 6
// bytes again, and keeps its contents until the first attitude report.
TEST(StatusSharedRegion, ExistingRegionIsReused)
{
    REQUIRE_ISOLATION();
    int fd = shm_open("/shared_camstate", O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 100), 0);
    const uint8_t old[6] = {1, 2, 3, 4, 5, 6};
    ASSERT_EQ(pwrite(fd, old, sizeof old, 0), 6);

    ReportingCamera camera;
    UdpPeer main_app(kMainAppPort);
    ChildProcess daemon;
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port())));
    ASSERT_TRUE(camera.AwaitDaemon(5000));
    camera.StartKeepAlive();
    CameraReportValues v;
    v.battery_level = 10;
    camera.SendFrames({CameraReport(CameraReportKind::kBattery, v)});
    ASSERT_TRUE(daemon.WaitForStderr("Shared cam state mem opened\n", 3000)) << daemon.Stderr();
    EXPECT_EQ(daemon.Stderr().find("Creating new shared cam state"), std::string::npos);
    EXPECT_EQ(lseek(fd, 0, SEEK_END), 6);
    uint8_t region[6];
    ASSERT_EQ(pread(fd, region, sizeof region, 0), 6);
    EXPECT_EQ(Bytes(region, region + 6), Bytes(old, old + 6));
    close(fd);
    shm_unlink("/shared_camstate");
}

// Junk, short, corrupt and cut frames in the stream change nothing that the
// main application sees.
TEST_F(StatusReportTest, JunkShortAndCorruptFramesChangeNothing)
{
    camera.StartKeepAlive();
    CameraReportValues v;
    v.model = 24, v.mode = 0, v.battery_level = 42, v.iso_set_code = 5, v.angle0 = 77;
    camera.SendFrames({CameraReport(CameraReportKind::kCameraInfo, v), CameraReport(CameraReportKind::kSettings, v),
                       CameraReport(CameraReportKind::kBattery, v), CameraReport(CameraReportKind::kGimbalAttitude, v)});
    std::string before = StatusLineWith("camera_model=DJI Pocket Osmo");
    Bytes state_before = BinaryMessage(0, [](const Bytes& m) { return m.size() == 39 && m[3] == 77; });
    ASSERT_FALSE(state_before.empty());

    CameraReportValues other;
    other.model = 47, other.battery_level = 99, other.iso_set_code = 9, other.angle0 = 555;
    std::vector<Bytes> bad;
    for (CameraReportKind kind : {CameraReportKind::kCameraInfo, CameraReportKind::kSettings,
                                  CameraReportKind::kBattery, CameraReportKind::kGimbalAttitude}) {
        Bytes good = CameraReport(kind, other);
        for (size_t byte : {size_t{3}, size_t{20}, good.size() - 1}) {  // header checksum, body, frame checksum
            bad.push_back(good);
            bad.back()[byte] ^= 0x41;
        }
    }
    camera.SendFrames(bad);
    // Length bytes 0 to 9 with their checksums right where they fit.
    for (uint8_t length = 0; length < 10; ++length) {
        Bytes frame = {0x55, length, 0x04, 0, 0, 0, 0, 0, 0, 0};
        frame[3] = Crc8(frame.data(), 3);
        if (length >= 6)
            WriteLe16(frame.data() + length - 2, Crc16(frame.data(), length - 2));
        camera.SendFrames({frame});
    }
    // Random junk, dense in start bytes.
    std::mt19937 random(99);
    for (int i = 0; i < 20; ++i) {
        Bytes junk(600 + random() % 900);
        for (uint8_t& byte : junk)
            byte = random() % 3 == 0 ? 0x55 : static_cast<uint8_t>(random());
        camera.SendPayload(junk);
    }
    // A good frame cut by the end of a block: the block ends, the rest
    // arrives with the next one; neither half is decoded.
    Bytes info = CameraReport(CameraReportKind::kCameraInfo, other);
    Bytes first(kTelemetryBlockThreshold + 1, 0);
    std::copy(info.begin(), info.begin() + 40, first.end() - 40);
    camera.SendPayload(first);
    Bytes second(info.begin() + 40, info.end());
    second.resize(kTelemetryBlockThreshold + 1, 0);
    camera.SendPayload(second);

    // Two more status lines later, everything reads as before.
    StatusLineWith("camera_detected=1");
    EXPECT_EQ(StatusLineWith("camera_detected=1"), before);
    Bytes state_after = BinaryMessage(0);
    EXPECT_EQ(state_after, state_before);
    EXPECT_EQ(daemon.WaitExit(0), -1) << "still running";
}

// A subject tracked and then lost for more than two seconds is tracked
// again: the camera receives the stop and start frames with the last box.
TEST_F(StatusReportTest, LostSubjectIsTrackedAgain)
{
    camera.StartKeepAlive();
    CameraReportValues v;
    v.tracking_subject = true, v.tracking_x = 0.7f, v.tracking_y = 0.4f, v.tracking_w = 0.3f, v.tracking_h = 0.3f;
    camera.SendFrames({CameraReport(CameraReportKind::kTracking, v)});
    v.tracking_subject = false;
    auto lost_at = Clock::now();
    camera.SendFrames({CameraReport(CameraReportKind::kTracking, v)});
    ASSERT_TRUE(daemon.WaitForStderr("Waiting restore tracking ", 2000)) << daemon.Stderr();
    EXPECT_EQ(daemon.Stderr().find("Restore tracking...\n"), std::string::npos) << "not at once";

    while (Clock::now() - lost_at < std::chrono::milliseconds(2300))
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    camera.SendFrames({CameraReport(CameraReportKind::kTracking, v)});
    ASSERT_TRUE(daemon.WaitForStderr("Restore tracking...\n", 2000)) << daemon.Stderr();
    EXPECT_TRUE(daemon.WaitForStderr("Start tracking 0.7 0.4 0.1 0.2\n", 2000)) << daemon.Stderr();

    // The start frame: 34 bytes, 02/A6, 01 00 00 0E 00, then x, y, w, h.
    auto deadline = Clock::now() + std::chrono::seconds(3);
    Bytes start;
    while (start.empty() && Clock::now() < deadline) {
        Bytes datagram = camera.fake().socket().Receive(200);
        if (datagram.size() == kCommandHeaderSize + 34 && datagram[kCommandHeaderSize + 9] == 0x02 &&
            datagram[kCommandHeaderSize + 10] == 0xa6 && datagram[kCommandHeaderSize + 11] == 0x01)
            start = datagram;
    }
    ASSERT_FALSE(start.empty());
    const uint8_t* payload = start.data() + kCommandHeaderSize + kFramePayloadOffset;
    const uint8_t head[] = {0x01, 0x00, 0x00, 0x0e, 0x00};
    EXPECT_EQ(0, memcmp(payload, head, sizeof head));
    const float box[4] = {0.7f, 0.4f, 0.1f, 0.2f};
    EXPECT_EQ(0, memcmp(payload + 5, box, sizeof box));
}

}  // namespace
