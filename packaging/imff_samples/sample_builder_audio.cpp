#include "packaging/imff_samples/sample_builder_audio.h"

#include <stdexcept>

#include "packaging/imff_samples/sample_builder_video.h"
#include "packaging/lib_parse_es/bit_reader.h"
#include "packaging/lib_parse_es/nal_aac.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

using lib_parse_es::BitReader;
using lib_parse_es::NalTimingInfo;
using lib_parse_es::StreamType;

std::int64_t rescaleFrom90kHz(std::int64_t ticks, std::uint32_t rate) {
    const std::int64_t r = rate;
    return (ticks / 90000) * r + (ticks % 90000) * r / 90000;
}

void SampleBuilderAudio::sendDecoderConfig(std::uint32_t inputType) {
    auto config = std::make_unique<Sample>();
    config->streamId = streamId;
    config->kind = KindDecoderConfiguration;
    config->inputType = inputType;
    config->hasTimescale = true;
    config->timescale = kVideoTimescale;
    auto nal = std::make_unique<NAL>(-1, static_cast<std::int32_t>(decoderConfig.size()));
    nal->append(decoderConfig.data(), decoderConfig.size());
    config->addNal(std::move(nal));
    emit(std::move(config));
}

void SampleBuilderAudio::emitFrameWithSync(std::uint32_t inputType, std::unique_ptr<NAL> payload, std::int64_t pts,
                                           std::uint32_t rate, std::int64_t duration, const NalTimingInfo& timing,
                                           bool sync) {
    auto sample = std::make_unique<Sample>();
    sample->sync = sync;
    sample->streamId = streamId;
    sample->kind = KindAudio;
    sample->inputType = inputType;
    sample->hasTimescale = true;
    sample->timescale = rate;
    sample->hasPts = sample->hasDts = true;
    sample->pts = sample->dts = pts;
    sample->hasDuration = true;
    sample->duration = duration;
    sample->hasDataId = timing.hasDataId != 0;
    sample->dataId = timing.dataId;
    sample->addNal(std::move(payload));
    emit(std::move(sample));
}

// ---- ADTS ----

void SampleBuilderAACADTSAudio::onNal(std::unique_ptr<NAL>& holder) {
    if (!holder || holder->type != StreamType::AAC_ADTS_AUDIO) return;
    auto* frame = dynamic_cast<lib_parse_es::NALAACADTS*>(holder.get());
    if (frame == nullptr || !frame->parse() || frame->sampleRate == 0) return;
    if (!frame->timing.hasTime) return;
    // A frame cut short at the end of the stream, or whose header lies about its length, is dropped.
    if (frame->headerSize >= frame->length || frame->frameLength != frame->length) return;
    if (decoderConfig.empty()) {
        // AudioSpecificConfig: object type (the ADTS profile plus one), sampling index, channels, and a
        // GASpecificConfig of zeros.
        const std::uint32_t objectType = frame->profile + 1;
        const std::uint32_t index = frame->samplingFrequencyIndex;
        decoderConfig = {static_cast<std::uint8_t>((objectType << 3) | (index >> 1)),
                         static_cast<std::uint8_t>(((index & 1) << 7) | ((frame->channelConfiguration << 3) & 0x78))};
        sendDecoderConfig(StreamType::AAC_ADTS_AUDIO);
    }
    sampleRate = static_cast<std::int32_t>(frame->sampleRate);
    const std::int64_t pts = rescaleFrom90kHz(frame->timing.time90kHz(), frame->sampleRate);
    emitFrame(StreamType::AAC_ADTS_AUDIO, copyNal(*frame, frame->headerSize), pts, frame->sampleRate, 1024,
              frame->timing);
}

// ---- LOAS / LATM ----

