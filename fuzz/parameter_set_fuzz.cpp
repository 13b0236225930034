// The H.264 sequence parameter-set reader, as the video path calls it: on the
// bytes of a payload that starts with a start code and an SPS NAL header
// (the seeds are the real-encoder fixtures of tests/fixtures/h264), then on
// the same data without emulation-prevention bytes for the picture rate. The
// data is copied to a buffer of its exact size, so a read past its end is
// seen by AddressSanitizer.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_world.h"
#include "video/include/h264parse.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    EnterFuzzWorld();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 1 << 16)
        return 0;
    uint32_t length = static_cast<uint32_t>(size);
    std::vector<uint8_t> payload(data, data + size);
    if (!StartsWithSequenceParameterSet(payload.data(), length))
        return 0;
    std::vector<uint8_t> set(payload.begin() + kSpsDataOffset, payload.end());
    H264BitReader reader;
    uint32_t width = 0, height = 0;
    reader.ParseSequenceParameterSet(set.data(), static_cast<uint32_t>(set.size()), &width, &height);

    std::vector<uint8_t> plain(set.size());
    uint32_t plain_length = RemoveEmulationPrevention(set.data(), static_cast<uint32_t>(set.size()), plain.data());
    if (plain_length > plain.size())
        abort();
    plain.resize(plain_length);
    uint32_t time_scale = 0, units = 0;
    reader.ParsePictureRate(plain.data(), plain_length, &time_scale, &units);
    return 0;
}
