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

// True from the first data-stream datagram on; never cleared.
bool IsCameraStreamSeen();

// Back to a fresh start: no stream seen, the telemetry buffer empty.
void ResetReassembly();
