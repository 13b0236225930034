#pragma once
// h264parse: the picture size from an H.264 sequence parameter set.
//
// H264BitReader reads one parameter set in place, most significant bit first
// (bit i is bit 7 - (i mod 8) of byte i / 8), with the Exp-Golomb codes of
// H.264 clause 9.1, and walks the sequence parameter set syntax (clause
// 7.3.2.1.1) up to the frame cropping to give width and height. It copies and
// allocates nothing. The data is the NAL unit payload as it arrived:
// emulation-prevention bytes (00 00 03) are not removed and read as data.
//
// Sizes follow the 4:2:0 crop rule whatever the stream is: the crop offsets
// count 2 pixels in both directions, also for 4:2:2 and 4:4:4 chroma and for
// field-coded pictures, where a decoder counts 1 or 4 (the resolution files of
// the frame buffers carry this rule's numbers).
//
// Data that ends early: a bit is only read while m_nCurrentBit < m_nLength * 8,
// so m_nCurrentBit <= m_nLength * 8 holds after every read. Asking for a bit
// past the end reads nothing, gives 0 and drops the data (m_pBuffer becomes
// null, see IsExhausted): every later read gives 0 without touching memory,
// and the walk, which looks at it in each of its loops and at the end, stops
// and delivers no size, so the caller keeps the size it had. Values out of the
// standard's ranges are not checked: they only steer the walk, and each loop
// that they bound ends once the data is spent.
//
// One reader at a time, on the camera receive thread only.
#include <cstdint>

#include "tarnwickclient/interface.h"

using namespace tarnwick::wire;

struct H264BitReader {
    uint32_t m_nLength = 0;               // length of the data in bytes
    uint32_t m_nCurrentBit = 0;           // index of the next bit to read
    const uint8_t* m_pBuffer = nullptr;   // first byte of the data; not owned; null once exhausted

    // Starts reading `length` bytes at `data`.
    void Reset(const uint8_t* data, uint32_t length);
    // True once a read went past the end of the data.
    bool IsExhausted() const { return m_pBuffer == nullptr; }

    // The next bit, 0 or 1 (0 past the end).
    uint32_t ReadBit();
    // `count` bits (1 to 32; 0 gives 0), the first one most significant.
    uint32_t ReadBits(uint32_t count);
    // ue(v): at most 33 leading zero bits are read; 33 of them count as 32
    // with no terminating 1. The value is 2^n - 1 + the n bits after, in 32 bits.
    uint32_t ReadUe();
    // se(v): k = ue(v); (k + 1) / 2 for odd k, -(k / 2) for even k (in 32
    // bits: the largest odd k gives INT32_MIN).
    int32_t ReadSe();

    // Walks a sequence parameter set whose data begins with profile_idc (the
    // byte after the NAL unit header). Returns 0 and stores width and height
    // in pixels, both at the end; returns -1 and stores nothing when the data
    // ends before the walk does.
    int ParseSequenceParameterSet(const uint8_t* data, uint32_t length, uint32_t* width, uint32_t* height);

    // Walks on through the VUI of the same parameter set to its timing and
    // gives the picture rate as time_scale / (2 * num_units_in_tick). Returns
    // 0, or -1 when the set has no timing or ends early. The timing fields
    // hold zero bytes, so give it data without emulation-prevention bytes
    // (see RemoveEmulationPrevention). For tools that play a file at its own
    // pace; the service reads only the size.
    int ParsePictureRate(const uint8_t* data, uint32_t length, uint32_t* time_scale, uint32_t* units_in_two_ticks);

private:
    // Reads everything up to and including vui_parameters_present_flag.
    struct PictureSize {
        uint32_t width;
        uint32_t height;
        bool vui_present;
    };
    int WalkToVui(const uint8_t* data, uint32_t length, PictureSize* size);
    void SkipScalingList(uint32_t entries);
};

// Copies `length` bytes of a NAL unit payload to `out` (room for `length`)
// without its emulation-prevention bytes (the 03 of 00 00 03). Returns the
// number of bytes written.
uint32_t RemoveEmulationPrevention(const uint8_t* data, uint32_t length, uint8_t* out);

// kSpsDataOffset, StartsWithSequenceParameterSet: tarnwickclient/interface.h
// (a reader of the ring joins the stream where this reader starts).
