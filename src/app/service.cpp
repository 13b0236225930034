#include "app/service.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/config.h"
#include "net/files.h"
#include "app/main_app_link.h"
#include "bridge/mimo_bridge.h"
#include "camera/camera_link.h"
#include "camera/reassembly.h"
#include "control/camera_commands.h"
#include "net/clock.h"
#include "net/shared_memory.h"
#include "net/shutdown.h"
#include "state/camera_state.h"
#include "state/telemetry_decoder.h"
#include "video/frame_buffer.h"

namespace {

constexpr size_t kBoardModelCapacity = 101;
constexpr size_t kApIfaceCapacity = 11;
constexpr uint32_t kIdlePeriodMs = 1000;

void Verbose(const char* format, ...) __attribute__((format(printf, 1, 2)));

void Verbose(const char* format, ...)
{
    if (!config.verbose)
        return;
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
}

// The access-point interface name, line ends turned into blanks.
void ReadApIface(char* name, size_t capacity)
{
    ReadSmallFile(kApIfacePath, name, capacity);
    for (size_t i = 0; i < capacity; ++i)
        if (name[i] == '\n' || name[i] == '\r')
            name[i] = ' ';
}

}  // namespace

void AttachLayers()
{
    CameraRoutes routes;
    routes.handle_datagram = HandleCameraDatagram;
    routes.phone_connected = IsMimoConnected;
    routes.forward_to_phone = ForwardToPhone;
    AttachCameraRoutes(routes);
    StreamSinks sinks;
    sinks.telemetry_block = [](const uint8_t* block, uint32_t length) { ScanTelemetryBuffer(nullptr, block, length); };
    sinks.video_part = QueueVideoPart;
    AttachStreamSinks(sinks);
    AttachTrackingRestarter(TrackingStart);
}

void RunService(int argc, char** argv)
{
    static char board_model[kBoardModelCapacity];
    static char ap_iface[kApIfaceCapacity];

    fputs("\nDJI Pocket 2 Wi-Fi client\n", stderr);
    ReadSmallFile(kBoardModelPath, board_model, sizeof board_model);
    fprintf(stderr, "Board model: %s\n", board_model);
    fputs("Board supported\n", stderr);
    WriteTextFile(kBoardSupportedPath, "1");

    SetDefaultConfig(&config);
    if (ParseOptions(argc, argv, &config) != 0)
        ServiceExit(1);
    if (config.dst_port == 0 || config.dst_host[0] == '\0') {
        fputs("Destination host or port not set\n", stderr);
        ServiceExit(1);
    }
    SleepMs(1000);

    memset(GetCameraState(), 0, sizeof(CameraState));
    AttachLayers();
    fputs("Init telemetry buffer\n", stderr);
    if (InitFrameBuffers() != 0) {
        fputs("Failed to init telemetry buffer\n", stderr);
        ServiceExit(2);
    }

    Verbose("Using interface %s\n", config.iface);
    Verbose("Init connection to main application %s:%d\n", config.dst_host, config.dst_port);
    if (MainAppLinkInit(config.dst_host, config.dst_port) != 0) {
        Verbose("Failed\n");
        ServiceExit(1);
    }
    Verbose("Done\n");

    Verbose("Init connection to camera %s:%d via iface %s\n", config.host, config.port, config.iface);
    if (CameraLinkInit(config.host, config.port) != 0) {
        Verbose("Failed\n");
        ServiceExit(1);
    }
    Verbose("Done\n");

    ReadApIface(ap_iface, sizeof ap_iface);
    Verbose("Init data bridge server for DJI MIMO via iface %s\n", ap_iface);
    MimoBridgeInit(config.host, config.port, ap_iface);

    for (;;) {
        bridge_endpoint.CheckPeerTimeout();
        SharedMemoryWatch();
        SleepMs(kIdlePeriodMs);
    }
}
