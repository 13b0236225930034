// Commands in process, against a camera socket on loopback: the step commands from the reported state and the name
// tables they walk, the gimbal conversions only the remote control reaches, the CameraState fields that commands
// write, and the JSON interpreter's control values. Command words to frames are checked through the daemon.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "camera/camera_link.h"
#include "control/app_commands.h"
#include "control/camera_commands.h"
#include "control/setting_commands.h"
#include "camera/value_tables.h"
#include "state/camera_state.h"
#include "support/command_peers.h"

namespace {

using namespace std::string_literals;
using Frames = std::vector<std::string>;

class Commands : public ::testing::Test {
protected:
    void SetUp() override
    {
        static UdpPeer* camera = [] {  // the camera link of this process points at a socket of the test
            UdpPeer* peer = new UdpPeer();
            CameraLinkSetAddress("127.0.0.1", peer->port());
            camera_link.endpoint.Open(0);
            return peer;
        }();
        camera_ = camera;
        while (!camera_->Receive(0).empty()) {
        }
        CameraStateGuard lock(camera_state_lock);
        memset(GetCameraState(), 0, sizeof(CameraState));
    }

    // Runs `command`; returns the frames it sent (masked hex) and its log.
    Frames Run(const std::function<void()>& command, std::string* log = nullptr)
    {
        testing::internal::CaptureStderr();
        command();
        std::string written = testing::internal::GetCapturedStderr();
        if (log != nullptr)
            *log = written;
        Frames frames;
        for (Bytes frame = CommandFrameIn(camera_->Receive(100)); !frame.empty();
             frame = CommandFrameIn(camera_->Receive(100)))
            frames.push_back((FrameChecksumsGood(frame) ? "" : "BAD CHECKSUM ") + MaskedFrameHex(frame));
        return frames;
    }

