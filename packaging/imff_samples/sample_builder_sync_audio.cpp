#include <span>

#include "packaging/imff_samples/sample_builder_audio.h"
#include "packaging/imff_samples/sample_builder_video.h"
#include "packaging/lib_parse_es/nal_audio_frames.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

using lib_parse_es::StreamType;

namespace {
constexpr std::int64_t kAc3FrameTicks = 1536;
}  // namespace

// ---- AC-3 / E-AC-3 ----

void SampleBuilderAc3Audio::onNal(std::unique_ptr<NAL>& holder) {
    if (!holder || holder->type != StreamType::AC3_AUDIO || holder->length < 7) return;
    const std::span<const std::uint8_t> bytes(holder->bytes(), holder->length);
    lib_parse_es::Ac3FrameParameters params;
    if (!lib_parse_es::parseAc3FrameParameters(bytes.data(), params)) return;
    lib_parse_es::Ac3StreamInfo info;
    const bool readable = lib_parse_es::parseAc3StreamInfo(bytes, info);
    // An E-AC-3 access unit is an independent substream 0 frame and whatever substreams follow it.
    const bool opensUnit = !info.isEac3 || (readable && info.strmtyp != 1 && info.substreamId == 0);
    if (!opensUnit) {
        if (!m_pending.empty()) m_pending.insert(m_pending.end(), bytes.begin(), bytes.end());
        return;
    }
    sendPending();
    if (sampleRate == 0) {
        if (!readable) return;
        sampleRate = static_cast<std::int32_t>(params.sampleRate);
        bitRate = params.bitRate;
        channelClass = params.channelClass;
        isEac3 = params.isEac3;
    }
    if (holder->timing.hasTime) {
        baseTime = rescaleFrom90kHz(holder->timing.time90kHz(), static_cast<std::uint32_t>(sampleRate));
        frameCount = 0;
    }
    const std::int64_t pts = baseTime + std::int64_t{frameCount} * kAc3FrameTicks;
    ++frameCount;
    if (isEac3) {
        m_pending.assign(bytes.begin(), bytes.end());
        m_pendingPts = pts;
        m_pendingTiming = holder->timing;
        return;
    }
    if (decoderConfig.empty()) {
        decoderConfig.assign(bytes.begin(), bytes.end());
        sendDecoderConfig(StreamType::AC3_AUDIO);
    }
    emitFrame(StreamType::AC3_AUDIO, copyNal(*holder, 0), pts, static_cast<std::uint32_t>(sampleRate), kAc3FrameTicks,
              holder->timing);
}

void SampleBuilderAc3Audio::sendPending() {
    if (m_pending.empty()) return;
    if (decoderConfig.empty()) {
        decoderConfig = m_pending;
        sendDecoderConfig(StreamType::AC3_AUDIO);
    }
    auto unit = std::make_unique<NAL>(-1, static_cast<std::int32_t>(m_pending.size()));
    unit->append(m_pending.data(), m_pending.size());
    unit->timing = m_pendingTiming;
    m_pending.clear();
    emitFrame(StreamType::AC3_AUDIO, std::move(unit), m_pendingPts, static_cast<std::uint32_t>(sampleRate),
              kAc3FrameTicks, m_pendingTiming);
}

void SampleBuilderAc3Audio::onEnd() {
    sendPending();
    SampleBuilderAudio::onEnd();
}

// ---- MPEG-1 audio ----

void SampleBuilderMpeg1Audio::onNal(std::unique_ptr<NAL>& holder) {
    if (!holder || holder->type != StreamType::MPEG1_AUDIO) return;
    lib_parse_es::Mpeg1AudioHeader header;
    if (!lib_parse_es::parseMpeg1AudioHeader({holder->bytes(), holder->length}, header) || header.sampleRate == 0)
        return;
    if (sampleRate == 0) {
        sampleRate = static_cast<std::int32_t>(header.sampleRate);
        decoderConfig = lib_parse_es::mpeg1DecoderConfig(header.sampleRate, header.channels);
        sendDecoderConfig(StreamType::MPEG1_AUDIO);
    }
    const auto rate = static_cast<std::uint32_t>(sampleRate);
    if (holder->timing.hasTime) {
        baseTime = rescaleFrom90kHz(holder->timing.time90kHz(), rate);
        frameCount = 0;
    }
    const std::int64_t duration = header.layerField == 0 ? 384 : 1152;
    const std::int64_t pts = baseTime + std::int64_t{frameCount} * duration;
    ++frameCount;
    emitFrame(StreamType::MPEG1_AUDIO, copyNal(*holder, 0), pts, rate, duration, holder->timing);
}

// ---- AC-4 ----

void SampleBuilderAc4Audio::onNal(std::unique_ptr<NAL>& holder) {
    if (!holder || holder->type != StreamType::AC4_AUDIO) return;
    lib_parse_es::Ac4Toc toc;
    const bool readable = lib_parse_es::parseAc4Toc({holder->bytes(), holder->length}, toc);
    if (decoderConfig.empty()) {
        if (!readable || lib_parse_es::ac4FrameLength(toc) == 0) return;
        m_timescale = lib_parse_es::ac4Timescale(toc);
        m_frameLength = lib_parse_es::ac4FrameLength(toc);
        sampleRate = static_cast<std::int32_t>(m_timescale);
        decoderConfig.assign(holder->bytes(), holder->bytes() + holder->length);
        sendDecoderConfig(StreamType::AC4_AUDIO);
    }
    // A frame that shares its input buffer with an earlier one has no time: it follows the last timed frame.
    if (holder->timing.hasTime) {
        baseTime = rescaleFrom90kHz(holder->timing.time90kHz(), m_timescale);
        frameCount = 0;
    }
    const std::int64_t pts = baseTime + std::int64_t{frameCount} * m_frameLength;
    ++frameCount;
    emitFrameWithSync(StreamType::AC4_AUDIO, copyNal(*holder, 0), pts, m_timescale, m_frameLength, holder->timing,
                      readable && toc.iframeGlobal);
}

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
