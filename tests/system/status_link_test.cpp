// The main-application link: status datagrams leave from command_endpoint,
// whose port is where commands come back; the notice leaves from a socket of
// its own; a destination set on the command line is used.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "support/child_process.h"
#include "support/isolation.h"
#include "support/reporting_camera.h"
#include "support/udp_peer.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Command(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}

TEST(StatusLink, CommandsComeBackToTheStatusSourcePort)
{
    REQUIRE_ISOLATION();
    UdpPeer main_app(5000);
    UdpPeer notices(5255);
    ReportingCamera camera;
    ChildProcess daemon;
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port())));
    ASSERT_TRUE(camera.AwaitDaemon(5000));
    camera.StartKeepAlive();

    uint16_t status_port = 0;
    ASSERT_FALSE(main_app.Receive(3000, &status_port).empty());
    uint16_t notice_port = 0;
    ASSERT_FALSE(notices.Receive(2000, &notice_port).empty());
    ASSERT_NE(status_port, notice_port);

    // Sent anywhere but the status source port, a command goes nowhere.
    main_app.SendTo(notice_port, Command("!{\"cmd\":\"to-the-notice-socket\"}"));
    // A long command, then a shorter one: nothing of the first stays behind.
    main_app.SendTo(status_port, Command("!{\"cmd\":\"first-and-longer\",\"param\":\"xxxxxxxxxxxxxxxx\"}"));
    ASSERT_TRUE(daemon.WaitForStderr("JSON commands from app: {\"cmd\":\"first-and-longer\"", 3000))
        << daemon.Stderr();
    main_app.SendTo(status_port, Command("!{\"cmd\":\"b\"}"));
    EXPECT_TRUE(daemon.WaitForStderr("JSON commands from app: {\"cmd\":\"b\"}\n", 3000)) << daemon.Stderr();
    EXPECT_EQ(daemon.Stderr().find("to-the-notice-socket"), std::string::npos);
}

TEST(StatusLink, DestinationFromTheCommandLine)
{
    REQUIRE_ISOLATION();
    UdpPeer main_app(6123);
    UdpPeer default_port(5000);
    ReportingCamera camera;
    ChildProcess daemon;
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port(), {"--dst-host", "127.0.0.1",
                                                                           "--dst-port", "6123"})));
    ASSERT_TRUE(camera.AwaitDaemon(5000));
    camera.StartKeepAlive();
    Bytes datagram = main_app.ReceiveOfLength(39, 3000);
    ASSERT_EQ(datagram.size(), 39u);
    EXPECT_TRUE(default_port.Receive(1500).empty());
}

}  // namespace
