#include "support/fake_camera.h"

#include "sim/camera_side.h"
#include "camera/frame.h"

std::vector<uint8_t> FakeCamera::Await(size_t length, int timeout_ms)
{
    uint16_t from = 0;
    std::vector<uint8_t> datagram = socket_.ReceiveOfLength(length, timeout_ms, &from);
    if (!datagram.empty())
        daemon_port_ = from;
    return datagram;
}

bool FakeCamera::AwaitConnectRequest(int timeout_ms)
{
    return !Await(kConnectRequestSize, timeout_ms).empty();
}

void FakeCamera::Send(uint8_t type, uint16_t camera_sequence, const std::vector<uint8_t>& payload)
{
    uint8_t header[kReceivedHeaderSize];
    BuildCameraDatagramHeader(header, kReceivedHeaderSize, kReceivedHeaderSize + payload.size(), type, camera_sequence);
    std::vector<uint8_t> datagram(header, header + kReceivedHeaderSize);
    datagram.insert(datagram.end(), payload.begin(), payload.end());
    SendRaw(datagram);
}

void FakeCamera::SendReports(uint16_t camera_sequence, const std::vector<std::vector<uint8_t>>& frames)
{
    std::vector<uint8_t> payload;
    for (const std::vector<uint8_t>& frame : frames)
        payload.insert(payload.end(), frame.begin(), frame.end());
    Send(kTransportDataStream, camera_sequence, payload);
}

void FakeCamera::SendRaw(const std::vector<uint8_t>& datagram)
{
    socket_.SendTo(daemon_port_, datagram);
}

std::vector<uint8_t> ReportFrame(uint8_t command_set, uint8_t command_id, const std::vector<uint8_t>& payload,
                                 uint16_t sequence)
{
    std::vector<uint8_t> frame(kFrameMaximumSize);
    size_t length = BuildReportFrame(frame.data(), frame.size(), command_set, command_id, payload.data(),
                                     payload.size(), sequence);
    frame.resize(length);
    return frame;
}

std::vector<std::string> DaemonArguments(uint16_t camera_port, const std::vector<std::string>& extra)
{
    std::vector<std::string> arguments = {"--host", "127.0.0.1", "--port", std::to_string(camera_port)};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return arguments;
}
