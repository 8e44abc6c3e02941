// libFuzzer entry for the streams without audio or video: the bytes as one splice_info_section() (parse, splice
// time and dump), as SCTE-35 messages cut at the first byte's count, and as KLV and transport stream runs. Only
// the parser's own exception may leave the direct parse; the builders contain everything. The SCTE-35 messages
// go on through the metadata sample builder, whose samples must hold the whole message at 90 kHz.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/nal_builder.h"
#include "packaging/lib_parse_es/scte35.h"

namespace {

namespace es = tvrn::encoding::packaging::lib_parse_es;
namespace samples = tvrn::encoding::packaging::imff::imff_samples;
using tvrn::encoding::packaging::imff::fmp4::SimpleMediaData;

struct Counter : es::NALListener {
    void onNal(std::unique_ptr<es::NAL>& nal) override {
        if (nal->length > static_cast<std::uint32_t>(nal->capacity)) __builtin_trap();
        total += nal->length;
    }
    void onEnd() override {}
    std::uint64_t total = 0;
};

// The metadata samples of SCTE-35 messages: one sync sample per message, the 8-byte clock prefix included.
struct MetadataSink : samples::ISampleListener {
    void onStreamAdded(std::uint32_t, std::uint32_t) override {}
    void onSample(std::unique_ptr<samples::ISample>& sample) override {
        const auto* s = dynamic_cast<const samples::Sample*>(sample.get());
        if (s == nullptr || s->kind != samples::KindMetadata || s->inputType != es::StreamType::SCTE_35 ||
            s->timescale != 90000 || !s->sync || s->pts != s->dts || s->nals.size() != 1 || s->getSize() < 8)
            __builtin_trap();
        std::vector<std::uint8_t> bytes(s->getSize());
        s->getData(bytes.data());
        ++count;
    }
    void onEnd(std::uint32_t) override { ++ends; }
    int count = 0;
    int ends = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const auto section = es::SCTE_35::parseSpliceInfoSection(data, size);
        (void)es::SCTE_35::dumpSpliceInfoSection(section);
        (void)es::SCTE_35::splicePtsTime(section);
    } catch (const es::SCTE_35::Exception&) {
    }
    if (size == 0) return 0;
    const std::size_t piece = 1 + data[0];
    for (const std::uint32_t type : {es::StreamType::SCTE_35, es::StreamType::KLV, es::StreamType::MPEG2_TS}) {
        auto builder = es::createNalBuilder(type);
        Counter counter;
        MetadataSink sink;
        auto metadata = samples::createSampleBuilder(type, false, &sink);
        if (type == es::StreamType::SCTE_35 && !metadata) __builtin_trap();
        if (metadata)
            builder->setListener(metadata.get());
        else
            builder->setListener(&counter);
        std::int64_t time = 0;
        for (std::size_t at = 1; at < size; at += piece) {
            auto buffer = SimpleMediaData::create(data + at, std::min(piece, size - at));
            buffer->SetTime(&time, nullptr);
            buffer->SetSyncPoint((data[at] & 1) != 0);
            builder->push(buffer.get());
            time += 400000;
        }
        builder->flush();
        if (metadata && sink.ends != 1) __builtin_trap();
    }
    return 0;
}
