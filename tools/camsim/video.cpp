#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "camsim.h"
#include "video/include/h264parse.h"

namespace {

// Access units of the loaded file, or of the generated stream.
std::vector<uint8_t> stream;
std::vector<size_t> unit_starts;   // offsets of each access unit, then the end
size_t next_unit = 0;

bool IsStartCode(const uint8_t* p, size_t left)
{
    return left >= 3 && p[0] == 0 && p[1] == 0 && p[2] == 1;
}

// NAL types that begin a new picture, with the parameter sets and SEI that go
// in front of it: a new access unit starts at an SPS, PPS, SEI, AUD, or at a
// slice following a slice.
void SplitAccessUnits()
{
    unit_starts.clear();
    bool slice_seen = false;
    size_t unit_begin = 0;
    for (size_t i = 0; i + 3 < stream.size(); ++i) {
        if (!IsStartCode(&stream[i], stream.size() - i))
            continue;
        size_t code_begin = (i > 0 && stream[i - 1] == 0) ? i - 1 : i;
        uint8_t nal_type = stream[i + 3] & 0x1f;
        bool is_slice = nal_type == 1 || nal_type == 5;
        bool first_slice_of_picture = is_slice && (i + 4 < stream.size()) && (stream[i + 4] & 0x80);
        bool begins_unit = (nal_type >= 6 && nal_type <= 9) || (is_slice && first_slice_of_picture);
        if (begins_unit && slice_seen) {
            unit_starts.push_back(unit_begin);
            unit_begin = code_begin;
            slice_seen = false;
        }
        if (is_slice)
            slice_seen = true;
        i += 2;
    }
    unit_starts.push_back(unit_begin);
    unit_starts.push_back(stream.size());
}

// A stand-in stream: start codes and NAL headers of an I picture every 30
// pictures and P pictures between, filled with bytes free of start codes.
void GenerateStream()
{
    uint32_t noise = 12345;
    for (int picture = 0; picture < 60; ++picture) {
        bool key = picture % 30 == 0;
        size_t size = key ? 40000 : 8000 + (picture * 997) % 4000;
        const uint8_t header[] = {0, 0, 0, 1, static_cast<uint8_t>(key ? 0x65 : 0x41), 0x88};
        stream.insert(stream.end(), header, header + sizeof header);
        for (size_t i = 0; i < size; ++i) {
            noise = noise * 1103515245u + 12345u;
            stream.push_back(static_cast<uint8_t>((noise >> 16) | 0x01));
        }
    }
}

// The picture rate that the file's first sequence parameter set announces in
// its VUI timing, rounded to whole pictures per second; 0 when it has none.
int FilePictureRate()
{
    for (size_t i = 0; i + 4 < stream.size(); ++i) {
        if (!IsStartCode(&stream[i], stream.size() - i) || (stream[i + 3] & 0x1f) != kNalSequenceParameterSet)
            continue;
        size_t begin = i + 4;
        size_t end = begin;
        while (end < stream.size() && !IsStartCode(&stream[end], stream.size() - end))
            ++end;
        std::vector<uint8_t> plain(end - begin);
        uint32_t length = RemoveEmulationPrevention(&stream[begin], static_cast<uint32_t>(plain.size()), plain.data());
        H264BitReader reader;
        uint32_t time_scale = 0, units = 0;
        if (reader.ParsePictureRate(plain.data(), length, &time_scale, &units) != 0)
            return 0;
        return static_cast<int>((time_scale + units / 2) / units);
    }
    return 0;
}

}  // namespace

int SimOpenVideo(const char* path)
{
    stream.clear();
    if (path == nullptr) {
        GenerateStream();
    } else {
        FILE* file = fopen(path, "rb");
        if (file == nullptr)
            return -1;
        uint8_t chunk[65536];
        size_t count;
        while ((count = fread(chunk, 1, sizeof chunk, file)) > 0)
            stream.insert(stream.end(), chunk, chunk + count);
        fclose(file);
        if (stream.empty())
            return -1;
    }
    SplitAccessUnits();
    next_unit = 0;
    // Played at its own pace unless --fps says otherwise.
    int rate = FilePictureRate();
    if (!sim.options.fps_given && rate > 0 && rate <= 1000)
        sim.options.fps = rate;
    return 0;
}

size_t SimNextVideoFrame(const uint8_t** data)
{
    if (unit_starts.size() < 2)
        return 0;
    if (next_unit + 1 >= unit_starts.size())
        next_unit = 0;
    size_t begin = unit_starts[next_unit];
    size_t end = unit_starts[next_unit + 1];
    ++next_unit;
    *data = stream.data() + begin;
    return end - begin;
}
