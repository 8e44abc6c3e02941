#pragma once
// Cuts the samples of all streams of a session into segments aligned across streams: every video stream starts
// a segment at the same random access point, and audio and sparse streams are cut at the same instant.
// All the work runs on the synchroniser's own worker thread; the public calls only post to it.
#include <cstdint>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "packaging/synchronizator/i_sample_synchronizator.h"
#include "support/log/i_logger.h"
#include "support/system/working_thread.h"

namespace tvrn::encoding::packaging::synchronizator {
inline namespace v1 {

using i_chunk_warning_notifier::IChunkWarningNotifier;
using i_sample_synchronizator::ISampleSynchronizator;
using i_sample_synchronizator::ISynchronizatorListener;
using i_sample_synchronizator::ISyncSample;
using imff::fmp4::SegmentChunks;
using imff::fmp4::StreamChunk;

// Stream kinds as given to addStream.
enum SyncKind : std::uint32_t { KindVideo = 0, KindAudio = 1, KindSparse = 2 };

// 100 ns units per millisecond.
inline constexpr std::int64_t kUnitsPerMs = 10000;

class SampleSegmentSynchronisator : public ISampleSynchronizator {
public:
    struct StreamRecord {
        std::list<std::shared_ptr<ISyncSample>> configuration;  // at most one per configuration index
        std::list<std::shared_ptr<ISyncSample>> samples;        // media samples waiting, in arrival order
        std::map<std::int64_t, bool> randomAccessPoints;        // time -> forced; video only
        std::uint32_t kind = KindVideo;
        bool ended = false;
    };
    using Streams = std::map<std::uint32_t, StreamRecord>;

    // Where a segment ends in each stream (the count of samples that go) and at what time.
    struct CutRecord {
        std::map<std::uint32_t, std::size_t> positions;
        std::int64_t time = 0;
    };

    class IBufferListCutter {
    public:
        virtual ~IBufferListCutter() = default;
        virtual CutRecord cut(Streams& streams) = 0;
    };

    SampleSegmentSynchronisator(ISynchronizatorListener& listener, std::uint32_t segmentDurationMs,
                                std::uint32_t gopsPerSegment, IChunkWarningNotifier* notifier,
                                tvrn::log::ILogger& logger, bool offline);
    ~SampleSegmentSynchronisator() override;

    void addStream(std::uint32_t streamId, std::uint32_t kind, const std::string& label) override;
    void pushSample(std::shared_ptr<ISyncSample> sample) override;
    void eof(std::uint32_t streamId) override;

private:
    struct Eof {
        std::uint32_t streamId;
    };
    struct AddStream {
        std::uint32_t kind;
        std::uint32_t streamId;
    };
    using Item = std::variant<std::shared_ptr<ISyncSample>, Eof, AddStream>;

    void handle(const Item& item);
    void addSample(const std::shared_ptr<ISyncSample>& sample);
    void tryCut();
    void firstCut();
    void dropLateStart();
    void deliver(const CutRecord& record);
    void forceBoundaries();

    tvrn::log::ILogger& m_logger;
    Streams m_streams;
    std::unique_ptr<IBufferListCutter> m_cutter;
    bool m_firstSegment = true;
    std::uint32_t m_segmentDurationMs;
    std::uint32_t m_gopsPerSegment;
    bool m_stopped = false;
    bool m_offline;
    ISynchronizatorListener& m_listener;
    IChunkWarningNotifier* m_notifier;
    concurrency::WorkingThread<Item> m_worker;  // last: it stops first
};

// The common cut of the video streams: the candidate where a segment of `gopCount` GOPs ends, or earlier at a
// forced boundary. Candidates are random access points present in every video stream, covered by every live
// stream's samples. Empty when not decided yet.
struct CommonCut {
    std::int64_t time;
    bool forced;
};
std::optional<CommonCut> findCommonCut(const SampleSegmentSynchronisator::Streams& streams, std::uint32_t gopCount);

// Cuts at common random access points, GOPs per segment at a time.
class VideoListCutter : public SampleSegmentSynchronisator::IBufferListCutter {
public:
    VideoListCutter(std::int64_t segmentDuration, std::uint32_t gopsPerSegment, IChunkWarningNotifier& notifier)
        : m_segmentDuration(segmentDuration), m_gopsPerSegment(gopsPerSegment), m_notifier(notifier) {}
    SampleSegmentSynchronisator::CutRecord cut(SampleSegmentSynchronisator::Streams& streams) override;

private:
    std::int64_t m_segmentDuration;  // 100 ns units
    std::uint32_t m_gopsPerSegment;
    IChunkWarningNotifier& m_notifier;
};

// Cuts sessions without video at fixed steps, snapped to the samples' own times.
class NoVideoListCutter : public SampleSegmentSynchronisator::IBufferListCutter {
public:
    NoVideoListCutter(std::int64_t nextBoundary, std::int64_t segmentDuration)
        : m_nextBoundary(nextBoundary), m_segmentDuration(segmentDuration) {}
    SampleSegmentSynchronisator::CutRecord cut(SampleSegmentSynchronisator::Streams& streams) override;

private:
    std::int64_t m_nextBoundary;
    std::int64_t m_segmentDuration;
};

}  // namespace v1
}  // namespace tvrn::encoding::packaging::synchronizator
