#include "packaging/imff_samples/sample_builder.h"
#include "packaging/imff_samples/sample_builder_audio.h"
#include "packaging/imff_samples/sample_builder_h264.h"
#include "packaging/imff_samples/sample_builder_hevc.h"
#include "packaging/imff_samples/sample_builder_text.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

std::unique_ptr<SampleBuilder> createSampleBuilder(std::uint32_t streamType, bool inBandParameterSets,
                                                   ISampleListener* listener) {
    switch (streamType) {
        case fmp4::H264_VIDEO: return std::make_unique<SampleBuilderH264>(listener, inBandParameterSets);
        case fmp4::HEVC_VIDEO: return std::make_unique<SampleBuilderHEVC>(listener, inBandParameterSets);
        case fmp4::AAC_ADTS_AUDIO: return std::make_unique<SampleBuilderAACADTSAudio>(listener, inBandParameterSets);
        case fmp4::AAC_LATM_AUDIO: return std::make_unique<SampleBuilderAACLATMAudio>(listener, inBandParameterSets);
        case fmp4::AAC_RAW_AUDIO: return std::make_unique<SampleBuilderAACRAWAudio>(listener, inBandParameterSets);
        case fmp4::AC3_AUDIO: return std::make_unique<SampleBuilderAc3Audio>(listener, inBandParameterSets);
        case fmp4::MPEG1_AUDIO: return std::make_unique<SampleBuilderMpeg1Audio>(listener, inBandParameterSets);
        case fmp4::AC4_AUDIO: return std::make_unique<SampleBuilderAc4Audio>(listener, inBandParameterSets);
        case fmp4::SCTE_35:
        case fmp4::TTML: return std::make_unique<SampleBuilderMetadata>(listener, inBandParameterSets);
        case fmp4::WEBVTT: return std::make_unique<SampleBuilderWebVtt>(listener, inBandParameterSets);
        case fmp4::SRT: return std::make_unique<SampleBuilderTimedText>(listener, inBandParameterSets);
        // Each further codec's sample builder adds its case here.
        default: return nullptr;
    }
}

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
