#include "camera/crc.h"

#include <array>

namespace {

// Tables for the reflected polynomials, built at compile time.
constexpr std::array<uint8_t, 256> MakeCrc8Table()
{
    std::array<uint8_t, 256> table{};
    for (int i = 0; i < 256; ++i) {
        uint8_t value = static_cast<uint8_t>(i);
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1) ? static_cast<uint8_t>((value >> 1) ^ 0x8c) : static_cast<uint8_t>(value >> 1);
        table[i] = value;
    }
    return table;
}

constexpr std::array<uint16_t, 256> MakeCrc16Table()
{
    std::array<uint16_t, 256> table{};
    for (int i = 0; i < 256; ++i) {
        uint16_t value = static_cast<uint16_t>(i);
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1) ? static_cast<uint16_t>((value >> 1) ^ 0x8408) : static_cast<uint16_t>(value >> 1);
        table[i] = value;
    }
    return table;
}

constexpr std::array<uint8_t, 256> kCrc8Table = MakeCrc8Table();
constexpr std::array<uint16_t, 256> kCrc16Table = MakeCrc16Table();

static_assert(kCrc8Table[1] == 0x5e && kCrc8Table[128] == 0x8c, "CRC-8 table (1-Wire)");
static_assert(kCrc16Table[1] == 0x1189 && kCrc16Table[128] == 0x8408, "CRC-16 table");

constexpr uint8_t kCrc8Initial = 0x77;
constexpr uint16_t kCrc16Initial = 0x3692;

}  // namespace

uint8_t Crc8(const uint8_t* bytes, size_t count)
{
    uint8_t value = kCrc8Initial;
    for (size_t i = 0; i < count; ++i)
        value = kCrc8Table[value ^ bytes[i]];
    return value;
}

uint16_t Crc16(const uint8_t* bytes, size_t count)
{
    uint16_t value = kCrc16Initial;
    for (size_t i = 0; i < count; ++i)
        value = static_cast<uint16_t>(kCrc16Table[(value ^ bytes[i]) & 0xff] ^ (value >> 8));
    return value;
}
