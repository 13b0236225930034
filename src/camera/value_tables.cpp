#include "camera/value_tables.h"

#include <cstdio>
#include <cstring>

// The telling rows of the shutter encoding, checked where they are built.
static_assert(ShutterRow("30\"").value == 0x001E && ShutterRow("30\"").decimal == 0, "30 s");
static_assert(ShutterRow("3.2\"").value == 0x0003 && ShutterRow("3.2\"").decimal == 2, "3.2 s");
static_assert(ShutterRow("1\"").value == 0x0001 && ShutterRow("1\"").decimal == 0, "1 s");
static_assert(ShutterRow("1/1.25").value == 0x8001 && ShutterRow("1/1.25").decimal == 25, "1/1.25");
static_assert(ShutterRow("1/1.67").value == 0x8001 && ShutterRow("1/1.67").decimal == 67, "1/1.67");
static_assert(ShutterRow("1/2.5").value == 0x8002 && ShutterRow("1/2.5").decimal == 5, "1/2.5");
static_assert(ShutterRow("1/12.5").value == 0x800C && ShutterRow("1/12.5").decimal == 5, "1/12.5");
static_assert(ShutterRow("1/240").value == 0x80F0 && ShutterRow("1/240").decimal == 0, "1/240");
static_assert(ShutterRow("1/320").value == 0x8140, "1/320");
static_assert(ShutterRow("1/8000").value == 0x9F40, "1/8000");
static_assert(ShutterNames.size() == 51, "51 stepped shutter texts");
static_assert(EvCodes[9].code == 0x10 && EvCodes[9].value == 0.0, "EV 0 is code 16");

namespace {

bool SameText(const char* a, const char* b)
{
    return a != nullptr && b != nullptr && strcmp(a, b) == 0;
}

}  // namespace

int16_t SettingCodeOf(const SettingTable& table, const char* text)
{
    for (size_t i = 0; i < table.count; ++i)
        if (SameText(table.rows[i].text, text))
            return table.rows[i].code;
    return table.code_other;
}

const char* SettingReadBack(const SettingTable& table, unsigned code)
{
    for (size_t i = 0; i < table.count; ++i)
        if (table.rows[i].read_back != nullptr && table.rows[i].code == code)
            return table.rows[i].read_back;
    return table.read_back_other;
}

int NameIndex(const char* const* names, size_t count, const char* text)
{
    for (size_t i = 0; i < count; ++i)
        if (SameText(names[i], text))
            return static_cast<int>(i);
    return -1;
}

const ShutterCode* FindShutterCode(const char* text)
{
    for (const ShutterCode& row : ShutterValueTable)
        if (SameText(row.text, text))
            return &row;
    return nullptr;
}

uint8_t IsoCodeOf(long iso)
{
    for (const IsoCode& row : IsoCodes)
        if (row.iso == iso)
            return row.code;
    return kIsoCodeOther;
}

const char* IsoReadBack(unsigned code)
{
    for (const IsoCode& row : IsoCodes)
        if (row.code == code)
            return row.text;
    return kIsoReadBackOther;
}

const EvCode* FindEvCode(double value)
{
    for (const EvCode& row : EvCodes)
        if (row.value == value)
            return &row;
    return nullptr;
}

const char* EvReadBack(unsigned code)
{
    for (const EvCode& row : EvCodes)
        if (row.code == code)
            return row.text;
    return kEvReadBackOther;
}

int WhiteBalanceTemperatureByte(long kelvin)
{
    if (kelvin <= kWhiteBalanceMinimumKelvin)
        return -1;
    return static_cast<uint8_t>((kelvin - 2000) / 100 + 20);
}

const WhiteBalanceCode* FindWhiteBalanceCode(const char* text)
{
    for (const WhiteBalanceCode& row : WhiteBalanceCodes)
        if (SameText(row.text, text))
            return &row;
    return nullptr;
}

const char* WhiteBalanceReadBack(unsigned code)
{
    for (const WhiteBalanceCode& row : WhiteBalanceCodes)
        if (row.read_back_code == code)
            return row.text;
    return kWhiteBalanceReadBackOther;
}

uint8_t VideoResolutionCodeOf(long width, long height)
{
    for (const VideoResolutionCode& row : VideoResolutionCodes)
        if (row.width == width && row.height == height)
            return row.code;
    return kVideoCodeOther;
}

uint8_t FrameRateCodeOf(long fps)
{
    for (const FrameRateCode& row : FrameRateCodes)
        if (row.fps == fps)
            return row.code;
    return kVideoCodeOther;
}

const char* VideoResolutionReadBack(unsigned code)
{
    for (const VideoResolutionCode& row : VideoResolutionCodes)
        if (row.code == code)
            return row.text;
    return kVideoReadBackOther;
}

const char* FrameRateReadBack(unsigned code)
{
    for (const FrameRateCode& row : FrameRateCodes)
        if (row.code == code && row.text != nullptr)
            return row.text;
    return kVideoReadBackOther;
}

const VideoResolutionWord* FindVideoResolutionWord(const char* word)
{
    if (word == nullptr)
        return nullptr;
    for (const VideoResolutionWord& row : VideoResolutionWords) {
        // Longest word: "3840x2160@240" and a terminator.
        char text[24];
        snprintf(text, sizeof text, "%ux%u@%u", row.width, row.height, row.fps);
        if (strcmp(text, word) == 0)
            return &row;
    }
    return nullptr;
}

const SensorResolutionCode* FindSensorResolutionCode(const char* text)
{
    for (const SensorResolutionCode& row : SensorResolutionCodes)
        if (SameText(row.text, text))
            return &row;
    return nullptr;
}

uint8_t SensorResolutionReadBack(unsigned size_code)
{
    for (const SensorResolutionCode& row : SensorResolutionCodes)
        if (row.size_code == size_code)
            return row.megapixels;
    return 0;
}

const GimbalModeCode* FindGimbalModeCode(const char* text)
{
    for (const GimbalModeCode& row : GimbalModeCodes)
        if (SameText(row.text, text))
            return &row;
    return nullptr;
}
