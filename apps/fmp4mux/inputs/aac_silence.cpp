#include "apps/fmp4mux/inputs/aac_silence.h"

#include "apps/fmp4mux/inputs/adts.h"

namespace fmp4mux {

namespace {
constexpr std::uint32_t kRates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                      22050, 16000, 12000, 11025, 8000,  7350};
constexpr std::uint64_t kSamplesPerFrame = 1024;

// raw_data_block()s of silence (ISO/IEC 14496-3 4.4.2): an element of max_sfb 0, so no spectral data, with
// global_gain, pulse, TNS and gain control all 0, then ID_END. Mono: SCE 000, tag 0000, global_gain, ics_info of
// 11 zero bits, three zero flags, END 111: 32 bits. Stereo: CPE 001, tag 0000, common_window 1, ics_info, ms_mask
// 00, two channel streams of global_gain and three flags, END 111, two bits of padding: 48 bits.
constexpr std::uint8_t kMono[] = {0x00, 0x00, 0x00, 0x07};
constexpr std::uint8_t kStereo[] = {0x21, 0x00, 0x00, 0x00, 0x00, 0x1C};
}  // namespace

void AacSilence::noteReal(const Packet& packet) {
    const std::optional<std::int64_t> t = packet.pts ? packet.pts : packet.dts;
    if (!m_header && packet.size >= 7) keepHeader(packet.data);
    if (!t || !m_header) return;
    if (packet.duration > 0) {
        m_end = *t + packet.duration;
        return;
    }
    // A PES of ADTS frames has no duration of its own: its frames' count of samples gives it.
    std::uint64_t samples = 0;
    for (std::size_t at = 0; at + 7 <= packet.size;) {
        const std::size_t length = adtsFrameLength(packet.data + at);
        if (length == 0) break;
        samples += kSamplesPerFrame * ((packet.data[at + 6] & 0x03u) + 1);
        at += length;
    }
    if (samples > 0) m_end = *t + static_cast<std::int64_t>(samples * 10000000ULL / m_rate);
}

void AacSilence::keepHeader(const std::uint8_t* p) {
    // An ADTS frame; profile 1 (AAC-LC); a known rate; channel configuration 1 or 2.
    if (adtsFrameLength(p) == 0) return;
    const unsigned profile = p[2] >> 6, rateIndex = (p[2] >> 2) & 0x0F;
    const unsigned channels = ((p[2] & 0x01u) << 2) | (p[3] >> 6);
    if (profile != 1 || rateIndex >= 13 || (channels != 1 && channels != 2)) return;
    std::array<std::uint8_t, 7> header{};
    for (std::size_t i = 0; i < 7; ++i) header[i] = p[i];
    header[1] |= 0x01;                                    // protection_absent: no CRC
    header[5] |= 0x1F;                                    // buffer fullness 0x7FF: variable rate
    header[6] = static_cast<std::uint8_t>(0xFC);          // and one raw_data_block
    m_header = header;
    m_rate = kRates[rateIndex];
}

void AacSilence::start() {
    if (!canFill()) return;
    m_filling = true;
    m_base = *m_end;
    m_made = 0;
}

std::int64_t AacSilence::frameTime(std::uint64_t n) const {
    return m_base + static_cast<std::int64_t>(n * kSamplesPerFrame * 10000000ULL / m_rate);
}

std::vector<Packet> AacSilence::upTo(std::int64_t until) {
    std::vector<Packet> out;
    if (!m_filling) return out;
    const bool stereo = (((*m_header)[2] & 0x01u) << 2 | ((*m_header)[3] >> 6)) == 2;
    const std::uint8_t* block = stereo ? kStereo : kMono;
    const std::size_t blockSize = stereo ? sizeof kStereo : sizeof kMono;
    while (frameTime(m_made + 1) <= until) {
        Packet p;
        p.stream = m_stream;
        p.owned.assign(m_header->begin(), m_header->end());
        const std::size_t length = 7 + blockSize;
        p.owned[3] = static_cast<std::uint8_t>((p.owned[3] & 0xFC) | (length >> 11));
        p.owned[4] = static_cast<std::uint8_t>(length >> 3);
        p.owned[5] = static_cast<std::uint8_t>(((length & 7) << 5) | (p.owned[5] & 0x1F));
        p.owned.insert(p.owned.end(), block, block + blockSize);
        p.data = p.owned.data();
        p.size = p.owned.size();
        p.pts = p.dts = frameTime(m_made);
        p.duration = frameTime(m_made + 1) - *p.pts;
        ++m_made;
        out.push_back(std::move(p));
    }
    return out;
}

bool AacSilence::covers(std::int64_t time) const {
    // Within half a frame of where the silence has got, or beyond: the real frames go on from there.
    return m_filling && time + (frameTime(1) - frameTime(0)) / 2 < frameTime(m_made);
}

std::vector<Packet> AacSilence::handOver(std::int64_t time) {
    std::vector<Packet> out = upTo(time);
    m_filling = false;
    return out;
}

}  // namespace fmp4mux
