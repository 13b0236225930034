// Start-up of the real daemon: banner, board files, options, usage and exit codes.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "bridge/mimo_bridge.h"
#include "support/child_process.h"
#include "support/command_peers.h"
#include "support/fake_camera.h"
#include "support/isolation.h"
#include "support/netns.h"

namespace {

const char kUsage[] =
    "DJI Pocket 2 Wi-Fi receiver\n"
    "Usage:\n"
    "-i | --iface=<interface> default wifi0\n"
    "-h | --host=<pocket2_host> default 192.168.2.1\n"
    "-p | --port=<pocket2_port> default 9004\n"
    "-d | --dst-host=<destination_host>\n"
    "-s | --dst-port=<destination_port>\n"
    "-v | --verbose\n"
    "-? | --help - show this help\n";

const char kBanner[] = "\nDJI Pocket 2 Wi-Fi client\nBoard model: ";

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream(path) << text;
}

bool EndsWith(const std::string& text, const std::string& tail)
{
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

class StartupTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_ISOLATION();
        mkdir("/run/tarnwickrelay", 0755);
    }

    ChildProcess daemon;
};

// Command lines that end at once with exit code 1, and how the log must end.
TEST_F(StartupTest, CommandLinesRefusedWithExitOne)
{
    const std::string usage = kUsage;
    const std::string no_destination = "Destination host or port not set\n";
    const struct {
        std::vector<std::string> arguments;
        std::string log_tail;
        std::string log_contains;  // getopt_long's or our own line naming the culprit
    } cases[] = {
        {{"-?"}, usage, ""},
        {{"--help"}, usage, ""},
        {{"--bogus"}, usage, "'--bogus'"},
        {{"-x"}, usage, "-- 'x'"},
        {{"-p"}, usage, "-- 'p'"},
        {{"--dst-port"}, usage, "'--dst-port'"},
        {{"--dst-port", "0"}, no_destination, ""},
        {{"--dst-port", "abc"}, no_destination, ""},
        {{"-s", "0"}, no_destination, ""},
        {{"--dst-host", ""}, no_destination, ""},
        {{"-d", ""}, no_destination, ""},
        {{"--iface", "abcdefghij"}, usage, "Value of --iface too long"},
        {{"--host", "1234567890.1234567890."}, usage, "Value of --host too long"},
        {{"--dst-host", "1234567890.123456789"}, usage, "Value of --dst-host too long"},
    };
    for (const auto& c : cases) {
        ChildProcess run;
        ASSERT_TRUE(run.Start(DaemonPath(), c.arguments));
        EXPECT_EQ(run.WaitExit(5000), 1) << c.arguments[0];
        std::string log = run.Stderr();
        EXPECT_EQ(log.rfind(kBanner, 0), 0u) << log;
        EXPECT_TRUE(EndsWith(log, c.log_tail)) << c.arguments[0] << ":\n" << log;
        EXPECT_NE(log.find(c.log_contains), std::string::npos) << log;
    }
    // Values of the full width are accepted.
    FakeCamera camera;
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port(), {"-v", "-i", "abcdefghi"})));
    EXPECT_TRUE(daemon.WaitForStderr("Using interface abcdefghi\n", 5000)) << daemon.Stderr();
}

TEST_F(StartupTest, ShortOptionsAndLeadingDigitsOfNumbers)
{
    // "-h" is the camera host, and "<port>abc" is the port.
    FakeCamera camera;
    std::string port = std::to_string(camera.port()) + "abc";
    ASSERT_TRUE(daemon.Start(DaemonPath(), {"-h", "127.0.0.1", "-p", port}));
    EXPECT_TRUE(camera.AwaitConnectRequest(5000)) << daemon.Stderr();
    EXPECT_EQ(daemon.Stderr().find("Usage:"), std::string::npos);
}

TEST_F(StartupTest, QuietStartupLinesBoardFileAndApInterface)
{
    // A board model of our own, where the board's device tree would be.
    bool model_mounted = mount("tmpfs", "/sys/firmware", "tmpfs", 0, nullptr) == 0;
    if (model_mounted) {
        mkdir("/sys/firmware/devicetree", 0755);
        mkdir("/sys/firmware/devicetree/base", 0755);
        WriteFile("/sys/firmware/devicetree/base/model", "Raspberry Pi Zero 2 W Rev 1.0");
    }
    FakeCamera camera;
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port())));
    ASSERT_TRUE(camera.AwaitConnectRequest(5000));
    std::string expected = std::string(kBanner) + (model_mounted ? "Raspberry Pi Zero 2 W Rev 1.0" : "") +
                           "\nBoard supported\nInit telemetry buffer\n";
    EXPECT_EQ(daemon.Stderr().rfind(expected, 0), 0u) << daemon.Stderr();
    EXPECT_EQ(daemon.Stderr().find("Init connection"), std::string::npos) << "verbose lines without --verbose";
    EXPECT_EQ(ReadFile("/run/tarnwickrelay/board_supported"), "1");
}

