#pragma once
// A fake camera that reports its state: after the daemon's connect request it
// keeps the link alive with empty data-stream datagrams, and sends report
// frames on demand, each batch padded past the daemon's block threshold so
// that the daemon decodes it at once.
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "state/report_layout.h"
#include "support/fake_camera.h"

class ReportingCamera {
public:
    ReportingCamera() = default;
    ~ReportingCamera();
    ReportingCamera(const ReportingCamera&) = delete;
    ReportingCamera& operator=(const ReportingCamera&) = delete;

    uint16_t port() const { return camera_.port(); }
    FakeCamera& fake() { return camera_; }

    // Waits for the daemon's connect request; does not start the stream.
    bool AwaitDaemon(int timeout_ms);
    // Starts the stream: an empty data-stream datagram now and every 200 ms.
    void StartKeepAlive();
    // One data-stream datagram carrying `frames` (then `tail`, then zero
    // padding up to just past the block threshold).
    void SendFrames(const std::vector<std::vector<uint8_t>>& frames, const std::vector<uint8_t>& tail = {});
    // One data-stream datagram with exactly this payload, no padding.
    void SendPayload(const std::vector<uint8_t>& payload);

private:
    FakeCamera camera_;
    std::atomic<uint16_t> sequence_{0x0100};
    std::atomic<bool> stop_{false};
    std::thread keep_alive_;
};

// A report frame built from `values` (see state/report_layout.h).
std::vector<uint8_t> CameraReport(CameraReportKind kind, const CameraReportValues& values);
