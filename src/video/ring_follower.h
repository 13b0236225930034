#pragma once
// Reads the live video ring from another process, as the main application
// does: it follows next_slot, rebuilds the parts in the order of their part
// numbers and hands each chunk's bytes on, so the H.264 byte stream comes out
// as the camera sent it. tools/ringreader is built on it.
//
// How a slot is read (the writer locks nothing, see frame_ring.h):
// - A slot counts as written when its ten mark bytes are 1 (and byte 7 is 0)
//   and its length is 1 to 300000; a cleared slot is all zeros. Meeting an
//   unwritten slot behind next_slot means the ring was cleared since: reading
//   restarts at slot 0.
// - The chunk is copied out, then next_slot and the slot header are read
//   again: if the writer stands at that slot or its header changed, the slot
//   was being overwritten during the copy (the reader fell 200 chunks
//   behind). The copy is dropped and reading goes on at the writer's position.
// - Part numbers follow each other; a gap between the part last delivered and
//   the next one that starts (chunk 0) is reported as lost parts. Chunks of a
//   part whose start was not seen are skipped. Across a clear of the ring
//   (the writer restarted, or a reader asked for it) nothing is counted lost.
// - While clear_request is set nothing is read (the parts still in the ring
//   are being thrown away); once the writer has cleared, reading starts at
//   slot 0.
//
// One follower per thread; it keeps a copy buffer of one chunk.
#include <cstdint>

#include "video/frame_ring.h"

// Receives the bytes of one chunk, in stream order. Returns 0, or -1 to stop.
using RingChunkSink = int (*)(const uint8_t* data, uint32_t length, void* context);
// Told the number of parts lost in one gap.
using RingLossSink = void (*)(uint32_t lost_parts, void* context);

struct RingFollower {
    uint8_t* region = nullptr;     // the mapped ring, kFrameBufferSize bytes
    RingChunkSink on_chunk = nullptr;
    RingLossSink on_loss = nullptr;   // may be null
    void* context = nullptr;
    // Deliver nothing before a part that begins with a sequence parameter
    // set, so that a decoder joining mid-stream starts at a picture it can
    // decode.
    bool start_at_parameter_set = false;

    uint32_t slot = 0;             // next slot to read
    bool clear_pending = false;    // waiting for the writer to honour clear_request
    bool in_part = false;          // `part` has been delivered from its chunk 0 on
    bool have_previous = false;    // `part` is meaningful for the loss count
    uint16_t part = 0;             // part of the last chunk delivered
    uint8_t next_chunk = 0;        // chunk index expected next within `part`

    uint64_t parts = 0;            // parts begun (chunk 0 delivered)
    uint64_t bytes = 0;
    uint64_t lost_parts = 0;

    uint8_t copy[kRingChunkCapacity];
};

// Maps the region `name` read-write (clear_request is the one field a reader
// writes). Returns the mapping, or null when it does not exist (yet) or has
// not its full size.
uint8_t* RingFollowerMapRegion(const char* name);

// Starts at the live edge: the next part the writer queues, or slot 0 when a
// clear is pending.
void RingFollowerStart(RingFollower* follower, uint8_t* region);

// Asks the writer to clear the ring; its next part lands in slot 0 and is the
// first one read.
void RingFollowerRequestClear(RingFollower* follower);

// Delivers every chunk that is complete behind next_slot. Returns the number
// of chunks delivered, or -1 when the sink asked to stop.
int RingFollowerPoll(RingFollower* follower);
