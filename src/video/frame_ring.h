#pragma once
// The live video ring in POSIX shared memory, "tarnwickrelay_framebuffer":
// its layout is part of the interface (tarnwickclient/interface.h); here are
// the writer's accessors, used by frame_buffer.h and the benchmark.
#include <cstddef>
#include <cstdint>

#include "tarnwickclient/interface.h"

using namespace tarnwick::wire;

inline uint8_t* RingSlot(uint8_t* region, uint32_t slot)
{
    return region + kRingHeaderSize + static_cast<size_t>(slot) * kRingSlotSize;
}

// The header fields, shared with other processes (offsets 0, 2, 4 of a
// page-aligned mapping: naturally aligned).
inline uint16_t RingLoadField(const uint8_t* region, size_t offset)
{
    return __atomic_load_n(reinterpret_cast<const uint16_t*>(region + offset), __ATOMIC_ACQUIRE);
}

inline void RingStoreField(uint8_t* region, size_t offset, uint16_t value)
{
    __atomic_store_n(reinterpret_cast<uint16_t*>(region + offset), value, __ATOMIC_RELEASE);
}

// The slot after `slot`, 0 after the last.
inline uint32_t RingNextSlot(uint32_t slot)
{
    return slot + 1 >= kRingSlotCount ? 0 : slot + 1;
}

// A slot header as stored: length, part, chunk index, 0, ten marks.
struct RingSlotHeader {
    uint32_t length;
    uint16_t part;
    uint8_t chunk_index;
    bool marked;   // all ten written marks are 1 and byte 7 is 0
};

inline void RingWriteSlotHeader(uint8_t* slot, uint32_t length, uint16_t part, uint8_t chunk_index)
{
    slot[kSlotLengthOffset + 0] = static_cast<uint8_t>(length);
    slot[kSlotLengthOffset + 1] = static_cast<uint8_t>(length >> 8);
    slot[kSlotLengthOffset + 2] = static_cast<uint8_t>(length >> 16);
    slot[kSlotLengthOffset + 3] = static_cast<uint8_t>(length >> 24);
    slot[kSlotPartOffset + 0] = static_cast<uint8_t>(part);
    slot[kSlotPartOffset + 1] = static_cast<uint8_t>(part >> 8);
    slot[kSlotChunkIndexOffset] = chunk_index;
    slot[kSlotChunkIndexOffset + 1] = 0;
    for (size_t i = 0; i < kSlotWrittenMarkCount; ++i)
        slot[kSlotWrittenMarksOffset + i] = kSlotWrittenMark;
}

inline RingSlotHeader RingReadSlotHeader(const uint8_t* slot)
{
    RingSlotHeader header;
    header.length = static_cast<uint32_t>(slot[0]) | static_cast<uint32_t>(slot[1]) << 8 |
                    static_cast<uint32_t>(slot[2]) << 16 | static_cast<uint32_t>(slot[3]) << 24;
    header.part = static_cast<uint16_t>(slot[kSlotPartOffset] | slot[kSlotPartOffset + 1] << 8);
    header.chunk_index = slot[kSlotChunkIndexOffset];
    header.marked = slot[kSlotChunkIndexOffset + 1] == 0;
    for (size_t i = 0; i < kSlotWrittenMarkCount; ++i)
        header.marked = header.marked && slot[kSlotWrittenMarksOffset + i] == kSlotWrittenMark;
    return header;
}
