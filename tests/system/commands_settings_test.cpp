// Setting commands through the real daemon: each JSON command word and value
// to the exact frames the camera receives, and the log lines it writes.
// Expected frames are written from the camera's command set, id and payload
// bytes (ExpectedFrameHex), independently of the daemon's templates.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "support/command_peers.h"
#include "support/isolation.h"

namespace {

using Case = CommandCase;

std::string Json(const JsonMembers& members) { return JsonCommand(members); }
std::string F(uint8_t command_set, uint8_t command_id, const std::string& payload)
{
    return ExpectedFrameHex(command_set, command_id, payload);
}
// {"cmd":word,"param":param} sending the frame of command id `id` (none for an empty payload), logging "<log> <param>".
Case Word(const char* word, const char* param, uint8_t id, const char* payload, const std::string& log)
{
    return {Json({{"cmd", word}, {"param", param}}), payload[0] ? std::vector<std::string>{F(0x02, id, payload)}
                                                                  : std::vector<std::string>{},
            log.empty() ? "" : log + " " + param + "\n"};
}

using SettingCommandsTest = CommandRigTest;

TEST_F(SettingCommandsTest, ExposureProgramApertureIsoAndColour)
{
    const char* mode = "Camera set image mode";
    const char* iso = "Camera set iso";
    Check({
        Word("video_mode", "auto", 0x1e, "01 00", mode), Word("video_mode", "shutter", 0x1e, "02 00", mode),
        Word("video_mode", "aperture", 0x1e, "03 00", mode), Word("video_mode", "manual", 0x1e, "04 00", mode),
        Word("video_mode", "Manual", 0x1e, "", mode), {Json({{"cmd", "video_mode"}}), {}, ""},
        // Aperture: the number x 100, logged with two decimals.
        {Word("aperture", "2.8", 0x26, "18 01", "").json, {F(0x02, 0x26, "18 01")}, "Camera set aperture 2.80\n"},
        {Word("aperture", " 11", 0x26, "", "").json, {F(0x02, 0x26, "4c 04")}, "Camera set aperture 11.00\n"},
        {Word("aperture", "f/2.8", 0x26, "", "").json, {F(0x02, 0x26, "00 00")}, "Camera set aperture 0.00\n"},
        {Word("aperture", "700", 0x26, "", "").json, {F(0x02, 0x26, "70 11")}, "Camera set aperture 700.00\n"},
        // ISO: whole numbers, logged as converted; no row, automatic.
        Word("iso", "100", 0x2a, "03", iso), Word("iso", "200", 0x2a, "04", iso), Word("iso", "400", 0x2a, "05", iso),
        Word("iso", "800", 0x2a, "06", iso), Word("iso", "1600", 0x2a, "07", iso), Word("iso", "3200", 0x2a, "08", iso),
        Word("iso", "6400", 0x2a, "09", iso), Word("iso", "12800", 0x2a, "00", iso), Word("iso", "0", 0x2a, "00", iso),
        {Word("iso", "auto", 0x2a, "", "").json, {F(0x02, 0x2a, "00")}, "Camera set iso 0\n"},
        {Word("iso", "400abc", 0x2a, "", "").json, {F(0x02, 0x2a, "05")}, "Camera set iso 400\n"},
        {Word("iso", "0x64", 0x2a, "", "").json, {F(0x02, 0x2a, "00")}, "Camera set iso 0\n"},
        // Colour: d-clike or none.
        Word("color", "d-clike", 0x42, "34", "Set color"), Word("color", "none", 0x42, "00", "Set color"),
        Word("color", "D-CLIKE", 0x42, "00", "Set color"), Word("color", "d-cinelike", 0x42, "00", "Set color"),
    });
}

TEST_F(SettingCommandsTest, EveryShutterText)
{
    // Payload 01, value (whole number, bit 15 for 1/x), decimal digits.
    const std::pair<const char*, const char*> rows[] = {
        {"30\"", "01 1e 00 00"}, {"25\"", "01 19 00 00"}, {"20\"", "01 14 00 00"}, {"15\"", "01 0f 00 00"},
        {"10\"", "01 0a 00 00"}, {"9\"", "01 09 00 00"}, {"8\"", "01 08 00 00"}, {"7\"", "01 07 00 00"},
        {"6\"", "01 06 00 00"}, {"5\"", "01 05 00 00"}, {"4\"", "01 04 00 00"}, {"3.2\"", "01 03 00 02"},
        {"3\"", "01 03 00 00"}, {"2.5\"", "01 02 00 05"}, {"2\"", "01 02 00 00"}, {"1.6\"", "01 01 00 06"},
        {"1.3\"", "01 01 00 03"}, {"1\"", "01 01 00 00"}, {"1/1.25", "01 01 80 19"}, {"1/1.67", "01 01 80 43"},
        {"1/2", "01 02 80 00"}, {"1/2.5", "01 02 80 05"}, {"1/3", "01 03 80 00"}, {"1/4", "01 04 80 00"},
        {"1/5", "01 05 80 00"}, {"1/6.25", "01 06 80 19"}, {"1/8", "01 08 80 00"}, {"1/10", "01 0a 80 00"},
        {"1/12.5", "01 0c 80 05"}, {"1/15", "01 0f 80 00"}, {"1/20", "01 14 80 00"}, {"1/25", "01 19 80 00"},
        {"1/30", "01 1e 80 00"}, {"1/40", "01 28 80 00"}, {"1/50", "01 32 80 00"}, {"1/60", "01 3c 80 00"},
        {"1/80", "01 50 80 00"}, {"1/100", "01 64 80 00"}, {"1/120", "01 78 80 00"}, {"1/160", "01 a0 80 00"},
        {"1/200", "01 c8 80 00"}, {"1/240", "01 f0 80 00"}, {"1/320", "01 40 81 00"}, {"1/400", "01 90 81 00"},
        {"1/500", "01 f4 81 00"}, {"1/640", "01 80 82 00"}, {"1/800", "01 20 83 00"}, {"1/1000", "01 e8 83 00"},
        {"1/1250", "01 e2 84 00"}, {"1/1600", "01 40 86 00"}, {"1/2000", "01 d0 87 00"}, {"1/2500", "01 c4 89 00"},
        {"1/3200", "01 80 8c 00"}, {"1/4000", "01 a0 8f 00"}, {"1/5000", "01 88 93 00"}, {"1/6400", "01 00 99 00"},
        {"1/8000", "01 40 9f 00"},
        // In no row: still sent, with value and decimal 0.
        {"1/250", "01 00 00 00"}, {"", "01 00 00 00"}, {"1/8000 ", "01 00 00 00"}, {"8", "01 00 00 00"},
    };
    std::vector<Case> cases;
    for (const auto& row : rows)
        cases.push_back({Json({{"cmd", "shutter"}, {"param", row.first}}), {F(0x02, 0x28, row.second)},
                         std::string("Camera set shutter ") + row.first + "\n"});
    Check(cases);
}

TEST_F(SettingCommandsTest, EveryExposureCompensation)
{
    const char* names[] = {"-3.0", "-2.7", "-2.3", "-2.0", "-1.7", "-1.3", "-1.0", "-0.7", "-0.3", "0",
                           "+0.3", "+0.7", "+1.0", "+1.3", "+1.7", "+2.0", "+2.3", "+2.7", "+3.0"};
    std::vector<Case> cases;
    for (int i = 0; i < 19; ++i) {
        char code[4], log[64];
        snprintf(code, sizeof code, "%02x", 7 + i);
        snprintf(log, sizeof log, "Camera set EV %1.1f\n", strtod(names[i], nullptr));
        cases.push_back({Json({{"cmd", "ev"}, {"param", names[i]}}), {F(0x02, 0x2e, code)}, log});
    }
    // The text is converted before the comparison.
    cases.push_back({Json({{"cmd", "ev"}, {"param", "0.3"}}), {F(0x02, 0x2e, "11")}, "Camera set EV 0.3\n"});
    cases.push_back({Json({{"cmd", "ev"}, {"param", "0.30"}}), {F(0x02, 0x2e, "11")}, "Camera set EV 0.3\n"});
    cases.push_back({Json({{"cmd", "ev"}, {"param", "-0"}}), {F(0x02, 0x2e, "10")}, "Camera set EV -0.0\n"});
    cases.push_back({Json({{"cmd", "ev"}, {"param", "zero"}}), {F(0x02, 0x2e, "10")}, "Camera set EV 0.0\n"});
    // No exact match: nothing is sent.
    cases.push_back({Json({{"cmd", "ev"}, {"param", "0.5"}}), {}, "Camera set EV 0.5\n"});
    cases.push_back({Json({{"cmd", "ev"}, {"param", "0.33"}}), {}, "Camera set EV 0.3\n"});
    cases.push_back({Json({{"cmd", "ev"}, {"param", "3.3"}}), {}, "Camera set EV 3.3\n"});
    Check(cases);
}

TEST_F(SettingCommandsTest, WhiteBalanceModesAndTemperatures)
{
    const char* wb = "Camera set WB";
    // Custom: (K - 2000) / 100 + 20, low 8 bits; 1900 K or less is logged, not sent.
    auto custom = [](const char* kelvin, const char* payload) {
        Case c = Word("wb", "custom", 0x2c, payload, "Camera set WB");
        c.json = Json({{"cmd", "wb"}, {"param", "custom"}, {"value", kelvin}});
        c.log += std::string("Camera set WB temperature ") + kelvin + "\n";
        return c;
    };
    Check({
        Word("wb", "auto", 0x2c, "00 44", wb), Word("wb", "sunny", 0x2c, "01 30", wb), Word("wb", "cloudy", 0x2c, "02 40", wb),
        Word("wb", "incandescent", 0x2c, "04 44", wb), Word("wb", "neon", 0x2c, "05 19", wb),
        {Json({{"cmd", "wb"}, {"param", "sunny"}, {"value", "6500"}}), {F(0x02, 0x2c, "01 30")}, "Camera set WB sunny\n"},
        custom("6500", "06 41"), custom("5600", "06 38"), custom("10000", "06 64"), custom("1901", "06 14"),
        custom("2099", "06 14"), custom("25700", "06 01"), custom("1900", ""), custom("1800", ""), custom("warm", ""),
        Word("wb", "custom", 0x2c, "", wb), Word("wb", "Sunny", 0x2c, "", wb), Word("wb", "fluorescent", 0x2c, "", wb),
    });
}

TEST_F(SettingCommandsTest, EveryVideoResolutionWord)
{
    const struct { const char* word; const char* codes; } words[] = {  // resolution code, frame-rate code
        {"3840x2160@60", "10 06"}, {"3840x2160@50", "10 05"}, {"3840x2160@48", "10 04"}, {"3840x2160@30", "10 03"},
        {"3840x2160@25", "10 02"}, {"3840x2160@24", "10 01"}, {"2720x1530@60", "1f 06"}, {"2720x1530@50", "1f 05"},
        {"2720x1530@48", "1f 04"}, {"2720x1530@30", "1f 03"}, {"2720x1530@25", "1f 02"}, {"2720x1530@24", "1f 01"},
        {"1920x1080@240", "0a 08"}, {"1920x1080@120", "0a 07"}, {"1920x1080@60", "0a 06"}, {"1920x1080@50", "0a 05"},
        {"1920x1080@48", "0a 04"}, {"1920x1080@30", "0a 03"}, {"1920x1080@25", "0a 02"}, {"1920x1080@24", "0a 01"},
        {"1280x720@60", "04 06"}, {"1280x720@50", "04 05"}, {"1280x720@48", "04 04"}, {"1280x720@30", "04 03"},
        {"1280x720@25", "04 02"}, {"1280x720@24", "04 01"},
    };
    std::vector<Case> cases;
    for (const auto& w : words)
        cases.push_back({Json({{"cmd", "video_resolution"}, {"param", w.word}}),
                         {F(0x02, 0x18, std::string(w.codes) + " 00 00 00"), F(0x02, 0xaf, w.codes)},
                         std::string("Camera set video resolution ") + w.word + "\n"});
    // Words that are not in the list send nothing, though the camera knows the numbers.
    for (const char* other : {"1920x1080@100", "4096x2160@24", "1920X1080@60", "1920x1080@60 ", "1920x1080", ""})
        cases.push_back({Json({{"cmd", "video_resolution"}, {"param", other}}), {}, ""});
    Check(cases);
}

TEST_F(SettingCommandsTest, PhotoFormatShotModeAntiFlickerAndVideoStandard)
{
    const char* ratio = "Camera set image aspect ratio";
    const char* sensor = "Camera set sensor resolution";
    const char* shot = "Camera set shot mode";
    const char* flicker = "Camera set anti-flicker";
    const char* standard = "Camera set video standard";
    Check({
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

}  // namespace
