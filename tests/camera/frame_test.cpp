// The camera wire format against its worked values.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "sim/camera_side.h"
#include "camera/crc.h"
#include "camera/frame.h"

namespace {

const uint8_t kAbc[] = {'a', 'b', 'c'};

TEST(Checksums, MatchTheirCheckValues)
{
    const uint8_t header[] = {0x55, 0x0d, 0x04};
    EXPECT_EQ(Crc8(header, 3), 0x33);
    EXPECT_EQ(Crc8(kAbc, 3), 0xd7);

    const uint8_t ping_frame[] = {0x55, 0x0d, 0x04, 0x33, 0x02, 0x01, 0x18, 0x27, 0x00, 0x00, 0x00};
    EXPECT_EQ(Crc16(ping_frame, sizeof ping_frame), 0xc160);
    EXPECT_EQ(Crc16(kAbc, 3), 0x865a);

    // Empty input leaves the initial values.
    EXPECT_EQ(Crc8(kAbc, 0), 0x77);
    EXPECT_EQ(Crc16(kAbc, 0), 0x3692);
}

// A 14-byte command frame with a valid header checksum.
std::vector<uint8_t> CommandFrame()
{
    std::vector<uint8_t> frame = {0x55, 0x0e, 0x04, 0, 0x02, 0x01, 0, 0, 0x40, 0x02, 0x8e, 0x01, 0, 0};
    frame[3] = Crc8(frame.data(), 3);
    return frame;
}

TEST(CommandDatagram, HeaderBytesForA14ByteFrame)
{
    std::vector<uint8_t> frame = CommandFrame();
    SealCameraPacket(frame.data(), frame.size(), 0x1234);
    uint8_t datagram[kCommandDatagramCapacity];
    size_t total = BuildCommandDatagram(datagram, frame.data(), frame.size(), 0x0100);

    ASSERT_EQ(total, 48u);
    const uint8_t start[] = {0x30, 0x80, 0x27, 0x90, 0x00, 0x00, 0x04};
    EXPECT_EQ(0, memcmp(datagram, start, sizeof start));
    EXPECT_EQ(datagram[7], 0x30 ^ 0x80 ^ 0x27 ^ 0x90 ^ 0x04);
    const uint8_t sequences[] = {0xf8, 0x00, 0x00, 0x01};
    EXPECT_EQ(0, memcmp(datagram + 8, sequences, 4));
    const uint8_t words16[] = {0x80, 0x91, 0x80, 0x91};
    const uint8_t words24[] = {0xe8, 0x91, 0xe8, 0x91};
    EXPECT_EQ(0, memcmp(datagram + 16, words16, 4));
    EXPECT_EQ(0, memcmp(datagram + 24, words24, 4));
    EXPECT_EQ(datagram[32], 0x0e);
    EXPECT_EQ(datagram[33], 0x00);
    EXPECT_EQ(0, memcmp(datagram + 34, frame.data(), frame.size()));
    // The frame carries its sequence and a checksum the receive rule accepts.
    EXPECT_EQ(datagram[34 + 6], 0x34);
    EXPECT_EQ(datagram[34 + 7], 0x12);
    EXPECT_TRUE(IsCameraFrameAt(datagram + 34, frame.size(), 0));
}

TEST(CommandDatagram, SequenceNumbersWrap)
{
    std::vector<uint8_t> frame = CommandFrame();
    SealCameraPacket(frame.data(), frame.size(), 0);
    uint8_t datagram[kCommandDatagramCapacity];
    BuildCommandDatagram(datagram, frame.data(), frame.size(), 3);
    EXPECT_EQ(datagram[8], 0xfb);
    EXPECT_EQ(datagram[9], 0xff);
    EXPECT_EQ(datagram[10], 0x03);
    EXPECT_EQ(datagram[11], 0x00);

    // The last sequence number, then the wrap.
    SealCameraPacket(frame.data(), frame.size(), 0xffff);
    EXPECT_EQ(frame[6], 0xff);
    EXPECT_EQ(frame[7], 0xff);
    SealCameraPacket(frame.data(), frame.size(), static_cast<uint16_t>(0xffff + 1));
    EXPECT_EQ(frame[6], 0x00);
    EXPECT_EQ(frame[7], 0x00);
}

TEST(KeepAliveDatagrams, PingMatchesItsWorkedBytes)
{
    uint8_t ping[kPingDatagramSize];
    BuildPingDatagram(ping, 0x0102, 0x2718);
    const uint8_t header[] = {0x2f, 0x80, 0x27, 0x90, 0x00, 0x00, 0x04, 0x1c, 0x02, 0x01, 0x02, 0x01,
                              0,    0,    0,    0,    0x38, 0x81, 0x38, 0x81, 0,    0,    0,    0,
                              0x70, 0x81, 0x70, 0x81, 0,    0,    0,    0,    0x0d, 0x00};
    EXPECT_EQ(0, memcmp(ping, header, sizeof header));
    const uint8_t frame[] = {0x55, 0x0d, 0x04, 0x33, 0x02, 0x01, 0x18, 0x27, 0x00, 0x00, 0x00, 0x60, 0xc1};
    EXPECT_EQ(0, memcmp(ping + 34, frame, sizeof frame));
}

TEST(KeepAliveDatagrams, AckAndConnectRequest)
{
    uint8_t ack[kAckDatagramSize];
    BuildAckDatagram(ack, 0xbeef);
    const uint8_t expected[] = {0x22, 0x80, 0x27, 0x90, 0x00, 0x00, 0x04, 0x11, 0xef, 0xbe, 0xef, 0xbe,
                                0,    0,    0,    0,    0x38, 0x81, 0x38, 0x81, 0,    0,    0,    0,
                                0x38, 0x81, 0x40, 0x81, 0,    0,    0,    0,    0x00, 0x00};
    EXPECT_EQ(0, memcmp(ack, expected, sizeof expected));

    // The connect request, all 48 bytes as the camera expects them.
    const uint8_t connect[] = {0x30, 0x80, 0x27, 0x90, 0x00, 0x00, 0x00, 0x07, 0x38, 0x81, 0x64, 0x00, 0x64, 0x00,
                               0xc0, 0x05, 0x14, 0x00, 0x00, 0x0a, 0x00, 0x00, 0x01, 0x90, 0x01, 0xc0, 0x05, 0x14,
                               0x00, 0x00, 0x64, 0x00, 0x14, 0x00, 0x64, 0x00, 0xc0, 0x05, 0x14, 0x00, 0x00, 0x64,
                               0x00, 0x01, 0x01, 0x04, 0x0a, 0x02};
    static_assert(sizeof connect == kConnectRequestSize, "48 bytes");
    EXPECT_EQ(0, memcmp(kConnectRequest, connect, sizeof connect));
    EXPECT_EQ(TransportHeaderCheck(kConnectRequest), 0x07);
}

// Collects what the scanner visits.
struct Visits {
    std::vector<std::vector<uint8_t>> frames;
};

void Record(const uint8_t* frame, size_t length, void* context)
{
    static_cast<Visits*>(context)->frames.emplace_back(frame, frame + length);
}

std::vector<uint8_t> Report(uint8_t id, size_t payload_length, uint16_t sequence = 7)
{
    std::vector<uint8_t> payload(payload_length, 0x11);
    std::vector<uint8_t> frame(kFrameMaximumSize);
    size_t length = BuildReportFrame(frame.data(), frame.size(), 0x02, id, payload.data(), payload.size(), sequence);
    frame.resize(length);
    return frame;
}

Visits Scan(const std::vector<uint8_t>& block)
{
    Visits visits;
    ForEachCameraFrame(block.data(), block.size(), Record, &visits);
    return visits;
}

TEST(FrameScanner, FindsFramesBackToBackAndAfterStrayBytes)
{
    std::vector<uint8_t> a = Report(1, 5), b = Report(2, 40);
    std::vector<uint8_t> block = {0x00, 0x55, 0x13, 0xff};
    block.insert(block.end(), a.begin(), a.end());
    block.insert(block.end(), b.begin(), b.end());
    block.push_back(0x55);
    Visits visits = Scan(block);
    ASSERT_EQ(visits.frames.size(), 2u);
    EXPECT_EQ(visits.frames[0], a);
    EXPECT_EQ(visits.frames[1], b);
}

TEST(FrameScanner, FrameWithBadChecksumIsSkippedBytewiseSoAnInnerFrameIsFound)
{
    std::vector<uint8_t> inner = Report(3, 4);
    // An outer frame whose payload holds a whole valid frame, then a broken CRC16.
    std::vector<uint8_t> outer = Report(4, inner.size() + 6);
    std::copy(inner.begin(), inner.end(), outer.begin() + kFramePayloadOffset + 3);
    outer[outer.size() - 1] ^= 0xff;
    Visits visits = Scan(outer);
    ASSERT_EQ(visits.frames.size(), 1u);
    EXPECT_EQ(visits.frames[0], inner);
}

TEST(FrameScanner, HostileBlocksNeverReadPastTheirEnd)
{
    // Length bytes 0, 1, 2 and 255 with a valid header checksum, cut short.
    for (uint8_t length : {0, 1, 2, 3, 255}) {
        std::vector<uint8_t> block = {0x55, length, 0x04, 0};
        block[3] = Crc8(block.data(), 3);
        EXPECT_TRUE(Scan(block).frames.empty()) << "length " << int(length);
    }
    // A truncated valid frame, at every cut.
    std::vector<uint8_t> frame = Report(5, 20);
    for (size_t cut = 0; cut < frame.size(); ++cut) {
        std::vector<uint8_t> block(frame.begin(), frame.begin() + cut);
        EXPECT_TRUE(Scan(block).frames.empty()) << "cut at " << cut;
    }
}

}  // namespace
