// The ring reader (see tarnwickclient/client.h for the rules it follows).
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <cstdlib>

#include "new_record.h"
#include "tarnwickclient/client.h"

using namespace tarnwick::wire;

namespace tarnwick {
namespace {

constexpr int64_t kIdentityCheckMs = 100;

int64_t MonotonicMs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool IsWritten(const RingSlotHeader& header)
{
    return header.marked && header.length >= 1 && header.length <= kRingChunkCapacity;
}

bool SameHeader(const RingSlotHeader& a, const RingSlotHeader& b)
{
    return a.length == b.length && a.part == b.part && a.chunk_index == b.chunk_index && a.marked == b.marked;
}

uint8_t* Slot(uint8_t* region, uint32_t slot)
{
    return region + kRingHeaderSize + static_cast<size_t>(slot) * kRingSlotSize;
}

uint32_t WriterSlot(const uint8_t* region)
{
    uint32_t slot = RingLoadField(region, kRingNextSlotOffset);
    return slot < kRingSlotCount ? slot : 0;   // the writer reads junk as 0 too
}

bool ClearRequested(const uint8_t* region)
{
    return RingLoadField(region, kRingClearRequestOffset) != 0;
}

// A break in the stream: what comes next does not continue what was handed
// out, so no loss is counted across it, and with start_at_parameter_set
// nothing is handed out before a part that starts with a parameter set.
void Break(RingReader* reader)
{
    reader->in_part = false;
    reader->have_previous = false;
    reader->awaiting_parameter_set = reader->start_at_parameter_set;
}

// The writer started again (a restarted relay, a clear, an object replaced):
// a break, and counted.
void Restart(RingReader* reader)
{
    if (reader->writer_seen)
        ++reader->counts.restarts;   // a ring's first start after opening it is no restart
    Break(reader);
}

// The writer cleared the ring, or is about to: a restart, unless it is the
// clear this reader asked for.
void WriterClears(RingReader* reader)
{
    if (reader->own_clear)
        Break(reader);
    else
        Restart(reader);
    reader->own_clear = false;
}

// clear_request is set: nothing is read until the writer has cleared.
void AwaitClear(RingReader* reader)
{
    if (reader->clear_pending)
        return;
    reader->clear_pending = true;
    WriterClears(reader);
}

void StartAtLiveEdge(RingReader* reader)
{
    // next_slot before clear_request: a clear raises the request before it
    // zeroes next_slot (interface.h).
    uint32_t writer = WriterSlot(reader->region);
    reader->clear_pending = ClearRequested(reader->region);
    reader->own_clear = false;
    reader->slot = reader->clear_pending ? 0 : writer;
    reader->writer_seen = !reader->clear_pending && (writer != 0 || RingLoadField(reader->region, kRingLastPartOffset) != 0);
    Break(reader);
}

// Decides whether a verified chunk is delivered. `data` is its bytes.
bool Accept(RingReader* reader, const RingSlotHeader& header, const uint8_t* data)
{
    if (header.chunk_index != 0) {
        bool continues =
            reader->in_part && header.part == reader->part && header.chunk_index == reader->next_chunk;
        if (continues)
            ++reader->next_chunk;
        else
            reader->in_part = false;   // the rest of a part whose start was lost
        return continues;
    }
    bool joinable = StartsWithSequenceParameterSet(data, header.length);
    if (reader->have_previous) {
        uint16_t gap = static_cast<uint16_t>(header.part - reader->part - 1);
        reader->counts.lost_parts += gap;
        if (gap != 0 && !joinable)
            Break(reader);             // the picture is broken until the next parameter set
    }
    if (reader->awaiting_parameter_set) {
        if (!joinable) {
            reader->in_part = false;
            return false;
        }
        reader->awaiting_parameter_set = false;
    }
    reader->in_part = true;
    reader->have_previous = true;
    reader->part = header.part;
    reader->next_chunk = 1;
    ++reader->counts.parts;
    return true;
}

void Unmap(RingReader* reader)
{
    if (reader->region != nullptr)
        munmap(reader->region, kFrameBufferSize);
    if (reader->fd >= 0)
        close(reader->fd);
    reader->region = nullptr;
    reader->fd = -1;
}

int Map(RingReader* reader)
{
    int fd = shm_open(reader->name, O_RDWR | O_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    struct stat status;
    if (fstat(fd, &status) != 0 || status.st_size != static_cast<off_t>(kFrameBufferSize)) {
        close(fd);
        return -1;
    }
    void* mapping = mmap(nullptr, kFrameBufferSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapping == MAP_FAILED) {
        close(fd);
        return -1;
    }
    reader->fd = fd;
    reader->device = status.st_dev;
    reader->inode = status.st_ino;
    reader->region = static_cast<uint8_t*>(mapping);
    reader->identity_checked_ms = MonotonicMs();
    StartAtLiveEdge(reader);
    return 0;
}

// False when the mapping no longer shows the ring under its name: the object
// was cut short (reading it would fault) or removed and made anew.
bool StillTheRing(RingReader* reader)
{
    struct stat mapped;
    if (fstat(reader->fd, &mapped) != 0 || mapped.st_size < static_cast<off_t>(kFrameBufferSize))
        return false;
    int64_t now = MonotonicMs();
    if (now - reader->identity_checked_ms < kIdentityCheckMs)
        return true;
    reader->identity_checked_ms = now;
    char path[sizeof reader->name + 16];
    snprintf(path, sizeof path, "/dev/shm/%s", reader->name[0] == '/' ? reader->name + 1 : reader->name);
    struct stat named;
    if (stat(path, &named) != 0)
        return true;   // not (yet) there again: keep reading what is mapped
    return named.st_dev == reader->device && named.st_ino == reader->inode;
}

}  // namespace

int RingReaderOpen(RingReader* reader, const char* name)
{
    if (name == nullptr || strlen(name) >= sizeof reader->name)
        return -1;
    Unmap(reader);
    snprintf(reader->name, sizeof reader->name, "%s", name);
    reader->counts = RingCounts{};
    return Map(reader);
}

void RingReaderSeekLiveEdge(RingReader* reader)
{
    if (reader->region != nullptr)
        StartAtLiveEdge(reader);
}

void RingReaderSeekOldest(RingReader* reader)
{
    if (reader->region == nullptr)
        return;
    StartAtLiveEdge(reader);
    if (reader->clear_pending)
        return;   // the writer's next part is the oldest there will be
    // The writer's next slot holds the oldest chunk but is overwritten next;
    // the one after it is the oldest that stays. A ring that has not wrapped
    // yet has nothing there: its oldest part is in slot 0.
    uint32_t after = (reader->slot + 1) % kRingSlotCount;
    reader->slot = IsWritten(RingReadSlotHeader(Slot(reader->region, after))) ? after : 0;
}

void RingReaderClose(RingReader* reader)
{
    Unmap(reader);
}

void RingReaderRequestClear(RingReader* reader)
{
    if (reader->region == nullptr)
        return;
    __atomic_store_n(reinterpret_cast<uint16_t*>(reader->region + kRingClearRequestOffset), uint16_t{1},
                     __ATOMIC_RELEASE);
    reader->own_clear = true;   // seen at the next poll, as a break but not a restart
}

uint16_t RingReaderWriterPart(const RingReader* reader)
{
    return reader->region != nullptr ? RingLoadField(reader->region, kRingLastPartOffset) : 0;
}

int RingReaderPoll(RingReader* reader, ChunkSink sink, void* context)
{
    if (reader->region != nullptr && !StillTheRing(reader)) {
        Unmap(reader);
        Restart(reader);
    }
    if (reader->region == nullptr && Map(reader) != 0)
        return 0;
    uint8_t* region = reader->region;
    reader->counts.last_part = RingLoadField(region, kRingLastPartOffset);
    uint32_t writer = WriterSlot(region);
    if (ClearRequested(region)) {
        AwaitClear(reader);
        return 0;
    }
    if (reader->clear_pending) {
        // The writer has cleared the ring: its parts start again at slot 0.
        reader->clear_pending = false;
        reader->writer_seen = true;
        reader->slot = 0;
        Break(reader);
    }

    int delivered = 0;
    bool restarted = false;
    while (reader->slot != writer) {
        uint8_t* slot = Slot(region, reader->slot);
        RingSlotHeader header = RingReadSlotHeader(slot);
        if (!IsWritten(header)) {
            if (ClearRequested(region)) {
                AwaitClear(reader);
                return delivered;
            }
            // Cleared since next_slot was loaded, and written again from
            // slot 0: the writer started again. Once only per poll, so that
            // junk cannot keep the reader circling.
            if (!restarted && reader->slot != 0) {
                WriterClears(reader);
                reader->slot = 0;
                restarted = true;
                if (delivered != 0)
                    return delivered;   // one poll never hands out both sides of a restart
            } else {
                Break(reader);
                reader->slot = WriterSlot(region);
            }
            writer = WriterSlot(region);
            continue;
        }
        reader->writer_seen = true;
        uint32_t current = reader->slot;
        reader->slot = (current + 1) % kRingSlotCount;
        const uint8_t* data = slot + kSlotDataOffset;
        bool handed_in_place = false;
        if (reader->zero_copy) {
            handed_in_place = Accept(reader, header, data);
            if (handed_in_place && sink(data, header.length, context) != 0)
                return -1;
        } else {
            memcpy(reader->copy, data, header.length);
            data = reader->copy;
        }
        // The copy (or the sink's reading in place) must be complete before
        // the writer's position is looked at again: a seqlock reader's fence,
        // which ThreadSanitizer does not model (the writer is another process).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpragmas"
#pragma GCC diagnostic ignored "-Wtsan"
#endif
        __atomic_thread_fence(__ATOMIC_ACQUIRE);
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
        uint32_t writer_now = WriterSlot(region);
        bool unchanged = SameHeader(header, RingReadSlotHeader(slot));
        if (ClearRequested(region)) {
            // A clear began during the copy: the copy may hold zeros.
            AwaitClear(reader);
            return delivered;
        }
        if (writer_now == current || !unchanged) {
            // Overwritten while it was read: fell a whole ring behind.
            ++reader->counts.overruns;
            writer = writer_now;
            reader->slot = writer;
            reader->in_part = false;   // the loss shows at the next part
            continue;
        }
        if (!reader->zero_copy) {
            if (!Accept(reader, header, data))
                continue;
            if (sink(data, header.length, context) != 0)
                return -1;
        } else if (!handed_in_place) {
            continue;
        }
        reader->counts.bytes += header.length;
        ++delivered;
    }
    return delivered;
}

}  // namespace tarnwick

struct tarnwick_ring {
    tarnwick::RingReader reader;
};

extern "C" {

tarnwick_ring* tarnwick_ring_open(const char* name, int start_at_parameter_set)
{
    tarnwick_ring* ring = NewRecord<tarnwick_ring>();
    if (ring == nullptr)
        return nullptr;
    ring->reader.start_at_parameter_set = start_at_parameter_set != 0;
    if (tarnwick::RingReaderOpen(&ring->reader, name != nullptr ? name : kFrameBufferName) != 0) {
        free(ring);
        return nullptr;
    }
    return ring;
}

void tarnwick_ring_close(tarnwick_ring* ring)
{
    if (ring == nullptr)
        return;
    tarnwick::RingReaderClose(&ring->reader);
    free(ring);
}

int tarnwick_ring_poll(tarnwick_ring* ring, tarnwick_chunk_sink sink, void* context)
{
    return tarnwick::RingReaderPoll(&ring->reader, sink, context);
}

void tarnwick_ring_request_clear(tarnwick_ring* ring)
{
    tarnwick::RingReaderRequestClear(&ring->reader);
}

void tarnwick_ring_counts_get(const tarnwick_ring* ring, tarnwick_ring_counts* counts)
{
    *counts = ring->reader.counts;
}

}  // extern "C"
