#include "packaging/fmp4/chunks/audio_sample_entry.h"

#include <stdexcept>
#include <vector>

#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "packaging/lib_parse_es/mpeg4_audio.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

namespace m4a = lib_parse_es::mpeg4_audio;

std::uint32_t channelCountOf(std::uint32_t channelConfiguration) {
    static constexpr std::uint32_t kCounts[15] = {0, 1, 2, 3, 4, 5, 6, 8, 0, 0, 0, 7, 8, 24, 8};
    return channelConfiguration < 15 ? kCounts[channelConfiguration] : 0;
}

AudioSampleEntryResult makeAudioSampleEntry(std::uint32_t streamType, const StreamChunk& firstChunk,
                                            const ElementaryStreamAttributes& attributes) {
    AudioSampleEntryResult result;
    if (streamType != AAC_ADTS_AUDIO && streamType != AAC_LATM_AUDIO && streamType != AAC_RAW_AUDIO) return result;
    std::vector<std::uint8_t> config;
    for (const auto& syncSample : firstChunk.samples) {
        const auto* sample = dynamic_cast<const Fmp4Sample*>(syncSample.get());
        if (sample != nullptr && sample->kind() == imff_samples::KindDecoderConfiguration) {
            sample->sample()->getBytes(config);
            break;
        }
    }
    if (config.empty()) return result;

    m4a::AudioSpecificConfig asc;
    try {
        lib_parse_es::BitReader reader(config.data(), config.size());
        if (!m4a::parseAudioSpecificConfig(reader, asc)) return result;
    } catch (const std::runtime_error&) {
        return result;
    }
    const std::uint32_t sampleRate = asc.sbrPresentFlag == 1 ? asc.extensionSamplingFrequency : asc.samplingFrequency;
    std::uint32_t channels = asc.psPresentFlag == 1 ? 2 : channelCountOf(asc.channelConfiguration);
    if (channels == 0) channels = 2;  // a layout in a program config element: the decoder reads it from there

    auto entry = std::make_shared<codec_box::MP4AudioSampleEntry>();
    entry->channelCount = static_cast<std::uint16_t>(channels);
    entry->sampleRate = sampleRate;
    if (attributes.bitrate > 0) {
        entry->esds.maxBitrate = static_cast<std::uint32_t>(attributes.bitrate);
        entry->esds.averageBitrate = static_cast<std::uint32_t>(attributes.bitrate);
    }
    entry->esds.setDecoderSpecificInfo(config);
    result.entry = entry;

    AudioManifestInfo& info = result.manifest;
    info.fourCC = "mp4a";
    const std::uint32_t objectType =
        asc.signalledObjectType == 5 || asc.signalledObjectType == 29 ? asc.signalledObjectType : asc.audioObjectType;
    info.codecs = "mp4a.40." + std::to_string(objectType);
    info.codecPrivateData = config;
    info.channels = channels;
    info.samplingRate = sampleRate;
    return result;
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
