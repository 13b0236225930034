#include "video/frame_buffer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "app/files.h"
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

constexpr mode_t kRegionMode = 0600;
constexpr size_t kDecimalCapacity = 12;

// Opens the region, creating it when it does not exist, sizes it and maps it
// read-write; then byte 0 is 1 and every other byte 0. Returns the mapping,
// or null.
uint8_t* OpenRegion(const char* name, uint32_t size)
{
    int fd = shm_open(name, O_RDWR, kRegionMode);
    if (fd < 0)
        fd = shm_open(name, O_RDWR | O_CREAT, kRegionMode);
    if (fd < 0)
        return nullptr;
    if (ftruncate(fd, size) != 0 || posix_fallocate(fd, 0, size) != 0) {
        close(fd);
        return nullptr;
    }
    void* mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (mapping == MAP_FAILED)
        return nullptr;
    uint8_t* region = static_cast<uint8_t*>(mapping);
    memset(region, 0, size);
    region[0] = 1;
    return region;
}

void ReleaseRegion(uint8_t** region, uint32_t size)
{
    if (*region != nullptr)
        munmap(*region, size);
    *region = nullptr;
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
    ReleaseRegion(&video_stream.frame_buffer, video_stream.frame_buffer_size);
    ReleaseRegion(&video_stream.transcoding_buffer, video_stream.transcoding_buffer_size);
    video_stream.width = 0;
    video_stream.height = 0;

    video_stream.frame_buffer_size = kFrameBufferSize;
    fprintf(stderr, "Init frame buffer %d bytes\n", static_cast<int>(video_stream.frame_buffer_size));
    video_stream.part_counter = 0;
    video_stream.frame_buffer = OpenRegion(kFrameBufferName, video_stream.frame_buffer_size);
    if (video_stream.frame_buffer == nullptr)
        return -1;

    video_stream.transcoding_buffer_size = kTranscodingFrameBufferSize;
    fprintf(stderr, "Init frame buffer for transcoding %d bytes\n",
            static_cast<int>(video_stream.transcoding_buffer_size));
    video_stream.transcoding_buffer = OpenRegion(kTranscodingFrameBufferName, video_stream.transcoding_buffer_size);
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
        // Also zeroes next_slot and clear_request.
        memset(ring, 0, video_stream.frame_buffer_size);
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
