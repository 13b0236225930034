#include "control/app_commands.h"

// Commands are not interpreted yet.
void HandleAppDatagram(uint8_t*, uint16_t, const char*, uint16_t) {}
