#include "packaging/imff_samples/sample_builder_video.h"

#include <span>

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

std::unique_ptr<NAL> copyNal(const NAL& nal, std::uint32_t from) {
    if (auto shared = nal.shareFrom(from)) {
        shared->timing = nal.timing;
        return shared;
    }
    const std::uint32_t size = from < nal.length ? nal.length - from : 0;
    auto copy = std::make_unique<NAL>(-1, static_cast<std::int32_t>(size));
    if (size > 0) copy->append(nal.bytes() + from, size);
    copy->timing = nal.timing;
    return copy;
}

std::unique_ptr<NAL> lengthPrefixedNal(const NAL& nal, std::uint32_t headerOffset) {
    std::uint32_t size = headerOffset < nal.length ? nal.length - headerOffset : 0;
    if (size > 0x7FFFFFFBu) size = 0x7FFFFFFBu;  // the prefix must fit in a unit's capacity
    const std::uint8_t prefix[4] = {static_cast<std::uint8_t>(size >> 24), static_cast<std::uint8_t>(size >> 16),
                                    static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size)};
    // One copy of prefix and payload into storage that is not zero-filled first: a picture's slices are most of
    // the bytes that pass through the packager.
    const std::span<const std::uint8_t> pieces[2] = {{prefix, 4}, {size > 0 ? nal.bytes() + headerOffset : prefix, size}};
    auto copy = std::make_unique<NAL>(-1, std::span<const std::span<const std::uint8_t>>(pieces));
    copy->timing = nal.timing;
    return copy;
}

std::unique_ptr<NAL> takeLengthPrefixed(std::unique_ptr<NAL>& holder, std::uint32_t headerOffset) {
    if (holder->replaceStartCodeWithLength(headerOffset)) return std::move(holder);
    return lengthPrefixedNal(*holder, headerOffset);
}

std::unique_ptr<Sample> SampleBuilderVideo::makeSample(std::int32_t kind, std::uint32_t inputType,
                                                       std::int64_t pts, std::int64_t dts, std::int64_t duration) {
    auto sample = std::make_unique<Sample>();
    sample->streamId = streamId;
    sample->kind = kind;
    sample->inputType = inputType;
    sample->hasTimescale = true;
    sample->timescale = kVideoTimescale;
    sample->hasPts = true;
    sample->pts = pts;
    sample->hasDts = true;
    sample->dts = dts;
    sample->hasDuration = true;
    sample->duration = duration;
    if (lastSei) sample->addNal(std::move(lastSei));
    if (inBandParameterSets) {
        if (lastVps) sample->addNal(std::move(lastVps));
        if (lastSps) sample->addNal(std::move(lastSps));
        if (lastPps) sample->addNal(std::move(lastPps));
    }
    return sample;
}

void SampleBuilderVideo::keepParameterSet(std::unique_ptr<NAL> copy, std::unique_ptr<NAL>& slot, bool& sent,
                                          std::int32_t kind, std::uint32_t inputType) {
    if (!sent) {
        auto config = std::make_unique<Sample>();
        config->streamId = streamId;
        config->kind = kind;
        config->inputType = inputType;
        config->hasTimescale = true;
        config->timescale = kVideoTimescale;
        config->addNal(copyNal(*copy, 0));
        sent = true;
        slot = std::move(copy);
        emit(std::move(config));
        return;
    }
    slot = std::move(copy);
}

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
