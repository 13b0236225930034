// The value tables and the command templates: what the step commands walk is
// accepted by the setting commands, every shutter row reads back as its own
// text, number conversions at their edges, and every template's header.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "camera/crc.h"
#include "camera/frame.h"
#include "control/command_templates.h"
#include "control/value_tables.h"
#include "state/telemetry_decoder.h"

namespace {

TEST(ValueTables, NameTablesHaveTheirSizesAndEnds)
{
    EXPECT_EQ(ExposureModeNames.size(), 4u);
    ASSERT_EQ(ShutterNames.size(), 51u);
    EXPECT_STREQ(ShutterNames[0], "8\"");
    EXPECT_STREQ(ShutterNames[50], "1/8000");
    EXPECT_EQ(IsoNames.size(), 7u);
    EXPECT_STREQ(IsoNames[0], "0");
    EXPECT_STREQ(IsoNames[6], "3200");
    ASSERT_EQ(EvNames.size(), 19u);
    EXPECT_STREQ(EvNames[9], "0");
    EXPECT_EQ(WhiteBalanceNames.size(), 6u);
    EXPECT_STREQ(WhiteBalanceNames[5], "custom");
    EXPECT_EQ(ColorModeNames.size(), 2u);
    EXPECT_STREQ(ColorModeNames[1], "d-clike");
}

// Every step ends in a setting command that takes the entry.
TEST(ValueTables, EveryNameTableEntryIsAcceptedByItsSettingTable)
{
    for (const char* name : ExposureModeNames)
        EXPECT_NE(SettingCodeOf(ExposureModeCodes, name), kSendNothing) << name;
    for (const char* name : ShutterNames)
        EXPECT_NE(FindShutterCode(name), nullptr) << name;
    for (size_t i = 1; i < IsoNames.size(); ++i)
        EXPECT_NE(IsoCodeOf(strtol(IsoNames[i], nullptr, 10)), kIsoCodeOther) << IsoNames[i];
    EXPECT_EQ(IsoCodeOf(strtol(IsoNames[0], nullptr, 10)), kIsoCodeOther) << "\"0\" is automatic ISO";
    for (size_t i = 0; i < EvNames.size(); ++i) {
        const EvCode* row = FindEvCode(strtod(EvNames[i], nullptr));
        ASSERT_NE(row, nullptr) << EvNames[i];
        EXPECT_EQ(row->code, i + 7) << EvNames[i];
    }
    for (const char* name : WhiteBalanceNames)
        EXPECT_NE(FindWhiteBalanceCode(name), nullptr) << name;
    EXPECT_EQ(SettingCodeOf(ColorModeCodes, ColorModeNames[0]), 0x00);
    EXPECT_EQ(SettingCodeOf(ColorModeCodes, ColorModeNames[1]), 0x34);
}

// The decoder writes the shutter of a report by formula; each settable text
// must come back as itself, so that a step starts from the right entry.
TEST(ValueTables, EveryShutterRowReadsBackAsItsOwnText)
{
    for (const ShutterCode& row : ShutterValueTable) {
        uint32_t code = row.value | (static_cast<uint32_t>(row.decimal) << 16);
        char text[16] = {};
        ASSERT_TRUE(FormatShutterText(code, text, sizeof text)) << row.text;
        EXPECT_STREQ(text, row.text);
    }
    EXPECT_EQ(FindShutterCode("1/250"), nullptr);
    EXPECT_EQ(FindShutterCode(""), nullptr);
    EXPECT_EQ(FindShutterCode(nullptr), nullptr);
}

TEST(ValueTables, ReadBackOfEveryCode)
{
    for (unsigned code = 0; code < 256; ++code) {
        const char* iso = IsoReadBack(code);
        EXPECT_STREQ(iso, code >= 3 && code <= 9 ? std::to_string(100 << (code - 3)).c_str() : "auto") << code;
        const char* ev = EvReadBack(code);
        EXPECT_STREQ(ev, code >= 7 && code <= 25 ? EvNames[code - 7] : "0") << code;
        const char* program = SettingReadBack(ExposureModeCodes, code);
        EXPECT_STREQ(program, code >= 2 && code <= 4 ? ExposureModeNames[code - 1] : "auto") << code;
    }
    EXPECT_STREQ(WhiteBalanceReadBack(3), "custom");
    EXPECT_STREQ(WhiteBalanceReadBack(6), "custom");
    EXPECT_STREQ(WhiteBalanceReadBack(4), "incandescent");
    EXPECT_STREQ(SettingReadBack(ColorModeCodes, 52), "d-clike");
    EXPECT_STREQ(SettingReadBack(ColorModeCodes, 6), "d-cinelike");
    EXPECT_STREQ(SettingReadBack(ColorModeCodes, 2), "none");
    EXPECT_STREQ(SettingReadBack(FocusTypeCodes, 2), "") << "command codes are not focus report codes";
    EXPECT_STREQ(SettingReadBack(FocusTypeCodes, 0x86), "AFC");
    EXPECT_STREQ(FrameRateReadBack(7), "120");
    EXPECT_STREQ(FrameRateReadBack(8), "") << "240 fps is sent, not read back";
    EXPECT_STREQ(VideoResolutionReadBack(52), "2720x2040");
    EXPECT_EQ(SensorResolutionReadBack(5), 64);
    EXPECT_EQ(SensorResolutionReadBack(3), 0);
}

TEST(ValueTables, NumberConversions)
{
    // Exposure compensation compares the converted number.
    struct {
        const char* text;
        int code;  // -1: nothing sent
    } ev[] = {{"+0.3", 0x11}, {"0.3", 0x11}, {"0.30", 0x11}, {" 0.3e0", 0x11}, {"-0", 0x10}, {"junk", 0x10},
              {"0.5", -1},    {"0.33", -1},  {"3.1", -1},    {"-2.70", 8},      {"+3.0", 0x19}, {"-3", 7}};
    for (const auto& c : ev) {
        const EvCode* row = FindEvCode(strtod(c.text, nullptr));
        EXPECT_EQ(row == nullptr ? -1 : row->code, c.code) << c.text;
    }
    // Custom white balance: (K - 2000) / 100 + 20, truncated, low 8 bits; 1900 K or less sends nothing.
    struct {
        long kelvin;
        int byte;
    } wb[] = {{-5000, -1}, {0, -1},     {1900, -1},   {1901, 20},   {2000, 20},  {2099, 20},
              {2100, 21},  {5600, 56},  {6500, 65},   {10000, 100}, {25599, 255}, {25600, 0}, {25700, 1}};
    for (const auto& c : wb)
        EXPECT_EQ(WhiteBalanceTemperatureByte(c.kelvin), c.byte) << c.kelvin;
    // ISO compares whole numbers.
    EXPECT_EQ(IsoCodeOf(6400), 9);
    EXPECT_EQ(IsoCodeOf(12800), 0);
    EXPECT_EQ(IsoCodeOf(-100), 0);
    // Video: the two codes are independent, 0 for a value in no row.
    EXPECT_EQ(VideoResolutionCodeOf(1920, 1080), 10);
    EXPECT_EQ(VideoResolutionCodeOf(1080, 1920), 0);
    EXPECT_EQ(FrameRateCodeOf(29), 0);
    EXPECT_EQ(FrameRateCodeOf(200), 19);
}

TEST(ValueTables, ResolutionWordsMatchWholeWordsOnly)
{
    const VideoResolutionWord* row = FindVideoResolutionWord("1920x1080@120");
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->width, 1920);
    EXPECT_EQ(row->height, 1080);
    EXPECT_EQ(row->fps, 120);
    for (const char* word : {"1920x1080@12", "1920x1080@1200", "01920x1080@120", "1920x1080@100", "", "@"})
        EXPECT_EQ(FindVideoResolutionWord(word), nullptr) << word;
    EXPECT_EQ(FindVideoResolutionWord(nullptr), nullptr);
}

