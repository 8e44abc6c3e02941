#include "packaging/synchronizator_lowlatency/low_latency_global_synchronizator.h"

#include <algorithm>
#include <numeric>

#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::packaging::synchronizator_lowlatency {
inline namespace v0 {

using tvrn::log::LOG_ERROR;
using tvrn::log::LOG_INFO;
using tvrn::log::LOG_WARNING;
using ull = unsigned long long;

namespace {

synchronizator::i_chunk_warning_notifier::EmptyChunkWarningNotifier g_emptyNotifier;

constexpr std::uint64_t kHundredNs = 10000000;

// The sample's own duration as a fraction of a second; empty when it tells none.
std::optional<Seconds> sampleDuration(const ISyncSample& sample) {
    std::uint64_t timescale = 0;
    std::int64_t duration = 0;
    if (sample.getOwnTimescale(timescale) && sample.getOwnDuration(duration) && timescale > 0 && duration > 0)
        return Seconds(static_cast<std::uint64_t>(duration), timescale).reduced();
    if (sample.getDuration() > 0) return Seconds(static_cast<std::uint64_t>(sample.getDuration()), kHundredNs).reduced();
    return std::nullopt;
}

}  // namespace

LowLatencyGlobalSynchronizator::LowLatencyGlobalSynchronizator(ISynchronizatorListener& listener,
                                                               std::uint64_t chunkDurationMs,
                                                               std::uint64_t segmentDurationMs,
                                                               IChunkWarningNotifier* notifier,
                                                               tvrn::log::ILogger& logger)
    : m_logger(logger), m_notifier(notifier ? *notifier : g_emptyNotifier), m_chunkDurationMs(chunkDurationMs),
      m_segmentDurationMs(segmentDurationMs), m_listener(listener) {}

LowLatencyGlobalSynchronizator::~LowLatencyGlobalSynchronizator() = default;

void LowLatencyGlobalSynchronizator::addStream(std::uint32_t streamId, std::uint32_t kind, const std::string& label) {
    // Streams are added while the session is built, before any sample: no lock. (The session's builder holds the
    // filter's lock, which a delivery takes after this one's: taking this one here would invert them.)
    StreamDescription description;
    description.id = streamId;
    description.name = label;
    description.kind = kind;
    // Audio frames are all random access points, and a sparse stream has none to wait for.
    description.waiveAccessPoints = kind != 0;
    m_streams[streamId] = description;
    m_chunkers[streamId] = std::make_unique<StreamChunker>(m_notifier, StreamChunker::kTracking, m_logger, *this,
                                                           description, m_listener);
}

bool LowLatencyGlobalSynchronizator::running() const {
    std::lock_guard lock(m_mutex);
    return m_running;
}

std::optional<ChunkPlan> LowLatencyGlobalSynchronizator::plan() const {
    std::lock_guard lock(m_mutex);
    return m_plan;
}

void LowLatencyGlobalSynchronizator::pushSample(std::shared_ptr<ISyncSample> sample) {
    if (!sample) return;
    std::lock_guard lock(m_mutex);
    if (m_failed) return;
    const std::uint32_t id = sample->getStreamId();
    const auto stream = m_streams.find(id);
    if (stream == m_streams.end() || !takesPart(stream->second) || m_ended.contains(id)) return;
    if (sample->isConfiguration()) {
        // Kept for the init chunk, one per item, until the first segments have gone; dropped afterwards.
        if (!m_firstSegmentsSent) m_configuration[id].emplace(sample->getConfigurationIndex(), sample);
        return;
    }
    if (m_running) {
        m_chunkers.at(id)->push(sample);
        return;
    }
    auto& held = m_firstSamples[id];
    // A video stream starts on a random access point.
    if (held.empty() && stream->second.kind == 0 && !sample->isSync()) return;
    held.push_back(sample);
    if (!stream->second.seen) {
        const auto duration = sampleDuration(*sample);
        if (!duration) return;  // a sample that tells no duration cannot set the plan: the next one may
        stream->second.sampleDuration = *duration;
        std::uint64_t timescale = 0;
        if (sample->getOwnTimescale(timescale) && timescale > 0) m_ownTimescales[id] = timescale;
        onStreamStart(id, held.front()->getTime());
    }
    const bool all = std::all_of(m_streams.begin(), m_streams.end(),
                                 [this](const auto& entry) { return !takesPart(entry.second) || entry.second.seen; });
    if (all) onStreamsReady();
}

void LowLatencyGlobalSynchronizator::onStreamStart(std::uint32_t streamId, std::int64_t firstTime) {
    StreamDescription& stream = m_streams.at(streamId);
    stream.seen = true;
    stream.firstTime = firstTime;
}

void LowLatencyGlobalSynchronizator::onStreamsReady() {
    // The durations of every stream, in id order; the first stream's are the reference.
    std::map<std::uint32_t, ChunkPlan> plans;
    const StreamDescription* reference = nullptr;
    for (const auto& [id, stream] : m_streams) {
        if (!takesPart(stream)) continue;
        const ChunkPlan plan = planChunks(stream.sampleDuration, m_chunkDurationMs, m_segmentDurationMs);
        const Seconds target = Seconds(m_chunkDurationMs, 1000).reduced();
        if (!(stream.sampleDuration == target) &&
            static_cast<unsigned __int128>(stream.sampleDuration.num) * target.den >
                static_cast<unsigned __int128>(target.num) * stream.sampleDuration.den)
            m_logger.WriteMsg(LOG_WARNING,
                              "Low latency synchronizator: %s : sample duration (%llu ms) exceeds target chunk "
                              "duration (%d ms)",
                              stream.name.c_str(), static_cast<ull>(roundedMs(stream.sampleDuration)),
                              static_cast<int>(m_chunkDurationMs));
        if (reference == nullptr) {
            reference = &stream;
        } else {
            Incompatibility why;
            if (!compatible(plans.at(reference->id), reference->name, plan, id, why)) {
                m_logger.WriteMsg(LOG_ERROR, "%s", why.message.c_str());
                m_failed = true;
                m_firstSamples.clear();
                throw CorvaneException(why.failure);
            }
        }
        plans.emplace(id, plan);
    }
    if (plans.empty()) return;

    // The common start: the latest first sample. What lies wholly before it goes; a video stream starts again on
    // a random access point at or after it. A stream left with nothing waits for its next samples.
    std::int64_t start = std::numeric_limits<std::int64_t>::min();
    for (const auto& [id, held] : m_firstSamples)
        if (!held.empty() && takesPart(m_streams.at(id))) start = std::max(start, held.front()->getTime());
    bool ready = true;
    for (auto& [id, stream] : m_streams) {
        if (!takesPart(stream)) continue;
        auto& held = m_firstSamples[id];
        const bool video = stream.kind == 0;  // named: clang takes no structured binding into a lambda
        auto keep = std::find_if(held.begin(), held.end(), [&](const auto& s) {
            return video ? s->getTime() >= start && s->isSync() : s->getEndTime() > start;
        });
        held.erase(held.begin(), keep);
        if (held.empty()) {
            stream.seen = false;
            ready = false;
        }
    }
    if (!ready) return;
    m_firstPts = start;
    m_logger.WriteMsg(LOG_INFO, "Low latency synchronizators : First PTS is %llu", static_cast<ull>(start));
    m_plan = plans.begin()->second;
    if (!m_firstSegmentsSent) sendFirstSegments(*m_plan);
    startChunkers(plans);
}

void LowLatencyGlobalSynchronizator::sendFirstSegments(const ChunkPlan& plan) {
    // A timescale in which every stream's own time and the chunk duration are whole numbers.
    std::uint64_t timebase = plan.chunkDuration.den;
    for (const auto& [id, timescale] : m_ownTimescales) {
        timebase = std::lcm(timebase, timescale);
        if (timebase > std::numeric_limits<std::int32_t>::max()) break;
    }
    if (timebase > std::numeric_limits<std::int32_t>::max()) timebase = kHundredNs;
    SegmentChunks first;
    for (const auto& [id, stream] : m_streams) {
        if (!takesPart(stream)) continue;
        auto chunk = std::make_shared<StreamChunk>();
        for (const auto& [index, sample] : m_configuration[id]) chunk->samples.push_back(sample);
        first.chunks[id] = chunk;
    }
    m_configuration.clear();
    m_firstSegmentsSent = true;
    const auto inTimebase = [timebase](const Seconds& value) {
        return static_cast<std::uint64_t>(static_cast<unsigned __int128>(value.num) * timebase / value.den);
    };
    m_listener.OnFirstSegments(first, timebase, inTimebase(plan.chunkDuration), inTimebase(plan.segmentDuration));
}

void LowLatencyGlobalSynchronizator::startChunkers(const std::map<std::uint32_t, ChunkPlan>& plans) {
    m_running = true;
    for (const auto& [id, plan] : plans) m_chunkers.at(id)->start(plan);
    auto held = std::move(m_firstSamples);
    m_firstSamples.clear();
    for (auto& [id, samples] : held)
        for (auto& sample : samples) {
            if (!m_running) return;  // a restart asked by a chunker: the start begins again with later samples
            m_chunkers.at(id)->push(sample);
        }
}

void LowLatencyGlobalSynchronizator::onRestart() { m_listener.OnRestart(); }

void LowLatencyGlobalSynchronizator::requestRestart(const std::string& streamName, const std::string& reason) {
    std::lock_guard lock(m_mutex);
    m_logger.WriteMsg(LOG_WARNING, "Low latency synchronizator: restart requested from \"%s\" (%s)", streamName.c_str(),
                      reason.empty() ? "unknown reason" : reason.c_str());
    m_running = false;
    m_firstPts.reset();
    m_firstSamples.clear();
    for (auto& [id, stream] : m_streams) {
        stream.seen = false;
        stream.firstTime = 0;
    }
    m_logger.WriteMsg(LOG_INFO, "Low latency synchronizator: restart stream synchronization");
    for (auto& [id, chunker] : m_chunkers) chunker->restart();
    onRestart();
}

void LowLatencyGlobalSynchronizator::eof(std::uint32_t streamId) {
    std::lock_guard lock(m_mutex);
    const auto stream = m_streams.find(streamId);
    if (stream == m_streams.end()) return;
    m_ended.insert(streamId);
    if (m_running) {
        m_chunkers.at(streamId)->finish();
    } else if (!stream->second.seen && stream->second.kind != 2) {
        // A stream that ends before its first sample no longer holds up the start of the others.
        stream->second.kind = 2;
        m_firstSamples.erase(streamId);
        const bool all = std::any_of(m_streams.begin(), m_streams.end(), [this](const auto& e) { return takesPart(e.second); }) &&
                         std::all_of(m_streams.begin(), m_streams.end(),
                                     [this](const auto& e) { return !takesPart(e.second) || e.second.seen; });
        if (all && !m_failed) onStreamsReady();
    }
    if (m_endSent || m_ended.size() < m_streams.size()) return;
    m_endSent = true;
    m_listener.OnEndOfStream();
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::synchronizator_lowlatency
