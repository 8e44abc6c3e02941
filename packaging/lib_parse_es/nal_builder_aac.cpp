#include "packaging/lib_parse_es/nal_builder_aac.h"

#include <algorithm>
#include <stdexcept>

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

using tvrn::com::S_OK;
using tvrn::com::SUCCEEDED;

// ---- StreamByteQueue ----

bool StreamByteQueue::push(IMediaData* data) {
    if (data == nullptr) return false;
    Entry entry;
    if (!bufferBytes(*data, entry.bytes, entry.size)) return false;
    entry.data = MediaDataRef(data);
    entry.timingPending = true;
    entry.start = m_end;
    m_end += entry.size;
    m_buffers.push_back(std::move(entry));
    return true;
}

std::uint8_t StreamByteQueue::at(std::uint64_t position) const {
    // The newest buffer first, where the callers mostly look; otherwise a binary search by start.
    if (m_buffers.empty() || position < m_buffers.front().start || position >= m_end) return 0;
    const Entry& last = m_buffers.back();
    if (position >= last.start) return last.bytes[position - last.start];
    const auto it = std::upper_bound(m_buffers.begin(), m_buffers.end(), position,
                                     [](std::uint64_t p, const Entry& e) { return p < e.start; });
    const Entry& entry = *(it - 1);
    return position < entry.start + entry.size ? entry.bytes[position - entry.start] : 0;
}

void StreamByteQueue::dropBefore(std::uint64_t position) {
    while (!m_buffers.empty() && m_buffers.front().start + m_buffers.front().size <= position) m_buffers.pop_front();
}

void StreamByteQueue::copy(std::uint64_t from, std::uint64_t count, NAL& nal) const {
    const std::uint64_t to = from + count;
    for (const Entry& entry : m_buffers) {
        const std::uint64_t begin = std::max(from, entry.start);
        const std::uint64_t end = std::min(to, entry.start + entry.size);
        if (begin < end) nal.append(entry.bytes + (begin - entry.start), static_cast<std::size_t>(end - begin));
    }
}

const QueuedBuffer* StreamByteQueue::holding(std::uint64_t from, std::uint64_t count, const std::uint8_t*& start) const {
    for (const Entry& entry : m_buffers)
        if (from >= entry.start && from + count <= entry.start + entry.size) {
            start = entry.bytes + (from - entry.start);
            return &entry;
        }
    return nullptr;
}

QueuedBuffer* StreamByteQueue::bufferAt(std::uint64_t position) {
    const std::uint8_t* unused = nullptr;
    return const_cast<QueuedBuffer*>(holding(position, 1, unused));
}

// ---- running time ----

void NALBuilderAACBase::stamp(NAL& nal, QueuedBuffer* first) {
    nal.timing = NalTimingInfo{};
    nal.timing.hasTime = 1;
    if (first != nullptr && first->timingPending) {
        std::int64_t start = 0;
        std::int64_t stop = 0;
        if (SUCCEEDED(first->data->GetTime(&start, &stop))) {
            m_nextTime = start;
            nal.timing.time = start;
            nal.timing.syncPoint = first->data->IsSyncPoint() == S_OK;
            nal.timing.discontinuity = first->data->IsDiscontinuity() == S_OK;
            first->timingPending = false;
            return;
        }
    }
    nal.timing.time = m_nextTime;
}

void NALBuilderAACBase::advance(std::uint32_t frameSamples, std::uint32_t sampleRate) {
    if (sampleRate == 0) return;
    m_nextTime += static_cast<std::int64_t>(std::uint64_t{frameSamples} * 10000000u / sampleRate);
}

// ---- ADTS ----

namespace {
constexpr bool adtsSyncSecond(std::uint8_t b) { return (b & 0xF6) == 0xF0; }  // layer 0, any ID and protection
}  // namespace

