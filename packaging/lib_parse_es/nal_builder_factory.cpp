#include "packaging/lib_parse_es/nal_builder.h"
#include "packaging/lib_parse_es/nal_builder_aac.h"
#include "packaging/lib_parse_es/nal_builder_audio_frames.h"
#include "packaging/lib_parse_es/nal_builder_bit_pattern.h"
#include "packaging/lib_parse_es/nal_builder_h264_hevc.h"
#include "packaging/lib_parse_es/nal_builder_metadata.h"
#include "packaging/lib_parse_es/mpeg2_video.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

std::unique_ptr<NALBuilder> createNalBuilder(std::uint32_t streamType) {
    switch (streamType) {
        case StreamType::H264_VIDEO: return std::make_unique<NALBuilderH264>();
        case StreamType::HEVC_VIDEO: return std::make_unique<NALBuilderHEVC>();
        case StreamType::AAC_ADTS_AUDIO: return std::make_unique<NALBuilderAACADTSAudio>();
        case StreamType::AAC_LATM_AUDIO: return std::make_unique<NALBuilderAACLATMLOASAudio>();
        case StreamType::AAC_RAW_AUDIO: return std::make_unique<NALBuilderAACRawAudio>();
        case StreamType::AC3_AUDIO: return std::make_unique<NALBuilderAC3Audio>();
        case StreamType::MPEG1_AUDIO: return std::make_unique<NALBuilderMPEG1Audio>();
        case StreamType::AC4_AUDIO: return std::make_unique<NALBuilderAC4Audio>();
        case StreamType::MPEG2_VIDEO: return std::make_unique<NALBuilderMPEG2Video>();
        case StreamType::H263_VIDEO: return std::make_unique<NalBuilderStartCodeBased<NALH263>>();
        case StreamType::MPEG4_VIDEO: return std::make_unique<NalBuilderStartCodeBased<NALMPEG4Visual>>();
        case StreamType::PRORES: return std::make_unique<NalBuilderStartCodeBased<NALProRes>>();
        case StreamType::JPEG2000:
            return std::make_unique<NalBuilderSyncPointBased<NalInputTypeGeneric<StreamType::JPEG2000>>>();
        case StreamType::DV_VIDEO:
            return std::make_unique<NalBuilderSyncPointBased<NalInputTypeGeneric<StreamType::DV_VIDEO>>>();
        case StreamType::SRT:
            return std::make_unique<NalBuilderSyncPointBased<NalInputTypeGeneric<StreamType::SRT>>>();
        case StreamType::TTML: return std::make_unique<NalBuilderTextItem<NalInputTypeGeneric<StreamType::TTML>>>();
        case StreamType::WEBVTT:
            return std::make_unique<NalBuilderTextItem<NalInputTypeGeneric<StreamType::WEBVTT>>>();
        case StreamType::SCTE_35: return std::make_unique<NALBuilderSCTE35>();
        case StreamType::MPEG2_TS: return std::make_unique<NALBuilderMpeg2ts>();
        case StreamType::TELETEXT:
            return std::make_unique<NalBuilderSyncPointBased<NalInputTypeGeneric<StreamType::TELETEXT>>>();
        case StreamType::DVB_SUBTITLE:
            return std::make_unique<NalBuilderSyncPointBased<NalInputTypeGeneric<StreamType::DVB_SUBTITLE>>>();
        case StreamType::KLV: return std::make_unique<NalBuilderSyncPointBased<NalInputTypeGeneric<StreamType::KLV>>>();
        // Each further codec's framing adds its builder here.
        default: return nullptr;
    }
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
