#pragma once
// Sync frames of AC-3, E-AC-3 (ETSI TS 102 366), MPEG-1 audio (ISO/IEC 11172-3) and AC-4 (ETSI TS 103 190),
// and the header readings that the sample builders and sample entries need from them.
#include <cstdint>
#include <span>
#include <vector>

#include "packaging/lib_parse_es/nal.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

// What the first bytes of an AC-3 or E-AC-3 sync frame say: enough to cut the stream and time it.
struct Ac3FrameParameters {
    std::uint32_t sampleRate = 0;  // for E-AC-3 scaled so that every sync frame lasts 1536 ticks
    std::uint32_t bitRate = 0;
    std::uint32_t frameSize = 0;  // bytes
    bool isEac3 = false;
    std::uint8_t channelClass = 0;  // 0x40 AC-3 or 0xC0 E-AC-3, OR 1 (no centre pair), 2 (stereo), 4 (more)
};

// Reads the 7 bytes from the sync word 0B 77 on. False when they are no AC-3 (bsid up to 11) or E-AC-3 (bsid 16)
// header, or give an impossible rate or size.
bool parseAc3FrameParameters(const std::uint8_t* header, Ac3FrameParameters& out);

// The downmix metadata of a sync frame, as coded; -1 for a field that the frame does not carry or that its audio
// coding mode has no channels for.
struct Ac3Downmix {
    int cmixlev = -1;  // AC-3, three front channels
    int surmixlev = -1;  // AC-3, surround channels
    int ltrtcmixlev = -1;  // AC-3 alternate syntax (bsid 6) and E-AC-3 mixing metadata, three front channels
    int lorocmixlev = -1;
    int ltrtsurmixlev = -1;  // the same, surround channels
    int lorosurmixlev = -1;
    int dmixmod = -1;  // the same, modes of three channels or more
    int dsurmod = -1;  // two-channel mode
};

// The fields of a sync frame's bit stream information that the "dac3" and "dec3" boxes carry.
struct Ac3StreamInfo {
    bool isEac3 = false;
    std::uint8_t strmtyp = 0;  // E-AC-3: 0 independent, 1 dependent, 2 converted AC-3
    std::uint8_t substreamId = 0;
    std::uint8_t fscod = 0;
    std::uint8_t frmsizcod = 0;  // AC-3
    std::uint8_t bsid = 0;
    std::uint8_t bsmod = 0;
    std::uint8_t acmod = 0;
    bool lfeon = false;
    bool chanmape = false;
    std::uint16_t chanmap = 0;  // dependent substreams: the custom channel map, when chanmape
    std::uint32_t frameSize = 0;
    std::uint32_t sampleRate = 0;  // the audio sampling rate
    Ac3Downmix downmix;
};

// Parses the bit stream information of the sync frame at the start of `bytes`. False on a short or invalid frame.
bool parseAc3StreamInfo(std::span<const std::uint8_t> bytes, Ac3StreamInfo& out);

// The channel count of an AC-3 audio coding mode, without the LFE channel.
std::uint32_t ac3ChannelCount(std::uint8_t acmod);
// The channel mask of the Dolby DASH audio channel configuration scheme for a coding mode and LFE flag.
std::uint16_t ac3ChannelMask(std::uint8_t acmod, bool lfeon);

// One AC-3 or E-AC-3 sync frame.
class NALAC3 : public NAL {
public:
    explicit NALAC3(std::int32_t size) : NAL(StreamType::AC3_AUDIO, size) {}
    bool latched = false;  // the parameters below were read
    std::uint32_t sampleRate = 0;
    std::uint32_t bitRate = 0;
    std::uint32_t frameSize = 0;
    bool isEac3 = false;
    std::uint8_t channelClass = 0;
};

// The header of an MPEG-1 audio frame. `layerField` is the 2-bit field as coded (3 Layer I, 2 Layer II,
// 1 Layer III).
struct Mpeg1AudioHeader {
    std::uint32_t layerField = 0;
    std::uint32_t sampleRate = 0;
    std::uint32_t channels = 0;
    std::uint32_t frameSize = 0;
};

// The size of the frame whose first three header bytes are given, or 0 when they are no MPEG-1 Layer I or II
// header (with `acceptLayer3`, Layer III too), or a free-format or reserved one.
std::uint32_t mpeg1FrameSize(const std::uint8_t* header, bool acceptLayer3);

// Reads the 4-byte header for the sample builder: layer field, rate and channels. False when short, not synced
// or of a reserved rate.
bool parseMpeg1AudioHeader(std::span<const std::uint8_t> bytes, Mpeg1AudioHeader& out);

// The decoder configuration of an MPEG-1 audio stream: an AudioSpecificConfig-shaped record with the escape
// object type 31 + 75 (107, MPEG-1 audio), the explicit rate and the channel count.
std::vector<std::uint8_t> mpeg1DecoderConfig(std::uint32_t sampleRate, std::uint32_t channels);

class NALMPEG1Audio : public NAL {
public:
    explicit NALMPEG1Audio(std::int32_t size) : NAL(StreamType::MPEG1_AUDIO, size) {}
    std::uint32_t sampleRate = 0;
    std::uint32_t frameSize = 0;
};

// What the ac4_toc() of an AC-4 frame (ETSI TS 103 190-1 and -2) says that timing, the codec string and the
// decoder specific information need. The presentation fields are those of the first presentation.
struct Ac4Toc {
    std::uint32_t bitstreamVersion = 0;
    std::uint32_t sequenceCounter = 0;
    std::uint32_t fsIndex = 0;
    std::uint32_t frameRateIndex = 0;
    bool iframeGlobal = false;
    std::uint32_t presentations = 0;
    bool programId = false;
    std::uint32_t shortProgramId = 0;
    std::uint32_t presentationVersion = 0;
    std::uint32_t mdcompat = 0;
};

// Reads the TOC of a frame that starts with the sync word AC 40 or AC 41 and its frame size. False when the
// frame is short or its version is unknown.
bool parseAc4Toc(std::span<const std::uint8_t> frame, Ac4Toc& out);

// The timescale and frame length (in ticks of it) of an AC-4 stream: 48000 (240000 for the NTSC-like frame
// rates 3, 8 and 11) at fs_index 1, 44100 and 2048 at fs_index 0. A frame length of 0 is no frame rate.
std::uint32_t ac4Timescale(const Ac4Toc& toc);
std::uint32_t ac4FrameLength(const Ac4Toc& toc);

// The body of the "dac4" box (ac4_dsi_v1 of ETSI TS 103 190-2 annex E) from a TOC: version, rate, the program
// id, and an unspecified bit rate. Presentations are announced only as their count in the TOC; their own
// descriptions are not written (n_presentations is 0), which decoders that take the TOC from the frames accept.
std::vector<std::uint8_t> ac4DecoderSpecificInfo(const Ac4Toc& toc);

class NALAC4 : public NAL {
public:
    explicit NALAC4(std::int32_t size) : NAL(StreamType::AC4_AUDIO, size) {}
};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
