#pragma once
// Receives the aligned chunks of the synchroniser(s), fixes the session's time origin, numbers segments and
// chunks, serialises them and writes them to each output. Watches the wall clock for drift.
// Every callback runs on the thread that delivers the chunks; nothing here takes a lock.
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "packaging/fmp4/chunks/chunk_serializer.h"
#include "packaging/fmp4/chunks/parental_rating.h"
#include "packaging/fmp4/fmp4_mux/chunks_builder_interface.h"
#include "packaging/fmp4/fmp4_mux/fmp4_mux.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// Milliseconds since 1970-01-01 UTC.
std::int64_t systemUtcMs();

// One output and its numbering.
struct ChunkOutput {
    std::string name;
    std::vector<std::int32_t> streamIds;
    IOutputFmp4* output = nullptr;
    std::uint64_t firstNumber = 1;
    std::uint64_t segmentNumber = 1;
    std::uint64_t chunkNumber = 1;
    std::uint64_t timescale = 10000000;
    std::uint64_t timebaseDenominator = 1;
    std::uint64_t chunkDuration = 0;    // in units of 1 / timebaseDenominator s
    std::uint64_t segmentDuration = 0;  // same units
    bool atSegmentStart = false;
};

// A registered stream: the host's attributes and what the builder adds to them.
struct ChunkStreamRecord {
    ElementaryStreamAttributes attributes;
    std::uint32_t trackId = 0;
    std::vector<std::uint8_t> initialisationVector;  // for sample encryption
    std::uint32_t sampleDescriptionIndex = 1;
};

// No drift while the expected segment number is at most one ahead of the current one and at most two behind.
constexpr bool segmentNumberWithinTolerance(std::uint64_t current, std::uint64_t expected) {
    return expected <= current + 1 && current <= expected + 2;
}

// Whether `segments` can start a new numbering: every chunk at most 1.25 times the segment duration, video and
// audio starts within 150 ms of each other, video starts within 50 ms. The reason of a failure, or nothing.
std::optional<std::string> syncPointFailure(const SegmentChunks& segments, std::uint64_t segmentDurationMs);

class ChunksBuilder final : public IChunksBuilder {
public:
    // The clock of the parameters, or the system's UTC clock when they have none.
    explicit ChunksBuilder(const ChunksBuilderParams& params);
    ~ChunksBuilder() override;

    void AddStream(std::uint32_t streamId, std::uint32_t trackId, const ElementaryStreamAttributes& attributes) override;
    void SetOutputs(const std::vector<ChunkOutputSeed>& outputs, bool inBandParameterSets, bool psshInFragments,
                    bool allVideoInInit) override;
    void SetDefaultParentalRating(std::uint32_t age) override;
    void SetEncryptionManager(std::unique_ptr<encryption::EncryptionManager> manager) override;
    encryption::EncryptionManager* GetEncryptionManager() override { return m_encryption.get(); }

    void OnChunks(const SegmentChunks& chunks, bool lastOfSegment) override;
    void OnFirstSegments(const SegmentChunks& first, std::uint64_t timebase, std::uint64_t chunkDuration,
                         std::uint64_t segmentDuration) override;
    void OnEndOfStream() override;
    void OnRestart() override;

    // For inspection.
    const std::map<int, ChunkOutput>& outputs() const { return m_outputs; }
    bool aligned() const { return m_aligned; }
    std::int64_t timeOrigin() const { return m_timeOrigin; }

private:
    struct HeldChunks {
        SegmentChunks segments;
        bool last;
    };

    void checkDrift(const SegmentChunks& segments);
    void buildChunk(const SegmentChunks& segments, bool last);
    // The key of the chunk's middle, then the samples of its audio and video streams encrypted in place.
    void updateKeyAndEncrypt(const SegmentChunks& segments);
    bool encrypting() const { return m_encryption && m_encryption->hasProvider(); }
    std::string labelOf(int index, const ChunkOutput& output) const;
    std::uint64_t segmentMs(const ChunkOutput& output) const;
    // Takes the rating blocks of the first video stream's samples; its chunk's start (100 ns), if there is one.
    std::optional<std::int64_t> updateParentalRatings(const SegmentChunks& segments);

    bool m_dash;
    bool m_inBandParameterSets = false;
    bool m_psshInFragments = false;
    bool m_allVideoInInit = false;
    bool m_playerCompatible = false;
    bool m_sparseStreamsHoldOrigin = true;
    std::function<void(const std::string&)> m_chunkDump;
    Fmp4MuxConfig m_config;
    std::map<std::uint32_t, ChunkStreamRecord> m_streams;
    std::map<std::uint32_t, ElementaryStreamAttributes> m_attributes;  // the same, as the labels take them
    std::map<int, ChunkOutput> m_outputs;
    bool m_driftDetection;
    std::optional<std::int64_t> m_sessionStartMs;
    bool m_aligned = false;
    std::int64_t m_timeOrigin = 0;                       // 100 ns units
    std::map<std::uint32_t, std::int64_t> m_earliest;    // per stream, 100 ns units
    std::deque<HeldChunks> m_held;
    ParentalRatings m_ratings;
    ChunkBytes m_room;  // the last chunk's bytes, written over by the next
    std::unique_ptr<encryption::EncryptionManager> m_encryption;
    std::function<std::int64_t()> m_clock;
    tvrn::log::ILogger& m_logger;
};

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