void SampleBuilderAACLATMAudio::onNal(std::unique_ptr<NAL>& holder) {
    if (!holder || holder->type != StreamType::AAC_LATM_AUDIO) return;
    auto* frame = dynamic_cast<lib_parse_es::NALAACLATMLOAS*>(holder.get());
    if (frame == nullptr) return;
    try {
        if (!frame->parse()) return;
    } catch (const std::runtime_error&) {
        return;
    }
    if (frame->configPresent) {
        sampleRate = static_cast<std::int32_t>(frame->sampleRate);
        m_lengthBytesFraming = frame->muxConfig.frameLengthType == 0;
        if (decoderConfig.empty() && m_lengthBytesFraming) {
            // The AudioSpecificConfig exactly as the element carries it, moved onto byte boundaries.
            BitReader reader(frame->bytes(), frame->length);
            reader.skipBits(frame->configStartBit);
            std::size_t bits = frame->configEndBit - frame->configStartBit;
            std::vector<std::uint8_t> config((bits + 7) / 8, 0);
            for (std::size_t i = 0; bits > 0; ++i) {
                const unsigned take = bits >= 8 ? 8 : static_cast<unsigned>(bits);
                config[i] = static_cast<std::uint8_t>(reader.readBits(take) << (8 - take));
                bits -= take;
            }
            if (!reader.good()) return;
            decoderConfig = std::move(config);
            sendDecoderConfig(StreamType::AAC_LATM_AUDIO);
        }
    }
    // Frames before the first configuration, or under one whose payload lengths are not in bytes, give nothing.
    if (sampleRate <= 0 || decoderConfig.empty() || !m_lengthBytesFraming || !frame->timing.hasTime) return;

    // PayloadLengthInfo: a run of 255s ended by a smaller byte, all summed; then the payload, unaligned.
    BitReader reader(frame->bytes(), frame->length);
    reader.skipBits(frame->payloadStartBit);
    std::uint32_t payloadLength = 0;
    std::uint32_t part = 255;
    while (part == 255 && reader.good()) {
        part = reader.readBits(8);
        payloadLength += part;
    }
    if (!reader.good() || payloadLength == 0 || std::uint64_t{payloadLength} * 8 > reader.bitsLeft()) return;
    m_scratch.assign(payloadLength, 0);
    if (reader.bitPosition() % 8 == 0) {
        const std::uint8_t* from = frame->bytes() + reader.bytePosition();
        m_scratch.assign(from, from + payloadLength);
    } else {
        for (std::uint32_t i = 0; i < payloadLength; ++i) m_scratch[i] = static_cast<std::uint8_t>(reader.readBits(8));
    }
    auto payload = std::make_unique<NAL>(-1, static_cast<std::int32_t>(payloadLength));
    payload->append(m_scratch.data(), payloadLength);
    payload->timing = frame->timing;
    const auto rate = static_cast<std::uint32_t>(sampleRate);
    emitFrame(StreamType::AAC_LATM_AUDIO, std::move(payload), rescaleFrom90kHz(frame->timing.time90kHz(), rate),
              rate, 1024, frame->timing);
}

// ---- raw packets ----

void SampleBuilderAACRAWAudio::onNal(std::unique_ptr<NAL>& holder) {
    if (!holder || holder->type != StreamType::AAC_RAW_AUDIO) return;
    lib_parse_es::AACRawHeader header;
    try {
        if (!lib_parse_es::parseAACRawPacket(*holder, header)) return;
    } catch (const std::runtime_error&) {
        return;
    }
    if (header.sampleRate == 0 || !holder->timing.hasTime || header.payloadLength == 0) return;
    if (decoderConfig.empty()) {
        decoderConfig.assign(holder->bytes() + 16, holder->bytes() + 16 + header.configBytes);
        sendDecoderConfig(StreamType::AAC_RAW_AUDIO);
    }
    sampleRate = static_cast<std::int32_t>(header.sampleRate);
    // The frame lasts 1024 samples of the core; with SBR the rate is the doubled output rate, so 2048.
    emitFrame(StreamType::AAC_RAW_AUDIO, copyNal(*holder, header.headerSize),
              rescaleFrom90kHz(holder->timing.time90kHz(), header.sampleRate), header.sampleRate,
              header.frameSamples, holder->timing);
}

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
