#include "apps/fmp4mux/inputs/libav_input.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <cstring>
#include <stdexcept>

#include "apps/fmp4mux/exit_error.h"
#include "apps/fmp4mux/inputs/subtitle_cues.h"
#include "filter/mux_fmp4_filter/pins.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/dict.h>
#include <libavutil/log.h>
}

namespace fmp4mux {

namespace {
constexpr std::uint32_t kMpeg1Audio = 1, kH264 = 2, kDolby = 3, kAdts = 4, kLatm = 5, kRawAac = 10, kScte35 = 12,
                        kHevc = 17, kWebVtt = 20;
constexpr AVRational kHundredNs{1, 10000000};

std::string avError(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

std::uint8_t* putBe32(std::uint8_t* out, std::uint32_t v) {
    out[0] = static_cast<std::uint8_t>(v >> 24);
    out[1] = static_cast<std::uint8_t>(v >> 16);
    out[2] = static_cast<std::uint8_t>(v >> 8);
    out[3] = static_cast<std::uint8_t>(v);
    return out + 4;
}

}  // namespace

void setLibavVerbosity(int verbosity) { av_log_set_level(verbosity >= 3 ? AV_LOG_VERBOSE : AV_LOG_FATAL); }

std::vector<std::uint8_t> makeRawAacPacket(const std::vector<std::uint8_t>& asc, std::uint32_t averageBitrate,
                                           const std::uint8_t* frame, std::size_t frameSize) {
    const std::size_t total = 20 + asc.size() + frameSize;
    std::vector<std::uint8_t> out(total);
    std::uint8_t* p = out.data();
    p = putBe32(p, 0xFFFAFAFAu);
    p = putBe32(p, static_cast<std::uint32_t>(total));
    p = putBe32(p, averageBitrate);
    p = putBe32(p, static_cast<std::uint32_t>(asc.size() * 8));
    p = std::copy(asc.begin(), asc.end(), p);
    p = putBe32(p, static_cast<std::uint32_t>(frameSize));
    if (frameSize > 0) std::memcpy(p, frame, frameSize);
    return out;
}

struct LibavInput::Impl {
    AVFormatContext* format = nullptr;
    const std::atomic<bool>* interrupt = nullptr;
    const std::atomic<bool>* stop = nullptr;
    static int interrupted(void* self) {
        const auto* impl = static_cast<const Impl*>(self);
        return (impl->interrupt && impl->interrupt->load()) || (impl->stop && impl->stop->load()) ? 1 : 0;
    }
    // Per kept stream: its source index, an optional bitstream filter to Annex B, and how AAC is carried.
    struct Kept {
        int sourceIndex = -1;
        AVBSFContext* toAnnexB = nullptr;
        bool rawAac = false;
        bool video = false, hevc = false;
        bool adts = false;
        bool scte35 = false;
        bool webVtt = false, subRip = false;  // subtitles, delivered as WebVTT cues
        std::optional<std::int64_t> covered;  // where the subtitle items delivered end, 100 ns
        bool dtsSeen = false;                 // video: a decoding time has been given
        std::vector<AVPacket*> waitingForDts;
        std::vector<std::uint8_t> asc;
        std::uint32_t bitrate = 0;
        AVRational timeBase{1, 1};
    };
    std::vector<Kept> kept;
    std::vector<int> sourceToKept;
    std::deque<AVPacket*> readAhead;  // read to measure the input, handed out again first

    // The next packet: one read ahead, or a new one.
    int next(AVPacket* packet) {
        if (readAhead.empty()) return av_read_frame(format, packet);
        av_packet_move_ref(packet, readAhead.front());
        av_packet_free(&readAhead.front());
        readAhead.pop_front();
        return 0;
    }