// Header bytes per length, receiver per command set: a template with a wrong
// header byte would go out unchanged and be dropped by the camera.
TEST(CommandTemplates, EveryTemplateHasAValidHeader)
{
    for (const CommandTemplate* image : kAllCommandTemplates) {
        const uint8_t* bytes = image->image;
        SCOPED_TRACE(testing::Message() << "set " << int(bytes[kFrameCommandSetOffset]) << " id "
                                        << int(bytes[kFrameCommandIdOffset]));
        ASSERT_GE(image->length, kFrameMinimumSize);
        ASSERT_LE(image->length, kCommandTemplateCapacity);
        EXPECT_EQ(bytes[0], kFrameStartByte);
        EXPECT_EQ(bytes[kFrameLengthOffset], image->length);
        EXPECT_EQ(bytes[kFrameVersionOffset], kFrameVersion);
        EXPECT_EQ(bytes[kFrameHeaderCrcOffset], Crc8(bytes, kFrameHeaderCrcOffset));
        bool gimbal = bytes[kFrameCommandSetOffset] == kGimbalCommandSet;
        EXPECT_EQ(bytes[kFrameReceiverOffset], gimbal ? kGimbalReceiver : kCameraReceiver);
        for (size_t i = image->length; i < kCommandTemplateCapacity; ++i)
            EXPECT_EQ(bytes[i], 0) << "byte " << i << " behind the frame";
    }
    for (const FrameHeaderCheck& row : kCommandFrameHeaders) {
        uint8_t header[3] = {kFrameStartByte, row.length, kFrameVersion};
        EXPECT_EQ(row.header_crc, Crc8(header, 3)) << "length " << int(row.length);
    }
}

// The stored playback frames carry a right header check byte for their length.
TEST(CommandTemplates, PlaybackFramesAreStoredComplete)
{
    for (const auto& stored : {std::pair<const uint8_t*, size_t>{kPlaybackPlayFrame, sizeof kPlaybackPlayFrame},
                               {kPlaybackPauseFrame, sizeof kPlaybackPauseFrame},
                               {kPlaybackResumeFrame, sizeof kPlaybackResumeFrame}}) {
        EXPECT_EQ(stored.first[kFrameLengthOffset], stored.second);
        EXPECT_EQ(stored.first[kFrameHeaderCrcOffset], Crc8(stored.first, kFrameHeaderCrcOffset));
    }
}

TEST(CommandTemplates, PayloadWritesStayInsideThePayload)
{
    CommandFrame frame = FrameFrom(kIsoTemplate);  // one payload byte
    CommandFrame before = frame;
    SetPayloadByte(&frame, 1, 0xee);
    SetPayloadLe16(&frame, 0, 0xeeee);
    SetPayloadFloat(&frame, 0, 1.0f);
    SetPayloadByte(&frame, static_cast<size_t>(-1), 0xee);
    EXPECT_EQ(memcmp(&frame, &before, sizeof frame), 0);
    SetPayloadByte(&frame, 0, 0x07);
    EXPECT_EQ(frame.bytes[kFramePayloadOffset], 0x07);
}

}  // namespace
