// Commands in process, against a camera socket on loopback: the step
// commands from the reported state, the zoom clamp, the gimbal conversions,
// the CameraState fields that commands write, and the control values of the
// JSON interpreter.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <string>

#include "camera/camera_link.h"
#include "control/app_commands.h"
#include "control/camera_commands.h"
#include "control/setting_commands.h"
#include "state/camera_state.h"
#include "support/command_peers.h"
#include "support/udp_peer.h"

namespace {

// The camera link of this process pointed at a socket of the test.
UdpPeer& Camera()
{
    static UdpPeer* camera = [] {
        UdpPeer* peer = new UdpPeer();
        CameraLinkSetAddress("127.0.0.1", peer->port());
        camera_link.endpoint.Open(0);
        return peer;
    }();
    return *camera;
}

class Commands : public ::testing::Test {
protected:
    void SetUp() override
    {
        Camera();
        while (!Camera().Receive(0).empty()) {
        }
        CameraStateGuard lock(camera_state_lock);
        memset(GetCameraState(), 0, sizeof(CameraState));
    }

    // Runs `command`; returns the frames it sent (masked hex) and its log.
    std::vector<std::string> Run(const std::function<void()>& command, std::string* log = nullptr)
    {
        testing::internal::CaptureStderr();
        command();
        std::string written = testing::internal::GetCapturedStderr();
        if (log != nullptr)
            *log = written;
        std::vector<std::string> frames;
        for (;;) {
            Bytes frame = CommandFrameIn(Camera().Receive(100));
            if (frame.empty())
                return frames;
            EXPECT_TRUE(FrameChecksumsGood(frame));
            frames.push_back(MaskedFrameHex(frame));
        }
    }

