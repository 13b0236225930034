#include "sim/camera_side.h"

#include <cstring>

#include "camera/crc.h"
#include "camera/frame.h"

void BuildCameraDatagramHeader(uint8_t* out, size_t header_size, size_t total, uint8_t type,
                               uint16_t camera_sequence)
{
    memset(out, 0, header_size);
    WriteLe16(out + kTransportSizeOffset, static_cast<uint16_t>(total & 0x7fff));
    WriteLe16(out + kTransportLinkOffset, kTransportLinkWord);
    out[kTransportTypeOffset] = type;
    out[kTransportCheckOffset] = TransportHeaderCheck(out);
    WriteLe16(out + kReceivedSequenceOffset, camera_sequence);
}

size_t BuildReportFrame(uint8_t* out, size_t capacity, uint8_t command_set, uint8_t command_id,
                        const uint8_t* payload, size_t payload_length, uint16_t sequence)
{
    size_t length = kFrameMinimumSize + payload_length;
    if (length > kFrameMaximumSize || length > capacity)
        return 0;
    out[0] = kFrameStartByte;
    out[kFrameLengthOffset] = static_cast<uint8_t>(length);
    out[kFrameVersionOffset] = kFrameVersion;
    out[kFrameHeaderCrcOffset] = Crc8(out, kFrameHeaderCrcOffset);
    out[kFrameSenderOffset] = 0x01;
    out[kFrameReceiverOffset] = 0x02;
    out[kFrameCommandTypeOffset] = 0x00;
    out[kFrameCommandSetOffset] = command_set;
    out[kFrameCommandIdOffset] = command_id;
    if (payload_length > 0)
        memcpy(out + kFramePayloadOffset, payload, payload_length);
    SealCameraPacket(out, length, sequence);
    return length;
}
