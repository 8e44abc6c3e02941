#include "packaging/fmp4/chunks/audio_sample_entry.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "packaging/lib_parse_es/mpeg4_audio.h"
#include "packaging/lib_parse_es/nal_audio_frames.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

namespace m4a = lib_parse_es::mpeg4_audio;

std::uint32_t channelCountOf(std::uint32_t channelConfiguration) {
    static constexpr std::uint32_t kCounts[15] = {0, 1, 2, 3, 4, 5, 6, 8, 0, 0, 0, 7, 8, 24, 8};
    return channelConfiguration < 15 ? kCounts[channelConfiguration] : 0;
}

namespace {

constexpr char kDolbyChannelScheme[] = "urn:dolby:dash:audio_channel_configuration:2011";
constexpr char kMpegChannelScheme[] = "urn:mpeg:dash:23003:3:audio_channel_configuration:2011";
constexpr char kAc4ChannelScheme[] = "tag:dolby.com,2015:dash:audio_channel_configuration:2015";

// The AC-4 speaker group mask (ETSI TS 103 190-2: bit 0 L/R, 1 C, 2 Ls/Rs, 3 Lb/Rb, 6 LFE) of the usual layouts
// by channel count; other counts are announced as a stereo pair.
std::uint32_t ac4ChannelMask(std::uint32_t channels) {
    switch (channels) {
        case 1: return 0x000002;
        case 6: return 0x000047;
        case 8: return 0x00004F;
        default: return 0x000001;
    }
}

std::string hex4(std::uint32_t value) {
    char text[8];
    std::snprintf(text, sizeof text, "%04X", value & 0xFFFFu);
    return text;
}

// chanmap locations (bit 0 the most significant of 16) of the channels a dependent substream may add, in the
// order of the locations of chan_loc (bit 0 the least significant of 9): Lc/Rc, Lrs/Rrs, Cs, Ts, Lsd/Rsd,
// Lw/Rw, Lvh/Rvh, Cvh, LFE2.
constexpr unsigned kChanmapOfChanLoc[9] = {5, 6, 7, 8, 9, 10, 11, 12, 14};

std::uint16_t chanLocOf(std::uint16_t chanmap) {
    std::uint16_t loc = 0;
    for (unsigned j = 0; j < 9; ++j)
        if ((static_cast<unsigned>(chanmap) >> (15u - kChanmapOfChanLoc[j])) & 1u) loc = static_cast<std::uint16_t>(loc | (1u << j));
    return loc;
}

codec_box::DolbyDownmix downmixOf(const lib_parse_es::Ac3Downmix& d) {
    return {d.cmixlev, d.surmixlev, d.ltrtcmixlev, d.lorocmixlev, d.ltrtsurmixlev, d.lorosurmixlev, d.dmixmod, d.dsurmod};
}

AudioSampleEntryResult makeDolbyEntry(const std::vector<std::uint8_t>& config) {
    AudioSampleEntryResult result;
    lib_parse_es::Ac3StreamInfo info;
    if (!lib_parse_es::parseAc3StreamInfo(config, info) || info.sampleRate == 0) return result;
    std::uint32_t channels = lib_parse_es::ac3ChannelCount(info.acmod) + (info.lfeon ? 1 : 0);
    std::uint16_t mask = lib_parse_es::ac3ChannelMask(info.acmod, info.lfeon);
    AudioManifestInfo& manifest = result.manifest;
    if (info.isEac3) {
        auto entry = std::make_shared<codec_box::EC3AudioSampleEntry>();
        if (!fillDec3(config, entry->dec3)) return result;
        entry->downmix = downmixOf(info.downmix);
        // Dependent substreams of the first programme add their channels to the core's.
        const auto& first = entry->dec3.substreams.front();
        for (unsigned j = 0; j < 9; ++j) {
            if (!((first.channelLocation >> j) & 1u)) continue;
            const bool pair = j != 2 && j != 3 && j != 7 && j != 8;
            channels += pair ? 2 : 1;
            if (j == 8) mask = static_cast<std::uint16_t>(mask | 0x0002);
            else mask = static_cast<std::uint16_t>(mask | (1u << (15 - kChanmapOfChanLoc[j])));
        }
        manifest.fourCC = "ec-3";
        manifest.codecs = "ec-3";
        result.entry = entry;
    } else {
        auto entry = std::make_shared<codec_box::AC3AudioSampleEntry>();
        entry->dac3.fscod = info.fscod;
        entry->dac3.bsid = info.bsid;
        entry->dac3.bsmod = info.bsmod;
        entry->dac3.acmod = info.acmod;
        entry->dac3.lfeon = info.lfeon;
        entry->dac3.bitRateCode = static_cast<std::uint8_t>(info.frmsizcod >> 1);
        entry->downmix = downmixOf(info.downmix);
        manifest.fourCC = "ac-3";
        manifest.codecs = "ac-3";
        result.entry = entry;
    }
    result.entry->channelCount = static_cast<std::uint16_t>(channels);
    result.entry->sampleRate = info.sampleRate;
    manifest.codecPrivateData = config.size() > 64 ? std::vector<std::uint8_t>() : config;
    manifest.channels = channels;
    manifest.samplingRate = info.sampleRate;
    manifest.channelScheme = kDolbyChannelScheme;
    manifest.channelValue = hex4(mask);
    return result;
}

AudioSampleEntryResult makeMpeg1Entry(const std::vector<std::uint8_t>& config,
                                      const ElementaryStreamAttributes& attributes) {
    AudioSampleEntryResult result;
    // The configuration record: 5 bits of 31, 6 bits of 75, 4 bits of 15, 24 bits of rate, 4 bits of channels.
    if (config.size() < 6 || (config[0] >> 3) != 31) return result;
    const std::uint32_t rate = ((config[1] & 1u) << 23) | (std::uint32_t{config[2]} << 15) |
                               (std::uint32_t{config[3]} << 7) | (config[4] >> 1);
    const std::uint32_t channels = ((config[4] & 1u) << 3) | (config[5] >> 5);
    if (rate == 0 || channels == 0) return result;
    auto entry = std::make_shared<codec_box::MP4AudioSampleEntry>();
    entry->channelCount = static_cast<std::uint16_t>(channels);
    entry->sampleRate = rate;
    entry->esds.objectType = 0x6B;
    if (attributes.bitrate > 0) {
        entry->esds.maxBitrate = static_cast<std::uint32_t>(attributes.bitrate);
        entry->esds.averageBitrate = static_cast<std::uint32_t>(attributes.bitrate);
    }
    entry->esds.setDecoderSpecificInfo(config);
    result.entry = entry;
    AudioManifestInfo& info = result.manifest;
    info.fourCC = "mp4a";
    info.codecs = "mp4a.6b";
    info.codecPrivateData = config;
    info.channels = channels;
    info.samplingRate = rate;
    info.channelScheme = kMpegChannelScheme;
    info.channelValue = std::to_string(channels);
    return result;
}

AudioSampleEntryResult makeAc4Entry(const std::vector<std::uint8_t>& firstFrame) {
    AudioSampleEntryResult result;
    lib_parse_es::Ac4Toc toc;
    if (!lib_parse_es::parseAc4Toc(firstFrame, toc)) return result;
    auto entry = std::make_shared<codec_box::AC4AudioSampleEntry>();
    entry->dac4.data = lib_parse_es::ac4DecoderSpecificInfo(toc);
    entry->sampleRate = toc.fsIndex == 0 ? 44100 : 48000;
    AudioManifestInfo& info = result.manifest;
    char codecs[32];
    std::snprintf(codecs, sizeof codecs, "ac-4.%02X.%02X.%02X", toc.bitstreamVersion & 0xFFu,
                  toc.presentationVersion & 0xFFu, toc.mdcompat & 0xFFu);
    info.fourCC = "ac-4";
    info.codecs = codecs;
    info.codecPrivateData = entry->dac4.data;
    info.channels = entry->channelCount;
    info.samplingRate = entry->sampleRate;
    char mask[16];
    std::snprintf(mask, sizeof mask, "%06X", ac4ChannelMask(entry->channelCount) & 0xFFFFFFu);
    info.channelScheme = kAc4ChannelScheme;
    info.channelValue = mask;
    result.entry = entry;
    return result;
}

}  // namespace

