#pragma once
// Synthetic samples and a recording listener for driving a synchroniser in tests and benchmarks.
#include <stdexcept>
#include <string>
#include <vector>

#include "packaging/synchronizator/sample_segment_synchronisator.h"
#include "tests/common/loggers.h"
#include "tests/common/waiting.h"

namespace sync_test {
using namespace tvrn::encoding::packaging::synchronizator;
using tvrn::encoding::packaging::imff::fmp4::SegmentChunks;

// A media sample (times in 100 ns) or a configuration sample, item `configurationIndex` of `configurationCount`.
struct FakeSample : ISyncSample {
    std::uint32_t streamId = 0;
    bool sync = false;
    std::int64_t time = 0;
    std::int64_t duration = 0;
    bool configuration = false;
    std::uint32_t configurationIndex = 3;
    std::uint32_t configurationCount = 0;
    std::uint64_t dataId = 0;  // 0: none
    // The sample's own timescale and duration in it; 0: the 100 ns units of `duration`.
    std::uint64_t ownTimescale = 0;
    std::int64_t ownDuration = 0;

    std::uint32_t getStreamId() const override { return streamId; }
    bool isSync() const override { return sync; }
    bool getDataId(std::uint64_t& id) const override {
        id = dataId;
        return dataId != 0;
    }
    bool hasDiscontinuity() const override { return false; }
    std::int64_t getDuration() const override { return configuration ? 0 : duration; }
    std::int64_t getEndTime() const override { return configuration ? 0 : time + duration; }
    std::int64_t getTime() const override { return configuration ? 0 : time; }
    bool getOwnTimescale(std::uint64_t& t) const override {
        t = ownTimescale != 0 ? ownTimescale : 10000000;
        return true;
    }
    bool getOwnDuration(std::int64_t& d) const override {
        d = ownTimescale != 0 ? ownDuration : duration;
        return true;
    }
    bool isConfiguration() const override { return configuration; }
    std::uint32_t getConfigurationIndex() const override { return configurationIndex; }
    std::uint32_t getConfigurationCount() const override { return configurationCount; }
    std::uint32_t getStreamKind() const override { return 0; }
};

inline std::shared_ptr<ISyncSample> media(std::uint32_t stream, std::int64_t time, std::int64_t duration, bool sync,
                                          std::uint64_t dataId = 0) {
    auto s = std::make_shared<FakeSample>();
    s->streamId = stream;
    s->time = time;
    s->duration = duration;
    s->sync = sync;
    s->dataId = dataId;
    return s;
}

inline std::shared_ptr<ISyncSample> config(std::uint32_t stream, std::uint32_t index, std::uint32_t count) {
    auto s = std::make_shared<FakeSample>();
    s->streamId = stream;
    s->configuration = true;
    s->configurationIndex = index;
    s->configurationCount = count;
    return s;
}

// Keeps every delivery, from the synchroniser's thread; waits for the end of stream.
class RecordingListener : public ISynchronizatorListener {
public:
    void OnChunks(const SegmentChunks& chunks, bool last) override {
        m_state.update([&](Record& r) {
            r.segments.push_back(chunks);
            r.lastFlags.push_back(last);
        });
    }
    void OnFirstSegments(const SegmentChunks& first, std::uint64_t timebase, std::uint64_t chunkDuration,
                         std::uint64_t segmentDuration) override {
        m_state.update([&](Record& r) {
            r.firstSegments.push_back(first);
            r.firstArguments = {timebase, chunkDuration, segmentDuration};
        });
    }
    void OnEndOfStream() override {
        m_state.update([](Record& r) { ++r.ends; });
    }
    void OnRestart() override {
        m_state.update([](Record& r) { ++r.restarts; });
    }

    struct Record {
        std::vector<SegmentChunks> segments;
        std::vector<bool> lastFlags;
        std::vector<SegmentChunks> firstSegments;
        std::vector<std::uint64_t> firstArguments;
        int ends = 0, restarts = 0;
    };
    // What was delivered, once the end of stream has come.
    Record waitForEnd() {
        if (!m_state.waitFor([](const Record& r) { return r.ends > 0; })) throw std::runtime_error("no end of stream");
        return m_state.get();
    }
    Record record() const { return m_state.get(); }

private:
    testkit::Guarded<Record> m_state;
};

class RecordingNotifier : public i_chunk_warning_notifier::IChunkWarningNotifier {
public:
    struct Cut { std::int64_t time; bool randomAccess; std::uint32_t segmentMs; };
    struct Record { std::vector<Cut> cuts; std::vector<std::uint64_t> dropped; };
    void onCut(std::int64_t time, bool rap, std::uint32_t ms) override {
        m_state.update([&](Record& r) { r.cuts.push_back({time, rap, ms}); });
    }
    void onSamplesDropped(std::uint64_t count) override {
        m_state.update([&](Record& r) { r.dropped.push_back(count); });
    }
    std::vector<std::uint64_t> waitForDrop() {
        if (!m_state.waitFor([](const Record& r) { return !r.dropped.empty(); })) throw std::runtime_error("no drop");
        return m_state.get().dropped;
    }
    Record record() const { return m_state.get(); }

private:
    testkit::Guarded<Record> m_state;
};

}  // namespace sync_test
