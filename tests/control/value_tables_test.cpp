// The value tables and the command templates: what the step commands walk is
// accepted by the setting commands, number conversions at their edges, and
// every template's header. Words to frames are checked through the daemon.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "camera/crc.h"
#include "camera/frame.h"
#include "control/command_templates.h"
#include "control/value_tables.h"

namespace {

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

TEST(ValueTables, NumberConversionsAtTheirEdges)
{
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
    EXPECT_EQ(row->width + row->height + row->fps, 1920 + 1080 + 120);
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
