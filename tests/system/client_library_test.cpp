// The client library against the real daemon and the camera simulator, as a main application uses it: the
// status it reads is what the simulator was told to report, a command it sends comes back applied, the video it
// reads from the ring is the simulator's stream byte for byte, the attitude record matches the state message, and
// a remote-control button it writes reaches the camera. The example application then records, stops and saves
// the live video through the same library, and the monitor's full-screen view, driven under tmux, shows the
// state and the video rate and sends what its keys and command line ask for.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/fake_camera.h"
#include "support/isolation.h"
#include "support/netns.h"
#include "tarnwickclient/client.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr uint16_t kSimulatorPort = 19004;
constexpr uint16_t kStatusPort = 15000;
constexpr int kTimeoutMs = 8000;

std::string FixturePath()
{
    return std::string(TARNWICK_SOURCE_DIR) + "/tests/fixtures/h264/stream.h264";
}

Bytes ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

// True when `stream` is a stretch of `clip` played in a loop.
bool IsStretchOfLoop(const Bytes& stream, const Bytes& clip)
{
    Bytes loop;
    for (size_t i = 0; i < stream.size() / clip.size() + 2; ++i)
        loop.insert(loop.end(), clip.begin(), clip.end());
    return std::search(loop.begin(), loop.end(), stream.begin(), stream.end()) != loop.end();
}

class ClientLibraryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        mkdir("/run/tarnwickrelay", 0755);
        ASSERT_TRUE(simulator.Start(CamsimPath(), {"--port=" + std::to_string(kSimulatorPort),
                                                   "--video=" + FixturePath()}));
        ASSERT_TRUE(simulator.WaitForStdout("camera simulator on", 5000));
    }
    void TearDown() override { tarnwick_link_close(link); }

    void StartDaemon()
    {
        link = tarnwick_link_open("127.0.0.1", kStatusPort);
        ASSERT_NE(link, nullptr);
        ASSERT_TRUE(daemon.Start(DaemonPath(),
                                 DaemonArguments(kSimulatorPort, {"--dst-port", std::to_string(kStatusPort)})));
    }
    // Receives reports until one of `kind` satisfies `wanted`.
    bool Await(int kind, const std::function<bool(const tarnwick::Report&)>& wanted, int timeout_ms = kTimeoutMs)
    {
        auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
        while (Clock::now() < end) {
            int got = tarnwick_link_receive(link, 200, &report);
            if (got == kind && wanted(report))
                return true;
        }
        return false;
    }
    bool Send(const char* cmd, const char* param, const char* value = nullptr)
    {
        char text[256];
        int length = tarnwick::FormatCommand(text, sizeof text, cmd, param, value);
        return length > 0 && tarnwick_link_send(link, text, static_cast<size_t>(length)) == 0;
    }

    ChildProcess simulator, daemon;
    tarnwick_link* link = nullptr;
    tarnwick::Report report;
};

