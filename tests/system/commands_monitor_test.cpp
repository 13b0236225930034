// A person drives the camera through the daemon with the monitor tool: a
// command from its command line and commands typed on its standard input
// reach the camera simulator and come back in the status line it prints.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/child_process.h"
#include "support/fake_camera.h"
#include "support/isolation.h"

namespace {

constexpr uint16_t kSimulatorPort = 19004;
constexpr uint16_t kStatusPort = 15000;
constexpr int kTimeoutMs = 8000;

// A status-line item as the monitor prints it.
std::string Shown(const char* key, const char* value)
{
    char line[96];
    snprintf(line, sizeof line, "  %-18s %s\n", key, value);
    return line;
}

TEST(CommandsFromMonitor, CommandLineAndStandardInputReachTheCamera)
{
    REQUIRE_ISOLATION();
    ChildProcess simulator, monitor, daemon;
    ASSERT_TRUE(simulator.Start(CamsimPath(), {"--port=" + std::to_string(kSimulatorPort), "--no-video"}));
    ASSERT_TRUE(simulator.WaitForStdout("camera simulator on", 5000));
    ASSERT_TRUE(monitor.Start(ToolPath("monitor"), {"--port=" + std::to_string(kStatusPort), "--notice-port=0",
                                                    R"(--send={"cmd":"iso","param":"800"})"}));
    ASSERT_TRUE(monitor.WaitForStdout("waiting for the service: !{\"cmd\":\"iso\",\"param\":\"800\"}\n", 5000));
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(kSimulatorPort, {"--dst-port", std::to_string(kStatusPort)})));

    ASSERT_TRUE(monitor.WaitForStdout("sent: !{\"cmd\":\"iso\",\"param\":\"800\"}\n", kTimeoutMs)) << monitor.Stdout();
    EXPECT_TRUE(monitor.WaitForStdout(Shown("iso_set", "800"), kTimeoutMs)) << simulator.Stdout();

    // Words, then JSON, then the datagram text itself, typed on standard input.
    monitor.WriteLine("ev +0.7");
    EXPECT_TRUE(monitor.WaitForStdout("sent: !{\"cmd\":\"ev\",\"param\":\"+0.7\"}\n", kTimeoutMs));
    EXPECT_TRUE(monitor.WaitForStdout(Shown("ev", "+0.7"), kTimeoutMs));
    monitor.WriteLine(R"({"cmd":"shutter","param":"8\""})");
    EXPECT_TRUE(monitor.WaitForStdout(Shown("shutter_set", "8\""), kTimeoutMs)) << monitor.Stdout();
    monitor.WriteLine(R"(!{"cmd":"wb","param":"custom","value":"4200"})");
    EXPECT_TRUE(monitor.WaitForStdout(Shown("wb_temp", "4200"), kTimeoutMs));
    monitor.WriteLine("set movement abs");
    EXPECT_TRUE(monitor.WaitForStdout("sent: !{\"cmd\":\"set\",\"name\":\"movement\",\"value\":\"abs\"}\n", kTimeoutMs));

    std::string log = daemon.Stderr();
    EXPECT_NE(log.find("Camera set iso 800\n"), std::string::npos) << log;
    EXPECT_NE(log.find("Camera set EV 0.7\n"), std::string::npos);
    EXPECT_NE(log.find("Camera set shutter 8\"\n"), std::string::npos);
    EXPECT_NE(log.find("Camera set WB temperature 4200\n"), std::string::npos);
}

}  // namespace
