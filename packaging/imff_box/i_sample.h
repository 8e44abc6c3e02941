#pragma once
// A sample as the box layer reads it. The sample model supplies it; the session's sample type implements it.
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "support/system/kept_bytes.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

// The encryption of one sample: its initialisation vector and its subsamples (clear bytes, protected bytes).
struct SampleEncryptionInfo {
    std::vector<std::uint8_t> iv;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> subsamples;
};

class ISample {
public:
    virtual ~ISample() = default;
    // Each answers false when the value is unknown. Times are in the sample's own timescale.
    virtual bool getPts(std::int64_t& pts) const = 0;
    virtual bool getDts(std::int64_t& dts) const = 0;
    virtual bool getTimescale(std::uint64_t& timescale) const = 0;
    virtual bool getDuration(std::int64_t& duration) const = 0;
    // 0 when the sample is not a stream access point.
    virtual std::uint32_t getSapType() const = 0;
    bool isRandomAccess() const { return getSapType() != 0; }
    // A sample a decoder can start at.
    virtual bool isSync() const = 0;
    // The payload: its size, and a copy of exactly that many bytes into `dest`.
    virtual std::size_t getSize() const = 0;
    virtual void getData(std::uint8_t* dest) const = 0;
    // As getData, for a writer that can refer to bytes in place of copying them: runs of at least `least` bytes
    // that lie in memory the sample can keep alive (an input buffer, its own storage) are left unwritten at
    // `dest` and added to `references`, each `at` counted as `base` plus its offset from `dest`. A sample
    // without such bytes writes them all.
    virtual void getDataReferring(std::uint8_t* dest, std::size_t base, std::size_t least,
                                  tvrn::system::KeptBytesList& references) const {
        (void)base;
        (void)least;
        (void)references;
        getData(dest);
    }
    // The payload appended to a vector reserved to getSize().
    void getBytes(std::vector<std::uint8_t>& bytes) const {
        const std::size_t size = getSize();
        bytes.clear();
        bytes.resize(size);
        if (size > 0) getData(bytes.data());
    }
    // False when no encryption information is attached.
    virtual bool getEncryptionInfo(SampleEncryptionInfo& info) const = 0;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