TEST_F(StartupTest, VerboseLinesInTheirOrder)
{
    WriteFile("/run/tarnwickrelay/ap.iface", "uap0\n");
    FakeCamera camera;
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port(), {"--verbose", "--iface", "wlan1"})));
    std::string port = std::to_string(camera.port());
    ASSERT_TRUE(daemon.WaitForStderr("via iface uap0 \n", 5000)) << daemon.Stderr();
    // In this order; the threads the links start may write lines in between.
    const std::vector<std::string> expected = {"Init telemetry buffer\n",
                                               "Using interface wlan1\n",
                                               "Init connection to main application 127.0.0.1:5000\n",
                                               "Done\n",
                                               "Init connection to camera 127.0.0.1:" + port + " via iface wlan1\n",
                                               "Done\n",
                                               "Init data bridge server for DJI MIMO via iface uap0 \n"};
    std::string log = daemon.Stderr();
    size_t at = 0;
    for (const std::string& line : expected) {
        at = log.find(line, at);
        ASSERT_NE(at, std::string::npos) << "missing or out of order: " << line << "in:\n" << log;
        at += line.size();
    }
}

TEST_F(StartupTest, ApInterfaceNameIsCutToTenBytes)
{
    WriteFile("/run/tarnwickrelay/ap.iface", "abcdefghijklmnop\r\n");
    FakeCamera camera;
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port(), {"-v"})));
    EXPECT_TRUE(daemon.WaitForStderr("Init data bridge server for DJI MIMO via iface abcdefghij\n", 5000))
        << daemon.Stderr();
}

TEST_F(StartupTest, DefaultsReachTheCameraAt192_168_2_1)
{
    // The camera's real address, on this test's own loopback.
    ASSERT_EQ(system("ip addr add 192.168.2.1/32 dev lo"), 0);
    UdpPeer camera("192.168.2.1", 9004);
    ASSERT_TRUE(daemon.Start(DaemonPath(), {}));
    EXPECT_EQ(camera.ReceiveOfLength(48, 5000).size(), 48u) << daemon.Stderr();
}

// A destination host other than loopback's usual address: the status goes there.
TEST_F(StartupTest, StatusGoesToTheDestinationHostGiven)
{
    ASSERT_EQ(system("ip addr add 10.9.8.7/32 dev lo"), 0);
    UdpPeer app("10.9.8.7", 6000);
    FakeCamera camera;
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port(), {"--dst-host", "10.9.8.7", "--dst-port",
                                                                           "6000"})));
    ASSERT_TRUE(camera.AwaitConnectRequest(5000)) << daemon.Stderr();
    Bytes status;
    for (int i = 0; i < 30 && (status.empty() || status[0] != 7); ++i) {
        camera.SendReports(static_cast<uint16_t>(i), {});   // the data stream, so that status is sent
        status = app.Receive(200);
    }
    ASSERT_FALSE(status.empty()) << daemon.Stderr();
    EXPECT_EQ(std::string(status.begin(), status.begin() + 19), "\x07" "camera_detected=0,");
}

}  // namespace

// Every endpoint gets the 10000000-byte receive buffer it asks for, although the system's maximum
// (net.core.rmem_max) is lower by default: read from outside with ss, the kernel's own view (skmem rb, which counts
// twice the granted size).
TEST(SocketBuffers, EveryEndpointObtainsWhatItAsks)
{
    REQUIRE_ISOLATION();
    CommandRig rig;
    ASSERT_TRUE(rig.Start()) << rig.daemon.Stderr();
    std::string sockets;
    ASSERT_EQ(RunProgram({"ss", "-u", "-a", "-n", "-m"}, &sockets), 0) << sockets;
    for (uint16_t port : {rig.camera.daemon_port(), rig.app.command_port(), kMimoBridgePort}) {
        SCOPED_TRACE("port " + std::to_string(port));
        size_t line = sockets.find(":" + std::to_string(port) + " ");
        ASSERT_NE(line, std::string::npos) << sockets;
        size_t rb = sockets.find("rb", line);
        ASSERT_NE(rb, std::string::npos) << sockets;
        EXPECT_GE(atol(sockets.c_str() + rb + 2) / 2, 10000000) << sockets;
    }
    EXPECT_EQ(rig.daemon.Stderr().find("UDP receive buffer is"), std::string::npos) << rig.daemon.Stderr();
}
