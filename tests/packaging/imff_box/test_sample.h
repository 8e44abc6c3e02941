#pragma once
// A sample for the fragment tests: every value may be left unknown.
#include <cstring>
#include <optional>
#include <vector>

#include "packaging/imff_box/i_sample.h"

namespace box_test {

class TestSample : public tvrn::encoding::packaging::imff::imff_box::ISample {
public:
    std::optional<std::int64_t> pts, dts, duration;
    std::optional<std::uint64_t> timescale;
    bool sync = false;
    std::vector<std::uint8_t> data;

    static TestSample make(std::int64_t pts, std::int64_t dts, std::uint64_t timescale, std::int64_t duration,
                           std::size_t size, bool sync, std::uint8_t fill = 0) {
        TestSample s;
        s.pts = pts;
        s.dts = dts;
        s.timescale = timescale;
        s.duration = duration;
        s.data.assign(size, fill);
        s.sync = sync;
        return s;
    }

    bool getPts(std::int64_t& v) const override { return get(pts, v); }
    bool getDts(std::int64_t& v) const override { return get(dts, v); }
    bool getTimescale(std::uint64_t& v) const override { return get(timescale, v); }
    bool getDuration(std::int64_t& v) const override { return get(duration, v); }
    std::uint32_t getSapType() const override { return sync ? 1 : 0; }
    bool isSync() const override { return sync; }
    std::size_t getSize() const override { return data.size(); }
    void getData(std::uint8_t* dest) const override {
        if (!data.empty()) std::memcpy(dest, data.data(), data.size());
    }
    bool getEncryptionInfo(tvrn::encoding::packaging::imff::imff_box::SampleEncryptionInfo&) const override {
        return false;
    }

private:
    template <typename T>
    static bool get(const std::optional<T>& source, T& out) {
        if (!source) return false;
        out = *source;
        return true;
    }
};

template <typename Container>
std::vector<const tvrn::encoding::packaging::imff::imff_box::ISample*> pointers(const Container& samples) {
    std::vector<const tvrn::encoding::packaging::imff::imff_box::ISample*> out;
    for (const auto& s : samples) out.push_back(&s);
    return out;
}

}  // namespace box_test
