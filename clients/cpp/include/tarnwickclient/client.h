#pragma once
// tarnwickclient for C++: the records and calls of tarnwickclient.h under
// the namespace tarnwick, and the ring reader as a plain record that a
// program may keep where it likes (it holds a copy buffer of one chunk).
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "tarnwickclient.h"
#include "tarnwickclient/interface.h"

namespace tarnwick {

using Status = tarnwick_status;
using StateMessage = tarnwick_state;
using TrackingMessage = tarnwick_tracking;
using HistogramMessage = tarnwick_histogram;
using Report = tarnwick_report;
using Link = tarnwick_link;
using RingCounts = tarnwick_ring_counts;
using ChunkSink = tarnwick_chunk_sink;

inline int ParseReport(const uint8_t* data, size_t length, Report* report)
{
    return tarnwick_parse_report(data, length, report);
}

inline int FormatCommand(char* out, size_t capacity, const char* cmd, const char* name_or_param = nullptr,
                         const char* value = nullptr, const char* value2 = nullptr, const char* value3 = nullptr,
                         const char* value4 = nullptr)
{
    return tarnwick_format_command(out, capacity, cmd, name_or_param, value, value2, value3, value4);
}

// Reads the live video ring as the main application does: it follows
// next_slot, rebuilds the parts in the order of their part numbers and hands
// each chunk's bytes on, so the H.264 byte stream comes out as the camera
// sent it.
//
// How a slot is read (the writer locks nothing, see interface.h):
// - A slot counts as written when its ten mark bytes are 1 (and byte 7 is 0)
//   and its length is 1 to 300000; a cleared slot is all zeros.
// - next_slot is loaded before clear_request, and clear_request again after
//   every copy: a clear raises it before it changes a byte and lowers it only
//   when the ring is empty, so a chunk read while it stayed 0 is not one of
//   before a clear.
// - The chunk is copied out, then next_slot and the slot header are read
//   again: if the writer stands at that slot or its header changed, the slot
//   was being overwritten during the copy (the reader fell 200 chunks
//   behind). The copy is dropped and reading goes on at the writer's position
//   (an overrun).
// - Part numbers follow each other; a gap between the part last delivered and
//   the next one that starts (chunk 0) is counted as lost parts. Chunks of a
//   part whose start was not seen are skipped.
// - Restarts: the relay sets clear_request when it starts, a clear request
//   (another program's) does the same, and an object removed and made anew
//   or cut short under the reader is noticed by its identity and size
//   (checked at most every 100 ms; the new one is mapped and read from its
//   live edge). Each counts once in counts.restarts (but the first start of a
//   relay on a ring that it had never written), never as loss; while
//   clear_request is set nothing is read, and once the writer has cleared,
//   reading starts at slot 0. An unwritten slot met behind next_slot means a
//   clear came and went between two looks (a reader that stalled for the
//   relay's whole start): it counts as a restart too. A reader that does not
//   look at the ring at all for the whole of a restart (over a second) and
//   whose place the new run has already passed sees the new run's parts as
//   lost parts instead; it never sees a part of before the clear.
// - With start_at_parameter_set, after opening and after every break (a
//   restart, lost parts, an overrun) nothing is handed out before a part that
//   starts with a sequence parameter set, so a decoder fed from the reader
//   always starts at a picture it can decode. The parts skipped while waiting
//   are not counted as lost.
//
// Zero copy: with `zero_copy` set the sink gets the bytes in place, in the
// shared mapping. The check for an overwrite then runs after the sink
// returns, so a sink that was overtaken has already seen torn bytes; the
// overrun is still counted and the reader moves to the writer's position.
// Use it when the sink is quick (hands the bytes to a decoder that copies).
struct RingReader {
    // Set before RingReaderOpen.
    bool start_at_parameter_set = false;
    bool zero_copy = false;

    char name[256] = {};
    int fd = -1;
    dev_t device = 0;
    ino_t inode = 0;
    uint8_t* region = nullptr;      // kFrameBufferSize bytes, or null
    int64_t identity_checked_ms = 0;

    uint32_t slot = 0;              // next slot to read
    bool clear_pending = false;     // waiting for the writer to honour clear_request
    bool own_clear = false;         // this reader asked for the clear: not a restart
    bool writer_seen = false;       // the writer has run since opening: a clear now is a restart
    bool awaiting_parameter_set = false;   // skipping parts until one starts with an SPS
    bool in_part = false;           // `part` has been delivered from its chunk 0 on
    bool have_previous = false;     // `part` is meaningful for the loss count
    uint16_t part = 0;              // part of the last chunk delivered
    uint8_t next_chunk = 0;         // chunk index expected next within `part`

    RingCounts counts{};
    uint8_t copy[wire::kRingChunkCapacity];
};

// Maps the ring `name` (default "tarnwickrelay_framebuffer") read-write
// (clear_request is the one field a reader writes) and starts at the live
// edge. Returns 0, or -1 when it does not exist (yet) or has not its full size.
int RingReaderOpen(RingReader* reader, const char* name = wire::kFrameBufferName);
void RingReaderClose(RingReader* reader);
// Hands every chunk that is complete behind next_slot to `sink`. Returns the
// number of chunks handed out, or -1 when the sink asked to stop. When the
// object went away it tries to map it again and returns 0 until it can.
int RingReaderPoll(RingReader* reader, ChunkSink sink, void* context);
// Skips to the live edge (the next part the writer queues), as at opening;
// the counts stay. For a program that paused and wants the present, not the
// backlog.
void RingReaderSeekLiveEdge(RingReader* reader);
// Goes back to the oldest part the ring still holds (up to 199 chunks behind
// the writer, or slot 0 of a ring that has not wrapped yet); the counts stay.
// For a program that wants what the ring holds, not only what comes next.
void RingReaderSeekOldest(RingReader* reader);
// Asks the writer to clear the ring; its next part lands in slot 0 and is the
// first one read.
void RingReaderRequestClear(RingReader* reader);
// The writer's newest complete part (last_part).
uint16_t RingReaderWriterPart(const RingReader* reader);

// The remote-control record as a plain mapping.
struct RcWriter {
    int fd = -1;
    uint8_t* record = nullptr;   // wire::kRcRawStateSize bytes
    bool created = false;        // the object was missing and made here
};
// Opens `name`, creating it (mode 0600, zero-filled, 1504 bytes) when missing;
// grows a short object to its size. Returns 0 or -1.
int RcWriterOpen(RcWriter* writer, const char* name = wire::kRcRawStateName);
void RcWriterClose(RcWriter* writer);
// Whole-value stores: the relay reads each value whole at any time.
int RcWriterSetValue(RcWriter* writer, unsigned slot, double value);
int RcWriterSetFlag(RcWriter* writer, unsigned slot, uint16_t flag);
double RcWriterValue(const RcWriter* writer, unsigned slot);
uint16_t RcWriterFlag(const RcWriter* writer, unsigned slot);

inline int ReadAttitude(int16_t attitude[3]) { return tarnwick_read_attitude(attitude); }
inline int ReadResolution(int* width, int* height) { return tarnwick_read_resolution(width, height); }

}  // namespace tarnwick
