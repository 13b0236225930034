// The whole loop: the main application sends a JSON command, the daemon
// sends the camera command, the camera simulator applies it and reports the
// new setting, and the daemon's status line shows it. A frame with a bad
// checksum is refused by the simulator.
#include <gtest/gtest.h>

#include <string>

#include "camera/frame.h"
#include "support/child_process.h"
#include "support/command_peers.h"
#include "support/fake_camera.h"
#include "support/isolation.h"

namespace {

constexpr uint16_t kSimulatorPort = 19004;
constexpr int kLoopTimeoutMs = 6000;

class CommandLoopTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        ASSERT_TRUE(simulator.Start(CamsimPath(), {"--port=" + std::to_string(kSimulatorPort), "--no-video"}));
        ASSERT_TRUE(simulator.WaitForStdout("camera simulator on", 5000));
        ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(kSimulatorPort, {"--dst-port",
                                                                                std::to_string(app.port())})));
        ASSERT_TRUE(app.LearnCommandPort(8000)) << daemon.Stderr();
    }

    ChildProcess simulator;
    ChildProcess daemon;
    MainAppPeer app;
};

TEST_F(CommandLoopTest, SettingsCommandedByJsonShowInTheStatusLine)
{
    // Each command, and the status-line text that must show it.
    const std::pair<JsonMembers, const char*> cases[] = {
        {{{"cmd", "iso"}, {"param", "400"}}, ",iso_set=400,"}, {{{"cmd", "iso"}, {"param", "auto"}}, ",iso_set=auto,"},
        {{{"cmd", "shutter"}, {"param", "1/1.25"}}, ",shutter_set=1/1.25,"}, {{{"cmd", "ev"}, {"param", "-0.7"}}, ",ev=-0.7,"},
        {{{"cmd", "video_mode"}, {"param", "manual"}}, ",image_mode=manual,"},
        {{{"cmd", "wb"}, {"param", "custom"}, {"value", "6500"}}, ",wb=custom,wb_temp=6500,"},
        {{{"cmd", "wb"}, {"param", "neon"}}, ",wb=neon,"}, {{{"cmd", "color"}, {"param", "d-clike"}}, ",color_mode=d-clike,"},
        {{{"cmd", "video_resolution"}, {"param", "1920x1080@120"}}, ",format=1920x1080@120,"},
        {{{"cmd", "shotmode"}, {"param", "jpg+raw"}}, ",shot_mode=JPG+RAW,"},
        {{{"cmd", "video_aspect"}, {"param", "4:3"}}, ",ratio=4:3,"}, {{{"cmd", "sensor_res"}, {"param", "64"}}, ",sensor=64,"},
        {{{"cmd", "antiflicker"}, {"param", "60"}}, ",antiflicker=60 Hz,"},
        {{{"cmd", "video_std"}, {"param", "NTSC"}}, ",video_std=NTSC,"},
        {{{"cmd", "aperture"}, {"param", "2.8"}}, ",aperture=2.8,"},
        {{{"cmd", "camera"}, {"param", "mode"}, {"value", "photo"}}, ",camera_mode=photo,"}};
    for (const auto& c : cases) {
        app.SendJson(JsonCommand(c.first));
        EXPECT_NE(app.StatusLineWith(c.second, kLoopTimeoutMs), "") << JsonCommand(c.first) << "\n" << simulator.Stdout();
    }
    EXPECT_EQ(simulator.Stdout().find("BAD CHECKSUM"), std::string::npos);
    EXPECT_EQ(simulator.Stdout().find("bad setting"), std::string::npos) << simulator.Stdout();
}

// A camera drops a frame whose checksum is wrong; so does the simulator.
TEST_F(CommandLoopTest, SimulatorRefusesAFrameWithABadChecksum)
{
    ASSERT_NE(app.StatusLineWith(",iso_set=auto,", kLoopTimeoutMs), "");
    // An ISO 800 command as the daemon would send it, from a peer of the test.
    Bytes frame = ExpectedFrame(0x02, 0x2a, "06");
    SealCameraPacket(frame.data(), frame.size(), 0x1234);
    Bytes datagram(kCommandDatagramCapacity);
    datagram.resize(BuildCommandDatagram(datagram.data(), frame.data(), frame.size(), 0));
    Bytes corrupt = datagram;
    corrupt.back() ^= 0xff;
    UdpPeer intruder;
    intruder.SendTo(kSimulatorPort, corrupt);
    ASSERT_TRUE(simulator.WaitForStdout("rx BAD CHECKSUM (frame crc16) set 02 id 2a\n", kLoopTimeoutMs));
    // Two status lines later the setting is unchanged.
    app.StatusLineWith("", kLoopTimeoutMs);
    EXPECT_NE(app.StatusLineWith("", kLoopTimeoutMs).find(",iso_set=auto,"), std::string::npos);
    EXPECT_EQ(simulator.Stdout().find("applied: set iso_set 800"), std::string::npos);

    intruder.SendTo(kSimulatorPort, datagram);
    EXPECT_TRUE(simulator.WaitForStdout("applied: set iso_set 800\n", kLoopTimeoutMs));
    EXPECT_NE(app.StatusLineWith(",iso_set=800,", kLoopTimeoutMs), "");
}

}  // namespace
