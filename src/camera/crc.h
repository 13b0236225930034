#pragma once
#include <cstddef>
#include <cstdint>

// Reflected CRC-8, polynomial 0x31, initial value 0x77, no final XOR: the
// header checksum of a camera frame (byte 3, over bytes 0 to 2).
uint8_t Crc8(const uint8_t* bytes, size_t count);

// Reflected CRC-16, polynomial 0x1021, initial value 0x3692, no final XOR:
// the frame checksum (last two bytes, over everything before them).
uint16_t Crc16(const uint8_t* bytes, size_t count);
