// The parameter-set reader: Exp-Golomb limits, hand-built parameter sets that
// steer every branch, data that ends early, hostile counts and random bytes,
// and the parameter sets of real encoders (tests/fixtures/h264).
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "video/include/h264parse.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Writes bits most significant first, with the Exp-Golomb codes.
struct BitWriter {
    Bytes bytes;
    size_t bits = 0;
    BitWriter& Bit(uint32_t bit)
    {
        if (bits % 8 == 0)
            bytes.push_back(0);
        if (bit)
            bytes.back() |= static_cast<uint8_t>(0x80 >> (bits % 8));
        ++bits;
        return *this;
    }
    BitWriter& Bits(uint64_t value, int count)
    {
        for (int i = count - 1; i >= 0; --i)
            Bit(static_cast<uint32_t>((value >> i) & 1));
        return *this;
    }
    BitWriter& Ue(uint32_t value)
    {
        uint64_t code = static_cast<uint64_t>(value) + 1;
        int length = 0;
        while ((code >> length) > 1)
            ++length;
        return Bits(0, length).Bits(code, length + 1);
    }
    BitWriter& Se(int32_t value)
    {
        int64_t v = value;
        return Ue(static_cast<uint32_t>(v > 0 ? 2 * v - 1 : -2 * v));
    }
    Bytes Finish() { return Bit(1).bytes; }  // the rbsp stop bit
};

struct Sps {
    uint32_t profile_idc = 100, chroma_format_idc = 1;
    std::vector<std::vector<int32_t>> scaling_lists;  // deltas per list; none: no matrix
    uint32_t poc_type = 0;
    std::vector<int32_t> poc_cycle;
    uint32_t width_mbs = 120, height_map_units = 68;
    bool frame_mbs_only = true;
    std::vector<uint32_t> crop;  // left, right, top, bottom; empty: no cropping
};

Sps Make(void (*edit)(Sps&))
{
    Sps sps;
    edit(sps);
    return sps;
}

// A sequence parameter set from profile_idc on; *end_bit is the bit count up
// to and including vui_parameters_present_flag.
Bytes Build(const Sps& s, size_t* end_bit = nullptr)
{
    BitWriter w;
    w.Bits(s.profile_idc, 8).Bits(0, 8).Bits(40, 8).Ue(0);
    if (s.profile_idc == 100 || s.profile_idc == 244) {
        w.Ue(s.chroma_format_idc);
        if (s.chroma_format_idc == 3)
            w.Bit(0);
        w.Ue(0).Ue(0).Bit(0).Bit(!s.scaling_lists.empty());
        for (size_t i = 0; !s.scaling_lists.empty() && i < 8; ++i) {
            std::vector<int32_t> deltas = i < s.scaling_lists.size() ? s.scaling_lists[i] : std::vector<int32_t>{};
            w.Bit(!deltas.empty());
            // The deltas given, then zeros to the list's length; none after nextScale reaches 0.
            int64_t last = 8;
            for (size_t j = 0; !deltas.empty() && j < (i < 6 ? 16u : 64u); ++j) {
                int32_t delta = j < deltas.size() ? deltas[j] : 0;
                w.Se(delta);
                last = (last + delta + 256) % 256;
                if (last == 0)
                    break;
            }
        }
    }
    w.Ue(0).Ue(s.poc_type);
    if (s.poc_type == 0)
        w.Ue(2);
    if (s.poc_type == 1) {
        w.Bit(0).Se(-3).Se(5).Ue(static_cast<uint32_t>(s.poc_cycle.size()));
        for (int32_t offset : s.poc_cycle)
            w.Se(offset);
    }
    w.Ue(4).Bit(0).Ue(s.width_mbs - 1).Ue(s.height_map_units - 1).Bit(s.frame_mbs_only);
    if (!s.frame_mbs_only)
        w.Bit(1);
    w.Bit(1).Bit(!s.crop.empty());
    for (uint32_t offset : s.crop)
        w.Ue(offset);
    w.Bit(0);
    if (end_bit != nullptr)
        *end_bit = w.bits;
    return w.Finish();
}

struct Size {
    uint32_t width = 0xdead, height = 0xbeef;
    int result = 0;
};

