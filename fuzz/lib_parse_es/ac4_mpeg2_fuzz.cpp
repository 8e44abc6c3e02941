// libFuzzer entry for AC-4 and MPEG-2 video: the first bytes choose the path, the cuts and the timing; the rest is
// the stream. AC-4 runs through its framing and sample builder; the TOC parse with the decoder specific
// information, and the MPEG-2 framing with the sequence header parse, run on the bytes directly. Only the frame
// rate lookup may throw (also out of the MPEG-2 framing's push), and only its own exception.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include "fuzz/lib_parse_es/audio_fuzz_feed.h"
#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/nal_audio_frames.h"
#include "packaging/lib_parse_es/mpeg2_video.h"
#include "packaging/lib_parse_es/nal_builder_audio_frames.h"

namespace {

namespace es = tvrn::encoding::packaging::lib_parse_es;
using audio_fuzz::feed;

// Collects MPEG-2 units and parses each sequence header among them.
struct Mpeg2Units : es::NALListener {
    void onNal(std::unique_ptr<es::NAL>& nal) override {
        auto* unit = dynamic_cast<es::NALMPEG2*>(nal.get());
        if (unit == nullptr || unit->startCode() != es::mpeg2::kSequenceHeaderCode) return;
        es::mpeg2::SequenceHeader h;
        if (!es::mpeg2::parseSequenceHeader(unit->bytes(), unit->length, h)) __builtin_trap();
        try {
            es::mpeg2::frameRate(h.frame_rate_code);
        } catch (const es::mpeg2::Exception&) {
        }
        const auto sar = es::mpeg2::sampleAspectRatio(h.aspect_ratio_information, h.horizontal_size_value,
                                                      h.vertical_size_value);
        if (sar.den == 0) __builtin_trap();
    }
    void onEnd() override { ++ends; }
    int ends = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    audio_fuzz::Prologue p;
    if (!audio_fuzz::takePrologue(data, size, 5, 700, p)) return 0;
    const std::uint8_t mode = p.mode;
    switch (mode % 3) {
        case 0: {
            audio_fuzz::throughSamples(*es::createNalBuilder(es::StreamType::AC4_AUDIO), es::StreamType::AC4_AUDIO, data,
                                       size, p);
            break;
        }
        case 1: {
            Mpeg2Units units;
            es::NALBuilderMPEG2Video builder;
            builder.setListener(&units);
            // The framing reads each sequence header itself, and its unknown frame rate passes out of push.
            try {
                feed(builder, data, size, p.seed, p.maxPiece);
            } catch (const es::mpeg2::Exception&) {
                break;
            }
            if (units.ends != 1) __builtin_trap();
            break;
        }
        default: {
            es::Ac4Toc toc;
            if (es::parseAc4Toc(std::span<const std::uint8_t>(data, size), toc)) {
                if (es::ac4DecoderSpecificInfo(toc).size() > 1024) __builtin_trap();
                es::ac4FrameLength(toc);
                es::ac4Timescale(toc);
            }
            break;
        }
    }
    return 0;
}
