#pragma once
// H.264 parameter sets, SEI timing and the reconstruction of decoding times from picture-timing SEI.
#include <array>
#include <cstdint>
#include <memory>
#include <vector>

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

class BitReader;

struct H264HrdParameters {
    std::uint32_t cpb_cnt_minus1 = 0;
    std::uint8_t bit_rate_scale = 0;
    std::uint8_t cpb_size_scale = 0;
    std::uint8_t initial_cpb_removal_delay_length_minus1 = 23;
    std::uint8_t cpb_removal_delay_length_minus1 = 23;
    std::uint8_t dpb_output_delay_length_minus1 = 23;
    std::uint8_t time_offset_length = 24;
};

struct H264Vui {
    bool aspect_ratio_info_present_flag = false;
    std::uint8_t aspect_ratio_idc = 0;
    std::uint16_t sar_width = 0;
    std::uint16_t sar_height = 0;
    bool overscan_info_present_flag = false;
    bool overscan_appropriate_flag = false;
    bool video_signal_type_present_flag = false;
    std::uint8_t video_format = 5;
    bool video_full_range_flag = false;
    bool colour_description_present_flag = false;
    std::uint8_t colour_primaries = 2;
    std::uint8_t transfer_characteristics = 2;
    std::uint8_t matrix_coefficients = 2;
    bool chroma_loc_info_present_flag = false;
    std::uint32_t chroma_sample_loc_type_top_field = 0;
    std::uint32_t chroma_sample_loc_type_bottom_field = 0;
    bool timing_info_present_flag = false;
    std::uint32_t num_units_in_tick = 0;
    std::uint32_t time_scale = 0;
    bool fixed_frame_rate_flag = false;
    bool nal_hrd_parameters_present_flag = false;
    H264HrdParameters nal_hrd;
    bool vcl_hrd_parameters_present_flag = false;
    H264HrdParameters vcl_hrd;
    bool low_delay_hrd_flag = false;
    bool pic_struct_present_flag = false;
};

struct H264Sps {
    std::uint8_t profile_idc = 0;
    std::uint8_t constraint_flags = 0;  // constraint_set0_flag in the top bit, then set1 to set5 and two reserved
    std::uint8_t level_idc = 0;
    std::uint32_t seq_parameter_set_id = 0;
    std::uint32_t chroma_format_idc = 1;
    bool separate_colour_plane_flag = false;
    std::uint32_t bit_depth_luma_minus8 = 0;
    std::uint32_t bit_depth_chroma_minus8 = 0;
    bool qpprime_y_zero_transform_bypass_flag = false;
    bool seq_scaling_matrix_present_flag = false;
    std::uint16_t seq_scaling_list_present_flags = 0;  // bit i for list i
    std::uint32_t log2_max_frame_num_minus4 = 0;
    std::uint32_t pic_order_cnt_type = 0;
    std::uint32_t log2_max_pic_order_cnt_lsb_minus4 = 0;
    bool delta_pic_order_always_zero_flag = false;
    std::int32_t offset_for_non_ref_pic = 0;
    std::int32_t offset_for_top_to_bottom_field = 0;
    std::uint32_t num_ref_frames_in_pic_order_cnt_cycle = 0;
    std::uint32_t max_num_ref_frames = 0;
    bool gaps_in_frame_num_value_allowed_flag = false;
    std::uint32_t pic_width_in_mbs_minus1 = 0;
    std::uint32_t pic_height_in_map_units_minus1 = 0;
    bool frame_mbs_only_flag = true;
    bool mb_adaptive_frame_field_flag = false;
    bool direct_8x8_inference_flag = false;
    bool frame_cropping_flag = false;
    std::uint32_t frame_crop_left_offset = 0;
    std::uint32_t frame_crop_right_offset = 0;
    std::uint32_t frame_crop_top_offset = 0;
    std::uint32_t frame_crop_bottom_offset = 0;
    bool vui_parameters_present_flag = false;
    H264Vui vui;

    // The length of cpb_removal_delay less one: NAL HRD, else VCL HRD, else 23.
    unsigned cpbRemovalDelayLengthMinus1() const;
};

