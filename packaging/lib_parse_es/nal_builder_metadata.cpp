#include "packaging/lib_parse_es/nal_builder_metadata.h"

#include <algorithm>

#include "packaging/lib_parse_es/buffer_timing.h"
#include "packaging/lib_parse_es/scte35.h"
#include "support/exceptions/result_codes.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

namespace {
constexpr std::uint64_t kWrap33 = 0x200000000ull;
}  // namespace

void NALBuilderSCTE35::push(IMediaData* data) {
    if (data == nullptr) return;
    const std::uint8_t* bytes = nullptr;
    std::uint32_t size = 0;
    if (!bufferBytes(*data, bytes, size) || size > 0x7FFFFFFFu) return;
    std::optional<std::uint64_t> ptsTime;
    std::uint64_t reference = 0;
    std::uint64_t adjustment = 0;
    try {
        if (size < 8) throw SCTE_35::Exception("SCTE-35 message shorter than its clock prefix");
        for (int i = 0; i < 8; ++i) reference = reference << 8 | bytes[i];
        const SCTE_35::SpliceInfoSection section = SCTE_35::parseSpliceInfoSection(bytes + 8, size - 8);
        ptsTime = SCTE_35::splicePtsTime(section);
        adjustment = section.ptsAdjustment;
    } catch (const SCTE_35::Exception& e) {
        if (m_logger) m_logger->WriteMsg(tvrn::log::LOG_DEBUG, "SCTE-35 section dropped: %s", e.what());
        return;
    }
    auto unit = std::make_unique<NALSCTE35>(static_cast<std::int32_t>(size));
    unit->append(bytes, size);
    std::int64_t start = 0;
    std::int64_t stop = 0;
    const bool timed = tvrn::com::SUCCEEDED(data->GetTime(&start, &stop));
    if (timed) {
        unit->timing.hasTime = 1;
        unit->timing.time = start;
        unit->timing.syncPoint = data->IsSyncPoint() == tvrn::com::S_OK;
        unit->timing.discontinuity = data->IsDiscontinuity() == tvrn::com::S_OK;
    }
    if (ptsTime && timed) {
        // The splice's distance ahead of the section's clock, counted forward across the 33-bit wrap.
        const std::uint64_t splice = (*ptsTime + adjustment) % kWrap33;
        const std::uint64_t ahead = splice - reference % kWrap33 + (splice < reference % kWrap33 ? kWrap33 : 0);
        const std::int64_t at = start + from90kHz(static_cast<std::int64_t>(ahead));
        unit->spliceTime = to90kHz(at);
        unit->hasSpliceTime = true;
    }
    if (data->GetMediaTime(&start, &stop) == tvrn::com::S_OK) {
        unit->hasMediaTime90k = true;
        unit->mediaTime90k = to90kHz(start);
    }
    deliver(std::move(unit));
}

void NALBuilderMpeg2ts::push(IMediaData* data) {
    if (data == nullptr) return;
    const std::uint8_t* bytes = nullptr;
    std::uint32_t size = 0;
    if (!bufferBytes(*data, bytes, size)) return;
    std::uint32_t at = 0;
    if (!m_aligned) {
        while (at < size && bytes[at] != 0x47) ++at;
        if (at == size) return;
        m_aligned = true;
    }
    while (at < size) {
        if (!m_packet) {
            m_packet = std::make_unique<NalInputTypeGeneric<StreamType::MPEG2_TS>>(188);
            takeBufferTiming(*data, m_packet->timing, false);
        }
        const std::uint32_t take = std::min<std::uint32_t>(188 - m_packet->length, size - at);
        m_packet->append(bytes + at, take);
        at += take;
        if (m_packet->length == 188) deliver(std::move(m_packet));
    }
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
