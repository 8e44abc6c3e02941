#include "packaging/synchronizator/sample_segment_synchronisator.h"

#include <algorithm>

#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::packaging::synchronizator {
inline namespace v1 {

using tvrn::log::LOG_ERROR;
using Streams = SampleSegmentSynchronisator::Streams;
using CutRecord = SampleSegmentSynchronisator::CutRecord;

namespace {

constexpr std::int64_t kEndOfTime = std::numeric_limits<std::int64_t>::max();

i_chunk_warning_notifier::EmptyChunkWarningNotifier g_emptyNotifier;

bool isVideo(const SampleSegmentSynchronisator::StreamRecord& s) { return s.kind == KindVideo; }
bool isSparse(const SampleSegmentSynchronisator::StreamRecord& s) { return s.kind == KindSparse; }

// Index of the first sample whose time is at or past `time`.
std::size_t positionAtOrPast(const std::list<std::shared_ptr<ISyncSample>>& samples, std::int64_t time) {
    std::size_t index = 0;
    for (const auto& sample : samples) {
        if (sample->getTime() >= time) return index;
        ++index;
    }
    return index;
}

bool allEnded(const Streams& streams) {
    return std::all_of(streams.begin(), streams.end(), [](const auto& s) { return s.second.ended; });
}

// Every stream's whole list: the flush at the end of all streams.
CutRecord flushRecord(const Streams& streams) {
    CutRecord record;
    record.time = kEndOfTime;
    for (const auto& [id, stream] : streams)
        if (!stream.samples.empty()) record.positions[id] = stream.samples.size();
    return record;
}

// Ready for the first cut: sparse, or holding samples and every configuration item that it announces.
bool isReady(const SampleSegmentSynchronisator::StreamRecord& stream) {
    if (isSparse(stream)) return true;
    if (stream.samples.empty() || stream.configuration.empty()) return false;
    const std::uint32_t needed = stream.configuration.front()->getConfigurationCount();
    for (std::uint32_t index = 0; index < needed; ++index) {
        const bool present = std::any_of(stream.configuration.begin(), stream.configuration.end(),
                                         [index](const auto& c) { return c->getConfigurationIndex() == index; });
        if (!present) return false;
    }
    return true;
}

}  // namespace

std::optional<CommonCut> findCommonCut(const Streams& streams, std::uint32_t gopCount) {
    std::size_t videoCount = 0;
    std::map<std::int64_t, std::pair<std::size_t, bool>> points;  // time -> (streams having it, any forced)
    for (const auto& [id, stream] : streams) {
        if (!isVideo(stream)) continue;
        ++videoCount;
        for (const auto& [time, forced] : stream.randomAccessPoints) {
            auto& entry = points[time];
            ++entry.first;
            entry.second = entry.second || forced;
        }
    }
    // A cut waits until every live stream has samples up to it. A stream that has ended and has nothing left does
    // not hold the others back. Once every audio and video stream has ended and given all it had, only sparse
    // streams are left open: there is nothing to cut (forced boundaries alone would cut empty segments without
    // end); what the sparse streams still bring goes out with the flush at their end.
    std::int64_t limit = kEndOfTime;
    bool media = false;
    for (const auto& [id, stream] : streams) {
        if (isSparse(stream)) continue;
        if (stream.samples.empty()) {
            if (stream.ended) continue;
            return std::nullopt;
        }
        media = true;
        if (!stream.ended) limit = std::min(limit, stream.samples.back()->getTime());
    }
    if (!media) return std::nullopt;
    bool anyForced = false;
    std::uint32_t index = 0;
    for (const auto& [time, entry] : points) {
        if (time > limit) break;
        if (entry.first != videoCount) continue;
        anyForced = anyForced || entry.second;
        if ((index > 0 && anyForced) || index == gopCount) return CommonCut{time, entry.second};
        ++index;
    }
    return std::nullopt;
}

CutRecord VideoListCutter::cut(Streams& streams) {
    if (allEnded(streams)) return flushRecord(streams);
    const auto common = findCommonCut(streams, m_gopsPerSegment);
    if (!common) return {};
    m_notifier.onCut(common->time, !common->forced, static_cast<std::uint32_t>(m_segmentDuration / kUnitsPerMs));
    CutRecord record;
    record.time = common->time;
    for (const auto& [id, stream] : streams) record.positions[id] = positionAtOrPast(stream.samples, common->time);
    return record;
}

CutRecord NoVideoListCutter::cut(Streams& streams) {
    if (allEnded(streams)) return flushRecord(streams);
    CutRecord record;
    std::int64_t smallest = kEndOfTime;
    for (const auto& [id, stream] : streams) {
        std::int64_t target = m_nextBoundary;
        if (stream.ended) {
            if (stream.samples.empty()) continue;
            target = stream.samples.back()->getTime();
        }
        const std::size_t position = positionAtOrPast(stream.samples, target);
        if (position >= stream.samples.size()) return {};  // this stream has not reached the boundary yet
        record.positions[id] = position;
        smallest = std::min(smallest, (*std::next(stream.samples.begin(), static_cast<long>(position)))->getTime());
    }
    if (record.positions.empty()) return {};
    record.time = m_nextBoundary;
    // Boundaries follow the real frame times, so no rounding accumulates.
    m_nextBoundary = smallest + m_segmentDuration;
    return record;
}

SampleSegmentSynchronisator::SampleSegmentSynchronisator(ISynchronizatorListener& listener,
                                                         std::uint32_t segmentDurationMs, std::uint32_t gopsPerSegment,
                                                         IChunkWarningNotifier* notifier, tvrn::log::ILogger& logger,
                                                         bool offline)
    : m_logger(logger),
      m_segmentDurationMs(segmentDurationMs),
      m_gopsPerSegment(gopsPerSegment),
      m_offline(offline),
      m_listener(listener),
      m_notifier(notifier != nullptr ? notifier : &g_emptyNotifier),
      m_worker([this](const Item& item) { handle(item); }) {}

SampleSegmentSynchronisator::~SampleSegmentSynchronisator() = default;

void SampleSegmentSynchronisator::addStream(std::uint32_t streamId, std::uint32_t kind, const std::string&) {
    m_worker.post(Item(AddStream{kind, streamId}));
}

void SampleSegmentSynchronisator::pushSample(std::shared_ptr<ISyncSample> sample) {
    m_worker.post(Item(std::move(sample)));
}

void SampleSegmentSynchronisator::eof(std::uint32_t streamId) { m_worker.post(Item(Eof{streamId})); }

void SampleSegmentSynchronisator::handle(const Item& item) {
    try {
        switch (item.index()) {
            case 2: {
                const auto& add = std::get<AddStream>(item);
                StreamRecord record;
                record.kind = add.kind;
                m_streams[add.streamId] = std::move(record);
                break;
            }
            case 0: {
                const auto& sample = std::get<0>(item);
                if (m_stopped || !sample || !m_streams.contains(sample->getStreamId())) break;
                addSample(sample);
                tryCut();
                break;
            }
            case 1: {
                const auto it = m_streams.find(std::get<Eof>(item).streamId);
                if (it == m_streams.end()) throw CorvaneException("invalid map<K, T> key");
                it->second.ended = true;
                if (!m_stopped && allEnded(m_streams)) {
                    tryCut();
                    m_listener.OnEndOfStream();
                    m_stopped = true;
                }
                break;
            }
            default: throw std::logic_error("internal assertion failure");
        }
    } catch (const CorvaneException& e) {
        m_logger.WriteMsg(LOG_ERROR, "unable to process sample: %s", e.what());
    }
}

void SampleSegmentSynchronisator::addSample(const std::shared_ptr<ISyncSample>& sample) {
    StreamRecord& stream = m_streams[sample->getStreamId()];
    if (sample->isConfiguration()) {
        if (m_cutter) return;
        const std::uint32_t index = sample->getConfigurationIndex();
        const bool known = std::any_of(stream.configuration.begin(), stream.configuration.end(),
                                       [index](const auto& c) { return c->getConfigurationIndex() == index; });
        if (!known) stream.configuration.push_back(sample);
        return;
    }
    const std::int64_t time = sample->getTime();
    if (!isSparse(stream) && !stream.randomAccessPoints.empty() && time < stream.randomAccessPoints.begin()->first)
        return;  // too late for this stream's current position
    if (isVideo(stream)) {
        // Before the first cut a video buffer always starts on a random access point.
        if (stream.samples.empty() && !m_cutter && !sample->isSync()) return;
        // A real random access point also clears a forced boundary at its time.
        if (sample->isSync()) stream.randomAccessPoints[time] = false;
    }
    stream.samples.push_back(sample);
}

void SampleSegmentSynchronisator::tryCut() {
    if (!m_cutter) {
        firstCut();
        if (!m_cutter) return;
    }
    for (CutRecord record = m_cutter->cut(m_streams); !record.positions.empty(); record = m_cutter->cut(m_streams))
        deliver(record);
}

void SampleSegmentSynchronisator::firstCut() {
    const bool allReady = std::all_of(m_streams.begin(), m_streams.end(), [](const auto& s) { return isReady(s.second); });
    if (m_streams.empty() || !allReady) return dropLateStart();

    const bool hasVideo = std::any_of(m_streams.begin(), m_streams.end(), [](const auto& s) { return isVideo(s.second); });
    std::optional<std::int64_t> start;
    if (hasVideo) {
        if (const auto common = findCommonCut(m_streams, 0)) start = common->time;
    } else {
        std::int64_t first = kEndOfTime;
        std::int64_t last = std::numeric_limits<std::int64_t>::min();
        bool anyNonSparse = false;
        for (const auto& [id, stream] : m_streams) {
            if (isSparse(stream) || stream.samples.empty()) continue;
            anyNonSparse = true;
            first = std::min(first, stream.samples.front()->getTime());
            last = std::max(last, stream.samples.back()->getTime());
        }
        if (anyNonSparse) {
            if (first <= last) start = first;
        } else if (!m_streams.begin()->second.samples.empty()) {
            start = m_streams.begin()->second.samples.back()->getTime();
        }
    }
    if (!start) return dropLateStart();

    // Audio-only sessions lose nothing at the start.
    const std::int64_t cutTime = hasVideo ? *start : 0;
    for (auto& [id, stream] : m_streams) {
        stream.samples.remove_if([cutTime](const auto& s) { return s->getTime() < cutTime; });
        if (isVideo(stream)) stream.randomAccessPoints.erase(stream.randomAccessPoints.begin(),
                                                             stream.randomAccessPoints.lower_bound(cutTime));
    }

    const std::int64_t duration = static_cast<std::int64_t>(m_segmentDurationMs) * kUnitsPerMs;
    if (hasVideo) {
        m_cutter = std::make_unique<VideoListCutter>(duration, m_gopsPerSegment, *m_notifier);
    } else {
        std::int64_t smallest = kEndOfTime;
        for (const auto& [id, stream] : m_streams)
            if (!stream.samples.empty()) smallest = std::min(smallest, stream.samples.front()->getTime());
        m_cutter = std::make_unique<NoVideoListCutter>(smallest == kEndOfTime ? duration : smallest + duration, duration);
    }

    SegmentChunks first;
    for (auto& [id, stream] : m_streams) {
        auto chunk = std::make_shared<StreamChunk>();
        if (!isSparse(stream)) {
            chunk->samples.assign(stream.configuration.begin(), stream.configuration.end());
            stream.configuration.clear();
        }
        first.chunks[id] = std::move(chunk);
    }
    first.count = static_cast<std::uint32_t>(first.chunks.size());
    m_listener.OnFirstSegments(first, 1000, m_segmentDurationMs, m_segmentDurationMs);
    forceBoundaries();
}

void SampleSegmentSynchronisator::dropLateStart() {
    if (m_offline) return;  // offline sessions wait as long as it takes and lose nothing
    const std::int64_t duration = static_cast<std::int64_t>(m_segmentDurationMs) * kUnitsPerMs;
    bool tooLong = false;
    std::int64_t newest = std::numeric_limits<std::int64_t>::min();
    for (const auto& [id, stream] : m_streams) {
        if (stream.samples.empty()) continue;
        const std::int64_t first = stream.samples.front()->getTime();
        const std::int64_t last = stream.samples.back()->getTime();
        if (last - first > 4 * duration) tooLong = true;
        newest = std::max(newest, last);
    }
    if (!tooLong) return;
    const std::int64_t threshold = newest - 3 * duration;
    std::uint64_t dropped = 0;
    for (auto& [id, stream] : m_streams) {
        const std::size_t before = stream.samples.size();
        stream.samples.remove_if([threshold](const auto& s) { return s->getTime() < threshold; });
        dropped += before - stream.samples.size();
        // The random access points of dropped samples go with them, so a later start is a point still held.
        stream.randomAccessPoints.erase(stream.randomAccessPoints.begin(),
                                        stream.randomAccessPoints.lower_bound(threshold));
        // A video buffer starts on a random access point.
        if (isVideo(stream))
            while (!stream.samples.empty() && !stream.samples.front()->isSync()) {
                stream.samples.pop_front();
                ++dropped;
            }
    }
    if (dropped > 0) m_notifier->onSamplesDropped(dropped);
}

void SampleSegmentSynchronisator::deliver(const CutRecord& record) {
    SegmentChunks segments;
    for (const auto& [id, position] : record.positions) {
        StreamRecord& stream = m_streams[id];
        auto chunk = std::make_shared<StreamChunk>();
        auto end = std::next(stream.samples.begin(), static_cast<long>(position));
        if (position > 0) {
            const std::int64_t firstTime = stream.samples.front()->getTime();
            const std::int64_t endTime =
                end != stream.samples.end() ? (*end)->getTime() : stream.samples.back()->getEndTime();
            chunk->duration = static_cast<std::uint64_t>(std::max<std::int64_t>(0, endTime - firstTime));
            for (auto it = stream.samples.begin(); it != end; ++it) {
                std::uint64_t dataId = 0;
                if (!chunk->dataIdPresent && (*it)->getDataId(dataId)) {
                    chunk->dataIdPresent = 1;
                    chunk->dataId = dataId;
                }
            }
            chunk->samples.assign(stream.samples.begin(), end);
            stream.samples.erase(stream.samples.begin(), end);
        }
        segments.chunks[id] = std::move(chunk);
    }
    segments.count = static_cast<std::uint32_t>(segments.chunks.size());

    for (auto& [id, stream] : m_streams)
        if (isVideo(stream))
            stream.randomAccessPoints.erase(stream.randomAccessPoints.begin(),
                                            stream.randomAccessPoints.lower_bound(record.time));
    forceBoundaries();

    if (m_firstSegment) {
        m_firstSegment = false;
        // Profiles that do not start on the same frame make a first segment that cannot be aligned: drop it.
        std::optional<std::int64_t> firstVideoTime;
        for (const auto& [id, chunk] : segments.chunks) {
            if (!isVideo(m_streams[id]) || chunk->samples.empty()) continue;
            const std::int64_t t = chunk->samples.front()->getTime();
            if (firstVideoTime && *firstVideoTime != t) return;
            firstVideoTime = t;
        }
    }
    m_listener.OnChunks(segments, true);
}

void SampleSegmentSynchronisator::forceBoundaries() {
    const std::int64_t duration = static_cast<std::int64_t>(m_segmentDurationMs) * kUnitsPerMs;
    for (auto& [id, stream] : m_streams) {
        if (!isVideo(stream) || stream.randomAccessPoints.empty()) continue;
        auto& points = stream.randomAccessPoints;
        const std::int64_t start = points.begin()->first;
        for (auto it = std::next(points.begin()); it != points.end();) {
            if (it->second)
                it = points.erase(it);
            else
                ++it;
        }
        points.emplace(start + duration, true);  // no change when a point is already there
    }
}

}  // namespace v1
}  // namespace tvrn::encoding::packaging::synchronizator
