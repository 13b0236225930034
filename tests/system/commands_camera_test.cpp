// Camera and gimbal commands through the real daemon: capture and mode,
// gimbal moves and their number conversions, focus and metering, tracking,
// zoom, card, reset, histogram and playback, each to the exact frames the
// camera receives and the log lines written. Commands that depend on the
// camera's state (zoom limit, gimbal facing) are driven by reports the
// fake camera sends.
#include <gtest/gtest.h>

#include "state/report_layout.h"
#include "support/command_peers.h"
#include "support/isolation.h"

namespace {

using Case = CommandCase;

std::string Json(const JsonMembers& members) { return JsonCommand(members); }

std::string F(uint8_t command_set, uint8_t command_id, const std::string& payload, uint8_t sender = 0x02,
              uint8_t type = 0x40)
{
    return ExpectedFrameHex(command_set, command_id, payload, sender, type);
}

std::string Cmd(const char* cmd, const char* param) { return Json({{"cmd", cmd}, {"param", param}}); }

std::string Values(const char* cmd, const char* param, std::vector<std::string> values)
{
    JsonMembers members = {{"cmd", cmd}, {"param", param}};
    const char* keys[] = {"value", "value2", "value3", "value4"};
    for (size_t i = 0; i < values.size() && i < 4; ++i)
        members.push_back({keys[i], values[i]});
    return Json(members);
}

constexpr size_t kStateAttitude0 = 3;  // state message: gimbal_attitude[0], i16
constexpr size_t kStateZoomMax = 36;   // state message: zoom_max, u16

class CameraCommandsTest : public CommandRigTest {
protected:
    // Reports a gimbal attitude and waits until the daemon shows it.
    void ReportAttitude(int16_t angle0)
    {
        CameraReportValues values;
        values.angle0 = angle0;
        rig.SendReports({CameraReport(CameraReportKind::kGimbalAttitude, values)});
        ASSERT_FALSE(rig.app.Binary(0, 5000, [angle0](const Bytes& m) {
            return m.size() > kStateAttitude0 + 1 && static_cast<int16_t>(ReadLe16(m.data() + kStateAttitude0)) == angle0;
        }).empty()) << "attitude " << angle0;
    }
};

TEST_F(CameraCommandsTest, CaptureAndMode)
{
    Check({
        {Cmd("record", "start"), {F(0x02, 0x02, "01")}, "Record start\n"},
        {Cmd("record", "stop"), {F(0x02, 0x02, "00")}, "Record stop\n"},
        {Cmd("record", "pause"), {}, ""},
        {Json({{"cmd", "record"}}), {}, ""},
        {Json({{"cmd", "shot"}}), {F(0x02, 0x01, "01")}, "Camera shot\n"},
        {Cmd("shot", "anything"), {F(0x02, 0x01, "01")}, "Camera shot\n"},
        {Values("camera", "mode", {"photo"}), {F(0x02, 0x10, "00", 0x09)}, "Camera set mode photo\n"},
        {Values("camera", "mode", {"video"}), {F(0x02, 0x10, "01", 0x09)}, "Camera set mode video\n"},
        {Values("camera", "mode", {"playback"}),
         {F(0x02, 0x10, "07"),
          F(0x00, 0x26, "4a 00 1b 10 13 00 00 00 00 00 01 00 00 00 64 00 0d 01 00 ff ff ff ff ff ff ff ff")},
         "Camera set playback mode\n"},
        {Values("camera", "mode", {"Photo"}), {}, ""},
        {Cmd("camera", "mode"), {}, ""},
    });
}

TEST_F(CameraCommandsTest, GimbalMovesAndConversions)
{
    // Payload order: first, third, second value; then the fixed tail.
    Check({
        {Values("position", "abs", {"100", "-200", "300"}), {F(0x04, 0x0a, "64 00 2c 01 38 ff 64 00 e0 04")}, ""},
        {Values("position", "abs", {"70000", " 7", "junk"}), {F(0x04, 0x0a, "70 11 00 00 07 00 64 00 e0 04")}, ""},
        {Values("position", "abs", {"1", "2"}), {}, ""},
        {Values("position", "abs_norm", {"-0.5", "0.5", "1.0"}), {F(0x04, 0x0a, "2c 01 c2 01 c2 01 64 00 e0 04")}, ""},
        {Values("position", "abs_norm", {"0.1", "-0.1", "0"}), {F(0x04, 0x0a, "10 ff 00 00 6a ff 64 00 e0 04")}, ""},
        // Saturation at the 32-bit limits, then the low 16 bits: 7fffffff and 80000000.
        {Values("position", "abs_norm", {"-1e12", "-1e12", "nan"}),
         {F(0x04, 0x0a, "ff ff 00 00 00 00 64 00 e0 04")}, ""},
        {Values("position", "abs_norm", {"1", "2"}), {}, ""},
        {Cmd("orientation", "lock"), {}, "Gimbal orientation lock\n"},
        {Cmd("orientation", "unlock"), {}, "Gimbal orientation unlock\n"},
        {Cmd("orientation", "Lock"), {}, ""},
        {Values("gimbal", "mode", {"tiltlocked"}), {F(0x04, 0x4c, "02 00"), F(0x04, 0x50, "00 04 01 01")},
         "Gimbal set mode tiltlocked\n"},
        {Values("gimbal", "mode", {"fpv"}), {F(0x04, 0x4c, "01 00"), F(0x04, 0x50, "00 04 01 00")},
         "Gimbal set mode fpv\n"},
        {Values("gimbal", "mode", {"follow"}), {F(0x04, 0x4c, "02 00"), F(0x04, 0x50, "00 04 01 00")},
         "Gimbal set mode follow\n"},
        {Values("gimbal", "mode", {"FPV"}), {}, "Gimbal set mode FPV\n"},
        {Values("gimbal", "follow", {"slow"}), {F(0x04, 0x50, "00 05 01 02")}, "Gimbal set follow mode slow\n"},
        {Values("gimbal", "follow", {"fast"}), {F(0x04, 0x50, "00 05 01 00")}, "Gimbal set follow mode fast\n"},
        {Values("gimbal", "follow", {"medium"}), {F(0x04, 0x50, "00 05 01 00")}, "Gimbal set follow mode medium\n"},
        {Cmd("horizont", "calibrate"),
         {F(0x04, 0x07, "00"), F(0x04, 0x01, "00 04 00 04 00 04 80 00", 0x09, 0x20), F(0x04, 0x08, "")},
         "Gimbal full calibrate\n"},
        {Cmd("horizont", "Calibrate"), {}, ""},
    });
}

TEST_F(CameraCommandsTest, GimbalPositionFollowsTheReportedFacing)
{
    const std::string kCentre = F(0x04, 0x4c, "fe 08");
    const std::string kNext = F(0x04, 0x4c, "fe 09");
    const std::string kNormalLog = "Gimbal set center position\n";
    const std::string kSelfieLog = "Gimbal set selfie position\n";
    // Before any report the attitude is 0: facing forward.
    Check({
        {Cmd("position", "normal"), {kCentre}, kNormalLog + "Gimbal set center position\n"},
        {Cmd("position", "selfie"), {kNext}, kSelfieLog + "Gimbal set next position\n"},
        {Cmd("position", "Normal"), {}, ""},
    });
    // Flipped exactly for -2299 .. -1301: the boundaries either side.
    for (int16_t angle : {-2299, -1301, -2300, -1300}) {
        bool flipped = angle > -2300 && angle < -1300;
        ReportAttitude(angle);
        Check({{Cmd("position", "normal"), {flipped ? kNext : kCentre},
                kNormalLog + (flipped ? "Gimbal set next position\n" : "Gimbal set center position\n")},
               {Cmd("position", "selfie"), {flipped ? kCentre : kNext},
                kSelfieLog + (flipped ? "Gimbal set center position\n" : "Gimbal set next position\n")}});
    }
}

TEST_F(CameraCommandsTest, FocusAndMetering)
{
    Check({
        {Values("focus", "type", {"afc"}), {F(0x02, 0x24, "02")}, "Camera set focus type afc\n"},
        {Values("focus", "type", {"afs"}), {F(0x02, 0x24, "01")}, "Camera set focus type afs\n"},
        {Values("focus", "type", {"mf"}), {}, "Camera set focus type mf\n"},
        // 0.25 and 0.75 as IEEE-754 singles, little-endian.
        {Values("focus", "point", {"0.25", "0.75"}), {F(0x02, 0x30, "00 00 80 3e 00 00 40 3f")},
         "Camera set focus point 0.250000,0.750000\n"},
        {Values("focus", "point", {"0.25"}), {}, ""},
        {Values("exposure", "point", {"12"}), {F(0x02, 0x68, "00"), F(0x02, 0x32, "0c")},
         "Set auto exposure unlocked\nSet exposure point 12 (0x0c)\n"},
        {Values("exposure", "point", {"300"}), {F(0x02, 0x68, "00"), F(0x02, 0x32, "2c")},
         "Set auto exposure unlocked\nSet exposure point 300 (0x12c)\n"},
        {Cmd("exposure", "point"), {}, ""},
        {Cmd("exposure", "center"), {F(0x02, 0x68, "00"), F(0x02, 0x22, "00")},
         "Set auto exposure unlocked\nSet exposure to center\n"},
        {Values("exposure", "auto", {"lock"}), {F(0x02, 0x68, "01")}, "Set auto exposure locked\n"},
        {Values("exposure", "auto", {"unlock"}), {F(0x02, 0x68, "00")}, "Set auto exposure unlocked\n"},
        {Values("exposure", "auto", {"LOCK"}), {F(0x02, 0x68, "00")}, ""},
    });
}

TEST_F(CameraCommandsTest, Tracking)
{
    const std::string kStop = F(0x02, 0xa6, "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
    Check({
        {Cmd("tracking", "stop"), {kStop}, "Stop tracking\n"},
        // 0.1, 0.2, 0.3, 0.4 as IEEE-754 singles.
        {Values("tracking", "start", {"0.1", "0.2", "0.3", "0.4"}),
         {kStop, F(0x02, 0xa6, "01 00 00 0e 00 cd cc cc 3d cd cc 4c 3e 9a 99 99 3e cd cc cc 3e")},
         "Stop tracking\nStart tracking 0.1 0.2 0.3 0.4\n"},
        {Values("tracking", "start", {"0.1", "0.2", "0.3"}), {}, ""},
    });
}

TEST_F(CameraCommandsTest, DigitalZoomClampsToTheReportedLimit)
{
    auto zoom = [](const char* value) { return Values("dzoom", "set", {value}); };
    auto frame = [](const char* offset) { return F(0x02, 0x34, std::string("09 00 00 ") + offset); };
    // Before the camera has reported its range, no zoom is the only valid one.
    Check({
        {zoom("250"), {frame("00 00")}, "Set digital zoom 100\n"},
    });
    // Video at 1920x1080 allows 4x.
    CameraReportValues values;
    values.mode = 1;
    values.resolution_code = 10;
    rig.SendReports({CameraReport(CameraReportKind::kCameraInfo, values), CameraReport(CameraReportKind::kSettings, values)});
    ASSERT_FALSE(rig.app.Binary(0, 5000, [](const Bytes& m) {
        return m.size() > kStateZoomMax + 1 && ReadLe16(m.data() + kStateZoomMax) == 400;
    }).empty());
    Check({
        {zoom("250"), {frame("96 00")}, "Set digital zoom 250\n"},
        {zoom("1000"), {frame("2c 01")}, "Set digital zoom 400\n"},
        {zoom("-500"), {frame("00 00")}, "Set digital zoom 100\n"},
        {zoom("abc"), {frame("00 00")}, "Set digital zoom 100\n"},
        {Cmd("dzoom", "set"), {}, ""},
        {Json({{"cmd", "dzoom"}, {"param", "Set"}, {"value", "200"}}), {}, ""},
    });
}

TEST_F(CameraCommandsTest, CardResetHistogramAndPlayback)
{
    Check({
        {Cmd("format", "sd"), {F(0x02, 0x72, "")}, "Format microSD card\n"},
        {Cmd("format", "SD"), {}, ""},
        {Cmd("histogram", "1"), {F(0x02, 0x60, "01")}, ""},
        {Cmd("histogram", "0"), {F(0x02, 0x60, "00")}, ""},
        {Cmd("histogram", "on"), {}, ""},
        {Json({{"cmd", "resetcamera"}}), {F(0x02, 0x78, "00")}, ""},
        // Stored frames: every byte but sequence and CRC16 goes out as stored.
        {Cmd("playback", "play"), {F(0x02, 0x7b, "4a 00 64 00 00 00 00 00")}, ""},
        {Cmd("playback", "pause"), {F(0x02, 0x7a, "05 00 00 00 00")}, ""},
        {Cmd("playback", "resume"), {F(0x02, 0x7a, "01 00 00 00 00")}, ""},
        {Cmd("playback", "stop"), {}, ""},
    });
}

}  // namespace