void NALBuilderAACADTSAudio::push(IMediaData* data) {
    const std::uint64_t begin = m_queue.end();
    if (!m_queue.push(data)) return;
    const std::uint64_t end = m_queue.end();
    for (std::uint64_t p = begin; p < end; ++p) {
        // A header and a frame are looked at in one byte each (the header's sixth, the byte after the next sync
        // byte): the bytes before it are skipped, not visited.
        if (m_state != State::Hunting) {
            const std::uint64_t next = m_state == State::Header ? m_frameStart + 5 : m_frameStart + m_frameLength + 1;
            if (p < next) p = next;
            if (p >= end) break;
        }
        const std::uint8_t b = m_queue.at(p);
        switch (m_state) {
            case State::Hunting:
                if (m_previousWasFF && adtsSyncSecond(b)) {
                    m_frameStart = p - 1;
                    m_state = State::Header;
                }
                m_previousWasFF = b == 0xFF;
                break;
            case State::Header:
                if (p == m_frameStart + 5) {
                    // The sixth byte completes the frame length; a header that can't be a frame's is a false sync.
                    const std::uint8_t b1 = m_queue.at(m_frameStart + 1);
                    const std::uint8_t b2 = m_queue.at(m_frameStart + 2);
                    const std::uint8_t b3 = m_queue.at(m_frameStart + 3);
                    const std::uint8_t b4 = m_queue.at(m_frameStart + 4);
                    m_frameLength = ((b3 & 3u) << 11) | (std::uint32_t{b4} << 3) | (b >> 5);
                    m_sampleRate = mpeg4_audio::samplingFrequency((b2 & 0x3Cu) >> 2);
                    const std::uint32_t headerSize = (b1 & 1u) ? 7 : 9;
                    if (m_frameLength <= headerSize || m_sampleRate == 0) {
                        m_state = State::Hunting;
                        m_previousWasFF = b == 0xFF;
                    } else {
                        m_state = State::Frame;
                    }
                }
                break;
            case State::Frame:
                // No sync test inside a frame: the frame is confirmed by the sync that follows it.
                if (p == m_frameStart + m_frameLength + 1) {
                    const std::uint64_t next = m_frameStart + m_frameLength;
                    if (m_queue.at(next) == 0xFF && adtsSyncSecond(b)) {
                        emit(next);
                        m_frameStart = next;
                        m_state = State::Header;
                    } else {
                        m_state = State::Hunting;
                        m_previousWasFF = b == 0xFF;
                    }
                }
                break;
        }
    }
    // Keep only what an open frame, or a sync that began on the last byte, still needs.
    m_queue.dropBefore(m_state == State::Hunting ? end - 1 : m_frameStart);
}

void NALBuilderAACADTSAudio::emit(std::uint64_t end) {
    const std::uint64_t size = end - m_frameStart;
    // A frame within one buffer may refer to it; one that runs over buffers is copied together.
    std::unique_ptr<NALAACADTS> frame;
    const std::uint8_t* start = nullptr;
    const QueuedBuffer* buffer = m_referenceInputs ? m_queue.holding(m_frameStart, size, start) : nullptr;
    if (buffer != nullptr)
        frame = std::make_unique<NALAACADTS>(start, static_cast<std::uint32_t>(size), buffer->data);
    else {
        frame = std::make_unique<NALAACADTS>(static_cast<std::int32_t>(size));
        m_queue.copy(m_frameStart, size, *frame);
    }
    m_queue.dropBefore(m_frameStart);
    stamp(*frame, m_queue.bufferAt(m_frameStart));
    const std::uint32_t rate = m_sampleRate;
    deliver(std::move(frame));
    advance(1024, rate);
}

void NALBuilderAACADTSAudio::flush() {
    if (m_state == State::Frame && !m_queue.empty()) {
        // The last frame has no sync after it: it goes out with what has arrived.
        emit(std::min<std::uint64_t>(m_queue.end(), m_frameStart + m_frameLength));
    }
    m_queue.clear();
    m_state = State::Hunting;
    m_previousWasFF = false;
    signalEnd();
}

// ---- LOAS / LATM ----

void NALBuilderAACLATMLOASAudio::push(IMediaData* data) {
    const std::uint64_t begin = m_queue.end();
    if (!m_queue.push(data)) return;
    const std::uint64_t end = m_queue.end();
    for (std::uint64_t p = begin; p < end; ++p) {
        const std::uint8_t b = m_queue.at(p);
        switch (m_state) {
            case State::Hunting:
                if (m_previousWas56 && (b & 0xE0) == 0xE0) {
                    m_frameStart = p - 1;
                    m_state = State::Header;
                }
                m_previousWas56 = b == 0x56;
                break;
            case State::Header:
                if (p == m_frameStart + 6) {
                    m_previousWas56 = false;
                    if (!acceptCandidate()) {
                        m_state = State::Hunting;
                    } else if (p + 1 >= m_frameStart + m_frameSize) {
                        emit();
                        m_state = State::Hunting;
                    } else {
                        m_state = State::Frame;
                    }
                }
                break;
            case State::Frame:
                if (p + 1 == m_frameStart + m_frameSize) {
                    emit();
                    m_state = State::Hunting;
                    m_previousWas56 = false;
                }
                break;
        }
    }
    m_queue.dropBefore(m_state == State::Hunting ? end - 1 : m_frameStart);
}

// The test that keeps the hunt on real frames: a chance 0x2B7 in a payload rarely carries a plausible
// StreamMuxConfig, and a frame that reuses the configuration is taken only after a configuration was seen.
bool NALBuilderAACLATMLOASAudio::acceptCandidate() {
    std::uint8_t b[7];
    for (unsigned i = 1; i < 7; ++i) b[i] = m_queue.at(m_frameStart + i);
    m_frameSize = (((b[1] & 0x1Fu) << 8) | b[2]) + 3;
    if (b[3] & 0x80) return m_configSeen;  // useSameStreamMux
    const bool audioMuxVersion = (b[3] & 0x40) != 0;
    const bool allStreamsSameTimeFraming = (b[3] & 0x20) != 0;
    const std::uint32_t numSubFrames = ((b[3] & 0x1Fu) << 1) | (b[4] >> 7);
    const std::uint32_t numProgram = (b[4] >> 3) & 0x0F;
    const std::uint32_t numLayer = b[4] & 7;
    const std::uint32_t samplingIndex = ((b[5] & 7u) << 1) | (b[6] >> 7);
    return !audioMuxVersion && allStreamsSameTimeFraming && numSubFrames == 0 && numProgram == 0 &&
           numLayer == 0 && samplingIndex != 15;
}

