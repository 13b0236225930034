#include <cstring>

#include "camera/camera_side.h"
#include "camsim.h"

namespace {

uint16_t report_sequence = 0;

}  // namespace

// Each data-stream datagram carries a status frame with a running counter;
// the reports the service decodes come with the telemetry model.
size_t SimBuildReports(uint8_t* out, size_t capacity)
{
    static uint32_t ticks = 0;
    uint8_t payload[8] = {};
    ++ticks;
    memcpy(payload, &ticks, sizeof ticks);
    return BuildReportFrame(out, capacity, 0x00, 0x0e, payload, sizeof payload, report_sequence++);
}

bool SimHandleReportCommand(const char*)
{
    return false;
}
