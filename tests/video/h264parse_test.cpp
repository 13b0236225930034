// The parameter-set reader: Exp-Golomb codes, the walk through hand-built
// parameter sets that steer every branch, data that ends early, and the
// parameter sets of real encoders (tests/fixtures/h264, made by the script
// there).
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "video/include/h264parse.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Writes bits most significant first, with the Exp-Golomb codes.
class BitWriter {
public:
    BitWriter& Bits(uint64_t value, int count)
    {
        for (int i = count - 1; i >= 0; --i)
            Bit(static_cast<uint32_t>((value >> i) & 1));
        return *this;
    }
    BitWriter& Bit(uint32_t bit)
    {
        if (bits_ % 8 == 0)
            bytes_.push_back(0);
        if (bit)
            bytes_.back() |= static_cast<uint8_t>(0x80 >> (bits_ % 8));
        ++bits_;
        return *this;
    }
    BitWriter& Ue(uint32_t value)
    {
        uint64_t code = static_cast<uint64_t>(value) + 1;
        int length = 0;
        while ((code >> length) > 1)
            ++length;
        Bits(0, length);
        return Bits(code, length + 1);
    }
    BitWriter& Se(int32_t value)
    {
        int64_t v = value;
        return Ue(static_cast<uint32_t>(v > 0 ? 2 * v - 1 : -2 * v));
    }
    // The rbsp stop bit and alignment, as a real parameter set ends.
    Bytes Finish()
    {
        Bit(1);
        return bytes_;
    }
    size_t bit_count() const { return bits_; }

private:
    Bytes bytes_;
    size_t bits_ = 0;
};

struct Sps {
    uint32_t profile_idc = 100;
    uint32_t chroma_format_idc = 1;
    bool scaling_matrix = false;
    // Per list: the delta_scale values written (empty: list not present).
    std::vector<std::vector<int32_t>> scaling_lists;
    uint32_t poc_type = 0;
    std::vector<int32_t> poc_cycle;
    uint32_t width_mbs = 120, height_map_units = 68;
    bool frame_mbs_only = true;
    bool crop = false;
    uint32_t crop_left = 0, crop_right = 0, crop_top = 0, crop_bottom = 0;
};

// The deltas of a scaling list as an encoder writes them: the given ones,
// then zeros up to the list's length, none after nextScale reaches 0.
std::vector<int32_t> CompleteScalingList(std::vector<int32_t> deltas, size_t entries)
{
    std::vector<int32_t> written;
    int64_t last = 8;
    for (size_t j = 0; j < entries; ++j) {
        int32_t delta = j < deltas.size() ? deltas[j] : 0;
        written.push_back(delta);
        int64_t next = (last + delta + 256) % 256;
        if (next == 0)
            break;
        last = next;
    }
    return written;
}

struct Built {
    Bytes bytes;
    size_t end_bit;   // bits up to and including vui_parameters_present_flag
};

// A sequence parameter set from profile_idc on, as the reader gets it.
Built BuildWithEnd(const Sps& s)
{
    BitWriter w;
    w.Bits(s.profile_idc, 8).Bits(0, 8).Bits(40, 8).Ue(0);
    bool high = s.profile_idc == 100 || s.profile_idc == 110 || s.profile_idc == 122 || s.profile_idc == 244 ||
                s.profile_idc == 44 || s.profile_idc == 83 || s.profile_idc == 86 || s.profile_idc == 118;
    if (high) {
        w.Ue(s.chroma_format_idc);
        if (s.chroma_format_idc == 3)
            w.Bit(0);
        w.Ue(0).Ue(0).Bit(0).Bit(s.scaling_matrix);
        if (s.scaling_matrix) {
            for (size_t i = 0; i < 8; ++i) {
                bool present = i < s.scaling_lists.size() && !s.scaling_lists[i].empty();
                w.Bit(present);
                if (present)
                    for (int32_t delta : CompleteScalingList(s.scaling_lists[i], i < 6 ? 16 : 64))
                        w.Se(delta);
            }
        }
    }
    w.Ue(0).Ue(s.poc_type);
    if (s.poc_type == 0) {
        w.Ue(2);
    } else if (s.poc_type == 1) {
        w.Bit(0).Se(-3).Se(5).Ue(static_cast<uint32_t>(s.poc_cycle.size()));
        for (int32_t offset : s.poc_cycle)
            w.Se(offset);
    }
    w.Ue(4).Bit(0).Ue(s.width_mbs - 1).Ue(s.height_map_units - 1).Bit(s.frame_mbs_only);
    if (!s.frame_mbs_only)
        w.Bit(1);
    w.Bit(1).Bit(s.crop);
    if (s.crop)
        w.Ue(s.crop_left).Ue(s.crop_right).Ue(s.crop_top).Ue(s.crop_bottom);
    w.Bit(0);
    size_t end_bit = w.bit_count();
    return {w.Finish(), end_bit};
}

