// The remote control, end to end: the real daemon between a camera that
// reports its state and takes commands, and a main application that chooses
// the movement mode and the zoom rate; the writer tool plays the
// remote-control reader and works the slots of "/shared_rc_raw". Each test
// checks the command frames that reach the camera byte for byte (sequence
// number and CRC16 masked, the CRC16 checked), built from the documented
// command set, id and payload of each command.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "state/report_layout.h"
#include "support/child_process.h"
#include "support/command_peers.h"
#include "support/isolation.h"
#include "support/rc_writer.h"

namespace {

constexpr const char* kObjectPath = "/dev/shm/shared_rc_raw";
constexpr int kFirstFrameMs = 4000;   // covers the 1 s cycle before a movement mode is chosen
constexpr int kQuietMs = 400;         // 20 cycles at the fast period
constexpr int kIdleCycleMs = 1000;    // the cycle period before a movement mode is chosen
constexpr int kIdleQuietMs = 1600;    // more than one slow cycle

// Payload bytes of a little-endian 16-bit value, as hex.
std::string Le16(int value)
{
    char text[8];
    snprintf(text, sizeof text, "%02x %02x", value & 0xff, (value >> 8) & 0xff);
    return text;
}

// Frames of the commands the remote control causes.
std::string NextPositionFrame() { return ExpectedFrameHex(0x04, 0x4c, "fe 09"); }
std::string ZoomFrame(int zoom) { return ExpectedFrameHex(0x02, 0x34, "09 00 00 " + Le16(zoom - 100)); }
std::string SpeedFrame(int a, int b, int c)
{
    return ExpectedFrameHex(0x04, 0x0c, Le16(a) + " " + Le16(c) + " " + Le16(b) + " 90");
}
std::string AngleFrame(int a, int b, int c)
{
    return ExpectedFrameHex(0x04, 0x0a, Le16(a) + " " + Le16(c) + " " + Le16(b) + " 64 00 e0 04");
}
std::string RecordFrame(bool start) { return ExpectedFrameHex(0x02, 0x02, start ? "01" : "00"); }
std::string ShotFrame() { return ExpectedFrameHex(0x02, 0x01, "01"); }
std::string EvFrame(int code) { return ExpectedFrameHex(0x02, 0x2e, Le16(code).substr(0, 2)); }
std::string TrackingStopFrame()
{
    return ExpectedFrameHex(0x02, 0xa6, "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
}
std::string TrackingStartFrame()  // box 0.5, 0.5, 0.1, 0.17 as f32
{
    return ExpectedFrameHex(0x02, 0xa6, "01 00 00 0e 00  00 00 00 3f  00 00 00 3f  cd cc cc 3d  7b 14 2e 3e");
}

// The zoom a digital-zoom frame commands, or -1 for another frame.
int ZoomOf(const std::string& frame)
{
    for (int zoom = 100; zoom <= 800; ++zoom)
        if (frame == ZoomFrame(zoom))
            return zoom;
    return -1;
}

Bytes Report(CameraReportKind kind, const CameraReportValues& values)
{
    Bytes frame(kFrameMaximumSize);
    frame.resize(BuildCameraReport(kind, values, frame.data(), frame.size(), 1));
    return frame;
}

CameraReportValues CameraInMode(uint8_t mode)
{
    CameraReportValues values;
    values.mode = mode;
    return values;
}

size_t Count(const std::string& text, const std::string& what)
{
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++count;
    return count;
}

std::string Repeat(const std::string& frame, size_t times)
{
    std::string out;
    for (size_t i = 0; i < times; ++i)
        out += frame + "\n";
    return out;
}

// A received frame as masked hex; a frame with a bad checksum says so.
std::string FrameText(const Bytes& frame)
{
    return (FrameChecksumsGood(frame) ? "" : "BAD CHECKSUM ") + MaskedFrameHex(frame);
}

std::string Lines(const std::vector<std::string>& frames)
{
    std::string out;
    for (const std::string& frame : frames)
        out += frame + "\n";
    return out;
}

class RemoteControlTest : public ::testing::Test {
protected:
    void SetUp() override { REQUIRE_ISOLATION(); }

    // The daemon with its camera and main application, then the writer.
    void Start()
    {
        ASSERT_TRUE(rig.Start()) << rig.daemon.Stderr();
        ASSERT_TRUE(rc.Start());
    }

    // Chooses the movement mode and, the first time, waits out the slow cycle
    // that may be running (a press shorter than a cycle can go unseen).
    void Movement(const std::string& value)
    {
        rig.app.SendJson(JsonCommand({{"cmd", "set"}, {"name", "movement"}, {"value", value}}));
        if (!movement_chosen_)
            std::this_thread::sleep_for(std::chrono::milliseconds(kIdleCycleMs + 300));
        movement_chosen_ = true;
    }

    // Reports in one datagram, decoded by the daemon on arrival.
    void Reports(const std::vector<Bytes>& frames)
    {
        rig.SendReports(frames);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }

    void Write(const std::string& line) { ASSERT_TRUE(rc.Do(line)) << rc.process().Stdout() << rc.process().Stderr(); }

    // The frames that follow, until none has come for `quiet_ms` (the first
    // may take up to kFirstFrameMs), as masked hex.
    std::vector<std::string> FrameListAfter(int quiet_ms = kQuietMs, int first_ms = kFirstFrameMs)
    {
        std::vector<std::string> frames;
        int wait_ms = first_ms;
        for (;;) {
            Bytes frame = rig.camera.NextFrame(wait_ms);
            if (frame.empty())
                return frames;
            frames.push_back(FrameText(frame));
            wait_ms = quiet_ms;
        }
    }
    // The same, one per line.
    std::string FramesAfter(int quiet_ms = kQuietMs, int first_ms = kFirstFrameMs)
    {
        return Lines(FrameListAfter(quiet_ms, first_ms));
    }

    // Writes `line`, then expects exactly `frames`.
    void Expect(const std::string& line, const std::vector<std::string>& frames)
    {
        Write(line);
        EXPECT_EQ(FramesAfter(kQuietMs, frames.empty() ? kQuietMs : kFirstFrameMs), Lines(frames)) << line;
    }

    // Every frame that arrives within the next `window_ms`.
    std::vector<std::string> FramesFor(int window_ms)
    {
        std::vector<std::string> frames;
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(window_ms);
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                return frames;
            Bytes frame = rig.camera.NextFrame(static_cast<int>(left.count()));
            if (!frame.empty())
                frames.push_back(FrameText(frame));
        }
    }

    // Lets a change reach the next cycles, drops what came before it, and
    // expects nothing more for kQuietMs.
    void ExpectSilenceAfterChange()
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        FramesFor(100);
        EXPECT_EQ(Lines(FramesFor(kQuietMs)), "");
    }