TEST_F(ClientLibraryTest, StatusCommandsVideoAttitudeAndRemoteControl)
{
    StartDaemon();
    for (const char* line : {"set battery 57", "set iso_set 400", "set camera_mode photo", "set gimbal_sweep 0",
                             "set attitude 100 -200 30"})
        simulator.WriteLine(line);
    EXPECT_TRUE(Await(TARNWICK_REPORT_STATUS, [](const tarnwick::Report& r) {
        const tarnwick::Status& s = r.status;
        return s.camera_detected == 1 && s.battery_level == 57 && std::string(s.iso_set) == "400" &&
               std::string(s.camera_mode) == "photo" && std::string(s.camera_model) == "DJI Pocket 2" &&
               s.present == (uint64_t{1} << TARNWICK_STATUS_FIELD_COUNT) - 1;
    })) << simulator.Stdout() << daemon.Stderr();
    EXPECT_TRUE(Await(TARNWICK_REPORT_STATE, [](const tarnwick::Report& r) {
        return r.state.attitude[0] == 100 && r.state.attitude[1] == -200 && r.state.attitude[2] == 30;
    }));
    int16_t attitude[3] = {};
    ASSERT_EQ(tarnwick::ReadAttitude(attitude), 0);
    EXPECT_EQ(std::vector<int16_t>(attitude, attitude + 3), (std::vector<int16_t>{100, -200, 30}));

    // A command goes back to the port the status came from; the simulator applies it and reports it.
    ASSERT_TRUE(tarnwick_link_relay_known(link));
    ASSERT_TRUE(Send("ev", "+0.7"));
    EXPECT_TRUE(simulator.WaitForStdout("applied: set ev +0.7\n", kTimeoutMs)) << simulator.Stdout();
    EXPECT_TRUE(Await(TARNWICK_REPORT_STATUS, [](const tarnwick::Report& r) {
        return std::string(r.status.ev) == "+0.7";
    }));

    // The live video: from the first parameter set on, a stretch of the simulator's looped clip, byte for byte.
    ASSERT_TRUE(Send("camera", "mode", "video"));
    std::unique_ptr<tarnwick::RingReader> reader(new tarnwick::RingReader);
    reader->start_at_parameter_set = true;
    ASSERT_EQ(tarnwick::RingReaderOpen(reader.get()), 0);
    Bytes clip = ReadFile(FixturePath()), stream;
    auto collect = [](const uint8_t* data, uint32_t length, void* context) {
        Bytes* out = static_cast<Bytes*>(context);
        out->insert(out->end(), data, data + length);
        return 0;
    };
    for (auto end = Clock::now() + std::chrono::seconds(20); Clock::now() < end && stream.size() < 2 * clip.size();)
        if (tarnwick::RingReaderPoll(reader.get(), collect, &stream) == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    ASSERT_GE(stream.size(), 2 * clip.size()) << "the clip went round twice";
    EXPECT_TRUE(tarnwick::wire::StartsWithSequenceParameterSet(stream.data(), stream.size()));
    EXPECT_TRUE(IsStretchOfLoop(stream, clip)) << "the ring's stream differs from what the simulator sent";
    EXPECT_EQ(reader->counts.lost_parts, 0u);
    int width = 0, height = 0;
    ASSERT_EQ(tarnwick::ReadResolution(&width, &height), 0);
    EXPECT_TRUE((width == 320 && height == 240) || (width == 176 && height == 144)) << width << "x" << height;
    tarnwick::RingReaderClose(reader.get());

    // The remote control: with a movement mode chosen the relay looks every 20 ms; the record level starts a
    // recording and its release stops it.
    ASSERT_TRUE(Send("set", "movement", "rel"));
    std::this_thread::sleep_for(std::chrono::milliseconds(1300));   // the slow cycle that may be running
    tarnwick::RcWriter rc;
    ASSERT_EQ(tarnwick::RcWriterOpen(&rc), 0);
    ASSERT_EQ(tarnwick::RcWriterSetValue(&rc, tarnwick::wire::kRcSlotRecordShot, 1.0), 0);
    EXPECT_TRUE(simulator.WaitForStdout("applied: set recording 1\n", kTimeoutMs)) << simulator.Stdout();
    EXPECT_TRUE(Await(TARNWICK_REPORT_STATE, [](const tarnwick::Report& r) { return r.state.recording != 0; }));
    ASSERT_EQ(tarnwick::RcWriterSetValue(&rc, tarnwick::wire::kRcSlotRecordShot, 0.0), 0);
    EXPECT_TRUE(simulator.WaitForStdout("applied: set recording 0\n", kTimeoutMs)) << simulator.Stdout();
    tarnwick::RcWriterClose(&rc);
}

TEST_F(ClientLibraryTest, TheExampleApplicationRecordsAndSavesTheVideo)
{
    ChildProcess recorder;
    ASSERT_TRUE(recorder.Start(TARNWICK_RECORDER_PATH, {"--port=" + std::to_string(kStatusPort), "--out=/run/live.h264"}));
    ASSERT_TRUE(recorder.WaitForStdout("listening on 127.0.0.1:15000", 5000)) << recorder.Stderr();
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(kSimulatorPort, {"--dst-port", std::to_string(kStatusPort)})));
    ASSERT_TRUE(recorder.WaitForStdout("camera DJI Pocket 2, mode video, 3840x2160@30", kTimeoutMs))
        << recorder.Stdout() << daemon.Stderr();
    recorder.WriteLine("r");
    EXPECT_TRUE(simulator.WaitForStdout("applied: set recording 1\n", kTimeoutMs)) << recorder.Stdout();
    EXPECT_TRUE(recorder.WaitForStdout("recording started\n", kTimeoutMs)) << recorder.Stdout();
    EXPECT_TRUE(recorder.WaitForStdout(", RECORDING\n", kTimeoutMs)) << recorder.Stdout();
    recorder.WriteLine("r");
    EXPECT_TRUE(simulator.WaitForStdout("applied: set recording 0\n", kTimeoutMs)) << recorder.Stdout();
    EXPECT_TRUE(recorder.WaitForStdout("recording stopped\n", kTimeoutMs)) << recorder.Stdout();
    std::this_thread::sleep_for(std::chrono::seconds(2));   // some video
    recorder.WriteLine("q");
    ASSERT_EQ(recorder.WaitExit(5000), 0) << recorder.Stderr();
    Bytes video = ReadFile("/run/live.h264");
    EXPECT_GT(video.size(), 1000u) << recorder.Stdout();
    EXPECT_TRUE(tarnwick::wire::StartsWithSequenceParameterSet(video.data(), video.size()));
    EXPECT_TRUE(IsStretchOfLoop(video, ReadFile(FixturePath())));
    EXPECT_NE(recorder.Stdout().find(", 0 parts lost, 0 restarts of the relay's ring\n"), std::string::npos)
        << recorder.Stdout();
}

