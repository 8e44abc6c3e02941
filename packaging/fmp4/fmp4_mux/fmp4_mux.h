#pragma once
// The mux session: carries each stream's buffers through analysis and sample building to the synchroniser,
// which cuts them for the chunk builder.
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <memory>
#include <set>
#include <vector>

#include "packaging/fmp4/fmp4_mux/chunks_builder_interface.h"
#include "packaging/fmp4/fmp4_mux/fmp4_mux_config.h"
#include "packaging/fmp4/fmp4_mux/mux_session.h"
#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/nal_builder.h"
#include "packaging/synchronizator/i_sample_synchronizator.h"
#include "support/log/prefixed_logger.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

using synchronizator::i_chunk_warning_notifier::IChunkWarningNotifier;
using synchronizator::i_sample_synchronizator::ISampleSynchronizator;
using synchronizator::i_sample_synchronizator::ISynchronizatorListener;

// What a segment synchroniser is built with.
struct SegmentSynchronizatorParams {
    ISynchronizatorListener* listener;
    std::uint32_t segmentDurationMs;
    std::uint32_t gopsPerSegment;
    IChunkWarningNotifier* notifier;
    tvrn::log::ILogger* logger;
    bool offline;
};

// What the low-latency synchroniser is built with.
struct LowLatencySynchronizatorParams {
    ISynchronizatorListener* listener;
    std::uint64_t chunkDurationMs;
    std::uint64_t segmentDurationMs;
    IChunkWarningNotifier* notifier;
    tvrn::log::ILogger* logger;
};

// What the chunk builder is built with.
struct ChunksBuilderParams {
    OutputFormat outputFormat;
    const Fmp4MuxConfig* config;
    bool driftDetection;
    tvrn::log::ILogger* logger;
    // Milliseconds since 1970 UTC, read by the drift check; empty for the system clock.
    std::function<std::int64_t()> utcClockMs = {};
    // Chunks as players read them: see TrackFragmentParameters.
    bool playerCompatible = false;
    // No media chunk leaves before every registered stream has delivered once, so that the time origin is the
    // earliest of them all. Off: sparse streams (text, metadata, SCTE-35), which may stay silent for hours, are
    // not waited for; a sample of theirs from before the origin found without them is dropped.
    bool sparseStreamsHoldOrigin = true;
    // Given, the chunk dump (a line describing each chunk about to be built) goes to it; otherwise it is not built.
    std::function<void(const std::string&)> chunkDump = {};
};

std::unique_ptr<ISampleSynchronizator> makeSampleSegmentSynchronisator(const SegmentSynchronizatorParams& params);
std::unique_ptr<ISampleSynchronizator> makeLowLatencyGlobalSynchronizator(const LowLatencySynchronizatorParams& params);
// The system's chunk builder.
std::unique_ptr<IChunksBuilder> makeChunksBuilder(const ChunksBuilderParams& params);

// The factories of the session's parts. The defaults are the system's own parts.
struct Fmp4MuxParts {
    std::function<std::unique_ptr<IChunksBuilder>(const ChunksBuilderParams&)> makeChunksBuilder =
        fmp4::makeChunksBuilder;
    std::function<std::unique_ptr<ISampleSynchronizator>(const SegmentSynchronizatorParams&)> makeSegmentSynchronizator =
        makeSampleSegmentSynchronisator;
    std::function<std::unique_ptr<ISampleSynchronizator>(const LowLatencySynchronizatorParams&)>
        makeLowLatencySynchronizator = makeLowLatencyGlobalSynchronizator;
    std::function<std::unique_ptr<lib_parse_es::NALBuilder>(std::uint32_t streamType)> makeNalBuilder =
        lib_parse_es::createNalBuilder;
    std::function<std::unique_ptr<imff_samples::SampleBuilder>(std::uint32_t, bool, imff_samples::ISampleListener*)>
        makeSampleBuilder = imff_samples::createSampleBuilder;
};

// Receives the samples of the session's streams and hands them to the synchroniser it owns.
class Fmp4SampleListener : public imff_samples::ISampleListener {
public:
    explicit Fmp4SampleListener(std::unique_ptr<ISampleSynchronizator> synchronizator)
        : m_synchronizator(std::move(synchronizator)) {}
    ~Fmp4SampleListener() override = default;

