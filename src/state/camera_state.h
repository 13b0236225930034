#pragma once
#include <cstdint>

// The record of what the camera last reported. Its fields arrive with the
// telemetry decoder; until then it is an empty record that start-up clears.
struct CameraState {
    uint8_t reserved;
};

CameraState* GetCameraState();
