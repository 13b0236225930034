#include "camera/reassembly.h"

#include <cstdio>
#include <cstring>

#include "camera/camera_link.h"
#include "camera/frame.h"

namespace {

// Attached before the camera link opens; read-only afterwards.
StreamSinks sinks;

// Only the camera endpoint's receive thread touches the collected stream.
uint8_t telemetry_buffer[kTelemetryBufferSize];
uint32_t telemetry_fill = 0;

void HandleLiveVideo(const uint8_t* buffer, size_t length)
{
    size_t header = kReceivedHeaderSize;
    if (length >= kReceivedHeaderSize + sizeof kVideoLongHeaderMarker &&
        memcmp(buffer + kReceivedHeaderSize, kVideoLongHeaderMarker, sizeof kVideoLongHeaderMarker) == 0)
        header = kVideoLongHeaderSize;
    if (length > header && sinks.video_part != nullptr)
        sinks.video_part(buffer + header, static_cast<uint32_t>(length - header));
    if (IsPhoneConnected())
        return;  // the phone app acknowledges the camera itself
    SendVideoAck();
}

void HandleDataStream(const uint8_t* buffer, size_t length)
{
    MarkCameraStreamSeen();
    if (length <= kReceivedHeaderSize)
        return;
    const uint8_t* payload = buffer + kReceivedHeaderSize;
    uint32_t payload_length = static_cast<uint32_t>(length - kReceivedHeaderSize);
    if (telemetry_fill + payload_length > kTelemetryBufferSize - 1) {
        fputs("data buffer overflow\n", stderr);
        telemetry_fill = 0;
        if (payload_length > kTelemetryBufferSize - 1)
            payload_length = kTelemetryBufferSize - 1;
    }
    memcpy(telemetry_buffer + telemetry_fill, payload, payload_length);
    telemetry_fill += payload_length;
    if (telemetry_fill > kTelemetryBlockThreshold) {
        if (sinks.telemetry_block != nullptr)
            sinks.telemetry_block(telemetry_buffer, telemetry_fill);
        telemetry_fill = 0;
    }
}

}  // namespace

void HandleCameraDatagram(const uint8_t* buffer, size_t length)
{
    if (buffer == nullptr || length < kReceivedMinimumSize)
        return;
    rx_sequence.store(ReadLe16(buffer + kReceivedSequenceOffset));
    switch (buffer[kTransportTypeOffset]) {
    case kTransportLiveVideo:
        HandleLiveVideo(buffer, length);
        break;
    case kTransportDataStream:
        HandleDataStream(buffer, length);
        break;
    default:
        break;
    }
}

void AttachStreamSinks(const StreamSinks& attached)
{
    sinks = attached;
}

void ResetReassembly()
{
    telemetry_fill = 0;
}