// Parses a heap copy of exactly `length` bytes, so that AddressSanitizer sees any read past them.
Size Parse(const Bytes& data, size_t length = SIZE_MAX)
{
    length = std::min(length, data.size());
    Size size;
    std::unique_ptr<uint8_t[]> copy(new uint8_t[length + 1]);
    std::copy(data.begin(), data.begin() + length, copy.get());
    H264BitReader reader;
    size.result =
        reader.ParseSequenceParameterSet(copy.get(), static_cast<uint32_t>(length), &size.width, &size.height);
    EXPECT_LE(reader.m_nCurrentBit, reader.m_nLength * 8);
    return size;
}

TEST(H264BitReaderTest, LongestExpGolombCodesAreComputedInThirtyTwoBits)
{
    // 32 zeros, 1, then 5: 2^32 - 1 + 5 wraps to 4. 33 zeros stop the prefix
    // at 32 with no terminating 1. The largest odd code is INT32_MIN.
    Bytes code32 = BitWriter().Bits(0, 32).Bit(1).Bits(5, 32).Finish();
    Bytes code33 = BitWriter().Bits(0, 33).Bit(1).Bits(0, 31).Bits(0xff, 8).Finish();
    Bytes se = BitWriter().Bits(0, 32).Bit(1).Bits(0, 32).Finish();
    H264BitReader reader;
    reader.Reset(code32.data(), static_cast<uint32_t>(code32.size()));
    EXPECT_EQ(reader.ReadUe(), 4u);
    EXPECT_EQ(reader.m_nCurrentBit, 65u);
    reader.Reset(code33.data(), static_cast<uint32_t>(code33.size()));
    EXPECT_EQ(reader.ReadUe(), 0x7fffffffu);
    EXPECT_EQ(reader.ReadBits(8), 0xffu);
    reader.Reset(se.data(), static_cast<uint32_t>(se.size()));
    EXPECT_EQ(reader.ReadSe(), INT32_MIN);
}

TEST(H264ParameterSetTest, PictureSizes)
{
    const struct { const char* what; Sps sps; uint32_t width, height; } cases[] = {
        {"crop bottom 4", Make([](Sps& s) { s.crop = {0, 0, 0, 4}; }), 1920, 1080},
        {"3840x2160", Make([](Sps& s) { s.width_mbs = 240, s.height_map_units = 135; }), 3840, 2160},
        {"Baseline reads no chroma format",
         Make([](Sps& s) { s.profile_idc = 66, s.poc_type = 2, s.width_mbs = 20, s.height_map_units = 15; }), 320, 240},
        {"fields: crop unit 2",
         Make([](Sps& s) { s.height_map_units = 34, s.frame_mbs_only = false, s.crop = {0, 0, 0, 2}; }), 1920, 1084},
        {"4:4:4 crop unit 2",
         Make([](Sps& s) { s.profile_idc = 244, s.chroma_format_idc = 3, s.crop = {1, 2, 3, 4}; }), 1914, 1074},
        {"poc type 1", Make([](Sps& s) {
             s.poc_type = 1, s.poc_cycle = {7, -300, 100000}, s.width_mbs = 40, s.height_map_units = 23;
             s.crop = {0, 0, 0, 4};
         }), 640, 360},
        // Full, default (nextScale 0 at once), wrapping and stopped-short lists.
        {"scaling lists", Make([](Sps& s) {
             s.scaling_lists = {std::vector<int32_t>(16, 1), {}, {-8}, {100, 100, 56}, {}, {}, {-200}, {3, 4, -15}};
         }), 1920, 1088},
        {"Main reads no chroma format", Make([](Sps& s) { s.profile_idc = 77, s.chroma_format_idc = 3; }), 1920, 1088},
        // No range checks: a crop wider than the picture wraps; huge deltas stay in range.
        {"wild crop", Make([](Sps& s) { s.width_mbs = 1, s.crop = {0, 100, 0, 0}; }), 16u - 200u, 1088},
        {"huge deltas", Make([](Sps& s) { s.scaling_lists = {{INT32_MAX, INT32_MIN + 1, INT32_MAX}}; }), 1920, 1088},
    };
    for (const auto& c : cases) {
        Size size = Parse(Build(c.sps));
        EXPECT_EQ(size.result, 0) << c.what;
        EXPECT_EQ(size.width, c.width) << c.what;
        EXPECT_EQ(size.height, c.height) << c.what;
    }
}

