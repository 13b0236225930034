#include "control/remote_control.h"

// The remote control is not read yet.
void StartRemoteControl() {}
