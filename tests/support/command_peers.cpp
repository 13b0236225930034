#include "support/command_peers.h"

#include "support/isolation.h"

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bridge/mimo_bridge.h"
#include "camera/crc.h"
#include "camera/frame.h"
#include "camera/reassembly.h"
#include "sim/report_encoder.h"

namespace {

using Clock = std::chrono::steady_clock;

int MsLeft(Clock::time_point deadline)
{
    return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
}

}  // namespace

std::string MaskedFrameHex(const Bytes& frame)
{
    std::string text;
    for (size_t i = 0; i < frame.size(); ++i) {
        char byte[4];
        snprintf(byte, sizeof byte, "%02x", frame[i]);
        bool masked = i == kFrameSequenceOffset || i == kFrameSequenceOffset + 1 || i + 2 >= frame.size();
        text += (i == 0 ? "" : " ") + std::string(masked ? ".." : byte);
    }
    return text;
}

Bytes ExpectedFrame(uint8_t command_set, uint8_t command_id, const std::string& payload_hex, uint8_t sender,
                    uint8_t type)
{
    Bytes frame = {kFrameStartByte, 0, kFrameVersion, 0, sender, static_cast<uint8_t>(command_set == 4 ? 4 : 1),
                   0, 0, type, command_set, command_id};
    std::string digits;  // pairs of hex digits; spaces are for the reader
    for (char c : payload_hex)
        if (isxdigit(static_cast<unsigned char>(c)))
            digits += c;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        frame.push_back(static_cast<uint8_t>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    frame.insert(frame.end(), {0, 0});
    frame[kFrameLengthOffset] = static_cast<uint8_t>(frame.size());
    frame[kFrameHeaderCrcOffset] = Crc8(frame.data(), kFrameHeaderCrcOffset);
    return frame;
}

std::string ExpectedFrameHex(uint8_t command_set, uint8_t command_id, const std::string& payload_hex,
                             uint8_t sender, uint8_t type)
{
    return MaskedFrameHex(ExpectedFrame(command_set, command_id, payload_hex, sender, type));
}

bool FrameChecksumsGood(const Bytes& frame)
{
    return frame.size() >= kFrameMinimumSize && frame[kFrameLengthOffset] == frame.size() &&
           Crc8(frame.data(), kFrameHeaderCrcOffset) == frame[kFrameHeaderCrcOffset] &&
           Crc16(frame.data(), frame.size() - 2) == ReadLe16(frame.data() + frame.size() - 2);
}

Bytes CommandFrameIn(const Bytes& datagram)
{
    if (datagram.size() < kCommandHeaderSize + kFrameMinimumSize ||
        datagram[kTransportTypeOffset] != kTransportCommand)
        return {};
    Bytes frame(datagram.begin() + kCommandHeaderSize, datagram.end());
    bool ping = frame.size() == kFrameMinimumSize && frame[kFrameCommandTypeOffset] == 0 &&
                frame[kFrameCommandSetOffset] == 0 && frame[kFrameCommandIdOffset] == 0;
    return ping ? Bytes() : frame;
}

Bytes CameraReport(CameraReportKind kind, const CameraReportValues& values)
{
    Bytes frame(kFrameMaximumSize);
    frame.resize(BuildCameraReport(kind, values, frame.data(), frame.size(), 0x0042));
    return frame;
}

CommandCamera::~CommandCamera()
{
    stop_.store(true);
    if (keep_alive_.joinable())
        keep_alive_.join();
}

void CommandCamera::StartKeepAlive()
{
    keep_alive_ = std::thread([this] {
        while (!stop_.load()) {
            SendPayload({});
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
    });
}

void CommandCamera::SendReports(const std::vector<Bytes>& frames)
{
    Bytes payload;
    for (const Bytes& frame : frames)
        payload.insert(payload.end(), frame.begin(), frame.end());
    payload.resize(std::max<size_t>(payload.size(), kTelemetryBlockThreshold + 1), 0);
    SendPayload(payload);
}

Bytes CommandCamera::NextFrame(int timeout_ms)
{
    for (auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms); MsLeft(deadline) > 0;) {
        Bytes frame = CommandFrameIn(camera_.socket().Receive(MsLeft(deadline)));
        if (!frame.empty())
            return frame;
    }
    return {};
}

Bytes MainAppPeer::Next(const std::function<bool(const Bytes&)>& accept, int timeout_ms)
{
    for (auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms); MsLeft(deadline) > 0;) {
        uint16_t from = 0;
        Bytes datagram = socket_.Receive(MsLeft(deadline), &from);
        if (!datagram.empty())
            command_port_ = from;
        if (!datagram.empty() && (!accept || accept(datagram)))
            return datagram;
    }
    return {};
}

