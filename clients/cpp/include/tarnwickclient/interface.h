#pragma once
// The interface between the relay and the programs on its board, as facts:
// ports, names, paths and byte layouts. The relay writes these layouts and
// the client library reads them, both from this one header; a change here is
// a change of the interface (docs/interface.md describes it in prose).
//
// Numbers are little-endian throughout (the static_assert below: the ring's
// 16-bit header fields and the shared records are stored natively).
#include <cstddef>
#include <cstdint>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the interface's shared-memory fields are stored natively and are little-endian");

namespace tarnwick::wire {

// --- Status datagrams, relay -> main application (UDP) ----------------------
// Sent from the relay's command port (an ephemeral port: commands go back to
// the source port of the status datagrams) to --dst-host:--dst-port.
constexpr uint16_t kDefaultStatusPort = 5000;
// The recording notice, bare text, to 127.0.0.1 on this port.
constexpr uint16_t kLocalNoticePort = 5255;
constexpr const char* kRecordingActiveNotice = "rec_active";
constexpr const char* kRecordingInactiveNotice = "rec_inactive";

// First byte of every status datagram; a binary message's second byte is its kind.
constexpr uint8_t kStatusLineType = 7;
constexpr uint8_t kBinaryMessageType = 6;
constexpr uint8_t kStateMessageKind = 0;
constexpr uint8_t kHistogramMessageKind = 1;
constexpr uint8_t kTrackingMessageKind = 2;
constexpr size_t kStatusLineMaximumSize = 1299;  // type byte included
constexpr size_t kHistogramBinCount = 64;

// A JSON command datagram begins with this byte; anything else is dropped.
constexpr uint8_t kJsonCommandMark = '!';
// The zoom-rate datagram: 5, 1, then the rate as i16 (hundredths per
// remote-control cycle; 0 stops).
constexpr uint8_t kZoomRateMark = 5;
constexpr uint8_t kZoomRateKind = 1;
constexpr size_t kZoomRateMessageSize = 4;

// StateMessage: byte offsets.
namespace state_message {
constexpr size_t kGimbalFlags = 2;      // gimbal_lock_requested | gimbal_mode_flag
constexpr size_t kAttitude0 = 3;        // i16 gimbal_attitude[0..2], tenths of a degree
constexpr size_t kAttitude1 = 5;
constexpr size_t kAttitude2 = 7;
constexpr size_t kCameraFlags = 9;      // bits 7..6 == 2: recording
constexpr size_t kCameraAux1 = 10;
constexpr size_t kCameraAux2 = 11;
constexpr size_t kFocusReported = 12;
constexpr size_t kFocusModeCode = 13;   // 0x84 MF, 0x85 AFS, 0x86 AFC
constexpr size_t kZero = 14;
constexpr size_t kFocusParam1 = 15;     // u16
constexpr size_t kFocusParam3 = 17;     // u16
constexpr size_t kFocusPointX = 19;     // u16, x 1000
constexpr size_t kFocusPointY = 21;     // u16, x 1000
constexpr size_t kFocusParam21 = 23;
constexpr size_t kFocusParam31 = 24;
constexpr size_t kAeAux = 25;
constexpr size_t kGimbalLimit1 = 26;    // i16 each, in the order 1, 0, 3, 2
constexpr size_t kGimbalLimit0 = 28;
constexpr size_t kGimbalLimit3 = 30;
constexpr size_t kGimbalLimit2 = 32;
constexpr size_t kZoom = 34;            // u16, hundredths
constexpr size_t kZoomMax = 36;         // u16, hundredths
constexpr size_t kGimbalBits = 38;      // bit1 x 4 + bit5 x 2 + bit4
constexpr size_t kSize = 39;
}  // namespace state_message

// TrackingMessage: tracking_active, then x, y, w, h as u16 (x 65535).
namespace tracking_message {
constexpr size_t kActive = 2;
constexpr size_t kX = 3;
constexpr size_t kY = 5;
constexpr size_t kW = 7;
constexpr size_t kH = 9;
constexpr size_t kSize = 11;
}  // namespace tracking_message

// HistogramMessage: the 64 bins from byte 2.
namespace histogram_message {
constexpr size_t kBins = 2;
constexpr size_t kSize = kBins + kHistogramBinCount;
}  // namespace histogram_message

// --- The live video ring, POSIX shared memory -------------------------------
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
// its slots overwritten and must notice (the client library's RingReader).
//
// A clear (the relay's start, a clear request, a replaced or shrunk object
// put back) keeps clear_request non-zero from before the first byte it
// changes until every slot is zero and next_slot and last_part are 0; it
// goes to 0 last, and only then is the first new part written. So a slot
// read while clear_request was 0 both before and after it (loaded after the
// copy and after next_slot) is never one of before the clear, and a reader
// that sees clear_request set must drop what it holds and start again at
// slot 0 once it is 0.
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

// Reading the ring's header fields and slot headers (the reader's side of the
// layout above). The header fields sit at offsets 0, 2, 4 of a page-aligned
// mapping: naturally aligned, loaded whole.
inline uint16_t RingLoadField(const uint8_t* region, size_t offset)
{
    return __atomic_load_n(reinterpret_cast<const uint16_t*>(region + offset), __ATOMIC_ACQUIRE);
}

// A slot header as stored: length, part, chunk index, 0, ten marks.
struct RingSlotHeader {
    uint32_t length;
    uint16_t part;
    uint8_t chunk_index;
    bool marked;   // all ten written marks are 1 and byte 7 is 0
};

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

// Where the stream can be joined: a part that begins with a four-byte start
// code and a NAL unit header whose low four bits are 7 starts with a sequence
// parameter set (its data follows at kSpsDataOffset). Bytes past `length` are
// never read.
constexpr uint8_t kNalSequenceParameterSet = 7;
constexpr uint32_t kSpsDataOffset = 5;
inline bool StartsWithSequenceParameterSet(const uint8_t* data, size_t length)
{
    return length >= kSpsDataOffset && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1 &&
           (data[4] & 0x0f) == kNalSequenceParameterSet;
}

// The live resolution: each file one decimal number, no line end, rewritten
// (through NAME.new and a rename) when a parameter set changes the size;
// removed at the relay's start. The sizes come from the parameter set without
// range checks: a reader validates them.
constexpr const char* kVideoWidthPath = "/run/tarnwickrelay/video_width";
constexpr const char* kVideoHeightPath = "/run/tarnwickrelay/video_height";

// --- The gimbal attitude, POSIX shared memory -------------------------------
// Three i16 at bytes 0, 2, 4: gimbal_attitude[0..2] in tenths of a degree,
// the same values as the StateMessage's, each stored whole at every attitude
// report.
constexpr const char* kSharedAttitudeName = "/shared_camstate";
constexpr size_t kSharedAttitudeSize = 6;

// --- The remote-control record, POSIX shared memory -------------------------
// "/shared_rc_raw", exactly 1504 bytes, written by the remote-control process:
//      0 .. 1055   the writer's own bytes; not read by the relay
//   1056 .. 1407   slot_value: double[44], slot i at 1056 + 8 i
//   1408 .. 1411   not read
//   1412 .. 1499   slot_flag: u16[44], slot i at 1412 + 2 i (only the flags
//                  of slot 5 and slot 39 are read)
//   1500 .. 1503   not read
// A slot's sign is +1 for a value above 0, -1 below 0, and 0 for zero or a
// value that is not a number. Sticks and the EV axis run from -1.0 to 1.0.
constexpr const char* kRcRawStateName = "/shared_rc_raw";
constexpr size_t kRcRawStateSize = 1504;
constexpr size_t kRcSlotCount = 44;
constexpr size_t kRcSlotValueOffset = 1056;
constexpr size_t kRcSlotFlagOffset = 1412;

// The slots the relay reads. Slots 3, 10 to 15, 30 to 32 and 43 are not read.
enum RcSlot : uint8_t {
    kRcSlotStick0 = 0,               // gimbal stick, first argument of the speed / angle command
    kRcSlotStick1 = 1,               // second argument
    kRcSlotStick2 = 2,               // third argument
    kRcSlotNextPosition = 4,         // button: GimbalNextPosition
    kRcSlotLockSwitch = 5,           // switch (with its flag): sets gimbal_lock_requested
    kRcSlotOrientationLock = 6,      // button: toggles the gimbal orientation lock
    kRcSlotRecordShot = 7,           // level: records (video) or takes a photo (photo)
    kRcSlotCameraMode = 8,           // button: toggles photo and video
    kRcSlotFocusType = 9,            // button: toggles AFS and AFC
    kRcSlotZoomIn = 16,              // zoom: positive zooms in
    kRcSlotZoomOut = 17,             // zoom: positive zooms out
    kRcSlotZoomInAlternate = 18,     // zoom: positive zooms in
    kRcSlotExposureLock = 19,        // button: toggles the auto-exposure lock
    kRcSlotTracking = 20,            // button: toggles object tracking
    kRcSlotExposureModeRocker = 21,  // rocker: next / previous exposure program
    kRcSlotExposureModeNext = 22,
    kRcSlotExposureModePrev = 23,
    kRcSlotIsoRocker = 24,
    kRcSlotIsoNext = 25,
    kRcSlotIsoPrev = 26,
    kRcSlotShutterRocker = 27,
    kRcSlotShutterNext = 28,
    kRcSlotShutterPrev = 29,
    kRcSlotColorRocker = 33,
    kRcSlotColorNext = 34,
    kRcSlotColorPrev = 35,
    kRcSlotWhiteBalanceRocker = 36,
    kRcSlotWhiteBalanceNext = 37,
    kRcSlotWhiteBalancePrev = 38,
    kRcSlotEvAxis = 39,              // EV axis (with its flag): sets exposure compensation directly
    kRcSlotEvRocker = 40,
    kRcSlotEvNext = 41,
    kRcSlotEvPrev = 42,
};

// The relay's cycle over the record: every 20 ms once the main application
// has chosen a movement mode, every second before.
constexpr uint32_t kRcCyclePeriodMs = 20;
constexpr uint32_t kRcIdleCyclePeriodMs = 1000;

}  // namespace tarnwick::wire
