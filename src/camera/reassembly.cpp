#include "camera/reassembly.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "bridge/mimo_bridge.h"
#include "camera/camera_link.h"
#include "camera/frame.h"
#include "state/telemetry_decoder.h"
#include "video/frame_buffer.h"

namespace {

// Written by the receive thread, read by the camera, status and
// remote-control threads.
std::atomic<bool> stream_seen{false};

// Only the camera endpoint's receive thread touches the collected stream.
uint8_t telemetry_buffer[kTelemetryBufferSize];
uint32_t telemetry_fill = 0;

void HandleLiveVideo(const uint8_t* buffer, size_t length)
{
    size_t header = kReceivedHeaderSize;
    if (length >= kReceivedHeaderSize + sizeof kVideoLongHeaderMarker &&
        memcmp(buffer + kReceivedHeaderSize, kVideoLongHeaderMarker, sizeof kVideoLongHeaderMarker) == 0)
        header = kVideoLongHeaderSize;
    if (length > header)
        QueueVideoPart(buffer + header, static_cast<uint32_t>(length - header));
    if (IsMimoConnected())
        return;  // the phone app acknowledges the camera itself
    SendVideoAck();
}

void HandleDataStream(const uint8_t* buffer, size_t length)
{
    stream_seen.store(true);
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
        ScanTelemetryBuffer(nullptr, telemetry_buffer, telemetry_fill);
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

bool IsCameraStreamSeen()
{
    return stream_seen.load();
}

void ResetReassembly()
{
    stream_seen.store(false);
    telemetry_fill = 0;
}
