#include "packaging/lib_parse_es/nal_aac.h"

#include "packaging/lib_parse_es/bit_reader.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

bool NALAACADTS::parse() {
    if (parsed) return true;
    if (length < 7 || capacity <= 0) return false;
    BitReader reader(bytes(), length);
    if (reader.readBits(12) != 0xFFF) return false;
    reader.skipBits(1);  // ID
    if (reader.readBits(2) != 0) return false;  // layer
    const bool protectionAbsent = reader.readFlag();
    const std::uint32_t objectTypeMinusOne = reader.readBits(2);
    const std::uint32_t index = reader.readBits(4);
    reader.skipBits(1);  // private_bit
    const std::uint32_t channels = reader.readBits(3);
    reader.skipBits(4);  // original_copy, home, copyright_identification_bit and _start
    const std::uint32_t frameBytes = reader.readBits(13);
    reader.skipBits(11);  // adts_buffer_fullness
    const std::uint32_t rawDataBlocks = reader.readBits(2);
    if (!reader.good() || rawDataBlocks != 0) return false;
    profile = objectTypeMinusOne;
    samplingFrequencyIndex = index;
    sampleRate = mpeg4_audio::samplingFrequency(index);
    channelConfiguration = channels;
    frameLength = frameBytes;
    headerSize = protectionAbsent ? 7 : 9;
    parsed = true;
    return true;
}

bool NALAACLATMLOAS::parse() {
    if (parsed) return true;
    if (length < 6 || capacity <= 0) return false;
    BitReader reader(bytes(), length);
    if (reader.readBits(11) != 0x2B7) return false;
    const std::uint32_t muxLengthBytes = reader.readBits(13);
    const std::uint32_t size = muxLengthBytes + 3;
    if (size != length) return false;
    const bool useSameStreamMux = reader.readFlag();
    mpeg4_audio::StreamMuxConfig config;
    std::uint32_t rate = 0;
    if (!useSameStreamMux) {
        if (!mpeg4_audio::parseStreamMuxConfig(reader, config)) return false;
        if (config.audioSpecificConfig.samplingFrequencyIndex == 15 || !config.allStreamsSameTimeFraming)
            return false;
        rate = config.audioSpecificConfig.samplingFrequency;
    }
    frameSize = size;
    configPresent = !useSameStreamMux;
    if (configPresent) {
        muxConfig = config;
        sampleRate = rate;
        channelConfiguration = config.audioSpecificConfig.channelConfiguration;
        bitRate = static_cast<std::uint32_t>((std::uint64_t{frameSize} * sampleRate / 1024) * 8);
        configStartBit = config.configStartBit;
        configEndBit = config.configEndBit;
    }
    payloadStartBit = reader.bitPosition();
    parsed = true;
    return true;
}

bool parseAACRawPacket(const NAL& nal, AACRawHeader& header) {
    if (nal.length < 16 || nal.capacity <= 0) return false;
    BitReader reader(nal.bytes(), nal.length);
    for (std::uint8_t marker : kAACRawMarker)
        if (reader.readByte() != marker) return false;
    AACRawHeader h;
    h.packetSize = reader.readBits(32);
    h.bitRate = reader.readBits(32);
    h.configBits = reader.readBits(32);
    if (h.packetSize != nal.length || h.configBits == 0 || h.configBits > 8 * 1024) return false;
    h.configBytes = (h.configBits + 7) / 8;
    if (nal.length < std::uint64_t{h.configBytes} + 20) return false;
    BitReader config(nal.bytes() + 16, h.configBytes);
    if (!mpeg4_audio::parseAudioSpecificConfig(config, h.config) || config.bitPosition() > h.configBits)
        return false;
    reader.seekByte(16 + h.configBytes);
    h.payloadLength = reader.readBits(32);
    if (!reader.good() || std::uint64_t{h.configBytes} + h.payloadLength + 20 != nal.length) return false;
    const bool sbr = h.config.sbrPresentFlag == 1;
    h.sampleRate = sbr ? h.config.extensionSamplingFrequency : h.config.samplingFrequency;
    h.frameSamples = sbr ? 2048 : (h.config.frameLengthFlag ? 960 : 1024);
    h.channelConfiguration = h.config.channelConfiguration;
    if (h.config.psPresentFlag == 1) h.channelConfiguration *= 2;
    h.headerSize = h.configBytes + 20;
    if (h.sampleRate == 0) return false;
    header = h;
    return true;
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
