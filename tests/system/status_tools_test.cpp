// The simulator's reports and the monitor tool against the real daemon: the
// simulator's model shows in the status line and follows "set" lines; the
// monitor, standing where the main application stands, prints it decoded.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/child_process.h"
#include "support/command_peers.h"
#include "support/fake_camera.h"
#include "support/isolation.h"
#include "support/udp_peer.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr const char* kSimulatorPort = "19004";

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
        ASSERT_TRUE(simulator.Start(CamsimPath(), {std::string("--port=") + kSimulatorPort, "--no-video"}));
        ASSERT_TRUE(simulator.WaitForStdout("camera simulator on", 5000));
    }
    void StartDaemon()
    {
        ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(static_cast<uint16_t>(std::stoi(kSimulatorPort)))));
    }

    ChildProcess simulator;
    ChildProcess daemon;
};

TEST_F(StatusToolsTest, SimulatorModelShowsAndFollowsSetLines)
{
    MainAppPeer main_app(5000);
    UdpPeer notices(5255);
    StartDaemon();
    std::string line = main_app.StatusLineWith("camera_detected=1", 8000);
    ASSERT_FALSE(line.empty()) << daemon.Stderr() << simulator.Stdout();
    for (const char* item : {"camera_model=DJI Pocket 2,", "camera_mode=video,", "format=3840x2160@30,",
                             "iso_set=auto,", "battery_level=87,", "histogram=1,", "wb_temp=5600,"})
        EXPECT_NE(line.find(item), std::string::npos) << item << " in " << line;

    for (const char* line : {"set iso_set 400", "set battery 57", "set format 1920x1080@120", "set shutter_set 1/8000",
                             "set antiflicker 60 Hz", "set recording 1", "set iso_set 12345", "set no_such_key 1"})
        simulator.WriteLine(line);
    line = main_app.StatusLineWith("iso_set=400,", 4000);
    ASSERT_FALSE(line.empty()) << simulator.Stdout();
    for (const char* item : {"battery_level=57,", "format=1920x1080@120,", "shutter_set=1/8000,",
                             "antiflicker=60 Hz,"})
        EXPECT_NE(line.find(item), std::string::npos) << item << " in " << line;
    EXPECT_TRUE(simulator.WaitForStdout("bad setting: set iso_set 12345\n", 1000) &&
                simulator.WaitForStdout("bad setting: set no_such_key 1\n", 1000));
    // Recording: the notice turns, and the recording time counts.
    std::string notice;
    for (int i = 0; i < 10 && notice != "rec_active"; ++i) {
        Bytes datagram = notices.Receive(1000);
        notice.assign(datagram.begin(), datagram.end());
    }
    EXPECT_EQ(notice, "rec_active");
    EXPECT_FALSE(main_app.StatusLineWith("rec_time=00:00:02,", 8000).empty());

    // Every binary kind arrives: state, histogram, and tracking once set.
    simulator.WriteLine("set tracking 0.5 0.5 0.2 0.2");
    for (uint8_t kind : {0, 1, 2})
        EXPECT_FALSE(main_app.Binary(kind, 3000).empty()) << int(kind);
    EXPECT_EQ(daemon.Stderr().find("Restore tracking"), std::string::npos);
}

TEST_F(StatusToolsTest, MonitorPrintsTheStatusDecoded)
{
    ChildProcess monitor;
    ASSERT_TRUE(monitor.Start(ToolPath("monitor"), {}));
    ASSERT_TRUE(monitor.WaitForStdout("monitor on 127.0.0.1:5000, notices on 5255", 5000));
    StartDaemon();
    for (const char* line : {"set gimbal_sweep 0", "set attitude 100 -200 30", "set camera_mode photo"})
        simulator.WriteLine(line);
    ASSERT_TRUE(monitor.WaitForStdout(Field("camera_mode", "photo"), 8000)) << monitor.Stdout();
    for (const std::string& text : {Field("camera_model", "DJI Pocket 2"), Field("pl_time", ""),
                             std::string("state: gimbal lock|mode 1, attitude 100 -200 30 (tenths of a degree)\n"),
                             std::string("  camera flags 0x00 (rec_inactive)"), std::string("histogram: ["),
                             std::string("notice: rec_inactive\n")})
        EXPECT_TRUE(monitor.WaitForStdout(text, 3000)) << text << "\n" << monitor.Stdout();
    EXPECT_EQ(monitor.Stdout().find("wrong length"), std::string::npos);
}

TEST(StatusMonitor, ShowsWhatItCannotDecode)
{
    REQUIRE_ISOLATION();
    ChildProcess monitor;
    ASSERT_TRUE(monitor.Start(ToolPath("monitor"), {"--port=5400", "--notice-port=0", "--count=4"}));
    ASSERT_TRUE(monitor.WaitForStdout("monitor on 127.0.0.1:5400", 5000));
    UdpPeer sender;
    sender.SendTo(5400, Bytes{6, 0, 1, 2});
    sender.SendTo(5400, Bytes{9, 9});
    const std::string cut_line = "\x07" "a=1,b=";
    sender.SendTo(5400, cut_line.data(), cut_line.size());
    sender.SendTo(5400, Bytes(11, 6));  // kind 6: no such message
    EXPECT_EQ(monitor.WaitExit(5000), 0);
    for (const std::string& text : {std::string("state message of a wrong length, 4 bytes: 06 00 01 02\n"),
                                    std::string("unknown datagram, 2 bytes: 09 09\n"),
                                    Field("a", "1") + Field("b", "") + "  (last item without its comma)\n",
                                    std::string("unknown datagram, 11 bytes: 06 06")})
        EXPECT_NE(monitor.Stdout().find(text), std::string::npos) << text << monitor.Stdout();
}

}  // namespace
