// The parameter-set reader: 32-bit Exp-Golomb limits, hand-built parameter sets for branches real encoders
// skip, data that ends early, hostile bytes, and real encoders' parameter sets (tests/fixtures/h264).
#include <gtest/gtest.h>

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
    BitWriter& Bits(uint64_t value, int count)
    {
        for (int i = count - 1; i >= 0; --i, ++bits) {
            if (bits % 8 == 0)
                bytes.push_back(0);
            bytes.back() |= static_cast<uint8_t>(((value >> i) & 1) << (7 - bits % 8));
        }
        return *this;
    }
    BitWriter& Ue(uint32_t value)
    {
        int length = 0;
        while (((uint64_t{value} + 1) >> length) > 1)
            ++length;
        return Bits(0, length).Bits(uint64_t{value} + 1, length + 1);
    }
    BitWriter& Se(int32_t v) { return Ue(static_cast<uint32_t>(v > 0 ? 2 * int64_t{v} - 1 : -2 * int64_t{v})); }
    Bytes Finish() { return Bits(1, 1).bytes; }   // the rbsp stop bit
};

struct Sps {
    uint32_t profile_idc = 100, chroma_format_idc = 1;
    std::vector<std::vector<int32_t>> scaling_lists;   // delta_scale values per list; none: no matrix
    uint32_t poc_type = 0;
    std::vector<int32_t> poc_cycle;
    uint32_t width_mbs = 120;
    std::vector<uint32_t> crop;   // left, right, top, bottom; empty: no cropping
};

// A sequence parameter set from profile_idc on, 68 macroblock rows high; *end_bit counts the bits up to
// and including vui_parameters_present_flag.
Bytes Build(const Sps& s, size_t* end_bit = nullptr)
{
    BitWriter w;
    w.Bits(s.profile_idc, 8).Bits(0, 8).Bits(40, 8).Ue(0);
    if (s.profile_idc == 100 || s.profile_idc == 244) {
        w.Ue(s.chroma_format_idc).Bits(0, s.chroma_format_idc == 3 ? 1 : 0);
        w.Ue(0).Ue(0).Bits(0, 1).Bits(!s.scaling_lists.empty(), 1);
        for (size_t i = 0; !s.scaling_lists.empty() && i < 8; ++i) {
            bool present = i < s.scaling_lists.size() && !s.scaling_lists[i].empty();
            w.Bits(present, 1);
            // The deltas given, then zeros to the list's length; none after nextScale reaches 0.
            for (int64_t j = 0, last = 8; present && j < (i < 6 ? 16 : 64); ++j) {
                int32_t delta = j < static_cast<int64_t>(s.scaling_lists[i].size()) ? s.scaling_lists[i][j] : 0;
                w.Se(delta);
                if ((last = (last + delta + 256) % 256) == 0)
                    break;
            }
        }
    }
    w.Ue(0).Ue(s.poc_type);
    if (s.poc_type == 0)
        w.Ue(2);
    if (s.poc_type == 1) {
        w.Bits(0, 1).Se(-3).Se(5).Ue(static_cast<uint32_t>(s.poc_cycle.size()));
        for (int32_t offset : s.poc_cycle)
            w.Se(offset);
    }
    w.Ue(4).Bits(0, 1).Ue(s.width_mbs - 1).Ue(67).Bits(3, 2).Bits(!s.crop.empty(), 1);
    for (uint32_t offset : s.crop)
        w.Ue(offset);
    w.Bits(0, 1);
    if (end_bit != nullptr)
        *end_bit = w.bits;
    return w.Finish();
}

struct Size { int result; uint32_t width = 0xdead, height = 0xbeef; };

// Parses a heap copy of exactly `length` bytes, so that AddressSanitizer sees any read past them.
Size Parse(const Bytes& data, size_t length = SIZE_MAX)
{
    length = std::min(length, data.size());
    std::unique_ptr<uint8_t[]> copy(new uint8_t[length + 1]);
    std::copy(data.begin(), data.begin() + length, copy.get());
    H264BitReader reader;
    Size size;
    size.result =
        reader.ParseSequenceParameterSet(copy.get(), static_cast<uint32_t>(length), &size.width, &size.height);
    EXPECT_LE(reader.m_nCurrentBit, reader.m_nLength * 8);
    EXPECT_TRUE(size.result == 0 || (size.result == -1 && size.width == 0xdead && size.height == 0xbeef))
        << "a walk that fails stores nothing";
    return size;
}

TEST(H264BitReaderTest, LongestExpGolombCodesAreComputedInThirtyTwoBits)
{
    // 32 zeros, 1, then 5: 2^32 - 1 + 5 wraps to 4. 33 zeros end the prefix at 32 with no terminating 1
    // (then 1 and 31 zeros). The largest odd code is INT32_MIN.
    Bytes codes = BitWriter().Bits(0, 32).Bits(1, 1).Bits(5, 32).Bits(0, 33).Bits(1, 1).Bits(0, 31)
                      .Bits(0, 32).Bits(1, 1).Bits(0, 32).Finish();
    H264BitReader reader;
    reader.Reset(codes.data(), static_cast<uint32_t>(codes.size()));
    EXPECT_EQ(reader.ReadUe(), 4u);
    EXPECT_EQ(reader.ReadUe(), 0x7fffffffu);
    EXPECT_EQ(reader.m_nCurrentBit, 130u);
    EXPECT_EQ(reader.ReadSe(), INT32_MIN);
}

