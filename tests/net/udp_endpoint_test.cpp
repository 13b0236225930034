// The endpoint's receive loop, peer tracking and send path on real loopback sockets.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>

#include "net/clock.h"
#include "net/udp_endpoint.h"
#include "support/udp_peer.h"

namespace {

// The callbacks are plain function pointers; they report here.
std::atomic<int> found_count{0};
std::atomic<int> lost_count{0};
std::atomic<int> receive_count{0};
std::atomic<int> found_before_first_receive{-1};
std::atomic<uint16_t> last_length{0};
std::mutex datagram_lock;
uint8_t last_datagram[10000];  // guarded by datagram_lock
std::atomic<uint16_t> last_peer_port{0};

void OnFound() { ++found_count; }
void OnLost() { ++lost_count; }
void OnReceive(uint8_t* buffer, uint16_t length, const char* peer_ip, uint16_t peer_port)
{
    if (receive_count == 0)
        found_before_first_receive = found_count.load();
    {
        std::lock_guard<std::mutex> lock(datagram_lock);
        memcpy(last_datagram, buffer, 10000);
    }
    last_length = length;
    last_peer_port = peer_port;
    EXPECT_STREQ(peer_ip, "127.0.0.1");
    ++receive_count;
}

bool WaitFor(const std::atomic<int>& counter, int value, int timeout_ms = 3000)
{
    for (int waited = 0; waited < timeout_ms; waited += 5) {
        if (counter.load() >= value)
            return true;
        SleepMs(5);
    }
    return false;
}

class UdpEndpointTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        found_count = lost_count = receive_count = 0;
        found_before_first_receive = -1;
    }
};

TEST_F(UdpEndpointTest, FoundPrecedesReceiveAndLossIsDeclaredOnceThenFoundAgain)
{
    static UdpEndpoint endpoint;  // endpoints live for the process, as in the service
    static uint8_t buffer[10000];
    ASSERT_EQ(endpoint.Open(0), 0);
    endpoint.on_receive = OnReceive;
    endpoint.on_found = OnFound;
    endpoint.on_lost = OnLost;
    endpoint.timeout_ms = 200;
    UdpPeer peer;
    // Sent before the buffer is attached: waits in the socket, then delivered.
    peer.SendTo(endpoint.LocalPort(), "early", 5);
    SleepMs(50);
    EXPECT_EQ(receive_count.load(), 0);
    endpoint.AttachBuffer(buffer, sizeof buffer);

    ASSERT_TRUE(WaitFor(receive_count, 1));
    EXPECT_EQ(found_before_first_receive.load(), 1);
    peer.SendTo(endpoint.LocalPort(), "again", 5);
    ASSERT_TRUE(WaitFor(receive_count, 2));
    EXPECT_EQ(found_count.load(), 1);
    EXPECT_EQ(last_peer_port.load(), peer.port());

    char ip[kPeerIpCapacity];
    EXPECT_EQ(endpoint.GetPeer(ip), peer.port());
    EXPECT_STREQ(ip, "127.0.0.1");

    endpoint.CheckPeerTimeout();  // not yet silent long enough
    EXPECT_EQ(lost_count.load(), 0);
    SleepMs(300);
    endpoint.CheckPeerTimeout();
    EXPECT_EQ(lost_count.load(), 1);
    EXPECT_EQ(endpoint.GetPeer(ip), 0);
    EXPECT_STREQ(ip, "");
    endpoint.CheckPeerTimeout();  // nothing more to lose
    EXPECT_EQ(lost_count.load(), 1);

    peer.SendTo(endpoint.LocalPort(), "back", 4);
    ASSERT_TRUE(WaitFor(receive_count, 3));
    EXPECT_EQ(found_count.load(), 2);
}

TEST_F(UdpEndpointTest, ClearedBufferAlwaysEndsInAZeroByte)
{
    static UdpEndpoint endpoint;
    static uint8_t buffer[10000];
    ASSERT_EQ(endpoint.Open(0), 0);
    endpoint.on_receive = OnReceive;
    endpoint.clear_before_receive = true;
    endpoint.AttachBuffer(buffer, sizeof buffer);
    UdpPeer peer;

    std::string full(10000, 'x');
    peer.SendTo(endpoint.LocalPort(), full.data(), full.size());
    ASSERT_TRUE(WaitFor(receive_count, 1));
    EXPECT_EQ(last_length.load(), 9999);
    {
        std::lock_guard<std::mutex> lock(datagram_lock);
        EXPECT_EQ(last_datagram[9998], 'x');
        EXPECT_EQ(last_datagram[9999], 0);
    }

    // A shorter datagram carries nothing of the previous one behind it.
    peer.SendTo(endpoint.LocalPort(), "short", 5);
    ASSERT_TRUE(WaitFor(receive_count, 2));
    EXPECT_EQ(last_length.load(), 5);
    std::lock_guard<std::mutex> lock(datagram_lock);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(last_datagram), 5), "short");
    for (size_t i = 5; i < sizeof last_datagram; ++i)
        ASSERT_EQ(last_datagram[i], 0) << "at " << i;
}

TEST_F(UdpEndpointTest, SendToUsesTheEndpointPortAndRefusesNonDottedHosts)
{
    static UdpEndpoint endpoint;
    ASSERT_EQ(endpoint.Open(0), 0);
    UdpPeer peer;
    EXPECT_EQ(endpoint.SendTo("hello", 5, "127.0.0.1", peer.port()), 5);
    uint16_t from = 0;
    std::vector<uint8_t> got = peer.Receive(2000, &from);
    EXPECT_EQ(std::string(got.begin(), got.end()), "hello");
    EXPECT_EQ(from, endpoint.LocalPort());

    EXPECT_EQ(endpoint.SendTo("x", 1, "localhost", peer.port()), -1);
    EXPECT_EQ(endpoint.SendTo("x", 1, "", peer.port()), -1);
    EXPECT_EQ(endpoint.SendTo("x", 1, nullptr, peer.port()), -1);
    EXPECT_TRUE(peer.Receive(100).empty());
}

TEST(Clock, NowMsFollowsTheWallClockInMilliseconds)
{
    uint32_t before = NowMs();
    SleepMs(50);
    uint32_t elapsed = NowMs() - before;
    EXPECT_GE(elapsed, 45u);
    EXPECT_LT(elapsed, 5000u);
}

}  // namespace
