#pragma once
// Framing of AAC streams: ADTS, LOAS/LATM and the raw packet. Every frame gets a time: the input's when the
// buffer it starts in brings one, otherwise a running time counted on from the last input time in frames.
#include <cstdint>
#include <deque>
#include <memory>

#include "packaging/lib_parse_es/buffer_timing.h"
#include "packaging/lib_parse_es/nal_aac.h"
#include "packaging/lib_parse_es/nal_builder.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

// Queued input buffers addressed by absolute stream position, so that a frame can start in one buffer and end
// several buffers later without copying anything before the frame is cut out.
class StreamByteQueue {
public:
    // Queues a non-empty buffer with its timing pending; false when it has no bytes.
    bool push(IMediaData* data);
    std::uint64_t begin() const { return m_buffers.empty() ? m_end : m_buffers.front().start; }
    std::uint64_t end() const { return m_end; }
    bool empty() const { return m_buffers.empty(); }
    // The byte at a queued position.
    std::uint8_t at(std::uint64_t position) const;
    // Forgets the buffers that end at or before `position`.
    void dropBefore(std::uint64_t position);
    void clear() { m_buffers.clear(); }
    // Appends the queued bytes [from, from + count) to `nal`.
    void copy(std::uint64_t from, std::uint64_t count, NAL& nal) const;
    // The queued buffer that holds all of [from, from + count), with where that starts in it; null when the
    // range runs over buffers.
    const QueuedBuffer* holding(std::uint64_t from, std::uint64_t count, const std::uint8_t*& start) const;
    // The queued buffer that holds `position`, or null.
    QueuedBuffer* bufferAt(std::uint64_t position);

private:
    struct Entry : QueuedBuffer {
        std::uint64_t start = 0;
    };
    std::deque<Entry> m_buffers;
    std::uint64_t m_end = 0;
};

// The running time that the three AAC builders share.
class NALBuilderAACBase : public NALBuilder {
protected:
    // Times `nal` from the buffer that holds its first byte: that buffer's time when it has one not yet used,
    // which also resets the running time; otherwise the running time.
    void stamp(NAL& nal, QueuedBuffer* first);
    // Moves the running time on by one frame. A rate of 0 belongs to no valid frame and moves nothing.
    void advance(std::uint32_t frameSamples, std::uint32_t sampleRate);

    std::int64_t m_nextTime = 0;  // 100 ns
};

class NALBuilderAACADTSAudio : public NALBuilderAACBase {
public:
    void push(IMediaData* data) override;
    void flush() override;

private:
    enum class State { Hunting, Header, Frame };
    void emit(std::uint64_t end);

    StreamByteQueue m_queue;
    State m_state = State::Hunting;
    bool m_previousWasFF = false;
    std::uint64_t m_frameStart = 0;
    std::uint32_t m_frameLength = 0;
    std::uint32_t m_sampleRate = 0;
};

class NALBuilderAACLATMLOASAudio : public NALBuilderAACBase {
public:
    void push(IMediaData* data) override;
    void flush() override;

private:
    enum class State { Hunting, Header, Frame };
    bool acceptCandidate();
    void emit();

    StreamByteQueue m_queue;
    State m_state = State::Hunting;
    bool m_previousWas56 = false;
    bool m_configSeen = false;
    std::uint64_t m_frameStart = 0;
    std::uint32_t m_frameSize = 0;
    std::uint32_t m_sampleRate = 0;
};

class NALBuilderAACRawAudio : public NALBuilderAACBase {
public:
    // Packets larger than this are taken for damage; the marker hunt goes on after the size field.
    static constexpr std::uint32_t kMaxPacketSize = 1u << 20;

    void push(IMediaData* data) override;
    void flush() override;

private:
    void reset();

    int m_state = 0;
    unsigned m_markerMatched = 0;
    std::uint8_t m_sizeBytes[4] = {};
    unsigned m_sizeCollected = 0;
    std::unique_ptr<NALAACRaw> m_packet;
    std::uint32_t m_packetSize = 0;
    bool m_bufferSync = false;
    bool m_bufferDiscontinuity = false;
};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
