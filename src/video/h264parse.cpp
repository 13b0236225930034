#include "video/include/h264parse.h"

namespace {

// Profiles whose parameter sets carry chroma format, bit depths and scaling
// matrices (High and the profiles built on it).
bool HasChromaFormatFields(uint32_t profile_idc)
{
    switch (profile_idc) {
    case 100: case 110: case 122: case 244: case 44: case 83: case 86: case 118:
        return true;
    default:
        return false;
    }
}

constexpr uint32_t kScalingListCount = 8;   // eight lists whatever the chroma format
constexpr uint32_t kSmallScalingListCount = 6;
constexpr uint32_t kSmallScalingListEntries = 16;
constexpr uint32_t kLargeScalingListEntries = 64;
constexpr uint32_t kUeMaximumLeadingZeros = 33;

}  // namespace

void H264BitReader::Reset(const uint8_t* data, uint32_t length)
{
    m_nLength = length;
    m_nCurrentBit = 0;
    m_pBuffer = data;
}

uint32_t H264BitReader::ReadBit()
{
    if (m_pBuffer == nullptr)
        return 0;
    // 64-bit product: a length near 4 GiB must not wrap the bound.
    if (m_nCurrentBit >= static_cast<uint64_t>(m_nLength) * 8) {
        m_pBuffer = nullptr;
        return 0;
    }
    uint32_t bit = (m_pBuffer[m_nCurrentBit / 8] >> (7 - m_nCurrentBit % 8)) & 1u;
    ++m_nCurrentBit;
    return bit;
}

uint32_t H264BitReader::ReadBits(uint32_t count)
{
    uint32_t value = 0;
    for (uint32_t i = 0; i < count && i < 32; ++i)
        value = (value << 1) | ReadBit();
    return value;
}

uint32_t H264BitReader::ReadUe()
{
    uint32_t zeros = 0;
    while (ReadBit() == 0) {
        if (++zeros == kUeMaximumLeadingZeros) {
            zeros = 32;
            break;
        }
    }
    uint32_t prefix = zeros == 32 ? 0xFFFFFFFFu : (1u << zeros) - 1u;
    return prefix + ReadBits(zeros);
}

int32_t H264BitReader::ReadSe()
{
    uint32_t k = ReadUe();
    if (k & 1u)
        return static_cast<int32_t>(k / 2 + 1);   // 0x80000000 for the largest k, by two's complement
    return -static_cast<int32_t>(k / 2);
}

void H264BitReader::SkipScalingList(uint32_t entries)
{
    int64_t last_scale = 8;
    int64_t next_scale = 8;
    for (uint32_t j = 0; j < entries && next_scale != 0 && !IsExhausted(); ++j) {
        int64_t delta_scale = ReadSe();
        next_scale = (last_scale + delta_scale + 256) % 256;
        if (next_scale != 0)
            last_scale = next_scale;
    }
}

