#include "apps/fmp4mux/inputs/reader.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

#include "apps/fmp4mux/inputs/adts.h"
#include "apps/fmp4mux/inputs/annex_b.h"
#include "apps/fmp4mux/inputs/audio_frames.h"
#include "apps/fmp4mux/inputs/audio_silence.h"
#include "apps/fmp4mux/inputs/pacing.h"

namespace fmp4mux {

namespace {

// How much media a reader has read, in seconds, whatever its timestamps do: each stream adds up its steps from
// one timestamp to the next, and a step back or a leap of more than ten seconds (the source restarted or looped,
// its clock wrapped) adds nothing. The stream furthest on counts.
class ReadProgress {
public:
    double add(std::size_t stream, std::int64_t time) {
        if (stream >= m_streams.size()) m_streams.resize(stream + 1);
        Stream& s = m_streams[stream];
        if (s.last && time > *s.last && time - *s.last <= kLeap) s.seconds += static_cast<double>(time - *s.last) / 1e7;
        s.last = time;
        m_furthest = std::max(m_furthest, s.seconds);
        return m_furthest;
    }

private:
    static constexpr std::int64_t kLeap = 10 * 10000000LL;  // 100 ns units
    struct Stream {
        std::optional<std::int64_t> last;
        double seconds = 0;
    };
    std::vector<Stream> m_streams;
    double m_furthest = 0;
};

constexpr std::int64_t kSilenceLag = 2 * 10000000LL;  // 100 ns units

// How many changes a watch says at most.
constexpr std::size_t kMostTold = 8;

}  // namespace

bool ParameterSetWatch::changed(const std::uint8_t* data, std::size_t size) {
    std::vector<std::vector<std::uint8_t>> sets;
    unitsBeforeFirstSlice(data, size, m_hevc, [&](int type, const std::uint8_t* unit, std::size_t length) {
        if (type == (m_hevc ? 33 : 7) && length > 0) sets.emplace_back(unit, unit + length);
    });
    if (sets.empty()) return false;  // a key frame without its own: the ones before still hold
    if (!m_first) {
        m_first = std::move(sets);
        return false;
    }
    bool news = false;
    for (std::vector<std::uint8_t>& set : sets) {
        // A stream that changes them all the time is said a few times, not for weeks on end.
        if (m_told.size() >= kMostTold) break;
        if (std::find(m_first->begin(), m_first->end(), set) != m_first->end() ||
            std::find(m_told.begin(), m_told.end(), set) != m_told.end())
            continue;
        m_told.push_back(std::move(set));
        news = true;
    }
    return news;
}

std::optional<std::string> AdtsFormatWatch::changed(const std::uint8_t* data, std::size_t size) {
    if (size < 7 || adtsFrameLength(data) == 0) return std::nullopt;
    const auto [profile, rateIndex, channels] = adtsConfig(data);
    const std::uint32_t format = profile << 7 | rateIndex << 3 | channels;
    if (!m_first) m_first = format;
    if (format == *m_first || m_told.size() >= kMostTold ||
        std::find(m_told.begin(), m_told.end(), format) != m_told.end())
        return std::nullopt;
    m_told.push_back(format);
    static constexpr const char* kProfiles[4] = {"AAC Main", "", "AAC SSR", "AAC LTP"};
    // Configuration 0 leaves the channels to the stream; 7 is 7.1, eight channels.
    std::string text = channels == 0 ? std::string("channels given in the stream")
                                     : std::to_string(channels == 7 ? 8 : channels) + " channels";
    text += " at " + std::to_string(rateIndex < 13 ? kAacRates[rateIndex] : 0) + " Hz";
    if (profile != 1) text += std::string(", ") + kProfiles[profile];
    return text;
}

SilenceWatch::SilenceWatch(std::vector<bool> media, std::int64_t limit)
    : m_media(std::move(media)), m_watched(m_media), m_last(m_media.size()), m_limit(limit) {}

std::vector<std::size_t> SilenceWatch::note(std::size_t stream, std::int64_t time) {
    std::vector<std::size_t> silent;
    if (m_limit <= 0 || stream >= m_media.size() || !m_media[stream]) return silent;
    m_watched[stream] = true;  // one said silent that delivers again is watched again
    if (!m_first) m_first = time;
    if (!m_last[stream] || time > *m_last[stream]) m_last[stream] = time;
    for (std::size_t k = 0; k < m_watched.size(); ++k) {
        if (k == stream || !m_watched[k]) continue;
        if (time - m_last[k].value_or(*m_first) > m_limit) {
            m_watched[k] = false;
            silent.push_back(k);
        }
    }
    return silent;
}

void SilenceWatch::forget(std::size_t stream) {
    if (stream >= m_media.size()) return;
    m_media[stream] = false;
    m_watched[stream] = false;
}

InputReader::InputReader(Input& input, int index, TimelineKeeper& timeline, PacketDestination destination,
                         PackagingProgress progress, ReaderSettings settings, const std::atomic<bool>& stop)
    : m_input(input), m_index(index), m_timeline(timeline), m_destination(std::move(destination)),
      m_progress(std::move(progress)), m_settings(settings), m_stop(stop), m_thread([this] { run(); }) {}

InputReader::~InputReader() { join(); }

void InputReader::join() {
    if (m_thread.joinable()) m_thread.join();
}

void InputReader::run() {
    using Clock = std::chrono::steady_clock;
    const auto& streams = m_input.streams();
    RealtimePacer pacer;
    ReadProgress readSoFar;
    std::optional<std::uint64_t> stalledAt;  // the chunk count when the output last stalled
    std::uint64_t chunksSeen = 0;
    // What the damage guard lets through is paced, throttled and delivered here.
    const DamageGuard::Forward forward = [&](Packet& packet) {
        const std::optional<std::int64_t> t = packet.dts ? packet.dts : packet.pts;
        if (m_settings.realtime && t) pacer.wait(*t, m_stop);
        if (m_settings.throttle && t) {
            // The packager's own queues do not bound themselves: an input that can wait is read no more than
            // a few segments ahead of the media packaged, so memory stays bounded however long the run.
            // Should the output stall (a stream that never delivers), the reader stops waiting until the
            // output moves again rather than wait for ever.
            const double inputSeconds = readSoFar.add(packet.stream, *t);
            chunksSeen = m_progress.waitForChunk(chunksSeen, std::chrono::milliseconds(0));
            if (stalledAt && chunksSeen != *stalledAt) stalledAt.reset();
            auto lastProgress = Clock::now();
            while (!stalledAt && !m_stop.load() &&
                   inputSeconds - m_progress.packagedSeconds() > m_settings.aheadLimitSeconds) {
                const std::uint64_t now = m_progress.waitForChunk(chunksSeen, std::chrono::milliseconds(100));
                if (now != chunksSeen) {
                    chunksSeen = now;
                    lastProgress = Clock::now();
                } else if (Clock::now() - lastProgress > std::chrono::seconds(1)) {
                    stalledAt = chunksSeen;
                }
            }
        }
        m_destination.deliver(packet.stream, packet);
        m_lastDelivery.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
    };
    std::vector<std::optional<std::int64_t>> offsets(streams.size());  // by stream: placed time less read time
    std::vector<bool> media(streams.size());
    for (std::size_t k = 0; k < streams.size(); ++k)
        media[k] = m_destination.wants(k) && (streams[k].kind == "video" || streams[k].kind == "audio");
    SilenceWatch silence(std::move(media), static_cast<std::int64_t>(m_settings.silenceLimitSeconds * 1e7));
    // Audio streams that fall silent are kept going with silent frames rather than ended, where silence can be made.
    // Video whose parameter sets change under a track that keeps its first ones, and AAC whose configuration
    // changes, are said, once for each new one.
    std::vector<std::optional<AudioSilence>> fills(streams.size());
    std::vector<std::optional<ParameterSetWatch>> parameterSets(streams.size());
    std::vector<std::optional<AdtsFormatWatch>> adtsFormats(streams.size());
    // Packets of several AAC frames come as ADTS: raw AAC holds one.
    std::vector<Framing> framings(streams.size());
    for (std::size_t k = 0; k < streams.size(); ++k) framings[k] = framingOf(streams[k].codec, true);
    for (std::size_t k = 0; k < streams.size(); ++k) {
        if (!m_destination.wants(k)) continue;
        const StreamInfo& info = streams[k];
        if (info.kind == "audio" && AudioSilence::fills(info.codec)) fills[k].emplace(k, info.codec);
        if (info.kind == "video" && !m_settings.inBandParameterSets && (info.codec == "h264" || info.codec == "hevc"))
            parameterSets[k].emplace(info.codec == "hevc");
        if (info.codec == "aac") adtsFormats[k].emplace();
    }
    const auto warn = [this](const std::string& line) {
        if (m_destination.warn) m_destination.warn(line);
    };
    std::optional<std::int64_t> furthest;  // the latest time placed of any stream
    const auto name = [this](std::size_t stream) {
        return "input " + std::to_string(m_index) + " stream " + std::to_string(stream);
    };
    m_input.run(
        [&](Packet& packet) {
            if (!m_destination.wants(packet.stream)) return;
            if (packet.ended) {
                silence.forget(packet.stream);
                return m_destination.deliver(packet.stream, packet);
            }
            const std::optional<std::int64_t> read = packet.dts ? packet.dts : packet.pts;
            if (streams[packet.stream].kind == "scte35") {
                m_timeline.follow(m_index, packet.pts, packet.dts);
                return forward(packet);
            }
            int cut = 0;
            if (!m_timeline.place(m_index, static_cast<int>(packet.stream), streams[packet.stream].kind == "video",
                                  packet.key, packet.pts, packet.dts, packet.duration, packet.discontinuity,
                                  packet.frames, &cut))
                return;
            if (cut > 0) {
                // Frames that overlap the stream's last packet leave the front (packets of sync frames count theirs).
                std::size_t bytes = 0;
                frameRun(framings[packet.stream], packet.data, packet.size, nullptr, cut, &bytes);
                if (bytes == 0) return;  // not reached: the reader that counted the frames walked them
                packet.data += bytes;
                packet.size -= bytes;
                packet.duration -= packet.duration / packet.frames * cut;
                packet.frames -= cut;
            }
            // A change of the offset that the timeline keeper applies is a timestamp jump taken out here.
            const std::optional<std::int64_t> placed = packet.dts ? packet.dts : packet.pts;
            if (placed && (!furthest || *placed > *furthest)) furthest = placed;
            if (placed && fills[packet.stream]) {
                AudioSilence& fill = *fills[packet.stream];
                if (fill.filling()) {
                    if (fill.covers(*placed)) return;  // the silence already stands for this time
                    for (Packet& silent : fill.handOver(*placed)) forward(silent);
                    warn(name(packet.stream) + ": it came back; its own frames follow the silence from here");
                }
                fill.noteReal(packet);
            }
            if (placed) {
                for (const std::size_t quiet : silence.note(packet.stream, *placed)) {
                    if (fills[quiet] && fills[quiet]->canFill()) {
                        fills[quiet]->start();
                        warn(name(quiet) + ": nothing came for " + std::to_string(std::lround(m_settings.silenceLimitSeconds)) +
                             " s while the others went on; silence fills its gap until it comes back");
                        continue;
                    }
                    Packet end;
                    end.stream = quiet;
                    end.ended = end.silent = true;
                    m_destination.deliver(quiet, end);
                }
                // Silence runs a little behind the others, so that the stream, should it come back, finds its
                // place after it (the audio of a transport stream comes up to a second behind its video).
                for (auto& fill : fills)
                    if (fill && fill->filling())
                        for (Packet& silent : fill->upTo(*placed - kSilenceLag)) forward(silent);
            }
            std::optional<ParameterSetWatch>& sets = parameterSets[packet.stream];
            if (packet.key && sets && sets->changed(packet.data, packet.size))
                warn(name(packet.stream) + ": its sequence parameter set changed" +
                     (placed ? " at " + std::to_string(*placed / 10000000) + " s" : std::string()) +
                     " (an encoder restarted with other settings?); the track keeps the first one, so players decode "
                     "what follows wrongly: run with --in-band-parameter-sets for a stream that changes");
            if (adtsFormats[packet.stream])
                if (const auto now = adtsFormats[packet.stream]->changed(packet.data, packet.size))
                    warn(name(packet.stream) + ": its AAC configuration changed" +
                         (placed ? " at " + std::to_string(*placed / 10000000) + " s" : std::string()) + " (now " +
                         *now + "); the track keeps the first one, so players decode what follows wrongly");
            bool jumped = false;
            if (read && placed) {
                std::optional<std::int64_t>& offset = offsets[packet.stream];
                jumped = offset && *offset != *placed - *read;
                offset = *placed - *read;
            }
            m_damage.offer(packet, streams[packet.stream].kind == "video", jumped, forward);
        },
        m_stop);
    // At the end of the input the silence goes as far as the others did.
    for (auto& fill : fills)
        if (fill && fill->filling() && furthest && !m_stop.load())
            for (Packet& silent : fill->handOver(*furthest)) forward(silent);
    m_damage.finish();
    m_error = m_input.error();
    m_reading = false;
    m_destination.endOfStream();
}

}  // namespace fmp4mux