TEST(H264ParameterSetTest, DataThatEndsEarlyOrLiesGivesNoSize)
{
    const Sps cases[] = {Sps{}, Make([](Sps& s) { s.poc_type = 1, s.poc_cycle = {1, 2, 3}; }),
                         Make([](Sps& s) { s.scaling_lists = {{1, 2, 3}, {}, {}, {}, {}, {}, {-1, -2}}; })};
    for (const Sps& sps : cases) {
        size_t end_bit = 0;
        Bytes full = Build(sps, &end_bit);
        size_t needed = (end_bit + 7) / 8;
        ASSERT_EQ(Parse(full, needed).result, 0);
        for (size_t length = 0; length < needed; ++length) {
            Size size = Parse(full, length);
            EXPECT_EQ(size.result, -1) << "length " << length;
            EXPECT_EQ(size.width, 0xdeadu);
            EXPECT_EQ(size.height, 0xbeefu);
        }
    }
    // 2^32 - 2 announced cycle offsets, then nothing; every scaling list present, cut short.
    EXPECT_EQ(Parse(BitWriter().Bits(77, 8).Bits(0, 16).Ue(0).Ue(0).Ue(1).Bit(0).Se(0).Se(0).Ue(0xfffffffe).Finish())
                  .result, -1);
    BitWriter m;
    m.Bits(100, 8).Bits(0, 16).Ue(0).Ue(1).Ue(0).Ue(0).Bit(0).Bit(1);
    for (int i = 0; i < 8; ++i)
        m.Bit(1).Se(1);
    EXPECT_EQ(Parse(m.Finish()).result, -1);

    std::mt19937 random(20241122);
    for (int round = 0; round < 20000; ++round) {
        Bytes data(random() % 64);
        for (uint8_t& byte : data)
            byte = static_cast<uint8_t>(random() % 4 == 0 ? 0 : random());
        Size size = Parse(data);
        EXPECT_TRUE(size.result == 0 || (size.result == -1 && size.width == 0xdeadu && size.height == 0xbeefu));
    }
}

// The reader's sizes for real encoders' parameter sets; the decoder's (ffprobe,
// tests/fixtures/h264/sizes.txt) are in each name.
TEST(H264ParameterSetTest, RealEncoderParameterSets)
{
    const struct { const char* name; uint32_t width, height; } cases[] = {
        {"baseline_320x240", 320, 240}, {"main_854x480", 854, 480}, {"main_1920x1080", 1920, 1080},
        {"high_3840x2160", 3840, 2160}, {"high10_640x360", 640, 360}, {"avcintra50_1440x1080", 1440, 1080},
        {"avcintra50_960x720", 960, 720},
        // A decoder counts 4 rows per crop offset in field-coded pictures; here 2.
        {"interlaced_1920x1080", 1920, 1084},
        // A decoder counts 1 row per offset in 4:2:2 and 4:4:4; here 2.
        {"high422_1920x1080", 1920, 1072}, {"high444_1920x1080", 1920, 1072},
    };
    for (const auto& c : cases) {
        std::ifstream file(std::string(TARNWICK_SOURCE_DIR) + "/tests/fixtures/h264/" + c.name + ".sps",
                           std::ios::binary);
        Bytes nal((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        ASSERT_TRUE(StartsWithSequenceParameterSet(nal.data(), static_cast<uint32_t>(nal.size()))) << c.name;
        Bytes data(nal.begin() + kSpsDataOffset, nal.end());
        Size size = Parse(data);
        ASSERT_EQ(size.result, 0) << c.name;
        EXPECT_EQ(size.width, c.width) << c.name;
        EXPECT_EQ(size.height, c.height) << c.name;
        // Every encoder here wrote 25 fps into the VUI, behind emulation prevention.
        Bytes plain(data.size());
        plain.resize(RemoveEmulationPrevention(data.data(), static_cast<uint32_t>(data.size()), plain.data()));
        EXPECT_LT(plain.size(), data.size()) << c.name;
        H264BitReader reader;
        uint32_t time_scale = 0, units = 0;
        ASSERT_EQ(reader.ParsePictureRate(plain.data(), static_cast<uint32_t>(plain.size()), &time_scale, &units), 0);
        EXPECT_EQ(time_scale, 25u * units) << c.name;
    }
}

}  // namespace
