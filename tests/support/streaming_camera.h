#pragma once
// A camera that streams on its own, for tests that watch the daemon over
// many seconds (the phone bridge): a thread answers the daemon's first
// datagram with a data-stream datagram and a live-video datagram every
// period, and records, with its arrival time, everything the daemon sends.
// Its datagrams are fixed by their type and sequence number, so a receiver
// (the phone) can check that one arrived byte for byte as the camera sent it.
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/netns.h"

// Milliseconds of a monotonic clock, for time windows in tests.
int64_t SteadyMs();

// The camera's datagram of `type` (1: data stream whose payload holds no
// frame start, 2: live video, its long header on odd sequence numbers).
std::vector<uint8_t> StreamDatagram(uint8_t type, uint16_t camera_sequence);
// True when `datagram` is exactly StreamDatagram of its own type and sequence.
bool IsStreamDatagram(const std::vector<uint8_t>& datagram);

// What the daemon sends the camera, told apart by content.
enum class DaemonDatagram { kConnectRequest, kPing, kVideoAck, kOther };
DaemonDatagram ClassifyDaemonDatagram(const std::vector<uint8_t>& datagram);

// A datagram as a phone app might send it, numbered; never one of the above.
std::vector<uint8_t> PhoneDatagram(uint32_t number);
bool IsPhoneDatagram(const std::vector<uint8_t>& datagram);

class StreamingCamera {
public:
    struct Received {
        int64_t at_ms;           // SteadyMs() on arrival
        std::string from_host;
        uint16_t from_port;
        std::vector<uint8_t> bytes;
    };

    // Binds host:port inside `ns` (null: the test's own namespace) and starts
    // the thread; the stream starts with the daemon's first datagram.
    StreamingCamera(const NetworkNamespace* ns, const char* host, uint16_t port, int period_ms = 100);
    ~StreamingCamera();
    StreamingCamera(const StreamingCamera&) = delete;
    StreamingCamera& operator=(const StreamingCamera&) = delete;

    bool ok() const { return socket_.ok(); }
    uint16_t port() const { return socket_.port(); }
    bool WaitForDaemon(int timeout_ms);
    // Everything received at or after `from_ms`.
    std::vector<Received> ReceivedSince(int64_t from_ms);
    size_t Count(DaemonDatagram kind, int64_t from_ms, int64_t to_ms);
    // Waits until `count` datagrams of `kind` have arrived at or after `from_ms`.
    bool WaitFor(DaemonDatagram kind, int64_t from_ms, int timeout_ms, size_t count = 1);
    // Phone datagrams passed on by the daemon, arrived at or after `from_ms`;
    // the wait returns how many there are once `count` are there or at the time-out.
    size_t PhoneDatagramsSince(int64_t from_ms);
    size_t WaitForPhoneDatagrams(int64_t from_ms, size_t count, int timeout_ms);

    // The camera sequence number of the next datagram it sends.
    uint16_t NextSequence() const { return next_sequence_.load(); }
    // Pings or acknowledgements (by `kind`) that the daemon built after
    // receiving a camera datagram numbered from `first` up to `end`
    // (exclusive): a ping and an ack carry the camera's last sequence number,
    // so this tells what the daemon did while it held those datagrams,
    // however late the test itself looks.
    size_t CountAnswering(DaemonDatagram kind, uint16_t first, uint16_t end);

private:
    void Run();

    NamespaceUdpSocket socket_;
    int period_ms_;
    std::atomic<bool> stop_{false};
    std::atomic<uint16_t> next_sequence_{0};
    std::mutex lock_;
    std::vector<Received> received_;  // guarded by lock_
    std::string daemon_host_;          // guarded by lock_; empty until the daemon sends
    uint16_t daemon_port_ = 0;         // guarded by lock_
    std::thread thread_;
};
