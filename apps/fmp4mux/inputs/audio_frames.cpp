#include "apps/fmp4mux/inputs/audio_frames.h"

#include "apps/fmp4mux/inputs/adts.h"

namespace fmp4mux {

namespace {
// MPEG-1 sampling rates (ISO/IEC 11172-3, 2.4.2.3).
constexpr std::uint32_t kMpeg1Rates[3] = {44100, 48000, 32000};

// The bsid and the size in bytes of the AC-3 or E-AC-3 sync frame at `p`, from its sync information and bit
// stream information (ETSI TS 102 366: frmsizecod and Table 4.13 for AC-3, bsid up to 10; frmsiz for E-AC-3, bsid
// 11 to 16); false for anything else.
bool dolbySyncFrame(const std::uint8_t* p, std::size_t size, unsigned& bsid, std::size_t& bytes) {
    if (size < 7 || p[0] != 0x0B || p[1] != 0x77) return false;
    bsid = p[5] >> 3;
    if (bsid > 16) return false;
    if (bsid > 10) {
        bytes = ((((static_cast<std::size_t>(p[2]) & 7u) << 8) | p[3]) + 1) * 2;
        return true;
    }
    const unsigned fscod = p[4] >> 6, code = p[4] & 0x3Fu;
    if (fscod == 3 || code > 37) return false;
    // Two codes a bitrate; a frame lasts 1536 samples, so it holds kbit/s x 1536 / rate / 16 words: 2 x kbit/s at
    // 48 kHz, 3 x kbit/s at 32 kHz, and at 44.1 kHz that rounded down, the odd code one word more.
    static constexpr unsigned kKbps[19] = {32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 448, 512, 576, 640};
    const unsigned kbps = kKbps[code / 2];
    const unsigned words = fscod == 0 ? 2 * kbps : fscod == 2 ? 3 * kbps : kbps * 320 / 147 + (code & 1u);
    bytes = std::size_t{words} * 2;
    return true;
}
}  // namespace

std::optional<Layer2Frame> readLayer2Frame(const std::uint8_t* p, std::size_t size) {
    // Sync word, ID 1 (MPEG-1), layer field 2 (Layer II); a bitrate of the table and a rate other than reserved.
    if (size < 4 || p[0] != 0xFF || (p[1] & 0xFE) != 0xFC) return std::nullopt;
    const std::uint32_t bitrateIndex = p[2] >> 4, rateIndex = (p[2] >> 2) & 3u, padding = (p[2] >> 1) & 1u;
    if (bitrateIndex == 0 || bitrateIndex == 15 || rateIndex == 3) return std::nullopt;
    Layer2Frame frame;
    frame.rate = kMpeg1Rates[rateIndex];
    frame.size = 144u * kLayer2Kbps[bitrateIndex] * 1000u / frame.rate + padding;
    frame.channels = (p[3] >> 6) == 3 ? 1 : 2;
    frame.bitrateIndex = bitrateIndex;
    return frame;
}

std::optional<DolbyFrame> readDolbyFrame(const std::uint8_t* p, std::size_t size) {
    unsigned bsid = 0;
    std::size_t frameSize = 0;
    if (size < 8 || !dolbySyncFrame(p, size, bsid, frameSize) || frameSize == 0) return std::nullopt;
    static constexpr std::uint32_t kRates[3] = {48000, 44100, 32000}, kHalfRates[3] = {24000, 22050, 16000};
    static constexpr unsigned kBlocks[4] = {1, 2, 3, 6};
    DolbyFrame frame;
    frame.size = frameSize;
    frame.fscod = p[4] >> 6;
    if (bsid > 10) {
        // E-AC-3: strmtyp (2), substreamid (3), frmsiz (11); fscod (2), numblkscod or fscod2 (2), acmod (3), lfeon.
        const unsigned code = (p[4] >> 4) & 3u;
        frame.eac3 = true;
        frame.strmtyp = p[2] >> 6;
        frame.substreamId = (p[2] >> 3) & 7u;
        if (frame.fscod == 3 && code == 3) return std::nullopt;
        frame.blocks = frame.fscod == 3 ? 6 : kBlocks[code];
        frame.rate = frame.fscod == 3 ? kHalfRates[code] : kRates[frame.fscod];
        frame.acmod = (p[4] >> 1) & 7u;
        frame.lfeon = (p[4] & 1u) != 0;
        return frame;
    }
    // AC-3: after bsid and bsmod, acmod (3); the mix levels its channels have (2 bits each), then lfeon.
    if (frame.fscod == 3) return std::nullopt;
    frame.rate = kRates[frame.fscod];
    frame.acmod = p[6] >> 5;
    unsigned bit = 6 * 8 + 3;
    if ((frame.acmod & 1u) != 0 && frame.acmod != 1) bit += 2;  // cmixlev
    if ((frame.acmod & 4u) != 0) bit += 2;                      // surmixlev
    if (frame.acmod == 2) bit += 2;                             // dsurmod
    frame.lfeon = ((static_cast<unsigned>(p[bit / 8]) >> (7 - bit % 8)) & 1u) != 0;
    return frame;
}

std::optional<LatmConfig> readLatmConfig(const std::uint8_t* p, std::size_t size, bool* carriesConfig) {
    if (carriesConfig != nullptr) *carriesConfig = false;
    const std::size_t length = loasFrameLength(p, size);
    if (length == 0 || length > size) return std::nullopt;
    Bits bits(p + 3, length - 3);
    if (bits.read(1) != 0) return std::nullopt;  // useSameStreamMux
    if (carriesConfig != nullptr) *carriesConfig = true;
    if (bits.read(1) != 0) return std::nullopt;  // audioMuxVersion
    LatmConfig config;
    config.sameTimeFraming = bits.read(1) != 0;
    config.subFrames = bits.read(6) + 1;
    if (bits.read(4) != 0 || bits.read(3) != 0) return std::nullopt;  // numProgram, numLayer
    // AudioSpecificConfig: object type, rate, channels; with SBR signalled (types 5 and 29) the rate played and the
    // core's object type follow.
    const auto objectType = [&bits] {
        const std::uint32_t type = bits.read(5);
        return type == 31 ? 32 + bits.read(6) : type;
    };
    std::uint32_t type = objectType();
    config.rateIndex = bits.read(4);
    if (config.rateIndex == 15)
        config.rate = bits.read(24);
    else if (config.rateIndex < std::size(kAacRates))
        config.rate = kAacRates[config.rateIndex];
    config.channels = bits.read(4);
    if (type == 5 || type == 29) {
        config.sbr = true;
        if (bits.read(4) == 15) bits.read(24);  // extensionSamplingFrequency
        type = objectType();
    }
    config.objectType = type;
    if (type < 1 || type > 4) return std::nullopt;
    config.frameLength960 = bits.read(1) != 0;
    if (bits.spent()) return std::nullopt;
    config.dependsOnCoreCoder = bits.read(1) != 0;
    if (config.dependsOnCoreCoder) bits.read(14);  // coreCoderDelay
    bits.read(1);                                  // extensionFlag
    config.frameLengthType = bits.read(3);
    if (config.frameLengthType == 0) {
        bits.read(8);  // latmBufferFullness
        config.otherData = bits.read(1) != 0;
        config.crc = bits.read(1) != 0;
        config.whole = !bits.spent();
    }
    return config;
}

std::optional<LatmTiming> latmTiming(const std::uint8_t* p, std::size_t size) {
    const std::optional<LatmConfig> config = readLatmConfig(p, size);
    if (!config || config->rate == 0) return std::nullopt;
    return LatmTiming{(config->frameLength960 ? 960u : 1024u) * config->subFrames, config->rate};
}

Framing framingOf(const std::string& codec, bool adts) {
    if (codec == "aac") return adts ? Framing::Adts : Framing::None;
    if (codec == "aac_latm") return Framing::Latm;
    if (codec == "ac3" || codec == "eac3") return Framing::Dolby;
    if (codec == "mp2") return Framing::Layer2;
    return Framing::None;
}

FrameRun frameRun(Framing framing, const std::uint8_t* data, std::size_t size, LatmTiming* latmSeen, int bytesOf,
                  std::size_t* bytes) {
    std::size_t at = 0;
    int frames = 0;
    std::int64_t samples = 0;  // of each frame
    std::uint32_t rate = 0;
    LatmTiming latm = latmSeen != nullptr ? *latmSeen : LatmTiming{};
    while (at < size) {
        std::size_t length = 0;
        std::int64_t frameSamples = 0;
        std::uint32_t frameRate = 0;
        bool dependent = false;
        if (framing == Framing::Adts) {
            if (size - at < 7 || (length = adtsFrameLength(data + at)) == 0 || (data[at + 6] & 0x03u) != 0) return {};
            const unsigned rateIndex = adtsConfig(data + at).rateIndex;
            if (rateIndex >= std::size(kAacRates)) return {};
            frameSamples = 1024;
            frameRate = kAacRates[rateIndex];
        } else if (framing == Framing::Latm) {
            // A frame that refers to an earlier configuration is timed by the one this packet or the stream last
            // carried (0 until one is known: the packet is timed once the walk is over).
            if ((length = loasFrameLength(data + at, size - at)) == 0) return {};
            if (const std::optional<LatmTiming> timing = latmTiming(data + at, size - at)) {
                latm = *timing;
                frameSamples = timing->samples;
                frameRate = timing->rate;
            }
        } else if (framing == Framing::Dolby) {
            const std::optional<DolbyFrame> frame = readDolbyFrame(data + at, size - at);
            if (!frame) return {};
            length = frame->size;
            frameSamples = 256 * static_cast<std::int64_t>(frame->blocks);
            frameRate = frame->rate;
            dependent = frame->eac3 && frame->strmtyp == 1;
        } else if (framing == Framing::Layer2) {
            const std::optional<Layer2Frame> frame = readLayer2Frame(data + at, size - at);
            if (!frame) return {};
            length = frame->size;
            frameSamples = 1152;
            frameRate = frame->rate;
        } else {
            return {};
        }
        if (length > size - at) return {};
        // Frames of one length: a LOAS frame without its configuration has none of its own.
        const bool timed = frameRate != 0;
        if (!dependent && timed && rate != 0 && (frameSamples != samples || frameRate != rate)) return {};
        if (!dependent) {
            if (frames == bytesOf && bytes != nullptr && frames > 0) *bytes = at;
            ++frames;
            if (timed) {
                samples = frameSamples;
                rate = frameRate;
            }
        } else if (frames == 0) {
            return {};  // a dependent substream frame belongs to an independent one before it
        }
        at += length;
    }
    if (frames == bytesOf && bytes != nullptr) *bytes = at;
    if (framing == Framing::Latm && rate == 0) {
        samples = latm.samples;
        rate = latm.rate;
    }
    if (latmSeen != nullptr && latm.rate != 0) *latmSeen = latm;
    if (frames == 0 || rate == 0) return {};
    return {frames, frames * samples * 10000000 / rate};
}

}  // namespace fmp4mux
