#pragma once
#include <cstdint>

#include "state/camera_state.h"

// Finds every frame in a block of the camera's data stream and decodes the
// reports into `state` (the process-wide record when null).
void ScanTelemetryBuffer(CameraState* state, const uint8_t* block, uint32_t length);
