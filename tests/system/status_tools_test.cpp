// The camera simulator and the monitor tool against the real daemon: the simulator's model shows in the status line
// and follows "set" lines; JSON commands close the loop through the simulator, which refuses a corrupt frame; the
// monitor prints the status decoded, shows what it cannot decode, and sends commands from its input; beside a main
// application that holds the status port it sends commands and exits (--send), and watches (--capture).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support/command_peers.h"
#include "support/isolation.h"

namespace {

constexpr uint16_t kSimulatorPort = 19004;
constexpr int kTimeoutMs = 8000;

// A status item as the monitor prints it.
std::string Field(const char* key, const char* value)
{
    char line[128];
    snprintf(line, sizeof line, "  %-18s %s\n", key, value);
    return line;
}

class StatusToolsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        ASSERT_TRUE(simulator.Start(CamsimPath(), {"--port=" + std::to_string(kSimulatorPort), "--no-video"}));
        ASSERT_TRUE(simulator.WaitForStdout("camera simulator on", 5000));
    }
    // The status line that contains every item, or "".
    std::string LineWithAll(const std::vector<std::string>& items)
    {
        Bytes line = app.Next([&](const Bytes& d) {
            std::string text(d.begin(), d.end());
            for (const std::string& item : items)
                if (d[0] != 7 || text.find(item) == std::string::npos)
                    return false;
            return true;
        }, kTimeoutMs);
        return std::string(line.begin(), line.end());
    }

    ChildProcess simulator, daemon;
    MainAppPeer app{5000};
};

TEST_F(StatusToolsTest, SimulatorModelSetLinesAndTheCommandLoop)
{
    UdpPeer notices(5255);
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(kSimulatorPort)));
    EXPECT_NE(LineWithAll({"camera_detected=1,camera_model=DJI Pocket 2,camera_mode=video,", "format=3840x2160@30,",
                           "iso_set=auto,", "battery_level=87,", "histogram=1,", "wb_temp=5600,"}), "")
        << daemon.Stderr() << simulator.Stdout();

    for (const char* line : {"set iso_set 400", "set battery 57", "set format 1920x1080@120", "set shutter_set 1/8000",
                             "set antiflicker 60 Hz", "set recording 1", "set iso_set 12345", "set no_such_key 1"})
        simulator.WriteLine(line);
    EXPECT_NE(LineWithAll({"iso_set=400,", "battery_level=57,", "format=1920x1080@120,", "shutter_set=1/8000,",
                           "antiflicker=60 Hz,"}), "") << simulator.Stdout();
    EXPECT_TRUE(simulator.WaitForStdout("bad setting: set iso_set 12345\n", 1000) &&
                simulator.WaitForStdout("bad setting: set no_such_key 1\n", 1000));
    // Recording: the notice turns, and the recording time counts.
    std::string notice;
    for (int i = 0; i < 10 && notice != "rec_active"; ++i) {
        Bytes datagram = notices.Receive(1000);
        notice.assign(datagram.begin(), datagram.end());
    }
    EXPECT_EQ(notice, "rec_active");
    EXPECT_FALSE(app.Next([](const Bytes& d) {
        std::string text(d.begin(), d.end());
        return d[0] == 7 && text.find(",rec_time=00:00:") < d.size() && text.find(",rec_time=00:00:00,") > d.size();
    }, kTimeoutMs).empty()) << "the recording time counts";
    // Every binary kind arrives: state, histogram, and tracking once set.
    simulator.WriteLine("set tracking 0.5 0.5 0.2 0.2");
    for (uint8_t kind : {0, 1, 2})
        EXPECT_FALSE(app.Binary(kind, 3000).empty()) << int(kind);
    EXPECT_EQ(daemon.Stderr().find("Restore tracking"), std::string::npos);

    // JSON commands: the simulator applies each and the status line shows the result.
    const std::vector<std::pair<std::vector<std::string>, std::string>> loop = {
        {{"iso", "auto"}, "iso_set=auto,"}, {{"shutter", "1/1.25"}, "shutter_set=1/1.25,"},
        {{"ev", "-0.7"}, "ev=-0.7,"}, {{"video_mode", "manual"}, "image_mode=manual,"},
        {{"wb", "custom", "6500"}, "wb=custom,wb_temp=6500,"},
        {{"color", "d-clike"}, "color_mode=d-clike,"}, {{"video_resolution", "1920x1080@60"}, "format=1920x1080@60,"},
        {{"shotmode", "jpg+raw"}, "shot_mode=JPG+RAW,"}, {{"sensor_res", "64"}, "sensor=64,"},
        {{"video_aspect", "4:3"}, "ratio=4:3,"}, {{"antiflicker", "50"}, "antiflicker=50 Hz,"},
        {{"video_std", "NTSC"}, "video_std=NTSC,"}, {{"aperture", "2.8"}, "aperture=2.8,"},
        {{"camera", "mode", "photo"}, "camera_mode=photo,"}};
    std::vector<std::string> shown;
    for (const auto& c : loop) {
        JsonMembers members;
        for (size_t i = 0; i < c.first.size(); ++i)
            members.push_back({i == 0 ? "cmd" : i == 1 ? "param" : "value", c.first[i]});
        app.SendJson(JsonCommand(members));
        shown.push_back("," + c.second);
    }
    EXPECT_NE(LineWithAll(shown), "") << simulator.Stdout();
    std::string out = simulator.Stdout();
    EXPECT_EQ(out.find("BAD CHECKSUM"), std::string::npos);
    EXPECT_EQ(out.find("bad setting", out.find("bad setting: set no_such_key") + 1), std::string::npos) << out;

    // A camera drops a frame whose checksum is wrong; so does the simulator. ISO 800 as the daemon would send it:
    Bytes frame = ExpectedFrame(0x02, 0x2a, "06");
    SealCameraPacket(frame.data(), frame.size(), 0x1234);
    Bytes datagram(kCommandDatagramCapacity);
    datagram.resize(BuildCommandDatagram(datagram.data(), frame.data(), frame.size(), 0));
    Bytes corrupt = datagram;
    corrupt.back() ^= 0xff;
    UdpPeer intruder;
    intruder.SendTo(kSimulatorPort, corrupt);
    ASSERT_TRUE(simulator.WaitForStdout("rx BAD CHECKSUM (frame crc16) set 02 id 2a\n", kTimeoutMs));
    app.StatusLineWith("", kTimeoutMs);
    EXPECT_NE(app.StatusLineWith("", kTimeoutMs).find(",iso_set=auto,"), std::string::npos);
    intruder.SendTo(kSimulatorPort, datagram);
    EXPECT_NE(app.StatusLineWith(",iso_set=800,", kTimeoutMs), "");
}

