#include "packaging/lib_parse_es/nal_builder_h264_hevc.h"

#include <cstring>

#include "packaging/lib_parse_es/nal_h264_hevc.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

const std::uint8_t* findZeroPair(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return nullptr;
    std::size_t i = 0;
    // Any pair of zero bytes holds a zero; blocks without a zero are skipped 16 bytes at a time and only
    // the zeros found are checked against their following byte.
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    while (i + 16 < size) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
        unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(block, zero)));
        while (mask != 0) {
            const unsigned bit = static_cast<unsigned>(__builtin_ctz(mask));
            if (data[i + bit + 1] == 0) return data + i + bit;  // i + bit + 1 < size holds here
            mask &= mask - 1;
        }
        i += 16;
    }
#endif
    while (i + 1 < size) {
        const void* hit = std::memchr(data + i, 0, size - 1 - i);
        if (hit == nullptr) return nullptr;
        i = static_cast<std::size_t>(static_cast<const std::uint8_t*>(hit) - data);
        if (data[i + 1] == 0) return data + i;
        i += 2;  // data[i + 1] is not zero, so no pair starts there either
    }
    return nullptr;
}

std::unique_ptr<NAL> NALBuilderH264_HEVC::makeNal(std::int32_t capacity) {
    if (m_isHevc) return std::make_unique<NALHEVC>(capacity);
    return std::make_unique<NALH264>(capacity);
}

std::unique_ptr<NAL> NALBuilderH264::makeNal(std::int32_t capacity) { return std::make_unique<NALH264>(capacity); }

std::unique_ptr<NAL> NALBuilderHEVC::makeNal(std::int32_t capacity) { return std::make_unique<NALHEVC>(capacity); }

void NALBuilderH264_HEVC::push(IMediaData* data) {
    if (data == nullptr) return;
    QueuedBuffer entry;
    if (!bufferBytes(*data, entry.bytes, entry.size)) return;
    entry.data = MediaDataRef(data);
    entry.timingPending = true;
    m_queue.push_back(std::move(entry));
    const QueuedBuffer& current = m_queue.back();
    scan(current.bytes, current.size);
    if (m_emitOnEveryPush && m_unitStart != kNoUnit) emitToEnd();
    if (m_unitStart == kNoUnit) dropUnreferencedBuffers();
}

void NALBuilderH264_HEVC::scan(const std::uint8_t* p, std::size_t n) {
    std::size_t i = 0;
    while (i < n) {
        switch (m_scanState) {
            case 0: {
                const std::uint8_t* pair = findZeroPair(p + i, n - i);
                if (pair != nullptr) {
                    i = static_cast<std::size_t>(pair - p) + 2;
                    m_scanState = 2;
                } else {
                    m_scanState = p[n - 1] == 0 ? 1 : 0;
                    i = n;
                }
                break;
            }
            case 1:
                m_scanState = p[i] == 0 ? 2 : 0;
                ++i;
                break;
            case 2:
                if (p[i] == 0) {
                    m_scanState = 3;
                } else {
                    // 00 00 01: the code began two bytes before the 01.
                    if (p[i] == 1) startCodeAt(static_cast<std::int64_t>(i) - 2);
                    m_scanState = 0;
                }
                ++i;
                break;
            default:
                if (p[i] != 0) {
                    // 00 00 00 01: further zeros before these stay with the previous unit.
                    if (p[i] == 1) startCodeAt(static_cast<std::int64_t>(i) - 3);
                    m_scanState = 0;
                }
                ++i;
                break;
        }
    }
}

void NALBuilderH264_HEVC::startCodeAt(std::int64_t offset) {
    // Find the buffer that holds the code's first byte.
    std::size_t index = m_queue.size() - 1;
    while (offset < 0 && index > 0) {
        --index;
        offset += m_queue[index].size;
    }
    // Bytes of a code that left the queue before any unit was open: start at the first byte still held.
    if (offset < 0) offset = 0;
    const auto codeOffset = static_cast<std::uint32_t>(offset);

    if (m_unitStart == kNoUnit) {
        m_queue.erase(m_queue.begin(), m_queue.begin() + static_cast<std::ptrdiff_t>(index));
        m_unitStart = codeOffset;
        return;
    }
    std::unique_ptr<NAL> unit = assemble(index, codeOffset);
    m_queue.erase(m_queue.begin(), m_queue.begin() + static_cast<std::ptrdiff_t>(index));
    m_unitStart = codeOffset;
    if (unit) deliver(std::move(unit));
}

std::unique_ptr<NAL> NALBuilderH264_HEVC::assemble(std::size_t endIndex, std::uint32_t endOffset) {
    std::uint64_t length = 0;
    for (std::size_t i = 0; i < endIndex; ++i) length += m_queue[i].size;
    length = length + endOffset - m_unitStart;
    if (length > 0x7FFFFFFFu) return nullptr;  // beyond what a unit can hold: dropped
    std::unique_ptr<NAL> unit = makeNal(static_cast<std::int32_t>(length));
    for (std::size_t i = 0; i <= endIndex; ++i) {
        const QueuedBuffer& buffer = m_queue[i];
        const std::uint32_t from = i == 0 ? m_unitStart : 0;
        const std::uint32_t to = i == endIndex ? endOffset : buffer.size;
        if (to > from) unit->append(buffer.bytes + from, to - from);
    }
    // Every unit takes the timing of the buffer it starts in, and nothing from those it runs into.
    if (m_queue.front().timingPending) takeBufferTiming(*m_queue.front().data, unit->timing, false);
    return unit;
}

void NALBuilderH264_HEVC::emitToEnd() {
    std::unique_ptr<NAL> unit = assemble(m_queue.size() - 1, m_queue.back().size);
    m_queue.clear();
    m_scanState = 0;
    m_unitStart = kNoUnit;
    if (unit) deliver(std::move(unit));
}

void NALBuilderH264_HEVC::dropUnreferencedBuffers() {
    // Without an open unit the queue holds only what may still become part of a start code: the last
    // three bytes. Everything before the first start code of a stream is dropped here.
    if (m_scanState == 0) {
        m_queue.clear();
        return;
    }
    std::size_t tail = 0;
    std::size_t keepFrom = m_queue.size();
    while (keepFrom > 0 && tail < 3) {
        --keepFrom;
        tail += m_queue[keepFrom].size;
    }
    m_queue.erase(m_queue.begin(), m_queue.begin() + static_cast<std::ptrdiff_t>(keepFrom));
}

void NALBuilderH264_HEVC::flush() {
    if (m_unitStart != kNoUnit && !m_queue.empty()) {
        emitToEnd();
    } else {
        m_queue.clear();
        m_scanState = 0;
        m_unitStart = kNoUnit;
    }
    signalEnd();
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
