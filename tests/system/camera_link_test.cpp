// The daemon's camera link, end to end: connect requests, pings, video
// acknowledgements, the found / lost / time-out exits, and hostile input.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "camera/crc.h"
#include "camera/frame.h"
#include "support/child_process.h"
#include "support/fake_camera.h"
#include "support/isolation.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes ToBytes(const uint8_t* data, size_t length)
{
    return Bytes(data, data + length);
}

Bytes Ack(uint16_t camera_sequence)
{
    uint8_t ack[kAckDatagramSize];
    BuildAckDatagram(ack, camera_sequence);
    return ToBytes(ack, sizeof ack);
}

class CameraLinkTest : public ::testing::Test {
protected:
    void SetUp() override { REQUIRE_ISOLATION(); }

    // Starts the daemon and waits for its first connect request.
    void StartConnected(const std::vector<std::string>& extra = {})
    {
        ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port(), extra)));
        ASSERT_TRUE(camera.AwaitConnectRequest(5000)) << daemon.Stderr();
    }

    FakeCamera camera;
    ChildProcess daemon;
};

TEST_F(CameraLinkTest, ConnectRequestsUntilTheDataStreamThenNumberedPings)
{
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(camera.port())));
    Bytes first = camera.Await(0, 5000);
    ASSERT_EQ(first, ToBytes(kConnectRequest, sizeof kConnectRequest));
    auto first_at = std::chrono::steady_clock::now();
    Bytes second = camera.Await(0, 3000);
    auto period = std::chrono::steady_clock::now() - first_at;
    ASSERT_EQ(second, first);
    EXPECT_GT(period, std::chrono::milliseconds(700));
    EXPECT_LT(period, std::chrono::milliseconds(2500));
    EXPECT_EQ(daemon.Stderr().find("Camera connection found"), std::string::npos);

    // Video alone does not count as the data stream: its acks advance the
    // sequence counter, and connect requests go on.
    camera.Send(kTransportLiveVideo, 0x0077, Bytes(100, 0xaa));
    ASSERT_EQ(camera.Await(0, 2000), Ack(0x0077));
    ASSERT_TRUE(daemon.WaitForStderr("Camera connection found\n", 2000));
    ASSERT_EQ(camera.Await(0, 3000), first) << "still connecting after video only";

    // Three connect requests and one ack so far: the first ping carries 4.
    camera.Send(kTransportDataStream, 0x0102, Bytes(10, 0));
    Bytes ping = camera.Await(0, 3000);
    ASSERT_EQ(ping.size(), kPingDatagramSize);
    uint8_t expected[kPingDatagramSize];
    BuildPingDatagram(expected, 0x0102, 4);
    EXPECT_EQ(ping, ToBytes(expected, sizeof expected));
    EXPECT_EQ(Crc16(ping.data() + kCommandHeaderSize, 11), ReadLe16(ping.data() + 45));

    camera.Send(kTransportDataStream, 0x0103, Bytes(10, 0));
    Bytes next = camera.Await(0, 3000);
    BuildPingDatagram(expected, 0x0103, 5);
    EXPECT_EQ(next, ToBytes(expected, sizeof expected));
    EXPECT_EQ(daemon.Stderr().find("Camera connection found\n"), daemon.Stderr().rfind("Camera connection found\n"))
        << "found is reported once";
}

TEST_F(CameraLinkTest, EveryVideoDatagramIsAcknowledgedWithTheCameraSequence)
{
    StartConnected();
    Bytes marker_header = {0x00, 0x00, 0x01, 0xff};
    marker_header.resize(100, 0x42);
    const struct {
        uint16_t sequence;
        Bytes payload;
    } cases[] = {
        {0x1234, Bytes(1380, 0x11)},
        {0xffff, marker_header},                  // 32-byte header variant
        {0x0000, Bytes(3, 0x22)},                 // ends inside the long header: no payload, still acked
        {0x8001, Bytes(9980, 0x33)},              // the largest datagram the buffer holds
    };
    for (const auto& c : cases) {
        camera.Send(kTransportLiveVideo, c.sequence, c.payload);
        EXPECT_EQ(camera.Await(kAckDatagramSize, 2000), Ack(c.sequence)) << "sequence " << c.sequence;
    }
    // A datagram that ends inside the 20-byte header is acknowledged too.
    Bytes bare(15, 0);
    bare[kTransportTypeOffset] = kTransportLiveVideo;
    WriteLe16(bare.data() + kReceivedSequenceOffset, 0x0777);
    camera.SendRaw(bare);
    EXPECT_EQ(camera.Await(kAckDatagramSize, 2000), Ack(0x0777));
}