    ~Impl() {
        for (auto* p : readAhead) av_packet_free(&p);
        for (auto& k : kept) av_bsf_free(&k.toAnnexB);
        if (format) avformat_close_input(&format);
    }
};

LibavInput::LibavInput(const std::string& url, int inputIndex, std::vector<std::string>& skipped,
                       const std::atomic<bool>* interrupt, std::optional<int> program, std::vector<std::string>* notes)
    : m_impl(std::make_unique<Impl>()) {
    m_impl->interrupt = interrupt;
    m_impl->format = avformat_alloc_context();
    if (m_impl->format == nullptr) throw std::runtime_error("out of memory opening '" + url + "'");
    m_impl->format->interrupt_callback.callback = &Impl::interrupted;
    m_impl->format->interrupt_callback.opaque = m_impl.get();
    const std::string source = url == "-" ? "pipe:0" : url;
    m_live = source.rfind("udp://", 0) == 0 || source.rfind("srt://", 0) == 0 || source.rfind("rtp://", 0) == 0 ||
             source == "pipe:0";
    m_canWait = !m_live || source == "pipe:0";
    AVDictionary* options = nullptr;
    if (m_live) av_dict_set(&options, "fifo_size", "1000000", 0);
    const int opened = avformat_open_input(&m_impl->format, source.c_str(), nullptr, &options);
    av_dict_free(&options);
    if (opened < 0) throw std::runtime_error("cannot open input '" + url + "': " + avError(opened));
    const int found = avformat_find_stream_info(m_impl->format, nullptr);
    if (found < 0) throw std::runtime_error("cannot read the streams of '" + url + "': " + avError(found));

    AVFormatContext* fmt = m_impl->format;
    // The packager finds access units itself (start codes, ADTS and LOAS syncs, timestamps), so the container's
    // payloads go to it as they are: no codec parser splits or joins them on the way, which halves the cost of
    // reading an MPEG-TS. The stream list above was read with the parsers on.
    if (std::string(fmt->iformat->name) == "mpegts") fmt->flags |= AVFMT_FLAG_NOPARSE | AVFMT_FLAG_NOFILLIN;
    m_impl->sourceToKept.assign(fmt->nb_streams, -1);
    // One program of several: its streams only.
    std::vector<bool> inProgram(fmt->nb_streams, true);
    if (fmt->nb_programs > 1 || (program && fmt->nb_programs > 0)) {
        const AVProgram* chosen = nullptr;
        std::string numbers;
        for (unsigned p = 0; p < fmt->nb_programs; ++p) {
            numbers += (p ? ", " : "") + std::to_string(fmt->programs[p]->id);
            if (chosen == nullptr && (!program || fmt->programs[p]->id == *program)) chosen = fmt->programs[p];
        }
        if (chosen == nullptr)
            throw ExitError(kExitUsage, "input " + std::to_string(inputIndex) + " has no program " +
                                            std::to_string(*program) + " (its programs: " + numbers + ")");
        inProgram.assign(fmt->nb_streams, false);
        for (unsigned k = 0; k < chosen->nb_stream_indexes; ++k)
            if (chosen->stream_index[k] < fmt->nb_streams) inProgram[chosen->stream_index[k]] = true;
        if (notes != nullptr && fmt->nb_programs > 1)
            notes->push_back("input " + std::to_string(inputIndex) + ": program " + std::to_string(chosen->id) +
                             " of programs " + numbers + (program ? "" : " (--program picks another)"));
    } else if (program && fmt->nb_programs == 0 && *program != 1) {
        throw ExitError(kExitUsage, "input " + std::to_string(inputIndex) + " has no program " + std::to_string(*program));
    }
    for (unsigned i = 0; i < fmt->nb_streams; ++i) {
        if (!inProgram[i]) {
            fmt->streams[i]->discard = AVDISCARD_ALL;
            continue;
        }
        const AVStream* stream = fmt->streams[i];
        const AVCodecParameters* par = stream->codecpar;
        StreamInfo info;
        info.input = inputIndex;
        info.sourceIndex = static_cast<int>(i);
        info.codec = avcodec_get_name(par->codec_id);
        info.bitrate = par->bit_rate;
        if (const AVDictionaryEntry* lang = av_dict_get(stream->metadata, "language", nullptr, 0)) info.language = lang->value;
        info.width = par->width;
        info.height = par->height;
        info.sampleRate = par->sample_rate;
        info.channels = par->ch_layout.nb_channels;
        Impl::Kept kept;
        kept.sourceIndex = static_cast<int>(i);
        kept.bitrate = static_cast<std::uint32_t>(par->bit_rate);
        kept.timeBase = stream->time_base;
        kept.video = par->codec_id == AV_CODEC_ID_H264 || par->codec_id == AV_CODEC_ID_HEVC;
        kept.hevc = par->codec_id == AV_CODEC_ID_HEVC;
        const char* annexB = nullptr;
        switch (par->codec_id) {
            case AV_CODEC_ID_H264:
                info.streamType = kH264;
                info.kind = "video";
                if (par->extradata_size > 0 && par->extradata[0] == 1) annexB = "h264_mp4toannexb";
                break;
            case AV_CODEC_ID_HEVC:
                info.streamType = kHevc;
                info.kind = "video";
                if (par->extradata_size > 0 && par->extradata[0] == 1) annexB = "hevc_mp4toannexb";
                break;
            // AC-3, E-AC-3 and MPEG-1 audio travel as whole sync frames in MPEG-TS and MP4 alike; the packager
            // finds the frames itself. MP3 is MPEG-1 Layer III, which the packager takes under its Layer III option.
            case AV_CODEC_ID_AC3:
            case AV_CODEC_ID_EAC3:
                info.streamType = kDolby;
                info.kind = "audio";
                break;
            case AV_CODEC_ID_MP2:
            case AV_CODEC_ID_MP3:
                info.streamType = kMpeg1Audio;
                info.kind = "audio";
                break;
            case AV_CODEC_ID_AAC_LATM:
                info.streamType = kLatm;
                info.kind = "audio";
                break;
            case AV_CODEC_ID_AAC:
                info.kind = "audio";
                // An AudioSpecificConfig in the stream header means raw frames (as in MP4); without one the frames
                // carry ADTS headers (as in MPEG-TS).
                if (par->extradata_size >= 2) {
                    info.streamType = kRawAac;
                    kept.rawAac = true;
                    kept.asc.assign(par->extradata, par->extradata + par->extradata_size);
                } else {
                    info.streamType = kAdts;
                    kept.adts = true;
                }
                break;
            // SCTE-35 splice information (stream type 0x86): one section a packet.
            case AV_CODEC_ID_SCTE_35:
                info.streamType = kScte35;
                info.kind = "scte35";
                kept.scte35 = true;
                break;
            // Subtitles in the container (WebVTT, SubRip in Matroska or MP4) go out as a WebVTT stream.
            case AV_CODEC_ID_WEBVTT:
            case AV_CODEC_ID_SUBRIP:
                info.streamType = kWebVtt;
                info.kind = "text";
                info.bitrate = 1000;
                kept.webVtt = par->codec_id == AV_CODEC_ID_WEBVTT;
                kept.subRip = !kept.webVtt;
                break;
            default: {
                const char* type = av_get_media_type_string(par->codec_type);
                if (par->codec_type == AVMEDIA_TYPE_VIDEO || par->codec_type == AVMEDIA_TYPE_AUDIO ||
                    par->codec_type == AVMEDIA_TYPE_SUBTITLE)
                    skipped.push_back("input " + std::to_string(inputIndex) + " stream " + std::to_string(i) + ": " +
                                      (type ? type : "data") + " codec '" + info.codec + "' is not supported");
                continue;
            }
        }
        if (annexB != nullptr) {
            const AVBitStreamFilter* filter = av_bsf_get_by_name(annexB);
            if (filter == nullptr || av_bsf_alloc(filter, &kept.toAnnexB) < 0)
                throw std::runtime_error(std::string("cannot create the ") + annexB + " filter");
            avcodec_parameters_copy(kept.toAnnexB->par_in, par);
            kept.toAnnexB->time_base_in = stream->time_base;
            if (av_bsf_init(kept.toAnnexB) < 0) throw std::runtime_error(std::string("cannot start the ") + annexB + " filter");
        }
        // A stream type that the packager cannot analyse yet would hold the session: leave it out. SCTE-35 is read
        // whatever the engine takes, since fmp4mux makes its events itself.
        if (!kept.scte35 && !tvrn::encoding::filter::packagesStreamType(info.streamType)) {
            skipped.push_back("input " + std::to_string(inputIndex) + " stream " + std::to_string(i) + ": codec '" +
                              info.codec + "' is not supported by this packager");
            continue;
        }
        if (info.bitrate <= 0 && par->codec_type == AVMEDIA_TYPE_VIDEO && fmt->bit_rate > 0) {
            // The container's rate less what its other streams declare: a fair first estimate of the video's.
            std::int64_t others = 0;
            for (unsigned j = 0; j < fmt->nb_streams; ++j)
                if (j != i) others += std::max<std::int64_t>(fmt->streams[j]->codecpar->bit_rate, 0);
            if (fmt->bit_rate > others) info.bitrate = fmt->bit_rate - others;
        }
        m_impl->sourceToKept[i] = static_cast<int>(m_impl->kept.size());
        m_impl->kept.push_back(kept);
        m_streams.push_back(info);
    }
}

LibavInput::~LibavInput() = default;

void LibavInput::drop(std::size_t index) {
    const int source = m_streams.at(index).sourceIndex;
    m_impl->sourceToKept[static_cast<std::size_t>(source)] = -1;
    m_impl->format->streams[source]->discard = AVDISCARD_ALL;
}

namespace {
// Whether an Annex B access unit is a random access picture: its first slice is an IDR slice of H.264, an IRAP
// picture of HEVC. Only the NAL units ahead of the first slice are looked at (delimiter, parameter sets, SEI),
// so the cost does not grow with the picture. MPEG-TS is read without libavformat's parsers, so its packets carry
// no reliable key-frame flag of their own.
bool annexBRandomAccess(const std::uint8_t* data, std::size_t size, bool hevc) {
    for (std::size_t i = 0; i + 3 < size; ++i) {
        if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) continue;
        const std::uint8_t header = data[i + 3];
        if (hevc) {
            const int type = (header >> 1) & 0x3F;
            if (type < 32) return type >= 16 && type <= 21;  // the first VCL unit decides
        } else {
            const int type = header & 0x1F;
            if (type >= 1 && type <= 5) return type == 5;
        }
        i += 2;
    }
    return false;
}

// Whether a PES of ADTS frames holds whole frames from its first byte to its last. The demuxer flags a PES as
// damaged when the transport packet after it broke the continuity count, which a splice of two recordings does
// too; a PES whose frame lengths add up exactly to its size lost nothing.
bool wholeAdtsFrames(const std::uint8_t* data, std::size_t size) {
    std::size_t at = 0;
    while (at + 7 <= size) {
        if (data[at] != 0xFF || (data[at + 1] & 0xF6) != 0xF0) return false;
        const std::size_t length = ((data[at + 3] & 0x03u) << 11) | (static_cast<std::size_t>(data[at + 4]) << 3) |
                                   (data[at + 5] >> 5);
        if (length < 7) return false;
        at += length;
    }
    return at == size && size > 0;
}
}  // namespace

std::optional<double> LibavInput::keyFrameInterval(double maxSeconds) {
    AVFormatContext* fmt = m_impl->format;
    int video = -1;
    for (const auto& k : m_impl->kept)
        if (fmt->streams[k.sourceIndex]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
            video = k.sourceIndex;
            break;
        }
    if (video < 0) return std::nullopt;
    const AVRational timeBase = fmt->streams[video]->time_base;
    std::vector<double> keys;  // seconds
    std::optional<double> first;
    std::size_t bytes = 0;
    // Per kept stream, what the read-ahead holds of it: bytes, and the first and last decoding times in seconds.
    struct Seen {
        std::size_t bytes = 0;
        std::optional<double> first, last;
    };
    std::vector<Seen> seen(m_impl->kept.size());
    // Four key frames give three intervals; the read-ahead is bounded in time and in memory.
    while (keys.size() < 4 && bytes < (64u << 20)) {
        AVPacket* packet = av_packet_alloc();
        if (av_read_frame(fmt, packet) < 0) {
            av_packet_free(&packet);
            break;
        }
        bytes += static_cast<std::size_t>(packet->size);
        m_impl->readAhead.push_back(packet);
        const int keptIndex = packet->stream_index >= 0 && static_cast<std::size_t>(packet->stream_index) < m_impl->sourceToKept.size()
                                  ? m_impl->sourceToKept[static_cast<std::size_t>(packet->stream_index)]
                                  : -1;
        const std::int64_t when = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
        if (keptIndex >= 0 && when != AV_NOPTS_VALUE) {
            Seen& s = seen[static_cast<std::size_t>(keptIndex)];
            const double at = static_cast<double>(when) * av_q2d(fmt->streams[packet->stream_index]->time_base);
            s.bytes += static_cast<std::size_t>(packet->size);
            if (!s.first) s.first = at;
            s.last = at;
        }
        if (packet->stream_index != video) continue;
        const std::int64_t t = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
        if (t == AV_NOPTS_VALUE) continue;
        const double seconds = static_cast<double>(t) * av_q2d(timeBase);
        if (!first) first = seconds;
        if (seconds - *first > maxSeconds) break;
        const bool hevc = fmt->streams[video]->codecpar->codec_id == AV_CODEC_ID_HEVC;
        if ((packet->flags & AV_PKT_FLAG_KEY) != 0 ||
            annexBRandomAccess(packet->data, static_cast<std::size_t>(packet->size), hevc)) {
            keys.push_back(seconds);
            if (!m_firstKey && packet->pts != AV_NOPTS_VALUE) m_firstKey = av_rescale_q(packet->pts, timeBase, kHundredNs);
        }
    }
    // A stream whose rate neither it nor its container tells (a live or piped input) is measured on what was
    // read, so that manifests announce a real rate and renditions rank as their media do.
    for (std::size_t k = 0; k < seen.size(); ++k) {
        const Seen& s = seen[k];
        if (m_streams[k].bitrate > 0 || !s.first || *s.last - *s.first < 0.5) continue;
        m_streams[k].bitrate = std::llround(static_cast<double>(s.bytes) * 8 / (*s.last - *s.first));
    }
    if (keys.size() < 2) return std::nullopt;
    std::vector<double> intervals;
    for (std::size_t i = 1; i < keys.size(); ++i) intervals.push_back(keys[i] - keys[i - 1]);
    std::sort(intervals.begin(), intervals.end());
    const double interval = intervals[intervals.size() / 2];
    if (interval <= 0) return std::nullopt;
    return interval;
}

namespace {
// One SCTE-35 section as the packager takes it: the 8-byte big-endian clock value of the section (33-bit, 90 kHz),
// then the section. A section has no PES header, hence no time stamp of its own: libavformat times it on the
// program's clock where it can, and that time is taken. Otherwise the time of the latest video packet of the
// program stands in: the section arrived with it, and splice times count on that same clock.
// A subtitle packet as the same cue block a subtitle file holds, cut by the same rules (times, UTF-8, tags), then
// delivered after empty items that fill the gap since the last cue (since `from`, the media's first key frame,
// before the first), at most `maxGap` each: the packager lays a chunk's text samples end to end from the chunk's
// start, so a gap left open would move the cues after it. A cue that begins before the last one ends is shown
// for the rest of its time.
void emitCueItems(const AVPacket* p, AVRational timeBase, bool webVtt, std::int64_t maxGap, std::int64_t from,
                  std::optional<std::int64_t>& covered,
                  std::size_t keptIndex, const std::function<void(Packet&)>& onPacket,
                  const std::function<void(const std::string&)>& warn) {
    if (p->pts == AV_NOPTS_VALUE || p->duration <= 0) return;
    const std::int64_t start = av_rescale_q(p->pts, timeBase, kHundredNs);
    const std::int64_t end = start + av_rescale_q(p->duration, timeBase, kHundredNs);
    const auto stamp = [](std::int64_t t, char comma) {
        const std::int64_t ms = std::max<std::int64_t>(t, 0) / 10000;
        char text[48];
        std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld%c%03lld", static_cast<long long>(ms / 3600000),
                      static_cast<long long>(ms / 60000 % 60), static_cast<long long>(ms / 1000 % 60), comma,
                      static_cast<long long>(ms % 1000));
        return std::string(text);
    };
    std::string settings;
    std::size_t size = 0;
    if (const std::uint8_t* data = av_packet_get_side_data(p, AV_PKT_DATA_WEBVTT_SETTINGS, &size))
        settings.assign(reinterpret_cast<const char*>(data), size);
    std::string text(reinterpret_cast<const char*>(p->data), static_cast<std::size_t>(p->size));
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == '\0')) text.pop_back();
    // Times from 0 in the block: a negative stream time would not parse; the real times are put back below.
    const std::string block = webVtt ? "WEBVTT\n\n" + stamp(0, '.') + " --> " + stamp(end - start, '.') +
                                           (settings.empty() ? "" : " " + settings) + "\n" + text + "\n"
                                     : "1\n" + stamp(0, ',') + " --> " + stamp(end - start, ',') + "\n" + text + "\n";
    const std::string name = "stream " + std::to_string(keptIndex) + " at " + stamp(start, '.');
    CueFile cut = webVtt ? cutWebVtt(block, name) : cutSrt(block, name);
    for (const auto& w : cut.warnings)
        if (warn) warn(w);
    if (cut.cues.empty()) return;
    TextCue cue = cut.cues.front();
    cue.start = covered ? std::max(start, *covered) : start;
    cue.end = end;
    if (cue.end <= cue.start) return;
    for (const TextCue& item : withGaps({cue}, covered.value_or(std::min(from, cue.start)), maxGap)) {
        Packet out;
        out.stream = keptIndex;
        out.key = true;
        out.pts = out.dts = item.start;
        out.duration = item.end - item.start;
        out.owned.assign(item.item.begin(), item.item.end());
        out.data = out.owned.data();
        out.size = out.owned.size();
        onPacket(out);
        covered = item.end;
    }
}

