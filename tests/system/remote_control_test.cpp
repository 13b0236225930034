// The remote control end to end: the daemon between a camera that reports and takes commands and a main
// application that picks the movement mode and zoom rate; the writer tool works "/shared_rc_raw". Command
// frames reaching the camera are checked byte for byte (sequence and CRC16 masked, CRC16 checked).
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

namespace {

// The writer tool in its standard-input mode: each line of commands is carried out before the tool
// answers "ok N", so the record holds what was written once Do returns. A "press" lasts 200 ms.
class RcWriter {
public:
    bool Start() { return tool_.Start(ToolPath("rcwriter"), {"--name=/shared_rc_raw", "--press-ms=200", "-"}); }
    bool Do(const std::string& line)
    {
        tool_.WriteLine(line);
        return tool_.WaitForStdout("ok " + std::to_string(++lines_) + "\n", 5000);
    }
    ChildProcess& process() { return tool_; }

private:
    ChildProcess tool_;
    unsigned lines_ = 0;
};

constexpr const char* kObjectPath = "/dev/shm/shared_rc_raw";
constexpr int kFirstFrameMs = 4000;   // covers the 1 s cycle before a movement mode is chosen
constexpr int kQuietMs = 400;         // 20 cycles at the fast period
constexpr int kIdleQuietMs = 1600;    // more than one slow cycle (1 s before a movement mode is chosen)

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

    // The daemon with its camera and main application, the writer, the movement mode.
    void Start(const std::string& movement)
    {
        ASSERT_TRUE(rig.Start()) << rig.daemon.Stderr();
        ASSERT_TRUE(rc.Start());
        rig.app.SendJson(JsonCommand({{"cmd", "set"}, {"name", "movement"}, {"value", movement}}));
        std::this_thread::sleep_for(std::chrono::milliseconds(1300));  // the slow cycle that may be running
    }
    void Movement(const std::string& value)
    {
        rig.app.SendJson(JsonCommand({{"cmd", "set"}, {"name", "movement"}, {"value", value}}));
    }
    // Reports in one datagram, decoded by the daemon on arrival.
    void Reports(const std::vector<Bytes>& frames)
    {
        rig.SendReports(frames);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    void Write(const std::string& line) { ASSERT_TRUE(rc.Do(line)) << rc.process().Stdout() << rc.process().Stderr(); }

    // The frames that follow until none has come for `quiet_ms` (the first may take `first_ms`).
    std::vector<std::string> FrameList(int quiet_ms = kQuietMs, int first_ms = kFirstFrameMs)
    {
        std::vector<std::string> frames;
        for (Bytes frame = rig.camera.NextFrame(first_ms); !frame.empty(); frame = rig.camera.NextFrame(quiet_ms))
            frames.push_back(FrameText(frame));
        return frames;
    }
    std::string FramesAfter(int quiet_ms = kQuietMs, int first_ms = kFirstFrameMs)
    {
        return Lines(FrameList(quiet_ms, first_ms));
    }
    // Writes `line`, then expects exactly `frames`.
    void Expect(const std::string& line, const std::vector<std::string>& frames)
    {
        Write(line);
        EXPECT_EQ(FramesAfter(kQuietMs, frames.empty() ? kQuietMs : kFirstFrameMs), Lines(frames)) << line;
    }
    // Every frame that arrives within the next `window_ms`, one per line.
    std::string FramesFor(int window_ms)
    {
        std::vector<std::string> frames;
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(window_ms);
        for (auto now = std::chrono::steady_clock::now(); now < end; now = std::chrono::steady_clock::now()) {
            Bytes frame = rig.camera.NextFrame(
                static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count()) + 1);
            if (!frame.empty())
                frames.push_back(FrameText(frame));
        }
        return Lines(frames);
    }
    // After a change has reached the cycles, `frame` (or nothing) on every cycle for half a second.
    void ExpectSteady(const std::string& frame, size_t at_least = 5)
    {
        FramesFor(300);
        std::string frames = FramesFor(500);
        if (frame.empty()) {
            EXPECT_EQ(frames, "");
            return;
        }
        EXPECT_GE(Count(frames, frame + "\n"), at_least) << frames;
        EXPECT_EQ(Count(frames, frame + "\n"), Count(frames, "\n")) << "nothing else\n" << frames;
    }
    // Centring a stick: the last command, then exactly three centred commands, then `after`.
    void ExpectCentring(const std::string& centred, const std::string& after = "")
    {
        Write("stick 0 0 0");
        std::string frames = after.empty() ? FramesAfter() : FramesFor(600);
        std::string three = centred + "\n" + centred + "\n" + centred + "\n";
        EXPECT_EQ(Count(frames, centred + "\n"), 3u) << frames;
        EXPECT_NE(frames.find(three + after), std::string::npos) << frames;
        if (after.empty()) {
            EXPECT_EQ(frames.substr(frames.size() - std::min(frames.size(), three.size())), three) << frames;
        }
    }
    // The `count` frames that follow, without waiting for quiet.
    std::vector<std::string> NextFrames(size_t count)
    {
        std::vector<std::string> frames;
        for (Bytes frame; frames.size() < count && !(frame = rig.camera.NextFrame(kFirstFrameMs)).empty();)
            frames.push_back(FrameText(frame));
        return frames;
    }

