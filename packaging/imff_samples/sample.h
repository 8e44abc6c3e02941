#pragma once
// One access unit or configuration item of a stream, with times in its own timescale.
#include <cstdint>
#include <memory>
#include <vector>

#include "packaging/imff_box/i_sample.h"
#include "packaging/lib_parse_es/nal.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

using imff_box::ISample;
using imff_box::SampleEncryptionInfo;
using lib_parse_es::NAL;

// What a sample holds.
enum SampleKind : std::int32_t {
    KindVideo = 0,
    KindAudio = 1,
    KindSequenceParameterSet = 2,
    KindPictureParameterSet = 3,
    KindVideoParameterSet = 4,
    KindDecoderConfiguration = 6,
    KindMetadata = 7,
    KindTimedText3gpp = 8,
    KindTimedText = 9,
};

// A sample held by a shared pointer can keep its own bytes alive for a writer that refers to them
// (getDataReferring).
class Sample : public ISample, public std::enable_shared_from_this<Sample> {
public:
    Sample() = default;
    ~Sample() override = default;

    bool getPts(std::int64_t& out) const override { return read(hasPts, pts, out); }
    bool getDts(std::int64_t& out) const override { return read(hasDts, dts, out); }
    bool getTimescale(std::uint64_t& out) const override { return read(hasTimescale, timescale, out); }
    bool getDuration(std::int64_t& out) const override { return read(hasDuration, duration, out); }
    std::uint32_t getSapType() const override { return sapType; }
    bool isSync() const override { return sync; }
    std::size_t getSize() const override;
    void getData(std::uint8_t* dest) const override;
    void getDataReferring(std::uint8_t* dest, std::size_t base, std::size_t least,
                          tvrn::system::KeptBytesList& references) const override;
    bool getEncryptionInfo(SampleEncryptionInfo& info) const override;

    void addNal(std::unique_ptr<NAL> nal) { nals.push_back(std::move(nal)); }

    std::unique_ptr<SampleEncryptionInfo> encryptionInfo;
    std::vector<std::unique_ptr<NAL>> nals;
    std::uint32_t streamId = 0;
    std::int32_t kind = KindVideo;
    std::uint32_t inputType = fmp4::STREAM_TYPE_UNSET;
    bool hasTimescale = false;
    std::uint64_t timescale = 0;
    bool hasPts = false;
    std::int64_t pts = 0;
    bool hasDts = false;
    std::int64_t dts = 0;
    bool hasDuration = false;
    std::int64_t duration = 0;
    bool hasDataId = false;
    std::uint64_t dataId = 0;
    bool sync = false;
    std::uint32_t sapType = 0;
    bool hasParentalRating = false;
    std::shared_ptr<const fmp4::ParentalRatingEventBlock> parentalRating;
    std::vector<std::uint8_t> payload;

private:
    template <typename T>
    static bool read(bool has, T value, T& out) {
        if (!has) return false;
        out = value;
        return true;
    }
};

class ISampleListener {
public:
    virtual ~ISampleListener() = default;
    // Called when the session registers a stream, before its first sample.
    virtual void onStreamAdded(std::uint32_t streamType, std::uint32_t streamId) = 0;
    // Ownership passes with the call; whatever the listener leaves in the holder is destroyed by the caller.
    virtual void onSample(std::unique_ptr<ISample>& sample) = 0;
    virtual void onEnd(std::uint32_t streamId) = 0;
};

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