TEST_F(StatusToolsTest, MonitorPrintsTheStatusAndSendsCommands)
{
    ChildProcess monitor;
    ASSERT_TRUE(monitor.Start(ToolPath("monitor"), {"--port=15000"}));
    ASSERT_TRUE(monitor.WaitForStdout("monitor on 127.0.0.1:15000, notices on 5255", 5000));
    monitor.WriteLine(R"({"cmd":"iso","param":"800"})");
    ASSERT_TRUE(monitor.WaitForStdout("waiting for the service: !{\"cmd\":\"iso\",\"param\":\"800\"}\n", 5000));
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(kSimulatorPort, {"--dst-port", "15000"})));
    for (const char* line : {"set gimbal_sweep 0", "set attitude 100 -200 30", "set camera_mode photo"})
        simulator.WriteLine(line);
    for (const std::string& text :
         {std::string("sent: !{\"cmd\":\"iso\",\"param\":\"800\"}\n"), Field("iso_set", "800"),
          Field("camera_mode", "photo"), Field("camera_model", "DJI Pocket 2"), Field("pl_time", ""),
          std::string("state: gimbal lock|mode 1, attitude 100 -200 30 (tenths of a degree)\n"),
          std::string("  camera flags 0x00 (rec_inactive)"), std::string("histogram: ["),
          std::string("notice: rec_inactive\n")})
        EXPECT_TRUE(monitor.WaitForStdout(text, kTimeoutMs)) << text << "\n" << monitor.Stdout();
    EXPECT_EQ(monitor.Stdout().find("wrong length"), std::string::npos);

    // Words, JSON, the datagram text itself, typed on standard input.
    const char* typed[][2] = {{"ev +0.7", "ev"}, {R"({"cmd":"shutter","param":"8\""})", "shutter_set"},
                              {R"(!{"cmd":"wb","param":"custom","value":"4200"})", "wb_temp"}};
    const char* shown[] = {"+0.7", "8\"", "4200"};
    for (int i = 0; i < 3; ++i) {
        monitor.WriteLine(typed[i][0]);
        EXPECT_TRUE(monitor.WaitForStdout(Field(typed[i][1], shown[i]), kTimeoutMs)) << typed[i][0];
    }
    EXPECT_TRUE(monitor.WaitForStdout("sent: !{\"cmd\":\"ev\",\"param\":\"+0.7\"}\n", 1000));
    monitor.WriteLine("set movement abs");
    EXPECT_TRUE(monitor.WaitForStdout(R"(sent: !{"cmd":"set","name":"movement","value":"abs"})" "\n", kTimeoutMs));
    for (const char* line : {"Camera set iso 800\n", "Camera set EV 0.7\n", "Camera set shutter 8\"\n",
                             "Camera set WB temperature 4200\n"})
        EXPECT_NE(daemon.Stderr().find(line), std::string::npos) << line;
}

