#pragma once
// AAC frames with their transport header still on them: ADTS, LOAS/LATM, and the packager's raw packet.
#include <cstdint>

#include "packaging/lib_parse_es/mpeg4_audio.h"
#include "packaging/lib_parse_es/nal.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

// One ADTS frame, header included.
class NALAACADTS : public NAL {
public:
    explicit NALAACADTS(std::int32_t size) : NAL(StreamType::AAC_ADTS_AUDIO, size) {}
    NALAACADTS(const std::uint8_t* bytes, std::uint32_t size, MediaDataRef keep)
        : NAL(StreamType::AAC_ADTS_AUDIO, bytes, size, std::move(keep)) {}

    // Reads the fixed and variable header once. False for a damaged header and for a frame of more than one
    // raw data block, which is not carried.
    bool parse();

    bool parsed = false;
    std::uint32_t sampleRate = 0;
    std::uint32_t frameLength = 0;
    std::uint32_t headerSize = 0;  // 7, or 9 with the CRC
    std::uint32_t channelConfiguration = 0;
    std::uint32_t samplingFrequencyIndex = 0;
    std::uint32_t profile = 0;  // the MPEG-4 audio object type minus one
};

// One LOAS AudioSyncStream frame: the sync word, the length and one AudioMuxElement with muxConfigPresent set.
class NALAACLATMLOAS : public NAL {
public:
    explicit NALAACLATMLOAS(std::int32_t size) : NAL(StreamType::AAC_LATM_AUDIO, size) {}

    // Reads the frame header and, when present, the StreamMuxConfig, once. False when the frame is short, its
    // sync or length is wrong, or its configuration is not one this code carries (several programs, layers or
    // sub-frames, a sampling frequency index of 15). Throws what the configuration parse throws.
    bool parse();

    bool parsed = false;
    std::uint32_t bitRate = 0;
    std::uint32_t sampleRate = 0;  // of the configuration, when present
    std::uint32_t channelConfiguration = 0;
    std::uint32_t frameSize = 0;  // the whole frame, sync and length included
    bool configPresent = false;   // useSameStreamMux was 0
    mpeg4_audio::StreamMuxConfig muxConfig;
    // Bit positions within the frame: the AudioSpecificConfig (when present) and the PayloadLengthInfo.
    std::size_t configStartBit = 0;
    std::size_t configEndBit = 0;
    std::size_t payloadStartBit = 0;
};

// One raw packet: marker FF FA FA FA, packet size, bit rate, configuration bit length, AudioSpecificConfig,
// payload length, payload; all numbers 32-bit big-endian.
class NALAACRaw : public NAL {
public:
    explicit NALAACRaw(std::int32_t size) : NAL(StreamType::AAC_RAW_AUDIO, size) {}
};

struct AACRawHeader {
    std::uint32_t packetSize = 0;
    std::uint32_t bitRate = 0;
    std::uint32_t configBits = 0;
    std::uint32_t configBytes = 0;
    mpeg4_audio::AudioSpecificConfig config;
    std::uint32_t sampleRate = 0;    // the output rate: the SBR rate for HE-AAC
    std::uint32_t frameSamples = 0;  // at that rate: 2048 with SBR, 960 or 1024 without
    std::uint32_t channelConfiguration = 0;  // doubled when parametric stereo makes stereo of a mono core
    std::uint32_t payloadLength = 0;
    std::uint32_t headerSize = 0;  // where the raw AAC frame begins
};

// Reads a raw packet. False when it is short, its lengths disagree with each other or with the packet, or its
// configuration can't be read; throws what the configuration parse throws.
bool parseAACRawPacket(const NAL& nal, AACRawHeader& header);

inline constexpr std::uint8_t kAACRawMarker[4] = {0xFF, 0xFA, 0xFA, 0xFA};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
