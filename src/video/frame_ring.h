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

// The header fields: release stores (RingLoadField, the acquire load, is in
// the interface header with the other reader helpers).
inline void RingStoreField(uint8_t* region, size_t offset, uint16_t value)
{
    __atomic_store_n(reinterpret_cast<uint16_t*>(region + offset), value, __ATOMIC_RELEASE);
}

// The slot after `slot`, 0 after the last.
inline uint32_t RingNextSlot(uint32_t slot)
{
    return slot + 1 >= kRingSlotCount ? 0 : slot + 1;
}

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

