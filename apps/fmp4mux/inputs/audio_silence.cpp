#include "apps/fmp4mux/inputs/audio_silence.h"

#include <exception>
#include <memory>
#include <optional>

#include "apps/fmp4mux/inputs/adts.h"
#include "apps/fmp4mux/inputs/audio_frames.h"
#include "apps/fmp4mux/inputs/libav_module.h"


namespace fmp4mux {

namespace {
// Bits written most significant first, the last byte filled up with zeros.
class BitWriter {
public:
    void put(std::uint32_t value, unsigned count) {
        for (unsigned i = count; i-- > 0; ++m_bits) {
            if (m_bits % 8 == 0) m_bytes.push_back(0);
            if ((value >> i) & 1u) m_bytes.back() = static_cast<std::uint8_t>(m_bytes.back() | (0x80u >> (m_bits % 8)));
        }
    }
    std::vector<std::uint8_t> take() { return std::move(m_bytes); }

private:
    std::vector<std::uint8_t> m_bytes;
    std::size_t m_bits = 0;
};

// A raw_data_block() of silence (ISO/IEC 14496-3 4.4.2) for a channel configuration of 1 to 7: its elements in
// the order the configuration lists them (4.5.1.2.1), each with max_sfb 0, so no spectral data, and global_gain,
// pulse, TNS and gain control all 0; then ID_END, and zero bits to the byte. A single channel element or LFE
// element is its 3-bit id, a 4-bit tag, the 8-bit global_gain, an 11-bit ics_info and three flags: 29 bits. A
// channel pair shares one window (common_window 1) and no M/S (ms_mask_present 00): 3 + 4 + 1 + 11 + 2 bits, then
// global_gain and three flags for each channel: 43 bits. Mono comes to 00 00 00 07, stereo to 21 00 00 00 00 1C.
std::vector<std::uint8_t> silentRawDataBlock(unsigned configuration) {
    enum : unsigned { kSce = 0, kCpe = 1, kLfe = 3, kEnd = 7 };
    static const std::vector<unsigned> kElements[8] = {{},
                                                       {kSce},
                                                       {kCpe},
                                                       {kSce, kCpe},
                                                       {kSce, kCpe, kSce},
                                                       {kSce, kCpe, kCpe},
                                                       {kSce, kCpe, kCpe, kLfe},
                                                       {kSce, kCpe, kCpe, kCpe, kLfe}};
    BitWriter out;
    const auto put = [&out](std::uint32_t value, unsigned count) { out.put(value, count); };
    unsigned tags[8] = {};  // the next instance tag of each element kind
    for (const unsigned element : kElements[configuration]) {
        put(element, 3);
        put(tags[element]++, 4);
        if (element == kCpe) {
            put(1, 1);      // common_window
            put(0, 11);     // ics_info: max_sfb 0
            put(0, 2);      // ms_mask_present
            put(0, 8 + 3);  // first channel: global_gain, pulse, TNS, gain control
            put(0, 8 + 3);  // second channel
        } else {
            put(0, 8 + 11 + 3);  // global_gain, ics_info, pulse, TNS, gain control
        }
    }
    put(kEnd, 3);
    return out.take();
}

// An ADTS frame of silence with the header of `p` (AAC-LC, a channel configuration of 1 to 7), or nothing for
// another header.
std::vector<std::uint8_t> silentAdtsFrame(const std::uint8_t* p) {
    const AdtsConfig config = adtsConfig(p);
    if (config.profile != 1 || config.rateIndex >= 13 || config.channels < 1 || config.channels > 7) return {};
    std::vector<std::uint8_t> frame(p, p + 7);
    frame[1] |= 0x01;                            // protection_absent: no CRC
    frame[5] |= 0x1F;                            // buffer fullness 0x7FF: variable rate
    frame[6] = static_cast<std::uint8_t>(0xFC);  // and one raw_data_block
    const std::vector<std::uint8_t> block = silentRawDataBlock(config.channels);
    frame.insert(frame.end(), block.begin(), block.end());
    const std::size_t length = frame.size();
    frame[3] = static_cast<std::uint8_t>((frame[3] & 0xFC) | (length >> 11));
    frame[4] = static_cast<std::uint8_t>(length >> 3);
    frame[5] = static_cast<std::uint8_t>(((length & 7) << 5) | (frame[5] & 0x1F));
    return frame;
}

// Whether silence can be made for a stream of this StreamMuxConfig: one program of one layer of AAC-LC in
// 1024-sample frames (no SBR), a rate of the table, a channel configuration of 1 to 7, frames whose length is given
// in bytes, no other data and no CRC.
bool silenceFits(const LatmConfig& c) {
    return c.sameTimeFraming && c.subFrames == 1 && !c.sbr && c.objectType == 2 && c.rateIndex < 13 &&
           c.channels >= 1 && c.channels <= 7 && !c.frameLength960 && !c.dependsOnCoreCoder &&
           c.frameLengthType == 0 && !c.otherData && !c.crc && c.whole;
}

// A LOAS frame of silence that uses the configuration sent before it (useSameStreamMux 1): the payload length in
// bytes (PayloadLengthInfo, a byte each 255 and the rest) and the silent raw data block, then zero bits to the byte.
std::vector<std::uint8_t> silentLatmFrame(unsigned channels) {
    const std::vector<std::uint8_t> block = silentRawDataBlock(channels);
    BitWriter bits;
    bits.put(0x2B7, 11);
    bits.put(0, 13);  // audioMuxLengthBytes, once the frame is whole
    bits.put(1, 1);   // useSameStreamMux
    std::size_t left = block.size();
    for (; left >= 255; left -= 255) bits.put(255, 8);
    bits.put(static_cast<std::uint32_t>(left), 8);
    for (const std::uint8_t byte : block) bits.put(byte, 8);
    std::vector<std::uint8_t> frame = bits.take();
    const std::size_t length = frame.size() - 3;
    frame[1] = static_cast<std::uint8_t>(frame[1] | (length >> 8));
    frame[2] = static_cast<std::uint8_t>(length);
    return frame;
}

// One frame of silence from libavcodec's encoder `name`; none when the encoder is missing or refuses the
// parameters, or its module cannot be loaded (the stream then ends where it stops, as without silence).
std::vector<std::uint8_t> encodedSilence(const char* name, int rate, std::uint64_t channelMask, std::int64_t bitRate) {
    try {
        return libav().encodeSilence(name, rate, channelMask, bitRate);
    } catch (const std::exception&) {
        return {};
    }
}

// The channel mask of an AC-3 audio coding mode (1/0 to 3/2) with or without LFE; 0 for dual mono (1+1).
std::uint64_t ac3Layout(unsigned acmod, bool lfeon) {
    static constexpr std::uint64_t kModes[8] = {0,
                                                speakers::kMono,
                                                speakers::kStereo,
                                                speakers::kSurround,
                                                speakers::kTwoOne,
                                                speakers::kFourZero,
                                                speakers::kTwoTwo,
                                                speakers::kFiveZero};
    const std::uint64_t mask = kModes[acmod & 7];
    return mask == 0 ? 0 : mask | (lfeon ? speakers::kLowFrequency : 0);
}

// A silent AC-3 or E-AC-3 frame for a stream whose packet starts with `data`, when one that says what its frames
// say can be made: the same kind, rate, blocks, coding mode, LFE and frame size (so the same bitrate). A stream
// with dependent substreams (7.1) gets none.
std::vector<std::uint8_t> silentDolbyFrame(const std::uint8_t* data, std::size_t size) {
    const std::optional<DolbyFrame> real = readDolbyFrame(data, size);
    if (!real || (real->eac3 && (real->strmtyp != 0 || real->substreamId != 0))) return {};
    for (std::size_t at = real->size; at < size;) {
        const std::optional<DolbyFrame> next = readDolbyFrame(data + at, size - at);
        if (!next) break;
        if (next->eac3 && next->strmtyp == 1) return {};
        at += next->size;
    }
    const std::uint64_t layout = ac3Layout(real->acmod, real->lfeon);
    if (layout == 0) return {};
    const auto bitRate = static_cast<std::int64_t>(real->size * 8 * real->rate / (real->blocks * 256));
    std::vector<std::uint8_t> frame =
        encodedSilence(real->eac3 ? "eac3" : "ac3", static_cast<int>(real->rate), layout, bitRate);
    const std::optional<DolbyFrame> made = readDolbyFrame(frame.data(), frame.size());
    const bool same = made && made->size == frame.size() && made->size == real->size && made->eac3 == real->eac3 &&
                      made->strmtyp == 0 && made->fscod == real->fscod && made->blocks == real->blocks &&
                      made->acmod == real->acmod && made->lfeon == real->lfeon;
    return same ? frame : std::vector<std::uint8_t>{};
}

// A silent MPEG-1 Layer II frame with the rate, channels and bitrate of the frame at `data`.
std::vector<std::uint8_t> silentLayer2Frame(const std::uint8_t* data, std::size_t size) {
    const std::optional<Layer2Frame> real = readLayer2Frame(data, size);
    if (!real) return {};
    std::vector<std::uint8_t> frame =
        encodedSilence("mp2", static_cast<int>(real->rate), real->channels == 1 ? speakers::kMono : speakers::kStereo,
                       static_cast<std::int64_t>(kLayer2Kbps[real->bitrateIndex]) * 1000);
    const std::optional<Layer2Frame> made = readLayer2Frame(frame.data(), frame.size());
    const bool same = made && made->size == frame.size() && made->rate == real->rate &&
                      made->channels == real->channels && made->bitrateIndex == real->bitrateIndex;
    return same ? frame : std::vector<std::uint8_t>{};
}
}  // namespace

bool AudioSilence::fills(const std::string& codec) {
    return codec == "aac" || codec == "aac_latm" || codec == "ac3" || codec == "eac3" || codec == "mp2";
}

AudioSilence::Frame AudioSilence::readFrame(const std::string& codec, const std::uint8_t* data, std::size_t size) {
    Frame frame;
    if (codec == "aac") {
        if (size < 7) return frame;
        const std::size_t length = adtsFrameLength(data);
        const unsigned rateIndex = adtsConfig(data).rateIndex;
        if (length == 0 || length > size || rateIndex >= 13) return frame;
        return {length, 1024u * ((data[6] & 0x03u) + 1), kAacRates[rateIndex]};
    }
    if (codec == "aac_latm") {
        // The rate is in the configuration, which not every frame carries: the caller knows it.
        const std::size_t length = loasFrameLength(data, size);
        if (length == 0 || length > size) return frame;
        return {length, 1024, 0};
    }
    if (codec == "ac3" || codec == "eac3") {
        const std::optional<DolbyFrame> dolby = readDolbyFrame(data, size);
        if (!dolby || dolby->size > size) return frame;
        // A dependent substream belongs to the independent one before it: no samples of its own.
        return {dolby->size, dolby->eac3 && dolby->strmtyp == 1 ? 0 : dolby->blocks * 256, dolby->rate};
    }
    if (codec == "mp2") {
        const std::optional<Layer2Frame> layer2 = readLayer2Frame(data, size);
        if (!layer2 || layer2->size > size) return frame;
        return {layer2->size, 1152, layer2->rate};
    }
    return frame;
}

void AudioSilence::makeFrame(const std::uint8_t* data, std::size_t size) {
    // The first packet that starts with a frame decides: one made for its header, or none for the stream.
    if (readFrame(m_codec, data, size).length == 0) return;
    if (m_codec == "aac_latm") {
        // LOAS: the first frame that carries its configuration decides.
        bool carriesConfig = false;
        const std::optional<LatmConfig> config = readLatmConfig(data, size, &carriesConfig);
        if (!carriesConfig) return;
        m_looked = true;
        if (!config || !silenceFits(*config)) return;
        m_frame = silentLatmFrame(config->channels);
        m_samples = 1024;
        m_rate = kAacRates[config->rateIndex];
        return;
    }
    m_looked = true;
    if (m_codec == "aac")
        m_frame = silentAdtsFrame(data);
    else if (m_codec == "ac3" || m_codec == "eac3")
        m_frame = silentDolbyFrame(data, size);
    else if (m_codec == "mp2")
        m_frame = silentLayer2Frame(data, size);
    const Frame made = m_frame.empty() ? Frame{} : readFrame(m_codec, m_frame.data(), m_frame.size());
    if (made.length != m_frame.size() || made.samples == 0 || made.rate == 0) {
        m_frame.clear();
        return;
    }
    m_samples = made.samples;
    m_rate = made.rate;
}

void AudioSilence::noteReal(const Packet& packet) {
    if (!m_looked && packet.size > 0) makeFrame(packet.data, packet.size);
    const std::optional<std::int64_t> t = packet.pts ? packet.pts : packet.dts;
    if (!t || m_frame.empty()) return;
    if (packet.duration > 0) {
        m_end = *t + packet.duration;
        return;
    }
    // A PES of frames has no duration of its own: its frames' samples give it.
    std::uint64_t samples = 0;
    std::uint32_t rate = 0;
    for (std::size_t at = 0; at < packet.size;) {
        const Frame frame = readFrame(m_codec, packet.data + at, packet.size - at);
        if (frame.length == 0) break;
        samples += frame.samples;
        if (rate == 0) rate = frame.rate != 0 ? frame.rate : m_rate;
        at += frame.length;
    }
    if (samples > 0 && rate > 0) m_end = *t + static_cast<std::int64_t>(samples * 10000000ULL / rate);
}

void AudioSilence::start() {
    if (!canFill()) return;
    m_filling = true;
    m_base = *m_end;
    m_made = 0;
}

std::int64_t AudioSilence::frameTime(std::uint64_t n) const {
    return m_base + static_cast<std::int64_t>(n * m_samples * 10000000ULL / m_rate);
}

std::vector<Packet> AudioSilence::upTo(std::int64_t until) {
    std::vector<Packet> out;
    if (!m_filling) return out;
    while (frameTime(m_made + 1) <= until) {
        Packet p;
        p.stream = m_stream;
        p.owned = m_frame;
        p.data = p.owned.data();
        p.size = p.owned.size();
        p.pts = p.dts = frameTime(m_made);
        p.duration = frameTime(m_made + 1) - *p.pts;
        ++m_made;
        out.push_back(std::move(p));
    }
    return out;
}

bool AudioSilence::covers(std::int64_t time) const {
    // Within half a frame of where the silence has got, or beyond: the real frames go on from there.
    return m_filling && time + (frameTime(1) - frameTime(0)) / 2 < frameTime(m_made);
}

std::vector<Packet> AudioSilence::handOver(std::int64_t time) {
    std::vector<Packet> out = upTo(time);
    m_filling = false;
    return out;
}

}  // namespace fmp4mux
