#pragma once
// A sample as both the synchroniser and the box layer see it, over one Sample of the sample model.
#include <memory>

#include "packaging/fmp4_types/sync_sample.h"
#include "packaging/imff_samples/sample.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

using imff_samples::Sample;

class Fmp4Sample final : public ISyncSample, public imff_box::ISample {
public:
    explicit Fmp4Sample(std::shared_ptr<Sample> sample);

    // The synchroniser's view. Times are in 100 ns units, and 0 for a configuration sample or a sample
    // without the value or its timescale.
    std::uint32_t getStreamId() const override { return m_sample->streamId; }
    bool isSync() const override { return m_sample->sync; }
    bool getDataId(std::uint64_t& dataId) const override;
    bool hasDiscontinuity() const override { return false; }
    std::int64_t getDuration() const override;
    std::int64_t getEndTime() const override;
    std::int64_t getTime() const override;
    bool getOwnTimescale(std::uint64_t& timescale) const override { return m_sample->getTimescale(timescale); }
    bool getOwnDuration(std::int64_t& duration) const override { return m_sample->getDuration(duration); }
    bool isConfiguration() const override { return m_sample->kind >= 2 && m_sample->kind <= 6; }
    std::uint32_t getConfigurationIndex() const override { return m_configurationClass; }
    std::uint32_t getConfigurationCount() const override { return m_codecRank; }
    std::uint32_t getStreamKind() const override { return m_streamKind; }

    // The box layer's view, forwarded unchanged.
    bool getPts(std::int64_t& pts) const override { return m_sample->getPts(pts); }
    bool getDts(std::int64_t& dts) const override { return m_sample->getDts(dts); }
    bool getTimescale(std::uint64_t& timescale) const override { return m_sample->getTimescale(timescale); }
    bool getDuration(std::int64_t& duration) const override { return m_sample->getDuration(duration); }
    std::uint32_t getSapType() const override { return m_sample->getSapType(); }
    std::size_t getSize() const override { return m_sample->getSize(); }
    void getData(std::uint8_t* dest) const override { m_sample->getData(dest); }
    void getDataReferring(std::uint8_t* dest, std::size_t base, std::size_t least,
                          tvrn::system::KeptBytesList& references) const override {
        m_sample->getDataReferring(dest, base, least, references);
    }
    bool getEncryptionInfo(imff_box::SampleEncryptionInfo& info) const override {
        return m_sample->getEncryptionInfo(info);
    }

    const std::shared_ptr<Sample>& sample() const { return m_sample; }
    std::int32_t kind() const { return m_sample->kind; }
    std::uint32_t inputType() const { return m_sample->inputType; }

private:
    std::int64_t toHundredNs(std::int64_t value) const;
    bool hasTimeBase() const;

    std::shared_ptr<Sample> m_sample;
    std::uint32_t m_streamKind;
    std::uint32_t m_codecRank;
    std::uint32_t m_configurationClass;
};

// The start of a chunk at a timescale: its first sample's decoding time, exactly rescaled; 0 when empty.
std::int64_t chunkStartTime(const StreamChunk& chunk, std::uint64_t timescale);
// Video when the first sample is of kind 0, 2, 3, 4 or 5; audio for 1 and 6.
bool chunkIsVideo(const StreamChunk& chunk);
bool chunkIsAudio(const StreamChunk& chunk);
// The kind of a chunk's first sample, or -1 for an empty chunk.
std::int32_t chunkFirstKind(const StreamChunk& chunk);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
