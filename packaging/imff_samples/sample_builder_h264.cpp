#include "packaging/imff_samples/sample_builder_h264.h"

#include <algorithm>
#include <vector>

#include "packaging/lib_parse_es/nal_h264_hevc.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

using lib_parse_es::NALH264_HEVC;
using lib_parse_es::NalTimingInfo;
using lib_parse_es::to90kHz;

namespace {

// 90000 / rate rounded to the nearest tick, with halves away from zero.
std::int64_t frameDuration90kHz(std::int64_t numerator, std::int64_t denominator) {
    const std::int64_t dividend = denominator * 90000;
    const std::int64_t half = numerator / 2;
    return ((dividend < 0) != (numerator < 0) ? dividend - half : dividend + half) / numerator;
}

}  // namespace

void SampleBuilderH264::mergeTiming(NalTimingInfo& timing) {
    if (timing.hasTime) {
        m_latch.hasTime = true;
        m_latch.time = timing.time;
        m_latch.syncPoint = timing.syncPoint;
        m_latch.preroll = timing.preroll;
        m_latch.cuePoint = timing.cuePoint;
    } else if (m_latch.hasTime) {
        timing.hasTime = 1;
        timing.time = m_latch.time;
        timing.syncPoint = m_latch.syncPoint;
        timing.preroll = m_latch.preroll;
        timing.cuePoint = m_latch.cuePoint;
    }
    if (timing.hasMediaTime) {
        m_latch.hasMediaTime = true;
        m_latch.mediaTime = timing.mediaTime;
    } else if (m_latch.hasMediaTime) {
        timing.hasMediaTime = 1;
        timing.mediaTime = m_latch.mediaTime;
    }
    if (timing.hasDataId) {
        m_latch.hasDataId = true;
        m_latch.dataId = timing.dataId;
    } else if (m_latch.hasDataId) {
        timing.hasDataId = 1;
        timing.dataId = m_latch.dataId;
    }
    if (timing.hasParentalRating) {
        m_latch.hasParentalRating = true;
        m_latch.parentalRating = timing.parentalRating;
    } else if (m_latch.hasParentalRating) {
        timing.hasParentalRating = 1;
        timing.parentalRating = m_latch.parentalRating;
    }
}

void SampleBuilderH264::onNal(std::unique_ptr<NAL>& holder) {
    if (!holder || holder->type != lib_parse_es::StreamType::H264_VIDEO) return;
    auto* nal = dynamic_cast<NALH264_HEVC*>(holder.get());
    if (nal == nullptr) return;
    std::uint8_t nalUnitType = 0;
    std::uint32_t headerOffset = 0;
    if (!nal->getNalUnitType(nalUnitType, headerOffset)) return;
    mergeTiming(nal->timing);

    std::uint32_t rbspSize = 0;
    switch (nalUnitType) {
        case 1:
        case 5: onSlice(holder, *nal, nalUnitType, headerOffset); break;
        case 6: {
            const std::uint8_t* rbsp = nal->getRbsp(rbspSize);
            manager.addSei(rbsp, rbspSize);
            lastSei = lengthPrefixedNal(*nal, headerOffset);
            break;
        }
        case 7: {
            const std::uint8_t* rbsp = nal->getRbsp(rbspSize);
            manager.addSps(rbsp, rbspSize);
            keepParameterSet(lengthPrefixedNal(*nal, headerOffset), lastSps, spsSent, KindSequenceParameterSet,
                             lib_parse_es::StreamType::H264_VIDEO);
            break;
        }
        case 8: {
            const std::uint8_t* rbsp = nal->getRbsp(rbspSize);
            manager.addPps(rbsp, rbspSize);
            keepParameterSet(lengthPrefixedNal(*nal, headerOffset), lastPps, ppsSent, KindPictureParameterSet,
                             lib_parse_es::StreamType::H264_VIDEO);
            break;
        }
        default: break;  // delimiters, filler and everything else never reach a sample
    }
}

void SampleBuilderH264::onSlice(std::unique_ptr<NAL>& holder, NALH264_HEVC& nal, std::uint8_t nalUnitType,
                                std::uint32_t headerOffset) {
    const NalTimingInfo& timing = nal.timing;
    if (timing.hasTime) {
        manager.baseTime = to90kHz(timing.time);
        manager.haveFirstOutputTick = false;
    }
    // The slice header fields read here (three codes, colour plane, frame_num, field flag) lie within its first
    // 30 bytes of RBSP: only a prefix of the unit is unescaped, not the whole slice, which would cost a
    // byte-by-byte pass over every picture.
    constexpr std::uint32_t kSliceHeaderPrefix = 64;
    const std::vector<std::uint8_t> head =
        lib_parse_es::unescapeRbsp(nal.bytes(), std::min(nal.length, kSliceHeaderPrefix));
    int ppsId = -1;
    int spsId = -1;
    const bool timesMade = manager.addSlice(head.data(), head.size(), ppsId, spsId);
    if (!timing.hasTime) return;  // no timestamp yet in this stream

    const std::int64_t pts = to90kHz(timing.time);
    std::int64_t dts = 0;
    if (timing.hasMediaTime) {
        dts = to90kHz(timing.mediaTime);  // an input decoding time wins over the computed one
    } else if (timesMade && manager.haveFirstOutputTick) {
        dts = manager.computedDts + pts - manager.computedPts;
    } else {
        return;
    }

    if (m_current) {
        if (dts < m_current->dts) return;  // retrograde decoding time: dropped, the sample stays open
        if (dts == m_current->dts) {
            m_current->addNal(takeLengthPrefixed(holder, headerOffset));
            return;
        }
        emit(std::move(m_current));
    }

    const lib_parse_es::FrameRate rate = manager.getFrameRate();
    if (rate.numerator == rate.denominator || rate.numerator == 0) return;  // no usable frame rate
    m_current = makeSample(KindVideo, lib_parse_es::StreamType::H264_VIDEO, pts, dts,
                           frameDuration90kHz(rate.numerator, rate.denominator));
    m_current->sync = nalUnitType == 5;
    m_current->sapType = manager.iSlice ? 1 : 0;
    m_current->hasDataId = m_latch.hasDataId;
    m_current->dataId = m_latch.dataId;
    if (m_latch.hasParentalRating && m_latch.parentalRating) {
        m_current->hasParentalRating = true;
        m_current->parentalRating = m_latch.parentalRating;
    }
    m_current->addNal(takeLengthPrefixed(holder, headerOffset));
}

void SampleBuilderH264::onEnd() {
    if (m_current) emit(std::move(m_current));
    SampleBuilderVideo::onEnd();
}

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
