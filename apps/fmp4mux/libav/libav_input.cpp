#include "apps/fmp4mux/libav/libav_input.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <cstring>
#include <stdexcept>

#include "apps/fmp4mux/exit_error.h"
#include "apps/fmp4mux/libav/libav_streams.h"
#include "apps/fmp4mux/inputs/mapped_file.h"
#include "apps/fmp4mux/inputs/subtitle_cues.h"
#include "apps/fmp4mux/inputs/ts_input.h"

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
constexpr AVRational kHundredNs{1, 10000000};

std::string avError(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

}  // namespace

namespace {
// The bytes the probe recorded, then the rest of the input: a local file mapped from where they end, anything
// else read through the I/O the probe opened.
class ProbedTsSource : public TsSource {
public:
    explicit ProbedTsSource(std::unique_ptr<ProbedInput> probe) : m_probe(std::move(probe)) {
        m_recorded = m_probe->takeRecording();
        if (!m_probe->live())
            if (auto file = MappedFile::open(m_probe->url(), m_recorded.size()))
                m_mapped = std::make_unique<MappedTsSource>(std::move(file));
        if (!m_mapped) m_block.resize(kBlock);
    }
    Status next(const std::uint8_t*& data, std::size_t& size, std::string& error) override {
        if (m_recordedFed < m_recorded.size()) {
            data = m_recorded.data() + m_recordedFed;
            size = std::min(kBlock, m_recorded.size() - m_recordedFed);
            m_recordedFed += size;
            return Status::Data;
        }
        if (!m_recorded.empty()) std::vector<std::uint8_t>().swap(m_recorded);  // all handed, and read by now
        if (m_mapped) return m_mapped->next(data, size, error);
        AVIOContext* source = m_probe->source();
        // A live source hands on what has come; a file fills the block.
        const int got = m_probe->live() ? avio_read_partial(source, m_block.data(), static_cast<int>(m_block.size()))
                                        : avio_read(source, m_block.data(), static_cast<int>(m_block.size()));
        if (got == AVERROR_EOF || got == AVERROR_EXIT || (got == 0 && avio_feof(source))) return Status::End;
        if (got == AVERROR(EAGAIN) || got == 0) return Status::Again;
        if (got < 0) {
            error = avError(got);
            return Status::Failed;
        }
        data = m_block.data();
        size = static_cast<std::size_t>(got);
        return Status::Data;
    }
    bool live() const override { return m_probe->live(); }
    bool canWait() const override { return m_probe->canWait(); }
    void setStop(const std::atomic<bool>* stop) override { m_probe->flags().stop = stop; }
    std::string receiverReport() const override { return m_probe->receiverReport(); }

private:
    static constexpr std::size_t kBlock = 188 * 1024;
    std::unique_ptr<ProbedInput> m_probe;
    std::vector<std::uint8_t> m_recorded;
    std::size_t m_recordedFed = 0;
    std::unique_ptr<MappedTsSource> m_mapped;
    std::vector<std::uint8_t> m_block;
};
}  // namespace

std::unique_ptr<Input> openProbedTs(std::unique_ptr<ProbedInput> probe, int inputIndex, std::vector<std::string>& skipped,
                                    std::optional<int> program, std::vector<std::string>* notes) {
    AVFormatContext* fmt = probe->format();
    TsContents contents;
    std::vector<bool> kept(fmt->nb_streams, false);
    for (KeptStream& stream : keptStreams(fmt, inputIndex, skipped, program, notes)) {
        // MPEG-TS carries none of these; a stream that did would need libavformat's conversions.
        if (stream.toAnnexB != nullptr || stream.webVtt || stream.subRip || stream.id < 0 || stream.id > 0x1FFF) {
            skipped.push_back("input " + std::to_string(inputIndex) + " stream " + std::to_string(stream.sourceIndex) +
                              ": codec '" + stream.info.codec + "' is read with --demuxer libavformat only");
            continue;
        }
        kept[static_cast<std::size_t>(stream.sourceIndex)] = true;
        contents.kept.push_back(std::move(stream));
    }
    for (unsigned i = 0; i < fmt->nb_streams; ++i) {
        const int pid = fmt->streams[i]->id;
        if (!kept[i] && pid >= 0 && pid <= 0x1FFF) contents.ignored.push_back(static_cast<std::uint16_t>(pid));
    }
    return std::make_unique<TsInput>(std::make_unique<ProbedTsSource>(std::move(probe)), std::move(contents));
}


