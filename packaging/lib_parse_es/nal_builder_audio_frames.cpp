#include "packaging/lib_parse_es/nal_builder_audio_frames.h"

#include <algorithm>

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

void NALBuilderSyncFrames::push(IMediaData* data) {
    const std::uint64_t begin = m_queue.end();
    if (!m_queue.push(data)) return;
    const std::uint64_t end = m_queue.end();
    std::uint8_t header[8] = {};
    const auto read = [&](std::uint64_t from) {
        for (std::uint32_t i = 0; i < m_headerSize; ++i) header[i] = m_queue.at(from + i);
        return frameSize(header);
    };
    for (std::uint64_t p = begin; p < end; ++p) {
        if (p + 1 < m_headerSize) continue;
        if (!m_inFrame) {
            // Hunting: a header that ends on this byte opens a frame.
            const std::uint64_t start = p + 1 - m_headerSize;
            const std::uint32_t size = read(start);
            if (size >= m_headerSize) {
                m_inFrame = true;
                m_frameStart = start;
                m_frameSize = size;
            }
            continue;
        }
        const std::uint64_t next = m_frameStart + m_frameSize;
        if (p + 1 != next + m_headerSize) continue;
        // The header behind the frame confirms it. Without one it was a false sync: the hunt goes on from the
        // byte after it, so that a real frame inside the false one is still found.
        const std::uint32_t size = read(next);
        if (size >= m_headerSize) {
            emit(next);
            m_frameStart = next;
            m_frameSize = size;
        } else {
            m_inFrame = false;
            p = m_frameStart + m_headerSize - 1;
        }
    }
    // Keep what an open frame, or a header that may end in the next buffer, still needs.
    const std::uint64_t keepFrom = end >= m_headerSize ? end - m_headerSize : 0;
    m_queue.dropBefore(m_inFrame ? std::min(m_frameStart, keepFrom) : keepFrom);
}

void NALBuilderSyncFrames::emit(std::uint64_t end) {
    const std::uint64_t size = end - m_frameStart;
    auto frame = makeFrame(static_cast<std::uint32_t>(size));
    m_queue.copy(m_frameStart, size, *frame);
    if (QueuedBuffer* first = m_queue.bufferAt(m_frameStart); first != nullptr && first->timingPending) {
        takeBufferTiming(*first->data, frame->timing, false);
        first->timingPending = false;
    }
    deliver(std::move(frame));
}

void NALBuilderSyncFrames::flush() {
    // The last frame has no header behind it: it goes out with what has arrived.
    if (m_inFrame && m_queue.end() > m_frameStart)
        emit(std::min<std::uint64_t>(m_queue.end(), m_frameStart + m_frameSize));
    m_queue.clear();
    m_inFrame = false;
    signalEnd();
}

std::uint32_t NALBuilderAC3Audio::frameSize(const std::uint8_t* header) const {
    Ac3FrameParameters params;
    return parseAc3FrameParameters(header, params) ? params.frameSize : 0;
}

std::unique_ptr<NAL> NALBuilderAC3Audio::makeFrame(std::uint32_t size) const {
    return std::make_unique<NALAC3>(static_cast<std::int32_t>(size));
}

std::uint32_t NALBuilderMPEG1Audio::frameSize(const std::uint8_t* header) const {
    return mpeg1FrameSize(header, m_acceptLayer3);
}

std::unique_ptr<NAL> NALBuilderMPEG1Audio::makeFrame(std::uint32_t size) const {
    return std::make_unique<NALMPEG1Audio>(static_cast<std::int32_t>(size));
}

std::span<const BitPattern> NALAC4Framed::patterns() {
    static const BitPattern kPatterns[] = {{{0xAC, 0x40}, 16, 0}, {{0xAC, 0x41}, 16, 0}};
    return kPatterns;
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