Bytes Build(const Sps& s)
{
    return BuildWithEnd(s).bytes;
}

struct Size {
    uint32_t width = 0xdead, height = 0xbeef;
    int result = 0;
};

// Parses a heap copy of exactly the given bytes, so that AddressSanitizer
// sees any read past them.
Size Parse(const Bytes& data, uint32_t length)
{
    Size size;
    std::unique_ptr<uint8_t[]> copy(new uint8_t[length > 0 ? length : 1]);
    std::copy(data.begin(), data.begin() + length, copy.get());
    H264BitReader reader;
    size.result = reader.ParseSequenceParameterSet(copy.get(), length, &size.width, &size.height);
    EXPECT_LE(reader.m_nCurrentBit, reader.m_nLength * 8);
    return size;
}

Size Parse(const Bytes& data)
{
    return Parse(data, static_cast<uint32_t>(data.size()));
}

TEST(H264BitReaderTest, ReadsMostSignificantBitFirst)
{
    const uint8_t data[] = {0xa5, 0x0f, 0x80, 0x00, 0x01};
    H264BitReader reader;
    reader.Reset(data, sizeof data);
    EXPECT_EQ(reader.ReadBit(), 1u);
    EXPECT_EQ(reader.ReadBit(), 0u);
    EXPECT_EQ(reader.m_nCurrentBit, 2u);
    EXPECT_EQ(reader.ReadBits(6), 0x25u);
    EXPECT_EQ(reader.ReadBits(9), 0x01fu);
    EXPECT_EQ(reader.ReadBits(0), 0u);
    reader.Reset(data, sizeof data);
    EXPECT_EQ(reader.ReadBits(32), 0xa50f8000u);
    EXPECT_EQ(reader.ReadBits(8), 0x01u);
    EXPECT_FALSE(reader.IsExhausted());
    EXPECT_EQ(reader.m_nCurrentBit, 40u);
    EXPECT_EQ(reader.ReadBit(), 0u) << "past the end";
    EXPECT_TRUE(reader.IsExhausted());
    EXPECT_EQ(reader.m_nCurrentBit, 40u);
}

TEST(H264BitReaderTest, ExpGolombCodes)
{
    struct Case {
        uint32_t ue;
        int32_t se;
    };
    const Case cases[] = {{0, 0}, {1, 1}, {2, -1}, {3, 2}, {4, -2}, {254, -127}, {255, 128},
                          {65535, 32768}, {0x7ffffffe, -0x3fffffff}, {0xfffffffe, -0x7fffffff}};
    for (const Case& c : cases) {
        BitWriter w;
        w.Ue(c.ue).Ue(c.ue);
        Bytes bytes = w.Finish();
        H264BitReader reader;
        reader.Reset(bytes.data(), static_cast<uint32_t>(bytes.size()));
        EXPECT_EQ(reader.ReadUe(), c.ue);
        EXPECT_EQ(reader.ReadSe(), c.se) << "ue " << c.ue;
        EXPECT_FALSE(reader.IsExhausted());
    }
}

