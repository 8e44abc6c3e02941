#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"

#include "packaging/fmp4_types/stream_type.h"
#include "support/text/fraction.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

namespace {
constexpr std::uint64_t kHundredNsPerSecond = 10000000;

bool isConfigurationKind(std::int32_t kind) { return kind >= 2 && kind <= 6; }

std::uint32_t codecRank(std::int32_t kind, std::uint32_t type) {
    if (!isConfigurationKind(kind)) return 0;
    if (isVideo(type)) {
        if (type == H264_VIDEO) return 2;
        if (type == HEVC_VIDEO) return 3;
        return 1;
    }
    if (isAudio(type)) return 1;
    return 0;
}

// Which configuration item a configuration sample stands for; 3 for none.
std::uint32_t configurationClass(std::int32_t kind, std::uint32_t type) {
    if (!isConfigurationKind(kind)) return 3;
    if (isVideo(type)) {
        switch (kind) {
            case 2: return 1;
            case 4: return 2;
            case 3:
            case 5: return 0;
            default: return 3;
        }
    }
    if (isAudio(type)) return kind == 6 ? 0 : 3;
    return 3;
}
}  // namespace

Fmp4Sample::Fmp4Sample(std::shared_ptr<Sample> sample)
    : m_sample(std::move(sample)),
      m_streamKind(syncStreamKind(m_sample->inputType)),
      m_codecRank(codecRank(m_sample->kind, m_sample->inputType)),
      m_configurationClass(configurationClass(m_sample->kind, m_sample->inputType)) {}

bool Fmp4Sample::getDataId(std::uint64_t& dataId) const {
    if (!m_sample->hasDataId) return false;
    dataId = m_sample->dataId;
    return true;
}

bool Fmp4Sample::hasTimeBase() const {
    return !isConfiguration() && m_sample->hasTimescale && m_sample->timescale != 0;
}

std::int64_t Fmp4Sample::toHundredNs(std::int64_t value) const {
    return rescale(value, m_sample->timescale, kHundredNsPerSecond);
}

std::int64_t Fmp4Sample::getDuration() const {
    if (!hasTimeBase() || !m_sample->hasDuration) return 0;
    return toHundredNs(m_sample->duration);
}

std::int64_t Fmp4Sample::getTime() const {
    if (!hasTimeBase() || !m_sample->hasPts) return 0;
    return toHundredNs(m_sample->pts);
}

std::int64_t Fmp4Sample::getEndTime() const {
    if (!hasTimeBase() || !m_sample->hasPts) return 0;
    const std::int64_t duration = m_sample->hasDuration ? m_sample->duration : 0;
    return toHundredNs(m_sample->pts + duration);
}

namespace {
const Fmp4Sample* firstSample(const StreamChunk& chunk) {
    if (chunk.samples.empty()) return nullptr;
    return dynamic_cast<const Fmp4Sample*>(chunk.samples.front().get());
}
}  // namespace

std::int64_t chunkStartTime(const StreamChunk& chunk, std::uint64_t timescale) {
    const Fmp4Sample* first = firstSample(chunk);
    if (first == nullptr) return 0;
    std::int64_t dts = 0;
    std::uint64_t ownTimescale = 0;
    if (!first->getDts(dts) || !first->getTimescale(ownTimescale) || ownTimescale == 0) return 0;
    return rescale(dts, ownTimescale, timescale);
}

std::int32_t chunkFirstKind(const StreamChunk& chunk) {
    const Fmp4Sample* first = firstSample(chunk);
    return first ? first->kind() : -1;
}

bool chunkIsVideo(const StreamChunk& chunk) {
    const std::int32_t kind = chunkFirstKind(chunk);
    return kind >= 0 && kind < 32 && ((61u >> kind) & 1u) != 0;
}

bool chunkIsAudio(const StreamChunk& chunk) {
    const std::int32_t kind = chunkFirstKind(chunk);
    return kind == 1 || kind == 6;
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