struct LibavInput::Impl {
    AVFormatContext* format = nullptr;
    std::unique_ptr<ProbedInput> probe;  // the I/O libavformat reads through, when the input was probed first
    InterruptFlags ownFlags;
    InterruptFlags* flags = &ownFlags;
    // Per kept stream: what it is, its bitstream filter to Annex B, and what reading it keeps.
    struct Kept {
        KeptStream stream;
        AVBSFContext* toAnnexB = nullptr;
        AVRational timeBase{1, 1};
        std::optional<std::int64_t> covered;  // where the subtitle items delivered end, 100 ns
        bool dtsSeen = false;                 // video: a decoding time has been given
        std::vector<AVPacket*> waitingForDts;
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
        if (format && !probe) avformat_close_input(&format);
    }
};

LibavInput::LibavInput(const std::string& url, int inputIndex, std::vector<std::string>& skipped,
                       const std::atomic<bool>* interrupt, std::optional<int> program, std::vector<std::string>* notes)
    : m_impl(std::make_unique<Impl>()) {
    m_impl->ownFlags.interrupt = interrupt;
    m_impl->format = avformat_alloc_context();
    if (m_impl->format == nullptr) throw std::runtime_error("out of memory opening '" + url + "'");
    m_impl->format->interrupt_callback.callback = &InterruptFlags::check;
    m_impl->format->interrupt_callback.opaque = &m_impl->ownFlags;
    const std::string source = url == "-" ? "pipe:0" : url;
    m_live = liveSource(source);
    m_canWait = !m_live || source == "pipe:0";
    AVDictionary* options = nullptr;
    if (m_live) addLiveOptions(options);
    const int opened = avformat_open_input(&m_impl->format, source.c_str(), nullptr, &options);
    av_dict_free(&options);
    if (opened < 0) throw std::runtime_error("cannot open input '" + url + "': " + avError(opened));
    const int found = avformat_find_stream_info(m_impl->format, nullptr);
    if (found < 0) throw std::runtime_error("cannot read the streams of '" + url + "': " + avError(found));
    setUp(inputIndex, skipped, program, notes);
}

LibavInput::LibavInput(std::unique_ptr<ProbedInput> probe, int inputIndex, std::vector<std::string>& skipped,
                       std::optional<int> program, std::vector<std::string>* notes)
    : m_impl(std::make_unique<Impl>()) {
    probe->stopRecording();
    m_live = probe->live();
    m_canWait = probe->canWait();
    m_impl->format = probe->format();
    m_impl->flags = &probe->flags();
    m_impl->probe = std::move(probe);
    setUp(inputIndex, skipped, program, notes);
}

void LibavInput::setUp(int inputIndex, std::vector<std::string>& skipped, std::optional<int> program,
                       std::vector<std::string>* notes) {
    AVFormatContext* fmt = m_impl->format;
    // The packager finds access units itself (start codes, ADTS and LOAS syncs, timestamps), so the container's
    // payloads go to it as they are: no codec parser splits or joins them on the way, which halves the cost of
    // reading an MPEG-TS. The stream list above was read with the parsers on.
    if (std::string(fmt->iformat->name) == "mpegts") fmt->flags |= AVFMT_FLAG_NOPARSE | AVFMT_FLAG_NOFILLIN;
    m_impl->sourceToKept.assign(fmt->nb_streams, -1);
    for (KeptStream& stream : keptStreams(fmt, inputIndex, skipped, program, notes)) {
        Impl::Kept kept;
        const AVStream* source = fmt->streams[stream.sourceIndex];
        kept.timeBase = source->time_base;
        if (stream.toAnnexB != nullptr) {
            const AVBitStreamFilter* filter = av_bsf_get_by_name(stream.toAnnexB);
            if (filter == nullptr || av_bsf_alloc(filter, &kept.toAnnexB) < 0)
                throw std::runtime_error(std::string("cannot create the ") + stream.toAnnexB + " filter");
            avcodec_parameters_copy(kept.toAnnexB->par_in, source->codecpar);
            kept.toAnnexB->time_base_in = source->time_base;
            if (av_bsf_init(kept.toAnnexB) < 0)
                throw std::runtime_error(std::string("cannot start the ") + stream.toAnnexB + " filter");
        }
        m_streams.push_back(stream.info);
        m_impl->sourceToKept[static_cast<std::size_t>(stream.sourceIndex)] = static_cast<int>(m_impl->kept.size());
        kept.stream = std::move(stream);
        m_impl->kept.push_back(std::move(kept));
    }
}

LibavInput::~LibavInput() = default;

void LibavInput::drop(std::size_t index) {
    const int source = m_streams.at(index).sourceIndex;
    m_impl->sourceToKept[static_cast<std::size_t>(source)] = -1;
    m_impl->format->streams[source]->discard = AVDISCARD_ALL;
}

