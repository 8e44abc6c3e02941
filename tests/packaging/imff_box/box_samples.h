#pragma once
// A sample for the box layer: `size` zero bytes, times at `timescale` (a time left empty is unknown), with the
// encryption info it is given.
#include <cstring>
#include <optional>
#include <vector>

#include "packaging/imff_box/fragment_builder.h"

namespace testkit {
namespace imff_box = tvrn::encoding::packaging::imff::imff_box;

struct BoxSample : imff_box::ISample {
    BoxSample(std::optional<std::int64_t> presented, std::optional<std::int64_t> decoded, std::uint64_t rate,
              std::int64_t length, std::size_t bytes, bool key)
        : pts(presented), dts(decoded), timescale(rate), duration(length), size(bytes), sync(key) {}
    // A sync sample at 0 lasting 3600 ticks of 90 kHz.
    BoxSample(std::size_t bytes, std::optional<imff_box::SampleEncryptionInfo> encryption)
        : BoxSample(0, 0, 90000, 3600, bytes, true) {
        info = std::move(encryption);
    }
    std::optional<std::int64_t> pts, dts;
    std::uint64_t timescale;
    std::int64_t duration;
    std::size_t size;
    bool sync;
    std::optional<imff_box::SampleEncryptionInfo> info;

    bool getPts(std::int64_t& v) const override { return pts && (v = *pts, true); }
    bool getDts(std::int64_t& v) const override { return dts && (v = *dts, true); }
    bool getTimescale(std::uint64_t& v) const override { return v = timescale, true; }
    bool getDuration(std::int64_t& v) const override { return v = duration, true; }
    std::uint32_t getSapType() const override { return sync ? 1 : 0; }
    bool isSync() const override { return sync; }
    std::size_t getSize() const override { return size; }
    void getData(std::uint8_t* dest) const override { std::memset(dest, 0, size); }
    bool getEncryptionInfo(imff_box::SampleEncryptionInfo& out) const override { return info && (out = *info, true); }
};

// The samples as the builder takes them.
inline std::vector<const imff_box::ISample*> pointers(const std::vector<BoxSample>& samples) {
    std::vector<const imff_box::ISample*> out;
    for (const auto& s : samples) out.push_back(&s);
    return out;
}

}  // namespace testkit
