// libFuzzer entry for the streams without audio or video: the bytes as one splice_info_section() (parse, splice
// time and dump), as SCTE-35 messages cut at the first byte's count, and as KLV and transport stream runs. Only
// the parser's own exception may leave the direct parse; the builders contain everything.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "packaging/lib_parse_es/nal_builder.h"
#include "packaging/lib_parse_es/scte35.h"

namespace {

namespace es = tvrn::encoding::packaging::lib_parse_es;
using tvrn::encoding::packaging::imff::fmp4::SimpleMediaData;

struct Counter : es::NALListener {
    void onNal(std::unique_ptr<es::NAL>& nal) override {
        if (nal->length > static_cast<std::uint32_t>(nal->capacity)) __builtin_trap();
        total += nal->length;
    }
    void onEnd() override {}
    std::uint64_t total = 0;
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
    }
    return 0;
}