TEST(H264BitReaderTest, LongestCodesAreComputedInThirtyTwoBits)
{
    // 32 zeros, the terminating 1, then 32 bits of 5: 2^32 - 1 + 5 wraps to 4.
    BitWriter w32;
    w32.Bits(0, 32).Bit(1).Bits(5, 32);
    Bytes code32 = w32.Finish();
    H264BitReader reader;
    reader.Reset(code32.data(), static_cast<uint32_t>(code32.size()));
    EXPECT_EQ(reader.ReadUe(), 4u);
    EXPECT_EQ(reader.m_nCurrentBit, 65u);

    // 33 zeros stop the prefix with n = 32 and no terminating 1: the next 32
    // bits (here 1, then 31 zeros) are the suffix.
    BitWriter w33;
    w33.Bits(0, 33).Bit(1).Bits(0, 31).Bits(0xff, 8);
    Bytes code33 = w33.Finish();
    reader.Reset(code33.data(), static_cast<uint32_t>(code33.size()));
    EXPECT_EQ(reader.ReadUe(), 0x7fffffffu);
    EXPECT_EQ(reader.m_nCurrentBit, 65u);
    EXPECT_EQ(reader.ReadBits(8), 0xffu);

    // The largest odd k gives se = 2^31, which is INT32_MIN in 32 bits.
    BitWriter wse;
    wse.Bits(0, 32).Bit(1).Bits(0, 32);
    Bytes se = wse.Finish();
    reader.Reset(se.data(), static_cast<uint32_t>(se.size()));
    EXPECT_EQ(reader.ReadSe(), INT32_MIN);
}

TEST(H264ParameterSetTest, PictureSizes)
{
    struct Case {
        const char* what;
        Sps sps;
        uint32_t width, height;
    };
    Sps crop1080;
    crop1080.crop = true;
    crop1080.crop_bottom = 4;
    Sps uhd;
    uhd.width_mbs = 240;
    uhd.height_map_units = 135;
    Sps baseline;
    baseline.profile_idc = 66;
    baseline.width_mbs = 20;
    baseline.height_map_units = 15;
    baseline.poc_type = 2;
    Sps fields;
    fields.frame_mbs_only = false;
    fields.height_map_units = 34;
    fields.crop = true;
    fields.crop_bottom = 2;   // 4 rows each in a decoder; 2 here
    Sps chroma444;
    chroma444.profile_idc = 244;
    chroma444.chroma_format_idc = 3;
    chroma444.crop = true;
    chroma444.crop_left = 1;
    chroma444.crop_right = 2;
    chroma444.crop_top = 3;
    chroma444.crop_bottom = 4;
    Sps poc1;
    poc1.poc_type = 1;
    poc1.poc_cycle = {7, -300, 100000};
    poc1.width_mbs = 40;
    poc1.height_map_units = 23;
    poc1.crop = true;
    poc1.crop_bottom = 4;
    Sps matrices;
    matrices.scaling_matrix = true;
    matrices.scaling_lists.resize(8);
    matrices.scaling_lists[0] = std::vector<int32_t>(16, 1);          // 16 entries, all read
    matrices.scaling_lists[2] = {-8};                                  // nextScale 0 at once: default list
    matrices.scaling_lists[3] = {100, 100, 56};                        // 108, 208, (208+56+256)%256=8 ...
    matrices.scaling_lists[6] = {-200};                                // (8-200+256)%256=64, then 64 ...
    matrices.scaling_lists[7] = {3, 4, -15};                           // 11, 15, 0: stops after three
    Sps odd_profile;   // a profile outside the list reads no chroma fields
    odd_profile.profile_idc = 77;
    odd_profile.chroma_format_idc = 3;

    const Case cases[] = {
        {"High 1920x1088 with frame_crop_bottom_offset 4", crop1080, 1920, 1080},
        {"3840x2160 without cropping", uhd, 3840, 2160},
        {"Baseline reads no chroma format", baseline, 320, 240},
        {"field-coded: two fields per map unit, crop unit 2", fields, 1920, 1084},
        {"4:4:4 with every crop offset, crop unit 2", chroma444, 1920 - 6, 1088 - 14},
        {"pic_order_cnt_type 1 with three offsets", poc1, 640, 360},
        {"scaling lists present, some cut short", matrices, 1920, 1088},
        {"Main profile", odd_profile, 1920, 1088},
    };
    for (const Case& c : cases) {
        Size size = Parse(Build(c.sps));
        EXPECT_EQ(size.result, 0) << c.what;
        EXPECT_EQ(size.width, c.width) << c.what;
        EXPECT_EQ(size.height, c.height) << c.what;
    }
}