    static CameraState& State() { return *GetCameraState(); }
};

std::string F(uint8_t command_set, uint8_t command_id, const std::string& payload)
{
    return ExpectedFrameHex(command_set, command_id, payload);
}

void SetText(char* field, size_t capacity, const char* text)
{
    CameraStateGuard lock(camera_state_lock);
    snprintf(field, capacity, "%s", text);
}
#define SET_TEXT(field, text) SetText(GetCameraState()->field, sizeof GetCameraState()->field, text)

struct StepCase {
    const char* description;
    std::function<void()> prepare;
    void (*step)();
    std::vector<std::string> frames;
    std::string log;
};

// Steps from a reported value, and the wraps at both ends (steps from nothing reported: the remote-control test).
TEST_F(Commands, StepsStartFromTheReportedValue)
{
    const StepCase cases[] = {
        {"manual, next wraps", [] { SET_TEXT(image_mode, "manual"); }, CameraNextExposureMode,
         {F(0x02, 0x1e, "01 00")}, "Camera set next image mode\nCamera set image mode auto\n"},
        {"1/8000, next wraps", [] { SET_TEXT(shutter_set, "1/8000"); }, CameraNextShutter,
         {F(0x02, 0x28, "01 08 00 00")},
         "Camera set next shutter value\nnew shutter value = 8\"\nCamera set shutter 8\"\n"},
        {"1/8000, prev", [] { SET_TEXT(shutter_set, "1/8000"); }, CameraPrevShutter,
         {F(0x02, 0x28, "01 00 99 00")},
         "Camera set prev shutter value\nnew shutter value = 1/6400\nCamera set shutter 1/6400\n"},
        {"30 s is not stepped through", [] { SET_TEXT(shutter_set, "30\""); }, CameraNextShutter,
         {F(0x02, 0x28, "01 07 00 00")},
         "Camera set next shutter value\nnew shutter value = 7\"\nCamera set shutter 7\"\n"},
        {"iso auto, next", [] { SET_TEXT(iso_set, "auto"); }, CameraNextIso, {F(0x02, 0x2a, "03")},
         "Camera set next ISO\nCamera set iso 100\n"},
        {"iso 6400, next", [] { SET_TEXT(iso_set, "6400"); }, CameraNextIso, {F(0x02, 0x2a, "03")},
         "Camera set next ISO\nCamera set iso 100\n"},
        {"iso 3200, next wraps to automatic", [] { SET_TEXT(iso_set, "3200"); }, CameraNextIso,
         {F(0x02, 0x2a, "00")}, "Camera set next ISO\nCamera set iso 0\n"},
        {"ev 0, next", [] { SET_TEXT(ev, "0"); }, CameraNextEv, {F(0x02, 0x2e, "11")},
         "Camera set next EV\nCamera set EV 0.3\n"},
        {"ev +3.0, next wraps", [] { SET_TEXT(ev, "+3.0"); }, CameraNextEv, {F(0x02, 0x2e, "07")},
         "Camera set next EV\nCamera set EV -3.0\n"},
        {"wb neon, next: reported temperature", [] {
             SET_TEXT(wb, "neon");
             CameraStateGuard lock(camera_state_lock);
             GetCameraState()->wb_temp = 5600.0f;
         },
         CameraNextWhiteBalance, {F(0x02, 0x2c, "06 38")},
         "Camera set next WB\nCamera set WB custom\nCamera set WB temperature 5600\n\n"},
        {"wb neon, next: commanded temperature too low", [] {
             SET_TEXT(wb, "neon");
             CameraStateGuard lock(camera_state_lock);
             GetCameraState()->wb_temp = 5600.0f;
             GetCameraState()->wb_temp_set = 1800.0f;
         },
         CameraNextWhiteBalance, {}, "Camera set next WB\nCamera set WB custom\nCamera set WB temperature 1800\n\n"},
        {"wb auto, next", [] { SET_TEXT(wb, "auto"); }, CameraNextWhiteBalance, {F(0x02, 0x2c, "01 30")},
         "Camera set next WB\nCamera set WB sunny\n"},
        {"wb custom, next wraps", [] { SET_TEXT(wb, "custom"); }, CameraNextWhiteBalance, {F(0x02, 0x2c, "00 44")},
         "Camera set next WB\nCamera set WB auto\n"},
        {"color vivid, next", [] { SET_TEXT(color_mode, "vivid"); }, CameraNextColor, {F(0x02, 0x42, "34")},
         "Camera set next color mode\nSet color d-clike\n"},
        {"color d-clike, next", [] { SET_TEXT(color_mode, "d-clike"); }, CameraNextColor, {F(0x02, 0x42, "00")},
         "Camera set next color mode\nSet color none\n"},
    };
    for (const StepCase& c : cases) {
        SetUp();
        c.prepare();
        std::string log;
        EXPECT_EQ(Run(c.step, &log), c.frames) << c.description;
        EXPECT_EQ(log, c.log) << c.description;
    }
}

// Steps keep no memory of their own; a custom white balance remembers the commanded temperature.
TEST_F(Commands, StepsAndTheRememberedTemperature)
{
    SET_TEXT(iso_set, "200");
    EXPECT_EQ(Run(CameraNextIso), std::vector<std::string>{F(0x02, 0x2a, "05")});
    EXPECT_EQ(Run(CameraNextIso), std::vector<std::string>{F(0x02, 0x2a, "05")}) << "no report came in between";

    Run([] { CameraSetWhiteBalance("sunny", "7000"); });
    EXPECT_EQ(State().wb_temp_set, 0.0f) << "presets store nothing";
    Run([] { CameraSetWhiteBalance("custom", "1800"); });
    EXPECT_EQ(State().wb_temp_set, 1800.0f) << "stored though not sent";
    Run([] { CameraSetWhiteBalance("custom", nullptr); });
    EXPECT_EQ(State().wb_temp_set, 1800.0f);
    Run([] { CameraSetWhiteBalance("custom", "6500"); });
    EXPECT_EQ(State().wb_temp_set, 6500.0f);
}

TEST_F(Commands, DigitalZoomClampAndCommandedValue)
{
    // zoom_max 0: range not yet reported, no zoom; 50: a limit below 1x is none the camera offers.
    const struct { uint16_t zoom_max; int zoom, expected; const char* offset; } cases[] = {
        {0, 250, 100, "00 00"}, {50, 250, 100, "00 00"}, {400, 50, 100, "00 00"}, {400, 1000, 400, "2c 01"},
        {400, 250, 250, "96 00"}, {800, 800, 800, "bc 02"}, {800, std::numeric_limits<int>::min(), 100, "00 00"},
        {800, std::numeric_limits<int>::max(), 800, "bc 02"}};
    for (const auto& c : cases) {
        {
            CameraStateGuard lock(camera_state_lock);
            State().zoom_max = c.zoom_max, State().zoom_set = 0;
        }
        std::string log;
        int zoom = c.zoom;
        EXPECT_EQ(Run([zoom] { CameraSetDigitalZoom(zoom); }, &log),
                  std::vector<std::string>{F(0x02, 0x34, std::string("09 00 00 ") + c.offset)})
            << c.zoom_max << " " << c.zoom;
        EXPECT_EQ(log, "Set digital zoom " + std::to_string(c.expected) + "\n");
        EXPECT_EQ(State().zoom_set, c.expected);
    }
}

TEST_F(Commands, GimbalRealsAreTruncatedAndSaturated)
{
    const struct { std::function<void()> command; const char* payload; } cases[] = {
        {[] { GimbalSetSpeed(0.0015, 0, 0); }, "01 00 00 00 00 00 90"},
        {[] { GimbalSetSpeed(-0.0015, 0, 0); }, "ff ff 00 00 00 00 90"},
        {[] { GimbalSetSpeed(1e9, -1e9, 65.5); }, "ff ff dc ff 00 00 90"},
        {[] { GimbalSetSpeedRaw(1, 2, 3); }, "01 00 03 00 02 00 90"},
        {[] { GimbalSetSpeedRaw(-1, 65537, 0x12345678); }, "ff ff 78 56 01 00 90"},
        {[] { GimbalSetAngle(0, 0, -1); }, "00 00 3e fe 00 00 64 00 e0 04"},
        {[] { GimbalSetAngle(std::nan(""), INFINITY, -INFINITY); }, "00 00 00 00 ff ff 64 00 e0 04"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> frames = Run(c.command);
        ASSERT_EQ(frames.size(), 1u) << c.payload;
        EXPECT_NE(frames[0].find(c.payload), std::string::npos) << frames[0] << " / " << c.payload;
    }
    EXPECT_EQ(SaturateToInt32(-2.9), -2);
    EXPECT_EQ(SaturateToInt32(2147483647.5), INT32_MAX);
    EXPECT_EQ(SaturateToInt32(-2147483648.9), INT32_MIN);
}

// The orientation lock is remembered, not sent; record start is any non-zero; raw frames out of range are not sent.
TEST_F(Commands, LockRecordAndRawFrames)
{
    EXPECT_TRUE(Run([] { GimbalSetOrientationLock("lock"); }).empty());
    EXPECT_EQ(State().gimbal_lock_requested, 1);
    EXPECT_TRUE(Run([] { GimbalSetOrientationLock("LOCK"); }).empty());
    EXPECT_EQ(State().gimbal_lock_requested, 1);
    EXPECT_TRUE(Run([] { GimbalSetOrientationLock("unlock"); }).empty());
    EXPECT_EQ(State().gimbal_lock_requested, 0);

    EXPECT_EQ(Run([] { CameraRecord(2); }), std::vector<std::string>{F(0x02, 0x02, "01")});
    EXPECT_EQ(Run([] { CameraRecord(-1); }), std::vector<std::string>{F(0x02, 0x02, "01")});
    uint8_t frame[256] = {0x55};
    EXPECT_TRUE(Run([&] { SendRawCameraPacket(frame, 12); }).empty());
    EXPECT_TRUE(Run([&] { SendRawCameraPacket(frame, 256); }).empty());
    EXPECT_TRUE(Run([] { SendRawCameraPacket(nullptr, 20); }).empty());
}

// The interpreter's control values, with the buffer as command_endpoint hands it over.
TEST(AppCommands, MovementModeAndZoomRate)
{
    static uint8_t buffer[10000];
    auto deliver = [](const Bytes& datagram) {
        memset(buffer, 0, sizeof buffer);
        memcpy(buffer, datagram.data(), datagram.size());
        HandleAppDatagram(buffer, static_cast<uint16_t>(datagram.size()), "127.0.0.1", 5000);
    };
    auto json = [&](const std::string& text) {
        Bytes datagram = {'!'};
        datagram.insert(datagram.end(), text.begin(), text.end());
        deliver(datagram);
    };
    MovementMode.store(kMovementUnset);
    const struct { const char* value; int mode; } movement[] = {
        {R"("ABS"})", kMovementUnset}, {R"("abs"})", kMovementAbsolute}, {R"("sideways"})", kMovementAbsolute},
        {R"("rel"})", kMovementRelative}, {R"("abs")", kMovementRelative}};  // the last one malformed
    for (const auto& c : movement) {
        json(std::string(R"({"Cmd":"set","Name":"movement","value":)") + c.value);
        EXPECT_EQ(MovementMode.load(), c.mode) << c.value;
    }
    ZoomRate.store(0);
    const struct { Bytes datagram; int rate; } rates[] = {
        {{0x05, 0x01, 0xfe, 0xff}, -2}, {{0x05, 0x02, 0x10, 0x00}, -2}, {{0x05, 0x01, 0x00, 0x80}, -32768},
        {{0x05, 0x01, 0xff, 0x7f}, 32767}, {{0x05, 0x01}, 0}};  // the zero-filled buffer completes the last
    for (const auto& c : rates) {
        deliver(c.datagram);
        EXPECT_EQ(ZoomRate.load(), c.rate);
    }
}

}  // namespace
