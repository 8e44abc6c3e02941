#include "packaging/lib_parse_es/nal_builder_h264_hevc.h"

#include <cstring>

#include "packaging/lib_parse_es/nal_h264_hevc.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

const std::uint8_t* findZeroPairSse2(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return nullptr;
    std::size_t i = 0;
#if defined(__SSE2__)
    // Position k starts a pair when max(data[k], data[k + 1]) is zero. Four 16-byte blocks are tested at once;
    // only a block set that holds a pair is looked at closely, and in slice data pairs are rare.
    const __m128i zero = _mm_setzero_si128();
    const auto pairs = [&](std::size_t at) {
        const __m128i here = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + at));
        const __m128i next = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + at + 1));
        return _mm_max_epu8(here, next);
    };
    while (i + 64 < size) {  // the last load reads data[i + 64]
        const __m128i m0 = pairs(i);
        const __m128i m1 = pairs(i + 16);
        const __m128i m2 = pairs(i + 32);
        const __m128i m3 = pairs(i + 48);
        const __m128i least = _mm_min_epu8(_mm_min_epu8(m0, m1), _mm_min_epu8(m2, m3));
        if (_mm_movemask_epi8(_mm_cmpeq_epi8(least, zero)) != 0) {
            const std::uint64_t mask =
                static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(m0, zero)))) |
                static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(m1, zero)))) << 16 |
                static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(m2, zero)))) << 32 |
                static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(m3, zero)))) << 48;
            return data + i + static_cast<std::size_t>(__builtin_ctzll(mask));
        }
        i += 64;
    }
    while (i + 16 < size) {
        const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(pairs(i), zero)));
        if (mask != 0) return data + i + static_cast<std::size_t>(__builtin_ctz(mask));
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

#if defined(__x86_64__)
namespace {

// Byte k is zero when data[at + k] and data[at + k + 1] both are.
__attribute__((target("avx2"))) inline __m256i pairsAt(const std::uint8_t* data, std::size_t at) {
    const __m256i here = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + at));
    const __m256i next = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + at + 1));
    return _mm256_max_epu8(here, next);
}

__attribute__((target("avx2"))) inline std::uint64_t zeroBits(__m256i m) {
    const __m256i zero = _mm256_setzero_si256();
    return static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(m, zero)));
}

}  // namespace

// The same search over 32-byte blocks, on processors with AVX2: slice data is most of what passes through here.
__attribute__((target("avx2"))) const std::uint8_t* findZeroPairAvx2(const std::uint8_t* data, std::size_t size) {
    std::size_t i = 0;
    while (i + 128 < size) {  // the last load reads data[i + 128]
        const __m256i m0 = pairsAt(data, i);
        const __m256i m1 = pairsAt(data, i + 32);
        const __m256i m2 = pairsAt(data, i + 64);
        const __m256i m3 = pairsAt(data, i + 96);
        const __m256i least = _mm256_min_epu8(_mm256_min_epu8(m0, m1), _mm256_min_epu8(m2, m3));
        if (zeroBits(least) != 0) {
            const std::uint64_t low = zeroBits(m0) | zeroBits(m1) << 32;
            if (low != 0) return data + i + static_cast<std::size_t>(__builtin_ctzll(low));
            const std::uint64_t high = zeroBits(m2) | zeroBits(m3) << 32;
            return data + i + 64 + static_cast<std::size_t>(__builtin_ctzll(high));
        }
        i += 128;
    }
    return findZeroPairSse2(data + i, size - i);
}
#endif

const std::uint8_t* findZeroPair(const std::uint8_t* data, std::size_t size) {
#if defined(__x86_64__)
    static const bool avx2 = __builtin_cpu_supports("avx2");
    if (avx2) return findZeroPairAvx2(data, size);
#endif
    return findZeroPairSse2(data, size);
}

namespace {

template <typename Unit>
std::unique_ptr<NAL> unitOf(std::span<const std::span<const std::uint8_t>> pieces, IMediaData* keep) {
    if (keep != nullptr) return std::make_unique<Unit>(pieces[0], MediaDataRef(keep));
    return std::make_unique<Unit>(pieces);
}

}  // namespace

std::unique_ptr<NAL> NALBuilderH264_HEVC::makeNal(Pieces pieces, IMediaData* keep) {
    if (m_isHevc) return unitOf<NALHEVC>(pieces, keep);
    return unitOf<NALH264>(pieces, keep);
}

std::unique_ptr<NAL> NALBuilderH264::makeNal(Pieces pieces, IMediaData* keep) { return unitOf<NALH264>(pieces, keep); }

std::unique_ptr<NAL> NALBuilderHEVC::makeNal(Pieces pieces, IMediaData* keep) { return unitOf<NALHEVC>(pieces, keep); }

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
    m_pieces.clear();
    IMediaData* holder = nullptr;
    for (std::size_t i = 0; i <= endIndex; ++i) {
        const QueuedBuffer& buffer = m_queue[i];
        const std::uint32_t from = i == 0 ? m_unitStart : 0;
        const std::uint32_t to = i == endIndex ? endOffset : buffer.size;
        if (to > from) {
            m_pieces.emplace_back(buffer.bytes + from, to - from);
            holder = buffer.data.get();
        }
    }
    // A unit within one buffer may refer to it; one that runs over buffers is copied together.
    std::unique_ptr<NAL> unit = makeNal(m_pieces, m_referenceInputs && m_pieces.size() == 1 ? holder : nullptr);
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
