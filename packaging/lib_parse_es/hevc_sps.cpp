#include "packaging/lib_parse_es/hevc_sps.h"

#include <algorithm>
#include <array>

#include "packaging/lib_parse_es/bit_reader.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

namespace {

constexpr std::uint32_t kMaxShortTermRefPicSets = 65;
constexpr std::uint32_t kMaxDeltaPocs = 32;

void skipProfileTierLevel(BitReader& reader, HevcSps& sps) {
    sps.general_profile_space = static_cast<std::uint8_t>(reader.readBits(2));
    sps.general_tier_flag = reader.readFlag();
    sps.general_profile_idc = static_cast<std::uint8_t>(reader.readBits(5));
    sps.general_profile_compatibility_flags = reader.readBits(32);
    reader.skipBits(4 + 43 + 1);  // source flags, constraint flags, inbld / reserved
    sps.general_level_idc = static_cast<std::uint8_t>(reader.readByte());
    const unsigned subLayers = sps.sps_max_sub_layers_minus1;
    std::array<bool, 8> profilePresent{};
    std::array<bool, 8> levelPresent{};
    for (unsigned i = 0; i < subLayers; ++i) {
        profilePresent[i] = reader.readFlag();
        levelPresent[i] = reader.readFlag();
    }
    if (subLayers > 0) reader.skipBits(2 * (8 - subLayers));
    for (unsigned i = 0; i < subLayers; ++i) {
        if (profilePresent[i]) reader.skipBits(88);
        if (levelPresent[i]) reader.skipBits(8);
    }
}

void skipScalingListData(BitReader& reader) {
    for (unsigned sizeId = 0; sizeId < 4 && reader.good(); ++sizeId) {
        for (unsigned matrixId = 0; matrixId < 6 && reader.good(); matrixId += sizeId == 3 ? 3 : 1) {
            if (!reader.readFlag()) {
                reader.readUe();  // scaling_list_pred_matrix_id_delta
                continue;
            }
            const unsigned coefficients = std::min(64u, 1u << (4 + (sizeId << 1)));
            if (sizeId > 1) reader.readSe();  // scaling_list_dc_coef_minus8
            for (unsigned i = 0; i < coefficients && reader.good(); ++i) reader.readSe();
        }
    }
}

// Reads one short-term reference picture set of the SPS; `deltaPocs` holds the counts of earlier sets.
void skipShortTermRefPicSet(BitReader& reader, std::uint32_t index, std::array<std::uint32_t, 65>& deltaPocs) {
    bool interPrediction = false;
    if (index != 0) interPrediction = reader.readFlag();
    if (interPrediction) {
        // In the SPS the reference is always the set just before this one.
        reader.readFlag();  // delta_rps_sign
        reader.readUe();    // abs_delta_rps_minus1
        const std::uint32_t reference = deltaPocs[index - 1];
        std::uint32_t count = 0;
        for (std::uint32_t j = 0; j <= reference && reader.good(); ++j) {
            const bool usedByCurrent = reader.readFlag();
            const bool useDelta = usedByCurrent || reader.readFlag();
            if (useDelta) ++count;
        }
        deltaPocs[index] = std::min(count, kMaxDeltaPocs);
        return;
    }
    const std::uint32_t negative = reader.readUe();
    const std::uint32_t positive = reader.readUe();
    if (negative > 16 || positive > 16) {
        reader.skipBits(~std::size_t{0});  // beyond any legal set: the data is corrupt
        return;
    }
    for (std::uint32_t i = 0; i < negative + positive && reader.good(); ++i) {
        reader.readUe();    // delta_poc_s0/s1_minus1
        reader.readFlag();  // used_by_curr_pic_s0/s1_flag
    }
    deltaPocs[index] = negative + positive;
}

}  // namespace

HevcPictureSize croppedSize(const HevcSps& sps) {
    const std::uint32_t chroma = sps.separate_colour_plane_flag ? 0 : sps.chroma_format_idc;
    const std::int64_t subWidth = chroma == 1 || chroma == 2 ? 2 : 1;
    const std::int64_t subHeight = chroma == 1 ? 2 : 1;
    std::int64_t width = sps.pic_width_in_luma_samples;
    std::int64_t height = sps.pic_height_in_luma_samples;
    if (sps.conformance_window_flag) {
        width -= subWidth * (sps.conf_win_left_offset + sps.conf_win_right_offset);
        height -= subHeight * (sps.conf_win_top_offset + sps.conf_win_bottom_offset);
    }
    HevcPictureSize size;
    size.width = static_cast<std::uint16_t>(width > 0 && width <= 0xFFFF ? width : 0);
    size.height = static_cast<std::uint16_t>(height > 0 && height <= 0xFFFF ? height : 0);
    return size;
}

