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
        Ac3Downmix& d = out.downmix;
        const bool threeFronts = (out.acmod & 1) && out.acmod != 1;
        const bool surrounds = (out.acmod & 4) != 0;
        if (threeFronts) d.cmixlev = static_cast<int>(r.readBits(2));
        if (surrounds) d.surmixlev = static_cast<int>(r.readBits(2));
        if (out.acmod == 2) d.dsurmod = static_cast<int>(r.readBits(2));
        out.lfeon = r.readFlag();
        out.sampleRate = params.sampleRate;
        const bool complete = r.good();
        if (complete && out.bsid == 6) {
            // The alternate syntax: past the programme's own fields, the extended information 1 holds the
            // preferred stereo downmix and its mix levels, whatever the mode; only those the mode uses are kept.
            for (int programme = 0; programme < (out.acmod == 0 ? 2 : 1); ++programme) {
                r.skipBits(5);                    // dialnorm
                if (r.readFlag()) r.skipBits(8);  // compr
                if (r.readFlag()) r.skipBits(8);  // langcod
                if (r.readFlag()) r.skipBits(7);  // mixlevel, roomtyp
            }
            r.skipBits(2);  // copyrightb, origbs
            if (r.readFlag()) {  // xbsi1e
                const int dmixmod = static_cast<int>(r.readBits(2));
                const int ltrtc = static_cast<int>(r.readBits(3));
                const int ltrts = static_cast<int>(r.readBits(3));
                const int loroc = static_cast<int>(r.readBits(3));
                const int loros = static_cast<int>(r.readBits(3));
                if (r.good() && out.acmod > 2) d.dmixmod = dmixmod;
                if (r.good() && threeFronts) {
                    d.ltrtcmixlev = ltrtc;
                    d.lorocmixlev = loroc;
                }
                if (r.good() && surrounds) {
                    d.ltrtsurmixlev = ltrts;
                    d.lorosurmixlev = loros;
                }
            }
        }
        return complete;
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
    Ac3Downmix& d = out.downmix;
    if (r.readFlag()) {  // mixmdate
        if (out.acmod > 2) d.dmixmod = static_cast<int>(r.readBits(2));
        if ((out.acmod & 1) && out.acmod > 2) {
            d.ltrtcmixlev = static_cast<int>(r.readBits(3));
            d.lorocmixlev = static_cast<int>(r.readBits(3));
        }
        if (out.acmod & 4) {
            d.ltrtsurmixlev = static_cast<int>(r.readBits(3));
            d.lorosurmixlev = static_cast<int>(r.readBits(3));
        }
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
    if (r.readFlag()) {  // infomdate
        out.bsmod = static_cast<std::uint8_t>(r.readBits(3));
        r.skipBits(2);  // copyrightb, origbs
        if (out.acmod == 2) d.dsurmod = static_cast<int>(r.readBits(2));
    }
    if (!r.good()) out.downmix = {};
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

namespace {
// variable_bits(n) of ETSI TS 103 190-1 4.2.2.
std::uint32_t variableBits(BitReader& r, unsigned n) {
    std::uint32_t value = 0;
    for (int guard = 0; guard < 8 && r.good(); ++guard) {
        value += r.readBits(n);
        if (!r.readFlag()) break;
        value = (value << n) + (1u << n);
    }
    return value;
}
}  // namespace

bool parseAc4Toc(std::span<const std::uint8_t> frame, Ac4Toc& out) {
    out = {};
    if (frame.size() < 4 || frame[0] != 0xAC || (frame[1] & 0xFE) != 0x40) return false;
    BitReader r(frame.data(), frame.size());
    r.skipBits(16);
    if (r.readBits(16) == 0xFFFF) r.skipBits(24);  // frame_size
    out.bitstreamVersion = r.readBits(2);
    if (out.bitstreamVersion == 3) out.bitstreamVersion += variableBits(r, 2);
    out.sequenceCounter = r.readBits(10);
    if (r.readFlag()) {  // b_wait_frames
        if (r.readBits(3) > 0) r.skipBits(2);  // wait_frames, br_code
    }
    out.fsIndex = r.readBits(1);
    out.frameRateIndex = r.readBits(4);
    out.iframeGlobal = r.readFlag();
    if (r.readFlag()) {
        out.presentations = 1;  // b_single_presentation
    } else if (r.readFlag()) {
        out.presentations = variableBits(r, 2) + 2;  // b_more_presentations
    }
    if (r.readFlag()) {  // b_payload_base
        if (r.readBits(5) + 1 == 0x20) variableBits(r, 3);
    }
    if (out.bitstreamVersion > 1) {
        out.programId = r.readFlag();
        if (out.programId) {
            out.shortProgramId = r.readBits(16);
            if (r.readFlag()) r.skipBits(128);  // program_uuid
        }
        if (out.presentations > 0) {
            // ac4_presentation_v1_info() up to presentation_version() and mdcompat.
            const bool singleGroup = r.readFlag();
            std::uint32_t config = 0;
            if (!singleGroup) {
                config = r.readBits(3);
                if (config == 7) config += variableBits(r, 2);
            }
            while (r.good() && out.presentationVersion < 32 && r.readFlag()) ++out.presentationVersion;
            if (singleGroup || config != 6) out.mdcompat = r.readBits(3);
        }
    }
    return r.good() && out.bitstreamVersion <= 2;
}

std::uint32_t ac4Timescale(const Ac4Toc& toc) {
    if (toc.fsIndex == 0) return 44100;
    return toc.frameRateIndex < 64 && ((0x908u >> toc.frameRateIndex) & 1u) ? 240000 : 48000;
}

std::uint32_t ac4FrameLength(const Ac4Toc& toc) {
    static constexpr std::uint32_t kLengths[16] = {2002, 2000, 1920, 8008, 1600, 1001, 1000, 960,
                                                   4004, 800,  480,  2002, 400,  2048, 0,    0};
    if (toc.fsIndex == 0) return 2048;
    return kLengths[toc.frameRateIndex & 15];
}

std::vector<std::uint8_t> ac4DecoderSpecificInfo(const Ac4Toc& toc) {
    std::vector<std::uint8_t> out;
    std::uint32_t accumulator = 0;
    unsigned filled = 0;
    const auto put = [&](std::uint32_t value, unsigned count) {
        for (unsigned i = count; i-- > 0;) {
            accumulator = (accumulator << 1) | ((value >> i) & 1u);
            if (++filled == 8) {
                out.push_back(static_cast<std::uint8_t>(accumulator));
                accumulator = 0;
                filled = 0;
            }
        }
    };
    put(1, 3);  // ac4_dsi_version
    put(toc.bitstreamVersion, 7);
    put(toc.fsIndex, 1);
    put(toc.frameRateIndex, 4);
    put(0, 9);  // n_presentations
    if (toc.bitstreamVersion > 1) {
        put(toc.programId ? 1 : 0, 1);
        if (toc.programId) {
            put(toc.shortProgramId, 16);
            put(0, 1);  // b_uuid
        }
    }
    put(0, 2);   // bit_rate_mode: not specified
    put(0, 32);  // bit_rate
    put(0, 32);  // bit_rate_precision
    if (filled > 0) put(0, 8 - filled);
    return out;
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