    void onStreamAdded(std::uint32_t streamType, std::uint32_t streamId) override;
    void onSample(std::unique_ptr<imff_box::ISample>& sample) override;
    void onEnd(std::uint32_t streamId) override;

private:
    std::unique_ptr<ISampleSynchronizator> m_synchronizator;
};

// The chunk builder as two synchronisers share it (separate audio segments): each runs on its own worker, so
// the calls are taken one at a time, and the end of stream goes on only when every synchroniser that has
// streams has ended, so that no output ends while the other synchroniser still delivers to it.
class JoinedSynchronizatorListener final : public ISynchronizatorListener {
public:
    explicit JoinedSynchronizatorListener(ISynchronizatorListener& target) : m_target(target) {}

    // One more synchroniser with streams, whose end is to be awaited.
    void addSource();

    void OnChunks(const SegmentChunks& chunks, bool lastOfSegment) override;
    void OnFirstSegments(const SegmentChunks& first, std::uint64_t timebase, std::uint64_t chunkDuration,
                         std::uint64_t segmentDuration) override;
    void OnEndOfStream() override;
    void OnRestart() override;

private:
    ISynchronizatorListener& m_target;
    std::mutex m_mutex;
    std::uint32_t m_sources = 0;
    std::uint32_t m_ended = 0;
};

class Fmp4Mux final : public IMuxSession {
public:
    struct Options {
        OutputFormat outputFormat = Dash;
        bool inBandParameterSets = false;
        bool psshInFragments = false;
        bool allVideoInInit = false;
        bool driftDetection = false;
        bool offline = false;
        bool playerCompatible = false;
    };

    // Builds the chunk builder, then the synchroniser(s). A missing factory of the parts is a build failure.
    Fmp4Mux(OutputFormat outputFormat, const Fmp4MuxConfig& config, IChunkWarningNotifier* notifier,
            tvrn::log::ILogger& logger, bool inBandParameterSets, bool psshInFragments, bool allVideoInInit,
            bool driftDetection, bool offline, Fmp4MuxParts parts, bool playerCompatible = false);
    ~Fmp4Mux() override;

    // Registers one stream, before its first sample.
    void AddStream(std::uint32_t streamId, const ElementaryStreamAttributes& attributes);
    void SetOutputs(const std::vector<ChunkOutputSeed>& outputs);
    void SetDefaultParentalRating(std::uint32_t age);

    void ConsumeSample(std::uint32_t streamId, IMediaData* sample) override;
    void ConsumeEndOfStream(std::uint32_t streamId) override;
    // Hands the manager to the chunk builder; at the session's end its provider disconnects before it goes.
    void SetEncryptionManager(std::unique_ptr<encryption::EncryptionManager> manager) override;

    // The track id given to a stream at registration.
    std::uint32_t trackIdOf(std::uint32_t streamId) const;
    IChunksBuilder& chunksBuilder() { return *m_chunksBuilder; }

private:
    Fmp4MuxConfig m_config;
    Options m_options;
    Fmp4MuxParts m_parts;
    tvrn::log::prefixed_logger::PrefixedLogger m_logger;
    std::map<std::uint32_t, std::unique_ptr<lib_parse_es::NALBuilder>> m_nalBuilders;
    std::map<std::uint32_t, std::unique_ptr<imff_samples::SampleBuilder>> m_sampleBuilders;
    std::set<std::uint32_t> m_started;
    std::unique_ptr<IChunksBuilder> m_chunksBuilder;
    std::unique_ptr<JoinedSynchronizatorListener> m_joinedListener;  // only for separate audio segments
    std::set<const Fmp4SampleListener*> m_listenersWithStreams;
    std::unique_ptr<Fmp4SampleListener> m_mainListener;
    std::unique_ptr<Fmp4SampleListener> m_audioListener;  // only for separate audio segments
    std::uint32_t m_nextTrackId = 2;
    std::map<std::uint32_t, std::uint32_t> m_trackIds;
};

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
