#include "camera/frame.h"

#include <cstring>

#include "camera/crc.h"

const uint8_t kConnectRequest[kConnectRequestSize] = {
    0x30, 0x80, 0x27, 0x90, 0x00, 0x00, 0x00, 0x07,
    0x38, 0x81, 0x64, 0x00, 0x64, 0x00, 0xc0, 0x05,
    0x14, 0x00, 0x00, 0x0a, 0x00, 0x00, 0x01, 0x90,
    0x01, 0xc0, 0x05, 0x14, 0x00, 0x00, 0x64, 0x00,
    0x14, 0x00, 0x64, 0x00, 0xc0, 0x05, 0x14, 0x00,
    0x00, 0x64, 0x00, 0x01, 0x01, 0x04, 0x0a, 0x02,
};

namespace {

// The constant words of the three type 4 headers: bytes 16-19 and 24-27.
struct Type4Words {
    uint8_t at16[4];
    uint8_t at24[4];
};
constexpr Type4Words kCommandWords = {{0x80, 0x91, 0x80, 0x91}, {0xe8, 0x91, 0xe8, 0x91}};
constexpr Type4Words kPingWords = {{0x38, 0x81, 0x38, 0x81}, {0x70, 0x81, 0x70, 0x81}};
constexpr Type4Words kAckWords = {{0x38, 0x81, 0x38, 0x81}, {0x38, 0x81, 0x40, 0x81}};

// The ping's frame before sequence and checksum: 55 0d 04 33 02 01 .. .. 00 00 00.
constexpr uint8_t kPingFrame[kFrameMinimumSize] = {0x55, 0x0d, 0x04, 0x33, 0x02, 0x01, 0,
                                                   0,    0x00, 0x00, 0x00, 0,    0};

void WriteType4Header(uint8_t* out, size_t total_size, uint16_t rx_back, uint16_t rx_sequence,
                      const Type4Words& words, uint8_t frame_length)
{
    memset(out, 0, kCommandHeaderSize);
    WriteLe16(out + kTransportSizeOffset, static_cast<uint16_t>(total_size | kTransportSizeSentFlag));
    WriteLe16(out + kTransportLinkOffset, kTransportLinkWord);
    out[kTransportTypeOffset] = kTransportCommand;
    WriteLe16(out + kCommandRxBackOffset, rx_back);
    WriteLe16(out + kCommandRxOffset, rx_sequence);
    memcpy(out + 16, words.at16, 4);
    memcpy(out + 24, words.at24, 4);
    out[kCommandFrameLengthOffset] = frame_length;
    out[kTransportCheckOffset] = TransportHeaderCheck(out);
}

}  // namespace

uint8_t TransportHeaderCheck(const uint8_t* header)
{
    uint8_t check = 0;
    for (size_t i = 0; i < kTransportCheckOffset; ++i)
        check ^= header[i];
    return check;
}

void SealCameraPacket(uint8_t* frame, size_t length, uint16_t sequence)
{
    WriteLe16(frame + kFrameSequenceOffset, sequence);
    WriteLe16(frame + length - 2, Crc16(frame, length - 2));
}

size_t BuildCommandDatagram(uint8_t* out, const uint8_t* frame, size_t length, uint16_t rx_sequence)
{
    size_t total = kCommandHeaderSize + length;
    WriteType4Header(out, total, static_cast<uint16_t>(rx_sequence - 8), rx_sequence, kCommandWords,
                     frame[kFrameLengthOffset]);
    memcpy(out + kCommandHeaderSize, frame, length);
    return total;
}

void BuildPingDatagram(uint8_t* out, uint16_t rx_sequence, uint16_t tx_sequence)
{
    WriteType4Header(out, kPingDatagramSize, rx_sequence, rx_sequence, kPingWords, kPingFrame[1]);
    memcpy(out + kCommandHeaderSize, kPingFrame, sizeof kPingFrame);
    SealCameraPacket(out + kCommandHeaderSize, sizeof kPingFrame, tx_sequence);
}

void BuildAckDatagram(uint8_t* out, uint16_t rx_sequence)
{
    WriteType4Header(out, kAckDatagramSize, rx_sequence, rx_sequence, kAckWords, 0);
}

bool IsCameraFrameAt(const uint8_t* block, size_t block_length, size_t position)
{
    if (position + kFrameHeaderCrcOffset >= block_length || block[position] != kFrameStartByte)
        return false;
    size_t length = block[position + kFrameLengthOffset];
    if (length < kFrameAcceptMinimumLength || length > block_length - position)
        return false;
    const uint8_t* frame = block + position;
    if (Crc8(frame, kFrameHeaderCrcOffset) != frame[kFrameHeaderCrcOffset])
        return false;
    return Crc16(frame, length - 2) == ReadLe16(frame + length - 2);
}

void ForEachCameraFrame(const uint8_t* block, size_t block_length, CameraFrameVisitor visit,
                        void* context)
{
    size_t position = 0;
    while (position < block_length) {
        if (IsCameraFrameAt(block, block_length, position)) {
            size_t length = block[position + kFrameLengthOffset];
            visit(block + position, length, context);
            position += length;
        } else {
            ++position;
        }
    }
}
