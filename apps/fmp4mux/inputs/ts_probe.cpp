#include "apps/fmp4mux/inputs/ts_probe.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "apps/fmp4mux/exit_error.h"
#include "apps/fmp4mux/inputs/adts.h"
#include "apps/fmp4mux/inputs/audio_frames.h"
#include "apps/fmp4mux/inputs/mapped_file.h"
#include "filter/mux_fmp4_filter/pins.h"
#include "packaging/fmp4_types/stream_type.h"

namespace fmp4mux {

namespace {
// The packager's stream types.
namespace types = tvrn::encoding::packaging::imff::fmp4;
constexpr std::uint32_t kMpeg1Audio = types::MPEG1_AUDIO, kH264 = types::H264_VIDEO, kDolby = types::AC3_AUDIO,
                        kAdts = types::AAC_ADTS_AUDIO, kLatm = types::AAC_LATM_AUDIO, kScte35 = types::SCTE_35,
                        kHevc = types::HEVC_VIDEO, kNone = types::STREAM_TYPE_UNSET;

struct Type {
    const char* codec = "";
    const char* media = "data";  // video, audio, subtitle or data
    std::uint32_t packager = kNone;
};

// The descriptor `tag` of a descriptor loop: its body, or an empty view.
struct Body {
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
};
Body descriptor(const std::vector<std::uint8_t>& loop, std::uint8_t tag) {
    for (std::size_t at = 0; at + 2 <= loop.size();) {
        const std::size_t length = loop[at + 1];
        if (at + 2 + length > loop.size()) break;
        if (loop[at] == tag) return {loop.data() + at + 2, length};
        at += 2 + length;
    }
    return {};
}

bool registered(const std::vector<std::uint8_t>& loop, const char* id) {
    const Body r = descriptor(loop, 0x05);
    return r.size >= 4 && std::equal(r.data, r.data + 4, id);
}

// What a PMT entry carries (ISO/IEC 13818-1 Table 2-34; ATSC A/52 for 0x81 and 0x87; ETSI EN 300 468 for the
// descriptors of private PES, stream type 0x06), named as libavformat names it.
Type typeOf(std::uint8_t streamType, const std::vector<std::uint8_t>& descriptors) {
    switch (streamType) {
        case 0x01: return {"mpeg1video", "video"};
        case 0x02: return {"mpeg2video", "video"};
        case 0x03:
        case 0x04: return {"mp2", "audio", kMpeg1Audio};
        case 0x0F: return {"aac", "audio", kAdts};
        case 0x10: return {"mpeg4", "video"};
        case 0x11: return {"aac_latm", "audio", kLatm};
        case 0x1B: return {"h264", "video", kH264};
        case 0x24: return {"hevc", "video", kHevc};
        case 0x42: return {"cavs", "video"};
        case 0x81: return {"ac3", "audio", kDolby};
        case 0x86: return {"scte_35", "data", kScte35};
        case 0x87: return {"eac3", "audio", kDolby};
        case 0xD1: return {"dirac", "video"};
        case 0xEA: return {"vc1", "video"};
        case 0x06:
            if (descriptor(descriptors, 0x6A).data != nullptr || registered(descriptors, "AC-3")) return {"ac3", "audio", kDolby};
            if (descriptor(descriptors, 0x7A).data != nullptr || registered(descriptors, "EAC3")) return {"eac3", "audio", kDolby};
            if (registered(descriptors, "HEVC")) return {"hevc", "video", kHevc};
            if (descriptor(descriptors, 0x7B).data != nullptr) return {"dts", "audio"};
            if (registered(descriptors, "Opus")) return {"opus", "audio"};
            if (descriptor(descriptors, 0x59).data != nullptr) return {"dvb_subtitle", "subtitle"};
            if (descriptor(descriptors, 0x56).data != nullptr) return {"dvb_teletext", "subtitle"};
            return {};
        default: return {};
    }
}

constexpr std::array<int, 8> kDolbyChannels{2, 1, 2, 3, 3, 4, 4, 5};  // by acmod (ETSI TS 102 366, Table 4.3)
}  // namespace

TsProbe::TsProbe()
    : m_demux(TsDemux::Callbacks{[this](const TsDemux::Pes& pes) { look(pes); }, nullptr, nullptr, nullptr,
                                 [this] { afterPacket(); }}) {}

bool TsProbe::push(const std::uint8_t* data, std::size_t size) {
    if (!m_plain) {
        // Three sync bytes 188 apart near the start: packets of 188 bytes, not 192 or 204.
        const std::size_t want = 3 * 188 - std::min(m_head.size(), std::size_t{3 * 188});
        m_head.insert(m_head.end(), data, data + std::min(size, want));
        if (m_head.size() >= 3 * 188) {
            bool plain = false;
            for (std::size_t at = 0; at + 2 * 188 < m_head.size() && at < 188 && !plain; ++at)
                plain = m_head[at] == 0x47 && m_head[at + 188] == 0x47 && m_head[at + 2 * 188] == 0x47;
            m_plain = plain;
            std::vector<std::uint8_t>().swap(m_head);
            if (!plain) return false;
        }
    }
    if (m_programs || m_pushed >= kLimit) return false;
    // No more than the limit, to the byte, so that where the probe stops does not depend on the pieces.
    const std::size_t n = std::min(size, kLimit - m_pushed);
    m_demux.push(data, n);
    m_pushed += n;
    return !m_programs && m_pushed < kLimit;
}

void TsProbe::finish() {
    if (!m_programs) m_demux.finish();
}

// Looked at after every packet, so that the streams are listed as their PMTs first come (before a later version
// changes them), and what is known stops at the same packet however the input came in pieces.
void TsProbe::afterPacket() {
    if (m_programs) return;
    note();
    if (enough()) m_programs = m_demux.programs();
}

void TsProbe::note() {
    // Only a PMT read for the first time, or in a new version, adds entries.
    const std::vector<TsDemux::Program>& programs = m_demux.programs();
    const std::size_t read = static_cast<std::size_t>(
        std::count_if(programs.begin(), programs.end(), [](const TsDemux::Program& p) { return p.version >= 0; }));
    const std::uint64_t state = m_demux.stats().pmtChanges * 65536 + read;
    if (state == m_pmtState) return;
    m_pmtState = state;
    for (const TsDemux::Program& program : m_demux.programs())
        for (const TsDemux::Stream& stream : program.streams)
            if (std::none_of(m_found.begin(), m_found.end(), [&](const Found& f) { return f.stream.pid == stream.pid; }))
                m_found.push_back({program.number, stream, typeOf(stream.streamType, stream.descriptors).media});
}

void TsProbe::look(const TsDemux::Pes& pes) {
    if (m_programs) return;
    Seen& seen = m_seen[pes.pid];
    if (seen.looked || pes.size == 0) return;
    const std::uint8_t* p = pes.data;
    const std::size_t n = pes.size;
    switch (pes.streamType) {
        case 0x1B:
        case 0x24:
            seen.looked = tvrn::encoding::filter::pictureSize(pes.streamType == 0x24 ? kHevc : kH264, p, n, seen.width, seen.height);
            return;
        case 0x0F:
            if (n >= 7 && p[0] == 0xFF && (p[1] & 0xF6) == 0xF0) {
                const AdtsConfig config = adtsConfig(p);
                seen.sampleRate = config.rateIndex < 13 ? static_cast<int>(kAacRates[config.rateIndex]) : 0;
                seen.channels = config.channels == 7 ? 8 : static_cast<int>(config.channels);
            }
            break;
        case 0x11:
            if (const auto config = readLatmConfig(p, n)) {
                seen.sampleRate = static_cast<int>(config->rate * (config->sbr ? 2 : 1));
                seen.channels = config->channels == 7 ? 8 : static_cast<int>(config->channels);
            }
            break;
        case 0x03:
        case 0x04:
            // MPEG audio frame header (ISO/IEC 11172-3, 2.4.2.3; the rates halve for MPEG-2, quarter for 2.5).
            if (n >= 4 && p[0] == 0xFF && (p[1] & 0xE0) == 0xE0) {
                static const char* const kLayer[4] = {"mp2", "mp3", "mp2", "mp1"};
                static const int kRates[3] = {44100, 48000, 32000};
                const unsigned version = (p[1] >> 3) & 3, rateIndex = (p[2] >> 2) & 3;
                seen.codec = kLayer[(p[1] >> 1) & 3];
                if (rateIndex < 3 && version != 1) seen.sampleRate = kRates[rateIndex] >> (version == 3 ? 0 : version == 2 ? 1 : 2);
                seen.channels = (p[3] >> 6) == 3 ? 1 : 2;
            }
            break;
        default:
            if (const auto frame = readDolbyFrame(p, n)) {
                seen.sampleRate = static_cast<int>(frame->rate);
                seen.channels = kDolbyChannels[frame->acmod & 7] + (frame->lfeon ? 1 : 0);
            }
            break;
    }
    seen.looked = true;
}

// Every PMT of the PAT read, and a PES of each audio and video stream they list looked at.
bool TsProbe::enough() const {
    const std::vector<TsDemux::Program>& programs = this->programs();
    if (programs.empty() ||
        std::any_of(programs.begin(), programs.end(), [](const TsDemux::Program& p) { return p.version < 0; }))
        return false;
    for (const Found& found : m_found) {
        if (found.media != std::string_view("video") && found.media != std::string_view("audio")) continue;
        const auto it = m_seen.find(found.stream.pid);
        if (it == m_seen.end() || !it->second.looked) return false;
    }
    return true;
}

std::optional<TsContents> TsProbe::contents(int inputIndex, std::vector<std::string>& skipped,
                                            std::optional<int> program, std::vector<std::string>* notes) const {
    const std::vector<TsDemux::Program>& programs = this->programs();
    if (!looksLikeTs() || programs.empty() ||
        std::none_of(programs.begin(), programs.end(), [](const TsDemux::Program& p) { return p.version >= 0; }))
        return std::nullopt;
    const std::string input = "input " + std::to_string(inputIndex);
    const TsDemux::Program* chosen = nullptr;
    std::string numbers;
    for (std::size_t k = 0; k < programs.size(); ++k) {
        numbers += (k ? ", " : "") + std::to_string(programs[k].number);
        if (chosen == nullptr && (!program || programs[k].number == *program)) chosen = &programs[k];
    }
    if (chosen == nullptr)
        throw ExitError(kExitUsage, input + " has no program " + std::to_string(*program) + " (its programs: " + numbers + ")");
    if (notes != nullptr && programs.size() > 1)
        notes->push_back(input + ": program " + std::to_string(chosen->number) + " of programs " + numbers +
                         (program ? "" : " (--program picks another)"));
    TsContents out;
    for (std::size_t k = 0; k < m_found.size(); ++k) {
        const TsDemux::Stream& stream = m_found[k].stream;
        const int sourceIndex = static_cast<int>(k);
        if (m_found[k].program != chosen->number) {
            out.ignored.push_back(stream.pid);
            continue;
        }
        const Type type = typeOf(stream.streamType, stream.descriptors);
        const auto seen = m_seen.find(stream.pid);
        const Seen look = seen != m_seen.end() ? seen->second : Seen{};
        const std::string codec = look.codec.empty() ? type.codec : look.codec;
        const std::string where = input + " stream " + std::to_string(sourceIndex) + ": ";
        const std::string media = type.media;
        if (type.packager == kNone || codec == "mp1") {
            if (media != "data") skipped.push_back(where + media + " codec '" + codec + "' is not supported");
            out.ignored.push_back(stream.pid);
            continue;
        }
        if (type.packager != kScte35 && !tvrn::encoding::filter::packagesStreamType(type.packager)) {
            skipped.push_back(where + "codec '" + codec + "' is not supported by this packager");
            out.ignored.push_back(stream.pid);
            continue;
        }
        KeptStream kept;
        kept.id = stream.pid;
        kept.sourceIndex = sourceIndex;
        kept.video = media == "video";
        kept.hevc = type.packager == kHevc;
        kept.adts = type.packager == kAdts;
        kept.scte35 = type.packager == kScte35;
        StreamInfo& info = kept.info;
        info.input = inputIndex;
        info.sourceIndex = sourceIndex;
        info.streamType = type.packager;
        info.codec = codec;
        info.kind = kept.scte35 ? "scte35" : media;
        const Body language = descriptor(stream.descriptors, 0x0A);
        if (language.size >= 3) info.language.assign(reinterpret_cast<const char*>(language.data), 3);
        info.width = look.width;
        info.height = look.height;
        info.sampleRate = look.sampleRate;
        info.channels = look.channels;
        kept.framing = framingOf(codec, kept.adts);
        out.kept.push_back(std::move(kept));
    }
    return out;
}

std::optional<TsContents> probeTsFile(MappedFile& file, int inputIndex, std::vector<std::string>& skipped,
                                      std::optional<int> program, std::vector<std::string>* notes) {
    TsProbe probe;
    for (MappedFile::Bytes bytes = file.next(1u << 20); bytes.size > 0 && probe.push(bytes.data, bytes.size);
         bytes = file.next(1u << 20)) {
    }
    probe.finish();
    return probe.contents(inputIndex, skipped, program, notes);
}

}  // namespace fmp4mux