    bool WaitForLogCount(const std::string& text, size_t count, int timeout_ms)
    {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (std::chrono::steady_clock::now() < end) {
            if (Count(rig.daemon.Stderr(), text) >= count)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

    // The `count` frames that follow, without waiting for quiet.
    std::vector<std::string> NextFrames(size_t count)
    {
        std::vector<std::string> frames;
        while (frames.size() < count) {
            Bytes frame = rig.camera.NextFrame(kFirstFrameMs);
            if (frame.empty())
                break;
            frames.push_back(FrameText(frame));
        }
        return frames;
    }

    CommandRig rig;
    RcWriter rc;

private:
    bool movement_chosen_ = false;
};

// ---------------------------------------------------------------------------
// The shared-memory object.

TEST_F(RemoteControlTest, MissingObjectIsCreatedZeroFilledAndCausesNothing)
{
    struct stat status;
    ASSERT_NE(stat(kObjectPath, &status), 0);
    ASSERT_TRUE(rig.Start()) << rig.daemon.Stderr();
    std::string log = rig.daemon.Stderr();
    EXPECT_EQ(Count(log, "Creating new shared raw RC\n"), 1u) << log;
    EXPECT_EQ(Count(log, "Shared raw RC mem opened\n"), 0u) << log;

    std::ifstream object(kObjectPath, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(object)), std::istreambuf_iterator<char>());
    EXPECT_EQ(bytes, std::string(1504, '\0'));

    // A record nobody writes sends nothing, before and after the movement
    // mode; with no tracking report ever, nothing is lost either.
    EXPECT_EQ(FramesAfter(kIdleQuietMs, kIdleQuietMs), "");
    Movement("rel");
    EXPECT_EQ(FramesAfter(kIdleQuietMs, kIdleQuietMs), "");
    EXPECT_EQ(Count(rig.daemon.Stderr(), "Tracking lost"), 0u);
}

TEST_F(RemoteControlTest, ExistingObjectIsOpenedResizedAndRead)
{
    // Left by a writer: 4096 bytes, its own bytes at the start, slot 4 held.
    {
        std::string bytes(4096, '\0');
        bytes.replace(0, 6, "writer");
        double held = 1.0;
        bytes.replace(1088, sizeof held, reinterpret_cast<const char*>(&held), sizeof held);
        std::ofstream object(kObjectPath, std::ios::binary);
        object.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    ASSERT_TRUE(rig.Start()) << rig.daemon.Stderr();
    EXPECT_EQ(FramesAfter(kIdleQuietMs), Lines({NextPositionFrame()})) << "held at start: fires once";
    std::string log = rig.daemon.Stderr();
    EXPECT_EQ(Count(log, "Shared raw RC mem opened\n"), 1u) << log;
    EXPECT_EQ(Count(log, "Creating new shared raw RC\n"), 0u) << log;

    struct stat status;
    ASSERT_EQ(stat(kObjectPath, &status), 0);
    EXPECT_EQ(status.st_size, 1504);
    std::ifstream object(kObjectPath, std::ios::binary);
    char start[6];
    object.read(start, sizeof start);
    EXPECT_EQ(std::string(start, sizeof start), "writer");
}

TEST_F(RemoteControlTest, ObjectThatCannotBeMappedIsRetriedQuietly)
{
    ASSERT_EQ(mkdir(kObjectPath, 0700), 0);  // neither opened nor created
    ASSERT_TRUE(rig.Start()) << rig.daemon.Stderr();
    ChildProcess blocked_tool;
    ASSERT_TRUE(blocked_tool.Start(ToolPath("rcwriter"), {"hold", "next-position", "1"}));
    EXPECT_EQ(blocked_tool.WaitExit(5000), 2);
    Movement("rel");
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // retries
    std::string log = rig.daemon.Stderr();
    EXPECT_EQ(Count(log, "Creating new shared raw RC\nShared raw RC unavailable, retrying\n"), 1u) << log;
    EXPECT_EQ(Count(log, "Creating new shared raw RC\n"), 1u) << "retries are quiet\n" << log;

    ASSERT_EQ(rmdir(kObjectPath), 0);
    ASSERT_TRUE(WaitForLogCount("Creating new shared raw RC\n", 2, 3000)) << rig.daemon.Stderr();
    ChildProcess tool;
    ASSERT_TRUE(tool.Start(ToolPath("rcwriter"), {"hold", "next-position", "1"}));
    EXPECT_EQ(tool.WaitExit(5000), 0) << tool.Stderr();
    EXPECT_EQ(tool.Stderr(), "") << "the daemon's object is used";
    EXPECT_EQ(FramesAfter(), Lines({NextPositionFrame()}));
    EXPECT_EQ(Count(rig.daemon.Stderr(), "unavailable"), 1u);
}

// ---------------------------------------------------------------------------
// Buttons and rockers.

TEST_F(RemoteControlTest, HeldButtonFiresOnceAndEachNewPressFiresAgain)
{
    Start();
    Movement("rel");
    Expect("hold next-position 1", {NextPositionFrame()});
    Expect("wait 300", {});                       // still held
    Expect("release next-position", {});
    Expect("hold next-position -1", {NextPositionFrame()});
    Expect("hold next-position 1", {NextPositionFrame()});  // a direct swing fires again
    Expect("hold next-position 0.001", {});
    Expect("set next-position nan", {});          // not a number counts as released
    Expect("hold next-position 1", {NextPositionFrame()});
    EXPECT_EQ(Count(rig.daemon.Stderr(), "Gimbal set next position\n"), 4u);
}

TEST_F(RemoteControlTest, BeforeTheMovementModeSlotsAreServedButSticksAndZoomRateWait)
{
    Start();
    Reports({Report(CameraReportKind::kCameraInfo, CameraInMode(1)), [] {
                 CameraReportValues values;
                 values.resolution_code = 10;  // 1920x1080 video: zoom up to 400
                 return Report(CameraReportKind::kSettings, values);
             }()});
    ASSERT_TRUE(rig.Send(JsonCommand({{"cmd", "dzoom"}, {"param", "set"}, {"value", "200"}})).complete);

    // Served once a second: a held button still fires once.
    Write("hold next-position 1");
    EXPECT_EQ(FramesAfter(kIdleQuietMs), Lines({NextPositionFrame()}));
    // Sticks and the zoom rate have no effect.
    Write("stick 0.5 0.5 0");
    rig.app.SendRaw({0x05, 0x01, 0x03, 0x00});
    EXPECT_EQ(FramesAfter(kIdleQuietMs, kIdleQuietMs), "");
    // A zoom slot still moves the zoom by its one step, and once more on release.
    Write("hold zoom-in 1");
    EXPECT_EQ(FramesAfter(kIdleQuietMs), Lines({ZoomFrame(201)}));
    Write("release zoom-in");
    EXPECT_EQ(FramesAfter(kIdleQuietMs), Lines({ZoomFrame(201)}));

    // Once the mode is chosen, the held sticks take effect.
    Movement("rel");
    std::string frames = Lines(FramesFor(1500));
    EXPECT_GE(Count(frames, SpeedFrame(500, 500, 0)), 10u) << frames;
    EXPECT_EQ(Count(frames, SpeedFrame(500, 500, 0)), Count(frames, "\n")) << frames;
}

// Each family: a next button, a previous button and a rocker. With nothing
// reported yet every setting text is empty, which steps as its first entry.
TEST_F(RemoteControlTest, StepButtonsAndRockers)
{
    Start();
    Movement("abs");
    const struct {
        const char* next_button;
        const char* prev_button;
        const char* rocker;
        std::vector<std::string> next;  // frames of the next step
        std::vector<std::string> prev;
        const char* prev_log;           // a line the previous step writes
    } families[] = {
        {"exposure-mode-next", "exposure-mode-prev", "exposure-mode", {ExpectedFrameHex(0x02, 0x1e, "02 00")},
         {ExpectedFrameHex(0x02, 0x1e, "04 00")}, "Camera set prev image mode\nCamera set image mode manual\n"},
        {"iso-next", "iso-prev", "iso", {ExpectedFrameHex(0x02, 0x2a, "03")}, {ExpectedFrameHex(0x02, 0x2a, "08")},
         "Camera set prev ISO\nCamera set iso 3200\n"},
        {"shutter-next", "shutter-prev", "shutter", {ExpectedFrameHex(0x02, 0x28, "01 07 00 00")},
         {ExpectedFrameHex(0x02, 0x28, "01 40 9f 00")},
         "Camera set prev shutter value\nnew shutter value = 1/8000\nCamera set shutter 1/8000\n"},
        {"color-next", "color-prev", "color", {ExpectedFrameHex(0x02, 0x42, "34")},
         {ExpectedFrameHex(0x02, 0x42, "34")}, "Camera set prev color mode\nSet color d-clike\n"},
        // Previous white balance is "custom" at 0 K (none commanded, none
        // reported): logged, not sent.
        {"wb-next", "wb-prev", "wb", {ExpectedFrameHex(0x02, 0x2c, "01 30")}, {},
         "Camera set prev WB\nCamera set WB custom\nCamera set WB temperature 0\n\n"},
        {"ev-next", "ev-prev", "ev", {EvFrame(8)}, {EvFrame(25)}, "Camera set prev EV\nCamera set EV 3.0\n"},
    };
    for (const auto& f : families) {
        SCOPED_TRACE(f.rocker);
        size_t log_start = rig.daemon.Stderr().size();
        Expect(std::string("hold ") + f.next_button + " 1", f.next);
        Expect(std::string("hold ") + f.prev_button + " 1", f.prev);
        Expect(std::string("release ") + f.next_button + " release " + f.prev_button, {});
        Expect(std::string("hold ") + f.rocker + " 1", f.next);     // up
        Expect(std::string("hold ") + f.rocker + " 1", {});         // held
        Expect(std::string("hold ") + f.rocker + " -1", f.prev);    // straight to down
        Expect(std::string("release ") + f.rocker, {});
        Expect(std::string("hold ") + f.rocker + " -1", f.prev);
        Expect(std::string("release ") + f.rocker, {});
        EXPECT_EQ(Count(rig.daemon.Stderr().substr(log_start), f.prev_log), 3u) << rig.daemon.Stderr().substr(log_start);
    }
}

// Buttons whose action depends on what the camera reported.
TEST_F(RemoteControlTest, ToggleButtonsFollowTheCameraState)
{
    Start();
    Movement("abs");
    CameraReportValues values;

    // Photo and video.
    Reports({Report(CameraReportKind::kCameraInfo, CameraInMode(1))});
    Expect("press mode", {ExpectedFrameHex(0x02, 0x10, "00", 0x09)});
    Reports({Report(CameraReportKind::kCameraInfo, CameraInMode(0))});
    Expect("press mode", {ExpectedFrameHex(0x02, 0x10, "01", 0x09)});
    Reports({Report(CameraReportKind::kCameraInfo, CameraInMode(7))});
    Expect("press mode", {});

    // Focus type: AFS and AFC swap; manual focus stays.
    Expect("press focus", {});  // none reported yet
    for (auto focus : {std::make_pair(0x85, "02"), std::make_pair(0x86, "01")}) {
        values.focus_mode = static_cast<uint8_t>(focus.first);
        Reports({Report(CameraReportKind::kFocus, values)});
        Expect("press focus", {ExpectedFrameHex(0x02, 0x24, focus.second)});
    }
    values.focus_mode = 0x84;
    Reports({Report(CameraReportKind::kFocus, values)});
    Expect("press focus", {});

    // Auto-exposure lock.
    Expect("press ae-lock", {ExpectedFrameHex(0x02, 0x68, "01")});  // unlocked (nothing reported)
    values.ae_lock = 1;
    Reports({Report(CameraReportKind::kSettings, values)});
    Expect("press ae-lock", {ExpectedFrameHex(0x02, 0x68, "00")});

    std::string log = rig.daemon.Stderr();
    EXPECT_EQ(Count(log, "Camera set mode photo\n"), 1u);
    EXPECT_EQ(Count(log, "Camera set mode video\n"), 1u);
    EXPECT_EQ(Count(log, "Camera set focus type afc\n"), 1u);
    EXPECT_EQ(Count(log, "Camera set focus type afs\n"), 1u);
    EXPECT_EQ(Count(log, "Set auto exposure locked\nSet auto exposure unlocked\n"), 1u) << log;
}

// ---------------------------------------------------------------------------
// The level slot.

TEST_F(RemoteControlTest, LevelSlotRecordsInVideoShootsInPhotoAndIsIdleInPlayback)
{
    Start();
    Movement("rel");
    Reports({Report(CameraReportKind::kCameraInfo, CameraInMode(1))});
    Expect("hold record 1", {RecordFrame(true)});
    Expect("wait 200", {});
    Expect("release record", {RecordFrame(false)});
    Expect("hold record 1", {RecordFrame(true)});
    Expect("hold record -1", {RecordFrame(true)});  // a second record start
    Expect("release record", {RecordFrame(false)});

    Reports({Report(CameraReportKind::kCameraInfo, CameraInMode(0))});
    Expect("hold record -1", {ShotFrame()});
    Expect("release record", {});
    Expect("hold record 1", {ShotFrame()});
    Expect("hold record -1", {ShotFrame()});
    Expect("release record", {});

    Reports({Report(CameraReportKind::kCameraInfo, CameraInMode(7))});
    Expect("hold record 1", {});
    Expect("release record", {});
    std::string log = rig.daemon.Stderr();
    EXPECT_EQ(Count(log, "Record start\n"), 3u);
    EXPECT_EQ(Count(log, "Record stop\n"), 2u);
    EXPECT_EQ(Count(log, "Camera shot\n"), 3u);
}

// ---------------------------------------------------------------------------
// Zoom.

TEST_F(RemoteControlTest, ZoomSlotsDriveContinuousZoomThroughZoomRate)
{
    Start();
    CameraReportValues settings;
    settings.resolution_code = 10;  // 1920x1080 video: zoom up to 400
    Reports({Report(CameraReportKind::kCameraInfo, CameraInMode(1)), Report(CameraReportKind::kSettings, settings)});
    ASSERT_TRUE(rig.Send(JsonCommand({{"cmd", "dzoom"}, {"param", "set"}, {"value", "100"}})).complete);
    Movement("abs");

    // In: the first cycle steps twice (slot, then ZoomRate), each later one once.
    Write("hold zoom-in 1");
    EXPECT_EQ(NextFrames(3), (std::vector<std::string>{ZoomFrame(101), ZoomFrame(102), ZoomFrame(103)}));
    // Released: ZoomRate goes to 0 and the zoom reached is sent once more.
    Write("release zoom-in");
    std::vector<int> zooms = {103};
    for (const std::string& frame : FrameListAfter())
        zooms.push_back(ZoomOf(frame));
    ASSERT_GE(zooms.size(), 2u);
    for (size_t i = 0; i + 1 < zooms.size(); ++i)
        EXPECT_EQ(zooms[i], 103 + static_cast<int>(i)) << "one step per cycle";
    int reached = zooms.back();
    EXPECT_EQ(reached, zooms[zooms.size() - 2]) << "the zoom reached is repeated once";

    // Out (slot 17): one step down per cycle.
    Write("hold zoom-out 1");
    EXPECT_EQ(NextFrames(3),
              (std::vector<std::string>{ZoomFrame(reached - 1), ZoomFrame(reached - 2), ZoomFrame(reached - 3)}));
    Write("release zoom-out");
    zooms = {reached - 3};
    for (const std::string& frame : FrameListAfter())
        zooms.push_back(ZoomOf(frame));
    ASSERT_GE(zooms.size(), 2u);
    for (size_t i = 0; i + 1 < zooms.size(); ++i)
        EXPECT_EQ(zooms[i], reached - 3 - static_cast<int>(i));
    reached = zooms.back();
    EXPECT_EQ(reached, zooms[zooms.size() - 2]);

    // The second zoom-in slot (18) climbs like the first.
    Write("hold zoom-in-2 1");
    EXPECT_EQ(NextFrames(3),
              (std::vector<std::string>{ZoomFrame(reached + 1), ZoomFrame(reached + 2), ZoomFrame(reached + 3)}));
    Write("release zoom-in-2");
    FrameListAfter();

    // The main application's zoom rate: -3 on every cycle until it is 0 again.
    ASSERT_TRUE(rig.Send(JsonCommand({{"cmd", "dzoom"}, {"param", "set"}, {"value", "300"}})).complete);
    rig.app.SendRaw({0x05, 0x01, 0xfd, 0xff});
    EXPECT_EQ(NextFrames(3), (std::vector<std::string>{ZoomFrame(297), ZoomFrame(294), ZoomFrame(291)}));
    rig.app.SendRaw({0x05, 0x01, 0x00, 0x00});
    FrameListAfter();
    // Near the top the command keeps the zoom at its limit (400 here).
    ASSERT_TRUE(rig.Send(JsonCommand({{"cmd", "dzoom"}, {"param", "set"}, {"value", "395"}})).complete);
    rig.app.SendRaw({0x05, 0x01, 0x03, 0x00});
    EXPECT_EQ(NextFrames(3), (std::vector<std::string>{ZoomFrame(398), ZoomFrame(400), ZoomFrame(400)}));
    rig.app.SendRaw({0x05, 0x01, 0x00, 0x00});
    FrameListAfter();
    ExpectSilenceAfterChange();
}

// ---------------------------------------------------------------------------
// The EV axis.

TEST_F(RemoteControlTest, EvAxisSetsExposureCompensationWhileItsFlagIsSet)
{
    Start();
    Movement("rel");
    Expect("ev -1", {});                // index 0 is where the axis starts
    Expect("ev 0", {EvFrame(16)});      // "0"
    Expect("ev 0.99", {EvFrame(25)});   // index 18, "+3.0"
    Expect("wait 200", {});             // held: nothing more
    Expect("ev 1.5", {});               // still index 18
    Expect("ev -1", {EvFrame(7)});      // "-3.0"
    Expect("ev -0.06", {EvFrame(15)});  // index 8, "-0.3"
    Expect("ev off", {});
    Expect("set ev-axis 1", {});        // no flag, no effect
    Expect("ev nan", {});               // a value that is not a number is left alone
    Expect("ev 0.5", {EvFrame(21)});    // index 14, "+1.3"
    std::string log = rig.daemon.Stderr();
    EXPECT_EQ(Count(log, "Camera set EV "), 5u) << log;
    EXPECT_NE(log.find("Camera set EV 0.0\nCamera set EV 3.0\nCamera set EV -3.0\nCamera set EV -0.3\n"),
              std::string::npos)
        << log;
}

// ---------------------------------------------------------------------------
// Gimbal sticks and the orientation lock.

TEST_F(RemoteControlTest, SticksInRelativeModeSendSpeedsEveryCycleAndCentreThreeTimes)
{
    Start();
    Movement("rel");
    Write("stick 0.2 0 0");
    FramesFor(200);
    std::string frames = Lines(FramesFor(1000));
    size_t held = Count(frames, SpeedFrame(200, 0, 0));
    EXPECT_GE(held, 10u) << "a speed command on every 20 ms cycle\n" << frames;
    EXPECT_LE(held, 55u) << frames;
    EXPECT_EQ(held, Count(frames, "\n")) << "nothing else while a stick is held\n" << frames;

    Write("stick 0.2 -0.3 0.5");  // sent as first, third, second
    FramesFor(100);
    frames = Lines(FramesFor(300));
    EXPECT_GE(Count(frames, SpeedFrame(200, -300, 500)), 3u) << frames;
    EXPECT_EQ(Count(frames, SpeedFrame(200, -300, 500)), Count(frames, "\n")) << frames;

    Write("stick 0 0 0");
    frames = FramesAfter();
    std::string centred = Repeat(SpeedFrame(0, 0, 0), 3);
    ASSERT_GE(frames.size(), centred.size()) << frames;
    EXPECT_EQ(frames.substr(frames.size() - centred.size()), centred) << frames;
    EXPECT_EQ(Count(frames, SpeedFrame(0, 0, 0)), 3u) << frames;
    EXPECT_EQ(FramesAfter(kQuietMs, kQuietMs), "") << "nothing more once centred";
}

TEST_F(RemoteControlTest, SticksInAbsoluteModeSendAnglesAndCentreThreeTimes)
{
    Start();
    Movement("abs");
    Write("stick -0.5 0.5 1.0");
    FramesFor(200);
    std::string frames = Lines(FramesFor(500));
    // -0.5 x -600, 0.5 x 900, 1.0 x 450
    EXPECT_GE(Count(frames, AngleFrame(300, 450, 450)), 5u) << frames;
    EXPECT_EQ(Count(frames, AngleFrame(300, 450, 450)), Count(frames, "\n")) << frames;
    Write("stick 0.1 -0.1 0");  // 0.1 x -2400, -0.1 x 1500
    FramesFor(100);
    frames = Lines(FramesFor(300));
    EXPECT_GE(Count(frames, AngleFrame(-240, -150, 0)), 3u) << frames;
    EXPECT_EQ(Count(frames, AngleFrame(-240, -150, 0)), Count(frames, "\n")) << frames;

    Write("stick 0 0 0");
    frames = FramesAfter();
    std::string centred = Repeat(AngleFrame(0, 0, 0), 3);
    ASSERT_GE(frames.size(), centred.size()) << frames;
    EXPECT_EQ(frames.substr(frames.size() - centred.size()), centred) << frames;
    EXPECT_EQ(Count(frames, AngleFrame(0, 0, 0)), 3u) << frames;
    EXPECT_EQ(FramesAfter(kQuietMs, kQuietMs), "");
}

TEST_F(RemoteControlTest, OrientationLockHoldsTheGimbalWhileCentredInRelativeMode)
{
    Start();
    Movement("rel");
    const std::string hold = SpeedFrame(1, 1, 1);

    // Nothing requested yet, so the button locks; centred, the lock's speed
    // command goes out on every cycle.
    Write("press orientation-lock");
    ASSERT_TRUE(rig.daemon.WaitForStderr("Gimbal orientation lock\n", 3000));
    FramesFor(100);
    std::string frames = Lines(FramesFor(500));
    EXPECT_GE(Count(frames, hold), 5u) << frames;
    EXPECT_EQ(Count(frames, hold), Count(frames, "\n")) << frames;

    // Off centre the stick wins; back at centre the three centring calls, then the hold again.
    Write("stick 0.3 0 0 wait 200 stick 0 0 0");
    frames = Lines(FramesFor(600));
    std::string centring = SpeedFrame(300, 0, 0) + "\n" + Repeat(SpeedFrame(0, 0, 0), 3) + hold + "\n";
    EXPECT_NE(frames.find(centring), std::string::npos) << frames;
    EXPECT_EQ(Count(frames, SpeedFrame(0, 0, 0)), 3u) << frames;

    // A gimbal that reports its lock mode (bit 7 of byte 6 clear) needs no hold.
    CameraReportValues attitude;
    attitude.attitude_mode_bits = 0x00;
    rig.SendReports({Report(CameraReportKind::kGimbalAttitude, attitude)});
    ExpectSilenceAfterChange();
    attitude.attitude_mode_bits = 0x80;
    rig.SendReports({Report(CameraReportKind::kGimbalAttitude, attitude)});
    EXPECT_GE(Count(Lines(FramesFor(500)), hold), 3u);

    // In absolute mode the lock sends nothing.
    Movement("abs");
    ExpectSilenceAfterChange();
    Movement("rel");
    EXPECT_GE(Count(Lines(FramesFor(500)), hold), 3u);

    // Requested now, so the button unlocks, and the hold stops.
    Write("press orientation-lock");
    ASSERT_TRUE(rig.daemon.WaitForStderr("Gimbal orientation unlock\n", 3000));
    ExpectSilenceAfterChange();
}

TEST_F(RemoteControlTest, LockSwitchSetsTheLockRequestOnEveryCycle)
{
    Start();
    Movement("rel");
    const std::string hold = SpeedFrame(1, 1, 1);

    // The switch is served before the button: switched on together with a
    // press (nothing requested before), the button already finds the lock
    // requested and unlocks; the switch requests it again on the next cycle.
    Write("lock on hold orientation-lock 1");
    ASSERT_TRUE(rig.daemon.WaitForStderr("Gimbal orientation unlock\n", 3000)) << rig.daemon.Stderr();
    Write("release orientation-lock");
    FramesFor(100);
    EXPECT_GE(Count(Lines(FramesFor(500)), hold), 3u);
    Write("press orientation-lock");
    ASSERT_TRUE(WaitForLogCount("Gimbal orientation unlock\n", 2, 3000));
    FramesFor(100);
    EXPECT_GE(Count(Lines(FramesFor(500)), hold), 3u);
    EXPECT_EQ(Count(rig.daemon.Stderr(), "Gimbal orientation lock\n"), 0u) << rig.daemon.Stderr();

    // Switch off: the request is cleared on every cycle, even after a JSON lock.
    Write("lock off");
    ExpectSilenceAfterChange();
    rig.app.SendJson(JsonCommand({{"cmd", "orientation"}, {"param", "lock"}}));
    ASSERT_TRUE(rig.daemon.WaitForStderr("Gimbal orientation lock\n", 3000));
    ExpectSilenceAfterChange();

    // Without its flag the switch is not read: a JSON lock stays.
    Write("lock free");
    rig.app.SendJson(JsonCommand({{"cmd", "orientation"}, {"param", "lock"}}));
    ASSERT_TRUE(WaitForLogCount("Gimbal orientation lock\n", 2, 3000));
    FramesFor(100);
    EXPECT_GE(Count(Lines(FramesFor(500)), hold), 3u);
    Write("set lock-switch 0");
    FramesFor(100);
    EXPECT_GE(Count(Lines(FramesFor(500)), hold), 3u);
}

// ---------------------------------------------------------------------------
// Tracking.

TEST_F(RemoteControlTest, TrackingButtonTogglesAndTheWatchdogReportsLoss)
{
    Start();
    Movement("rel");
    // No report yet: the button starts tracking (stop first, then the box).
    Expect("press tracking", {TrackingStopFrame(), TrackingStartFrame()});
    ASSERT_TRUE(rig.daemon.WaitForStderr("Stop tracking\nStart tracking 0.5 0.5 0.1 0.2\n", 1000))
        << rig.daemon.Stderr();

    // The camera reports tracking: the button stops it.
    CameraReportValues tracking;  // no subject: no tracking restore
    rig.SendReports({Report(CameraReportKind::kTracking, tracking)});
    auto last_report = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    Expect("press tracking", {TrackingStopFrame()});

    // Reports stop: one "Tracking lost" a little over 3 s after the last one.
    ASSERT_TRUE(rig.daemon.WaitForStderr("Tracking lost\n", 6000));
    double after = std::chrono::duration<double>(std::chrono::steady_clock::now() - last_report).count();
    EXPECT_GT(after, 2.9);
    EXPECT_LT(after, 5.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(Count(rig.daemon.Stderr(), "Tracking lost\n"), 1u);
    // Lost: the button starts tracking again.
    Expect("press tracking", {TrackingStopFrame(), TrackingStartFrame()});
}

}  // namespace
