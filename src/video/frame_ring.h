#pragma once
// The live video ring in POSIX shared memory, "tarnwickrelay_framebuffer",
// shared by the writer (the service, frame_buffer.h), its readers (the main
// application, tools/ringreader through ring_follower.h) and the benchmark.
// All numbers little-endian.
//
//   region (60003624 bytes) = header (24) + 200 slots of 300018 bytes
//
//   header:  0  clear_request  u16   non-zero: the writer clears the whole region
//                                    before its next part (start-up sets 1)
//            2  last_part      u16   part number of the newest complete part
//            4  next_slot      u16   slot the next chunk goes to, 0 to 199
//            6  18 zero bytes
//
//   slot k at 24 + 300018 * k:
//            0  length         u32   chunk length, 1 to 300000
//            4  part           u16   part number the chunk belongs to
//            6  chunk index    u8    within its part, from 0
//            7  0
//            8  ten bytes of 1       set when the slot is written
//           18  data           300000 bytes, the first `length` valid
//
// Each video payload is one part, cut into chunks of at most 300000 bytes in
// consecutive slots. The writer stores, in this order, a chunk's data, its
// slot header and next_slot, and after the last chunk last_part. next_slot,
// last_part and clear_request are 16-bit atomic accesses (release stores,
// acquire loads), so a reader that loads next_slot finds the slots behind it
// complete. Nothing is locked: a reader that falls 200 chunks behind finds
// its slots overwritten, which ring_follower detects.
#include <cstddef>
#include <cstdint>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the ring's 16-bit header fields are stored natively; they are little-endian on the wire");

constexpr const char* kFrameBufferName = "tarnwickrelay_framebuffer";
constexpr const char* kTranscodingFrameBufferName = "tarnwickrelay_framebuffer_transcoding";
constexpr uint32_t kTranscodingFrameBufferSize = 13003624;

constexpr uint32_t kRingHeaderSize = 24;
constexpr uint32_t kRingSlotCount = 200;
constexpr uint32_t kRingSlotHeaderSize = 18;
constexpr uint32_t kRingChunkCapacity = 300000;
constexpr uint32_t kRingSlotSize = kRingSlotHeaderSize + kRingChunkCapacity;
constexpr uint32_t kFrameBufferSize = kRingHeaderSize + kRingSlotCount * kRingSlotSize;
static_assert(kFrameBufferSize == 60003624, "the ring's size is fixed for its readers");

constexpr size_t kRingClearRequestOffset = 0;
constexpr size_t kRingLastPartOffset = 2;
constexpr size_t kRingNextSlotOffset = 4;

constexpr size_t kSlotLengthOffset = 0;
constexpr size_t kSlotPartOffset = 4;
constexpr size_t kSlotChunkIndexOffset = 6;
constexpr size_t kSlotWrittenMarksOffset = 8;
constexpr size_t kSlotWrittenMarkCount = 10;
constexpr uint8_t kSlotWrittenMark = 1;
constexpr size_t kSlotDataOffset = kRingSlotHeaderSize;

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
