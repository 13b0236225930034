// The endpoint's receive loop, peer tracking and send path on real loopback sockets.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

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

// The batched receive: what a callback saw, in order, and whether any reply
// had reached the peer while the batch was still being handled.
constexpr uint16_t kBatchBufferSize = 100;
std::mutex batch_lock;
std::vector<std::string> batch_seen;     // guarded by batch_lock
UdpEndpoint batch_endpoint;
int reply_fd = -1;                       // where the replies go
struct sockaddr_in reply_address;
std::atomic<bool> reply_arrived_during_batch{false};

void OnBatchDatagram(uint8_t* buffer, uint16_t length, const char*, uint16_t)
{
    {
        std::lock_guard<std::mutex> lock(batch_lock);
        batch_seen.emplace_back(reinterpret_cast<char*>(buffer), length);
    }
    char probe;
    if (receive_count < 4 && recv(reply_fd, &probe, 1, MSG_PEEK | MSG_DONTWAIT) >= 0)
        reply_arrived_during_batch = true;
    // The reply: "ack" and the datagram's first byte.
    uint8_t reply[4] = {'a', 'c', 'k', buffer[0]};
    batch_endpoint.QueueTo(reply, sizeof reply, reply_address);
    ++receive_count;
}

TEST_F(UdpEndpointTest, QueuedDatagramsAreHandledInOrderInOneBatchWithRepliesAfterIt)
{
    static uint8_t buffers[4][kBatchBufferSize];
    ASSERT_EQ(batch_endpoint.Open(0), 0);
    batch_endpoint.on_receive = OnBatchDatagram;
    UdpPeer peer;
    reply_fd = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(reply_fd, 0);
    MakeUdpAddress("127.0.0.1", 0, &reply_address);
    socklen_t address_length = sizeof reply_address;
    ASSERT_EQ(bind(reply_fd, reinterpret_cast<struct sockaddr*>(&reply_address), sizeof reply_address), 0);
    ASSERT_EQ(getsockname(reply_fd, reinterpret_cast<struct sockaddr*>(&reply_address), &address_length), 0);
    // Six datagrams wait in the socket before the buffers are attached: the
    // first receive takes four, the next two. The third is longer than a
    // buffer and arrives cut to it, the others whole in their own buffers.
    std::string oversized = "C" + std::string(kBatchBufferSize + 49, 'c');
    std::vector<std::string> sent = {"A1", "B22", oversized, "D4444", "E", "F666666"};
    for (const std::string& datagram : sent)
        peer.SendTo(batch_endpoint.LocalPort(), datagram.data(), datagram.size());
    SleepMs(50);
    batch_endpoint.AttachBuffers(&buffers[0][0], kBatchBufferSize, 4);
    ASSERT_TRUE(WaitFor(receive_count, 6));
    {
        std::lock_guard<std::mutex> lock(batch_lock);
        ASSERT_EQ(batch_seen.size(), 6u);
        for (size_t i = 0; i < sent.size(); ++i)
            EXPECT_EQ(batch_seen[i], sent[i].substr(0, kBatchBufferSize)) << "datagram " << i;
    }
    // Replies leave after their batch: none had arrived while the first four were handled.
    EXPECT_FALSE(reply_arrived_during_batch.load());
    // One reply per datagram, in the order of the datagrams, from the endpoint's port.
    struct timeval timeout = {2, 0};
    setsockopt(reply_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    for (const std::string& datagram : sent) {
        char reply[16] = {};
        struct sockaddr_in from;
        socklen_t from_length = sizeof from;
        ssize_t length = recvfrom(reply_fd, reply, sizeof reply, 0, reinterpret_cast<struct sockaddr*>(&from), &from_length);
        EXPECT_EQ(std::string(reply, length > 0 ? static_cast<size_t>(length) : 0), std::string("ack") + datagram[0]);
        EXPECT_EQ(ntohs(from.sin_port), batch_endpoint.LocalPort());
    }
    EXPECT_LT(recv(reply_fd, &timeout, 1, MSG_DONTWAIT), 0);
    close(reply_fd);
}

// A run of replies the kernel will not segment: in a private network
// namespace whose loopback carries 1200 bytes a packet, 1400-byte replies
// cannot leave as one segmented send.
constexpr uint16_t kLongReplyBytes = 1400;
UdpEndpoint unsegmented_endpoint;
struct sockaddr_in long_reply_address;
uint8_t long_replies[8][kLongReplyBytes];   // referenced by the queue until the batch is sent
std::atomic<int> long_reply_count{0};

// "A" wants a short reply, every other byte a long one: a batch that starts with "A" sends the short reply alone
// and the long ones as one run.
constexpr uint16_t kShortReplyBytes = 16;
uint16_t ReplyLength(char first)
{
    return first == 'A' ? kShortReplyBytes : kLongReplyBytes;
}

void OnDatagramWantingLongReply(uint8_t* buffer, uint16_t, const char*, uint16_t)
{
    int index = long_reply_count.load();
    memset(long_replies[index], buffer[0], kLongReplyBytes);
    unsegmented_endpoint.QueueTo(long_replies[index], ReplyLength(static_cast<char>(buffer[0])), long_reply_address);
    ++long_reply_count;
}

void SetLoopbackMtu(int mtu)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq request;
    memset(&request, 0, sizeof request);
    strcpy(request.ifr_name, "lo");
    request.ifr_mtu = mtu;
    ASSERT_EQ(ioctl(fd, SIOCSIFMTU, &request), 0);
    ASSERT_EQ(ioctl(fd, SIOCGIFFLAGS, &request), 0);
    request.ifr_flags |= IFF_UP;
    ASSERT_EQ(ioctl(fd, SIOCSIFFLAGS, &request), 0);
    close(fd);
}