void NALBuilderAACLATMLOASAudio::emit() {
    auto frame = std::make_unique<NALAACLATMLOAS>(static_cast<std::int32_t>(m_frameSize));
    m_queue.copy(m_frameStart, m_frameSize, *frame);
    m_queue.dropBefore(m_frameStart);
    stamp(*frame, m_queue.bufferAt(m_frameStart));
    bool usable = false;
    try {
        usable = frame->parse();
    } catch (const std::runtime_error&) {
        // A configuration this code does not carry: the frame is dropped like any unreadable one.
        usable = false;
    }
    if (!usable) return;
    if (frame->configPresent) {
        m_sampleRate = frame->sampleRate;
        m_configSeen = true;
    }
    const std::uint32_t rate = m_sampleRate;
    deliver(std::move(frame));
    advance(1024, rate);
}

void NALBuilderAACLATMLOASAudio::flush() {
    // A frame is only ever cut out whole: what is left at the end is incomplete. The stream starts afresh.
    m_queue.clear();
    m_state = State::Hunting;
    m_previousWas56 = false;
    m_configSeen = false;
    m_sampleRate = 0;
    signalEnd();
}

// ---- raw packets ----

void NALBuilderAACRawAudio::push(IMediaData* data) {
    if (data == nullptr) return;
    const std::uint8_t* bytes = nullptr;
    std::uint32_t size = 0;
    if (!bufferBytes(*data, bytes, size)) return;
    bool timingTaken = false;
    for (std::uint32_t i = 0; i < size; ++i) {
        if (m_state == 0) {
            // A packet starts: the buffer's time, once per buffer, resets the running time.
            if (!timingTaken) {
                timingTaken = true;
                std::int64_t start = 0;
                std::int64_t stop = 0;
                if (SUCCEEDED(data->GetTime(&start, &stop))) m_nextTime = start;
                m_bufferSync = data->IsSyncPoint() == S_OK;
                m_bufferDiscontinuity = data->IsDiscontinuity() == S_OK;
            }
            m_state = 1;
            m_markerMatched = 0;
        }
        const std::uint8_t b = bytes[i];
        if (m_state == 1) {
            if (b == kAACRawMarker[m_markerMatched]) {
                ++m_markerMatched;
            } else {
                m_markerMatched = b == kAACRawMarker[0] ? 1 : 0;
            }
            if (m_markerMatched == 4) {
                m_state = 2;
                m_sizeCollected = 0;
            }
        } else if (m_state == 2) {
            m_sizeBytes[m_sizeCollected++] = b;
            if (m_sizeCollected < 4) continue;
            m_packetSize = (std::uint32_t{m_sizeBytes[0]} << 24) | (std::uint32_t{m_sizeBytes[1]} << 16) |
                           (std::uint32_t{m_sizeBytes[2]} << 8) | m_sizeBytes[3];
            if (m_packetSize < 20 || m_packetSize > kMaxPacketSize) {
                m_state = 1;
                m_markerMatched = 0;
                continue;
            }
            m_packet = std::make_unique<NALAACRaw>(static_cast<std::int32_t>(m_packetSize));
            m_packet->timing.hasTime = 1;
            m_packet->timing.time = m_nextTime;
            m_packet->timing.syncPoint = m_bufferSync;
            m_packet->timing.discontinuity = m_bufferDiscontinuity;
            m_packet->append(kAACRawMarker, 4);
            m_packet->append(m_sizeBytes, 4);
            m_state = 3;
        } else {
            const std::uint32_t take = std::min(m_packetSize - m_packet->length, size - i);
            m_packet->append(bytes + i, take);
            i += take - 1;
            if (m_packet->length < m_packetSize) continue;
            AACRawHeader header;
            bool usable = false;
            try {
                usable = parseAACRawPacket(*m_packet, header);
            } catch (const std::runtime_error&) {
                usable = false;
            }
            m_state = 0;
            // A packet whose lengths disagree still goes out; the sample builder finds it unusable.
            deliver(std::move(m_packet));
            if (usable) advance(header.frameSamples, header.sampleRate);
        }
    }
}

void NALBuilderAACRawAudio::reset() {
    m_state = 0;
    m_markerMatched = 0;
    m_sizeCollected = 0;
    m_packet.reset();
    m_packetSize = 0;
}

void NALBuilderAACRawAudio::flush() {
    reset();
    signalEnd();
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
