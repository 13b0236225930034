// The value tables and command templates where no daemon test reaches: every step-table entry is accepted by its
// setting table, codes of values that no command word names, and every template's header.
#include <gtest/gtest.h>

#include <cstdlib>

#include "camera/crc.h"
#include "camera/frame.h"
#include "control/command_templates.h"
#include "control/value_tables.h"

namespace {

// Every step ends in a setting command that takes the entry ("0" is automatic ISO).
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
    // Codes of the two video tables are independent; 200 fps has a code that no command word names.
    EXPECT_EQ(VideoResolutionCodeOf(1080, 1920), 0);
    EXPECT_EQ(FrameRateCodeOf(200), 19);
    EXPECT_EQ(FrameRateCodeOf(29), 0);
}

// A template with a wrong header byte would go out unchanged and be dropped by the camera.
TEST(CommandTemplates, EveryTemplateHasAValidHeader)
{
    for (const CommandTemplate* image : kAllCommandTemplates) {
        const uint8_t* bytes = image->image;
        bool gimbal = bytes[kFrameCommandSetOffset] == kGimbalCommandSet;
        EXPECT_TRUE(image->length >= kFrameMinimumSize && image->length <= kCommandTemplateCapacity &&
                    bytes[0] == kFrameStartByte && bytes[kFrameLengthOffset] == image->length &&
                    bytes[kFrameVersionOffset] == kFrameVersion &&
                    bytes[kFrameHeaderCrcOffset] == Crc8(bytes, kFrameHeaderCrcOffset) &&
                    bytes[kFrameReceiverOffset] == (gimbal ? kGimbalReceiver : kCameraReceiver))
            << "set " << int(bytes[kFrameCommandSetOffset]) << " id " << int(bytes[kFrameCommandIdOffset]);
    }
}

}  // namespace
