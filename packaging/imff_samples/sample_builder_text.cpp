#include "packaging/imff_samples/sample_builder_text.h"

#include <algorithm>
#include <string>

#include "packaging/imff_box/webvtt_boxes.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

using lib_parse_es::NalTimingInfo;

namespace {

constexpr std::uint64_t kHundredNs = 10000000;

std::unique_ptr<Sample> textSample(std::uint32_t streamId, std::int32_t kind, std::uint32_t inputType,
                                   std::uint64_t timescale) {
    auto sample = std::make_unique<Sample>();
    sample->streamId = streamId;
    sample->kind = kind;
    sample->inputType = inputType;
    sample->hasTimescale = true;
    sample->timescale = timescale;
    sample->sync = true;
    return sample;
}

std::unique_ptr<NAL> plainNal(const std::uint8_t* bytes, std::size_t size) {
    auto nal = std::make_unique<NAL>(-1, static_cast<std::int32_t>(size));
    nal->append(bytes, size);
    return nal;
}

}  // namespace

void SampleBuilderMetadata::onNal(std::unique_ptr<NAL>& nal) {
    if (!nal || (nal->type != fmp4::SCTE_35 && nal->type != fmp4::TTML)) return;
    const bool text = nal->type == fmp4::TTML;
    auto sample = textSample(streamId, text ? KindTimedText : KindMetadata, static_cast<std::uint32_t>(nal->type), 90000);
    sample->hasPts = sample->hasDts = true;
    sample->pts = sample->dts = nal->timing.hasTime ? nal->timing.time90kHz() : 0;
    if (nal->timing.hasDuration) {
        sample->hasDuration = true;
        sample->duration = nal->timing.duration90kHz();
    }
    auto copy = plainNal(nal->bytes(), nal->length);
    copy->timing = nal->timing;
    sample->addNal(std::move(copy));
    emit(std::move(sample));
}

std::vector<std::uint8_t> webVttCueBoxes(std::string_view item, bool zeroTerminated) {
    using namespace imff_box;
    std::unique_ptr<Box> box;
    if (item.empty()) {
        box = std::make_unique<VTTEmptyCueBox>();
    } else {
        const std::size_t lineEnd = item.find('\n');
        const std::string settings(item.substr(0, lineEnd));
        const std::string text(lineEnd == std::string_view::npos ? std::string_view{} : item.substr(lineEnd + 1));
        auto cue = std::make_unique<VTTCueBox>(text, zeroTerminated);
        if (!settings.empty()) cue->addOptional(std::make_shared<CueSettingsBox>(settings, zeroTerminated));
        box = std::move(cue);
    }
    std::vector<std::uint8_t> bytes(box->getSize());
    ImffBitWriter writer(bytes.data(), bytes.size());
    binarizeChecked(*box, writer);
    return bytes;
}

void SampleBuilderWebVtt::onNal(std::unique_ptr<NAL>& nal) {
    if (!nal || nal->type != fmp4::WEBVTT || !nal->timing.hasTime || !nal->timing.hasDuration) return;
    auto sample = textSample(streamId, KindTimedText, fmp4::WEBVTT, kHundredNs);
    sample->hasPts = sample->hasDts = sample->hasDuration = true;
    sample->pts = sample->dts = nal->timing.time;
    sample->duration = nal->timing.duration;
    const std::vector<std::uint8_t> boxes =
        webVttCueBoxes(std::string_view(reinterpret_cast<const char*>(nal->bytes()), nal->length), zeroTerminated);
    auto payload = plainNal(boxes.data(), boxes.size());
    payload->timing = nal->timing;
    sample->addNal(std::move(payload));
    emit(std::move(sample));
}

void SampleBuilderTimedText::emitGap(std::int64_t at, std::int64_t duration) {
    auto sample = textSample(streamId, KindTimedText3gpp, fmp4::TX3G, kHundredNs);
    sample->hasPts = sample->hasDts = sample->hasDuration = true;
    sample->pts = sample->dts = at;
    sample->duration = duration;
    constexpr std::uint8_t kEmptyText[2] = {0, 0};
    sample->addNal(plainNal(kEmptyText, 2));
    emit(std::move(sample));
}

void SampleBuilderTimedText::onNal(std::unique_ptr<NAL>& nal) {
    if (!nal || nal->type != fmp4::SRT) return;
    const NalTimingInfo& timing = nal->timing;
    if (m_lastEnd != 0) emitGap(m_lastEnd, timing.time - m_lastEnd);
    // A 3GPP text sample: the text's length in 16 bits, then the text (longer texts are cut at 65535 bytes).
    const std::size_t length = std::min<std::size_t>(nal->length, 0xFFFF);
    auto text = std::make_unique<NAL>(-1, static_cast<std::int32_t>(length + 2));
    const std::uint8_t prefix[2] = {static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
    text->append(prefix, 2);
    text->append(nal->bytes(), length);
    auto sample = textSample(streamId, KindTimedText3gpp, fmp4::TX3G, kHundredNs);
    sample->hasPts = sample->hasDts = sample->hasDuration = true;
    sample->pts = timing.time;
    sample->dts = timing.mediaTime;
    sample->duration = timing.duration;
    sample->sync = timing.syncPoint != 0;
    sample->addNal(std::move(text));
    emit(std::move(sample));
    m_lastEnd = timing.time + timing.duration;
}

void SampleBuilderTimedText::onEnd() {
    emitGap(m_lastEnd, 1);
    SampleBuilder::onEnd();
}

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