// The fixture's main application holds port 5000 and must keep every datagram. The sender learns the relay's
// command port from a capture of the status port, sends, and ends: with its commands given, and at the end of its
// input. The watcher shows the status from the same capture.
TEST_F(StatusToolsTest, MonitorSendsAndWatchesBesideTheMainApplication)
{
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(kSimulatorPort)));
    ASSERT_TRUE(app.LearnCommandPort(kTimeoutMs)) << daemon.Stderr();

    ChildProcess sender;
    ASSERT_TRUE(sender.Start(ToolPath("monitor"), {"--send=iso 800", R"(--send={"cmd":"ev","param":"+0.7"})"}));
    EXPECT_EQ(sender.WaitExit(kTimeoutMs), 0) << sender.Stdout() << sender.Stderr();
    EXPECT_NE(sender.Stdout().find(R"(sent: !{"cmd":"iso","param":"800"})" "\n"
                                   R"(sent: !{"cmd":"ev","param":"+0.7"})" "\n"),
              std::string::npos) << sender.Stdout();
    EXPECT_NE(app.StatusLineWith(",iso_set=800,", kTimeoutMs), "") << "the application lost its status line";
    EXPECT_NE(app.StatusLineWith(",ev=+0.7,", kTimeoutMs), "");

    ChildProcess piped;
    ASSERT_TRUE(piped.Start(ToolPath("monitor"), {"--send=-"}));
    piped.WriteLine("shutter 1/100");
    piped.WriteLine("wb custom 4200");
    EXPECT_TRUE(piped.WaitForStdout("sent: !{\"cmd\":\"wb\",\"param\":\"custom\",\"value\":\"4200\"}\n", kTimeoutMs))
        << piped.Stdout() << piped.Stderr();
    EXPECT_EQ(piped.WaitExit(300), -1) << "ended before its input did";
    piped.CloseInput();
    EXPECT_EQ(piped.WaitExit(kTimeoutMs), 0);
    EXPECT_NE(app.StatusLineWith(",shutter_set=1/100,", kTimeoutMs), "");

    ChildProcess watcher;
    ASSERT_TRUE(watcher.Start(ToolPath("monitor"), {"--capture", "--count=30"}));
    EXPECT_EQ(watcher.WaitExit(kTimeoutMs), 0) << watcher.Stdout() << watcher.Stderr();
    for (const std::string& text : {std::string("monitor watching port 5000, notices on 5255 (capture)\n"),
                                    Field("iso_set", "800"), std::string("state: "), std::string("notice: rec_")})
        EXPECT_NE(watcher.Stdout().find(text), std::string::npos) << text << watcher.Stdout();
    EXPECT_NE(app.StatusLineWith(",iso_set=800,", kTimeoutMs), "");

    // With nobody to hear, the sender gives up.
    ChildProcess unheard;
    ASSERT_TRUE(unheard.Start(ToolPath("monitor"), {"--port=5999", "--wait=500", "--send=iso 100"}));
    EXPECT_EQ(unheard.WaitExit(kTimeoutMs), 1);
    EXPECT_NE(unheard.Stderr().find("Service not heard on port 5999 within 500 ms: commands not sent\n"),
              std::string::npos) << unheard.Stderr();
}

