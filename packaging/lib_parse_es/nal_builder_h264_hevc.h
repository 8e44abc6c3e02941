#pragma once
// Annex B framing of H.264 and HEVC: one unit per NAL unit, each with its own start code.
#include <cstddef>
#include <memory>
#include <vector>

#include "packaging/lib_parse_es/buffer_timing.h"
#include "packaging/lib_parse_es/nal_builder.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

// The first position p in [data, data + size) with p[0] == 0 and p[1] == 0, or null: with the widest vectors
// the processor has. The others are there to be compared with it.
const std::uint8_t* findZeroPair(const std::uint8_t* data, std::size_t size);
const std::uint8_t* findZeroPairSse2(const std::uint8_t* data, std::size_t size);
#if defined(__x86_64__)
const std::uint8_t* findZeroPairAvx2(const std::uint8_t* data, std::size_t size);
#endif

class NALBuilderH264_HEVC : public NALBuilder {
public:
    explicit NALBuilderH264_HEVC(bool isHevc) : m_isHevc(isHevc) {}

    void push(IMediaData* data) override;
    void flush() override;

    // When set, the open unit is emitted at the end of every push, as if each buffer ended it.
    void setEmitOnEveryPush(bool value) { m_emitOnEveryPush = value; }
    bool isHevc() const { return m_isHevc; }

protected:
    // The unit object of this codec: over the input buffer `keep` when that is given (the unit is one piece of
    // it), otherwise holding a copy of the pieces.
    using Pieces = std::span<const std::span<const std::uint8_t>>;
    virtual std::unique_ptr<NAL> makeNal(Pieces pieces, IMediaData* keep);

private:
    enum : std::uint32_t { kNoUnit = 0xFFFFFFFFu };

    void scan(const std::uint8_t* bytes, std::size_t size);
    // A start code begins `offset` bytes from the start of the newest buffer (possibly in an earlier one).
    void startCodeAt(std::int64_t offset);
    // The open unit, from `m_unitStart` in the first buffer up to `endOffset` in buffer `endIndex`.
    std::unique_ptr<NAL> assemble(std::size_t endIndex, std::uint32_t endOffset);
    void emitToEnd();
    void dropUnreferencedBuffers();

    std::vector<QueuedBuffer> m_queue;
    std::vector<std::span<const std::uint8_t>> m_pieces;  // scratch of assemble()
    std::uint32_t m_unitStart = kNoUnit;
    int m_scanState = 0;
    bool m_isHevc;
    bool m_emitOnEveryPush = false;
};

class NALBuilderH264 : public NALBuilderH264_HEVC {
public:
    NALBuilderH264() : NALBuilderH264_HEVC(false) {}

protected:
    std::unique_ptr<NAL> makeNal(Pieces pieces, IMediaData* keep) override;
};

class NALBuilderHEVC : public NALBuilderH264_HEVC {
public:
    NALBuilderHEVC() : NALBuilderH264_HEVC(true) {}

protected:
    std::unique_ptr<NAL> makeNal(Pieces pieces, IMediaData* keep) override;
};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
