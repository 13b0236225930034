// Every command word family through the real daemon, to the exact frames the camera receives and the log lines
// written: capture, mode, card, playback, tracking, focus, metering, gimbal, zoom and every setting, with their number
// conversions and the cases that send nothing. Commands that depend on the camera's state (zoom limit, gimbal
// facing) are driven by reports from the fake camera. Expected frames are written from set, id and payload bytes.
#include <gtest/gtest.h>

#include "support/command_peers.h"
#include "sim/report_encoder.h"

namespace {

// {"cmd":words[0],"param":words[1],"value":words[2],"value2":...}
std::string J(const std::vector<std::string>& words)
{
    static const char* const keys[] = {"cmd", "param", "value", "value2", "value3", "value4"};
    JsonMembers members;
    for (size_t i = 0; i < words.size(); ++i)
        members.push_back({keys[i], words[i]});
    return JsonCommand(members);
}

std::string F(uint8_t command_set, uint8_t command_id, const std::string& payload, uint8_t sender = 0x02,
              uint8_t type = 0x40)
{
    return ExpectedFrameHex(command_set, command_id, payload, sender, type);
}

// One camera frame of `id` with `payload`; none for an empty payload.
std::vector<std::string> One(uint8_t id, const std::string& payload)
{
    return payload.empty() ? std::vector<std::string>{} : std::vector<std::string>{F(0x02, id, payload)};
}

// {"cmd":word,"param":param}: One(id, payload), the log "<log> <param>" ("" log: none).
CommandCase Word(const char* word, const char* param, uint8_t id, const std::string& payload, const std::string& log)
{
    return {J({word, param}), One(id, payload), log.empty() ? "" : log + " " + param + "\n"};
}

// Waits for a state message whose 16-bit field at `offset` is `value`.
bool StateShows(CommandRig& rig, size_t offset, int16_t value)
{
    auto shows = [&](const Bytes& m) { return int16_t(ReadLe16(m.data() + offset)) == value; };
    return !rig.app.Binary(0, 5000, shows).empty();
}

using CameraCommandsTest = CommandRigTest;

TEST_F(CameraCommandsTest, CaptureModeCardPlaybackAndTracking)
{
    const std::string stop = F(0x02, 0xa6, std::string(42, '0'));
    Check({
        {J({"record", "start"}), {F(0x02, 0x02, "01")}, "Record start\n"},
        {J({"record", "stop"}), {F(0x02, 0x02, "00")}, "Record stop\n"}, {J({"record", "pause"}), {}, ""},
        {J({"record"}), {}, ""}, {J({"shot"}), {F(0x02, 0x01, "01")}, "Camera shot\n"},
        {J({"shot", "anything"}), {F(0x02, 0x01, "01")}, "Camera shot\n"},
        {J({"camera", "mode", "photo"}), {F(0x02, 0x10, "00", 0x09)}, "Camera set mode photo\n"},
        {J({"camera", "mode", "video"}), {F(0x02, 0x10, "01", 0x09)}, "Camera set mode video\n"},
        {J({"camera", "mode", "playback"}),
         {F(0x02, 0x10, "07"), F(0x00, 0x26, "4a001b1013 0000000000 0100000064 000d0100 ffffffffffffffff")},
         "Camera set playback mode\n"},
        {J({"camera", "mode", "Photo"}), {}, ""}, {J({"camera", "mode"}), {}, ""},
        {J({"format", "sd"}), {F(0x02, 0x72, "")}, "Format microSD card\n"}, {J({"format", "SD"}), {}, ""},
        {J({"histogram", "1"}), {F(0x02, 0x60, "01")}, ""}, {J({"histogram", "0"}), {F(0x02, 0x60, "00")}, ""},
        {J({"histogram", "on"}), {}, ""}, {J({"resetcamera"}), {F(0x02, 0x78, "00")}, ""},
        // Stored frames: every byte but sequence and CRC16 goes out as stored.
        {J({"playback", "play"}), {F(0x02, 0x7b, "4a 00 64 00 00 00 00 00")}, ""},
        {J({"playback", "pause"}), {F(0x02, 0x7a, "05 00 00 00 00")}, ""},
        {J({"playback", "resume"}), {F(0x02, 0x7a, "01 00 00 00 00")}, ""}, {J({"playback", "stop"}), {}, ""},
        {J({"tracking", "stop"}), {stop}, "Stop tracking\n"},
        // 0.1, 0.2, 0.3, 0.4 as IEEE-754 singles; without value4 nothing is sent.
        {J({"tracking", "start", "0.1", "0.2", "0.3", "0.4"}),
         {stop, F(0x02, 0xa6, "01 00 00 0e 00 cd cc cc 3d cd cc 4c 3e 9a 99 99 3e cd cc cc 3e")},
         "Stop tracking\nStart tracking 0.1 0.2 0.3 0.4\n"},
        {J({"tracking", "start", "0.1", "0.2", "0.3"}), {}, ""},
    });
}

TEST_F(CameraCommandsTest, FocusMeteringAndZoomToTheReportedLimit)
{
    const std::string unlock = F(0x02, 0x68, "00"), unlocked = "Set auto exposure unlocked\n";
    auto zoom = [](const char* value, const char* offset, int shown) {
        return CommandCase{J({"dzoom", "set", value}), {F(0x02, 0x34, std::string("09 00 00 ") + offset)},
                           "Set digital zoom " + std::to_string(shown) + "\n"};
    };
    Check({
        {J({"focus", "type", "afc"}), {F(0x02, 0x24, "02")}, "Camera set focus type afc\n"},
        {J({"focus", "type", "afs"}), {F(0x02, 0x24, "01")}, "Camera set focus type afs\n"},
        {J({"focus", "type", "mf"}), {}, "Camera set focus type mf\n"},
        {J({"focus", "point", "0.25", "0.75"}), {F(0x02, 0x30, "00 00 80 3e 00 00 40 3f")},
         "Camera set focus point 0.250000,0.750000\n"},
        {J({"focus", "point", "0.25"}), {}, ""},
        {J({"exposure", "point", "12"}), {unlock, F(0x02, 0x32, "0c")}, unlocked + "Set exposure point 12 (0x0c)\n"},
        {J({"exposure", "point", "300"}), {unlock, F(0x02, 0x32, "2c")}, unlocked + "Set exposure point 300 (0x12c)\n"},
        {J({"exposure", "point"}), {}, ""},
        {J({"exposure", "center"}), {unlock, F(0x02, 0x22, "00")}, unlocked + "Set exposure to center\n"},
        {J({"exposure", "auto", "lock"}), {F(0x02, 0x68, "01")}, "Set auto exposure locked\n"},
        {J({"exposure", "auto", "unlock"}), {unlock}, unlocked}, {J({"exposure", "auto", "LOCK"}), {unlock}, ""},
        zoom("250", "00 00", 100),  // the camera has not reported its range: no zoom
    });
    CameraReportValues video;  // video at 1920x1080: up to 4x
    video.resolution_code = 10;
    rig.SendReports(
        {CameraReport(CameraReportKind::kCameraInfo, video), CameraReport(CameraReportKind::kSettings, video)});
    ASSERT_TRUE(StateShows(rig, 36, 400));
    Check({zoom("250", "96 00", 250), zoom("1000", "2c 01", 400), zoom("-500", "00 00", 100), zoom("abc", "00 00", 100),
           {J({"dzoom", "set"}), {}, ""}, {J({"dzoom", "Set", "200"}), {}, ""}});
}

// Payload order: first, third, second value, then the fixed tail; reals saturate to 32 bits, then the low 16 bits.
TEST_F(CameraCommandsTest, GimbalMovesModesAndFacing)
{
    const std::string centre = F(0x04, 0x4c, "fe 08"), next = F(0x04, 0x4c, "fe 09");
    Check({
        {J({"position", "abs", "100", "-200", "300"}), {F(0x04, 0x0a, "64 00 2c 01 38 ff 64 00 e0 04")}, ""},
        {J({"position", "abs", "70000", " 7", "junk"}), {F(0x04, 0x0a, "70 11 00 00 07 00 64 00 e0 04")}, ""},
        {J({"position", "abs", "1", "2"}), {}, ""}, {J({"position", "abs_norm", "1", "2"}), {}, ""},
        {J({"position", "abs_norm", "-0.5", "0.5", "1.0"}), {F(0x04, 0x0a, "2c 01 c2 01 c2 01 64 00 e0 04")}, ""},
        {J({"position", "abs_norm", "0.1", "-0.1", "0"}), {F(0x04, 0x0a, "10 ff 00 00 6a ff 64 00 e0 04")}, ""},
        {J({"position", "abs_norm", "-1e12", "-1e12", "nan"}), {F(0x04, 0x0a, "ff ff 00 00 00 00 64 00 e0 04")}, ""},
        {J({"orientation", "lock"}), {}, "Gimbal orientation lock\n"},
        {J({"orientation", "unlock"}), {}, "Gimbal orientation unlock\n"}, {J({"orientation", "Lock"}), {}, ""},
        {J({"gimbal", "mode", "tiltlocked"}), {F(0x04, 0x4c, "02 00"), F(0x04, 0x50, "00 04 01 01")},
         "Gimbal set mode tiltlocked\n"},
        {J({"gimbal", "mode", "fpv"}), {F(0x04, 0x4c, "01 00"), F(0x04, 0x50, "00 04 01 00")}, "Gimbal set mode fpv\n"},
        {J({"gimbal", "mode", "follow"}), {F(0x04, 0x4c, "02 00"), F(0x04, 0x50, "00 04 01 00")},
         "Gimbal set mode follow\n"},
        {J({"gimbal", "mode", "FPV"}), {}, "Gimbal set mode FPV\n"},
        {J({"gimbal", "follow", "slow"}), {F(0x04, 0x50, "00 05 01 02")}, "Gimbal set follow mode slow\n"},
        {J({"gimbal", "follow", "fast"}), {F(0x04, 0x50, "00 05 01 00")}, "Gimbal set follow mode fast\n"},
        {J({"gimbal", "follow", "medium"}), {F(0x04, 0x50, "00 05 01 00")}, "Gimbal set follow mode medium\n"},
        {J({"horizont", "calibrate"}),
         {F(0x04, 0x07, "00"), F(0x04, 0x01, "00 04 00 04 00 04 80 00", 0x09, 0x20), F(0x04, 0x08, "")},
         "Gimbal full calibrate\n"},
        {J({"horizont", "Calibrate"}), {}, ""}, {J({"position", "Normal"}), {}, ""},
    });
    // "normal" and "selfie" by the reported facing: flipped exactly for -2299 .. -1301 (0 before any report).
    for (int16_t angle : {0, -2299, -1301, -2300, -1300}) {
        if (angle != 0) {
            CameraReportValues values;
            values.angle0 = angle;
            rig.SendReports({CameraReport(CameraReportKind::kGimbalAttitude, values)});
            ASSERT_TRUE(StateShows(rig, 3, angle)) << angle;
        }
        bool flipped = angle > -2300 && angle < -1300;
        const char* to_centre = "Gimbal set center position\n";
        const char* to_next = "Gimbal set next position\n";
        Check({{J({"position", "normal"}), {flipped ? next : centre},
                std::string("Gimbal set center position\n") + (flipped ? to_next : to_centre)},
               {J({"position", "selfie"}), {flipped ? centre : next},
                std::string("Gimbal set selfie position\n") + (flipped ? to_centre : to_next)}});
    }
}

TEST_F(CameraCommandsTest, ExposureProgramApertureIsoColourAndPhotoSettings)
{
    const char *mode = "Camera set image mode", *iso = "Camera set iso", *ratio = "Camera set image aspect ratio",
               *sensor = "Camera set sensor resolution", *shot = "Camera set shot mode",
               *flicker = "Camera set anti-flicker", *standard = "Camera set video standard";
    auto logged = [](const char* word, const char* param, uint8_t id, const char* payload, const char* log) {
        return CommandCase{J({word, param}), {F(0x02, id, payload)}, log};
    };
    Check({
        Word("video_mode", "auto", 0x1e, "01 00", mode), Word("video_mode", "shutter", 0x1e, "02 00", mode),
        Word("video_mode", "aperture", 0x1e, "03 00", mode), Word("video_mode", "manual", 0x1e, "04 00", mode),
        Word("video_mode", "Manual", 0x1e, "", mode), {J({"video_mode"}), {}, ""},
        // Aperture: the number x 100, logged with two decimals.
        logged("aperture", "2.8", 0x26, "18 01", "Camera set aperture 2.80\n"),
        logged("aperture", " 11", 0x26, "4c 04", "Camera set aperture 11.00\n"),
        logged("aperture", "f/2.8", 0x26, "00 00", "Camera set aperture 0.00\n"),
        logged("aperture", "700", 0x26, "70 11", "Camera set aperture 700.00\n"),
        // ISO: whole numbers, logged as converted; in no row, automatic.
        Word("iso", "100", 0x2a, "03", iso), Word("iso", "200", 0x2a, "04", iso), Word("iso", "400", 0x2a, "05", iso),
        Word("iso", "800", 0x2a, "06", iso), Word("iso", "1600", 0x2a, "07", iso), Word("iso", "3200", 0x2a, "08", iso),
        Word("iso", "6400", 0x2a, "09", iso), Word("iso", "12800", 0x2a, "00", iso), Word("iso", "0", 0x2a, "00", iso),
        logged("iso", "auto", 0x2a, "00", "Camera set iso 0\n"),
        logged("iso", "0x64", 0x2a, "00", "Camera set iso 0\n"),
        logged("iso", "400abc", 0x2a, "05", "Camera set iso 400\n"),
        Word("color", "d-clike", 0x42, "34", "Set color"), Word("color", "none", 0x42, "00", "Set color"),
        Word("color", "D-CLIKE", 0x42, "00", "Set color"), Word("color", "d-cinelike", 0x42, "00", "Set color"),
        Word("video_aspect", "4:3", 0x12, "00 00", ratio), Word("video_aspect", "16:9", 0x12, "00 01", ratio),
        Word("video_aspect", "1:1", 0x12, "", ratio), Word("sensor_res", "16", 0x12, "04 01", sensor),
        Word("sensor_res", "64", 0x12, "05 01", sensor), Word("sensor_res", "12", 0x12, "", sensor),
        Word("shotmode", "raw", 0x16, "00", shot), Word("shotmode", "jpg", 0x16, "01", shot),
        Word("shotmode", "jpg+raw", 0x16, "02", shot), Word("shotmode", "JPG", 0x16, "", shot),
        Word("antiflicker", "50", 0x46, "01", flicker), Word("antiflicker", "60", 0x46, "02", flicker),
        Word("antiflicker", "auto", 0x46, "00", flicker), Word("video_std", "PAL", 0x66, "00", standard),
        Word("video_std", "NTSC", 0x66, "01", standard), Word("video_std", "pal", 0x66, "", standard),
    });
}

// Custom white balance: (K - 2000) / 100 + 20, low 8 bits; 1900 K or less is logged, not sent.
TEST_F(CameraCommandsTest, WhiteBalanceAndExposureCompensation)
{
    const char* wb = "Camera set WB";
    auto custom = [](const char* kelvin, const char* payload) {
        CommandCase c = Word("wb", "custom", 0x2c, payload, "Camera set WB");
        c.json = J({"wb", "custom", kelvin});
        c.log += std::string("Camera set WB temperature ") + kelvin + "\n";
        return c;
    };
    std::vector<CommandCase> cases = {
        Word("wb", "auto", 0x2c, "00 44", wb), Word("wb", "sunny", 0x2c, "01 30", wb),
        Word("wb", "cloudy", 0x2c, "02 40", wb), Word("wb", "incandescent", 0x2c, "04 44", wb),
        Word("wb", "neon", 0x2c, "05 19", wb),
        {J({"wb", "sunny", "6500"}), {F(0x02, 0x2c, "01 30")}, "Camera set WB sunny\n"},
        custom("6500", "06 41"), custom("5600", "06 38"), custom("10000", "06 64"), custom("1901", "06 14"),
        custom("2099", "06 14"), custom("25700", "06 01"), custom("1900", ""), custom("1800", ""), custom("warm", ""),
        Word("wb", "custom", 0x2c, "", wb), Word("wb", "Sunny", 0x2c, "", wb), Word("wb", "fluorescent", 0x2c, "", wb)};
    // EV: step texts from end to end (every one is checked in process), then texts converted before the exact
    // comparison; no match sends nothing.
    const struct { const char *text, *code, *shown; } ev[] = {
        {"-3.0", "07", "-3.0"}, {"-2.7", "08", "-2.7"}, {"-0.3", "0f", "-0.3"}, {"0", "10", "0.0"},
        {"+0.3", "11", "0.3"}, {"+1.7", "15", "1.7"}, {"+3.0", "19", "3.0"}, {"0.3", "11", "0.3"},
        {"0.30", "11", "0.3"}, {"-0", "10", "-0.0"}, {"zero", "10", "0.0"}, {"0.5", "", "0.5"}, {"0.33", "", "0.3"},
        {"3.3", "", "3.3"}};
    for (const auto& e : ev)
        cases.push_back({J({"ev", e.text}), One(0x2e, e.code), std::string("Camera set EV ") + e.shown + "\n"});
    Check(cases);
}

TEST_F(CameraCommandsTest, EveryShutterTextAndVideoResolutionWord)
{
    // Shutter payload: 01, value (whole number, bit 15 for 1/x), decimal digits; a text in no row sends zeros.
    const char* shutters[][2] = {
        {"30\"", "1e0000"}, {"25\"", "190000"}, {"20\"", "140000"}, {"15\"", "0f0000"}, {"10\"", "0a0000"},
        {"9\"", "090000"}, {"8\"", "080000"}, {"7\"", "070000"}, {"6\"", "060000"}, {"5\"", "050000"},
        {"4\"", "040000"}, {"3.2\"", "030002"}, {"3\"", "030000"}, {"2.5\"", "020005"}, {"2\"", "020000"},
        {"1.6\"", "010006"}, {"1.3\"", "010003"}, {"1\"", "010000"}, {"1/1.25", "018019"}, {"1/1.67", "018043"},
        {"1/2", "028000"}, {"1/2.5", "028005"}, {"1/3", "038000"}, {"1/4", "048000"}, {"1/5", "058000"},
        {"1/6.25", "068019"}, {"1/8", "088000"}, {"1/10", "0a8000"}, {"1/12.5", "0c8005"}, {"1/15", "0f8000"},
        {"1/20", "148000"}, {"1/25", "198000"}, {"1/30", "1e8000"}, {"1/40", "288000"}, {"1/50", "328000"},
        {"1/60", "3c8000"}, {"1/80", "508000"}, {"1/100", "648000"}, {"1/120", "788000"}, {"1/160", "a08000"},
        {"1/200", "c88000"}, {"1/240", "f08000"}, {"1/320", "408100"}, {"1/400", "908100"}, {"1/500", "f48100"},
        {"1/640", "808200"}, {"1/800", "208300"}, {"1/1000", "e88300"}, {"1/1250", "e28400"}, {"1/1600", "408600"},
        {"1/2000", "d08700"}, {"1/2500", "c48900"}, {"1/3200", "808c00"}, {"1/4000", "a08f00"}, {"1/5000", "889300"},
        {"1/6400", "009900"}, {"1/8000", "409f00"}, {"1/250", "000000"}, {"", "000000"}, {"1/8000 ", "000000"},
        {"8", "000000"}};
    std::vector<CommandCase> cases;
    for (const auto& s : shutters)
        cases.push_back(Word("shutter", s[0], 0x28, std::string("01 ") + s[1], "Camera set shutter"));
    // Resolution words: resolution code, then frame-rate code, in two frames.
    const char* words[][2] = {
        {"3840x2160@60", "10 06"}, {"3840x2160@50", "10 05"}, {"3840x2160@48", "10 04"}, {"3840x2160@30", "10 03"},
        {"3840x2160@25", "10 02"}, {"3840x2160@24", "10 01"}, {"2720x1530@60", "1f 06"}, {"2720x1530@50", "1f 05"},
        {"2720x1530@48", "1f 04"}, {"2720x1530@30", "1f 03"}, {"2720x1530@25", "1f 02"}, {"2720x1530@24", "1f 01"},
        {"1920x1080@240", "0a 08"}, {"1920x1080@120", "0a 07"}, {"1920x1080@60", "0a 06"}, {"1920x1080@50", "0a 05"},
        {"1920x1080@48", "0a 04"}, {"1920x1080@30", "0a 03"}, {"1920x1080@25", "0a 02"}, {"1920x1080@24", "0a 01"},
        {"1280x720@60", "04 06"}, {"1280x720@50", "04 05"}, {"1280x720@48", "04 04"}, {"1280x720@30", "04 03"},
        {"1280x720@25", "04 02"}, {"1280x720@24", "04 01"}};
    for (const auto& w : words)
        cases.push_back({J({"video_resolution", w[0]}),
                         {F(0x02, 0x18, w[1] + std::string("000000")), F(0x02, 0xaf, w[1])},
                         std::string("Camera set video resolution ") + w[0] + "\n"});
    // Words not in the list send nothing, though the camera knows the numbers.
    for (const char* other : {"1920x1080@100", "4096x2160@24", "1920x1080@12", "1920x1080@1200", "1920X1080@60",
                              "1920x1080@60 ", "1920x1080", ""})
        cases.push_back({J({"video_resolution", other}), {}, ""});
    Check(cases);
}

}  // namespace
