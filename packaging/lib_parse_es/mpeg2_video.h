#pragma once
// MPEG-2 video (ISO/IEC 13818-2): the unit of the start-code framing with its start code, and the sequence
// header with the two lookups made from it, the frame rate and the sample aspect ratio.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "packaging/lib_parse_es/nal.h"
#include "packaging/lib_parse_es/nal_builder_mpeg2.h"
#include "support/exceptions/corvane_exception.h"
#include "support/text/fraction.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

// One unit from a start code 00 00 01 to the next. The start code byte is read on first ask.
class NALMPEG2 : public NAL {
public:
    explicit NALMPEG2(std::int32_t size) : NAL(StreamType::MPEG2_VIDEO, size) {}
    // The byte after 00 00 01, or -1 when the unit is too short to hold one.
    std::int32_t startCode();

private:
    bool m_known = false;
    std::int32_t m_startCode = -1;
};

namespace mpeg2 {

class Exception : public CorvaneException {
public:
    using CorvaneException::CorvaneException;
};

inline constexpr std::uint8_t kSequenceHeaderCode = 0xB3;

// sequence_header() up to the quantiser matrix flags (clause 6.2.2.1); the matrices are skipped.
struct SequenceHeader {
    std::uint32_t horizontal_size_value = 0;
    std::uint32_t vertical_size_value = 0;
    std::uint32_t aspect_ratio_information = 0;
    std::uint32_t frame_rate_code = 0;
    std::uint32_t bit_rate_value = 0;
    std::uint32_t marker_bit = 0;
    std::uint32_t vbv_buffer_size_value = 0;
    std::uint32_t constrained_parameters_flag = 0;
    std::uint32_t load_intra_quantiser_matrix = 0;
    std::uint32_t load_non_intra_quantiser_matrix = 0;
};

// Reads the header of a unit that starts 00 00 01 B3. False when it is no sequence header; fields past the end
// of the unit read as zeros.
bool parseSequenceHeader(const std::uint8_t* unit, std::size_t size, SequenceHeader& out);

// The frame rate of frame_rate_code 1 to 8; other codes throw mpeg2::Exception.
tvrn::encoding::Fraction<std::int64_t> frameRate(std::uint32_t frameRateCode);

// The sample aspect ratio of aspect_ratio_information for a picture of width x height, not reduced: 1/1 for
// square samples (1, and reserved values), else the display ratio 4:3, 16:9 or 2.21:1 over width:height.
tvrn::encoding::Fraction<std::int64_t> sampleAspectRatio(std::uint32_t aspectRatioInformation, std::uint32_t width,
                                                  std::uint32_t height);

// A sequence header with the frame rate and sample aspect ratio it gives.
struct SequenceInfo {
    SequenceHeader header;
    tvrn::encoding::Fraction<std::int64_t> frameRate;
    tvrn::encoding::Fraction<std::int64_t> sampleAspectRatio;
};

}  // namespace mpeg2

// The start-code framing giving NALMPEG2 units. It reads every sequence header on its way: the stream has no
// sample builder, so this is all the session learns of it, and an unknown frame_rate_code throws mpeg2::Exception
// out of push, as it would from a builder that had to time the pictures.
class NALBuilderMPEG2Video : public NALBuilderMPEG2 {
public:
    void deliver(std::unique_ptr<NAL> nal) override;
    // The last sequence header framed, if any.
    const std::optional<mpeg2::SequenceInfo>& sequence() const { return m_sequence; }

protected:
    std::unique_ptr<NAL> makeNal(std::int32_t capacity) override { return std::make_unique<NALMPEG2>(capacity); }

private:
    std::optional<mpeg2::SequenceInfo> m_sequence;
};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
