#include "state/camera_state.h"

namespace {
CameraState camera_state;
}

CameraState* GetCameraState()
{
    return &camera_state;
}
