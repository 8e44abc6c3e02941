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

namespace {

namespace es = tvrn::encoding::packaging::lib_parse_es;
namespace samples = tvrn::encoding::packaging::imff::imff_samples;
using tvrn::encoding::packaging::imff::fmp4::SimpleMediaData;

using audio_fuzz::feed;
using audio_fuzz::Sink;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 3) return 0;
    const std::uint8_t mode = data[0];
    const std::uint32_t seed = data[1] | (std::uint32_t{data[2]} << 8);
    data += 3;
    size -= 3;
    const std::uint32_t maxPiece = (mode & 0x08) ? 5 : 700;
    switch (mode % 4) {
        case 0:
        case 1:
        case 2: {
            const std::uint32_t type = mode % 4 == 0 ? es::StreamType::AC3_AUDIO : es::StreamType::MPEG1_AUDIO;
            std::unique_ptr<es::NALBuilder> builder;
            if (mode % 4 == 2) builder = std::make_unique<es::NALBuilderMPEG1Audio>(true);
            else builder = es::createNalBuilder(type);
            Sink sink;
            auto sampleBuilder = samples::createSampleBuilder(type, false, &sink);
            builder->setListener(sampleBuilder.get());
            feed(*builder, data, size, seed, maxPiece);
            if (sink.ends != 1) __builtin_trap();
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
