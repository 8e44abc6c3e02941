#pragma once
// Framing of formats whose frames begin with a fixed bit pattern (H.263, MPEG-4 Visual, ProRes, ...).
// The NAL class T names its patterns through a static `patterns()` returning a span of BitPattern.
#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <vector>

#include "packaging/lib_parse_es/buffer_timing.h"
#include "packaging/lib_parse_es/nal_builder.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

struct BitPattern {
    std::vector<std::uint8_t> bytes;
    unsigned bits;
    // Distance from the pattern's first byte to the true start of the unit (negative: the unit starts earlier).
    int lead;
};

template <typename T>
class NalBuilderStartCodeBased : public NALBuilder {
public:
    NalBuilderStartCodeBased() {
        for (const BitPattern& pattern : T::patterns()) {
            Matcher matcher;
            matcher.byteLength = (pattern.bits + 7) / 8;
            if (matcher.byteLength == 0 || matcher.byteLength > pattern.bytes.size()) continue;
            for (std::size_t i = 0; i < matcher.byteLength; ++i) matcher.cells.push_back({pattern.bytes[i], false});
            const unsigned spare = pattern.bits % 8;
            matcher.lastMask = static_cast<std::uint8_t>(spare == 0 ? 0xFFu : 0xFFu << (8 - spare));
            matcher.lastValue = static_cast<std::uint8_t>(pattern.bytes[matcher.byteLength - 1] & matcher.lastMask);
            matcher.lead = pattern.lead;
            m_matchers.push_back(std::move(matcher));
        }
    }

    void push(IMediaData* data) override {
        if (data == nullptr) return;
        QueuedBuffer entry;
        if (!bufferBytes(*data, entry.bytes, entry.size)) return;
        entry.data = MediaDataRef(data);
        entry.timingPending = true;
        m_queue.push_back(std::move(entry));
        const std::uint8_t* p = m_queue.back().bytes;
        const std::size_t n = m_queue.back().size;
        for (std::size_t i = 0; i < n; ++i) {
            // A pattern that completed on the previous byte marks a boundary; the longest one wins.
            const Matcher* found = nullptr;
            for (const Matcher& matcher : m_matchers) {
                if (matcher.cells.back().matched && (found == nullptr || matcher.byteLength > found->byteLength))
                    found = &matcher;
            }
            if (found != nullptr) {
                emitUpTo(static_cast<std::int64_t>(i) + found->lead - static_cast<std::int64_t>(found->byteLength));
            }
            const std::uint8_t byte = p[i];
            for (Matcher& matcher : m_matchers) {
                const std::size_t last = matcher.cells.size() - 1;
                for (std::size_t c = last + 1; c-- > 0;) {
                    const bool before = c == 0 || matcher.cells[c - 1].matched;
                    const bool equal = c == last ? (byte & matcher.lastMask) == matcher.lastValue
                                                 : byte == matcher.cells[c].value;
                    matcher.cells[c].matched = before && equal;
                }
            }
        }
    }

    void flush() override {
        std::uint64_t total = 0;
        for (const QueuedBuffer& buffer : m_queue) total += buffer.size;
        if (!m_queue.empty() && total > m_consumed) emitBytes(total - m_consumed);
        m_queue.clear();
        for (Matcher& matcher : m_matchers)
            for (Cell& cell : matcher.cells) cell.matched = false;
        m_consumed = 0;
        signalEnd();
    }

private:
    struct Cell {
        std::uint8_t value;
        bool matched;
    };
    struct Matcher {
        std::vector<Cell> cells;
        std::size_t byteLength = 0;
        std::uint8_t lastMask = 0xFF;
        std::uint8_t lastValue = 0;
        int lead = 0;
    };

    // A boundary `offset` bytes from the start of the newest buffer: the unit before it goes out.
    void emitUpTo(std::int64_t offset) {
        std::int64_t fromFront = offset;
        for (std::size_t i = 0; i + 1 < m_queue.size(); ++i) fromFront += m_queue[i].size;
        if (fromFront <= static_cast<std::int64_t>(m_consumed)) return;  // nothing before it
        emitBytes(static_cast<std::uint64_t>(fromFront) - m_consumed);
    }

