// libFuzzer entry for AAC: the first bytes choose the path, the cuts and the timing; the rest is the stream.
// The three AAC builders run with their sample builders; the configuration and header parsers also run on the
// bytes directly. Only "not implemented" configurations may throw, and only from the direct parses.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include "fuzz/lib_parse_es/audio_fuzz_feed.h"
#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/mpeg4_audio.h"
#include "packaging/lib_parse_es/nal_aac.h"

namespace {

namespace es = tvrn::encoding::packaging::lib_parse_es;
template <typename T>
void parseUnit(const std::uint8_t* data, std::size_t size) {
    T nal(static_cast<std::int32_t>(size));
    nal.append(data, size);
    try {
        nal.parse();
    } catch (const std::runtime_error&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    audio_fuzz::Prologue p;
    if (!audio_fuzz::takePrologue(data, size, 5, 700, p)) return 0;
    const std::uint8_t mode = p.mode;
    static constexpr std::uint32_t kTypes[3] = {es::StreamType::AAC_ADTS_AUDIO, es::StreamType::AAC_LATM_AUDIO,
                                                es::StreamType::AAC_RAW_AUDIO};
    switch (mode % 4) {
        case 0:
        case 1:
        case 2: {
            const std::uint32_t type = kTypes[mode % 4];
            audio_fuzz::throughSamples(*es::createNalBuilder(type), type, data, size, p);
            break;
        }
        default: {
            es::BitReader reader(data, size);
            es::mpeg4_audio::AudioSpecificConfig config;
            es::mpeg4_audio::StreamMuxConfig mux;
            try {
                es::mpeg4_audio::parseAudioSpecificConfig(reader, config);
            } catch (const std::runtime_error&) {
            }
            es::BitReader reader2(data, size);
            try {
                es::mpeg4_audio::parseStreamMuxConfig(reader2, mux);
            } catch (const std::runtime_error&) {
            }
            if (size == 0) break;
            parseUnit<es::NALAACADTS>(data, size);
            parseUnit<es::NALAACLATMLOAS>(data, size);
            es::NALAACRaw raw(static_cast<std::int32_t>(size));
            raw.append(data, size);
            es::AACRawHeader header;
            try {
                es::parseAACRawPacket(raw, header);
            } catch (const std::runtime_error&) {
            }
            break;
        }
    }
    return 0;
}
