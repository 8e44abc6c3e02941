#include "packaging/lib_parse_es/h264_manager.h"

#include "packaging/lib_parse_es/bit_reader.h"
#include "packaging/lib_parse_es/nal_h264_hevc.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

namespace {

// A reader positioned after the start code and the one-byte NAL header.
BitReader readerAfterHeader(const std::uint8_t* rbsp, std::size_t size) {
    BitReader reader(rbsp, size);
    reader.seekByte(skipStartCode(rbsp, size));
    reader.skipBits(8);
    return reader;
}

void skipScalingList(BitReader& reader, int count) {
    int last = 8;
    int next = 8;
    for (int j = 0; j < count && reader.good(); ++j) {
        if (next != 0) {
            const std::int32_t delta = reader.readSe();
            next = static_cast<int>((last + delta + 256) % 256);
        }
        last = next == 0 ? last : next;
    }
}

void parseHrd(BitReader& reader, H264HrdParameters& hrd) {
    hrd.cpb_cnt_minus1 = reader.readUe();
    hrd.bit_rate_scale = static_cast<std::uint8_t>(reader.readBits(4));
    hrd.cpb_size_scale = static_cast<std::uint8_t>(reader.readBits(4));
    for (std::uint32_t i = 0; i <= hrd.cpb_cnt_minus1 && i < 32 && reader.good(); ++i) {
        reader.readUe();  // bit_rate_value_minus1
        reader.readUe();  // cpb_size_value_minus1
        reader.readFlag();  // cbr_flag
    }
    hrd.initial_cpb_removal_delay_length_minus1 = static_cast<std::uint8_t>(reader.readBits(5));
    hrd.cpb_removal_delay_length_minus1 = static_cast<std::uint8_t>(reader.readBits(5));
    hrd.dpb_output_delay_length_minus1 = static_cast<std::uint8_t>(reader.readBits(5));
    hrd.time_offset_length = static_cast<std::uint8_t>(reader.readBits(5));
}

void parseVui(BitReader& reader, H264Vui& vui) {
    vui.aspect_ratio_info_present_flag = reader.readFlag();
    if (vui.aspect_ratio_info_present_flag) {
        vui.aspect_ratio_idc = static_cast<std::uint8_t>(reader.readByte());
        if (vui.aspect_ratio_idc == 255) {
            vui.sar_width = static_cast<std::uint16_t>(reader.readBits(16));
            vui.sar_height = static_cast<std::uint16_t>(reader.readBits(16));
        }
    }
    vui.overscan_info_present_flag = reader.readFlag();
    if (vui.overscan_info_present_flag) vui.overscan_appropriate_flag = reader.readFlag();
    vui.video_signal_type_present_flag = reader.readFlag();
    if (vui.video_signal_type_present_flag) {
        vui.video_format = static_cast<std::uint8_t>(reader.readBits(3));
        vui.video_full_range_flag = reader.readFlag();
        vui.colour_description_present_flag = reader.readFlag();
        if (vui.colour_description_present_flag) {
            vui.colour_primaries = static_cast<std::uint8_t>(reader.readByte());
            vui.transfer_characteristics = static_cast<std::uint8_t>(reader.readByte());
            vui.matrix_coefficients = static_cast<std::uint8_t>(reader.readByte());
        }
    }
    vui.chroma_loc_info_present_flag = reader.readFlag();
    if (vui.chroma_loc_info_present_flag) {
        vui.chroma_sample_loc_type_top_field = reader.readUe();
        vui.chroma_sample_loc_type_bottom_field = reader.readUe();
    }
    vui.timing_info_present_flag = reader.readFlag();
    if (vui.timing_info_present_flag) {
        vui.num_units_in_tick = reader.readBits(32);
        vui.time_scale = reader.readBits(32);
        vui.fixed_frame_rate_flag = reader.readFlag();
    }
    vui.nal_hrd_parameters_present_flag = reader.readFlag();
    if (vui.nal_hrd_parameters_present_flag) parseHrd(reader, vui.nal_hrd);
    vui.vcl_hrd_parameters_present_flag = reader.readFlag();
    if (vui.vcl_hrd_parameters_present_flag) parseHrd(reader, vui.vcl_hrd);
    if (vui.nal_hrd_parameters_present_flag || vui.vcl_hrd_parameters_present_flag)
        vui.low_delay_hrd_flag = reader.readFlag();
    vui.pic_struct_present_flag = reader.readFlag();
}

std::int64_t wrapMul(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}
std::int64_t wrapAdd(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
std::int64_t wrapSub(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

// The HRD whose delay lengths apply: NAL when present, else VCL, else none.
const H264HrdParameters* timingHrd(const H264Sps& sps) {
    if (!sps.vui_parameters_present_flag) return nullptr;
    if (sps.vui.nal_hrd_parameters_present_flag) return &sps.vui.nal_hrd;
    if (sps.vui.vcl_hrd_parameters_present_flag) return &sps.vui.vcl_hrd;
    return nullptr;
}

}  // namespace

unsigned H264Sps::cpbRemovalDelayLengthMinus1() const {
    const H264HrdParameters* hrd = timingHrd(*this);
    return hrd != nullptr ? hrd->cpb_removal_delay_length_minus1 : 23;
}

PictureSize croppedSize(const H264Sps& sps) {
    const std::int64_t frameFactor = sps.frame_mbs_only_flag ? 1 : 2;
    const std::uint32_t chroma = sps.separate_colour_plane_flag ? 0 : sps.chroma_format_idc;
    const std::int64_t cropX = chroma == 1 || chroma == 2 ? 2 : 1;
    const std::int64_t cropY = (chroma == 1 ? 2 : 1) * frameFactor;
    const std::int64_t width = std::int64_t{sps.pic_width_in_mbs_minus1 + 1} * 16 -
                               cropX * (sps.frame_crop_left_offset + sps.frame_crop_right_offset);
    const std::int64_t height = frameFactor * (sps.pic_height_in_map_units_minus1 + 1) * 16 -
                                cropY * (sps.frame_crop_top_offset + sps.frame_crop_bottom_offset);
    PictureSize size;
    size.width = static_cast<std::uint16_t>(width > 0 && width <= 0xFFFF ? width : 0);
    size.height = static_cast<std::uint16_t>(height > 0 && height <= 0xFFFF ? height : 0);
    return size;
}

std::unique_ptr<H264Sps> parseH264Sps(const std::uint8_t* rbsp, std::size_t size) {
    BitReader reader = readerAfterHeader(rbsp, size);
    auto sps = std::make_unique<H264Sps>();
    sps->profile_idc = static_cast<std::uint8_t>(reader.readByte());
    sps->constraint_flags = static_cast<std::uint8_t>(reader.readByte());
    sps->level_idc = static_cast<std::uint8_t>(reader.readByte());
    sps->seq_parameter_set_id = reader.readUe();
    // The profiles whose SPS carries the chroma format, the bit depths and the scaling lists (144 is the former
    // High 4:4:4, still found in old streams); for any other the fields below follow the id directly.
    const unsigned profile = sps->profile_idc;
    bool chromaFields = false;
    for (unsigned p : {100u, 110u, 122u, 244u, 44u, 83u, 86u, 118u, 128u, 138u, 139u, 134u, 135u, 144u})
        chromaFields = chromaFields || profile == p;
    if (chromaFields) {
        sps->chroma_format_idc = reader.readUe();
        if (sps->chroma_format_idc == 3) sps->separate_colour_plane_flag = reader.readFlag();
        sps->bit_depth_luma_minus8 = reader.readUe();
        sps->bit_depth_chroma_minus8 = reader.readUe();
        sps->qpprime_y_zero_transform_bypass_flag = reader.readFlag();
        sps->seq_scaling_matrix_present_flag = reader.readFlag();
        if (sps->seq_scaling_matrix_present_flag) {
            const int lists = sps->chroma_format_idc != 3 ? 8 : 12;
            for (int i = 0; i < lists && reader.good(); ++i) {
                if (reader.readFlag()) {
                    sps->seq_scaling_list_present_flags |= static_cast<std::uint16_t>(1u << i);
                    skipScalingList(reader, i < 6 ? 16 : 64);
                }
            }
        }
    }
    sps->log2_max_frame_num_minus4 = reader.readUe();
    sps->pic_order_cnt_type = reader.readUe();
    if (sps->pic_order_cnt_type == 0) {
        sps->log2_max_pic_order_cnt_lsb_minus4 = reader.readUe();
    } else if (sps->pic_order_cnt_type == 1) {
        sps->delta_pic_order_always_zero_flag = reader.readFlag();
        sps->offset_for_non_ref_pic = reader.readSe();
        sps->offset_for_top_to_bottom_field = reader.readSe();
        sps->num_ref_frames_in_pic_order_cnt_cycle = reader.readUe();
        for (std::uint32_t i = 0; i < sps->num_ref_frames_in_pic_order_cnt_cycle && i < 256 && reader.good(); ++i)
            reader.readSe();  // offset_for_ref_frame
    }
    sps->max_num_ref_frames = reader.readUe();
    sps->gaps_in_frame_num_value_allowed_flag = reader.readFlag();
    sps->pic_width_in_mbs_minus1 = reader.readUe();
    sps->pic_height_in_map_units_minus1 = reader.readUe();
    sps->frame_mbs_only_flag = reader.readFlag();
    if (!sps->frame_mbs_only_flag) sps->mb_adaptive_frame_field_flag = reader.readFlag();
    sps->direct_8x8_inference_flag = reader.readFlag();
    sps->frame_cropping_flag = reader.readFlag();
    if (sps->frame_cropping_flag) {
        sps->frame_crop_left_offset = reader.readUe();
        sps->frame_crop_right_offset = reader.readUe();
        sps->frame_crop_top_offset = reader.readUe();
        sps->frame_crop_bottom_offset = reader.readUe();
    }
    sps->vui_parameters_present_flag = reader.readFlag();
    if (sps->vui_parameters_present_flag) parseVui(reader, sps->vui);
    return sps;
}

std::unique_ptr<H264Pps> parseH264Pps(const std::uint8_t* rbsp, std::size_t size) {
    BitReader reader = readerAfterHeader(rbsp, size);
    auto pps = std::make_unique<H264Pps>();
    pps->pic_parameter_set_id = reader.readUe();
    pps->seq_parameter_set_id = reader.readUe();
    pps->entropy_coding_mode_flag = reader.readFlag();
    pps->bottom_field_pic_order_in_frame_present_flag = reader.readFlag();
    return pps;
}

int NALH264Manager::addSps(const std::uint8_t* rbsp, std::size_t size) {
    std::unique_ptr<H264Sps> sps = parseH264Sps(rbsp, size);
    const std::uint32_t id = sps->seq_parameter_set_id;
    if (id >= kSpsSlots) return -1;
    spsTable[id] = std::move(sps);
    spsRaw[id].assign(rbsp, rbsp + size);
    activeSps = spsTable[id].get();
    return static_cast<int>(id);
}

int NALH264Manager::addPps(const std::uint8_t* rbsp, std::size_t size) {
    std::unique_ptr<H264Pps> pps = parseH264Pps(rbsp, size);
    const std::uint32_t id = pps->pic_parameter_set_id;
    if (id >= kPpsSlots) return -1;
    ppsTable[id] = std::move(pps);
    ppsRaw[id].assign(rbsp, rbsp + size);
    return static_cast<int>(id);
}

bool NALH264Manager::addSei(const std::uint8_t* rbsp, std::size_t size) {
    seiTiming.bufferingPeriodSeen = false;
    seiTiming.captions.clear();
    BitReader reader = readerAfterHeader(rbsp, size);
    parseSeiMessages(reader);
    return updateDecodingTimeBookkeeping();
}

void NALH264Manager::parseSeiMessages(BitReader& reader) {
    while (reader.good() && reader.bitsLeft() >= 8) {
        std::uint32_t payloadType = 0;
        std::uint32_t byte = reader.readByte();
        // 0x80 where a type would be is the trailing bits: the list ends.
        if (byte == 0x80) break;
        while (byte == 0xFF && reader.good()) {
            payloadType += 255;
            byte = reader.readByte();
        }
        payloadType += byte;
        std::uint32_t payloadSize = 0;
        byte = reader.readByte();
        while (byte == 0xFF && reader.good()) {
            payloadSize += 255;
            byte = reader.readByte();
        }
        payloadSize += byte;
        if (!reader.good()) break;
        const std::size_t payloadStart = reader.bytePosition();
        switch (payloadType) {
            case 0: parseBufferingPeriod(reader); break;
            case 1: parsePictureTiming(reader); break;
            case 4: parseCaptionUserData(reader); break;
            default: break;
        }
        // The next message starts payloadSize bytes after this one's start; past the end the list ends.
        reader.seekByte(payloadStart + payloadSize);
    }
}

void NALH264Manager::parseBufferingPeriod(BitReader& reader) {
    const std::uint32_t id = reader.readUe();
    if (reader.good() && id < kSpsSlots && spsTable[id]) m_seiSpsId = static_cast<int>(id);
    seiTiming.bufferingPeriodSeen = true;
    if (m_seiSpsId < 0) return;
    const H264HrdParameters* hrd = timingHrd(*spsTable[static_cast<std::size_t>(m_seiSpsId)]);
    if (hrd == nullptr) return;
    const std::uint32_t value = reader.readBits(hrd->initial_cpb_removal_delay_length_minus1 + 1u);
    if (reader.good()) seiTiming.initialCpbRemovalDelay = value;
}

void NALH264Manager::parsePictureTiming(BitReader& reader) {
    const H264Sps* sps = nullptr;
    if (m_seiSpsId >= 0 && spsTable[static_cast<std::size_t>(m_seiSpsId)]) {
        sps = spsTable[static_cast<std::size_t>(m_seiSpsId)].get();
    } else {
        sps = activeSps;
    }
    if (sps == nullptr) return;
    const H264HrdParameters* hrd = timingHrd(*sps);
    if (hrd == nullptr) return;
    const std::uint32_t cpb = reader.readBits(hrd->cpb_removal_delay_length_minus1 + 1u);
    const std::uint32_t dpb = reader.readBits(hrd->dpb_output_delay_length_minus1 + 1u);
    if (!reader.good()) return;
    seiTiming.cpbRemovalDelay = cpb;
    seiTiming.dpbOutputDelay = dpb;
}

void NALH264Manager::parseCaptionUserData(BitReader& reader) {
    CaptionUserData captions;
    captions.country_code = static_cast<std::uint8_t>(reader.readByte());
    captions.provider_code = static_cast<std::uint16_t>(reader.readBits(16));
    if (reader.readBits(32) != 0x47413934u) return;  // "GA94"
    if (reader.readByte() != 3) return;               // cc_data
    captions.process_em_data_flag = static_cast<std::uint8_t>(reader.readBits(1));
    captions.process_cc_data_flag = static_cast<std::uint8_t>(reader.readBits(1));
    captions.additional_data_flag = static_cast<std::uint8_t>(reader.readBits(1));
    const std::uint32_t count = reader.readBits(5);
    captions.em_data = static_cast<std::uint8_t>(reader.readByte());
    for (std::uint32_t i = 0; i < count && reader.good(); ++i) {
        CaptionUserData::Record record{};
        record.marker_bits = static_cast<std::uint8_t>(reader.readBits(5));
        record.cc_valid = static_cast<std::uint8_t>(reader.readBits(1));
        record.cc_type = static_cast<std::uint8_t>(reader.readBits(2));
        record.cc_data_1 = static_cast<std::uint8_t>(reader.readByte());
        record.cc_data_2 = static_cast<std::uint8_t>(reader.readByte());
        captions.records.push_back(record);
    }
    if (!reader.good()) return;
    seiTiming.captions.push_back(std::move(captions));
}

bool NALH264Manager::updateDecodingTimeBookkeeping() {
    if (seiTiming.initialCpbRemovalDelay == 0xFFFFFFFFu || seiTiming.cpbRemovalDelay == 0xFFFFFFFFu ||
        seiTiming.dpbOutputDelay == 0xFFFFFFFFu)
        return false;
    const std::int64_t c = seiTiming.cpbRemovalDelay;
    if (firstTimingSei) {
        firstTimingSei = false;
    } else {
        const std::int64_t p = lastCpbRemovalDelay;
        const bool afterBufferingPeriod = bufferingPeriodInPicture;
        if (afterBufferingPeriod) {
            // The removal delay counts from the last buffering period again.
            cpbAccumulated = cpbBase;
        } else if (c < p) {
            // The counter wrapped at its field width, or jumped.
            const unsigned bits = activeSps != nullptr ? activeSps->cpbRemovalDelayLengthMinus1() : 23;
            const std::int64_t modulus = std::int64_t{1} << (bits + 1);
            if (modulus <= p + 2) {
                cpbAccumulated += modulus;
            } else if (c == 0) {
                cpbAccumulated += p;
            } else {
                lastCpbRemovalDelay = 0;
                cpbBase = 0;
                cpbAccumulated = 0;
                bufferingPeriodInPicture = false;
                return false;
            }
        }
    }
    lastCpbRemovalDelay = c;
    return true;
}

bool NALH264Manager::addSlice(const std::uint8_t* rbsp, std::size_t size, int& ppsId, int& spsId) {
    BitReader reader = readerAfterHeader(rbsp, size);
    reader.readUe();  // first_mb_in_slice
    const std::uint32_t sliceType = reader.readUe();
    const std::uint32_t ppsIndex = reader.readUe();
    // Whatever else happens, the slice tells whether its picture had a buffering period and is intra.
    bufferingPeriodInPicture = seiTiming.bufferingPeriodSeen;
    iSlice = reader.good() && sliceType % 5 == 2;
    ppsId = -1;
    spsId = -1;
    if (!reader.good() || ppsIndex >= kPpsSlots || !ppsTable[ppsIndex]) return false;
    const std::uint32_t spsIndex = ppsTable[ppsIndex]->seq_parameter_set_id;
    if (spsIndex >= kSpsSlots || !spsTable[spsIndex]) return false;
    ppsId = static_cast<int>(ppsIndex);
    spsId = static_cast<int>(spsIndex);
    const H264Sps& sps = *spsTable[spsIndex];
    if (sps.separate_colour_plane_flag) reader.readBits(2);  // colour_plane_id
    reader.readBits(sps.log2_max_frame_num_minus4 + 4 > 32 ? 32 : sps.log2_max_frame_num_minus4 + 4);  // frame_num
    if (!sps.frame_mbs_only_flag) reader.readFlag();  // field_pic_flag
    activeSps = &sps;

    std::int64_t unitsInTick = 1;
    std::int64_t timeScale = 60;
    if (sps.vui_parameters_present_flag && sps.vui.timing_info_present_flag && sps.vui.time_scale != 0) {
        unitsInTick = sps.vui.num_units_in_tick;
        timeScale = sps.vui.time_scale;
    }
    const auto unset = [](std::uint32_t value) { return value == 0xFFFFFFFFu || value == 0xFFFFFFFEu; };
    if (unset(seiTiming.initialCpbRemovalDelay) || unset(seiTiming.cpbRemovalDelay) ||
        unset(seiTiming.dpbOutputDelay))
        return false;
    const std::int64_t d = seiTiming.dpbOutputDelay;
    const std::int64_t t = cpbAccumulated + lastCpbRemovalDelay;
    if (!haveFirstOutputTick) {
        firstOutputTick = d + t;
        haveFirstOutputTick = true;
    }
    // Products of 32-bit stream values and the clock can pass 64 bits on corrupt input: they wrap, as
    // two's complement arithmetic does, and the test below catches a decoding time past the presentation time.
    computedPts = wrapAdd(baseTime, wrapMul(wrapMul(unitsInTick, clockRate), d + t - firstOutputTick) / timeScale);
    computedDts = wrapSub(computedPts, wrapMul(wrapMul(unitsInTick, d), clockRate) / timeScale);
    if (computedDts > computedPts) computedDts = 0;
    if (seiTiming.bufferingPeriodSeen) cpbBase = t;
    return true;
}

FrameRate NALH264Manager::getFrameRate() const {
    FrameRate rate;
    if (activeSps == nullptr || activeSps->seq_parameter_set_id >= kSpsSlots) return rate;
    if (!activeSps->vui_parameters_present_flag || !activeSps->vui.timing_info_present_flag) return rate;
    rate.numerator = activeSps->vui.time_scale;
    rate.denominator = 2 * static_cast<std::int64_t>(activeSps->vui.num_units_in_tick);
    return rate;
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