// The relay killed and started again under the example application: it notices the new relay by the new source of
// the status datagrams and sends the movement mode to it again; its ring reader counts the restart, not loss, and
// the video file goes on from a parameter set.
TEST_F(ClientLibraryTest, TheExampleApplicationSendsTheMovementModeAgainToARestartedRelay)
{
    const std::string movement = R"(!{"cmd":"set","name":"movement","value":"abs"})";
    ChildProcess recorder;
    ASSERT_TRUE(recorder.Start(TARNWICK_RECORDER_PATH, {"--port=" + std::to_string(kStatusPort), "--out=/run/live.h264"}));
    ASSERT_TRUE(recorder.WaitForStdout("listening on 127.0.0.1:15000", 5000)) << recorder.Stderr();
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(kSimulatorPort, {"--dst-port", std::to_string(kStatusPort)})));
    const std::string sent = "sent " + movement + "\n";
    ASSERT_TRUE(recorder.WaitForStdout(sent, kTimeoutMs)) << recorder.Stdout();
    ASSERT_TRUE(daemon.WaitForStderr("Clear frame shared memory", kTimeoutMs));
    std::this_thread::sleep_for(std::chrono::seconds(1));   // some video of the first run

    daemon.Kill();
    ChildProcess restarted;
    ASSERT_TRUE(restarted.Start(DaemonPath(), DaemonArguments(kSimulatorPort, {"--dst-port", std::to_string(kStatusPort)})));
    EXPECT_TRUE(recorder.WaitForStdout("the relay started again\n" + sent, kTimeoutMs)) << recorder.Stdout();
    EXPECT_TRUE(restarted.WaitForStderr("Clear frame shared memory", kTimeoutMs));
    std::this_thread::sleep_for(std::chrono::seconds(2));   // video of the second run
    recorder.WriteLine("q");
    ASSERT_EQ(recorder.WaitExit(5000), 0) << recorder.Stderr();
    EXPECT_NE(recorder.Stdout().find(", 0 parts lost, 1 restarts of the relay's ring\n"), std::string::npos)
        << recorder.Stdout();
    Bytes video = ReadFile("/run/live.h264");
    EXPECT_TRUE(tarnwick::wire::StartsWithSequenceParameterSet(video.data(), video.size()));
}

