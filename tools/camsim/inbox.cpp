#include <cstdio>
#include <cstring>

#include "camera/crc.h"
#include "camera/frame.h"
#include "camsim.h"

namespace {

void LogFrame(const uint8_t* frame, size_t available)
{
    size_t length = frame[kFrameLengthOffset];
    if (available < kFrameMinimumSize || length < kFrameMinimumSize || length > available) {
        printf("rx bad frame: length %zu in %zu bytes\n", length, available);
        return;
    }
    if (frame[0] != kFrameStartByte || Crc8(frame, kFrameHeaderCrcOffset) != frame[kFrameHeaderCrcOffset]) {
        printf("rx BAD CHECKSUM (header crc8)\n");
        return;
    }
    if (Crc16(frame, length - 2) != ReadLe16(frame + length - 2)) {
        printf("rx BAD CHECKSUM (frame crc16) set %02x id %02x\n", frame[kFrameCommandSetOffset],
               frame[kFrameCommandIdOffset]);
        return;
    }
    printf("rx command seq %u sender %02x receiver %02x type %02x set %02x id %02x payload",
           ReadLe16(frame + kFrameSequenceOffset), frame[kFrameSenderOffset], frame[kFrameReceiverOffset],
           frame[kFrameCommandTypeOffset], frame[kFrameCommandSetOffset], frame[kFrameCommandIdOffset]);
    for (size_t i = kFramePayloadOffset; i < length - 2; ++i)
        printf(" %02x", frame[i]);
    printf("\n");
    SimApplyCommand(frame, length);
}

}  // namespace

void SimLogReceived(const uint8_t* data, size_t length)
{
    if (length < kTransportHeaderSize) {
        printf("rx short datagram: %zu bytes\n", length);
        return;
    }
    uint8_t type = data[kTransportTypeOffset];
    if (type == kTransportConnect) {
        bool exact = length == kConnectRequestSize && memcmp(data, kConnectRequest, length) == 0;
        printf("rx connect request%s\n", exact ? "" : " (unexpected bytes)");
        return;
    }
    if (type != kTransportCommand || length < kCommandHeaderSize) {
        printf("rx unknown datagram: type %u, %zu bytes\n", type, length);
        return;
    }
    uint16_t rx = ReadLe16(data + kCommandRxOffset);
    if (length == kAckDatagramSize) {
        ++sim.acks_received;
        static bool first_ack_logged = false;  // only the receive thread logs
        if (sim.options.log_acks)
            printf("rx ack camera seq %u\n", rx);
        else if (!first_ack_logged)
            printf("rx first ack camera seq %u\n", rx);
        first_ack_logged = true;
        return;
    }
    const uint8_t* frame = data + kCommandHeaderSize;
    size_t frame_space = length - kCommandHeaderSize;
    if (length == kPingDatagramSize && frame[kFrameCommandSetOffset] == 0 && frame[kFrameCommandIdOffset] == 0 &&
        frame[kFrameCommandTypeOffset] == 0) {
        bool good = Crc16(frame, kFrameMinimumSize - 2) == ReadLe16(frame + kFrameMinimumSize - 2);
        printf("rx ping seq %u camera seq %u%s\n", ReadLe16(frame + kFrameSequenceOffset), rx,
               good ? "" : " BAD CHECKSUM");
        return;
    }
    LogFrame(frame, frame_space);
}