bool fillDec3(std::span<const std::uint8_t> accessUnit, codec_box::EC3SpecificBox& dec3) {
    dec3.substreams.clear();
    std::uint64_t bytes = 0;
    std::uint32_t tickRate = 0;
    while (accessUnit.size() >= 7 && dec3.substreams.size() <= 8) {
        lib_parse_es::Ac3FrameParameters params;
        lib_parse_es::Ac3StreamInfo info;
        if (!lib_parse_es::parseAc3FrameParameters(accessUnit.data(), params) || !params.isEac3 ||
            !lib_parse_es::parseAc3StreamInfo(accessUnit, info) || info.frameSize > accessUnit.size())
            break;
        if (info.strmtyp == 1) {
            if (dec3.substreams.empty()) break;
            auto& parent = dec3.substreams.back();
            ++parent.numDependentSubstreams;
            if (info.chanmape) parent.channelLocation = static_cast<std::uint16_t>(parent.channelLocation | chanLocOf(info.chanmap));
        } else {
            if (dec3.substreams.empty() && info.substreamId != 0) break;
            if (dec3.substreams.size() == 8) break;
            codec_box::EC3SpecificBox::Substream s;
            s.fscod = info.fscod;
            s.bsid = info.bsid;
            s.reservedAsvcBsmod = info.bsmod;
            s.acmod = info.acmod;
            s.lfeon = info.lfeon;
            dec3.substreams.push_back(s);
            if (tickRate == 0) tickRate = params.sampleRate;
        }
        bytes += info.frameSize;
        accessUnit = accessUnit.subspan(info.frameSize);
    }
    // The data rate of the whole access unit, which lasts 1536 ticks of the scaled rate, in kbit/s.
    dec3.dataRate = static_cast<std::uint16_t>(std::min<std::uint64_t>(bytes * 8 * tickRate / 1536 / 1000, 0x1FFF));
    return !dec3.substreams.empty();
}

AudioSampleEntryResult makeAudioSampleEntry(std::uint32_t streamType, const StreamChunk& firstChunk,
                                            const ElementaryStreamAttributes& attributes) {
    AudioSampleEntryResult result;
    if (streamType != AAC_ADTS_AUDIO && streamType != AAC_LATM_AUDIO && streamType != AAC_RAW_AUDIO &&
        streamType != AC3_AUDIO && streamType != MPEG1_AUDIO && streamType != AC4_AUDIO)
        return result;
    std::vector<std::uint8_t> config;
    for (const auto& syncSample : firstChunk.samples) {
        const auto* sample = dynamic_cast<const Fmp4Sample*>(syncSample.get());
        if (sample != nullptr && sample->kind() == imff_samples::KindDecoderConfiguration) {
            sample->sample()->getBytes(config);
            break;
        }
    }
    if (config.empty()) return result;
    if (streamType == AC3_AUDIO) return makeDolbyEntry(config);
    if (streamType == MPEG1_AUDIO) return makeMpeg1Entry(config, attributes);
    if (streamType == AC4_AUDIO) return makeAc4Entry(config);

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
