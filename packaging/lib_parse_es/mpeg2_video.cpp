#include "packaging/lib_parse_es/mpeg2_video.h"

#include <cstdio>

#include "packaging/lib_parse_es/bit_reader.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

std::int32_t NALMPEG2::startCode() {
    if (!m_known) {
        m_known = true;
        const std::uint8_t* b = bytes();
        if (length >= 4 && b[0] == 0 && b[1] == 0 && b[2] == 1) m_startCode = b[3];
    }
    return m_startCode;
}

namespace mpeg2 {

bool parseSequenceHeader(const std::uint8_t* unit, std::size_t size, SequenceHeader& out) {
    out = {};
    if (size < 4 || unit[0] != 0 || unit[1] != 0 || unit[2] != 1 || unit[3] != kSequenceHeaderCode) return false;
    BitReader r(unit + 4, size - 4);
    // A field past the end reads as zero, and so does every field after it.
    const auto bits = [&r](unsigned n) { return r.good() ? r.readBits(n) : 0u; };
    out.horizontal_size_value = bits(12);
    out.vertical_size_value = bits(12);
    out.aspect_ratio_information = bits(4);
    out.frame_rate_code = bits(4);
    out.bit_rate_value = bits(18);
    out.marker_bit = bits(1);
    out.vbv_buffer_size_value = bits(10);
    out.constrained_parameters_flag = bits(1);
    out.load_intra_quantiser_matrix = bits(1);
    if (out.load_intra_quantiser_matrix) r.skipBits(64 * 8);
    out.load_non_intra_quantiser_matrix = bits(1);
    return true;
}

tvrn::encoding::Fraction<std::int64_t> frameRate(std::uint32_t frameRateCode) {
    static constexpr std::int64_t kRates[8][2] = {{24000, 1001}, {24, 1}, {25, 1}, {30000, 1001},
                                                  {30, 1},       {50, 1}, {60000, 1001}, {60, 1}};
    if (frameRateCode == 0 || frameRateCode > 8) {
        char text[96];
        std::snprintf(text, sizeof text, "Mpeg2 video sequence_header parsing issue: unknown frame_rate_code: %d",
                      static_cast<int>(frameRateCode));
        throw Exception(text);
    }
    return {kRates[frameRateCode - 1][0], kRates[frameRateCode - 1][1]};
}

tvrn::encoding::Fraction<std::int64_t> sampleAspectRatio(std::uint32_t a, std::uint32_t width, std::uint32_t height) {
    const std::int64_t w = width;
    const std::int64_t h = height;
    if (w == 0 || h == 0) return {1, 1};
    switch (a) {
        case 2: return {4 * h, 3 * w};
        case 3: return {16 * h, 9 * w};
        case 4: return {221 * h, 100 * w};
        default: return {1, 1};
    }
}

}  // namespace mpeg2

void NALBuilderMPEG2Video::deliver(std::unique_ptr<NAL> nal) {
    auto* unit = dynamic_cast<NALMPEG2*>(nal.get());
    mpeg2::SequenceHeader header;
    if (unit != nullptr && unit->startCode() == mpeg2::kSequenceHeaderCode &&
        mpeg2::parseSequenceHeader(unit->bytes(), static_cast<std::size_t>(unit->length), header)) {
        const auto rate = mpeg2::frameRate(header.frame_rate_code);
        m_sequence = mpeg2::SequenceInfo{
            header, rate,
            mpeg2::sampleAspectRatio(header.aspect_ratio_information, header.horizontal_size_value,
                                     header.vertical_size_value)};
    }
    NALBuilderMPEG2::deliver(std::move(nal));
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
