#include "support/reporting_camera.h"

#include <chrono>

#include "camera/frame.h"
#include "camera/reassembly.h"

ReportingCamera::~ReportingCamera()
{
    stop_.store(true);
    if (keep_alive_.joinable())
        keep_alive_.join();
}

bool ReportingCamera::AwaitDaemon(int timeout_ms)
{
    return camera_.AwaitConnectRequest(timeout_ms);
}

void ReportingCamera::StartKeepAlive()
{
    camera_.Send(kTransportDataStream, sequence_++, {});
    keep_alive_ = std::thread([this] {
        while (!stop_.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            camera_.Send(kTransportDataStream, sequence_++, {});
        }
    });
}

void ReportingCamera::SendFrames(const std::vector<std::vector<uint8_t>>& frames, const std::vector<uint8_t>& tail)
{
    std::vector<uint8_t> payload;
    for (const std::vector<uint8_t>& frame : frames)
        payload.insert(payload.end(), frame.begin(), frame.end());
    payload.insert(payload.end(), tail.begin(), tail.end());
    if (payload.size() <= kTelemetryBlockThreshold)
        payload.resize(kTelemetryBlockThreshold + 1, 0);
    SendPayload(payload);
}

void ReportingCamera::SendPayload(const std::vector<uint8_t>& payload)
{
    camera_.Send(kTransportDataStream, sequence_++, payload);
}

std::vector<uint8_t> CameraReport(CameraReportKind kind, const CameraReportValues& values)
{
    std::vector<uint8_t> frame(kFrameMaximumSize);
    frame.resize(BuildCameraReport(kind, values, frame.data(), frame.size(), 0x0042));
    return frame;
}
