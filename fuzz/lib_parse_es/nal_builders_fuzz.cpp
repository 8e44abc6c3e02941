// libFuzzer entry: the first bytes choose the path, the cuts and the timing; the rest is the stream.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "fuzz/lib_parse_es/audio_fuzz_feed.h"
#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/h264_manager.h"
#include "packaging/lib_parse_es/hevc_sps.h"
#include "packaging/lib_parse_es/nal_builder_bit_pattern.h"
#include "packaging/lib_parse_es/nal_builder_mpeg2.h"
#include "packaging/lib_parse_es/nal_h264_hevc.h"

namespace {

namespace es = tvrn::encoding::packaging::lib_parse_es;
namespace samples = tvrn::encoding::packaging::imff::imff_samples;
using tvrn::encoding::packaging::imff::fmp4::SimpleMediaData;

// Reads every sample back completely, as the box layer would.
struct Sink : samples::ISampleListener {
    void onStreamAdded(std::uint32_t, std::uint32_t) override {}
    void onSample(std::unique_ptr<samples::ISample>& sample) override {
        std::vector<std::uint8_t> bytes;
        sample->getBytes(bytes);
        std::int64_t value = 0;
        std::uint64_t timescale = 0;
        sample->getPts(value);
        sample->getDts(value);
        sample->getDuration(value);
        sample->getTimescale(timescale);
        checksum += bytes.size() + sample->getSapType() + static_cast<std::uint64_t>(value);
    }
    void onEnd(std::uint32_t) override { ++ends; }
    std::uint64_t checksum = 0;
    int ends = 0;
};

struct Units : es::NALListener {
    void onNal(std::unique_ptr<es::NAL>& nal) override { total += nal->length; }
    void onEnd() override {}
    std::uint64_t total = 0;
};

using audio_fuzz::nextRandom;

void feed(es::NALBuilder& builder, const std::uint8_t* data, std::size_t size, std::uint32_t seed,
          std::uint32_t maxPiece) {
    std::size_t offset = 0;
    std::int64_t time = 0;
    while (offset < size) {
        const std::uint32_t r = nextRandom(seed);
        const std::size_t piece = std::min<std::size_t>(size - offset, 1 + r % maxPiece);
        auto buffer = SimpleMediaData::create(data + offset, piece);
        // Times that go forwards, backwards, repeat, or are missing.
        if (r & 0x10000) {
            time += static_cast<std::int64_t>((r >> 4) % 2000) - 400;
            const std::int64_t stop = time + 400;
            buffer->SetTime(&time, (r & 0x20000) ? &stop : nullptr);
        }
        if (r & 0x40000) {
            const std::int64_t media = time - static_cast<std::int64_t>((r >> 2) % 3000);
            buffer->SetMediaTime(&media, nullptr);
        }
        buffer->SetSyncPoint((r & 0x80000) != 0);
        if (r & 0x100000) buffer->SetDataId({r});
        builder.push(buffer.get());
        offset += piece;
    }
    builder.flush();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    audio_fuzz::Prologue p;
    if (!audio_fuzz::takePrologue(data, size, 7, 509, p)) return 0;
    const std::uint8_t mode = p.mode;
    const std::uint32_t seed = p.seed, maxPiece = p.maxPiece;
    switch (mode % 8) {
        case 0:
        case 1:
        case 2:
        case 3: {
            // H.264 or HEVC, with parameter sets in band or not, through both builders.
            const std::uint32_t type = (mode & 1) ? es::StreamType::HEVC_VIDEO : es::StreamType::H264_VIDEO;
            Sink sink;
            auto builder = es::createNalBuilder(type);
            auto sampleBuilder = samples::createSampleBuilder(type, (mode & 2) != 0, &sink);
            builder->setListener(sampleBuilder.get());
            feed(*builder, data, size, seed, maxPiece);
            if (sink.ends != 1) __builtin_trap();
            break;
        }
        case 4: {
            // The parsers on raw bytes, as if the data were one unit's RBSP.
            es::NALH264Manager manager;
            manager.addSps(data, size);
            manager.addPps(data, size);
            manager.addSei(data, size);
            int pps = 0, sps = 0;
            manager.addSlice(data, size, pps, sps);
            manager.getFrameRate();
            es::parseHevcSps(data, size);
            es::NALH264 nal(static_cast<std::int32_t>(size));
            nal.append(data, size);
            std::uint32_t rbspSize = 0;
            nal.getRbsp(rbspSize);
            std::uint8_t t = 0;
            std::uint32_t h = 0;
            nal.getNalUnitType(t, h);
            break;
        }
        case 5: {
            Units units;
            es::NALBuilderMPEG2 builder;
            builder.setListener(&units);
            feed(builder, data, size, seed, maxPiece);
            break;
        }
        case 6: {
            Units units;
            es::NalBuilderStartCodeBased<es::NALProRes> prores;
            prores.setListener(&units);
            feed(prores, data, size, seed, maxPiece);
            es::NalBuilderStartCodeBased<es::NALH263> h263;
            h263.setListener(&units);
            feed(h263, data, size, seed, maxPiece);
            break;
        }
        default: {
            Units units;
            auto builder = es::createNalBuilder(es::StreamType::JPEG2000);
            builder->setListener(&units);
            feed(*builder, data, size, seed, maxPiece);
            break;
        }
    }
    return 0;
}