std::string MainAppPeer::StatusLineWith(const std::string& text, int timeout_ms)
{
    auto shows = [&](const Bytes& d) { return d[0] == 7 && std::string(d.begin(), d.end()).find(text) < d.size(); };
    Bytes line = Next(shows, timeout_ms);
    return line.empty() ? "" : std::string(line.begin() + 1, line.end());
}

Bytes MainAppPeer::Binary(uint8_t kind, int timeout_ms, const std::function<bool(const Bytes&)>& accept)
{
    return Next([&](const Bytes& d) { return d.size() >= 2 && d[0] == 6 && d[1] == kind && (!accept || accept(d)); },
                timeout_ms);
}

bool CommandRig::Start()
{
    const std::vector<std::string> destination = {"--dst-host", "127.0.0.1", "--dst-port", std::to_string(app.port())};
    // The bridge port is taken last: iptables' own diagnostics must not fall among a command's log lines.
    return daemon.Start(DaemonPath(), DaemonArguments(camera.port(), destination)) && camera.Connect(8000) &&
           app.LearnCommandPort(8000) && WaitUntilPortTaken(kMimoBridgePort, 8000);
}

CommandEffect CommandRig::SendDatagram(const Bytes& datagram)
{
    const int number = ++marker_;
    const std::string marker = JsonCommand({{"cmd", "focus"}, {"param", "point"}, {"value", std::to_string(number)},
                                            {"value2", "0"}});
    const std::string marker_line = "JSON commands from app: " + marker + "\n";
    const float x = static_cast<float>(number);
    Bytes marker_frame = ExpectedFrame(0x02, 0x30, "0000000000000000");
    memcpy(marker_frame.data() + kFramePayloadOffset, &x, sizeof x);

    CommandEffect effect;
    size_t log_start = daemon.Stderr().size();
    app.SendRaw(datagram);
    app.SendJson(marker);
    for (Bytes frame = camera.NextFrame(5000);; frame = camera.NextFrame(5000)) {
        if (frame.empty())
            return effect;
        std::string hex = MaskedFrameHex(frame);
        if (hex == MaskedFrameHex(marker_frame) && FrameChecksumsGood(frame))
            break;
        effect.frames.push_back((FrameChecksumsGood(frame) ? "" : "BAD CHECKSUM ") + hex);
    }
    if (!daemon.WaitForStderr(marker_line + "Camera set focus point " + std::to_string(number) + ".000000,0.000000\n",
                              5000))
        return effect;
    std::string log = daemon.Stderr();
    effect.log = log.substr(log_start, log.find(marker_line, log_start) - log_start);
    effect.complete = true;
    return effect;
}

std::string JsonCommand(const JsonMembers& members)
{
    std::string json = "{";
    for (const auto& member : members) {
        json += (json.size() > 1 ? ",\"" : "\"") + member.first + "\":\"";
        for (char c : member.second)
            json += (c == '"' || c == '\\') ? std::string("\\") + c : std::string(1, c);
        json += "\"";
    }
    return json + "}";
}

void CommandRigTest::SetUp()
{
    REQUIRE_ISOLATION();
    ASSERT_TRUE(rig.Start()) << rig.daemon.Stderr();
}

void CommandRigTest::Check(const std::vector<CommandCase>& cases)
{
    for (const CommandCase& c : cases) {
        CommandEffect effect = rig.Send(c.json);
        ASSERT_TRUE(effect.complete) << c.json << "\n" << rig.daemon.Stderr();
        EXPECT_EQ(effect.frames, c.frames) << c.json;
        EXPECT_EQ(effect.log, "JSON commands from app: " + c.json + "\n" + c.log) << c.json;
    }
}
