#include "video/ring_follower.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "video/include/h264parse.h"

namespace {

uint32_t WriterSlot(const uint8_t* region)
{
    uint32_t slot = RingLoadField(region, kRingNextSlotOffset);
    return slot < kRingSlotCount ? slot : 0;   // the writer reads junk as 0 too
}

bool IsWritten(const RingSlotHeader& header)
{
    return header.marked && header.length >= 1 && header.length <= kRingChunkCapacity;
}

bool SameHeader(const RingSlotHeader& a, const RingSlotHeader& b)
{
    return a.length == b.length && a.part == b.part && a.chunk_index == b.chunk_index && a.marked == b.marked;
}

// Forgets the current part: the next chunk 0 starts afresh.
void Resync(RingFollower* follower, uint32_t slot, bool keep_loss_count)
{
    follower->slot = slot;
    follower->in_part = false;
    if (!keep_loss_count)
        follower->have_previous = false;
}

// Decides whether a verified chunk is delivered. Returns true to deliver.
bool Accept(RingFollower* follower, const RingSlotHeader& header)
{
    if (header.chunk_index != 0) {
        bool continues = follower->in_part && header.part == follower->part &&
                         header.chunk_index == follower->next_chunk;
        if (continues)
            ++follower->next_chunk;
        else
            follower->in_part = false;   // the rest of a part whose start was lost
        return continues;
    }
    if (follower->start_at_parameter_set && follower->parts == 0 &&
        !StartsWithSequenceParameterSet(follower->copy, header.length))
        return false;
    if (follower->have_previous) {
        uint16_t lost = static_cast<uint16_t>(header.part - follower->part - 1);
        if (lost != 0) {
            follower->lost_parts += lost;
            if (follower->on_loss != nullptr)
                follower->on_loss(lost, follower->context);
        }
    }
    follower->in_part = true;
    follower->have_previous = true;
    follower->part = header.part;
    follower->next_chunk = 1;
    ++follower->parts;
    return true;
}

}  // namespace

uint8_t* RingFollowerMapRegion(const char* name)
{
    int fd = shm_open(name, O_RDWR, 0);
    if (fd < 0)
        return nullptr;
    struct stat status;
    if (fstat(fd, &status) != 0 || status.st_size != static_cast<off_t>(kFrameBufferSize)) {
        close(fd);
        return nullptr;
    }
    void* mapping = mmap(nullptr, kFrameBufferSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return mapping == MAP_FAILED ? nullptr : static_cast<uint8_t*>(mapping);
}

void RingFollowerStart(RingFollower* follower, uint8_t* region)
{
    follower->region = region;
    follower->clear_pending = RingLoadField(region, kRingClearRequestOffset) != 0;
    Resync(follower, follower->clear_pending ? 0 : WriterSlot(region), false);
}

void RingFollowerRequestClear(RingFollower* follower)
{
    RingStoreField(follower->region, kRingClearRequestOffset, 1);
    follower->clear_pending = true;
}

int RingFollowerPoll(RingFollower* follower)
{
    uint8_t* region = follower->region;
    if (RingLoadField(region, kRingClearRequestOffset) != 0) {
        follower->clear_pending = true;
        return 0;
    }
    if (follower->clear_pending) {
        // The writer has cleared the ring: its parts start again at slot 0.
        follower->clear_pending = false;
        Resync(follower, 0, false);
    }

    int delivered = 0;
    bool restarted = false;
    uint32_t writer = WriterSlot(region);
    while (follower->slot != writer) {
        uint8_t* slot = RingSlot(region, follower->slot);
        RingSlotHeader header = RingReadSlotHeader(slot);
        if (!IsWritten(header)) {
            // Cleared since it was passed: the newest parts start at slot 0.
            // Once only per poll, so that junk cannot keep the reader circling.
            if (!restarted && follower->slot != 0) {
                Resync(follower, 0, false);
                restarted = true;
            } else {
                writer = WriterSlot(region);
                Resync(follower, writer, false);
            }
            continue;
        }
        memcpy(follower->copy, slot + kSlotDataOffset, header.length);
        __atomic_thread_fence(__ATOMIC_ACQUIRE);
        uint32_t writer_now = WriterSlot(region);
        RingSlotHeader after = RingReadSlotHeader(slot);
        if (writer_now == follower->slot || !SameHeader(header, after)) {
            // Overwritten while it was copied: fell a whole ring behind.
            writer = writer_now;
            Resync(follower, writer, true);
            continue;
        }
        follower->slot = RingNextSlot(follower->slot);
        if (!Accept(follower, header))
            continue;
        if (follower->on_chunk(follower->copy, header.length, follower->context) != 0)
            return -1;
        follower->bytes += header.length;
        ++delivered;
    }
    return delivered;
}
