#pragma once
// Audio samples: one frame per NAL, the transport header stripped, times in units of the stream's sampling
// rate, and the decoder configuration published once before the first frame.
#include <cstdint>
#include <memory>
#include <vector>

#include "packaging/imff_samples/sample_builder.h"

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

// A time at 90 kHz in units of `rate`, truncated; split so that the product can't overflow for any time that
// fits at 90 kHz.
std::int64_t rescaleFrom90kHz(std::int64_t ticks, std::uint32_t rate);

class SampleBuilderAudio : public SampleBuilder {
public:
    using SampleBuilder::SampleBuilder;

    std::vector<std::uint8_t> decoderConfig;
    std::int32_t sampleRate = 0;
    std::int64_t baseTime = 0;
    std::uint32_t frameCount = 0;

protected:
    // A configuration sample (kind 6) holding `decoderConfig`: timescale 90000, no times.
    void sendDecoderConfig(std::uint32_t inputType);
    // An audio frame (kind 1) holding `payload`, at `pts` = dts in units of `rate`.
    void emitFrame(std::uint32_t inputType, std::unique_ptr<NAL> payload, std::int64_t pts, std::uint32_t rate,
                   std::int64_t duration, const lib_parse_es::NalTimingInfo& timing) {
        emitFrameWithSync(inputType, std::move(payload), pts, rate, duration, timing, false);
    }
    // The same with the random-access mark given (the frames above leave it clear).
    void emitFrameWithSync(std::uint32_t inputType, std::unique_ptr<NAL> payload, std::int64_t pts, std::uint32_t rate,
                           std::int64_t duration, const lib_parse_es::NalTimingInfo& timing, bool sync);
};

// ADTS frames: the sample is the frame without its 7- or 9-byte header.
class SampleBuilderAACADTSAudio : public SampleBuilderAudio {
public:
    using SampleBuilderAudio::SampleBuilderAudio;
    void onNal(std::unique_ptr<NAL>& nal) override;
};

// LOAS/LATM frames: the sample is the payload of the AudioMuxElement, taken out of its unaligned bits.
class SampleBuilderAACLATMAudio : public SampleBuilderAudio {
public:
    using SampleBuilderAudio::SampleBuilderAudio;
    void onNal(std::unique_ptr<NAL>& nal) override;

private:
    std::vector<std::uint8_t> m_scratch;
    bool m_lengthBytesFraming = false;  // the configuration in force gives payload lengths in bytes
};

// Raw packets: the sample is the frame after the packet header.
class SampleBuilderAACRAWAudio : public SampleBuilderAudio {
public:
    using SampleBuilderAudio::SampleBuilderAudio;
    void onNal(std::unique_ptr<NAL>& nal) override;
};

// AC-3 and E-AC-3 sync frames, whole. The first usable frame (for E-AC-3 the first access unit: an independent
// substream 0 frame with the substreams that follow it) also goes out as the configuration sample, from which
// the sample entry reads "dac3" or "dec3". Frames without a time are counted on from the last time, 1536 ticks
// each.
class SampleBuilderAc3Audio : public SampleBuilderAudio {
public:
    using SampleBuilderAudio::SampleBuilderAudio;
    void onNal(std::unique_ptr<NAL>& nal) override;
    void onEnd() override;

    std::uint32_t bitRate = 0;
    std::uint8_t channelClass = 0;
    bool isEac3 = false;

private:
    // Sends the E-AC-3 access unit collected so far.
    void sendPending();

    std::vector<std::uint8_t> m_pending;
    std::int64_t m_pendingPts = 0;
    lib_parse_es::NalTimingInfo m_pendingTiming{};
};

// MPEG-1 audio frames, whole: 1152 samples, or 384 when the header's layer field reads 0.
class SampleBuilderMpeg1Audio : public SampleBuilderAudio {
public:
    using SampleBuilderAudio::SampleBuilderAudio;
    void onNal(std::unique_ptr<NAL>& nal) override;
};

// AC-4 frames, whole (sync word, size and CRC included). The timescale and frame length come from the first
// readable TOC, which also goes out as the configuration sample (the whole frame: the sample entry builds the
// "dac4" from it); `sync` follows b_iframe_global. A frame without a time of its own (several frames in one input
// buffer) follows the last timed one, as AC-3 frames do.
class SampleBuilderAc4Audio : public SampleBuilderAudio {
public:
    using SampleBuilderAudio::SampleBuilderAudio;
    void onNal(std::unique_ptr<NAL>& nal) override;

private:
    std::uint32_t m_timescale = 0;
    std::uint32_t m_frameLength = 0;
};

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