    CommandRig rig;
    RcWriter rc;
};

TEST_F(RemoteControlTest, ExistingObjectIsOpenedResizedAndAButtonHeldAtStartFiresOnce)
{
    {  // Left by a writer: 4096 bytes, its own bytes at the start, slot 4 held.
        std::string bytes(4096, '\0');
        bytes.replace(0, 6, "writer");
        double held = 1.0;
        bytes.replace(1088, sizeof held, reinterpret_cast<const char*>(&held), sizeof held);
        std::ofstream(kObjectPath, std::ios::binary) << bytes;
    }
    ASSERT_TRUE(rig.Start()) << rig.daemon.Stderr();
    EXPECT_EQ(FramesAfter(kIdleQuietMs), Lines({NextPositionFrame()}));
    std::string log = rig.daemon.Stderr();
    EXPECT_EQ(Count(log, "Shared raw RC mem opened\n"), 1u) << log;
    EXPECT_EQ(Count(log, "Creating new shared raw RC\n"), 0u) << log;
    std::ifstream object(kObjectPath, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(object)), std::istreambuf_iterator<char>());
    EXPECT_EQ(bytes.size(), 1504u);
    EXPECT_EQ(bytes.substr(0, 6), "writer");
}

TEST_F(RemoteControlTest, ButtonsRockersLevelSlotEvAxisAndTracking)
{
    Start("rel");
    {  // A missing object is created, zero-filled; a record nobody writes sends nothing.
        EXPECT_EQ(Count(rig.daemon.Stderr(), "Creating new shared raw RC\n"), 1u) << rig.daemon.Stderr();
        std::ifstream object(kObjectPath, std::ios::binary);
        EXPECT_EQ(std::string((std::istreambuf_iterator<char>(object)), std::istreambuf_iterator<char>()),
                  std::string(1504, '\0'));
    }
    EXPECT_EQ(FramesAfter(kQuietMs, kQuietMs), "");

    // A held button fires once; a new press, or a direct swing, fires again; NaN counts as released.
    Expect("hold next-position 1", {NextPositionFrame()});
    Expect("wait 300", {});
    Expect("release next-position", {});
    Expect("hold next-position -1", {NextPositionFrame()});
    Expect("hold next-position 1", {NextPositionFrame()});
    Expect("set next-position nan", {});
    Expect("hold next-position 0.001", {NextPositionFrame()});

    // Step families: with nothing reported every setting text is empty, which steps as its first entry.
    const struct { const char* name; std::string next, prev; const char* prev_log; } families[] = {
        {"exposure-mode", ExpectedFrameHex(0x02, 0x1e, "02 00"), ExpectedFrameHex(0x02, 0x1e, "04 00"),
         "Camera set prev image mode\nCamera set image mode manual\n"},
        {"iso", ExpectedFrameHex(0x02, 0x2a, "03"), ExpectedFrameHex(0x02, 0x2a, "08"),
         "Camera set prev ISO\nCamera set iso 3200\n"},
        {"shutter", ExpectedFrameHex(0x02, 0x28, "01 07 00 00"), ExpectedFrameHex(0x02, 0x28, "01 40 9f 00"),
         "Camera set prev shutter value\nnew shutter value = 1/8000\nCamera set shutter 1/8000\n"},
        {"color", ExpectedFrameHex(0x02, 0x42, "34"), ExpectedFrameHex(0x02, 0x42, "34"),
         "Camera set prev color mode\nSet color d-clike\n"},
        // Previous white balance is "custom" at 0 K (none commanded, none reported): logged, not sent.
        {"wb", ExpectedFrameHex(0x02, 0x2c, "01 30"), "",
         "Camera set prev WB\nCamera set WB custom\nCamera set WB temperature 0\n\n"},
        {"ev", EvFrame(8), EvFrame(25), "Camera set prev EV\nCamera set EV 3.0\n"},
    };
    for (const auto& f : families) {
        std::string name = f.name;
        std::vector<std::string> next = {f.next}, prev;
        if (!f.prev.empty())
            prev.push_back(f.prev);
        size_t log_start = rig.daemon.Stderr().size();
        Expect("hold " + name + "-next 1", next);
        Expect("hold " + name + "-prev 1", prev);
        Expect("release " + name + "-next release " + name + "-prev", {});
        Expect("hold " + name + " 1", next);    // rocker up
        Expect("hold " + name + " -1", prev);   // straight to down
        Expect("release " + name, {});
        std::string log = rig.daemon.Stderr().substr(log_start);
        EXPECT_EQ(Count(log, f.prev_log), 2u) << log;
    }

    // The level slot records in video (start on either side, stop at 0), shoots in photo, idles in playback.
    Reports({Report(CameraReportKind::kCameraInfo, CameraInMode(1))});
    Expect("hold record 1", {RecordFrame(true)});
    Expect("hold record -1", {RecordFrame(true)});
    Expect("release record", {RecordFrame(false)});
    Reports({Report(CameraReportKind::kCameraInfo, CameraInMode(0))});
    Expect("hold record -1", {ShotFrame()});
    Expect("release record", {});
    Reports({Report(CameraReportKind::kCameraInfo, CameraInMode(7))});
    Expect("hold record 1", {});
    Expect("release record", {});

    // The EV axis: index 0 at -1 where the axis starts, acts on a new index while its flag is set.
    Expect("ev -1", {});
    Expect("ev 0", {EvFrame(16)});      // "0"
    Expect("ev 0.99", {EvFrame(25)});   // index 18, "+3.0"
    Expect("ev 1.5", {});               // still 18
    Expect("ev -1", {EvFrame(7)});      // "-3.0"
    Expect("ev -0.06", {EvFrame(15)});  // index 8, "-0.3"
    Expect("ev off", {});
    Expect("set ev-axis 1", {});        // no flag, no effect
    Expect("ev nan", {});
    Expect("ev 0.5", {EvFrame(21)});    // index 14, "+1.3"
    const char* ev_log = "Camera set EV 0.0\nCamera set EV 3.0\nCamera set EV -3.0\nCamera set EV -0.3\n";
    EXPECT_NE(rig.daemon.Stderr().find(ev_log), std::string::npos)
        << rig.daemon.Stderr();

    // Tracking: no report yet, the button starts it (stop first, then the box); reported, it stops it.
    Expect("press tracking", {TrackingStopFrame(), TrackingStartFrame()});
    ASSERT_TRUE(rig.daemon.WaitForStderr("Stop tracking\nStart tracking 0.5 0.5 0.1 0.2\n", 1000));
    rig.SendReports({Report(CameraReportKind::kTracking, CameraReportValues())});
    auto last_report = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    Expect("press tracking", {TrackingStopFrame()});
    // Reports stop: one "Tracking lost" a little over 3 s after the last; then the button starts again.
    ASSERT_TRUE(rig.daemon.WaitForStderr("Tracking lost\n", 6000));
    double after = std::chrono::duration<double>(std::chrono::steady_clock::now() - last_report).count();
    EXPECT_GT(after, 2.9);
    EXPECT_LT(after, 5.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(Count(rig.daemon.Stderr(), "Tracking lost\n"), 1u);
    Expect("press tracking", {TrackingStopFrame(), TrackingStartFrame()});
}

TEST_F(RemoteControlTest, SticksLockSwitchAndZoom)
{
    Start("rel");
    // Relative: speeds on every cycle (sent as first, third, second), then three centring calls.
    Write("stick 0.2 -0.3 0.5");
    ExpectSteady(SpeedFrame(200, -300, 500));
    ExpectCentring(SpeedFrame(0, 0, 0));
    EXPECT_EQ(FramesAfter(kQuietMs, kQuietMs), "") << "nothing more once centred";

    // The lock switch requests the orientation lock on every cycle: centred, its hold speed goes out;
    // off centre the stick wins, back at centre the three centring calls, then the hold again.
    const std::string hold = SpeedFrame(1, 1, 1);
    Write("lock on");
    ExpectSteady(hold);
    Write("stick 0.3 0 0 wait 200");
    ExpectCentring(SpeedFrame(0, 0, 0), hold);
    // Switched off the request is cleared on every cycle, even after a JSON lock.
    Write("lock off");
    ExpectSteady("");
    rig.app.SendJson(JsonCommand({{"cmd", "orientation"}, {"param", "lock"}}));
    ASSERT_TRUE(rig.daemon.WaitForStderr("Gimbal orientation lock\n", 3000));
    ExpectSteady("");
    // Without its flag the switch is not read: a JSON lock stays, until the button unlocks it.
    Write("lock free");
    rig.app.SendJson(JsonCommand({{"cmd", "orientation"}, {"param", "lock"}}));
    ExpectSteady(hold);
    Write("press orientation-lock");
    ASSERT_TRUE(rig.daemon.WaitForStderr("Gimbal orientation unlock\n", 3000));
    ExpectSteady("");

    // Absolute: angles (-0.5 x -600, 0.5 x 900, 1.0 x 450), three centring calls; the lock sends nothing.
    Movement("abs");
    Write("lock on");
    Write("stick -0.5 0.5 1.0");
    ExpectSteady(AngleFrame(300, 450, 450));
    ExpectCentring(AngleFrame(0, 0, 0));
    Write("lock free");
    EXPECT_EQ(FramesAfter(kQuietMs, kQuietMs), "");

    // Zoom slots step the zoom once per cycle (the first cycle twice: slot, then ZoomRate); on
    // release ZoomRate goes to 0 and the zoom reached is sent once more.
    CameraReportValues settings;
    settings.resolution_code = 10;  // 1920x1080 video: zoom up to 400
    Reports({Report(CameraReportKind::kCameraInfo, CameraInMode(1)), Report(CameraReportKind::kSettings, settings)});
    const struct { const char* slot; int step; } slots[] = {{"zoom-in", 1}, {"zoom-out", -1}, {"zoom-in-2", 1}};
    const int zoom = 200;
    for (const auto& z : slots) {
        ASSERT_TRUE(rig.Send(JsonCommand({{"cmd", "dzoom"}, {"param", "set"}, {"value", "200"}})).complete);
        Write(std::string("hold ") + z.slot + " 1");
        EXPECT_EQ(NextFrames(3), (std::vector<std::string>{ZoomFrame(zoom + z.step), ZoomFrame(zoom + 2 * z.step),
                                                           ZoomFrame(zoom + 3 * z.step)})) << z.slot;
        Write(std::string("release ") + z.slot);
        std::vector<std::string> rest = FrameList();
        ASSERT_GE(rest.size(), 1u) << z.slot;
        EXPECT_EQ(rest.back(), rest.size() > 1 ? rest[rest.size() - 2] : ZoomFrame(zoom + 3 * z.step)) << z.slot;
    }
    // The main application's zoom rate steps on every cycle, kept at the limit near the top.
    ASSERT_TRUE(rig.Send(JsonCommand({{"cmd", "dzoom"}, {"param", "set"}, {"value", "300"}})).complete);
    rig.app.SendRaw({0x05, 0x01, 0xfd, 0xff});
    EXPECT_EQ(NextFrames(3), (std::vector<std::string>{ZoomFrame(297), ZoomFrame(294), ZoomFrame(291)}));
    rig.app.SendRaw({0x05, 0x01, 0x00, 0x00});
    FrameList();
    ASSERT_TRUE(rig.Send(JsonCommand({{"cmd", "dzoom"}, {"param", "set"}, {"value", "395"}})).complete);
    rig.app.SendRaw({0x05, 0x01, 0x03, 0x00});
    EXPECT_EQ(NextFrames(3), (std::vector<std::string>{ZoomFrame(398), ZoomFrame(400), ZoomFrame(400)}));
    rig.app.SendRaw({0x05, 0x01, 0x00, 0x00});
    FrameList();
    ExpectSteady("");
}

}  // namespace