    static CameraState& State() { return *GetCameraState(); }
    UdpPeer* camera_ = nullptr;
};

std::string F(uint8_t command_set, uint8_t command_id, const std::string& payload)
{
    return ExpectedFrameHex(command_set, command_id, payload);
}

template <size_t N>
void Put(char (&field)[N], const char* text)
{
    snprintf(field, N, "%s", text);
}

// Steps from a reported value, and the wraps at both ends (steps from nothing reported: the remote-control test).
TEST_F(Commands, StepsStartFromTheReportedValue)
{
    const struct { void (*report)(CameraState&); void (*step)(); Frames frames; std::string log; } cases[] = {
        {[](CameraState& s) { Put(s.image_mode, "manual"); }, CameraNextExposureMode, {F(0x02, 0x1e, "01 00")},
         "Camera set next image mode\nCamera set image mode auto\n"},
        {[](CameraState& s) { Put(s.shutter_set, "1/8000"); }, CameraNextShutter, {F(0x02, 0x28, "01 08 00 00")},
         "Camera set next shutter value\nnew shutter value = 8\"\nCamera set shutter 8\"\n"},
        {[](CameraState& s) { Put(s.shutter_set, "1/8000"); }, CameraPrevShutter, {F(0x02, 0x28, "01 00 99 00")},
         "Camera set prev shutter value\nnew shutter value = 1/6400\nCamera set shutter 1/6400\n"},
        {[](CameraState& s) { Put(s.shutter_set, "30\""); }, CameraNextShutter, {F(0x02, 0x28, "01 07 00 00")},
         "Camera set next shutter value\nnew shutter value = 7\"\nCamera set shutter 7\"\n"},  // 30" is not stepped
        {[](CameraState& s) { Put(s.iso_set, "auto"); }, CameraNextIso, {F(0x02, 0x2a, "03")},
         "Camera set next ISO\nCamera set iso 100\n"},
        {[](CameraState& s) { Put(s.iso_set, "3200"); }, CameraNextIso, {F(0x02, 0x2a, "00")},
         "Camera set next ISO\nCamera set iso 0\n"},
        {[](CameraState& s) { Put(s.ev, "0"); }, CameraNextEv, {F(0x02, 0x2e, "11")},
         "Camera set next EV\nCamera set EV 0.3\n"},
        {[](CameraState& s) { Put(s.ev, "+3.0"); }, CameraNextEv, {F(0x02, 0x2e, "07")},
         "Camera set next EV\nCamera set EV -3.0\n"},
        {[](CameraState& s) { Put(s.wb, "neon"), s.wb_temp = 5600; }, CameraNextWhiteBalance, {F(0x02, 0x2c, "06 38")},
         "Camera set next WB\nCamera set WB custom\nCamera set WB temperature 5600\n\n"},  // the reported temperature
        {[](CameraState& s) { Put(s.wb, "neon"), s.wb_temp = 5600, s.wb_temp_set = 1800; }, CameraNextWhiteBalance, {},
         "Camera set next WB\nCamera set WB custom\nCamera set WB temperature 1800\n\n"},  // the commanded one, too low
        {[](CameraState& s) { Put(s.wb, "auto"); }, CameraNextWhiteBalance, {F(0x02, 0x2c, "01 30")},
         "Camera set next WB\nCamera set WB sunny\n"},
        {[](CameraState& s) { Put(s.wb, "custom"); }, CameraNextWhiteBalance, {F(0x02, 0x2c, "00 44")},
         "Camera set next WB\nCamera set WB auto\n"},
        {[](CameraState& s) { Put(s.color_mode, "vivid"); }, CameraNextColor, {F(0x02, 0x42, "34")},
         "Camera set next color mode\nSet color d-clike\n"},
        {[](CameraState& s) { Put(s.color_mode, "d-clike"); }, CameraNextColor, {F(0x02, 0x42, "00")},
         "Camera set next color mode\nSet color none\n"},
    };
    for (const auto& c : cases) {
        SetUp();
        {
            CameraStateGuard lock(camera_state_lock);
            c.report(State());
        }
        std::string log;
        EXPECT_EQ(Run(c.step, &log), c.frames) << c.log;
        EXPECT_EQ(log, c.log);
    }
}

// Every step ends in a setting command that takes the entry ("0" is automatic ISO); codes no command word names.
TEST(ValueTables, EveryNameTableEntryIsAcceptedByItsSettingTable)
{
    for (const char* name : ExposureModeNames)
        EXPECT_NE(SettingCodeOf(ExposureModeCodes, name), kSendNothing) << name;
    for (const char* name : ShutterNames)
        EXPECT_NE(FindShutterCode(name), nullptr) << name;
    for (size_t i = 0; i < IsoNames.size(); ++i)
        EXPECT_EQ(IsoCodeOf(strtol(IsoNames[i], nullptr, 10)) == kIsoCodeOther, i == 0) << IsoNames[i];
    for (size_t i = 0; i < EvNames.size(); ++i) {
        const EvCode* row = FindEvCode(strtod(EvNames[i], nullptr));
        EXPECT_TRUE(row != nullptr && row->code == i + 7) << EvNames[i];
    }
    for (const char* name : WhiteBalanceNames)
        EXPECT_NE(FindWhiteBalanceCode(name), nullptr) << name;
    EXPECT_EQ(SettingCodeOf(ColorModeCodes, ColorModeNames[0]), 0x00);
    EXPECT_EQ(SettingCodeOf(ColorModeCodes, ColorModeNames[1]), 0x34);
    EXPECT_TRUE(VideoResolutionCodeOf(1080, 1920) == 0 && FrameRateCodeOf(200) == 19 && FrameRateCodeOf(29) == 0);
}

// Steps keep no memory of their own; a custom white balance remembers the commanded temperature, even one not
// sent; the orientation lock is remembered, not sent.
TEST_F(Commands, WhatCommandsRemember)
{
    {
        CameraStateGuard lock(camera_state_lock);
        Put(State().iso_set, "200");
    }
    EXPECT_EQ(Run(CameraNextIso), Frames{F(0x02, 0x2a, "05")});
    EXPECT_EQ(Run(CameraNextIso), Frames{F(0x02, 0x2a, "05")}) << "no report came in between";
    const struct { const char* mode; const char* kelvin; float stored; } wb[] = {
        {"sunny", "7000", 0}, {"custom", "1800", 1800}, {"custom", nullptr, 1800}, {"custom", "6500", 6500}};
    for (const auto& c : wb) {
        Run([&] { CameraSetWhiteBalance(c.mode, c.kelvin); });
        EXPECT_EQ(State().wb_temp_set, c.stored) << c.mode << " " << (c.kelvin ? c.kelvin : "null");
    }
    for (const auto& lock : std::vector<std::pair<const char*, int>>{{"lock", 1}, {"LOCK", 1}, {"unlock", 0}}) {
        EXPECT_TRUE(Run([&] { GimbalSetOrientationLock(lock.first); }).empty());
        EXPECT_EQ(State().gimbal_lock_requested, lock.second) << lock.first;
    }
}

// Payload order a, c, b as 16-bit values: saturated to 32 bits, then the low 16 bits.
TEST_F(Commands, GimbalRealsAreTruncatedAndSaturated)
{
    const struct { std::function<void()> command; Frames frames; } cases[] = {
        {[] { GimbalSetSpeed(0.0015, 0, 0); }, {F(0x04, 0x0c, "01 00 00 00 00 00 90")}},
        {[] { GimbalSetSpeed(-0.0015, 0, 0); }, {F(0x04, 0x0c, "ff ff 00 00 00 00 90")}},
        {[] { GimbalSetSpeed(1e9, -1e9, 65.5); }, {F(0x04, 0x0c, "ff ff dc ff 00 00 90")}},
        {[] { GimbalSetSpeedRaw(-1, 65537, 0x12345678); }, {F(0x04, 0x0c, "ff ff 78 56 01 00 90")}},
        {[] { GimbalSetAngle(0, 0, -1); }, {F(0x04, 0x0a, "00 00 3e fe 00 00 64 00 e0 04")}},
        {[] { GimbalSetAngle(std::nan(""), INFINITY, -INFINITY); }, {F(0x04, 0x0a, "00 00 00 00 ff ff 64 00 e0 04")}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Run(c.command), c.frames) << c.frames[0];
    EXPECT_EQ(SaturateToInt32(-2.9), -2);
    EXPECT_EQ(SaturateToInt32(2147483647.5), INT32_MAX);
    EXPECT_EQ(SaturateToInt32(-2147483648.9), INT32_MIN);
}

// The interpreter's control values, with the buffer as command_endpoint hands it over.
TEST(AppCommands, MovementModeAndZoomRate)
{
    static uint8_t buffer[10000];
    auto deliver = [](const std::string& datagram) {
        memset(buffer, 0, sizeof buffer);
        memcpy(buffer, datagram.data(), datagram.size());
        HandleAppDatagram(buffer, static_cast<uint16_t>(datagram.size()), "127.0.0.1", 5000);
    };
    MovementMode.store(kMovementUnset);
    const struct { const char* value; int mode; } movement[] = {
        {R"("ABS"})", kMovementUnset}, {R"("abs"})", kMovementAbsolute}, {R"("sideways"})", kMovementAbsolute},
        {R"("rel"})", kMovementRelative}, {R"("abs")", kMovementRelative}};  // the last one malformed
    for (const auto& c : movement) {
        deliver(std::string(R"(!{"Cmd":"set","Name":"movement","value":)") + c.value);
        EXPECT_EQ(MovementMode.load(), c.mode) << c.value;
    }
    ZoomRate.store(0);
    const struct { std::string datagram; int rate; } rates[] = {  // the zero-filled buffer completes the last
        {"\x05\x01\xfe\xff"s, -2}, {"\x05\x02\x10\x00"s, -2}, {"\x05\x01\x00\x80"s, -32768},
        {"\x05\x01\xff\x7f"s, 32767}, {"\x05\x01"s, 0}};
    for (const auto& c : rates) {
        deliver(c.datagram);
        EXPECT_EQ(ZoomRate.load(), c.rate);
    }
}

// The longest datagram command_endpoint hands over is "!" and 9998 bytes of
// text. Its parse fits the fixed arena even when every other byte is a new
// JSON value, the densest text there is, and again for the next command.
TEST_F(Commands, LongestCommandsParseInTheFixedArena)
{
    static uint8_t buffer[10000];
    auto deliver = [](const std::string& text) {
        memset(buffer, 0, sizeof buffer);
        memcpy(buffer, ("!" + text).data(), text.size() + 1);
        HandleAppDatagram(buffer, static_cast<uint16_t>(text.size() + 1), "127.0.0.1", 5000);
    };
    auto dense = [](const std::string& before, const std::string& after) {
        std::string text = before + "[0";
        while (text.size() + 2 + 1 + after.size() <= 9998)
            text += ",0";
        return text + std::string(9998 - text.size() - 1 - after.size(), ' ') + "]" + after;
    };
    const std::string command = dense(R"({"cmd":"iso","param":"400","pad":)", "}");
    const std::string numbers = dense("", "");
    ASSERT_EQ(command.size(), 9998u);
    ASSERT_EQ(numbers.size(), 9998u);
    for (int round = 0; round < 2; ++round) {
        std::string log;
        EXPECT_EQ(Run([&] { deliver(command); }, &log).size(), 1u);
        EXPECT_EQ(log.find("Malformed"), std::string::npos);
        Run([&] { deliver(numbers); }, &log);
        EXPECT_EQ(log.find("Malformed"), std::string::npos);
        EXPECT_EQ(log.rfind("JSON commands from app: [0,0,", 0), 0u);
    }
}

}  // namespace
