#include "packaging/fmp4/chunks/codec_string.h"

#include <cstdio>

#include "packaging/codec_box/audio_boxes.h"
#include "packaging/codec_box/video_boxes.h"
#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

using imff_box::fourCC;

namespace {

std::string avcString(const codec_box::AVCSampleEntry& entry) {
    char text[32];
    std::snprintf(text, sizeof text, "%s.%.2hhx%.2hhx%.2hhx", imff_box::fourCCText(entry.getType()).c_str(),
                  entry.configuration.profileIndication, entry.configuration.profileCompatibility,
                  entry.configuration.levelIndication);
    return text;
}

// The form of ISO/IEC 14496-15 annex E: profile space as a letter before the profile, the compatibility flags
// in reverse bit order, tier and level, then the six bytes of progressive/interlaced/non-packed/frame-only
// flags and constraint indicators, without the trailing zero bytes.
std::string hevcString(const codec_box::HEVCSampleEntry& entry) {
    const auto& c = entry.configuration;
    std::uint32_t reversed = 0;
    for (int bit = 0; bit < 32; ++bit)
        if ((c.generalProfileCompatibilityFlags >> bit) & 1u) reversed |= 1u << (31 - bit);
    static const char* const kSpace[] = {"", "A", "B", "C"};
    char text[96];
    std::snprintf(text, sizeof text, "%s.%s%u.%x.%c%u", imff_box::fourCCText(entry.getType()).c_str(),
                  kSpace[c.generalProfileSpace & 3], static_cast<unsigned>(c.generalProfileIdc), reversed,
                  c.generalTierFlag ? 'H' : 'L', static_cast<unsigned>(c.generalLevelIdc));
    std::string out = text;

    const std::uint64_t flags48 = (std::uint64_t{c.progressiveSourceFlag} << 47) |
                                  (std::uint64_t{c.interlacedSourceFlag} << 46) |
                                  (std::uint64_t{c.nonPackedConstraintFlag} << 45) |
                                  (std::uint64_t{c.frameOnlyConstraintFlag} << 44) |
                                  (c.generalConstraintIndicatorFlags & 0xFFFFFFFFFFFull);
    std::uint8_t bytes[6];
    for (int i = 0; i < 6; ++i) bytes[i] = static_cast<std::uint8_t>(flags48 >> (40 - 8 * i));
    int last = 5;
    while (last >= 0 && bytes[last] == 0) --last;
    for (int i = 0; i <= last; ++i) {
        std::snprintf(text, sizeof text, ".%.2hhx", bytes[i]);
        out += text;
    }
    return out;
}

// mp4a: the object type of the decoder configuration, and for MPEG-4 audio the audio object type that opens
// the AudioSpecificConfig.
std::string mp4aString(const codec_box::MP4AudioSampleEntry& entry) {
    if (entry.esds.objectType == 0x6B) return "mp4a.6b";
    if (entry.esds.objectType != 0x40 || entry.esds.decoderSpecificInfo.empty()) return {};
    switch (entry.esds.decoderSpecificInfo[0] >> 3) {
        case 2: return "mp4a.40.2";
        case 5: return "mp4a.40.5";
        case 29: return "mp4a.40.29";
        default: return {};
    }
}

// Reads bits of the AC-4 decoder specific information (ETSI TS 103 190-2, annex E) most significant first;
// past the end it reads zeros and marks itself short.
class DsiReader {
public:
    explicit DsiReader(const std::vector<std::uint8_t>& data) : m_data(data) {}
    std::uint32_t bits(unsigned count) {
        std::uint32_t value = 0;
        for (unsigned i = 0; i < count; ++i, ++m_position) {
            const std::size_t byte = m_position / 8;
            if (byte >= m_data.size()) {
                m_short = true;
                value <<= 1;
                continue;
            }
            value = (value << 1) | ((static_cast<unsigned>(m_data[byte]) >> (7 - m_position % 8)) & 1u);
        }
        return value;
    }
    void align() { m_position = (m_position + 7) / 8 * 8; }
    bool isShort() const { return m_short; }

private:
    const std::vector<std::uint8_t>& m_data;
    std::size_t m_position = 0;
    bool m_short = false;
};

// "ac-4.<bitstream_version>.<presentation_version>.<mdcompat>" of the first presentation.
std::string ac4String(const codec_box::AC4AudioSampleEntry& entry) {
    DsiReader r(entry.dac4.data);
    r.bits(3);  // ac4_dsi_version
    const std::uint32_t bitstreamVersion = r.bits(7);
    r.bits(1);   // fs_index
    r.bits(4);   // frame_rate_index
    const std::uint32_t presentations = r.bits(9);
    if (bitstreamVersion > 1 && r.bits(1)) {  // b_program_id
        r.bits(16);                           // short_program_id
        if (r.bits(1)) {                      // b_uuid
            for (int i = 0; i < 4; ++i) r.bits(32);
        }
    }
    r.bits(2);   // bit_rate_mode
    r.bits(32);  // bit_rate
    r.bits(32);  // bit_rate_precision
    r.align();
    std::uint32_t presentationVersion = 0;
    std::uint32_t mdcompat = 0;
    if (presentations > 0) {
        presentationVersion = r.bits(8);
        std::uint32_t presBytes = r.bits(8);
        if (presBytes == 255) r.bits(16);
        if (presentationVersion == 0) {
            if (r.bits(5) != 0x06) mdcompat = r.bits(3);  // presentation_config, then mdcompat
        } else {
            if (r.bits(5) != 0x06) mdcompat = r.bits(3);  // presentation_config_v1, then mdcompat
        }
    }
    if (r.isShort()) return {};
    char text[32];
    std::snprintf(text, sizeof text, "ac-4.%02X.%02X.%02X", bitstreamVersion, presentationVersion, mdcompat);
    return text;
}

}  // namespace

std::string codecString(const imff_box::SampleEntry& entry) {
    if (const auto* avc = dynamic_cast<const codec_box::AVCSampleEntry*>(&entry)) return avcString(*avc);
    if (const auto* hevc = dynamic_cast<const codec_box::HEVCSampleEntry*>(&entry)) return hevcString(*hevc);
    if (dynamic_cast<const imff_box::VisualSampleEntry*>(&entry) != nullptr) {
        switch (entry.getType()) {
            case fourCC("mp4v"): return "mp4v.0x20";
            case fourCC("s263"): return "s263";
            case fourCC("vc-1"): return "vc-1";
            default: throw CorvaneException("internal assertion failure");
        }
    }
    if (const auto* mp4a = dynamic_cast<const codec_box::MP4AudioSampleEntry*>(&entry)) return mp4aString(*mp4a);
    if (dynamic_cast<const codec_box::AC3AudioSampleEntry*>(&entry) != nullptr) return "ac-3";
    if (dynamic_cast<const codec_box::EC3AudioSampleEntry*>(&entry) != nullptr) return "ec-3";
    if (const auto* ac4 = dynamic_cast<const codec_box::AC4AudioSampleEntry*>(&entry)) return ac4String(*ac4);
    return {};
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
