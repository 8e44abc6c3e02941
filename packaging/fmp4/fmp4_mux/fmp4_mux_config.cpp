#include "packaging/fmp4/fmp4_mux/fmp4_mux_config.h"

#include <stdexcept>
#include <utility>

#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

namespace {
[[noreturn]] void impossibleTag() { throw std::logic_error("internal assertion failure"); }
[[noreturn]] void wrongTag() { throw std::logic_error("cannot convert union to given type"); }
}  // namespace

Fmp4MuxConfig::Fmp4MuxConfig() : m_tag(0), m_record(new GopSegmentsConfig{}) {}
Fmp4MuxConfig::Fmp4MuxConfig(const GopSegmentsConfig& record) : m_tag(0), m_record(new GopSegmentsConfig(record)) {}
Fmp4MuxConfig::Fmp4MuxConfig(const GopSegmentsAltConfig& record)
    : m_tag(1), m_record(new GopSegmentsAltConfig(record)) {}
Fmp4MuxConfig::Fmp4MuxConfig(const SeparateAudioSegmentsConfig& record)
    : m_tag(2), m_record(new SeparateAudioSegmentsConfig(record)) {}
Fmp4MuxConfig::Fmp4MuxConfig(const LowLatencyConfig& record) : m_tag(3), m_record(new LowLatencyConfig(record)) {}

Fmp4MuxConfig::Fmp4MuxConfig(const Fmp4MuxConfig& other) { copyFrom(other); }

Fmp4MuxConfig::Fmp4MuxConfig(Fmp4MuxConfig&& other) noexcept
    : m_tag(other.m_tag), m_record(std::exchange(other.m_record, nullptr)) {}

Fmp4MuxConfig& Fmp4MuxConfig::operator=(Fmp4MuxConfig other) noexcept {
    swap(other);
    return *this;
}

Fmp4MuxConfig::~Fmp4MuxConfig() { destroy(); }

void Fmp4MuxConfig::swap(Fmp4MuxConfig& other) noexcept {
    std::swap(m_tag, other.m_tag);
    std::swap(m_record, other.m_record);
}

void Fmp4MuxConfig::destroy() noexcept {
    if (m_record == nullptr) return;
    switch (m_tag) {
        case 0: delete static_cast<GopSegmentsConfig*>(m_record); break;
        case 1: delete static_cast<GopSegmentsAltConfig*>(m_record); break;
        case 2: delete static_cast<SeparateAudioSegmentsConfig*>(m_record); break;
        case 3: delete static_cast<LowLatencyConfig*>(m_record); break;
        default: break;
    }
    m_record = nullptr;
}

void Fmp4MuxConfig::copyFrom(const Fmp4MuxConfig& other) {
    m_tag = other.m_tag;
    if (other.m_record == nullptr) {
        m_record = nullptr;
        return;
    }
    switch (other.m_tag) {
        case 0: m_record = new GopSegmentsConfig(other.gopSegments()); break;
        case 1: m_record = new GopSegmentsAltConfig(other.gopSegmentsAlt()); break;
        case 2: m_record = new SeparateAudioSegmentsConfig(other.separateAudioSegments()); break;
        case 3: m_record = new LowLatencyConfig(other.lowLatency()); break;
        default: impossibleTag();
    }
}

Fmp4MuxConfig Fmp4MuxConfig::fromMode(std::uint32_t mode, std::int64_t gopDurationMs, std::uint32_t gopsPerSegment,
                                      std::uint32_t audioSegmentDurationMs, std::uint64_t chunkDurationMs) {
    switch (mode) {
        case GopSegments: return Fmp4MuxConfig(GopSegmentsConfig{gopDurationMs, gopsPerSegment});
        case GopSegmentsAlt: return Fmp4MuxConfig(GopSegmentsAltConfig{gopDurationMs, gopsPerSegment});
        case SeparateAudioSegments:
            return Fmp4MuxConfig(SeparateAudioSegmentsConfig{gopDurationMs, gopsPerSegment, audioSegmentDurationMs});
        case LowLatency:
            return Fmp4MuxConfig(LowLatencyConfig{
                chunkDurationMs, static_cast<std::uint64_t>(gopDurationMs) * static_cast<std::uint64_t>(gopsPerSegment)});
        default: throw CorvaneException("Unknown Fmp4 MuxMode");
    }
}

Fmp4MuxMode Fmp4MuxConfig::mode() const {
    switch (m_tag) {
        case 0: return GopSegments;
        case 1: return GopSegmentsAlt;
        case 2: return SeparateAudioSegments;
        case 3: return LowLatency;
        default: impossibleTag();
    }
}

const GopSegmentsConfig& Fmp4MuxConfig::gopSegments() const {
    if (m_tag != 0 || !m_record) wrongTag();
    return *static_cast<const GopSegmentsConfig*>(m_record);
}
const GopSegmentsAltConfig& Fmp4MuxConfig::gopSegmentsAlt() const {
    if (m_tag != 1 || !m_record) wrongTag();
    return *static_cast<const GopSegmentsAltConfig*>(m_record);
}
const SeparateAudioSegmentsConfig& Fmp4MuxConfig::separateAudioSegments() const {
    if (m_tag != 2 || !m_record) wrongTag();
    return *static_cast<const SeparateAudioSegmentsConfig*>(m_record);
}
const LowLatencyConfig& Fmp4MuxConfig::lowLatency() const {
    if (m_tag != 3 || !m_record) wrongTag();
    return *static_cast<const LowLatencyConfig*>(m_record);
}

std::uint64_t Fmp4MuxConfig::segmentDurationMs() const {
    switch (m_tag) {
        case 0: return static_cast<std::uint64_t>(gopSegments().gopDurationMs) * gopSegments().gopsPerSegment;
        case 1: return static_cast<std::uint64_t>(gopSegmentsAlt().gopDurationMs) * gopSegmentsAlt().gopsPerSegment;
        case 2:
            return static_cast<std::uint64_t>(separateAudioSegments().gopDurationMs) *
                   separateAudioSegments().gopsPerSegment;
        case 3: return lowLatency().segmentDurationMs;
        default: impossibleTag();
    }
}

std::uint32_t Fmp4MuxConfig::gopsPerSegment() const {
    switch (m_tag) {
        case 0: return gopSegments().gopsPerSegment;
        case 1: return gopSegmentsAlt().gopsPerSegment;
        case 2: return separateAudioSegments().gopsPerSegment;
        case 3: return 0;
        default: impossibleTag();
    }
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
