#include "camera/camera_link.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "camera/frame.h"
#include "net/clock.h"
#include "net/shutdown.h"

CameraLink camera_link;
std::atomic<uint16_t> tx_sequence{0};
std::atomic<uint16_t> rx_sequence{0};

namespace {

// Attached before any thread of the link starts; read-only afterwards.
CameraRoutes routes;

// Written by the receive thread (reassembly), read by the camera, status and
// remote-control threads.
std::atomic<bool> stream_seen{false};

void OnCameraFound()
{
    fputs("Camera connection found\n", stderr);
}

void OnCameraLost()
{
    fputs("Camera connection lost\n", stderr);
    ServiceExit(1);
}

// Stores the address; true when it can be sent to.
bool StoreAddress(const char* host, int32_t port)
{
    snprintf(camera_link.host, sizeof camera_link.host, "%s", host);
    camera_link.port = port;
    return port != 0 && camera_link.host[0] != '\0' &&
           MakeUdpAddress(camera_link.host, static_cast<uint16_t>(port), &camera_link.address) == 0;
}

}  // namespace

void AttachCameraRoutes(const CameraRoutes& attached)
{
    routes = attached;
}

bool IsPhoneConnected()
{
    return routes.phone_connected != nullptr && routes.phone_connected();
}

bool IsCameraStreamSeen()
{
    return stream_seen.load();
}

void MarkCameraStreamSeen()
{
    stream_seen.store(true);
}

void CameraLinkSetAddress(const char* host, int32_t port)
{
    camera_link.address_valid.store(StoreAddress(host, port), std::memory_order_release);
}

int CameraLinkInit(const char* host, int32_t port)
{
    // Commands may already be arriving (the main application's link opens
    // first): they are dropped until the address and the socket are there,
    // which the release store below publishes.
    bool valid = StoreAddress(host, port);
    camera_link.last_datagram_ms.store(NowMs());
    if (camera_link.endpoint.Open(0) != 0)
        return -1;
    camera_link.address_valid.store(valid, std::memory_order_release);
    UdpEndpoint& endpoint = camera_link.endpoint;
    endpoint.on_receive = OnCameraDatagram;
    endpoint.on_found = OnCameraFound;
    endpoint.on_lost = OnCameraLost;
    endpoint.timeout_ms = kCameraSilenceLimitMs;
    endpoint.clear_before_receive = false;
    endpoint.AttachBuffers(&camera_link.receive_buffers[0][0], kCameraReceiveBufferSize, kCameraReceiveBatch);
    if (pthread_create(&camera_link.thread, nullptr, CameraThread, nullptr) != 0)
        return -1;
    return 0;
}

uint16_t ReserveTxSequence()
{
    return tx_sequence.fetch_add(1, std::memory_order_relaxed);
}

void SendToCamera(const void* data, size_t length)
{
    if (!camera_link.address_valid.load(std::memory_order_acquire))
        return;
    camera_link.endpoint.SendTo(data, static_cast<uint16_t>(length), camera_link.address);
}

void SendCameraPacket(uint8_t* frame, size_t length)
{
    if (frame == nullptr || length < kFrameMinimumSize || length > kFrameMaximumSize)
        return;
    uint8_t datagram[kCommandDatagramCapacity];
    SealCameraPacket(frame, length, ReserveTxSequence());
    size_t total = BuildCommandDatagram(datagram, frame, length, rx_sequence.load());
    SendToCamera(datagram, total);
}

void SendKeepAlive()
{
    if (IsPhoneConnected())
        return;
    uint16_t sequence = ReserveTxSequence();
    if (!IsCameraStreamSeen()) {
        SendToCamera(kConnectRequest, sizeof kConnectRequest);
    } else {
        uint8_t ping[kPingDatagramSize];
        BuildPingDatagram(ping, rx_sequence.load(), sequence);
        SendToCamera(ping, sizeof ping);
    }
}

void SendVideoAck()
{
    uint8_t ack[kAckDatagramSize];
    ReserveTxSequence();   // an ack carries no number but advances it
    BuildAckDatagram(ack, rx_sequence.load());
    if (camera_link.address_valid.load(std::memory_order_acquire))
        camera_link.endpoint.QueueTo(ack, sizeof ack, camera_link.address);
}

void OnCameraDatagram(uint8_t* buffer, uint16_t length, const char*, uint16_t)
{
    if (routes.handle_datagram != nullptr)
        routes.handle_datagram(buffer, length);
    camera_link.last_datagram_ms.store(NowMs());
    if (routes.forward_to_phone != nullptr)
        routes.forward_to_phone(buffer, length);
}

void* CameraThread(void*)
{
    for (;;) {
        camera_link.endpoint.CheckPeerTimeout();
        SendKeepAlive();
        int32_t silent_ms = static_cast<int32_t>(NowMs() - camera_link.last_datagram_ms.load());
        if (silent_ms > static_cast<int32_t>(kCameraSilenceLimitMs)) {
            fputs("Telemetry receiving timeout\n", stderr);
            ServiceExit(2);
        }
        SleepMs(kCameraThreadPeriodMs);
    }
    return nullptr;
}

void ResetCameraSequences()
{
    tx_sequence.store(0);
    rx_sequence.store(0);
    stream_seen.store(false);
}