TEST(H264ParameterSetTest, OutOfRangeValuesOnlySteerTheWalk)
{
    // A crop larger than the picture wraps in unsigned 32-bit arithmetic; it
    // is delivered as it comes (no range checks), without overflow.
    Sps wild;
    wild.width_mbs = 1;
    wild.crop = true;
    wild.crop_right = 100;
    Size size = Parse(Build(wild));
    ASSERT_EQ(size.result, 0);
    EXPECT_EQ(size.width, static_cast<uint32_t>(16 - 200));

    // Huge scaling deltas keep the remainder in range of the arithmetic.
    Sps deltas;
    deltas.scaling_matrix = true;
    deltas.scaling_lists = {{INT32_MAX, INT32_MIN + 1, INT32_MAX}};
    size = Parse(Build(deltas));
    EXPECT_EQ(size.result, 0);
    EXPECT_EQ(size.width, 1920u);
}

TEST(H264ParameterSetTest, DataThatEndsEarlyGivesNoSize)
{
    Sps poc1;
    poc1.poc_type = 1;
    poc1.poc_cycle = {1, 2, 3};
    Sps matrices;
    matrices.scaling_matrix = true;
    matrices.scaling_lists = {{1, 2, 3}, {}, {}, {}, {}, {}, {-1, -2}};
    for (const Sps& sps : {Sps{}, poc1, matrices}) {
        Built built = BuildWithEnd(sps);
        const Bytes& full = built.bytes;
        uint32_t needed = static_cast<uint32_t>((built.end_bit + 7) / 8);
        ASSERT_EQ(Parse(full, needed).result, 0);
        // Every cut before the byte holding vui_parameters_present_flag fails
        // and stores nothing.
        for (uint32_t length = 0; length < needed; ++length) {
            Size size = Parse(full, length);
            EXPECT_EQ(size.result, -1) << "length " << length;
            EXPECT_EQ(size.width, 0xdeadu);
            EXPECT_EQ(size.height, 0xbeefu);
        }
    }
    H264BitReader reader;
    uint32_t width = 1, height = 2;
    EXPECT_EQ(reader.ParseSequenceParameterSet(nullptr, 0, &width, &height), -1);
    EXPECT_EQ(width, 1u);
}

TEST(H264ParameterSetTest, HostileCountsEndWithTheData)
{
    // pic_order_cnt_type 1 announcing 2^32 - 2 cycle offsets, then nothing:
    // the walk must stop at the end of the data, not count them all.
    BitWriter w;
    w.Bits(77, 8).Bits(0, 16).Ue(0).Ue(0).Ue(1).Bit(0).Se(0).Se(0).Ue(0xfffffffe);
    Bytes data = w.Finish();
    EXPECT_EQ(Parse(data).result, -1);

    // Every scaling list present with ever-growing deltas, cut short.
    BitWriter m;
    m.Bits(100, 8).Bits(0, 16).Ue(0).Ue(1).Ue(0).Ue(0).Bit(0).Bit(1);
    for (int i = 0; i < 8; ++i)
        m.Bit(1).Se(1);
    EXPECT_EQ(Parse(m.Finish()).result, -1);
}

TEST(H264ParameterSetTest, RandomBytesNeverReadPastTheirEnd)
{
    std::mt19937 random(20241122);
    for (int round = 0; round < 20000; ++round) {
        Bytes data(random() % 64);
        for (uint8_t& byte : data)
            byte = static_cast<uint8_t>(random() % 4 == 0 ? 0 : random());
        Size size = Parse(data);
        EXPECT_TRUE(size.result == 0 || size.result == -1);
        if (size.result != 0) {
            EXPECT_EQ(size.width, 0xdeadu);
            EXPECT_EQ(size.height, 0xbeefu);
        }
    }
}

