#pragma once
#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "control/app_commands.h"
#include "net/udp_endpoint.h"
#include "state/camera_state.h"

constexpr size_t kAppHostCapacity = 32;
constexpr const char* kLocalNoticeHost = "127.0.0.1";

// The link with the main application: one process-wide record. The
// destination is written once before any thread that sends starts.
struct MainAppLink {
    UdpEndpoint command_endpoint;
    char destination_host[kAppHostCapacity] = {};  // empty: not set
    int32_t destination_port = 0;                  // 0: not set
    CameraState* camera_state = nullptr;
    pthread_t status_thread{};
    uint8_t command_buffer[kAppCommandBufferSize] = {};
    int notice_socket = -1;
};
extern MainAppLink main_app_link;

// Starts the remote-control thread, opens command_endpoint and starts the
// status thread. Returns 0, or -1 when command_endpoint cannot be bound.
int MainAppLinkInit(const char* destination_host, int32_t destination_port);

// One datagram from command_endpoint to the main application. Returns the
// bytes sent, or -1 (also when the destination is not set).
int SendToMainApp(const void* data, size_t length);

// The text, without its terminator, to 127.0.0.1:5255. Returns bytes or -1.
int SendLocalNotice(const char* text);
