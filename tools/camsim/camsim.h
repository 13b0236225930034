#pragma once
// The camera simulator: plays the camera's side of the Wi-Fi protocol on a
// UDP port, for development without a camera and as the peer of the system
// tests. Received datagrams are logged on standard output, one line each.
#include <netinet/in.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

struct SimOptions {
    const char* bind_host = "127.0.0.1";
    uint16_t port = 9004;
    const char* video_path = nullptr;   // H.264 Annex B file; generated stream when null
    int fps = 30;
    size_t video_payload = 1400;        // video bytes per datagram
    bool send_video = true;
    bool long_video_header = false;     // 32-byte header with 00 00 01 ff at 20
    bool never_answer = false;          // log, but never start the stream
    int silent_after_ms = -1;           // fall silent this long after the stream starts
    int report_period_ms = 100;         // data-stream datagram period
    bool log_acks = false;              // one line per ack instead of a summary each second
};

struct Simulator {
    SimOptions options;
    int socket = -1;
    std::mutex peer_lock;
    struct sockaddr_in peer{};           // guarded by peer_lock
    std::atomic<bool> peer_known{false};
    std::atomic<bool> streaming{false};
    std::atomic<bool> silent{false};
    std::atomic<uint32_t> acks_received{0};
    std::mutex send_lock;
    uint16_t camera_sequence = 0;        // guarded by send_lock
};
extern Simulator sim;

// Sends a camera datagram of `type` with the camera's next sequence number;
// `payload` follows the 20-byte header (or `header_size` when larger).
void SimSendDatagram(uint8_t type, const uint8_t* payload, size_t length, size_t header_size = 20,
                     const uint8_t* header_extra = nullptr, size_t extra_length = 0);

// Logs one datagram received from the service.
void SimLogReceived(const uint8_t* data, size_t length);

// The data stream: fills `out` with frames for the next data-stream datagram.
size_t SimBuildReports(uint8_t* out, size_t capacity);
// A line typed on standard input that the reports understand ("set iso 400").
bool SimHandleReportCommand(const char* line);

// The video source: the next access unit of the stream, looping.
int SimOpenVideo(const char* path);
size_t SimNextVideoFrame(const uint8_t** data);
