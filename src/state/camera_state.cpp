#include "state/camera_state.h"

#include <cstring>
#include <type_traits>

static_assert(std::is_trivially_copyable<CameraState>::value, "start-up clears the record with memset");

std::mutex camera_state_lock;

namespace {
CameraState camera_state;
}

CameraState* GetCameraState()
{
    return &camera_state;
}

void CopyCameraState(const CameraState* state, CameraState* copy)
{
    CameraStateGuard guard(camera_state_lock);
    memcpy(copy, state, sizeof *copy);
}

void ResetCameraState()
{
    CameraStateGuard guard(camera_state_lock);
    memset(&camera_state, 0, sizeof camera_state);
}
