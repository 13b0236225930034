#pragma once
#include <cstddef>
#include <cstdint>

constexpr size_t kTelemetryBufferSize = 60000;
// Collected data-stream bytes are handed to the telemetry scanner once more
// than this many are held.
constexpr uint32_t kTelemetryBlockThreshold = 500;

// Sorts one whole camera datagram (header included) by its transport type:
// records the camera's sequence number, queues and acknowledges live video,
// collects the data stream and hands it on in blocks. Runs only on the camera
// endpoint's receive thread.
void HandleCameraDatagram(const uint8_t* buffer, size_t length);

// Where the sorted stream goes, on the floor above (the telemetry decoder, the
// video ring): attached once at start-up, before the camera link opens.
struct StreamSinks {
    void (*telemetry_block)(const uint8_t* block, uint32_t length) = nullptr;
    void (*video_part)(const uint8_t* payload, uint32_t length) = nullptr;
};
void AttachStreamSinks(const StreamSinks& sinks);

// Back to a fresh start: the telemetry buffer empty.
void ResetReassembly();