TEST_F(UdpEndpointTest, RunsTheKernelWillNotSegmentLeaveOneByOneWholeAndInOrder)
{
    int home = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(home, 0);
    if (unshare(CLONE_NEWNET) != 0) {
        close(home);
        GTEST_SKIP() << "a private network namespace needs root";
    }
    struct BackHome {
        int fd;
        ~BackHome() { setns(fd, CLONE_NEWNET), close(fd); }
    } back_home{home};
    SetLoopbackMtu(1200);

    static uint8_t buffers[4][64];
    ASSERT_EQ(unsegmented_endpoint.Open(0), 0);
    unsegmented_endpoint.on_receive = OnDatagramWantingLongReply;
    UdpPeer replies;
    replies.SetReceiveBuffer(1 << 20);
    MakeUdpAddress("127.0.0.1", replies.port(), &long_reply_address);
    UdpPeer peer;
    testing::internal::CaptureStderr();
    // Two batches of four: the first finds segmenting refused after its short
    // reply left (which must not leave twice), the second does not try it again.
    const char first_bytes[] = "ABCDEFGH";
    for (int i = 0; i < 4; ++i)
        peer.SendTo(unsegmented_endpoint.LocalPort(), &first_bytes[i], 1);
    SleepMs(50);
    unsegmented_endpoint.AttachBuffers(&buffers[0][0], sizeof buffers[0], 4);
    ASSERT_TRUE(WaitFor(long_reply_count, 4));
    SleepMs(50);
    for (int i = 4; i < 8; ++i)
        peer.SendTo(unsegmented_endpoint.LocalPort(), &first_bytes[i], 1);
    ASSERT_TRUE(WaitFor(long_reply_count, 8));
    for (int i = 0; i < 8; ++i) {
        std::vector<uint8_t> reply = replies.Receive(2000);
        EXPECT_EQ(reply, std::vector<uint8_t>(ReplyLength(first_bytes[i]), static_cast<uint8_t>(first_bytes[i])))
            << "reply " << i;
    }
    EXPECT_TRUE(replies.Receive(100).empty());
    std::string said = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(unsegmented_endpoint.segmenting.load());
    EXPECT_EQ(unsegmented_endpoint.send_drops.load(), 0u);
    std::string refusal = "UDP segmentation refused (port " + std::to_string(unsegmented_endpoint.LocalPort()) +
                          "): datagrams leave one by one\n";
    EXPECT_EQ(said, refusal);
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