TEST(StatusMonitor, ShowsWhatItCannotDecode)
{
    REQUIRE_ISOLATION();
    ChildProcess monitor;
    ASSERT_TRUE(monitor.Start(ToolPath("monitor"), {"--port=5400", "--notice-port=0", "--count=4"}));
    ASSERT_TRUE(monitor.WaitForStdout("monitor on 127.0.0.1:5400", 5000));
    UdpPeer sender;
    for (const std::string& datagram : {std::string("\x06\x00\x01\x02", 4), std::string("\x09\x09"),
                                        std::string("\x07" "camera_detected=1,sd=,zz=3,iso=x"), std::string(11, 6)})  // kind 6: no such message
        sender.SendTo(5400, datagram.data(), datagram.size());
    EXPECT_EQ(monitor.WaitExit(5000), 0);
    for (const std::string& text : {std::string("state message of a wrong length, 4 bytes: 06 00 01 02\n"),
                                    std::string("unknown datagram, 2 bytes: 09 09\n"),
                                    Field("camera_detected", "1") + Field("sd", "") +
                                        "  (2 items not understood)\n  (last item without its comma)\n",
                                    std::string("unknown datagram, 11 bytes: 06 06")})
        EXPECT_NE(monitor.Stdout().find(text), std::string::npos) << text << monitor.Stdout();
}

}  // namespace

// Every tool: --help is usage on standard output and status 0; an unknown option or a malformed number is named
// on standard error and ends with 2. The ring reader says when the ring's writer makes no progress.
TEST(ToolCommandLines, HelpBadOptionsAndAStaleRing)
{
    REQUIRE_ISOLATION();
    for (const char* tool : {"camsim", "monitor", "ringreader", "rcwriter"}) {
        SCOPED_TRACE(tool);
        ChildProcess help;
        ASSERT_TRUE(help.Start(ToolPath(tool), {"--help"}));
        EXPECT_EQ(help.WaitExit(5000), 0);
        EXPECT_EQ(help.Stdout().rfind("Usage: tarnwick-", 0), 0u) << help.Stdout();
        EXPECT_EQ(help.Stderr(), "");
        for (const char* bad : {"--no-such-option", "--port=abc", "--port=99999"}) {
            ChildProcess refused;
            ASSERT_TRUE(refused.Start(ToolPath(tool), {bad}));
            EXPECT_EQ(refused.WaitExit(5000), 2) << bad;
            EXPECT_NE(refused.Stderr().find("Usage: tarnwick-"), std::string::npos) << bad << refused.Stderr();
            EXPECT_EQ(refused.Stdout(), "") << bad;
        }
    }
    ChildProcess malformed;
    ASSERT_TRUE(malformed.Start(ToolPath("monitor"), {"--port=5000x"}));
    EXPECT_EQ(malformed.WaitExit(5000), 2);
    EXPECT_NE(malformed.Stderr().find("--port: '5000x' is not a number from 1 to 65535"), std::string::npos);

    // Showing the remote-control record does not make one.
    ChildProcess show;
    ASSERT_TRUE(show.Start(ToolPath("rcwriter"), {"show"}));
    EXPECT_EQ(show.WaitExit(5000), 1);
    EXPECT_NE(show.Stderr().find("tarnwick-rcwriter: cannot read /shared_rc_raw: No such file or directory\n"),
              std::string::npos) << show.Stderr();
    EXPECT_EQ(access("/dev/shm/shared_rc_raw", F_OK), -1) << "show created the record";

    // A ring whose writer is gone: the right size, nothing moving.
    int fd = shm_open("tarnwickrelay_framebuffer", O_RDWR | O_CREAT, 0600);
    ASSERT_TRUE(fd >= 0 && ftruncate(fd, 60003624) == 0);
    close(fd);
    ChildProcess reader;
    ASSERT_TRUE(reader.Start(ToolPath("ringreader"), {"--all", "--out=/dev/null"}));
    EXPECT_TRUE(reader.WaitForStderr("no progress from the writer for 5 s", 9000)) << reader.Stderr();
    shm_unlink("tarnwickrelay_framebuffer");
}