TEST(H264ParameterSetTest, HandBuiltSetsGiveTheirSizeAndNoneWhenCutShort)
{
    const struct { const char* what; Sps sps; uint32_t width, height; } cases[] = {
        {"4:4:4, crop left, right, top, bottom in unit 2", {244, 3, {}, 0, {}, 120, {1, 2, 3, 4}}, 1914, 1074},
        {"pic_order_cnt_type 1 with three offsets", {100, 1, {}, 1, {7, -300, 100000}, 40, {}}, 640, 1088},
        // Full, default (nextScale 0 at once), wrapping, stopped-short and huge deltas; lists of 16 and 64.
        {"scaling lists", {100, 1, {std::vector<int32_t>(16, 1), {}, {-8}, {100, 100, 56}, {INT32_MAX, INT32_MIN + 1},
                                    {}, {-200}, {3, 4, -15}}, 0, {}, 120, {}}, 1920, 1088},
        {"unchecked: a crop wider than the picture wraps", {100, 1, {}, 0, {}, 1, {0, 100, 0, 0}}, 16u - 200, 1088},
    };
    for (const auto& c : cases) {
        size_t end_bit = 0;
        Bytes full = Build(c.sps, &end_bit);
        Size size = Parse(full, (end_bit + 7) / 8);   // up to the byte holding vui_parameters_present_flag
        EXPECT_EQ(size.result, 0) << c.what;
        EXPECT_EQ(size.width, c.width) << c.what;
        EXPECT_EQ(size.height, c.height) << c.what;
        for (size_t length = 0; length < (end_bit + 7) / 8; ++length)
            EXPECT_EQ(Parse(full, length).result, -1) << c.what << ", cut to " << length;
    }
}

TEST(H264ParameterSetTest, HostileDataEndsTheWalkWithTheData)
{
    // 2^32 - 2 announced cycle offsets, then nothing.
    EXPECT_EQ(Parse(BitWriter().Bits(77, 8).Bits(0, 16).Ue(0).Ue(0).Ue(1).Bits(0, 1).Se(0).Se(0).Ue(0xfffffffe)
                        .Finish()).result, -1);
    std::mt19937 random(20241122);
    for (int round = 0; round < 20000; ++round) {
        Bytes data(random() % 64);
        for (uint8_t& byte : data)
            byte = static_cast<uint8_t>(random() % 4 == 0 ? 0 : random());
        Parse(data);
    }
}

// The reader's sizes for real encoders' parameter sets; the decoder's (ffprobe, sizes.txt) are in the names.
TEST(H264ParameterSetTest, RealEncoderParameterSets)
{
    const struct { const char* name; uint32_t width, height; } cases[] = {
        {"baseline_320x240", 320, 240}, {"main_854x480", 854, 480}, {"main_1920x1080", 1920, 1080},
        {"main_1920x1440", 1920, 1440}, {"high_3840x2160", 3840, 2160}, {"high10_640x360", 640, 360}, {"avcintra50_1440x1080", 1440, 1080},
        {"avcintra50_960x720", 960, 720},
        // A decoder counts 4 rows per crop offset for fields, 1 in 4:2:2 and 4:4:4; the reader 2 throughout.
        {"interlaced_1920x1080", 1920, 1084}, {"high422_1920x1080", 1920, 1072}, {"high444_1920x1080", 1920, 1072},
    };
    for (const auto& c : cases) {
        std::ifstream file(std::string(TARNWICK_SOURCE_DIR) + "/tests/fixtures/h264/" + c.name + ".sps");
        Bytes nal((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        ASSERT_TRUE(StartsWithSequenceParameterSet(nal.data(), static_cast<uint32_t>(nal.size()))) << c.name;
        Bytes data(nal.begin() + kSpsDataOffset, nal.end());
        Size size = Parse(data);
        EXPECT_EQ(size.result, 0) << c.name;
        EXPECT_EQ(size.width, c.width) << c.name;
        EXPECT_EQ(size.height, c.height) << c.name;
        // Every encoder here wrote 25 fps into the VUI timing, whose zero bytes carry emulation prevention.
        Bytes plain(data.size());
        plain.resize(RemoveEmulationPrevention(data.data(), static_cast<uint32_t>(data.size()), plain.data()));
        EXPECT_LT(plain.size(), data.size()) << c.name;
        uint32_t time_scale = 0, units = 0;
        EXPECT_EQ(H264BitReader().ParsePictureRate(plain.data(), static_cast<uint32_t>(plain.size()), &time_scale,
                                                   &units), 0) << c.name;
        EXPECT_EQ(time_scale, 25u * units) << c.name;
    }
}

}  // namespace