HevcSps parseHevcSps(const std::uint8_t* rbsp, std::size_t size) {
    HevcSps sps;
    BitReader reader(rbsp, size);
    sps.sps_video_parameter_set_id = static_cast<std::uint8_t>(reader.readBits(4));
    sps.sps_max_sub_layers_minus1 = static_cast<std::uint8_t>(reader.readBits(3));
    sps.sps_temporal_id_nesting_flag = reader.readFlag();
    if (sps.sps_max_sub_layers_minus1 > 6) return sps;
    skipProfileTierLevel(reader, sps);
    sps.sps_seq_parameter_set_id = reader.readUe();
    sps.chroma_format_idc = reader.readUe();
    if (sps.chroma_format_idc == 3) sps.separate_colour_plane_flag = reader.readFlag();
    sps.pic_width_in_luma_samples = reader.readUe();
    sps.pic_height_in_luma_samples = reader.readUe();
    sps.conformance_window_flag = reader.readFlag();
    if (sps.conformance_window_flag) {
        sps.conf_win_left_offset = reader.readUe();
        sps.conf_win_right_offset = reader.readUe();
        sps.conf_win_top_offset = reader.readUe();
        sps.conf_win_bottom_offset = reader.readUe();
    }
    sps.bit_depth_luma_minus8 = reader.readUe();
    sps.bit_depth_chroma_minus8 = reader.readUe();
    sps.log2_max_pic_order_cnt_lsb_minus4 = reader.readUe();
    sps.sps_sub_layer_ordering_info_present_flag = reader.readFlag();
    for (unsigned i = sps.sps_sub_layer_ordering_info_present_flag ? 0 : sps.sps_max_sub_layers_minus1;
         i <= sps.sps_max_sub_layers_minus1; ++i) {
        reader.readUe();  // sps_max_dec_pic_buffering_minus1
        reader.readUe();  // sps_max_num_reorder_pics
        reader.readUe();  // sps_max_latency_increase_plus1
    }
    sps.log2_min_luma_coding_block_size_minus3 = reader.readUe();
    sps.log2_diff_max_min_luma_coding_block_size = reader.readUe();
    sps.log2_min_luma_transform_block_size_minus2 = reader.readUe();
    sps.log2_diff_max_min_luma_transform_block_size = reader.readUe();
    sps.max_transform_hierarchy_depth_inter = reader.readUe();
    sps.max_transform_hierarchy_depth_intra = reader.readUe();
    sps.scaling_list_enabled_flag = reader.readFlag();
    if (sps.scaling_list_enabled_flag) {
        sps.sps_scaling_list_data_present_flag = reader.readFlag();
        if (sps.sps_scaling_list_data_present_flag) skipScalingListData(reader);
    }
    sps.amp_enabled_flag = reader.readFlag();
    sps.sample_adaptive_offset_enabled_flag = reader.readFlag();
    sps.pcm_enabled_flag = reader.readFlag();
    if (sps.pcm_enabled_flag) {
        reader.skipBits(4 + 4);  // pcm sample bit depths
        reader.readUe();         // log2_min_pcm_luma_coding_block_size_minus3
        reader.readUe();         // log2_diff_max_min_pcm_luma_coding_block_size
        reader.readFlag();       // pcm_loop_filter_disabled_flag
    }
    sps.num_short_term_ref_pic_sets = reader.readUe();
    if (sps.num_short_term_ref_pic_sets > kMaxShortTermRefPicSets - 1) return sps;
    std::array<std::uint32_t, 65> deltaPocs{};
    for (std::uint32_t i = 0; i < sps.num_short_term_ref_pic_sets && reader.good(); ++i)
        skipShortTermRefPicSet(reader, i, deltaPocs);
    sps.long_term_ref_pics_present_flag = reader.readFlag();
    if (sps.long_term_ref_pics_present_flag) {
        sps.num_long_term_ref_pics_sps = reader.readUe();
        if (sps.num_long_term_ref_pics_sps > 32) return sps;
        for (std::uint32_t i = 0; i < sps.num_long_term_ref_pics_sps && reader.good(); ++i) {
            reader.readBits(std::min(32u, sps.log2_max_pic_order_cnt_lsb_minus4 + 4));  // lt_ref_pic_poc_lsb_sps
            reader.readFlag();  // used_by_curr_pic_lt_sps_flag
        }
    }
    sps.sps_temporal_mvp_enabled_flag = reader.readFlag();
    sps.strong_intra_smoothing_enabled_flag = reader.readFlag();
    sps.vui_parameters_present_flag = reader.readFlag();
    if (sps.vui_parameters_present_flag) {
        if (reader.readFlag()) {  // aspect_ratio_info_present_flag
            if (reader.readByte() == 255) reader.skipBits(32);  // sar_width, sar_height
        }
        if (reader.readFlag()) reader.readFlag();  // overscan_info_present_flag, overscan_appropriate_flag
        if (reader.readFlag()) {                   // video_signal_type_present_flag
            reader.skipBits(3 + 1);                // video_format, video_full_range_flag
            if (reader.readFlag()) reader.skipBits(24);  // colour description
        }
        if (reader.readFlag()) {  // chroma_loc_info_present_flag
            reader.readUe();
            reader.readUe();
        }
        reader.skipBits(3);       // neutral_chroma_indication, field_seq, frame_field_info_present flags
        if (reader.readFlag()) {  // default_display_window_flag
            for (int i = 0; i < 4; ++i) reader.readUe();
        }
        sps.vui_timing_info_present_flag = reader.readFlag();
        if (sps.vui_timing_info_present_flag) {
            const std::uint32_t unitsInTick = reader.readBits(32);
            const std::uint32_t timeScale = reader.readBits(32);
            if (reader.good()) {
                sps.vui_num_units_in_tick = unitsInTick;
                sps.vui_time_scale = timeScale;
            }
        }
    }
    sps.complete = reader.good();
    return sps;
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
