#include "camera/camera_link.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bridge/mimo_bridge.h"
#include "camera/frame.h"
#include "camera/reassembly.h"
#include "net/clock.h"

CameraLink camera_link;
std::mutex camera_tx_lock;
uint16_t tx_sequence = 0;
std::atomic<uint16_t> rx_sequence{0};

namespace {

void OnCameraFound()
{
    fputs("Camera connection found\n", stderr);
}

void OnCameraLost()
{
    fputs("Camera connection lost\n", stderr);
    exit(1);
}

}  // namespace

void CameraLinkSetAddress(const char* host, int32_t port)
{
    snprintf(camera_link.host, sizeof camera_link.host, "%s", host);
    camera_link.port = port;
    camera_link.address_valid = port != 0 && camera_link.host[0] != '\0' &&
                                MakeUdpAddress(camera_link.host, static_cast<uint16_t>(port), &camera_link.address) == 0;
}

int CameraLinkInit(const char* host, int32_t port)
{
    CameraLinkSetAddress(host, port);
    camera_link.last_datagram_ms.store(NowMs());
    if (camera_link.endpoint.Open(0) != 0)
        return -1;
    UdpEndpoint& endpoint = camera_link.endpoint;
    endpoint.on_receive = OnCameraDatagram;
    endpoint.on_found = OnCameraFound;
    endpoint.on_lost = OnCameraLost;
    endpoint.timeout_ms = kCameraSilenceLimitMs;
    endpoint.clear_before_receive = false;
    endpoint.AttachBuffer(camera_link.receive_buffer, sizeof camera_link.receive_buffer);
    if (pthread_create(&camera_link.thread, nullptr, CameraThread, nullptr) != 0)
        return -1;
    return 0;
}

void SendToCamera(const void* data, size_t length)
{
    if (!camera_link.address_valid)
        return;
    camera_link.endpoint.SendTo(data, static_cast<uint16_t>(length), camera_link.address);
}

void SendCameraPacket(uint8_t* frame, size_t length)
{
    if (frame == nullptr || length < kFrameMinimumSize || length > kFrameMaximumSize)
        return;
    uint8_t datagram[kCommandDatagramCapacity];
    std::lock_guard<std::mutex> lock(camera_tx_lock);
    SealCameraPacket(frame, length, tx_sequence);
    size_t total = BuildCommandDatagram(datagram, frame, length, rx_sequence.load());
    SendToCamera(datagram, total);
    ++tx_sequence;
}

void SendKeepAlive()
{
    if (IsMimoConnected())
        return;
    std::lock_guard<std::mutex> lock(camera_tx_lock);
    if (!IsCameraStreamSeen()) {
        SendToCamera(kConnectRequest, sizeof kConnectRequest);
    } else {
        uint8_t ping[kPingDatagramSize];
        BuildPingDatagram(ping, rx_sequence.load(), tx_sequence);
        SendToCamera(ping, sizeof ping);
    }
    ++tx_sequence;
}

void SendVideoAck()
{
    uint8_t ack[kAckDatagramSize];
    std::lock_guard<std::mutex> lock(camera_tx_lock);
    BuildAckDatagram(ack, rx_sequence.load());
    SendToCamera(ack, sizeof ack);
    ++tx_sequence;
}

void OnCameraDatagram(uint8_t* buffer, uint16_t length, const char*, uint16_t)
{
    HandleCameraDatagram(buffer, length);
    camera_link.last_datagram_ms.store(NowMs());
    ForwardToPhone(buffer, length);
}

void* CameraThread(void*)
{
    for (;;) {
        camera_link.endpoint.CheckPeerTimeout();
        SendKeepAlive();
        int32_t silent_ms = static_cast<int32_t>(NowMs() - camera_link.last_datagram_ms.load());
        if (silent_ms > static_cast<int32_t>(kCameraSilenceLimitMs)) {
            fputs("Telemetry receiving timeout\n", stderr);
            exit(2);
        }
        SleepMs(kCameraThreadPeriodMs);
    }
    return nullptr;
}
