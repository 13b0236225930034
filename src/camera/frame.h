#pragma once
#include <cstddef>
#include <cstdint>

// The camera's wire format. All multi-byte numbers are little-endian.
//
// Every datagram to and from the camera begins with the transport header:
//
//    0       2       4       6      7
//   +-------+-------+-------+------+-------+
//   | size  | link  |   0   | type | check |   size: bits 0-14 datagram length,
//   +-------+-------+-------+------+-------+         bit 15 set when we send
//                                              link: 0x9027 when we send
//                                              check: XOR of bytes 0 to 6
//
// Datagrams from the camera (types 1 and 2) have a 20-byte header; we read
// only the type (byte 6) and the camera's sequence number (bytes 10, 11).
// Datagrams to the camera of type 4 have a 34-byte header followed by at most
// one CameraPacket frame:
//
//    0  1   2      3      4    5    6   7   8   9   10  11  ...  len-2 len-1
//   +--+---+-------+------+----+----+-------+---+---+---+--------+---------+
//   |55|len|version|crc8  |sndr|rcvr|  seq  |typ|set|id |payload | crc16   |
//   +--+---+-------+------+----+----+-------+---+---+---+--------+---------+
//   crc8 covers bytes 0-2; crc16 covers bytes 0 to len-3; len counts it all.

enum TransportType : uint8_t {
    kTransportConnect = 0,
    kTransportDataStream = 1,
    kTransportLiveVideo = 2,
    kTransportCommand = 4,
};

// WifiTransportHeader
constexpr size_t kTransportSizeOffset = 0;
constexpr size_t kTransportLinkOffset = 2;
constexpr size_t kTransportTypeOffset = 6;
constexpr size_t kTransportCheckOffset = 7;
constexpr size_t kTransportHeaderSize = 8;
constexpr uint16_t kTransportSizeSentFlag = 0x8000;
constexpr uint16_t kTransportLinkWord = 0x9027;

// Received datagrams (types 1 and 2).
constexpr size_t kReceivedSequenceOffset = 10;
constexpr size_t kReceivedHeaderSize = 20;
constexpr size_t kReceivedMinimumSize = kReceivedSequenceOffset + 2;
// A video datagram whose bytes 20 to 23 hold this marker has a 32-byte header.
constexpr uint8_t kVideoLongHeaderMarker[4] = {0x00, 0x00, 0x01, 0xff};
constexpr size_t kVideoLongHeaderSize = 32;

// Type 4 datagrams.
constexpr size_t kCommandHeaderSize = 34;
constexpr size_t kCommandRxBackOffset = 8;   // rx_sequence - 8 (commands) or rx_sequence
constexpr size_t kCommandRxOffset = 10;      // rx_sequence
constexpr size_t kCommandFrameLengthOffset = 32;
constexpr size_t kCommandDatagramCapacity = 1024;
constexpr size_t kPingDatagramSize = 47;
constexpr size_t kAckDatagramSize = kCommandHeaderSize;
constexpr size_t kConnectRequestSize = 48;

// CameraPacket
constexpr uint8_t kFrameStartByte = 0x55;
constexpr uint8_t kFrameVersion = 0x04;
constexpr size_t kFrameLengthOffset = 1;
constexpr size_t kFrameVersionOffset = 2;
constexpr size_t kFrameHeaderCrcOffset = 3;
constexpr size_t kFrameSenderOffset = 4;
constexpr size_t kFrameReceiverOffset = 5;
constexpr size_t kFrameSequenceOffset = 6;
constexpr size_t kFrameCommandTypeOffset = 8;
constexpr size_t kFrameCommandSetOffset = 9;
constexpr size_t kFrameCommandIdOffset = 10;
constexpr size_t kFramePayloadOffset = 11;
constexpr size_t kFrameMinimumSize = 13;     // header, no payload, checksum
constexpr size_t kFrameMaximumSize = 255;    // the length lives in one byte
constexpr size_t kFrameAcceptMinimumLength = 4;

// The fixed 48-byte connect request.
extern const uint8_t kConnectRequest[kConnectRequestSize];

inline uint16_t ReadLe16(const uint8_t* bytes)
{
    return static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
}

inline void WriteLe16(uint8_t* bytes, uint16_t value)
{
    bytes[0] = static_cast<uint8_t>(value);
    bytes[1] = static_cast<uint8_t>(value >> 8);
}

// XOR of bytes 0 to 6 of a transport header.
uint8_t TransportHeaderCheck(const uint8_t* header);

// Writes the frame's sequence number (bytes 6, 7) and its CRC16 (last two).
void SealCameraPacket(uint8_t* frame, size_t length, uint16_t sequence);

// Builds a type 4 datagram around a sealed frame of 13 to 255 bytes.
// `out` holds at least kCommandDatagramCapacity bytes. Returns its length.
size_t BuildCommandDatagram(uint8_t* out, const uint8_t* frame, size_t length, uint16_t rx_sequence);
// The 47-byte ping datagram.
void BuildPingDatagram(uint8_t* out, uint16_t rx_sequence, uint16_t tx_sequence);
// The 34-byte acknowledgement of a video datagram.
void BuildAckDatagram(uint8_t* out, uint16_t rx_sequence);

// True when a frame that passes every check of the receive rule starts at
// `position` of the block.
bool IsCameraFrameAt(const uint8_t* block, size_t block_length, size_t position);

// Calls `visit` for every frame of the block, in order: a position that does
// not hold a valid frame is skipped byte by byte, and after a valid frame the
// search goes on behind it.
using CameraFrameVisitor = void (*)(const uint8_t* frame, size_t length, void* context);
void ForEachCameraFrame(const uint8_t* block, size_t block_length, CameraFrameVisitor visit,
                        void* context);
