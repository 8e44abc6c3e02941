#pragma once
// Framing of AC-3/E-AC-3 and MPEG-1 audio: sync frames whose header gives their size, each confirmed by the
// header that follows it. A frame takes the time of the buffer it starts in when that buffer's time is not yet
// used; other frames carry no time, and the sample builder counts them on from the last.
#include <cstdint>

#include "packaging/lib_parse_es/nal_audio_frames.h"
#include "packaging/lib_parse_es/nal_builder_aac.h"
#include "packaging/lib_parse_es/nal_builder_bit_pattern.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

// The scanner shared by the sync-frame formats. A subclass reads a header of `headerSize` bytes into a frame
// size (0: no header) and makes the unit of a frame.
class NALBuilderSyncFrames : public NALBuilder {
public:
    explicit NALBuilderSyncFrames(std::uint32_t headerSize) : m_headerSize(headerSize) {}
    void push(IMediaData* data) override;
    void flush() override;

protected:
    virtual std::uint32_t frameSize(const std::uint8_t* header) const = 0;
    virtual std::unique_ptr<NAL> makeFrame(std::uint32_t size) const = 0;

private:
    void emit(std::uint64_t end);

    const std::uint32_t m_headerSize;
    StreamByteQueue m_queue;
    bool m_inFrame = false;
    std::uint64_t m_frameStart = 0;
    std::uint32_t m_frameSize = 0;
};

// AC-3 and E-AC-3 (input type 3): every sync frame is a unit, dependent substreams included.
class NALBuilderAC3Audio : public NALBuilderSyncFrames {
public:
    NALBuilderAC3Audio() : NALBuilderSyncFrames(7) {}

protected:
    std::uint32_t frameSize(const std::uint8_t* header) const override;
    std::unique_ptr<NAL> makeFrame(std::uint32_t size) const override;
};

// MPEG-1 Layer I and II (input type 1). Layer III frames are refused unless `acceptLayer3` is set, which a host
// that means to carry MP3 as MPEG-1 audio chooses deliberately.
class NALBuilderMPEG1Audio : public NALBuilderSyncFrames {
public:
    explicit NALBuilderMPEG1Audio(bool acceptLayer3 = false) : NALBuilderSyncFrames(3), m_acceptLayer3(acceptLayer3) {}

protected:
    std::uint32_t frameSize(const std::uint8_t* header) const override;
    std::unique_ptr<NAL> makeFrame(std::uint32_t size) const override;

private:
    bool m_acceptLayer3;
};

// AC-4 frames (input type 27) begin with the sync word AC 40, or AC 41 when a CRC follows the frame.
class NALAC4Framed : public NALAC4 {
public:
    using NALAC4::NALAC4;
    static std::span<const BitPattern> patterns();
};
using NALBuilderAC4Audio = NalBuilderStartCodeBased<NALAC4Framed>;

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
