#include "fuzz_world.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "app/service.h"
#include "camera/camera_link.h"
#include "camera/reassembly.h"
#include "control/app_commands.h"
#include "control/remote_control.h"
#include "state/camera_state.h"
#include "state/telemetry_decoder.h"
#include "support/isolation.h"
#include "video/frame_buffer.h"

void EnterFuzzWorld()
{
    if (!EnterPrivateNamespaces()) {
        fputs("fuzz targets run as root, in private namespaces of their own: skipped\n", stderr);
        exit(77);
    }
    mkdir("/run/tarnwickrelay", 0755);
    AttachLayers();   // reassembly reaches the decoder and the ring as in the service
}

void ResetServiceRecords()
{
    ResetCameraState();
    ResetReassembly();
    ResetCameraSequences();
    ResetTelemetryDecoder();
    ResetAppCommands();
    ResetRemoteControl();
    ResetVideoStream();
}
