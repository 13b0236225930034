#pragma once
// Peers and helpers for tests of the camera commands.
//
//  - Frame helpers: the expected command frame of a command, written from
//    its command set, id and payload; the frame inside a type 4 datagram;
//    comparable hex texts with the sequence and CRC16 bytes masked.
//  - CommandCamera: a camera that answers the daemon's connect request,
//    keeps the daemon alive with a data-stream datagram every 200 ms (from a
//    thread of its own), and hands the test each command frame the daemon
//    sends, skipping connect requests, pings and video acknowledgements.
//  - CommandRig: the daemon between the two, and a way to see exactly what
//    one command did (its frames and its log lines).
//  - MainAppPeer: the main application, bound at the daemon's --dst-port; it
//    learns the daemon's command port from the source port of the status
//    datagrams and sends "!" + JSON (or raw bytes) there.
#include <atomic>
#include <functional>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/fake_camera.h"
#include "support/udp_peer.h"

using Bytes = std::vector<uint8_t>;

// "55 0e 04" -> bytes; spaces optional.
Bytes ParseHex(const std::string& hex);
// Bytes as lower-case hex, one space between bytes; the sequence (bytes 6,
// 7) and CRC16 (last two) of a frame shown as "..".
std::string MaskedFrameHex(const Bytes& frame);

// The frame a command should send, with zero sequence and CRC16: header per
// length, sender 02 (or `sender`), receiver 04 for command set 04 else 01,
// command type 40 (or `type`).
Bytes ExpectedFrame(uint8_t command_set, uint8_t command_id, const std::string& payload_hex,
                    uint8_t sender = 0x02, uint8_t type = 0x40);
std::string ExpectedFrameHex(uint8_t command_set, uint8_t command_id, const std::string& payload_hex,
                             uint8_t sender = 0x02, uint8_t type = 0x40);

// True when both checksums of the frame are right.
bool FrameChecksumsGood(const Bytes& frame);

// The command frame carried by a type 4 datagram, or empty for anything
// else (connect request, ping, acknowledgement, a datagram of another type).
Bytes CommandFrameIn(const Bytes& datagram);

class CommandCamera {
public:
    CommandCamera() = default;
    ~CommandCamera();
    CommandCamera(const CommandCamera&) = delete;
    CommandCamera& operator=(const CommandCamera&) = delete;

    uint16_t port() const { return camera_.port(); }
    // Waits for the daemon's connect request, then starts the keep-alive thread.
    bool Connect(int timeout_ms);
    // The next command frame, or empty after the time-out.
    Bytes NextFrame(int timeout_ms);
    // Every command frame that arrives within `quiet_ms` of the previous one.
    std::vector<Bytes> FramesUntilQuiet(int quiet_ms);
    // Sends report frames in one data-stream datagram.
    void SendReports(const std::vector<Bytes>& frames);

private:
    void KeepAlive();

    FakeCamera camera_;
    std::mutex send_lock_;
    uint16_t camera_sequence_ = 1;  // guarded by send_lock_
    std::atomic<bool> stop_{false};
    std::thread keep_alive_;
};

class MainAppPeer {
public:
    MainAppPeer() = default;
    uint16_t port() const { return socket_.port(); }
    // Waits for a status datagram; its source port is the command port.
    bool LearnCommandPort(int timeout_ms);
    uint16_t command_port() const { return command_port_; }
    void SendJson(const std::string& json);
    void SendRaw(const Bytes& datagram);
    // The next status line (a datagram that is text), or "" after the time-out.
    std::string NextStatusLine(int timeout_ms);
    // Waits for a state message (06 00 ...) that `accept` takes.
    bool WaitForStateMessage(const std::function<bool(const Bytes&)>& accept, int timeout_ms);
    // Waits for a status line that contains `text`.
    bool WaitForStatusLine(const std::string& text, int timeout_ms);

private:
    UdpPeer socket_;
    uint16_t command_port_ = 0;
};

// The real daemon with a CommandCamera and a MainAppPeer. What a command
// does is seen by sending it and then a marker command (a focus point whose x
// counts the markers, a frame seen once): the frames before the marker's
// frame, and the log between the command and the marker, are the command's.
struct CommandEffect {
    std::vector<std::string> frames;  // MaskedFrameHex of each; "BAD CHECKSUM <hex>" for a bad one
    std::string log;                  // standard error written for the command
    bool complete = false;            // the marker came back
};

class CommandRig {
public:
    // Starts the daemon, connects the camera and learns the command port.
    bool Start();
    CommandEffect Send(const std::string& json);
    CommandEffect SendDatagram(const Bytes& datagram);
    // Reports in one data-stream datagram, padded so the daemon decodes them at once.
    void SendReports(const std::vector<Bytes>& frames);

    ChildProcess daemon;
    CommandCamera camera;
    MainAppPeer app;

private:
    int marker_ = 0;
};

// A JSON object of string members, in order, quotes and backslashes escaped.
using JsonMembers = std::vector<std::pair<std::string, std::string>>;
std::string JsonCommand(const JsonMembers& members);

// One command and what it must do: the frames, and the log lines after the
// command's own "JSON commands from app: <json>" line.
struct CommandCase {
    std::string json;
    std::vector<std::string> frames;
    std::string log;
};
// Sends each case through the rig and checks frames and log exactly.
void CheckCommandCases(CommandRig& rig, const std::vector<CommandCase>& cases);
