#include "packaging/fmp4/fmp4_mux/fmp4_mux.h"

#include <cstdio>

#include "packaging/imff_samples/sample.h"
#include "packaging/imff_samples/sample_builder_text.h"
#include "packaging/lib_parse_es/nal_builder_metadata.h"
#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "packaging/synchronizator/sample_segment_synchronisator.h"
#include "packaging/synchronizator_lowlatency/low_latency_global_synchronizator.h"
#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

using tvrn::log::LOG_INFO;
using tvrn::log::LOG_WARNING;

std::unique_ptr<ISampleSynchronizator> makeSampleSegmentSynchronisator(const SegmentSynchronizatorParams& params) {
    return std::make_unique<synchronizator::SampleSegmentSynchronisator>(
        *params.listener, params.segmentDurationMs, params.gopsPerSegment, params.notifier, *params.logger,
        params.offline);
}

std::unique_ptr<ISampleSynchronizator> makeLowLatencyGlobalSynchronizator(const LowLatencySynchronizatorParams& params) {
    return std::make_unique<synchronizator_lowlatency::LowLatencyGlobalSynchronizator>(
        *params.listener, params.chunkDurationMs, params.segmentDurationMs, params.notifier, *params.logger);
}

void Fmp4SampleListener::onStreamAdded(std::uint32_t streamType, std::uint32_t streamId) {
    char label[64];
    std::snprintf(label, sizeof label, "input %d(%s)", static_cast<int>(streamId), streamTypeText(streamType));
    m_synchronizator->addStream(streamId, syncStreamKind(streamType), label);
}

void Fmp4SampleListener::onSample(std::unique_ptr<imff_box::ISample>& sample) {
    auto* concrete = dynamic_cast<Sample*>(sample.get());
    if (concrete == nullptr) return;  // not a sample of the sample model: the caller destroys it
    sample.release();
    m_synchronizator->pushSample(std::make_shared<Fmp4Sample>(std::shared_ptr<Sample>(concrete)));
}

void Fmp4SampleListener::onEnd(std::uint32_t streamId) { m_synchronizator->eof(streamId); }

void JoinedSynchronizatorListener::addSource() {
    std::lock_guard lock(m_mutex);
    ++m_sources;
}

void JoinedSynchronizatorListener::OnChunks(const SegmentChunks& chunks, bool lastOfSegment) {
    std::lock_guard lock(m_mutex);
    m_target.OnChunks(chunks, lastOfSegment);
}

void JoinedSynchronizatorListener::OnFirstSegments(const SegmentChunks& first, std::uint64_t timebase,
                                                   std::uint64_t chunkDuration, std::uint64_t segmentDuration) {
    std::lock_guard lock(m_mutex);
    m_target.OnFirstSegments(first, timebase, chunkDuration, segmentDuration);
}

void JoinedSynchronizatorListener::OnEndOfStream() {
    std::lock_guard lock(m_mutex);
    if (++m_ended == m_sources) m_target.OnEndOfStream();
}

void JoinedSynchronizatorListener::OnRestart() {
    std::lock_guard lock(m_mutex);
    m_target.OnRestart();
}

Fmp4Mux::Fmp4Mux(OutputFormat outputFormat, const Fmp4MuxConfig& config, IChunkWarningNotifier* notifier,
                 tvrn::log::ILogger& logger, bool inBandParameterSets, bool psshInFragments, bool allVideoInInit,
                 bool driftDetection, bool offline, Fmp4MuxParts parts, bool playerCompatible)
    : m_config(config),
      m_options{outputFormat, inBandParameterSets, psshInFragments, allVideoInInit, driftDetection, offline,
                playerCompatible},
      m_parts(std::move(parts)),
      m_logger(logger, "Fmp4 mux: ") {
    if (!m_parts.makeChunksBuilder) throw CorvaneException("no chunk builder available for the session");
    ChunksBuilderParams builderParams{outputFormat, &m_config, driftDetection, &m_logger};
    builderParams.playerCompatible = playerCompatible;
    m_chunksBuilder = m_parts.makeChunksBuilder(builderParams);

    const char* offlineWord = offline ? "Offline " : "";
    if (m_config.tag() <= 2) {
        if (!m_parts.makeSegmentSynchronizator) throw CorvaneException("no segment synchroniser available for the session");
        const auto segmentMs = static_cast<std::uint32_t>(m_config.segmentDurationMs());
        const std::uint32_t gops = m_config.gopsPerSegment();
        // With separate audio segments two synchronisers share the chunk builder.
        ISynchronizatorListener* target = m_chunksBuilder.get();
        if (m_config.tag() == 2) {
            m_joinedListener = std::make_unique<JoinedSynchronizatorListener>(*m_chunksBuilder);
            target = m_joinedListener.get();
        }
        m_mainListener = std::make_unique<Fmp4SampleListener>(m_parts.makeSegmentSynchronizator(
            SegmentSynchronizatorParams{target, segmentMs, gops, notifier, &m_logger, offline}));
        m_logger.WriteMsg(LOG_INFO, "%sSynchronisator : segment of %d ms, %d video GOP in segments", offlineWord,
                          static_cast<int>(segmentMs), static_cast<int>(gops));
        if (m_config.tag() == 2) {
            const std::uint32_t audioMs = m_config.separateAudioSegments().audioSegmentDurationMs;
            m_audioListener = std::make_unique<Fmp4SampleListener>(m_parts.makeSegmentSynchronizator(
                SegmentSynchronizatorParams{target, audioMs, 1, notifier, &m_logger, offline}));
            m_logger.WriteMsg(LOG_INFO, "Audio %sSynchronisator : segment of  %d", offlineWord, static_cast<int>(audioMs));
        }
    } else {
        if (!m_parts.makeLowLatencySynchronizator)
            throw CorvaneException("no low-latency synchroniser available for the session");
        const auto& ll = m_config.lowLatency();
        m_mainListener = std::make_unique<Fmp4SampleListener>(m_parts.makeLowLatencySynchronizator(
            LowLatencySynchronizatorParams{m_chunksBuilder.get(), ll.chunkDurationMs, ll.segmentDurationMs, notifier,
                                           &m_logger}));
    }
}