int H264BitReader::WalkToVui(const uint8_t* data, uint32_t length, PictureSize* size)
{
    Reset(data, length);
    if (data == nullptr)
        return -1;

    uint32_t profile_idc = ReadBits(8);
    ReadBits(8);   // constraint_set flags, reserved bits
    ReadBits(8);   // level_idc
    ReadUe();      // seq_parameter_set_id

    if (HasChromaFormatFields(profile_idc)) {
        uint32_t chroma_format_idc = ReadUe();
        if (chroma_format_idc == 3)
            ReadBit();   // separate_colour_plane_flag
        ReadUe();        // bit_depth_luma_minus8
        ReadUe();        // bit_depth_chroma_minus8
        ReadBit();       // qpprime_y_zero_transform_bypass_flag
        if (ReadBit()) { // seq_scaling_matrix_present_flag
            for (uint32_t i = 0; i < kScalingListCount && !IsExhausted(); ++i)
                if (ReadBit())
                    SkipScalingList(i < kSmallScalingListCount ? kSmallScalingListEntries
                                                               : kLargeScalingListEntries);
        }
    }

    ReadUe();   // log2_max_frame_num_minus4
    uint32_t pic_order_cnt_type = ReadUe();
    if (pic_order_cnt_type == 0) {
        ReadUe();   // log2_max_pic_order_cnt_lsb_minus4
    } else if (pic_order_cnt_type == 1) {
        ReadBit();  // delta_pic_order_always_zero_flag
        ReadSe();   // offset_for_non_ref_pic
        ReadSe();   // offset_for_top_to_bottom_field
        uint32_t cycle = ReadUe();
        // Each value takes at least one bit: a hostile count ends with the data.
        for (uint32_t i = 0; i < cycle && !IsExhausted(); ++i)
            ReadSe();   // offset_for_ref_frame
    }

    ReadUe();   // max_num_ref_frames
    ReadBit();  // gaps_in_frame_num_value_allowed_flag
    uint32_t width_in_mbs_minus1 = ReadUe();
    uint32_t height_in_map_units_minus1 = ReadUe();
    uint32_t frame_mbs_only_flag = ReadBit();
    if (frame_mbs_only_flag == 0)
        ReadBit();  // mb_adaptive_frame_field_flag
    ReadBit();      // direct_8x8_inference_flag

    uint32_t crop_left = 0, crop_right = 0, crop_top = 0, crop_bottom = 0;
    if (ReadBit()) {   // frame_cropping_flag
        crop_left = ReadUe();
        crop_right = ReadUe();
        crop_top = ReadUe();
        crop_bottom = ReadUe();
    }
    bool vui_present = ReadBit() != 0;
    if (IsExhausted())
        return -1;

    // Unsigned 32-bit arithmetic: out-of-range values wrap instead of overflowing.
    size->width = 16u * (width_in_mbs_minus1 + 1u) - 2u * (crop_left + crop_right);
    size->height = 16u * (2u - frame_mbs_only_flag) * (height_in_map_units_minus1 + 1u) -
                   2u * (crop_top + crop_bottom);
    size->vui_present = vui_present;
    return 0;
}

int H264BitReader::ParseSequenceParameterSet(const uint8_t* data, uint32_t length, uint32_t* width,
                                             uint32_t* height)
{
    PictureSize size;
    if (WalkToVui(data, length, &size) != 0)
        return -1;
    *width = size.width;
    *height = size.height;
    return 0;
}

int H264BitReader::ParsePictureRate(const uint8_t* data, uint32_t length, uint32_t* time_scale,
                                    uint32_t* units_in_two_ticks)
{
    PictureSize size;
    if (WalkToVui(data, length, &size) != 0 || !size.vui_present)
        return -1;
    if (ReadBit()) {                 // aspect_ratio_info_present_flag
        if (ReadBits(8) == 255)      // aspect_ratio_idc: Extended_SAR
            ReadBits(32);            // sar_width, sar_height
    }
    if (ReadBit())                   // overscan_info_present_flag
        ReadBit();                   // overscan_appropriate_flag
    if (ReadBit()) {                 // video_signal_type_present_flag
        ReadBits(4);                 // video_format, video_full_range_flag
        if (ReadBit())               // colour_description_present_flag
            ReadBits(24);            // primaries, transfer, matrix
    }
    if (ReadBit()) {                 // chroma_loc_info_present_flag
        ReadUe();
        ReadUe();
    }
    if (!ReadBit())                  // timing_info_present_flag
        return -1;
    uint32_t num_units_in_tick = ReadBits(32);
    uint32_t scale = ReadBits(32);
    if (IsExhausted() || num_units_in_tick == 0 || scale == 0 || num_units_in_tick > UINT32_MAX / 2)
        return -1;
    *time_scale = scale;
    *units_in_two_ticks = 2 * num_units_in_tick;
    return 0;
}

uint32_t RemoveEmulationPrevention(const uint8_t* data, uint32_t length, uint8_t* out)
{
    uint32_t written = 0;
    uint32_t zeros = 0;
    for (uint32_t i = 0; i < length; ++i) {
        if (zeros >= 2 && data[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = data[i] == 0 ? zeros + 1 : 0;
        out[written++] = data[i];
    }
    return written;
}
