#include "control/camera_commands.h"

// The command set is not built yet.
void TrackingStart(float, float, float, float) {}