void emitSection(const AVPacket* p, AVRational timeBase, std::optional<std::int64_t> lastVideoPts,
                 const std::function<void(Packet&)>& onPacket, std::size_t keptIndex) {
    std::optional<std::int64_t> clock;
    if (p->pts != AV_NOPTS_VALUE) clock = av_rescale_q(p->pts, timeBase, AVRational{1, 90000});
    else if (p->dts != AV_NOPTS_VALUE) clock = av_rescale_q(p->dts, timeBase, AVRational{1, 90000});
    else clock = lastVideoPts;
    if (!clock || p->size <= 0) return;  // before any video: nothing to time it by
    Packet out;
    out.stream = keptIndex;
    out.key = true;
    out.pts = av_rescale_q(*clock, AVRational{1, 90000}, kHundredNs);
    out.dts = out.pts;
    out.owned.resize(8 + static_cast<std::size_t>(p->size));
    const auto value = static_cast<std::uint64_t>(*clock) & ((std::uint64_t{1} << 33) - 1);
    for (int i = 0; i < 8; ++i) out.owned[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> (56 - 8 * i));
    std::memcpy(out.owned.data() + 8, p->data, static_cast<std::size_t>(p->size));
    out.data = out.owned.data();
    out.size = out.owned.size();
    onPacket(out);
}
}  // namespace

