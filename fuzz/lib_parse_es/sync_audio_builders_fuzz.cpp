// libFuzzer entry for the sync-frame audio formats: the first bytes choose the path, the cuts and the timing; the
// rest is the stream. AC-3/E-AC-3 and MPEG-1 audio (with and without Layer III) run through their framing and
// sample builders; the header parsers also run on the bytes directly. Nothing may throw.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include "fuzz/lib_parse_es/audio_fuzz_feed.h"
#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/nal_audio_frames.h"
#include "packaging/lib_parse_es/nal_builder_audio_frames.h"

namespace es = tvrn::encoding::packaging::lib_parse_es;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    audio_fuzz::Prologue p;
    if (!audio_fuzz::takePrologue(data, size, 5, 700, p)) return 0;
    const std::uint8_t mode = p.mode;
    switch (mode % 4) {
        case 0:
        case 1:
        case 2: {
            const std::uint32_t type = mode % 4 == 0 ? es::StreamType::AC3_AUDIO : es::StreamType::MPEG1_AUDIO;
            std::unique_ptr<es::NALBuilder> builder;
            if (mode % 4 == 2) builder = std::make_unique<es::NALBuilderMPEG1Audio>(true);
            else builder = es::createNalBuilder(type);
            audio_fuzz::throughSamples(*builder, type, data, size, p);
            break;
        }
        default: {
            const std::span<const std::uint8_t> bytes(data, size);
            es::Ac3StreamInfo info;
            es::parseAc3StreamInfo(bytes, info);
            es::Mpeg1AudioHeader header;
            es::parseMpeg1AudioHeader(bytes, header);
            if (size >= 7) {
                es::Ac3FrameParameters params;
                es::parseAc3FrameParameters(data, params);
                es::mpeg1FrameSize(data, true);
            }
            break;
        }
    }
    return 0;
}
