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

// Every look-up below is one walk over one table: FindRow (value_tables.h)
// with the column to match.

bool SameText(const char* a, const char* b)
{
    return a != nullptr && b != nullptr && strcmp(a, b) == 0;
}

const char* TextOrEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

int16_t SettingCodeOf(const SettingTable& table, const char* text)
{
    const SettingCode* row = FindRow(table.rows, table.rows + table.count,
                                     [&](const SettingCode& r) { return SameText(r.text, text); });
    return row != nullptr ? row->code : table.code_other;
}

const char* SettingReadBack(const SettingTable& table, unsigned code)
{
    const SettingCode* row = FindRow(table.rows, table.rows + table.count,
                                     [&](const SettingCode& r) { return r.read_back != nullptr && r.code == code; });
    return row != nullptr ? row->read_back : table.read_back_other;
}

int NameIndex(const char* const* names, size_t count, const char* text)
{
    const char* const* found = FindRow(names, names + count, [&](const char* name) { return SameText(name, text); });
    return found != nullptr ? static_cast<int>(found - names) : -1;
}

const ShutterCode* FindShutterCode(const char* text)
{
    return FindRow(ShutterValueTable, [&](const ShutterCode& r) { return SameText(r.text, text); });
}

uint8_t IsoCodeOf(long iso)
{
    const IsoCode* row = FindRow(IsoCodes, [&](const IsoCode& r) { return r.iso == iso; });
    return row != nullptr ? row->code : kIsoCodeOther;
}

const char* IsoReadBack(unsigned code)
{
    const IsoCode* row = FindRow(IsoCodes, [&](const IsoCode& r) { return r.code == code; });
    return row != nullptr ? row->text : kIsoReadBackOther;
}

const EvCode* FindEvCode(double value)
{
    return FindRow(EvCodes, [&](const EvCode& r) { return r.value == value; });
}

const char* EvReadBack(unsigned code)
{
    const EvCode* row = FindRow(EvCodes, [&](const EvCode& r) { return r.code == code; });
    return row != nullptr ? row->text : kEvReadBackOther;
}

int WhiteBalanceTemperatureByte(long kelvin)
{
    if (kelvin <= kWhiteBalanceMinimumKelvin)
        return -1;
    return static_cast<uint8_t>((kelvin - 2000) / 100 + 20);
}

const WhiteBalanceCode* FindWhiteBalanceCode(const char* text)
{
    return FindRow(WhiteBalanceCodes, [&](const WhiteBalanceCode& r) { return SameText(r.text, text); });
}

const char* WhiteBalanceReadBack(unsigned code)
{
    const WhiteBalanceCode* row =
        FindRow(WhiteBalanceCodes, [&](const WhiteBalanceCode& r) { return r.read_back_code == code; });
    return row != nullptr ? row->text : kWhiteBalanceReadBackOther;
}

uint8_t VideoResolutionCodeOf(long width, long height)
{
    const VideoResolutionCode* row = FindRow(
        VideoResolutionCodes, [&](const VideoResolutionCode& r) { return r.width == width && r.height == height; });
    return row != nullptr ? row->code : kVideoCodeOther;
}

uint8_t FrameRateCodeOf(long fps)
{
    const FrameRateCode* row = FindRow(FrameRateCodes, [&](const FrameRateCode& r) { return r.fps == fps; });
    return row != nullptr ? row->code : kVideoCodeOther;
}

const char* VideoResolutionReadBack(unsigned code)
{
    const VideoResolutionCode* row =
        FindRow(VideoResolutionCodes, [&](const VideoResolutionCode& r) { return r.code == code; });
    return row != nullptr ? row->text : kVideoReadBackOther;
}

const char* FrameRateReadBack(unsigned code)
{
    const FrameRateCode* row =
        FindRow(FrameRateCodes, [&](const FrameRateCode& r) { return r.code == code && r.text != nullptr; });
    return row != nullptr ? row->text : kVideoReadBackOther;
}

const VideoResolutionWord* FindVideoResolutionWord(const char* word)
{
    return FindRow(VideoResolutionWords, [&](const VideoResolutionWord& r) {
        // Longest word: "3840x2160@240" and a terminator.
        char text[24];
        snprintf(text, sizeof text, "%ux%u@%u", r.width, r.height, r.fps);
        return SameText(text, word);
    });
}

const SensorResolutionCode* FindSensorResolutionCode(const char* text)
{
    return FindRow(SensorResolutionCodes, [&](const SensorResolutionCode& r) { return SameText(r.text, text); });
}

uint8_t SensorResolutionReadBack(unsigned size_code)
{
    const SensorResolutionCode* row =
        FindRow(SensorResolutionCodes, [&](const SensorResolutionCode& r) { return r.size_code == size_code; });
    return row != nullptr ? row->megapixels : 0;
}

const GimbalModeCode* FindGimbalModeCode(const char* text)
{
    return FindRow(GimbalModeCodes, [&](const GimbalModeCode& r) { return SameText(r.text, text); });
}
