// The remote control end to end: the daemon between a camera that reports and takes commands and a main
// application that picks the movement mode and zoom rate; the writer tool works "/shared_rc_raw". Command
// frames reaching the camera are checked byte for byte (sequence and CRC16 masked, CRC16 checked).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "sim/report_encoder.h"
#include "support/child_process.h"
#include "support/command_peers.h"
#include "support/isolation.h"

namespace {

constexpr const char* kObjectPath = "/dev/shm/shared_rc_raw";
constexpr int kFirstFrameMs = 4000;   // covers the 1 s cycle before a movement mode is chosen
constexpr int kQuietMs = 400;         // 20 cycles at the fast period

// Payload bytes as hex: one byte, a little-endian 16-bit value.
std::string Hex(int byte) { return {"0123456789abcdef"[byte >> 4 & 15], "0123456789abcdef"[byte & 15], ' '}; }
std::string Le16(int value) { return Hex(value & 0xff) + Hex(value >> 8 & 0xff); }

// Frames of the commands the remote control causes.
std::string NextPosition() { return ExpectedFrameHex(0x04, 0x4c, "fe 09"); }
std::string TrackingStop() { return ExpectedFrameHex(0x02, 0xa6, std::string(21 * 2, '0')); }
std::string Zoom(int zoom) { return ExpectedFrameHex(0x02, 0x34, "09 00 00 " + Le16(zoom - 100)); }
std::string Axes(int a, int b, int c) { return Le16(a) + Le16(c) + Le16(b); }   // sent first, third, second
std::string Speed(int a, int b, int c) { return ExpectedFrameHex(0x04, 0x0c, Axes(a, b, c) + "90"); }
std::string Angle(int a, int b, int c) { return ExpectedFrameHex(0x04, 0x0a, Axes(a, b, c) + "64 00 e0 04"); }
std::string Record(bool start) { return ExpectedFrameHex(0x02, 0x02, start ? "01" : "00"); }
std::string Ev(int code) { return ExpectedFrameHex(0x02, 0x2e, Hex(code)); }

Bytes Report(CameraReportKind kind, uint8_t mode = 1, uint8_t resolution_code = 0)
{
    CameraReportValues values;
    values.mode = mode;
    values.resolution_code = resolution_code;
    Bytes frame(kFrameMaximumSize);
    frame.resize(BuildCameraReport(kind, values, frame.data(), frame.size(), 1));
    return frame;
}

size_t Count(const std::string& text, const std::string& what)
{
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++count;
    return count;
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

    // The daemon with its camera and main application, the writer tool (commands from its standard
    // input, each answered "ok N" once carried out; a press lasts 200 ms), the movement mode.
    void Start(const std::string& movement)
    {
        ASSERT_TRUE(rig.Start()) << rig.daemon.Stderr();
        ASSERT_TRUE(writer.Start(ToolPath("rcwriter"), {"--name=/shared_rc_raw", "--press-ms=200", "-"}));
        rig.app.SendJson(JsonCommand({{"cmd", "set"}, {"name", "movement"}, {"value", movement}}));
        std::this_thread::sleep_for(std::chrono::milliseconds(1300));   // the slow cycle that may be running
    }
    void Reports(const std::vector<Bytes>& frames)   // decoded by the daemon on arrival
    {
        rig.SendReports(frames);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    void Write(const std::string& line)
    {
        writer.WriteLine(line);
        ASSERT_TRUE(writer.WaitForStdout("ok " + std::to_string(++lines_) + "\n", 5000)) << writer.Stderr();
    }
    // Frames (as masked hex, "BAD CHECKSUM" marked) until none came for `quiet_ms` (the first may take
    // `first_ms`), or `count` of them.
    std::vector<std::string> Frames(int quiet_ms = kQuietMs, int first_ms = kFirstFrameMs, size_t count = SIZE_MAX)
    {
        std::vector<std::string> frames;
        for (Bytes frame; frames.size() < count;) {
            if ((frame = rig.camera.NextFrame(frames.empty() ? first_ms : quiet_ms)).empty())
                break;
            frames.push_back((FrameChecksumsGood(frame) ? "" : "BAD CHECKSUM ") + MaskedFrameHex(frame));
        }
        return frames;
    }
    // Writes `line`, then expects exactly `frames`.
    void Expect(const std::string& line, const std::vector<std::string>& frames)
    {
        Write(line);
        EXPECT_EQ(Lines(Frames(kQuietMs, frames.empty() ? kQuietMs : kFirstFrameMs)), Lines(frames)) << line;
    }
    // Every frame within the next `window_ms`, one per line.
    std::string FramesFor(int window_ms)
    {
        std::string frames;
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(window_ms);
        for (auto left = end - end; (left = end - std::chrono::steady_clock::now()).count() > 0;)
            frames += Lines(Frames(0, static_cast<int>(left / std::chrono::milliseconds(1)) + 1, 1));
        return frames;
    }
    // Once a change has reached the cycles: `frame` (or nothing) on every cycle for half a second.
    void ExpectSteady(const std::string& frame)
    {
        FramesFor(300);
        std::string frames = FramesFor(500);
        EXPECT_GE(Count(frames, frame + "\n"), frame.empty() ? 0u : 5u) << frames;
        EXPECT_EQ(Count(frames, frame + "\n") * !frame.empty(), Count(frames, "\n")) << "nothing else\n" << frames;
    }
    // Centring the sticks: exactly three centring commands, then `after`.
    void ExpectCentring(const std::string& centred, const std::string& after = "")
    {
        Write("set 0 0 set 1 0 set 2 0");
        std::string frames = after.empty() ? Lines(Frames()) : FramesFor(600);
        std::string three = Lines({centred, centred, centred});
        EXPECT_EQ(Count(frames, centred + "\n"), 3u) << frames;
        EXPECT_NE(frames.find(three + after), std::string::npos) << frames;
    }

    CommandRig rig;
    ChildProcess writer;
    unsigned lines_ = 0;
};

TEST_F(RemoteControlTest, ButtonsRockersLevelSlotEvAxisAndTracking)
{
    Start("rel");
    {  // A missing object is created, zero-filled; a record nobody writes sends nothing.
        EXPECT_EQ(Count(rig.daemon.Stderr(), "Creating new shared raw RC\n"), 1u) << rig.daemon.Stderr();
        std::ifstream object(kObjectPath, std::ios::binary);
        EXPECT_EQ(std::string((std::istreambuf_iterator<char>(object)), std::istreambuf_iterator<char>()),
                  std::string(1504, '\0'));
    }
    EXPECT_EQ(Lines(Frames(kQuietMs, kQuietMs)), "");

    // Slots are named by number, independently of the writer tool's names. Slot 4, gimbal next position: a
    // held button fires once; a direct swing, or a new press, fires again; NaN counts as released.
    Expect("hold 4 1", {NextPosition()});
    Expect("wait 300", {});
    Expect("hold 4 -1", {NextPosition()});
    Expect("set 4 nan", {});
    Expect("hold 4 0.001", {NextPosition()});

    // Step families: a rocker, then its next and previous buttons. With nothing reported every setting text
    // is empty, which steps as its first entry. Previous white balance is "custom" at 0 K: logged, not sent.
    const struct { int rocker; std::vector<std::string> next, prev; } families[] = {
        {21, {ExpectedFrameHex(0x02, 0x1e, "02 00")}, {ExpectedFrameHex(0x02, 0x1e, "04 00")}},
        {24, {ExpectedFrameHex(0x02, 0x2a, "03")}, {ExpectedFrameHex(0x02, 0x2a, "08")}},
        {27, {ExpectedFrameHex(0x02, 0x28, "01 07 00 00")}, {ExpectedFrameHex(0x02, 0x28, "01 40 9f 00")}},
        {33, {ExpectedFrameHex(0x02, 0x42, "34")}, {ExpectedFrameHex(0x02, 0x42, "34")}},
        {36, {ExpectedFrameHex(0x02, 0x2c, "01 30")}, {}}, {40, {Ev(8)}, {Ev(25)}},
    };
    for (const auto& f : families) {
        std::string rocker = std::to_string(f.rocker), next = std::to_string(f.rocker + 1);
        std::string prev = std::to_string(f.rocker + 2);
        size_t log_start = rig.daemon.Stderr().size();
        Expect("hold " + next + " 1", f.next);
        Expect("hold " + prev + " 1", f.prev);
        Expect("release " + next + " release " + prev + " hold " + rocker + " 1", f.next);   // rocker up
        Expect("hold " + rocker + " -1", f.prev);   // straight to down
        Expect("release " + rocker, {});
        EXPECT_EQ(Count(rig.daemon.Stderr().substr(log_start), "Camera set prev "), 2u) << rocker;
    }

    // The level slot 7 records in video (start on either side, stop at 0), shoots in photo, idles in
    // playback; the button slot 8 switches video to photo, photo to video, and nothing else.
    Reports({Report(CameraReportKind::kCameraInfo, 1)});
    Expect("hold 7 1", {Record(true)});
    Expect("hold 7 -1", {Record(true)});
    Expect("release 7", {Record(false)});
    Expect("press 8", {ExpectedFrameHex(0x02, 0x10, "00", 0x09)});
    Reports({Report(CameraReportKind::kCameraInfo, 0)});
    Expect("hold 7 -1", {ExpectedFrameHex(0x02, 0x01, "01")});
    Expect("release 7", {});
    Expect("press 8", {ExpectedFrameHex(0x02, 0x10, "01", 0x09)});
    Reports({Report(CameraReportKind::kCameraInfo, 7)});
    Expect("hold 7 1", {});
    Expect("release 7", {});
    Expect("press 8", {});

    // The EV axis, slot 39: index 0 at -1 where the axis starts; a new index is sent while its flag is set.
    Expect("set 39 -1 flag 39 1", {});
    Expect("set 39 0", {Ev(16)});       // "0"
    Expect("set 39 0.99", {Ev(25)});    // index 18, "+3.0"
    Expect("set 39 1.5", {});           // still 18
    Expect("set 39 -1.5", {Ev(7)});     // index 0, "-3.0"
    Expect("set 39 -0.06", {Ev(15)});   // index 8, "-0.3"
    Expect("flag 39 0 set 39 1", {});   // no flag, no effect
    Expect("set 39 nan flag 39 1", {});
    Expect("set 39 0.5", {Ev(21)});     // index 14, "+1.3"

    // Tracking, slot 20: no report yet, the button starts it (stop first, then the box 0.5 0.5 0.1 0.17 as f32);
    // reported, it stops it.
    const std::string start =
        ExpectedFrameHex(0x02, 0xa6, "01 00 00 0e 00  00 00 00 3f  00 00 00 3f  cd cc cc 3d  7b 14 2e 3e");
    Expect("press 20", {TrackingStop(), start});
    ASSERT_TRUE(rig.daemon.WaitForStderr("Stop tracking\nStart tracking 0.5 0.5 0.1 0.2\n", 1000));
    rig.SendReports({Report(CameraReportKind::kTracking)});
    auto last_report = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    Expect("press 20", {TrackingStop()});
    // Reports stop: one "Tracking lost" a little over 3 s after the last; then the button starts again.
    ASSERT_TRUE(rig.daemon.WaitForStderr("Tracking lost\n", 6000));
    double after = std::chrono::duration<double>(std::chrono::steady_clock::now() - last_report).count();
    EXPECT_TRUE(after > 2.9 && after < 5.0) << after;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_EQ(Count(rig.daemon.Stderr(), "Tracking lost\n"), 1u);
    Expect("press 20", {TrackingStop(), start});
}

TEST_F(RemoteControlTest, ExistingObjectSticksLockSwitchAndZoom)
{
    // Left by a writer: 4096 bytes, its own bytes at the start, slot 4 held: opened, resized, fires once.
    std::string bytes(4096, '\0');
    double held = 1.0;
    bytes.replace(0, 6, "writer").replace(1088, sizeof held, reinterpret_cast<const char*>(&held), sizeof held);
    std::ofstream(kObjectPath, std::ios::binary) << bytes;
    Start("rel");
    EXPECT_EQ(Lines(Frames()), Lines({NextPosition()}));
    EXPECT_EQ(Count(rig.daemon.Stderr(), "Shared raw RC mem opened\n"), 1u) << rig.daemon.Stderr();
    std::ifstream object(kObjectPath, std::ios::binary);
    bytes.assign((std::istreambuf_iterator<char>(object)), std::istreambuf_iterator<char>());
    EXPECT_EQ(bytes.size(), 1504u);
    EXPECT_EQ(bytes.substr(0, 6), "writer");
    Write("release 4");

    // Sticks (slots 0 to 2), relative: speeds on every cycle (sent as first, third, second), then three
    // centring calls.
    Write("set 0 0.2 set 1 -0.3 set 2 0.5");
    ExpectSteady(Speed(200, -300, 500));
    ExpectCentring(Speed(0, 0, 0));
    EXPECT_EQ(Lines(Frames(kQuietMs, kQuietMs)), "") << "nothing more once centred";

    // The lock switch (slot 5 with its flag) requests the orientation lock on every cycle: centred, its hold
    // speed goes out; off centre the stick wins, back at centre the three centring calls, then the hold again.
    const std::string hold = Speed(1, 1, 1);
    Write("set 5 1 flag 5 1");
    ExpectSteady(hold);
    Write("set 0 0.3 wait 200");
    ExpectCentring(Speed(0, 0, 0), hold);
    // Switched off the request is cleared on every cycle, even after a JSON lock.
    Write("set 5 0");
    ExpectSteady("");
    rig.app.SendJson(JsonCommand({{"cmd", "orientation"}, {"param", "lock"}}));
    ASSERT_TRUE(rig.daemon.WaitForStderr("Gimbal orientation lock\n", 3000));
    ExpectSteady("");
    // Without its flag the switch is not read: a JSON lock stays, until the button (slot 6) unlocks it.
    Write("flag 5 0");
    rig.app.SendJson(JsonCommand({{"cmd", "orientation"}, {"param", "lock"}}));
    ExpectSteady(hold);
    Write("press 6");
    ASSERT_TRUE(rig.daemon.WaitForStderr("Gimbal orientation unlock\n", 3000));
    ExpectSteady("");

    // Absolute: angles (-0.5 x -600, 0.5 x 900, 1.0 x 450), three centring calls; the lock sends nothing.
    rig.app.SendJson(JsonCommand({{"cmd", "set"}, {"name", "movement"}, {"value", "abs"}}));
    Write("set 5 1 flag 5 1");
    Write("set 0 -0.5 set 1 0.5 set 2 1.0");
    ExpectSteady(Angle(300, 450, 450));
    ExpectCentring(Angle(0, 0, 0));
    Write("flag 5 0");

    // Zoom slots (16 and 18 in, 17 out) step the zoom once per cycle (the first cycle twice: slot, then
    // ZoomRate); on release ZoomRate goes to 0 and the zoom reached is sent once more. 1920x1080 video: zoom up to 400.
    Reports({Report(CameraReportKind::kCameraInfo), Report(CameraReportKind::kSettings, 1, 10)});
    for (auto z : {std::make_pair("16", 1), std::make_pair("17", -1), std::make_pair("18", 1)}) {
        ASSERT_TRUE(rig.Send(JsonCommand({{"cmd", "dzoom"}, {"param", "set"}, {"value", "200"}})).complete);
        Write(std::string("hold ") + z.first + " 1");
        std::vector<std::string> first = {Zoom(200 + z.second), Zoom(200 + 2 * z.second), Zoom(200 + 3 * z.second)};
        EXPECT_EQ(Frames(kQuietMs, kFirstFrameMs, 3), first) << z.first;
        Write(std::string("release ") + z.first);
        std::vector<std::string> rest = Frames();
        ASSERT_GE(rest.size(), 1u) << z.first;
        EXPECT_EQ(rest.back(), rest.size() > 1 ? rest[rest.size() - 2] : Zoom(200 + 3 * z.second)) << z.first;
    }
    ExpectSteady("");
}

// An object that cannot be mapped is said once and retried quietly. Before the main application picks a movement
// mode the slots are served once a second and the sticks are not read. Focus (slot 9) and the exposure lock
// (slot 19) toggle from what the camera reported, and do nothing from a state they do not toggle.
TEST_F(RemoteControlTest, UnmappableRecordSlowCycleFocusAndExposureLock)
{
    ASSERT_EQ(mkdir(kObjectPath, 0700), 0);   // a directory: neither opened nor created
    ASSERT_TRUE(rig.Start()) << rig.daemon.Stderr();
    ASSERT_TRUE(rig.daemon.WaitForStderr("Shared raw RC unavailable, retrying\n", 5000)) << rig.daemon.Stderr();
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_EQ(Count(rig.daemon.Stderr(), "Shared raw RC unavailable, retrying\n"), 1u) << "said once";
    ASSERT_EQ(rmdir(kObjectPath), 0);
    ASSERT_TRUE(rig.daemon.WaitForStderr("Creating new shared raw RC\n", 5000)) << "a retry maps it";
    ASSERT_TRUE(writer.Start(ToolPath("rcwriter"), {"--name=/shared_rc_raw", "--press-ms=1200", "-"}));

    // No movement mode: a press held over one slow cycle acts; the sticks off centre send nothing.
    CameraReportValues reported;
    reported.focus_mode = 0x85;   // AFS
    Reports({CameraReport(CameraReportKind::kFocus, reported)});
    Write("set 0 0.5 set 1 -0.5");
    Expect("press 9", {ExpectedFrameHex(0x02, 0x24, "02")});   // to AFC
    Write("set 0 0 set 1 0");
    rig.app.SendJson(JsonCommand({{"cmd", "set"}, {"name", "movement"}, {"value", "rel"}}));
    std::this_thread::sleep_for(std::chrono::milliseconds(1300));   // the slow cycle that may be running

    const struct {
        CameraReportKind kind;
        uint8_t focus_mode, ae_lock;
        const char* slot;
        std::vector<std::string> frames;
    } toggles[] = {
            {CameraReportKind::kFocus, 0x86, 0, "9", {ExpectedFrameHex(0x02, 0x24, "01")}},   // AFC to AFS
            {CameraReportKind::kFocus, 0x84, 0, "9", {}},                                     // manual: nothing
            {CameraReportKind::kSettings, 0, 1, "19", {ExpectedFrameHex(0x02, 0x68, "00")}},  // locked: unlock
            {CameraReportKind::kSettings, 0, 0, "19", {ExpectedFrameHex(0x02, 0x68, "01")}},  // unlocked: lock
        };
    for (const auto& t : toggles) {
        reported.focus_mode = t.focus_mode;
        reported.ae_lock = t.ae_lock;
        Reports({CameraReport(t.kind, reported)});
        Expect(std::string("press ") + t.slot, t.frames);
    }
}

}  // namespace