std::optional<double> LibavInput::keyFrameInterval(double maxSeconds) {
    AVFormatContext* fmt = m_impl->format;
    std::optional<std::size_t> video;
    for (std::size_t k = 0; k < m_impl->kept.size() && !video; ++k)
        if (m_impl->kept[k].stream.video) video = k;
    // Without video, only rates to measure make reading ahead worth it.
    if (!video && std::all_of(m_streams.begin(), m_streams.end(), [](const StreamInfo& s) { return s.bitrate > 0; }))
        return std::nullopt;
    KeyFrameMeter meter(m_impl->kept.size(), video, maxSeconds);
    while (meter.wantsMore()) {
        AVPacket* packet = av_packet_alloc();
        if (av_read_frame(fmt, packet) < 0) {
            av_packet_free(&packet);
            break;
        }
        m_impl->readAhead.push_back(packet);
        const int keptIndex = packet->stream_index >= 0 && static_cast<std::size_t>(packet->stream_index) < m_impl->sourceToKept.size()
                                  ? m_impl->sourceToKept[static_cast<std::size_t>(packet->stream_index)]
                                  : -1;
        std::optional<std::size_t> stream;
        std::optional<double> seconds;
        std::optional<std::int64_t> pts;
        if (keptIndex >= 0) {
            stream = static_cast<std::size_t>(keptIndex);
            const AVRational timeBase = m_impl->kept[*stream].timeBase;
            const std::int64_t when = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
            if (when != AV_NOPTS_VALUE) seconds = static_cast<double>(when) * av_q2d(timeBase);
            if (packet->pts != AV_NOPTS_VALUE) pts = av_rescale_q(packet->pts, timeBase, kHundredNs);
        }
        meter.add(stream, static_cast<std::size_t>(packet->size), seconds, pts, [&] {
            return (packet->flags & AV_PKT_FLAG_KEY) != 0 ||
                   annexBRandomAccess(packet->data, static_cast<std::size_t>(packet->size), m_impl->kept[*video].stream.hevc);
        });
    }
    meter.measureBitrates(m_streams);
    m_firstKey = meter.firstKey();
    m_pictureDuration = meter.pictureDuration();
    return meter.interval();
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
    Packet out = sectionPacket(keptIndex, *clock, p->data, static_cast<std::size_t>(p->size));
    onPacket(out);
}
}  // namespace

bool LibavInput::run(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop) {
    m_impl->flags->stop = &stop;
    AVPacket* packet = av_packet_alloc();
    bool ok = true;
    const AVRational kClock90k{1, 90000};
    std::optional<std::int64_t> lastVideoPts;  // of the latest video packet, 90 kHz

    auto emit = [&](AVPacket* p, std::size_t keptIndex) {
        Impl::Kept& kept = m_impl->kept[keptIndex];
        if (kept.stream.video && p->pts != AV_NOPTS_VALUE) lastVideoPts = av_rescale_q(p->pts, kept.timeBase, kClock90k);
        if (kept.stream.scte35) return emitSection(p, kept.timeBase, lastVideoPts, onPacket, keptIndex);
        if (kept.stream.webVtt || kept.stream.subRip)
            return emitCueItems(p, kept.timeBase, kept.stream.webVtt, m_maxTextGap, m_firstKey.value_or(0), kept.covered,
                                keptIndex, onPacket, m_warn);
        Packet out;
        out.stream = keptIndex;
        out.damaged = (p->flags & AV_PKT_FLAG_CORRUPT) != 0 &&
                      !(kept.stream.adts && wholeAdtsFrames(p->data, static_cast<std::size_t>(p->size)));
        if (kept.stream.video)
            out.key = annexBRandomAccess(p->data, static_cast<std::size_t>(p->size), kept.stream.hevc);
        else
            out.key = (p->flags & AV_PKT_FLAG_KEY) != 0;
        if (p->pts != AV_NOPTS_VALUE) out.pts = av_rescale_q(p->pts, kept.timeBase, kHundredNs);
        if (p->dts != AV_NOPTS_VALUE) out.dts = av_rescale_q(p->dts, kept.timeBase, kHundredNs);
        if (p->duration > 0) out.duration = av_rescale_q(p->duration, kept.timeBase, kHundredNs);
        // As the MPEG-TS reader does: a packet of audio sync frames lasts as long as its frames, told to the
        // timeline keeper; so does a raw AAC frame, which libavformat times.
        if (kept.stream.framing != Framing::None) {
            const auto size = static_cast<std::size_t>(p->size);
            const FrameRun run = frameRun(kept.stream.framing, p->data, size, &kept.stream.latm);
            out.frames = run.frames;
            if (run.frames > 0) out.duration = run.duration;
        } else if (kept.stream.rawAac && out.duration > 0) {
            out.frames = 1;
        }
        if (kept.stream.rawAac) {
            out.owned = makeRawAacPacket(kept.stream.asc, kept.stream.bitrate, p->data, static_cast<std::size_t>(p->size));
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
        if (kept.stream.video && !kept.dtsSeen) {
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
    m_impl->flags->stop = nullptr;
    return ok;
}

}  // namespace fmp4mux
