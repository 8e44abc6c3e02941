#include "packaging/fmp4/chunks/video_sample_entry.h"

#include <numeric>
#include <vector>

#include "packaging/codec_box/video_boxes.h"
#include "packaging/fmp4/chunks/codec_string.h"
#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "packaging/lib_parse_es/h264_manager.h"
#include "packaging/lib_parse_es/hevc_sps.h"
#include "packaging/lib_parse_es/nal_h264_hevc.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

namespace {

using Bytes = std::vector<std::uint8_t>;

// The parameter sets of a first chunk, each unit without its 4-byte length.
struct ParameterSets {
    std::vector<Bytes> vps, sps, pps;
};

ParameterSets collectParameterSets(const StreamChunk& chunk) {
    ParameterSets sets;
    for (const auto& syncSample : chunk.samples) {
        const auto* sample = dynamic_cast<const Fmp4Sample*>(syncSample.get());
        if (sample == nullptr) continue;
        std::vector<Bytes>* target = nullptr;
        switch (sample->kind()) {
            case imff_samples::KindSequenceParameterSet: target = &sets.sps; break;
            case imff_samples::KindPictureParameterSet: target = &sets.pps; break;
            case imff_samples::KindVideoParameterSet: target = &sets.vps; break;
            default: continue;
        }
        for (const auto& nal : sample->sample()->nals) {
            if (nal->length <= 4) continue;  // a length and nothing behind it
            const std::uint8_t* b = nal->bytes();
            target->emplace_back(b + 4, b + nal->length);
        }
    }
    return sets;
}

// The unit behind a start code with emulation prevention removed, as the parsers take it.
Bytes rbspOf(const Bytes& unit) {
    Bytes withStartCode{0, 0, 0, 1};
    withStartCode.insert(withStartCode.end(), unit.begin(), unit.end());
    return lib_parse_es::unescapeRbsp(withStartCode.data(), withStartCode.size());
}

Bytes annexB(const std::vector<const std::vector<Bytes>*>& lists) {
    Bytes out;
    for (const auto* list : lists)
        for (const Bytes& unit : *list) {
            out.insert(out.end(), {0, 0, 0, 1});
            out.insert(out.end(), unit.begin(), unit.end());
        }
    return out;
}

void reduce(std::int64_t& numerator, std::int64_t& denominator) {
    if (numerator <= 0 || denominator <= 0) {
        numerator = 0;
        denominator = 1;
        return;
    }
    const std::int64_t g = std::gcd(numerator, denominator);
    numerator /= g;
    denominator /= g;
}

// Table E-1 of H.264 and HEVC.
void sampleAspectRatio(std::uint8_t idc, std::uint32_t& width, std::uint32_t& height) {
    static const std::uint16_t kTable[17][2] = {{1, 1},   {1, 1},   {12, 11}, {10, 11}, {16, 11}, {40, 33},
                                                {24, 11}, {20, 11}, {32, 11}, {80, 33}, {18, 11}, {15, 11},
                                                {64, 33}, {160, 99}, {4, 3},  {3, 2},   {2, 1}};
    if (idc < 17) {
        width = kTable[idc][0];
        height = kTable[idc][1];
    }
}

VideoSampleEntryResult makeAvc(const ParameterSets& sets, bool inBandEntry) {
    VideoSampleEntryResult result;
    if (sets.sps.empty() || sets.sps.front().size() < 4) return result;
    const Bytes rbsp = rbspOf(sets.sps.front());
    const auto sps = lib_parse_es::parseH264Sps(rbsp.data(), rbsp.size());

    auto entry = std::make_shared<codec_box::AVCSampleEntry>(inBandEntry);
    auto& c = entry->configuration;
    c.profileIndication = sets.sps.front()[1];
    c.profileCompatibility = sets.sps.front()[2];
    c.levelIndication = sets.sps.front()[3];
    for (const Bytes& unit : sets.sps)
        if (c.sequenceParameterSets.size() < 31) c.sequenceParameterSets.push_back(unit);
    for (const Bytes& unit : sets.pps)
        if (c.pictureParameterSets.size() < 255) c.pictureParameterSets.push_back(unit);
    c.chromaFormat = static_cast<std::uint8_t>(sps->chroma_format_idc & 3);
    c.bitDepthLumaMinus8 = static_cast<std::uint8_t>(sps->bit_depth_luma_minus8 & 7);
    c.bitDepthChromaMinus8 = static_cast<std::uint8_t>(sps->bit_depth_chroma_minus8 & 7);

    const lib_parse_es::PictureSize size = lib_parse_es::croppedSize(*sps);
    entry->width = size.width;
    entry->height = size.height;

    VideoManifestInfo& m = result.manifest;
    m.width = entry->width;
    m.height = entry->height;
    m.interlaced = !sps->frame_mbs_only_flag;
    if (sps->vui.timing_info_present_flag) {
        // A tick is a field: a frame lasts two.
        m.frameRateNumerator = sps->vui.time_scale;
        m.frameRateDenominator = 2 * std::int64_t{sps->vui.num_units_in_tick};
    }
    reduce(m.frameRateNumerator, m.frameRateDenominator);
    if (sps->vui.aspect_ratio_info_present_flag) {
        if (sps->vui.aspect_ratio_idc == 255 && sps->vui.sar_width != 0 && sps->vui.sar_height != 0) {
            m.sarWidth = sps->vui.sar_width;
            m.sarHeight = sps->vui.sar_height;
        } else {
            sampleAspectRatio(sps->vui.aspect_ratio_idc, m.sarWidth, m.sarHeight);
        }
    }
    m.codecPrivateData = annexB({&sets.sps, &sets.pps});
    m.fourCC = imff_box::fourCCText(entry->getType());
    m.codecs = codecString(*entry);
    result.entry = entry;
    return result;
}

std::uint8_t hevcType(const Bytes& unit) { return static_cast<std::uint8_t>((unit[0] >> 1) & 0x3F); }

VideoSampleEntryResult makeHevc(const ParameterSets& sets, bool inBandEntry) {
    VideoSampleEntryResult result;
    if (sets.sps.empty()) return result;
    const Bytes rbsp = rbspOf(sets.sps.front());
    // Start code (4 bytes), NAL header (2), then the SPS syntax; profile_tier_level begins one byte in and its
    // general part fills 12 bytes.
    if (rbsp.size() < 4 + 2 + 1 + 12) return result;
    const std::uint8_t* body = rbsp.data() + 6;
    const lib_parse_es::HevcSps sps = lib_parse_es::parseHevcSps(body, rbsp.size() - 6);

    auto entry = std::make_shared<codec_box::HEVCSampleEntry>(inBandEntry);
    auto& c = entry->configuration;
    const std::uint8_t* ptl = body + 1;
    c.generalProfileSpace = static_cast<std::uint8_t>(ptl[0] >> 6);
    c.generalTierFlag = (ptl[0] >> 5) & 1;
    c.generalProfileIdc = ptl[0] & 0x1F;
    c.generalProfileCompatibilityFlags = (std::uint32_t{ptl[1]} << 24) | (std::uint32_t{ptl[2]} << 16) |
                                         (std::uint32_t{ptl[3]} << 8) | ptl[4];
    std::uint64_t flags48 = 0;
    for (int i = 5; i < 11; ++i) flags48 = (flags48 << 8) | ptl[i];
    c.progressiveSourceFlag = (flags48 >> 47) & 1;
    c.interlacedSourceFlag = (flags48 >> 46) & 1;
    c.nonPackedConstraintFlag = (flags48 >> 45) & 1;
    c.frameOnlyConstraintFlag = (flags48 >> 44) & 1;
    c.generalConstraintIndicatorFlags = flags48 & 0xFFFFFFFFFFFull;
    c.generalLevelIdc = ptl[11];
    c.chromaFormat = static_cast<std::uint8_t>(sps.chroma_format_idc & 3);
    c.bitDepthLumaMinus8 = static_cast<std::uint8_t>(sps.bit_depth_luma_minus8 & 7);
    c.bitDepthChromaMinus8 = static_cast<std::uint8_t>(sps.bit_depth_chroma_minus8 & 7);
    c.numTemporalLayers = static_cast<std::uint8_t>(sps.sps_max_sub_layers_minus1 + 1);
    c.temporalIdNested = sps.sps_temporal_id_nesting_flag;
    // Parameter sets that also travel in the samples leave the arrays incomplete.
    const bool complete = !inBandEntry;
    for (const auto* list : {&sets.vps, &sets.sps, &sets.pps})
        for (const Bytes& unit : *list)
            if (unit.size() >= 2) c.addNalUnit(hevcType(unit), unit, complete);

    const lib_parse_es::HevcPictureSize size = lib_parse_es::croppedSize(sps);
    entry->width = size.width;
    entry->height = size.height;

    VideoManifestInfo& m = result.manifest;
    m.width = entry->width;
    m.height = entry->height;
    m.interlaced = c.interlacedSourceFlag && !c.progressiveSourceFlag;
    if (sps.vui_timing_info_present_flag) {
        m.frameRateNumerator = sps.vui_time_scale;
        m.frameRateDenominator = sps.vui_num_units_in_tick;
    }
    reduce(m.frameRateNumerator, m.frameRateDenominator);
    m.codecPrivateData = annexB({&sets.vps, &sets.sps, &sets.pps});
    m.fourCC = imff_box::fourCCText(entry->getType());
    m.codecs = codecString(*entry);
    result.entry = entry;
    return result;
}

}  // namespace

VideoSampleEntryResult makeVideoSampleEntry(std::uint32_t streamType, const StreamChunk& firstChunk, bool inBandEntry) {
    const ParameterSets sets = collectParameterSets(firstChunk);
    if (streamType == H264_VIDEO) return makeAvc(sets, inBandEntry);
    if (streamType == HEVC_VIDEO) return makeHevc(sets, inBandEntry);
    return {};
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
