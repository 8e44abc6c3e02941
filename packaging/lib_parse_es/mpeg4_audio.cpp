#include "packaging/lib_parse_es/mpeg4_audio.h"

#include <stdexcept>

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {
namespace mpeg4_audio {

namespace {

[[noreturn]] void notImplemented() { throw std::runtime_error("mpeg4_audio(__LINE__): not implemented"); }

std::uint32_t readObjectType(BitReader& reader) {
    const std::uint32_t type = reader.readBits(5);
    return type == 31 ? 32 + reader.readBits(6) : type;
}

// A sampling frequency index with its 24-bit escape; the frequency goes to `frequency`.
std::uint32_t readSamplingFrequency(BitReader& reader, std::uint32_t& frequency) {
    const std::uint32_t index = reader.readBits(4);
    frequency = index == 15 ? reader.readBits(24) : samplingFrequency(index);
    return index;
}

// program_config_element(): only stepped over; its comment is aligned to the start of the configuration.
void skipProgramConfigElement(BitReader& reader, std::size_t configStartBit) {
    reader.skipBits(4 + 2 + 4);  // element_instance_tag, object_type, sampling_frequency_index
    const std::uint32_t front = reader.readBits(4);
    const std::uint32_t side = reader.readBits(4);
    const std::uint32_t back = reader.readBits(4);
    const std::uint32_t lfe = reader.readBits(2);
    const std::uint32_t assocData = reader.readBits(3);
    const std::uint32_t validCc = reader.readBits(4);
    if (reader.readFlag()) reader.skipBits(4);  // mono_mixdown_element_number
    if (reader.readFlag()) reader.skipBits(4);  // stereo_mixdown_element_number
    if (reader.readFlag()) reader.skipBits(3);  // matrix_mixdown_idx, pseudo_surround_enable
    reader.skipBits((front + side + back) * 5 + lfe * 4 + assocData * 4 + validCc * 5);
    const std::size_t misalignment = (reader.bitPosition() - configStartBit) % 8;
    if (misalignment != 0) reader.skipBits(8 - misalignment);
    reader.skipBits(std::size_t{reader.readBits(8)} * 8);  // comment_field_data
}

void parseGASpecificConfig(BitReader& reader, AudioSpecificConfig& config, std::size_t configStartBit) {
    config.frameLengthFlag = reader.readFlag();
    config.dependsOnCoreCoder = reader.readFlag();
    if (config.dependsOnCoreCoder) config.coreCoderDelay = reader.readBits(14);
    config.extensionFlag = reader.readFlag();
    if (config.channelConfiguration == 0) skipProgramConfigElement(reader, configStartBit);
    if (config.audioObjectType == 6 || config.audioObjectType == 20) reader.skipBits(3);  // layerNr
    if (config.extensionFlag) {
        // Only the error-resilient object types, which are refused before this point, have fields here.
        reader.skipBits(1);  // extensionFlag3
    }
}

}  // namespace

std::uint32_t samplingFrequency(std::uint32_t index) {
    static constexpr std::uint32_t kTable[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                 22050, 16000, 12000, 11025, 8000,  7350};
    return index < 13 ? kTable[index] : 0;
}

bool parseAudioSpecificConfig(BitReader& reader, AudioSpecificConfig& config) {
    const std::size_t start = reader.bitPosition();
    config = AudioSpecificConfig{};
    config.audioObjectType = readObjectType(reader);
    config.signalledObjectType = config.audioObjectType;
    config.samplingFrequencyIndex = readSamplingFrequency(reader, config.samplingFrequency);
    config.channelConfiguration = reader.readBits(4);
    if (config.audioObjectType == 5 || config.audioObjectType == 29) {
        // Explicit, hierarchical signalling of SBR (and PS): the output rate, then the core's object type.
        config.sbrPresentFlag = 1;
        config.psPresentFlag = config.audioObjectType == 29 ? 1 : -1;
        config.extensionSamplingFrequencyIndex = readSamplingFrequency(reader, config.extensionSamplingFrequency);
        config.audioObjectType = readObjectType(reader);
        if (config.audioObjectType == 22) config.extensionChannelConfiguration = reader.readBits(4);
    }
    if (!reader.good()) return false;
    const std::uint32_t type = config.audioObjectType;
    if (type < 32 && ((0xDEu >> type) & 1u) != 0) {
        parseGASpecificConfig(reader, config, start);
    } else if (type == 8 || type == 9 || (type >= 12 && type <= 17) || (type >= 19 && type <= 27)) {
        notImplemented();
    }
    if (!reader.good() || config.samplingFrequency == 0) return false;
    if (config.sbrPresentFlag == 1 && config.extensionSamplingFrequency == 0) return false;
    return true;
}

bool parseStreamMuxConfig(BitReader& reader, StreamMuxConfig& config) {
    config = StreamMuxConfig{};
    if (reader.readFlag()) notImplemented();  // audioMuxVersion
    config.allStreamsSameTimeFraming = reader.readFlag();
    config.numSubFrames = reader.readBits(6);
    config.numProgram = reader.readBits(4);
    config.numLayer = reader.readBits(3);
    if (!reader.good() || config.numSubFrames != 0 || config.numProgram != 0 || config.numLayer != 0) return false;
    config.configStartBit = reader.bitPosition();
    if (!parseAudioSpecificConfig(reader, config.audioSpecificConfig)) return false;
    config.configEndBit = reader.bitPosition();
    config.frameLengthType = reader.readBits(3);
    switch (config.frameLengthType) {
        case 0: config.latmBufferFullness = reader.readBits(8); break;
        case 1: reader.skipBits(9); break;  // frameLength
        case 3:
        case 4:
        case 5: reader.skipBits(6); break;  // CELPframeLengthTableIndex
        case 6:
        case 7: reader.skipBits(1); break;  // HVXCframeLengthTableIndex
        default: return false;
    }
    config.otherDataPresent = reader.readFlag();
    if (config.otherDataPresent) {
        bool escape = true;
        for (int i = 0; escape && i < 8 && reader.good(); ++i) {
            escape = reader.readFlag();
            config.otherDataLenBits = (config.otherDataLenBits << 8) + reader.readBits(8);
        }
        if (escape) return false;
    }
    config.crcCheckPresent = reader.readFlag();
    if (config.crcCheckPresent) reader.skipBits(8);
    return reader.good();
}

}  // namespace mpeg4_audio
}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
