#include "packaging/lib_parse_es/nal_builder_mpeg2.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

std::unique_ptr<NAL> NALBuilderMPEG2::makeNal(std::int32_t capacity) {
    return std::make_unique<NalInputTypeGeneric<StreamType::MPEG2_VIDEO>>(capacity);
}

void NALBuilderMPEG2::push(IMediaData* data) {
    if (data == nullptr) return;
    QueuedBuffer entry;
    if (!bufferBytes(*data, entry.bytes, entry.size)) return;
    entry.data = MediaDataRef(data);
    entry.timingPending = true;
    m_queue.push_back(std::move(entry));
    const std::uint8_t* p = m_queue.back().bytes;
    const std::size_t n = m_queue.back().size;
    for (std::size_t i = 0; i < n; ++i) {
        // The three bytes before this one were 00 00 01: a unit starts three bytes back.
        if (m_startCodePrefix) boundaryAt(static_cast<std::int64_t>(i) - 3);
        const bool zero = p[i] == 0;
        m_startCodePrefix = m_twoZeros && p[i] == 1;
        m_twoZeros = m_previousZero && zero;
        m_previousZero = zero;
    }
    if (!unitOpen()) {
        // Keep only the buffers that hold the last three bytes: they may begin the first start code.
        std::size_t tail = 0;
        std::size_t keepFrom = m_queue.size();
        while (keepFrom > 0 && tail < 3) {
            --keepFrom;
            tail += m_queue[keepFrom].size;
        }
        m_queue.erase(m_queue.begin(), m_queue.begin() + static_cast<std::ptrdiff_t>(keepFrom));
    }
}

void NALBuilderMPEG2::boundaryAt(std::int64_t offset) {
    std::size_t index = m_queue.size() - 1;
    while (offset < 0 && index > 0) {
        --index;
        offset += m_queue[index].size;
    }
    if (offset < 0) offset = 0;
    const auto boundary = static_cast<std::uint32_t>(offset);
    std::unique_ptr<NAL> unit;
    if (unitOpen()) unit = assemble(index, boundary);
    m_queue.erase(m_queue.begin(), m_queue.begin() + static_cast<std::ptrdiff_t>(index));
    m_unitStart = boundary;
    if (unit) deliver(std::move(unit));
}

std::unique_ptr<NAL> NALBuilderMPEG2::assemble(std::size_t endIndex, std::uint32_t endOffset) {
    std::uint64_t length = 0;
    for (std::size_t i = 0; i < endIndex; ++i) length += m_queue[i].size;
    length = length + endOffset - m_unitStart;
    if (length > 0x7FFFFFFFu) return nullptr;
    std::unique_ptr<NAL> unit = makeNal(static_cast<std::int32_t>(length));
    for (std::size_t i = 0; i <= endIndex; ++i) {
        const QueuedBuffer& buffer = m_queue[i];
        const std::uint32_t from = i == 0 ? m_unitStart : 0;
        const std::uint32_t to = i == endIndex ? endOffset : buffer.size;
        if (to > from) unit->append(buffer.bytes + from, to - from);
    }
    // Only the first unit that begins after a buffer arrived carries its time; the media time always goes.
    QueuedBuffer& first = m_queue.front();
    if (first.timingPending) {
        takeBufferTiming(*first.data, unit->timing, false);
        first.timingPending = false;
    } else {
        std::int64_t start = 0;
        std::int64_t stop = 0;
        if (tvrn::com::SUCCEEDED(first.data->GetMediaTime(&start, &stop))) {
            unit->timing.hasMediaTime = 1;
            unit->timing.mediaTime = start;
        }
    }
    return unit;
}

void NALBuilderMPEG2::flush() {
    std::unique_ptr<NAL> unit;
    if (unitOpen() && !m_queue.empty()) unit = assemble(m_queue.size() - 1, m_queue.back().size);
    m_queue.clear();
    m_unitStart = kNoUnit;
    m_previousZero = m_twoZeros = m_startCodePrefix = false;
    if (unit) deliver(std::move(unit));
    signalEnd();
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