Fmp4Mux::~Fmp4Mux() {
    // The synchronisers go first: their workers may still call the chunk builder.
    m_audioListener.reset();
    m_mainListener.reset();
    // Then the key server session ends, before the provider goes with the chunk builder.
    encryption::EncryptionManager* manager = m_chunksBuilder ? m_chunksBuilder->GetEncryptionManager() : nullptr;
    if (manager != nullptr) {
        try {
            manager->disconnect();
        } catch (const std::exception& e) {
            m_logger.WriteMsg(LOG_WARNING, "key server disconnection failed: %s", e.what());
        }
    }
}

void Fmp4Mux::SetEncryptionManager(std::unique_ptr<encryption::EncryptionManager> manager) {
    m_chunksBuilder->SetEncryptionManager(std::move(manager));
}

void Fmp4Mux::AddStream(std::uint32_t streamId, const ElementaryStreamAttributes& attributes) {
    // Every video stream is track 1: each video representation is a file of its own.
    const std::uint32_t trackId = isVideo(attributes.type) ? 1 : m_nextTrackId++;
    m_trackIds[streamId] = trackId;

    if (attributes.type == TTML || attributes.type == WEBVTT) {
        ElementaryStreamAttributes withRole = attributes;
        withRole.descriptors.push_back({"Role", "urn:mpeg:dash:role:2011", "subtitle"});
        m_chunksBuilder->AddStream(streamId, trackId, withRole);
    } else {
        m_chunksBuilder->AddStream(streamId, trackId, attributes);
    }

    Fmp4SampleListener* listener =
        (isAudio(attributes.type) && m_audioListener) ? m_audioListener.get() : m_mainListener.get();
    if (m_joinedListener && m_listenersWithStreams.insert(listener).second) m_joinedListener->addSource();
    listener->onStreamAdded(attributes.type, streamId);

    auto nalBuilder = m_parts.makeNalBuilder(attributes.type);
    if (auto* markers = dynamic_cast<lib_parse_es::NALBuilderSCTE35*>(nalBuilder.get())) markers->setLogger(&m_logger);
    const bool inBandFlag = m_options.outputFormat == Smooth ? true : m_options.inBandParameterSets;
    auto sampleBuilder = m_parts.makeSampleBuilder(attributes.type, inBandFlag, listener);
    if (sampleBuilder) sampleBuilder->streamId = streamId;
    if (auto* webVtt = dynamic_cast<imff_samples::SampleBuilderWebVtt*>(sampleBuilder.get()))
        webVtt->zeroTerminated = !m_options.playerCompatible;
    if (nalBuilder) nalBuilder->setListener(sampleBuilder.get());
    if (nalBuilder) m_nalBuilders[streamId] = std::move(nalBuilder);
    if (sampleBuilder) m_sampleBuilders[streamId] = std::move(sampleBuilder);
}

void Fmp4Mux::SetOutputs(const std::vector<ChunkOutputSeed>& outputs) {
    m_chunksBuilder->SetOutputs(outputs, m_options.inBandParameterSets, m_options.psshInFragments,
                                m_options.allVideoInInit);
}

void Fmp4Mux::SetDefaultParentalRating(std::uint32_t age) { m_chunksBuilder->SetDefaultParentalRating(age); }

void Fmp4Mux::ConsumeSample(std::uint32_t streamId, IMediaData* sample) {
    if (!m_started.contains(streamId)) {
        REFERENCE_TIME start = 0;
        REFERENCE_TIME stop = 0;
        // Everything before the first time-stamped buffer of a stream is dropped.
        if (tvrn::com::FAILED(sample->GetTime(&start, &stop))) return;
        m_started.insert(streamId);
    }
    const auto it = m_nalBuilders.find(streamId);
    if (it == m_nalBuilders.end()) return;
    it->second->push(sample);
}

void Fmp4Mux::ConsumeEndOfStream(std::uint32_t streamId) {
    const auto it = m_nalBuilders.find(streamId);
    if (it == m_nalBuilders.end()) return;
    it->second->flush();
}

std::uint32_t Fmp4Mux::trackIdOf(std::uint32_t streamId) const {
    const auto it = m_trackIds.find(streamId);
    return it == m_trackIds.end() ? 0 : it->second;
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
