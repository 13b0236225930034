#include "state/telemetry_decoder.h"

// Reports are not decoded yet: blocks are accepted and dropped.
void ScanTelemetryBuffer(CameraState*, const uint8_t*, uint32_t) {}
