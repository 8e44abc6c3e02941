#pragma once
// Cuts the bytes of one stream, in buffers of any size, into NAL units.
#include <memory>

#include "packaging/lib_parse_es/nal.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

class NALListener {
public:
    virtual ~NALListener() = default;
    // Ownership passes with the call: a listener that keeps the unit takes it out of the holder.
    virtual void onNal(std::unique_ptr<NAL>& nal) = 0;
    virtual void onEnd() = 0;
};

// An input buffer waiting in a builder's queue.
struct PendingBuffer {
    MediaDataRef data;
    bool timingPending = true;
};

class NALBuilder {
public:
    NALBuilder() = default;
    NALBuilder(const NALBuilder&) = delete;
    NALBuilder& operator=(const NALBuilder&) = delete;
    virtual ~NALBuilder() = default;

    virtual void setListener(NALListener* listener) { m_listener = listener; }
    // One input buffer; every unit it completes reaches the listener before the call returns.
    virtual void push(IMediaData* data) = 0;
    // No more input: emits what is pending, then signals the end.
    virtual void flush() = 0;
    virtual void deliver(std::unique_ptr<NAL> nal) {
        if (m_listener) m_listener->onNal(nal);
    }
    virtual void signalEnd() {
        if (m_listener) m_listener->onEnd();
    }
    // With this set, the H.264, HEVC and ADTS builders make a unit that lies within one input buffer refer to that
    // buffer instead of copying it, so the buffer is kept until the unit goes (after its chunk is written). Off by
    // default: input buffers are then held only while they hold an open unit, which a host that draws them from
    // a pool of a few needs. For hosts whose buffers are their own memory.
    void setReferenceInputs(bool on) { m_referenceInputs = on; }

protected:
    NALListener* m_listener = nullptr;
    bool m_referenceInputs = false;
};

// The builder of a stream type, or null for a type without one.
std::unique_ptr<NALBuilder> createNalBuilder(std::uint32_t streamType);

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
