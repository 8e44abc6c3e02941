#pragma once
// A sample as the synchronisers see it, and the records of one chunk time slice.
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace tvrn::encoding::packaging::synchronizator::i_sample_synchronizator {
inline namespace v0 {

class ISyncSample {
public:
    virtual std::uint32_t getStreamId() const = 0;
    virtual bool isSync() const = 0;
    virtual bool getDataId(std::uint64_t& dataId) const = 0;
    virtual bool hasDiscontinuity() const = 0;
    // Times in 100 ns units.
    virtual std::int64_t getDuration() const = 0;
    virtual std::int64_t getEndTime() const = 0;
    virtual std::int64_t getTime() const = 0;
    // The sample's own timescale and duration, unscaled.
    virtual bool getOwnTimescale(std::uint64_t& timescale) const = 0;
    virtual bool getOwnDuration(std::int64_t& duration) const = 0;
    virtual bool isConfiguration() const = 0;
    virtual std::uint32_t getConfigurationIndex() const = 0;
    virtual std::uint32_t getConfigurationCount() const = 0;
    virtual std::uint32_t getStreamKind() const = 0;
    virtual ~ISyncSample() = default;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::synchronizator::i_sample_synchronizator

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

using synchronizator::i_sample_synchronizator::ISyncSample;

// The samples of one stream in one chunk, in decode order.
struct StreamChunk {
    std::uint64_t duration = 0;  // 100 ns units
    std::uint32_t sampleDescriptionIndex = 0;
    std::uint8_t dataIdPresent = 0;
    std::uint64_t dataId = 0;
    std::uint8_t discontinuity = 0;
    std::vector<std::shared_ptr<ISyncSample>> samples;
    std::vector<std::uint8_t> protectionData;
};

// One chunk time slice of all streams that have data in it.
struct SegmentChunks {
    std::map<std::uint32_t, std::shared_ptr<StreamChunk>> chunks;
    std::uint32_t count = 0;

    bool empty() const {
        for (const auto& [id, chunk] : chunks)
            if (chunk && !chunk->samples.empty()) return false;
        return true;
    }
};

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
