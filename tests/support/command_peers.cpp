#include "support/command_peers.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "camera/crc.h"
#include "camera/frame.h"

namespace {

constexpr int kKeepAlivePeriodMs = 200;
constexpr uint8_t kStatusLineType = 7;
constexpr uint8_t kBinaryMessageType = 6;
constexpr uint8_t kStateMessageKind = 0;

bool IsPing(const Bytes& frame)
{
    return frame.size() == kFrameMinimumSize && frame[kFrameCommandTypeOffset] == 0 &&
           frame[kFrameCommandSetOffset] == 0 && frame[kFrameCommandIdOffset] == 0;
}

}  // namespace

Bytes ParseHex(const std::string& hex)
{
    Bytes bytes;
    int high = -1;
    for (char c : hex) {
        int digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else
            continue;
        if (high < 0) {
            high = digit;
        } else {
            bytes.push_back(static_cast<uint8_t>(high * 16 + digit));
            high = -1;
        }
    }
    return bytes;
}

std::string MaskedFrameHex(const Bytes& frame)
{
    std::string text;
    for (size_t i = 0; i < frame.size(); ++i) {
        bool masked = i == kFrameSequenceOffset || i == kFrameSequenceOffset + 1 || i + 2 >= frame.size();
        char byte[4];
        snprintf(byte, sizeof byte, "%02x", frame[i]);
        if (!text.empty())
            text += ' ';
        text += masked ? ".." : byte;
    }
    return text;
}

Bytes ExpectedFrame(uint8_t command_set, uint8_t command_id, const std::string& payload_hex, uint8_t sender,
                    uint8_t type)
{
    Bytes payload = ParseHex(payload_hex);
    Bytes frame = {kFrameStartByte, static_cast<uint8_t>(kFrameMinimumSize + payload.size()), kFrameVersion, 0,
                   sender, static_cast<uint8_t>(command_set == 0x04 ? 0x04 : 0x01), 0, 0, type, command_set,
                   command_id};
    frame[kFrameHeaderCrcOffset] = Crc8(frame.data(), kFrameHeaderCrcOffset);
    frame.insert(frame.end(), payload.begin(), payload.end());
    frame.insert(frame.end(), {0, 0});
    return frame;
}

std::string ExpectedFrameHex(uint8_t command_set, uint8_t command_id, const std::string& payload_hex,
                             uint8_t sender, uint8_t type)
{
    return MaskedFrameHex(ExpectedFrame(command_set, command_id, payload_hex, sender, type));
}

bool FrameChecksumsGood(const Bytes& frame)
{
    if (frame.size() < kFrameMinimumSize || frame[kFrameLengthOffset] != frame.size())
        return false;
    return Crc8(frame.data(), kFrameHeaderCrcOffset) == frame[kFrameHeaderCrcOffset] &&
           Crc16(frame.data(), frame.size() - 2) == ReadLe16(frame.data() + frame.size() - 2);
}

Bytes CommandFrameIn(const Bytes& datagram)
{
    if (datagram.size() <= kCommandHeaderSize || datagram[kTransportTypeOffset] != kTransportCommand)
        return {};
    Bytes frame(datagram.begin() + kCommandHeaderSize, datagram.end());
    if (frame.size() < kFrameMinimumSize || IsPing(frame))
        return {};
    return frame;
}

CommandCamera::~CommandCamera()
{
    stop_.store(true);
    if (keep_alive_.joinable())
        keep_alive_.join();
}

bool CommandCamera::Connect(int timeout_ms)
{
    if (!camera_.AwaitConnectRequest(timeout_ms))
        return false;
    keep_alive_ = std::thread(&CommandCamera::KeepAlive, this);
    return true;
}

void CommandCamera::KeepAlive()
{
    while (!stop_.load()) {
        SendReports({});
        std::this_thread::sleep_for(std::chrono::milliseconds(kKeepAlivePeriodMs));
    }
}

void CommandCamera::SendReports(const std::vector<Bytes>& frames)
{
    std::lock_guard<std::mutex> lock(send_lock_);
    // A payload with no frame start still counts as the data stream.
    std::vector<Bytes> payload = frames;
    if (payload.empty())
        payload.push_back(Bytes(8, 0));
    camera_.SendReports(camera_sequence_++, payload);
}

Bytes CommandCamera::NextFrame(int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return {};
        Bytes frame = CommandFrameIn(camera_.socket().Receive(static_cast<int>(left.count())));
        if (!frame.empty())
            return frame;
    }
}

std::vector<Bytes> CommandCamera::FramesUntilQuiet(int quiet_ms)
{
    std::vector<Bytes> frames;
    for (;;) {
        Bytes frame = NextFrame(quiet_ms);
        if (frame.empty())
            return frames;
        frames.push_back(frame);
    }
}

bool MainAppPeer::LearnCommandPort(int timeout_ms)
{
    uint16_t from = 0;
    Bytes datagram = socket_.Receive(timeout_ms, &from);
    if (datagram.empty())
        return false;
    command_port_ = from;
    return true;
}