struct H264Pps {
    std::uint32_t pic_parameter_set_id = 0;
    std::uint32_t seq_parameter_set_id = 0;
    bool entropy_coding_mode_flag = false;
    bool bottom_field_pic_order_in_frame_present_flag = false;
};

// One caption payload of ATSC A/53 user data.
struct CaptionUserData {
    std::uint8_t country_code = 0;
    std::uint16_t provider_code = 0;
    std::uint8_t process_em_data_flag = 0;
    std::uint8_t process_cc_data_flag = 0;
    std::uint8_t additional_data_flag = 0;
    std::uint8_t em_data = 0;
    struct Record {
        std::uint8_t marker_bits;
        std::uint8_t cc_valid;
        std::uint8_t cc_type;
        std::uint8_t cc_data_1;
        std::uint8_t cc_data_2;
    };
    std::vector<Record> records;
};

struct H264SeiTiming {
    std::uint32_t initialCpbRemovalDelay = 0xFFFFFFFFu;
    std::uint32_t cpbRemovalDelay = 0xFFFFFFFFu;
    std::uint32_t dpbOutputDelay = 0xFFFFFFFFu;
    std::vector<CaptionUserData> captions;
    bool bufferingPeriodSeen = false;
};

// A time rate as a fraction; -1/-1 when unknown.
struct FrameRate {
    std::int64_t numerator = -1;
    std::int64_t denominator = -1;
};

// Parses one SPS from its RBSP (which still holds the start code). Never throws; a truncated set reads as zeros.
std::unique_ptr<H264Sps> parseH264Sps(const std::uint8_t* rbsp, std::size_t size);
std::unique_ptr<H264Pps> parseH264Pps(const std::uint8_t* rbsp, std::size_t size);
// The picture size the SPS gives, less its cropping (7.4.2.1.1, in chroma sample units); 0 when out of range.
struct PictureSize {
    std::uint16_t width = 0, height = 0;
};
PictureSize croppedSize(const H264Sps& sps);

class NALH264Manager {
public:
    NALH264Manager() = default;
    NALH264Manager(const NALH264Manager&) = delete;
    NALH264Manager& operator=(const NALH264Manager&) = delete;
    virtual ~NALH264Manager() = default;

    // Each takes the RBSP of a whole unit, start code included.
    int addSps(const std::uint8_t* rbsp, std::size_t size);
    int addPps(const std::uint8_t* rbsp, std::size_t size);
    bool addSei(const std::uint8_t* rbsp, std::size_t size);
    bool addSlice(const std::uint8_t* rbsp, std::size_t size, int& ppsId, int& spsId);
    FrameRate getFrameRate() const;

    static constexpr std::size_t kSpsSlots = 32;
    static constexpr std::size_t kPpsSlots = 256;

    std::int64_t clockRate = 90000;
    std::array<std::unique_ptr<H264Sps>, kSpsSlots> spsTable;
    std::array<std::unique_ptr<H264Pps>, kPpsSlots> ppsTable;
    std::array<std::vector<std::uint8_t>, kSpsSlots> spsRaw;
    std::array<std::vector<std::uint8_t>, kPpsSlots> ppsRaw;
    H264SeiTiming seiTiming;
    const H264Sps* activeSps = nullptr;
    bool bufferingPeriodInPicture = false;
    bool iSlice = false;
    bool firstTimingSei = true;
    std::int64_t lastCpbRemovalDelay = 0;
    std::int64_t cpbBase = 0;
    std::int64_t cpbAccumulated = 0;
    std::int64_t firstOutputTick = 0;
    std::int64_t baseTime = 0;
    bool haveFirstOutputTick = false;
    std::int64_t computedPts = 0;
    std::int64_t computedDts = 0;

private:
    void parseSeiMessages(BitReader& reader);
    void parseBufferingPeriod(BitReader& reader);
    void parsePictureTiming(BitReader& reader);
    void parseCaptionUserData(BitReader& reader);
    bool updateDecodingTimeBookkeeping();

    int m_seiSpsId = -1;  // the SPS a buffering period named, for the picture timing messages after it
};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