// The screen of a program run in a detached tmux session with its own server socket in the private /run.
class TmuxScreen {
public:
    bool Start(const std::string& command)
    {
        tmux_ = FindProgram("tmux");
        return !tmux_.empty() && Run({"new-session", "-d", "-x", "110", "-y", "36", command}, nullptr);
    }
    ~TmuxScreen() { Run({"kill-server"}, nullptr); }
    void Keys(const std::vector<std::string>& keys)
    {
        std::vector<std::string> arguments = {"send-keys", "-t", "0"};
        arguments.insert(arguments.end(), keys.begin(), keys.end());
        Run(arguments, nullptr);
    }
    std::string Text()
    {
        std::string out;
        Run({"capture-pane", "-p", "-t", "0"}, &out);
        return out;
    }
    // Waits until the screen satisfies `shows`; the last screen is kept for messages.
    bool Await(const std::function<bool(const std::string&)>& shows, int timeout_ms = kTimeoutMs)
    {
        for (auto end = Clock::now() + std::chrono::milliseconds(timeout_ms); Clock::now() < end;) {
            if (shows(last = Text()))
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }
    bool AwaitText(const std::string& text) { return Await([&](const std::string& s) { return s.find(text) != std::string::npos; }); }
    std::string last;

private:
    bool Run(std::vector<std::string> arguments, std::string* out)
    {
        arguments.insert(arguments.begin(), {tmux_, "-S", "/run/tmux.sock"});
        return RunProgram(arguments, out) == 0;
    }
    std::string tmux_;
};

TEST_F(ClientLibraryTest, TheMonitorsFullScreenViewShowsTheStateAndTakesKeys)
{
    TmuxScreen screen;
    ASSERT_TRUE(screen.Start(ToolPath("monitor") + " --tui --port=" + std::to_string(kStatusPort)))
        << "tmux is installed by scripts/setup.sh";
    ASSERT_TRUE(screen.AwaitText("waiting for the relay's status")) << screen.last;
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(kSimulatorPort, {"--dst-port", std::to_string(kStatusPort)})));
    for (const char* line : {"set battery 57", "set gimbal_sweep 0", "set attitude 100 -200 30"})
        simulator.WriteLine(line);
    for (const char* text : {"camera     DJI Pocket 2", "battery    57 %", "attitude   10.0  -20.0  3.0 deg",
                             "format     3840x2160@30", "last status 0."})
        EXPECT_TRUE(screen.AwaitText(text)) << text << "\n" << screen.last;
    EXPECT_TRUE(screen.Await([](const std::string& s) {   // video flows: a rate above zero
        size_t at = s.find(" parts/s");
        return at != std::string::npos && at > 0 && s[at - 1] >= '1' && s[at - 1] <= '9';
    })) << screen.last;

    screen.Keys({"r"});
    EXPECT_TRUE(simulator.WaitForStdout("applied: set recording 1\n", kTimeoutMs)) << screen.Text();
    EXPECT_TRUE(screen.AwaitText("   RECORDING   notice rec_active")) << screen.last;
    screen.Keys({":", "iso 800", "Enter"});
    EXPECT_TRUE(simulator.WaitForStdout("applied: set iso_set 800\n", kTimeoutMs)) << screen.Text();
    EXPECT_TRUE(screen.AwaitText("(set 800)")) << screen.last;
    EXPECT_TRUE(screen.AwaitText("sent: !{\"cmd\":\"iso\",\"param\":\"800\"}")) << screen.last;
    screen.Keys({"r"});
    EXPECT_TRUE(simulator.WaitForStdout("applied: set recording 0\n", kTimeoutMs)) << screen.Text();
    screen.Keys({"q"});
    EXPECT_TRUE(screen.Await([](const std::string& s) { return s.empty(); }, 3000) ||
                screen.Text().find("tarnwick-monitor") == std::string::npos)
        << "q ends the view";
}

}  // namespace
