#include "video/frame_buffer.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "net/files.h"
#include "net/shared_memory.h"
#include "video/frame_ring.h"
#include "video/include/h264parse.h"

namespace {

// The camera receive thread's own record (see the header for threads).
struct VideoStreamState {
    uint32_t width;                 // last announced; 0 before the first parameter set
    uint32_t height;
    uint8_t* frame_buffer;          // null until mapped
    uint32_t frame_buffer_size;
    uint16_t part_counter;          // number of the next part; wraps after 65535
    uint32_t transcoding_buffer_size;
    uint8_t* transcoding_buffer;
};
VideoStreamState video_stream;
H264BitReader parameter_set_reader;

constexpr size_t kDecimalCapacity = 12;

SharedMapping frame_buffer_mapping;
SharedMapping transcoding_mapping;

// At start-up each region is all zero bytes but byte 0, which is 1 (for the
// ring: clear_request). The ring may hold a previous run's parts, and readers
// may be following it: clear_request goes up first, and only then is the rest
// zeroed. A reader that sees any zeroed byte (next_slot 0 among them) then
// also sees the request, and reads nothing until the writer has cleared the
// ring for its first part. (Zeroing first would show next_slot 0 beside the
// old slots, which a reader would take for the newest parts.)
void FillAsAtStart(uint8_t* region, size_t size)
{
    RingStoreField(region, kRingClearRequestOffset, 1);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);   // the request before any zero byte
    memset(region + sizeof(uint16_t), 0, size - sizeof(uint16_t));
}

// Empties the ring for the writer's next part. clear_request stays set while
// the slots are zeroed and goes down last, after next_slot and last_part are 0:
// a reader that sees it down finds no slot of before the clear.
void ClearRing(uint8_t* ring, size_t size)
{
    memset(ring + kRingHeaderSize, 0, size - kRingHeaderSize);
    memset(ring + kRingLastPartOffset, 0, kRingHeaderSize - kRingLastPartOffset);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    RingStoreField(ring, kRingClearRequestOffset, 0);
}

// A ring that another process spoilt while the service runs: its reader is
// told through clear_request, and the writer clears it whole before its next
// part, as after start-up. (The writer may be writing at this moment, so the
// clear is left to it.)
void RequestRingClear(uint8_t* region, size_t)
{
    RingStoreField(region, kRingClearRequestOffset, 1);
}

// Maps the region (see the header) and fills it as at start-up; `repair`
// brings it back to that state after another process spoilt it.
uint8_t* OpenRegion(SharedMapping* mapping, const char* name, uint32_t size, SharedMemoryInit repair)
{
    if (SharedMemoryMap(mapping, name, size, true, nullptr, nullptr, nullptr) != 0)
        return nullptr;
    FillAsAtStart(mapping->base, size);
    mapping->init = repair;
    return mapping->base;
}

void WriteDecimalFile(const char* path, uint32_t value)
{
    char text[kDecimalCapacity];
    snprintf(text, sizeof text, "%d", static_cast<int>(value));
    WriteTextFile(path, text);   // a file that cannot be written is skipped
}

void AnnounceResolution(const uint8_t* data, uint32_t length)
{
    uint32_t width = 0, height = 0;
    if (parameter_set_reader.ParseSequenceParameterSet(data, length, &width, &height) != 0)
        return;
    if (width == video_stream.width && height == video_stream.height)
        return;
    fprintf(stderr, "Live stream video resolution changed to %dx%d\n", static_cast<int>(width),
            static_cast<int>(height));
    video_stream.width = width;
    video_stream.height = height;
    WriteDecimalFile(kVideoWidthPath, width);
    WriteDecimalFile(kVideoHeightPath, height);
}

}  // namespace

int InitFrameBuffers()
{
    unlink(kVideoWidthPath);
    unlink(kVideoHeightPath);
    SharedMemoryUnmap(&frame_buffer_mapping);
    SharedMemoryUnmap(&transcoding_mapping);
    video_stream.frame_buffer = nullptr;
    video_stream.transcoding_buffer = nullptr;
    video_stream.width = 0;
    video_stream.height = 0;

    video_stream.frame_buffer_size = kFrameBufferSize;
    fprintf(stderr, "Init frame buffer %d bytes\n", static_cast<int>(video_stream.frame_buffer_size));
    video_stream.part_counter = 0;
    video_stream.frame_buffer = OpenRegion(&frame_buffer_mapping, kFrameBufferName, video_stream.frame_buffer_size, RequestRingClear);
    if (video_stream.frame_buffer == nullptr)
        return -1;

    video_stream.transcoding_buffer_size = kTranscodingFrameBufferSize;
    fprintf(stderr, "Init frame buffer for transcoding %d bytes\n",
            static_cast<int>(video_stream.transcoding_buffer_size));
    video_stream.transcoding_buffer = OpenRegion(&transcoding_mapping, kTranscodingFrameBufferName,
                                                video_stream.transcoding_buffer_size, FillAsAtStart);
    if (video_stream.transcoding_buffer == nullptr)
        return -1;
    return 0;
}

void QueueVideoPart(const uint8_t* data, uint32_t length)
{
    if (data == nullptr) {
        fputs("Queue part buf is zero\n", stderr);
        return;
    }
    if (length == 0) {
        fputs("Queue part len is zero\n", stderr);
        return;
    }
    if (StartsWithSequenceParameterSet(data, length))
        AnnounceResolution(data + kSpsDataOffset, length - kSpsDataOffset);

    uint8_t* ring = video_stream.frame_buffer;
    if (ring == nullptr)
        return;
    if (RingLoadField(ring, kRingClearRequestOffset) != 0) {
        ClearRing(ring, video_stream.frame_buffer_size);
        fputs("Clear frame shared memory\n", stderr);
    }

    uint32_t offset = 0;
    uint8_t chunk_index = 0;
    do {
        uint32_t chunk = length - offset < kRingChunkCapacity ? length - offset : kRingChunkCapacity;
        uint32_t slot = RingLoadField(ring, kRingNextSlotOffset);
        if (slot >= kRingSlotCount)
            slot = 0;
        uint8_t* slot_bytes = RingSlot(ring, slot);
        memcpy(slot_bytes + kSlotDataOffset, data + offset, chunk);
        RingWriteSlotHeader(slot_bytes, chunk, video_stream.part_counter, chunk_index);
        RingStoreField(ring, kRingNextSlotOffset, static_cast<uint16_t>(RingNextSlot(slot)));
        offset += chunk;
        ++chunk_index;
    } while (offset < length);

    RingStoreField(ring, kRingLastPartOffset, video_stream.part_counter);
    ++video_stream.part_counter;
}

void ResetVideoStream()
{
    video_stream.width = 0;
    video_stream.height = 0;
    video_stream.part_counter = 0;
}
