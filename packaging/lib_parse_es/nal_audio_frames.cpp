#include "packaging/lib_parse_es/nal_audio_frames.h"

#include "packaging/lib_parse_es/bit_reader.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

namespace {
constexpr std::uint32_t kAc3Kbps[19] = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                        192, 224, 256, 320, 384, 448, 512, 576, 640};
constexpr std::uint32_t kEac3Rates[3] = {48000, 44100, 32000};
constexpr std::uint32_t kEac3ReducedRates[4] = {24000, 22050, 16000, 0};
constexpr std::uint32_t kEac3BlocksScale[4] = {6, 3, 2, 1};
constexpr std::uint32_t kEac3Blocks[4] = {1, 2, 3, 6};
constexpr std::uint32_t kMpeg1Kbps[3][15] = {
    {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320}};
constexpr std::uint32_t kMpeg1Rates[4] = {44100, 48000, 32000, 0};

std::uint8_t channelClassOf(bool eac3, std::uint32_t acmod) {
    std::uint8_t value = eac3 ? 0xC0 : 0x40;
    if (acmod == 0) value |= 1;
    else if (acmod == 2) value |= 2;
    else if (acmod > 2) value |= 4;
    return value;
}
}  // namespace

bool parseAc3FrameParameters(const std::uint8_t* h, Ac3FrameParameters& out) {
    if (h[0] != 0x0B || h[1] != 0x77) return false;
    out = {};
    if ((h[5] & 0xF8) == 0x80) {
        out.isEac3 = true;
        const std::uint32_t fscod = h[4] >> 6;
        const std::uint32_t numblkscod = (h[4] >> 4) & 3;
        out.frameSize = ((((h[2] & 7u) << 8) | h[3]) + 1) * 2;
        out.sampleRate = fscod == 3 ? kEac3ReducedRates[numblkscod] : kEac3BlocksScale[numblkscod] * kEac3Rates[fscod];
        if (out.sampleRate == 0) return false;
        // The average rate over a frame of 1536 ticks, rounded to whole bytes a second.
        const float perFrame = static_cast<float>(out.sampleRate) / 1536.0f * static_cast<float>(out.frameSize);
        out.bitRate = static_cast<std::uint32_t>(static_cast<double>(perFrame) + 0.5) * 8;
        out.channelClass = channelClassOf(true, (h[4] >> 1) & 7u);
        return true;
    }
    if (h[5] >= 96) return false;  // bsid 12 and up: neither AC-3 nor E-AC-3
    const std::uint32_t bsid = h[5] >> 3;
    const std::uint32_t frmsizcod = h[4] & 63u;
    if (frmsizcod >= 38) return false;
    const std::uint32_t shift = bsid <= 8 ? 0 : bsid - 8;
    const std::uint32_t kbps = kAc3Kbps[frmsizcod / 2];
    out.bitRate = (kbps * 1000) >> shift;
    switch (h[4] & 0xC0) {
        case 0x00:
            out.sampleRate = 48000 >> shift;
            out.frameSize = kbps * 4;
            break;
        case 0x40:
            out.sampleRate = 44100 >> shift;
            out.frameSize = ((frmsizcod & 1) + kbps * 320 / 147) * 2;
            break;
        case 0x80:
            out.sampleRate = 32000 >> shift;
            out.frameSize = kbps * 6;
            break;
        default: return false;
    }
    out.channelClass = channelClassOf(false, h[6] >> 5);
    return true;
}

