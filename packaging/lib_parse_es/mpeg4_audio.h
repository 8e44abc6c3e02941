#pragma once
// MPEG-4 audio configuration: the AudioSpecificConfig and the StreamMuxConfig of LATM (ISO/IEC 14496-3).
// Both parse through a BitReader; a configuration of an object type that this code does not carry throws a
// std::runtime_error with the text "mpeg4_audio(__LINE__): not implemented".
#include <cstdint>

#include "packaging/lib_parse_es/bit_reader.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {
namespace mpeg4_audio {

// The sampling frequency of an index 0 to 12; 0 for 13 to 15 and anything larger.
std::uint32_t samplingFrequency(std::uint32_t index);

struct AudioSpecificConfig {
    std::uint32_t audioObjectType = 0;  // for explicit SBR/PS signalling, the object type of the core
    std::uint32_t signalledObjectType = 0;  // the first object type read: 5 or 29 for HE-AAC
    std::uint32_t samplingFrequencyIndex = 0;
    std::uint32_t samplingFrequency = 0;
    std::uint32_t channelConfiguration = 0;
    std::int32_t sbrPresentFlag = -1;
    std::int32_t psPresentFlag = -1;
    std::uint32_t extensionSamplingFrequencyIndex = 0;
    std::uint32_t extensionSamplingFrequency = 0;
    std::uint32_t extensionChannelConfiguration = 0;
    // GASpecificConfig
    bool frameLengthFlag = false;
    bool dependsOnCoreCoder = false;
    std::uint32_t coreCoderDelay = 0;
    bool extensionFlag = false;
};

// Reads an AudioSpecificConfig that begins at the reader's position (a program config element aligns its
// comment to that first bit). False when the bits run out or the sampling frequency is 0; throws for object
// types that are not implemented.
bool parseAudioSpecificConfig(BitReader& reader, AudioSpecificConfig& config);

// What a StreamMuxConfig of audioMuxVersion 0 with one program and one layer says.
struct StreamMuxConfig {
    bool allStreamsSameTimeFraming = false;
    std::uint32_t numSubFrames = 0;
    std::uint32_t numProgram = 0;
    std::uint32_t numLayer = 0;
    AudioSpecificConfig audioSpecificConfig;
    std::size_t configStartBit = 0;  // position of the AudioSpecificConfig in the reader
    std::size_t configEndBit = 0;
    std::uint32_t frameLengthType = 0;
    std::uint32_t latmBufferFullness = 0;
    bool otherDataPresent = false;
    std::uint64_t otherDataLenBits = 0;
    bool crcCheckPresent = false;
};

// Reads a StreamMuxConfig from its audioMuxVersion bit on. Throws for an audioMuxVersion other than 0; false
// when the bits run out and for more than one program, layer or sub-frame, which this code does not carry.
bool parseStreamMuxConfig(BitReader& reader, StreamMuxConfig& config);

}  // namespace mpeg4_audio
}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