// The acknowledgement of the camera's sequence number R, byte by byte.
Bytes HandWrittenAck(uint16_t r)
{
    uint8_t lo = static_cast<uint8_t>(r), hi = static_cast<uint8_t>(r >> 8);
    return {0x22, 0x80, 0x27, 0x90, 0x00, 0x00, 0x04, 0x11, lo,   hi,   lo,   hi,   0x00, 0x00, 0x00, 0x00, 0x38,
            0x81, 0x38, 0x81, 0x00, 0x00, 0x00, 0x00, 0x38, 0x81, 0x40, 0x81, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
}

TEST_F(CameraLinkTest, BurstIsAcknowledgedDatagramByDatagramAndRingedInOrder)
{
    StartConnected();
    // Sent back to back, so that the receive thread finds several waiting at
    // once; one in the middle is longer than the 10000-byte receive buffer.
    constexpr int kBurst = 60;
    constexpr int kOversized = 25;
    std::vector<Bytes> payloads;
    for (int i = 0; i < kBurst; ++i)
        payloads.push_back(Bytes(i == kOversized ? 12000 : 200 + 37 * i, static_cast<uint8_t>(0x80 + i)));
    for (int i = 0; i < kBurst; ++i)
        camera.Send(kTransportLiveVideo, static_cast<uint16_t>(0x2300 + i), payloads[i]);
    for (int i = 0; i < kBurst; ++i)
        ASSERT_EQ(camera.Await(kAckDatagramSize, 2000), HandWrittenAck(static_cast<uint16_t>(0x2300 + i)))
            << "datagram " << i;

    // The ring: 24-byte header (last part at 2, next slot at 4), then slots
    // of 18 + 300000 bytes, each with its length (32 bits) first and the
    // payload from byte 18. The cut datagram keeps 10000 - 20 payload bytes.
    int fd = shm_open("/tarnwickrelay_framebuffer", O_RDONLY, 0);
    ASSERT_GE(fd, 0);
    constexpr size_t kSlotBytes = 18 + 300000;
    size_t size = 24 + kBurst * kSlotBytes;
    void* mapping = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    ASSERT_NE(mapping, MAP_FAILED);
    const uint8_t* ring = static_cast<const uint8_t*>(mapping);
    for (int waited = 0; waited < 2000 && (ring[4] | ring[5] << 8) != kBurst; waited += 10)
        usleep(10000);
    EXPECT_EQ(ring[4] | ring[5] << 8, kBurst);
    EXPECT_EQ(ring[2] | ring[3] << 8, kBurst - 1);
    for (int i = 0; i < kBurst; ++i) {
        const uint8_t* slot = ring + 24 + i * kSlotBytes;
        size_t expected = i == kOversized ? 10000 - 20 : payloads[i].size();
        uint32_t length = slot[0] | slot[1] << 8 | slot[2] << 16 | static_cast<uint32_t>(slot[3]) << 24;
        ASSERT_EQ(length, expected) << "slot " << i;
        EXPECT_EQ(Bytes(slot + 18, slot + 18 + length), Bytes(expected, static_cast<uint8_t>(0x80 + i)))
            << "slot " << i;
    }
    munmap(mapping, size);
}

TEST_F(CameraLinkTest, CameraThatNeverAnswersEndsWithExitTwo)
{
    auto started = std::chrono::steady_clock::now();
    StartConnected();
    EXPECT_EQ(daemon.WaitExit(15000), 2);
    auto lived = std::chrono::steady_clock::now() - started;
    EXPECT_GT(lived, std::chrono::milliseconds(5900));  // a 1 s start-up pause, then more than 5 s
    EXPECT_LT(lived, std::chrono::milliseconds(12000));
    std::string log = daemon.Stderr();
    EXPECT_NE(log.find("Telemetry receiving timeout\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("Camera connection found"), std::string::npos);
}

TEST_F(CameraLinkTest, CameraPortZeroSendsNothingAndEndsWithExitTwo)
{
    ASSERT_TRUE(daemon.Start(DaemonPath(), {"--host", "127.0.0.1", "--port", "0"}));
    EXPECT_EQ(daemon.WaitExit(15000), 2);
    EXPECT_NE(daemon.Stderr().find("Telemetry receiving timeout\n"), std::string::npos);
}

TEST_F(CameraLinkTest, CameraThatFallsSilentEndsWithExitOne)
{
    ChildProcess simulator;
    ASSERT_TRUE(simulator.Start(CamsimPath(), {"--port=19004", "--silent-after=1500"}));
    ASSERT_TRUE(simulator.WaitForStdout("camera simulator on", 5000));
    ASSERT_TRUE(daemon.Start(DaemonPath(), DaemonArguments(19004)));
    ASSERT_TRUE(daemon.WaitForStderr("Camera connection found\n", 5000)) << daemon.Stderr();
    EXPECT_EQ(daemon.WaitExit(15000), 1);
    EXPECT_NE(daemon.Stderr().find("Camera connection lost\n"), std::string::npos) << daemon.Stderr();
    // The simulator saw the whole life of the link.
    std::string seen = simulator.Stdout();
    EXPECT_NE(seen.find("rx connect request\n"), std::string::npos) << seen;
    EXPECT_NE(seen.find("stream started"), std::string::npos);
    EXPECT_NE(seen.find("rx first ack"), std::string::npos);
    EXPECT_NE(seen.find("rx ping seq"), std::string::npos);
    EXPECT_NE(seen.find("falling silent"), std::string::npos);
    EXPECT_EQ(seen.find("BAD CHECKSUM"), std::string::npos);
}

TEST_F(CameraLinkTest, EmptyDatagramEndsWithExitThree)
{
    StartConnected();
    camera.SendRaw({});
    EXPECT_EQ(daemon.WaitExit(5000), 3);
    EXPECT_NE(daemon.Stderr().find("UDP read failed\n"), std::string::npos);
}

// Datagrams no camera should send; none may crash the daemon or stop it
// from serving the next good datagram.
std::vector<Bytes> HostileDatagrams()
{
    std::vector<Bytes> hostile;
    for (size_t length = 1; length < kReceivedMinimumSize; ++length)
        hostile.push_back(Bytes(length, 0x55));
    for (uint8_t type : {0, 1, 2, 3, 4, 0x7f, 0xff}) {
        Bytes header(kReceivedMinimumSize, 0);
        header[kTransportTypeOffset] = type;
        hostile.push_back(header);
    }
    // Frames whose length byte is 0, 1, 2, 255, each with a valid header
    // checksum, cut off, and junk between frames; enough to pass the block
    // threshold several times.
    Bytes stream;
    for (uint8_t length : {0, 1, 2, 3, 4, 13, 255}) {
        Bytes frame = {0x55, length, 0x04, 0};
        frame[3] = Crc8(frame.data(), 3);
        stream.insert(stream.end(), frame.begin(), frame.end());
        stream.insert(stream.end(), {0x55, 0x55, 0x00, 0xff});
    }
    Bytes good = ReportFrame(0x02, 0x80, Bytes(40, 0x01));
    Bytes truncated(good.begin(), good.end() - 3);
    for (int i = 0; i < 30; ++i) {
        stream.insert(stream.end(), truncated.begin(), truncated.end());
        stream.insert(stream.end(), good.begin(), good.end());
    }
    for (size_t cut : {size_t{1}, size_t{200}, size_t{501}, stream.size()}) {
        Bytes datagram(kReceivedHeaderSize, 0);
        datagram[kTransportTypeOffset] = kTransportDataStream;
        datagram.insert(datagram.end(), stream.begin(), stream.begin() + static_cast<long>(cut));
        hostile.push_back(datagram);
    }
    // Larger than the receive buffer: cut by the socket, never overrun.
    for (size_t size : {size_t{10001}, size_t{20000}, size_t{65000}}) {
        for (uint8_t type : {kTransportDataStream, kTransportLiveVideo}) {
            Bytes huge(size, 0x55);
            huge[kTransportTypeOffset] = type;
            hostile.push_back(huge);
        }
    }
    // Video shorter than its announced 32-byte header.
    Bytes marked(28, 0);
    marked[kTransportTypeOffset] = kTransportLiveVideo;
    marked[20] = 0x00, marked[21] = 0x00, marked[22] = 0x01, marked[23] = 0xff;
    hostile.push_back(marked);
    return hostile;
}

TEST_F(CameraLinkTest, HostileDatagramsNeverCrashIt)
{
    StartConnected();
    for (int round = 0; round < 3; ++round)
        for (const Bytes& datagram : HostileDatagrams())
            camera.SendRaw(datagram);
    // The hostile video datagrams are acknowledged too; skip past those acks.
    camera.Send(kTransportLiveVideo, 0x4242, Bytes(500, 0x10));
    Bytes ack;
    for (int i = 0; i < 100 && ack != Ack(0x4242); ++i)
        ack = camera.Await(kAckDatagramSize, 3000);
    EXPECT_EQ(ack, Ack(0x4242));
    EXPECT_EQ(daemon.WaitExit(200), -1) << "the daemon ended:\n" << daemon.Stderr();
}

}  // namespace
