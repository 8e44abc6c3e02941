#include "apps/fmp4mux/libav/libav_streams.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "apps/fmp4mux/exit_error.h"
#include "filter/mux_fmp4_filter/pins.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/dict.h>
#include <libavutil/mem.h>
}

namespace fmp4mux {

namespace {
constexpr std::uint32_t kMpeg1Audio = 1, kH264 = 2, kDolby = 3, kAdts = 4, kLatm = 5, kRawAac = 10, kScte35 = 12,
                        kHevc = 17, kWebVtt = 20;

std::string avError(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}
}  // namespace

void addLiveOptions(AVDictionary*& options) {
    // libavformat receives UDP (and RTP over it) on a thread of its own into a ring that the reader empties; the
    // ring covers the reader's pauses. As the ring turns, all of it is touched, so its size is what a live input
    // keeps resident for as long as it runs: 16 MiB holds 2 s of a 64 Mb/s contribution feed, 13 s at 10 Mb/s. A
    // longer pause (the start held until a key server answers) loses what overflows instead of failing the
    // input; the transport's continuity counters count the loss. Options in the URL still win.
    constexpr int kRingPackets = (16 << 20) / 188;  // the option counts 188-byte packets
    av_dict_set(&options, "fifo_size", std::to_string(kRingPackets).c_str(), 0);
    av_dict_set(&options, "overrun_nonfatal", "1", 0);
}

int InterruptFlags::check(void* self) {
    const auto* flags = static_cast<const InterruptFlags*>(self);
    return (flags->interrupt && flags->interrupt->load()) || (flags->stop && flags->stop->load()) ? 1 : 0;
}

ProbedInput::ProbedInput(const std::string& url, const std::atomic<bool>* interrupt) {
    try {
        open(url, interrupt);
    } catch (...) {
        close();  // what was opened before the failure
        throw;
    }
}

void ProbedInput::open(const std::string& url, const std::atomic<bool>* interrupt) {
    m_url = url;
    m_flags.interrupt = interrupt;
    const std::string source = url == "-" ? "pipe:0" : url;
    m_live = liveSource(source);
    m_canWait = !m_live || source == "pipe:0";
    const AVIOInterruptCB callback{&InterruptFlags::check, &m_flags};
    constexpr int kLayerBuffer = 1 << 15;
    // UDP is received by a receiver of our own, which wakes a few hundred times a second rather than for every
    // datagram; libavformat's takes the URLs with options ours does not know.
    std::optional<UdpReceiver::Address> udp;
    try {
        udp = UdpReceiver::parse(source);
        if (udp) m_udp = std::make_unique<UdpReceiver>(*udp);
    } catch (const std::exception& e) {
        throw std::runtime_error("cannot open input '" + url + "': " + e.what());
    }
    if (m_udp) {
        auto* buffer = static_cast<unsigned char*>(av_malloc(kLayerBuffer));
        m_source = buffer ? avio_alloc_context(buffer, kLayerBuffer, 0, this, &ProbedInput::readUdp, nullptr, nullptr) : nullptr;
        if (m_source == nullptr) {
            av_free(buffer);
            throw std::runtime_error("out of memory opening '" + url + "'");
        }
        m_source->seekable = 0;
    } else {
        AVDictionary* options = nullptr;
        if (m_live) addLiveOptions(options);
        const int opened = avio_open2(&m_source, source.c_str(), AVIO_FLAG_READ, &callback, &options);
        av_dict_free(&options);
        if (opened < 0) throw std::runtime_error("cannot open input '" + url + "': " + avError(opened));
    }
    auto* buffer = static_cast<unsigned char*>(av_malloc(kLayerBuffer));
    m_layer = buffer ? avio_alloc_context(buffer, kLayerBuffer, 0, this, &ProbedInput::read, nullptr, &ProbedInput::seek)
                     : nullptr;
    if (m_layer == nullptr) {
        av_free(buffer);
        throw std::runtime_error("out of memory opening '" + url + "'");
    }
    m_layer->seekable = m_source->seekable;
    m_format = avformat_alloc_context();
    if (m_format == nullptr) throw std::runtime_error("out of memory opening '" + url + "'");
    m_format->pb = m_layer;
    m_format->flags |= AVFMT_FLAG_CUSTOM_IO;
    m_format->interrupt_callback = callback;
    const int probed = avformat_open_input(&m_format, source.c_str(), nullptr, nullptr);
    if (probed < 0) throw std::runtime_error("cannot open input '" + url + "': " + avError(probed));
    // The stream parameters come from the parameter sets and the first key frame: decoding every picture of the
    // probe, as libavformat otherwise does, is most of what opening a 1080p input costs.
    std::vector<AVDictionary*> decoding(m_format->nb_streams, nullptr);
    for (unsigned i = 0; i < m_format->nb_streams; ++i)
        if (m_format->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) av_dict_set(&decoding[i], "skip_frame", "nokey", 0);
    const int found = avformat_find_stream_info(m_format, decoding.data());
    for (AVDictionary*& entry : decoding) av_dict_free(&entry);
    if (found < 0) throw std::runtime_error("cannot read the streams of '" + url + "': " + avError(found));
}

ProbedInput::~ProbedInput() { close(); }

void ProbedInput::close() {
    if (m_format) avformat_close_input(&m_format);
    if (m_layer) {
        av_freep(&m_layer->buffer);
        avio_context_free(&m_layer);
    }
    if (m_source && m_udp) {
        av_freep(&m_source->buffer);
        avio_context_free(&m_source);
    } else if (m_source) {
        avio_closep(&m_source);
    }
    m_udp.reset();
}

std::string ProbedInput::receiverReport() const {
    if (!m_udp) return {};
    std::string report;
    const auto add = [&report](std::uint64_t count, const char* what) {
        if (count > 0)
            report += (report.empty() ? "" : ", ") + std::to_string(count) + (count == 1 ? " datagram" : " datagrams") + what;
    };
    add(m_udp->overruns(), " dropped with the receiving ring full (the packaging fell behind)");
    add(m_udp->systemDrops(), " dropped by the system with the socket's buffer full (the receiver fell behind)");
    return report;
}

int ProbedInput::readUdp(void* self, std::uint8_t* buffer, int size) {
    auto* probe = static_cast<ProbedInput*>(self);
    std::size_t got = 0;
    switch (probe->m_udp->read(buffer, static_cast<std::size_t>(std::max(size, 0)), got,
                               [probe] { return InterruptFlags::check(&probe->m_flags) != 0; })) {
        case UdpReceiver::Status::Data: return static_cast<int>(got);
        case UdpReceiver::Status::Stopped: return AVERROR_EXIT;
        case UdpReceiver::Status::TimedOut: return AVERROR(ETIMEDOUT);
        case UdpReceiver::Status::Overrun: return AVERROR(ENOBUFS);
    }
    return AVERROR_EXIT;
}

int ProbedInput::read(void* self, std::uint8_t* buffer, int size) {
    auto* probe = static_cast<ProbedInput*>(self);
    // A live source hands on what has come, rather than wait for the whole buffer.
    const int got = probe->m_live ? avio_read_partial(probe->m_source, buffer, size)
                                  : avio_read(probe->m_source, buffer, size);
    if (got <= 0) return got == 0 ? AVERROR_EOF : got;
    // Only bytes that continue the recording from the start are kept: libavformat may look at the end of a file.
    const auto recorded = static_cast<std::int64_t>(probe->m_recorded.size());
    if (probe->m_recording && probe->m_position <= recorded && probe->m_position + got > recorded)
        probe->m_recorded.insert(probe->m_recorded.end(), buffer + (recorded - probe->m_position), buffer + got);
    probe->m_position += got;
    return got;
}

std::int64_t ProbedInput::seek(void* self, std::int64_t offset, int whence) {
    auto* probe = static_cast<ProbedInput*>(self);
    if (whence & AVSEEK_SIZE) return avio_size(probe->m_source);
    const std::int64_t at = avio_seek(probe->m_source, offset, whence & ~AVSEEK_FORCE);
    if (at >= 0) probe->m_position = at;
    return at;
}

bool ProbedInput::plainMpegTs() const {
    if (std::string(m_format->iformat->name) != "mpegts") return false;
    const std::vector<std::uint8_t>& b = m_recorded;
    for (std::size_t at = 0; at + 2 * 188 < b.size() && at < 188; ++at)
        if (b[at] == 0x47 && b[at + 188] == 0x47 && b[at + 2 * 188] == 0x47) return true;
    return false;
}

std::vector<std::uint8_t> ProbedInput::takeRecording() {
    avformat_close_input(&m_format);
    m_recording = false;
    if (m_source->seekable) avio_seek(m_source, static_cast<std::int64_t>(m_recorded.size()), SEEK_SET);
    return std::move(m_recorded);
}

void ProbedInput::stopRecording() {
    m_recording = false;
    m_recorded.clear();
    m_recorded.shrink_to_fit();
}

std::vector<KeptStream> keptStreams(AVFormatContext* fmt, int inputIndex, std::vector<std::string>& skipped,
                                    std::optional<int> program, std::vector<std::string>* notes) {
    std::vector<KeptStream> result;
    // The rates of an MPEG-TS are measured by the read-ahead, whichever reader reads it: libavformat's guesses (the
    // file's average rate, an audio frame's) are not what fmp4mux's own probe of a TS file can know, and a TS file
    // must read the same either way.
    const bool measured = std::string(fmt->iformat->name) == "mpegts";
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
        info.bitrate = measured ? 0 : par->bit_rate;
        if (const AVDictionaryEntry* lang = av_dict_get(stream->metadata, "language", nullptr, 0)) info.language = lang->value;
        info.width = par->width;
        info.height = par->height;
        info.sampleRate = par->sample_rate;
        info.channels = par->ch_layout.nb_channels;
        KeptStream kept;
        kept.id = stream->id;
        kept.sourceIndex = static_cast<int>(i);
        kept.bitrate = static_cast<std::uint32_t>(par->bit_rate);
        kept.video = par->codec_id == AV_CODEC_ID_H264 || par->codec_id == AV_CODEC_ID_HEVC;
        kept.hevc = par->codec_id == AV_CODEC_ID_HEVC;
        switch (par->codec_id) {
            case AV_CODEC_ID_H264:
                info.streamType = kH264;
                info.kind = "video";
                if (par->extradata_size > 0 && par->extradata[0] == 1) kept.toAnnexB = "h264_mp4toannexb";
                break;
            case AV_CODEC_ID_HEVC:
                info.streamType = kHevc;
                info.kind = "video";
                if (par->extradata_size > 0 && par->extradata[0] == 1) kept.toAnnexB = "hevc_mp4toannexb";
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
        // A stream type that the packager cannot analyse yet would hold the session: leave it out. SCTE-35 is read
        // whatever the engine takes, since fmp4mux makes its events itself.
        if (!kept.scte35 && !tvrn::encoding::filter::packagesStreamType(info.streamType)) {
            skipped.push_back("input " + std::to_string(inputIndex) + " stream " + std::to_string(i) + ": codec '" +
                              info.codec + "' is not supported by this packager");
            continue;
        }
        if (!measured && info.bitrate <= 0 && par->codec_type == AVMEDIA_TYPE_VIDEO && fmt->bit_rate > 0) {
            // The container's rate less what its other streams declare: a fair first estimate of the video's.
            std::int64_t others = 0;
            for (unsigned j = 0; j < fmt->nb_streams; ++j)
                if (j != i) others += std::max<std::int64_t>(fmt->streams[j]->codecpar->bit_rate, 0);
            if (fmt->bit_rate > others) info.bitrate = fmt->bit_rate - others;
        }
        kept.framing = framingOf(info.codec, kept.adts);
        kept.info = info;
        result.push_back(std::move(kept));
    }
    return result;
}

}  // namespace fmp4mux