    void emitBytes(std::uint64_t size) {
        if (size > 0x7FFFFFFFu) size = 0x7FFFFFFFu;
        auto unit = std::make_unique<T>(static_cast<std::int32_t>(size));
        std::uint64_t remaining = size;
        while (remaining > 0 && !m_queue.empty()) {
            QueuedBuffer& buffer = m_queue.front();
            const std::uint64_t take = std::min<std::uint64_t>(remaining, buffer.size - m_consumed);
            if (take > 0) {
                unit->append(buffer.bytes + m_consumed, static_cast<std::size_t>(take));
                // The last buffer that gives bytes sets the timing, once: the units after it in the same buffer
                // have no time of their own.
                if (buffer.timingPending) {
                    unit->timing = NalTimingInfo{};
                    takeBufferTiming(*buffer.data, unit->timing, true);
                    buffer.timingPending = false;
                }
            }
            remaining -= take;
            m_consumed = static_cast<std::uint32_t>((m_consumed + take) % buffer.size);
            if (m_consumed == 0) m_queue.pop_front();
        }
        deliver(std::move(unit));
    }

    std::deque<QueuedBuffer> m_queue;
    std::uint32_t m_consumed = 0;
    std::vector<Matcher> m_matchers;
};

// Units of formats with no inner framing: the buffers from one sync point to the next make one unit.
template <typename T>
class NalBuilderSyncPointBased : public NALBuilder {
public:
    void push(IMediaData* data) override {
        if (data == nullptr) return;
        if (data->IsSyncPoint() == tvrn::com::S_OK) emit();
        QueuedBuffer entry;
        if (!bufferBytes(*data, entry.bytes, entry.size)) return;
        entry.data = MediaDataRef(data);
        entry.timingPending = true;
        m_queue.push_back(std::move(entry));
    }
    void flush() override {
        emit();
        signalEnd();
    }

private:
    void emit() {
        if (m_queue.empty()) return;
        std::uint64_t total = 0;
        for (const QueuedBuffer& buffer : m_queue) total += buffer.size;
        if (total > 0x7FFFFFFFu) {
            m_queue.clear();
            return;
        }
        auto unit = std::make_unique<T>(static_cast<std::int32_t>(total));
        takeBufferTiming(*m_queue.front().data, unit->timing, false);
        for (const QueuedBuffer& buffer : m_queue) unit->append(buffer.bytes, buffer.size);
        m_queue.clear();
        deliver(std::move(unit));
    }

    std::vector<QueuedBuffer> m_queue;
};

// Documents and cues cut upstream (TTML, WebVTT): as above, but an empty buffer is an item too (a gap between
// WebVTT cues), and a stop time on the item's first buffer gives its duration.
template <typename T>
class NalBuilderTextItem : public NALBuilder {
public:
    void push(IMediaData* data) override {
        if (data == nullptr) return;
        if (!m_queue.empty() && data->IsSyncPoint() == tvrn::com::S_OK) emit();
        QueuedBuffer entry;
        if (!bufferBytes(*data, entry.bytes, entry.size)) {
            entry.bytes = nullptr;
            entry.size = 0;
        }
        entry.data = MediaDataRef(data);
        m_queue.push_back(std::move(entry));
    }
    void flush() override {
        if (!m_queue.empty()) emit();
        signalEnd();
    }

private:
    void emit() {
        std::uint64_t total = 0;
        for (const QueuedBuffer& buffer : m_queue) total += buffer.size;
        if (total > 0x7FFFFFFFu) {
            m_queue.clear();
            return;
        }
        auto unit = std::make_unique<T>(static_cast<std::int32_t>(total));
        takeBufferTiming(*m_queue.front().data, unit->timing, true);
        for (const QueuedBuffer& buffer : m_queue)
            if (buffer.size > 0) unit->append(buffer.bytes, buffer.size);
        m_queue.clear();
        deliver(std::move(unit));
    }

    std::deque<QueuedBuffer> m_queue;
};

// H.263 pictures begin with the 22-bit picture start code.
class NALH263 : public NAL {
public:
    explicit NALH263(std::int32_t size) : NAL(StreamType::H263_VIDEO, size) {}
    static std::span<const BitPattern> patterns();
};

// MPEG-4 Visual units begin at every 00 00 01.
class NALMPEG4Visual : public NAL {
public:
    explicit NALMPEG4Visual(std::int32_t size) : NAL(StreamType::MPEG4_VIDEO, size) {}
    static std::span<const BitPattern> patterns();
};

// ProRes frames: a 32-bit size, then the tag "icpf".
class NALProRes : public NAL {
public:
    explicit NALProRes(std::int32_t size) : NAL(StreamType::PRORES, size) {}
    static std::span<const BitPattern> patterns();
};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
