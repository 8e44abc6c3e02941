#pragma once
// What fmp4mux does with libavformat and libavcodec lives in a module of its own, loaded the first time it is
// needed: opening an input that fmp4mux's own probe does not take (network and piped inputs, MP4, anything with
// --demuxer libavformat), and encoding a silent AC-3, E-AC-3 or MP2 frame. A run that packages local MPEG-TS files
// never loads those libraries, whose loading alone (some 130 shared libraries) costs a run more CPU time than
// reading a minute of 1080p.
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/fmp4mux/inputs/input.h"

namespace fmp4mux {

class LibavModule {
public:
    virtual ~LibavModule() = default;
    // Opens and probes `url` with libavformat: a plain MPEG-TS is then read by fmp4mux's own reader, anything else
    // by libavformat; with `libavDemuxer`, libavformat reads it whatever it is. As the readers' constructors do:
    // std::runtime_error when it cannot be opened, ExitError for a program it does not have; streams that cannot be
    // carried are named in `skipped`, the program chosen in `notes`.
    virtual std::unique_ptr<Input> open(const std::string& url, int inputIndex, std::vector<std::string>& skipped,
                                        const std::atomic<bool>* interrupt, std::optional<int> program,
                                        std::vector<std::string>* notes, bool libavDemuxer) = 0;
    // How much of libavformat's own logging reaches the terminal, by fmp4mux's verbosity (0 errors to 3 debug).
    virtual void setVerbosity(int verbosity) = 0;
    // One frame of silence from libavcodec's encoder `encoder` at that rate, channel layout (the speaker bits
    // below) and bitrate; empty when the encoder is missing or refuses them.
    virtual std::vector<std::uint8_t> encodeSilence(const char* encoder, int rate, std::uint64_t channelMask,
                                                    std::int64_t bitRate) = 0;
};

// Speaker positions of a channel mask, as WAVE_FORMAT_EXTENSIBLE numbers them (and libavutil's layouts do).
namespace speakers {
constexpr std::uint64_t kFrontLeft = 0x1, kFrontRight = 0x2, kFrontCenter = 0x4, kLowFrequency = 0x8,
                        kBackCenter = 0x100, kSideLeft = 0x200, kSideRight = 0x400;
constexpr std::uint64_t kMono = kFrontCenter, kStereo = kFrontLeft | kFrontRight, kSurround = kStereo | kFrontCenter,
                        kTwoOne = kStereo | kBackCenter, kFourZero = kSurround | kBackCenter,
                        kTwoTwo = kStereo | kSideLeft | kSideRight, kFiveZero = kSurround | kSideLeft | kSideRight;
}  // namespace speakers

// The module, loaded on first use: from libfmp4mux_libav.so beside the fmp4mux executable, through the one function
// it exports (extern "C" fmp4muxLibavModule), or linked in (the tests define that function). Raises
// std::runtime_error saying why when it cannot be loaded.
LibavModule& libav();
// The verbosity the module gets when it loads, or now when it is loaded.
void setLibavVerbosity(int verbosity);

}  // namespace fmp4mux