bool LibavInput::run(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop) {
    m_impl->stop = &stop;
    AVPacket* packet = av_packet_alloc();
    bool ok = true;
    const AVRational kClock90k{1, 90000};
    std::optional<std::int64_t> lastVideoPts;  // of the latest video packet, 90 kHz

    auto emit = [&](AVPacket* p, std::size_t keptIndex) {
        Impl::Kept& kept = m_impl->kept[keptIndex];
        if (kept.video && p->pts != AV_NOPTS_VALUE) lastVideoPts = av_rescale_q(p->pts, kept.timeBase, kClock90k);
        if (kept.scte35) return emitSection(p, kept.timeBase, lastVideoPts, onPacket, keptIndex);
        if (kept.webVtt || kept.subRip)
            return emitCueItems(p, kept.timeBase, kept.webVtt, m_maxTextGap, m_firstKey.value_or(0), kept.covered,
                                keptIndex, onPacket, m_warn);
        Packet out;
        out.stream = keptIndex;
        out.damaged = (p->flags & AV_PKT_FLAG_CORRUPT) != 0 &&
                      !(kept.adts && wholeAdtsFrames(p->data, static_cast<std::size_t>(p->size)));
        if (kept.video)
            out.key = annexBRandomAccess(p->data, static_cast<std::size_t>(p->size), kept.hevc);
        else
            out.key = (p->flags & AV_PKT_FLAG_KEY) != 0;
        if (p->pts != AV_NOPTS_VALUE) out.pts = av_rescale_q(p->pts, kept.timeBase, kHundredNs);
        if (p->dts != AV_NOPTS_VALUE) out.dts = av_rescale_q(p->dts, kept.timeBase, kHundredNs);
        if (p->duration > 0) out.duration = av_rescale_q(p->duration, kept.timeBase, kHundredNs);
        if (kept.rawAac) {
            out.owned = makeRawAacPacket(kept.asc, kept.bitrate, p->data, static_cast<std::size_t>(p->size));
            out.data = out.owned.data();
            out.size = out.owned.size();
        } else {
            out.data = p->data;
            out.size = static_cast<std::size_t>(p->size);
        }
        onPacket(out);
    };

    while (!stop.load()) {
        const int read = m_impl->next(packet);
        if (read == AVERROR_EOF || read == AVERROR_EXIT) break;
        if (read < 0) {
            if (read == AVERROR(EAGAIN)) continue;
            m_error = avError(read);
            ok = false;
            break;
        }
        const int keptIndex = packet->stream_index < static_cast<int>(m_impl->sourceToKept.size())
                                  ? m_impl->sourceToKept[static_cast<std::size_t>(packet->stream_index)]
                                  : -1;
        if (keptIndex < 0) {
            av_packet_unref(packet);
            continue;
        }
        Impl::Kept& kept = m_impl->kept[static_cast<std::size_t>(keptIndex)];
        const auto forward = [&](AVPacket* p) {
            if (kept.toAnnexB == nullptr) {
                emit(p, static_cast<std::size_t>(keptIndex));
            } else if (av_bsf_send_packet(kept.toAnnexB, p) == 0) {
                while (av_bsf_receive_packet(kept.toAnnexB, p) == 0) {
                    emit(p, static_cast<std::size_t>(keptIndex));
                    av_packet_unref(p);
                }
            }
            av_packet_unref(p);
        };
        // Matroska gives the first reordered pictures of a stream no decoding time, and the packager would take
        // the jump back to the first decoding time it is given as pictures out of order. They wait for that
        // time, and get the times one frame apart before it.
        if (kept.video && !kept.dtsSeen) {
            if (packet->dts == AV_NOPTS_VALUE && packet->pts != AV_NOPTS_VALUE && kept.waitingForDts.size() < 32) {
                kept.waitingForDts.push_back(av_packet_clone(packet));
                av_packet_unref(packet);
                continue;
            }
            kept.dtsSeen = true;
            const std::int64_t step = packet->duration > 0 ? packet->duration : 0;
            for (std::size_t k = 0; k < kept.waitingForDts.size(); ++k) {
                AVPacket* held = kept.waitingForDts[k];
                if (packet->dts != AV_NOPTS_VALUE && step > 0)
                    held->dts = packet->dts - static_cast<std::int64_t>(kept.waitingForDts.size() - k) * step;
                forward(held);
                av_packet_free(&held);
            }
            kept.waitingForDts.clear();
        }
        forward(packet);
    }
    for (auto& k : m_impl->kept)
        for (AVPacket*& held : k.waitingForDts) av_packet_free(&held);
    av_packet_free(&packet);
    m_impl->stop = nullptr;
    return ok;
}

}  // namespace fmp4mux