void MainAppPeer::SendJson(const std::string& json)
{
    std::string text = "!" + json;
    socket_.SendTo(command_port_, text.data(), text.size());
}

void MainAppPeer::SendRaw(const Bytes& datagram)
{
    socket_.SendTo(command_port_, datagram);
}

std::string MainAppPeer::NextStatusLine(int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return "";
        Bytes datagram = socket_.Receive(static_cast<int>(left.count()));
        if (!datagram.empty() && datagram[0] == kStatusLineType)
            return std::string(datagram.begin() + 1, datagram.end());
    }
}

bool MainAppPeer::WaitForStateMessage(const std::function<bool(const Bytes&)>& accept, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        Bytes datagram = socket_.Receive(static_cast<int>(left.count()));
        if (datagram.size() >= 2 && datagram[0] == kBinaryMessageType && datagram[1] == kStateMessageKind &&
            accept(datagram))
            return true;
    }
}

bool MainAppPeer::WaitForStatusLine(const std::string& text, int timeout_ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        std::string line = NextStatusLine(static_cast<int>(left.count()));
        if (line.find(text) != std::string::npos)
            return true;
    }
}

namespace {

constexpr int kStartTimeoutMs = 8000;
constexpr int kMarkerTimeoutMs = 5000;
constexpr size_t kTelemetryPadding = 520;  // the daemon decodes once more than 500 bytes are held
const char kJsonLogPrefix[] = "JSON commands from app: ";

}  // namespace

bool CommandRig::Start()
{
    if (!daemon.Start(DaemonPath(), DaemonArguments(camera.port(), {"--dst-port", std::to_string(app.port())})))
        return false;
    return camera.Connect(kStartTimeoutMs) && app.LearnCommandPort(kStartTimeoutMs);
}

CommandEffect CommandRig::Send(const std::string& json)
{
    Bytes datagram = {'!'};
    datagram.insert(datagram.end(), json.begin(), json.end());
    return SendDatagram(datagram);
}

CommandEffect CommandRig::SendDatagram(const Bytes& datagram)
{
    CommandEffect effect;
    size_t log_start = daemon.Stderr().size();
    // A focus point of (n, 0), n counting the markers: a frame no other marker sends.
    int number = ++marker_;
    std::string marker = "{\"cmd\":\"focus\",\"param\":\"point\",\"value\":\"" + std::to_string(number) +
                         "\",\"value2\":\"0\"}";
    std::string marker_line = kJsonLogPrefix + marker + "\n";
    std::string marker_log = marker_line + "Camera set focus point " + std::to_string(number) + ".000000,0.000000\n";
    float x = static_cast<float>(number);
    uint8_t x_bytes[4];
    memcpy(x_bytes, &x, sizeof x_bytes);
    char payload[40];
    snprintf(payload, sizeof payload, "%02x %02x %02x %02x 00 00 00 00", x_bytes[0], x_bytes[1], x_bytes[2],
             x_bytes[3]);
    std::string marker_frame = ExpectedFrameHex(0x02, 0x30, payload);
    app.SendRaw(datagram);
    app.SendJson(marker);
    for (;;) {
        Bytes frame = camera.NextFrame(kMarkerTimeoutMs);
        if (frame.empty())
            return effect;
        std::string hex = MaskedFrameHex(frame);
        if (!FrameChecksumsGood(frame)) {
            effect.frames.push_back("BAD CHECKSUM " + hex);
            continue;
        }
        if (hex == marker_frame)
            break;
        effect.frames.push_back(hex);
    }
    if (!daemon.WaitForStderr(marker_log, kMarkerTimeoutMs))
        return effect;
    std::string log = daemon.Stderr();
    size_t marker_at = log.find(marker_line, log_start);
    effect.log = log.substr(log_start, marker_at - log_start);
    effect.complete = true;
    return effect;
}

void CommandRig::SendReports(const std::vector<Bytes>& frames)
{
    std::vector<Bytes> padded = frames;
    padded.push_back(Bytes(kTelemetryPadding, 0));
    camera.SendReports(padded);
}

std::string JsonCommand(const JsonMembers& members)
{
    std::string json = "{";
    for (const auto& member : members) {
        if (json.size() > 1)
            json += ",";
        json += "\"" + member.first + "\":\"";
        for (char c : member.second) {
            if (c == '"' || c == '\\')
                json += '\\';
            json += c;
        }
        json += "\"";
    }
    return json + "}";
}

void CheckCommandCases(CommandRig& rig, const std::vector<CommandCase>& cases)
{
    for (const CommandCase& c : cases) {
        CommandEffect effect = rig.Send(c.json);
        ASSERT_TRUE(effect.complete) << c.json << "\n" << rig.daemon.Stderr();
        EXPECT_EQ(effect.frames, c.frames) << c.json;
        EXPECT_EQ(effect.log, "JSON commands from app: " + c.json + "\n" + c.log) << c.json;
    }
}
