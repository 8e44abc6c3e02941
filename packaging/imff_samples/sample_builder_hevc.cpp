#include "packaging/imff_samples/sample_builder_hevc.h"

#include "packaging/lib_parse_es/hevc_sps.h"
#include "packaging/lib_parse_es/nal_h264_hevc.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

using lib_parse_es::NALH264_HEVC;
using lib_parse_es::StreamType;
using lib_parse_es::to90kHz;

namespace {

enum HevcNalType : std::uint8_t {
    kBlaWLp = 16,
    kBlaWRadl = 17,
    kBlaNLp = 18,
    kIdrWRadl = 19,
    kIdrNLp = 20,
    kCra = 21,
    kVps = 32,
    kSps = 33,
    kPps = 34,
    kAud = 35,
    kEos = 36,
    kEob = 37,
    kPrefixSei = 39,
};

std::uint32_t sapTypeOf(std::uint8_t type) {
    switch (type) {
        case kBlaWLp:
        case kBlaWRadl:
        case kIdrWRadl:
        case kCra: return 2;
        case kBlaNLp:
        case kIdrNLp: return 1;
        default: return 0;
    }
}

}  // namespace

void SampleBuilderHEVC::onNal(std::unique_ptr<NAL>& holder) {
    if (!holder || holder->type != StreamType::HEVC_VIDEO) return;
    auto* nal = dynamic_cast<NALH264_HEVC*>(holder.get());
    if (nal == nullptr) return;
    std::uint8_t type = 0;
    std::uint32_t headerOffset = 0;
    if (!nal->getNalUnitType(type, headerOffset)) return;

    const lib_parse_es::NalTimingInfo& timing = nal->timing;
    if (timing.hasTime) {
        lastTime = to90kHz(timing.time);
        m_haveTime = true;
    }
    if (timing.hasMediaTime) {
        lastMediaTime = to90kHz(timing.mediaTime);
        m_haveMediaTime = true;
    }
    if (!m_pendingHasDataId) {
        m_pendingHasDataId = timing.hasDataId;
        m_pendingDataId = timing.dataId;
    }
    // The rating's presence lands on the pending data identifier, never on a rating of its own: HEVC samples
    // carry no parental rating, and a unit without one withdraws a pending identifier.
    m_pendingHasDataId = timing.hasParentalRating;

    switch (type) {
        case kVps:
            keepParameterSet(lengthPrefixedNal(*nal, headerOffset), lastVps, vpsSent, KindVideoParameterSet,
                             StreamType::HEVC_VIDEO);
            return;
        case kSps: {
            std::uint32_t rbspSize = 0;
            const std::uint8_t* rbsp = nal->getRbsp(rbspSize);
            // The RBSP starts with the start code; the SPS syntax follows the two header bytes.
            const std::size_t header = lib_parse_es::skipStartCode(rbsp, rbspSize);
            const std::size_t start = header + 2 <= rbspSize ? header + 2 : rbspSize;
            const lib_parse_es::HevcSps sps = lib_parse_es::parseHevcSps(rbsp + start, rbspSize - start);
            // Without timing in the VUI the stream has no usable duration; zero stands for that.
            frameDuration = sps.vui_time_scale != 0
                                ? static_cast<std::int64_t>(sps.vui_num_units_in_tick) * 90000 / sps.vui_time_scale
                                : 0;
            keepParameterSet(lengthPrefixedNal(*nal, headerOffset), lastSps, spsSent, KindSequenceParameterSet,
                             StreamType::HEVC_VIDEO);
            return;
        }
        case kPps:
            keepParameterSet(lengthPrefixedNal(*nal, headerOffset), lastPps, ppsSent, KindPictureParameterSet,
                             StreamType::HEVC_VIDEO);
            return;
        case kAud:
        case kEos:
        case kEob: return;
        case kPrefixSei: lastSei = lengthPrefixedNal(*nal, headerOffset); return;
        default: break;
    }

    // Picture data: a new presentation time begins a new sample.
    if (!m_current || m_current->pts != lastTime) {
        if (m_current) emit(std::move(m_current));
        m_current = makeSample(KindVideo, StreamType::HEVC_VIDEO, lastTime, lastMediaTime, frameDuration);
        m_current->hasPts = m_haveTime;
        m_current->hasDts = m_haveMediaTime;
        m_current->sync = type == kIdrWRadl || type == kIdrNLp;
        m_current->sapType = sapTypeOf(type);
        m_current->hasDataId = m_pendingHasDataId;
        m_current->dataId = m_pendingDataId;
        m_pendingHasDataId = false;
    }
    m_current->addNal(takeLengthPrefixed(holder, headerOffset));
}

void SampleBuilderHEVC::onEnd() {
    if (m_current) emit(std::move(m_current));
    SampleBuilderVideo::onEnd();
}

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
