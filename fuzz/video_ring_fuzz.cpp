// The video ring round trip: fuzzed payloads are queued through the writer,
// read back with the reader algorithm the main application uses (the ring
// reader), and the bytes compared; a difference, or a part reported lost
// while the reader keeps up, is a crash.
//
// Input: a run of parts, each [flags][16-bit little-endian length][bytes].
// Flag bit 0 reads the ring after this part (otherwise reading waits, up to
// the ring's capacity); bits 1 and 2 together repeat the part's bytes to make
// it span two chunks of 300000 bytes, as a long payload does (rarely: such a
// part costs a thousand small ones).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_world.h"
#include "video/frame_buffer.h"
#include "video/frame_ring.h"
#include "tarnwickclient/client.h"

namespace {

tarnwick::RingReader reader;
std::vector<uint8_t> delivered;

int Collect(const uint8_t* data, uint32_t length, void*)
{
    delivered.insert(delivered.end(), data, data + length);
    return 0;
}

constexpr uint32_t kChunksBeforeRead = kRingSlotCount / 2;   // the reader never falls a ring behind

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    EnterFuzzWorld();
    if (InitFrameBuffers() != 0)
        abort();
    // The start-up clear request is honoured by the first part.
    const uint8_t first[] = {0, 0, 0, 1, 0x65};
    QueueVideoPart(first, sizeof first);
    if (tarnwick::RingReaderOpen(&reader) != 0)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ResetServiceRecords();   // the writer numbers its parts from 0 again
    tarnwick::RingReaderSeekLiveEdge(&reader);
    reader.counts.lost_parts = 0;
    delivered.clear();
    std::vector<uint8_t> expected, part;
    uint32_t unread_chunks = 0;
    while (size >= 3) {
        uint8_t flags = data[0];
        size_t length = static_cast<size_t>(data[1] | data[2] << 8);
        data += 3;
        size -= 3;
        if (length > size)
            length = size;
        part.assign(data, data + length);
        data += length;
        size -= length;
        if ((flags & 6) == 6 && !part.empty()) {
            size_t target = kRingChunkCapacity + 1 + (flags >> 3) * 997;
            while (part.size() < target)
                part.insert(part.end(), part.begin(), part.begin() + std::min(part.size(), target - part.size()));
        }
        if (part.empty())
            continue;   // the writer refuses an empty part
        uint32_t chunks = static_cast<uint32_t>((part.size() + kRingChunkCapacity - 1) / kRingChunkCapacity);
        if (unread_chunks + chunks > kChunksBeforeRead) {
            tarnwick::RingReaderPoll(&reader, Collect, nullptr);
            unread_chunks = 0;
        }
        QueueVideoPart(part.data(), static_cast<uint32_t>(part.size()));
        expected.insert(expected.end(), part.begin(), part.end());
        unread_chunks += chunks;
        if ((flags & 1) != 0) {
            tarnwick::RingReaderPoll(&reader, Collect, nullptr);
            unread_chunks = 0;
        }
    }
    tarnwick::RingReaderPoll(&reader, Collect, nullptr);
    if (delivered != expected || reader.counts.lost_parts != 0)
        abort();
    return 0;
}
