// The small builders: raw buffers, and the bit patterns of the pattern-framed formats.
#include "packaging/lib_parse_es/buffer_timing.h"
#include "packaging/lib_parse_es/nal_builder_bit_pattern.h"
#include "packaging/lib_parse_es/nal_builder_raw.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

void NALBuilderRaw::push(IMediaData* data) {
    if (data == nullptr) return;
    const std::uint8_t* bytes = nullptr;
    std::uint32_t size = 0;
    if (!bufferBytes(*data, bytes, size) || size > 0x7FFFFFFFu) return;
    auto unit = std::make_unique<NAL>(static_cast<std::int32_t>(m_type), static_cast<std::int32_t>(size));
    unit->append(bytes, size);
    std::int64_t start = 0;
    std::int64_t stop = 0;
    if (tvrn::com::SUCCEEDED(data->GetTime(&start, &stop))) {
        unit->timing.hasTime = 1;
        unit->timing.time = start;
        unit->timing.syncPoint = data->IsSyncPoint() == tvrn::com::S_OK;
        unit->timing.discontinuity = data->IsDiscontinuity() == tvrn::com::S_OK;
    }
    if (data->GetMediaTime(&start, &stop) == tvrn::com::S_OK) {
        unit->timing.hasMediaTime = 1;
        unit->timing.mediaTime = start;
    }
    deliver(std::move(unit));
}

std::span<const BitPattern> NALH263::patterns() {
    static const BitPattern table[] = {{{0x00, 0x00, 0x80}, 22, 0}};
    return table;
}

std::span<const BitPattern> NALMPEG4Visual::patterns() {
    static const BitPattern table[] = {{{0x00, 0x00, 0x01}, 24, 0}};
    return table;
}

std::span<const BitPattern> NALProRes::patterns() {
    static const BitPattern table[] = {{{'i', 'c', 'p', 'f'}, 32, -4}};
    return table;
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
