#pragma once
// The HEVC sequence parameter set, read as far as the VUI timing information.
#include <cstddef>
#include <cstdint>

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

struct HevcSps {
    std::uint8_t sps_video_parameter_set_id = 0;
    std::uint8_t sps_max_sub_layers_minus1 = 0;
    bool sps_temporal_id_nesting_flag = false;
    std::uint8_t general_profile_space = 0;
    bool general_tier_flag = false;
    std::uint8_t general_profile_idc = 0;
    std::uint32_t general_profile_compatibility_flags = 0;
    std::uint8_t general_level_idc = 0;
    std::uint32_t sps_seq_parameter_set_id = 0;
    std::uint32_t chroma_format_idc = 0;
    bool separate_colour_plane_flag = false;
    std::uint32_t pic_width_in_luma_samples = 0;
    std::uint32_t pic_height_in_luma_samples = 0;
    bool conformance_window_flag = false;
    std::uint32_t conf_win_left_offset = 0;
    std::uint32_t conf_win_right_offset = 0;
    std::uint32_t conf_win_top_offset = 0;
    std::uint32_t conf_win_bottom_offset = 0;
    std::uint32_t bit_depth_luma_minus8 = 0;
    std::uint32_t bit_depth_chroma_minus8 = 0;
    std::uint32_t log2_max_pic_order_cnt_lsb_minus4 = 0;
    bool sps_sub_layer_ordering_info_present_flag = false;
    std::uint32_t log2_min_luma_coding_block_size_minus3 = 0;
    std::uint32_t log2_diff_max_min_luma_coding_block_size = 0;
    std::uint32_t log2_min_luma_transform_block_size_minus2 = 0;
    std::uint32_t log2_diff_max_min_luma_transform_block_size = 0;
    std::uint32_t max_transform_hierarchy_depth_inter = 0;
    std::uint32_t max_transform_hierarchy_depth_intra = 0;
    bool scaling_list_enabled_flag = false;
    bool sps_scaling_list_data_present_flag = false;
    bool amp_enabled_flag = false;
    bool sample_adaptive_offset_enabled_flag = false;
    bool pcm_enabled_flag = false;
    std::uint32_t num_short_term_ref_pic_sets = 0;
    bool long_term_ref_pics_present_flag = false;
    std::uint32_t num_long_term_ref_pics_sps = 0;
    bool sps_temporal_mvp_enabled_flag = false;
    bool strong_intra_smoothing_enabled_flag = false;
    bool vui_parameters_present_flag = false;
    bool vui_timing_info_present_flag = false;
    std::uint32_t vui_num_units_in_tick = 0;
    std::uint32_t vui_time_scale = 0;
    // The reader stayed within the data up to the last field read.
    bool complete = false;
};

// Parses the SPS from its RBSP starting right after the two-byte NAL header. Never throws: a truncated or
// corrupt set leaves the fields it could not reach at zero and `complete` false.
HevcSps parseHevcSps(const std::uint8_t* rbsp, std::size_t size);
// The picture size the SPS gives, less its conformance window (in chroma sample units); 0 when out of range.
struct HevcPictureSize {
    std::uint16_t width = 0, height = 0;
};
HevcPictureSize croppedSize(const HevcSps& sps);

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
