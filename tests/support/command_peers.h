#pragma once
// The daemon's peers for the state and command tests: a camera that keeps the
// link alive, sends reports and hands over the command frames it receives; the
// main application; and a rig of both around the daemon that shows exactly
// what one command does. Frames are compared as hex texts with the sequence
// and CRC16 bytes masked.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "sim/report_encoder.h"
#include "support/child_process.h"
#include "support/fake_camera.h"
#include "support/udp_peer.h"

using Bytes = std::vector<uint8_t>;

// Bytes as lower-case hex, one space between bytes; the sequence (bytes 6,
// 7) and CRC16 (last two) shown as "..".
std::string MaskedFrameHex(const Bytes& frame);
// The frame a command should send (sequence and CRC16 zero): header per
// length, receiver 04 for command set 04 else 01. Payload as "01 1e 00".
Bytes ExpectedFrame(uint8_t command_set, uint8_t command_id, const std::string& payload_hex,
                    uint8_t sender = 0x02, uint8_t type = 0x40);
std::string ExpectedFrameHex(uint8_t command_set, uint8_t command_id, const std::string& payload_hex,
                             uint8_t sender = 0x02, uint8_t type = 0x40);
bool FrameChecksumsGood(const Bytes& frame);
// The command frame in a type 4 datagram; empty for pings, acknowledgements,
// connect requests and other types.
Bytes CommandFrameIn(const Bytes& datagram);
// "!" + json, the datagram of a JSON command.
inline Bytes JsonDatagram(const std::string& json)
{
    Bytes datagram = {'!'};
    datagram.insert(datagram.end(), json.begin(), json.end());
    return datagram;
}
// A report frame as the camera sends it.
Bytes CameraReport(CameraReportKind kind, const CameraReportValues& values);

// The camera: answers nothing until the daemon's connect request arrives;
// then an empty data-stream datagram every 200 ms keeps the daemon alive.
class CommandCamera {
public:
    CommandCamera() = default;
    ~CommandCamera();
    CommandCamera(const CommandCamera&) = delete;
    CommandCamera& operator=(const CommandCamera&) = delete;

    uint16_t port() const { return camera_.port(); }
    uint16_t daemon_port() const { return camera_.daemon_port(); }   // the daemon's camera endpoint
    // The connect request; the stream not yet started.
    bool AwaitDaemon(int timeout_ms) { return camera_.AwaitConnectRequest(timeout_ms); }
    void StartKeepAlive();
    bool Connect(int timeout_ms) { return AwaitDaemon(timeout_ms) && (StartKeepAlive(), true); }
    // Report frames in one data-stream datagram, zero-padded past the 500-byte
    // block threshold so that the daemon decodes them at once.
    void SendReports(const std::vector<Bytes>& frames);
    // One data-stream datagram, as it is.
    void SendPayload(const Bytes& payload) { camera_.Send(kTransportDataStream, sequence_++, payload); }
    // The next command frame, or empty after the time-out.
    Bytes NextFrame(int timeout_ms);

private:
    FakeCamera camera_;
    std::atomic<uint16_t> sequence_{1};
    std::atomic<bool> stop_{false};
    std::thread keep_alive_;
};

// The main application: it learns the daemon's command port from the source
// port of the status datagrams and sends commands there.
class MainAppPeer {
public:
    explicit MainAppPeer(uint16_t port = 0) : socket_(port) {}
    uint16_t port() const { return socket_.port(); }
    bool LearnCommandPort(int timeout_ms) { return !Next(nullptr, timeout_ms).empty(); }
    uint16_t command_port() const { return command_port_; }
    void SendJson(const std::string& json) { SendRaw(JsonDatagram(json)); }
    void SendRaw(const Bytes& datagram) { socket_.SendTo(command_port_, datagram); }
    // The next datagram that `accept` takes (null: any), or empty after the time-out.
    Bytes Next(const std::function<bool(const Bytes&)>& accept, int timeout_ms);
    // The text of the next status line that contains `text`, or "".
    std::string StatusLineWith(const std::string& text, int timeout_ms);
    // The next binary message of `kind` (06, kind, ...) that `accept` takes.
    Bytes Binary(uint8_t kind, int timeout_ms, const std::function<bool(const Bytes&)>& accept = nullptr);

private:
    UdpPeer socket_;
    uint16_t command_port_ = 0;
};

// The daemon between the two. A command is followed by a marker command (a
// focus point whose x counts the markers): the frames before the marker's
// frame, and the log up to the marker's log line, are the command's.
struct CommandEffect {
    std::vector<std::string> frames;  // MaskedFrameHex of each; "BAD CHECKSUM <hex>" for a bad one
    std::string log;
    bool complete = false;            // the marker came back
};

class CommandRig {
public:
    bool Start();  // the daemon, the camera connected, the command port learnt
    CommandEffect Send(const std::string& json) { return SendDatagram(JsonDatagram(json)); }
    CommandEffect SendDatagram(const Bytes& datagram);
    void SendReports(const std::vector<Bytes>& frames) { camera.SendReports(frames); }

    ChildProcess daemon;
    CommandCamera camera;
    MainAppPeer app;

private:
    int marker_ = 0;
};

// A JSON object of string members, in order, quotes and backslashes escaped.
using JsonMembers = std::vector<std::pair<std::string, std::string>>;
std::string JsonCommand(const JsonMembers& members);

// One command and what it must do: the frames, and the log lines after its
// own "JSON commands from app: <json>" line.
struct CommandCase {
    std::string json;
    std::vector<std::string> frames;
    std::string log;
};

// A test with the daemon, its camera and main application started.
class CommandRigTest : public ::testing::Test {
protected:
    void SetUp() override;
    // Sends each case and checks its frames and log exactly.
    void Check(const std::vector<CommandCase>& cases);

    CommandRig rig;
};