// ---- parameter sets of real encoders ----

std::string FixturePath(const std::string& name)
{
    return std::string(TARNWICK_SOURCE_DIR) + "/tests/fixtures/h264/" + name;
}

Bytes ReadFixture(const std::string& name)
{
    std::ifstream file(FixturePath(name), std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

// name -> {width, height} as ffprobe reported the decoded picture.
std::map<std::string, std::pair<uint32_t, uint32_t>> DecoderSizes()
{
    std::map<std::string, std::pair<uint32_t, uint32_t>> sizes;
    std::ifstream file(FixturePath("sizes.txt"));
    std::string line;
    while (std::getline(file, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream fields(line);
        std::string name;
        uint32_t width = 0, height = 0;
        fields >> name >> width >> height;
        sizes[name] = {width, height};
    }
    return sizes;
}

TEST(H264ParameterSetTest, RealEncoderParameterSets)
{
    struct Case {
        const char* name;
        uint32_t width, height;   // the reader's size
        const char* differs;      // why it is not the decoder's, or null
    };
    const Case cases[] = {
        {"baseline_320x240", 320, 240, nullptr},
        {"main_854x480", 854, 480, nullptr},
        {"main_1920x1080", 1920, 1080, nullptr},
        {"high_3840x2160", 3840, 2160, nullptr},
        {"high10_640x360", 640, 360, nullptr},
        {"avcintra50_1440x1080", 1440, 1080, nullptr},
        {"avcintra50_960x720", 960, 720, nullptr},
        // Crop offsets count 2 rows here; a decoder counts 4 per offset for
        // field-coded pictures (2 offsets: 1088 - 4 instead of 1088 - 8).
        {"interlaced_1920x1080", 1920, 1084, "field-coded crop unit"},
        // A decoder counts 1 row per offset in 4:2:2 and 4:4:4 (8 offsets).
        {"high422_1920x1080", 1920, 1072, "4:2:2 crop unit"},
        {"high444_1920x1080", 1920, 1072, "4:4:4 crop unit"},
    };
    std::map<std::string, std::pair<uint32_t, uint32_t>> decoder = DecoderSizes();
    ASSERT_EQ(decoder.size(), sizeof cases / sizeof cases[0]) << "every fixture has a case";
    for (const Case& c : cases) {
        Bytes nal = ReadFixture(std::string(c.name) + ".sps");
        ASSERT_TRUE(StartsWithSequenceParameterSet(nal.data(), static_cast<uint32_t>(nal.size()))) << c.name;
        Bytes data(nal.begin() + kSpsDataOffset, nal.end());
        Size size = Parse(data);
        ASSERT_EQ(size.result, 0) << c.name;
        EXPECT_EQ(size.width, c.width) << c.name;
        EXPECT_EQ(size.height, c.height) << c.name;
        ASSERT_EQ(decoder.count(c.name), 1u) << c.name;
        bool same = decoder[c.name] == std::make_pair(size.width, size.height);
        EXPECT_EQ(same, c.differs == nullptr) << c.name << ": decoder " << decoder[c.name].first << "x"
                                              << decoder[c.name].second;
        // Every encoder here wrote the picture rate (25 fps) into the VUI.
        Bytes plain(data.size());
        plain.resize(RemoveEmulationPrevention(data.data(), static_cast<uint32_t>(data.size()), plain.data()));
        EXPECT_LT(plain.size(), data.size()) << c.name << ": the timing fields hold 00 00 03";
        H264BitReader reader;
        uint32_t time_scale = 0, units = 0;
        ASSERT_EQ(reader.ParsePictureRate(plain.data(), static_cast<uint32_t>(plain.size()), &time_scale, &units), 0)
            << c.name;
        EXPECT_EQ(time_scale, 25u * units) << c.name;
    }
}

}  // namespace
