#pragma once
// A fake camera on loopback for system tests: it receives what the daemon
// sends to the camera, learns the daemon's camera port from the first
// datagram, and sends camera datagrams (types 1 and 2) back with its own
// sequence numbers.
#include <cstdint>
#include <string>
#include <vector>

#include "support/udp_peer.h"

class FakeCamera {
public:
    FakeCamera() = default;
    uint16_t port() const { return socket_.port(); }
    UdpPeer& socket() { return socket_; }

    // Waits for the daemon's next datagram of `length` bytes (0: any) and
    // remembers its source port as the daemon's camera port.
    std::vector<uint8_t> Await(size_t length, int timeout_ms);
    // Waits for a connect request (48 bytes) and learns the daemon's port.
    bool AwaitConnectRequest(int timeout_ms);
    uint16_t daemon_port() const { return daemon_port_; }

    // A camera datagram of `type` whose payload follows a 20-byte header.
    void Send(uint8_t type, uint16_t camera_sequence, const std::vector<uint8_t>& payload);
    // A data-stream datagram carrying report frames (see BuildReportFrame).
    void SendReports(uint16_t camera_sequence, const std::vector<std::vector<uint8_t>>& frames);
    void SendRaw(const std::vector<uint8_t>& datagram);

private:
    UdpPeer socket_;
    uint16_t daemon_port_ = 0;
};

// A report frame as the camera sends it.
std::vector<uint8_t> ReportFrame(uint8_t command_set, uint8_t command_id, const std::vector<uint8_t>& payload,
                                 uint16_t sequence = 1);

// The daemon's arguments for a camera at 127.0.0.1:camera_port, then `extra`.
std::vector<std::string> DaemonArguments(uint16_t camera_port, const std::vector<std::string>& extra = {});