bool parseAc3StreamInfo(std::span<const std::uint8_t> bytes, Ac3StreamInfo& out) {
    out = {};
    if (bytes.size() < 7) return false;
    Ac3FrameParameters params;
    if (!parseAc3FrameParameters(bytes.data(), params)) return false;
    out.isEac3 = params.isEac3;
    out.frameSize = params.frameSize;
    BitReader r(bytes.data(), bytes.size());
    r.skipBits(16);
    if (!out.isEac3) {
        r.skipBits(16);  // crc1
        out.fscod = static_cast<std::uint8_t>(r.readBits(2));
        out.frmsizcod = static_cast<std::uint8_t>(r.readBits(6));
        out.bsid = static_cast<std::uint8_t>(r.readBits(5));
        out.bsmod = static_cast<std::uint8_t>(r.readBits(3));
        out.acmod = static_cast<std::uint8_t>(r.readBits(3));
        if ((out.acmod & 1) && out.acmod != 1) r.skipBits(2);  // cmixlev
        if (out.acmod & 4) r.skipBits(2);                      // surmixlev
        if (out.acmod == 2) r.skipBits(2);                     // dsurmod
        out.lfeon = r.readFlag();
        out.sampleRate = params.sampleRate;
        return r.good();
    }
    out.strmtyp = static_cast<std::uint8_t>(r.readBits(2));
    out.substreamId = static_cast<std::uint8_t>(r.readBits(3));
    r.skipBits(11);  // frmsiz
    out.fscod = static_cast<std::uint8_t>(r.readBits(2));
    std::uint32_t numblkscod = 3;
    if (out.fscod == 3) {
        out.sampleRate = kEac3ReducedRates[r.readBits(2)];
    } else {
        numblkscod = r.readBits(2);
        out.sampleRate = kEac3Rates[out.fscod];
    }
    out.acmod = static_cast<std::uint8_t>(r.readBits(3));
    out.lfeon = r.readFlag();
    out.bsid = static_cast<std::uint8_t>(r.readBits(5));
    r.skipBits(5);                           // dialnorm
    if (r.readFlag()) r.skipBits(8);         // compre, compr
    if (out.acmod == 0) {
        r.skipBits(5);                       // dialnorm2
        if (r.readFlag()) r.skipBits(8);     // compr2e, compr2
    }
    if (out.strmtyp == 1) {
        out.chanmape = r.readFlag();
        if (out.chanmape) out.chanmap = static_cast<std::uint16_t>(r.readBits(16));
    }
    if (r.readFlag()) {  // mixmdate
        if (out.acmod > 2) r.skipBits(2);                          // dmixmod
        if ((out.acmod & 1) && out.acmod > 2) r.skipBits(6);       // ltrtcmixlev, lorocmixlev
        if (out.acmod & 4) r.skipBits(6);                          // ltrtsurmixlev, lorosurmixlev
        if (out.lfeon && r.readFlag()) r.skipBits(5);              // lfemixlevcode
        if (out.strmtyp == 0) {
            if (r.readFlag()) r.skipBits(6);                       // pgmscl
            if (out.acmod == 0 && r.readFlag()) r.skipBits(6);     // pgmscl2
            if (r.readFlag()) r.skipBits(6);                       // extpgmscl
            const std::uint32_t mixdef = r.readBits(2);
            if (mixdef == 1) r.skipBits(5);
            else if (mixdef == 2) r.skipBits(12);
            else if (mixdef == 3) r.skipBits(8 * (r.readBits(5) + 2));
            if (out.acmod < 2) {
                if (r.readFlag()) r.skipBits(14);                  // panmean, paninfo
                if (out.acmod == 0 && r.readFlag()) r.skipBits(14);
            }
            if (r.readFlag()) {  // frmmixcfginfoe
                if (numblkscod == 0) {
                    r.skipBits(5);
                } else {
                    for (std::uint32_t b = 0; b < kEac3Blocks[numblkscod]; ++b)
                        if (r.readFlag()) r.skipBits(5);
                }
            }
        }
    }
    if (r.readFlag()) out.bsmod = static_cast<std::uint8_t>(r.readBits(3));  // infomdate
    return r.good();
}

std::uint32_t ac3ChannelCount(std::uint8_t acmod) {
    static constexpr std::uint32_t kCounts[8] = {2, 1, 2, 3, 3, 4, 4, 5};
    return kCounts[acmod & 7];
}

std::uint16_t ac3ChannelMask(std::uint8_t acmod, bool lfeon) {
    // L 0x8000, C 0x4000, R 0x2000, Ls 0x1000, Rs 0x0800, Cs 0x0100, LFE 0x0001.
    static constexpr std::uint16_t kMasks[8] = {0xA000, 0x4000, 0xA000, 0xE000, 0xA100, 0xE100, 0xB800, 0xF800};
    return static_cast<std::uint16_t>(kMasks[acmod & 7] | (lfeon ? 1 : 0));
}

std::uint32_t mpeg1FrameSize(const std::uint8_t* h, bool acceptLayer3) {
    if (h[0] != 0xFF) return 0;
    const std::uint32_t second = h[1] & 0xFEu;
    if (second != 0xFC && second != 0xFE && !(acceptLayer3 && second == 0xFA)) return 0;
    if ((h[2] & 0xF0) == 0xF0) return 0;
    const std::uint32_t layer = ((h[1] >> 1) & 3u) ^ 3u;  // 0 Layer I, 1 Layer II, 2 Layer III
    const std::uint32_t kbps = kMpeg1Kbps[layer][h[2] >> 4];
    const std::uint32_t rate = kMpeg1Rates[(h[2] >> 2) & 3];
    const std::uint32_t padding = (h[2] >> 1) & 1u;
    if (kbps == 0 || rate == 0) return 0;
    if (layer == 0) return (kbps * 1000 * 12 / rate + padding) * 4;
    return kbps * 1000 * 144 / rate + padding;
}

bool parseMpeg1AudioHeader(std::span<const std::uint8_t> bytes, Mpeg1AudioHeader& out) {
    out = {};
    if (bytes.size() < 4) return false;
    BitReader r(bytes.data(), bytes.size());
    if (r.readBits(12) != 0xFFF) return false;
    r.skipBits(1);
    out.layerField = r.readBits(2);
    r.skipBits(1 + 4);
    const std::uint32_t rateIndex = r.readBits(2);
    if (rateIndex == 3) return false;
    r.skipBits(2);
    static constexpr std::uint32_t kChannels[4] = {2, 2, 2, 1};
    out.channels = kChannels[r.readBits(2)];
    out.sampleRate = kMpeg1Rates[rateIndex];
    return r.good();
}

std::vector<std::uint8_t> mpeg1DecoderConfig(std::uint32_t sampleRate, std::uint32_t channels) {
    // 5 + 6 + 4 + 24 + 4 = 43 bits, padded to 6 bytes.
    std::uint64_t bits = 31;
    bits = (bits << 6) | (107 - 32);
    bits = (bits << 4) | 15;
    bits = (bits << 24) | (sampleRate & 0xFFFFFFu);
    bits = (bits << 4) | (channels & 15u);
    bits <<= 5;
    std::vector<std::uint8_t> out(6);
    for (int i = 0; i < 6; ++i) out[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(bits >> (40 - 8 * i));
    return out;
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
