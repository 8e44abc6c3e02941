#pragma once
// MPEG-2 style start-code framing: a unit begins at every 00 00 01 and runs to the next.
#include <memory>
#include <vector>

#include "packaging/lib_parse_es/buffer_timing.h"
#include "packaging/lib_parse_es/nal_builder.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

class NALBuilderMPEG2 : public NALBuilder {
public:
    NALBuilderMPEG2() = default;

    void push(IMediaData* data) override;
    void flush() override;

protected:
    // The unit object; the MPEG-2 video parser supplies its own class.
    virtual std::unique_ptr<NAL> makeNal(std::int32_t capacity);

private:
    static constexpr std::uint32_t kNoUnit = 0xFFFFFFFFu;
    static constexpr std::uint32_t kNoUnitEither = 0xFFFFFFFEu;
    bool unitOpen() const { return m_unitStart != kNoUnit && m_unitStart != kNoUnitEither; }

    void boundaryAt(std::int64_t offset);
    std::unique_ptr<NAL> assemble(std::size_t endIndex, std::uint32_t endOffset);

    std::vector<QueuedBuffer> m_queue;
    std::uint32_t m_unitStart = kNoUnit;
    bool m_previousZero = false;
    bool m_twoZeros = false;
    bool m_startCodePrefix = false;
};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
