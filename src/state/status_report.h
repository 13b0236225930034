#pragma once
#include "state/camera_state.h"

// The status thread: reports the camera's state to the main application and
// checks command_endpoint's peer. Never returns.
void* StatusThreadMain(void* camera_state);
