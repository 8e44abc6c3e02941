// libFuzzer entry for sample encryption. The first byte picks the mode and the IV (8 bytes, 16 bytes, 16 bytes
// just below the 64-bit wrap, or 12 bytes); then 2-byte NAL headers (10 bits of size, a bit that ends the
// sample) until the bytes run out, the NAL contents cut from the input itself.
// Checked: a NAL under 5 bytes in subsample mode gives the manager's exception and nothing else throws; the map
// covers every byte with whole protected blocks; clear bytes stay; running the same again from the same IV gives
// the input back (CTR is its own inverse); an IV of another length changes nothing; and one encryptCtr call
// equals two calls split at a block boundary, across the wrap too.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "packaging/encryption/sample_encryption.h"
#include "tests/common/fixed_key_provider.h"

namespace {

namespace enc = tvrn::encoding::packaging::encryption;
using Bytes = std::vector<std::uint8_t>;

void check(bool condition) {
    if (!condition) __builtin_trap();
}

enc::EncryptionManager& manager() {
    static enc::EncryptionManager m(std::make_unique<testkit::FixedKeyProvider>());
    static const bool keyed = [] {
        Bytes iv;
        m.updateKey(0, iv);
        return true;
    }();
    (void)keyed;
    return m;
}

Bytes startIv(unsigned kind, const std::uint8_t* data, std::size_t size) {
    Bytes iv(kind == 0 ? 8 : kind == 3 ? 12 : 16, 0x3c);
    for (std::size_t i = 0; i < iv.size() && i < size; ++i) iv[i] = data[i];
    if (kind == 2) std::memset(iv.data() + 8, 0xff, 7);  // a few blocks below the wrap
    return iv;
}

void checkSplitCtr(const Bytes& counterStart, std::size_t length, std::size_t splitBlocks) {
    Bytes whole(length, 0xa5), split = whole;
    Bytes c1 = counterStart, c2 = counterStart;
    manager().encryptCtr(whole.data(), whole.data(), static_cast<std::int64_t>(length), c1);
    const std::size_t first = std::min(splitBlocks * 16, length);
    manager().encryptCtr(split.data(), split.data(), static_cast<std::int64_t>(first), c2);
    manager().encryptCtr(split.data() + first, split.data() + first, static_cast<std::int64_t>(length - first), c2);
    check(whole == split && c1 == c2);
    check(std::equal(c1.begin(), c1.begin() + 8, counterStart.begin()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const bool subsamples = (data[0] & 1) != 0;
    const unsigned ivKind = (data[0] >> 1) & 3;
    const Bytes iv = startIv(ivKind, data + 1, size - 1);

    // The NAL layout, then the contents.
    std::vector<std::vector<Bytes>> samples(1);
    std::size_t at = 1;
    bool tooShort = false;
    for (; at + 1 < size && samples.size() < 64; at += 2) {
        const unsigned header = static_cast<unsigned>(data[at]) << 8 | data[at + 1];
        const std::size_t n = header & 0x3ff;
        Bytes nal(n);
        for (std::size_t i = 0; i < n; ++i) nal[i] = data[(at + i * 31) % size];
        tooShort = tooShort || n < 5;
        samples.back().push_back(std::move(nal));
        if (header & 0x8000) samples.emplace_back();
    }
    const std::vector<std::vector<Bytes>> original = samples;

    std::vector<std::vector<enc::NalBytes>> nals;
    for (auto& sample : samples) nals.emplace_back(sample.begin(), sample.end());
    const std::vector<enc::SampleNals> list(nals.begin(), nals.end());

    Bytes streamIv = iv;
    std::vector<std::optional<enc::SampleEncryptionInfo>> infos;
    try {
        enc::encryptStreamSamples(list, subsamples, manager(), streamIv, infos);
    } catch (const enc::EncryptionManager::Exception&) {
        check(subsamples && tooShort);
        return 0;
    }
    check(!(subsamples && tooShort));

    for (std::size_t s = 0; s < samples.size(); ++s) {
        check(infos[s].has_value() == !samples[s].empty());
        if (!infos[s]) continue;
        std::uint64_t total = 0, mapped = 0;
        for (const Bytes& nal : samples[s]) total += nal.size();
        for (const auto& [clear, protectedBytes] : infos[s]->subsamples) {
            check(protectedBytes % 16 == 0);
            mapped += clear + std::uint64_t{protectedBytes};
        }
        check(subsamples ? mapped == total : infos[s]->subsamples.empty());
        if (subsamples) {
            for (std::size_t n = 0; n < samples[s].size(); ++n) {
                const std::size_t clear = ((samples[s][n].size() - 5) & 15) + 5;
                check(std::equal(samples[s][n].begin(), samples[s][n].begin() + static_cast<long>(clear),
                                 original[s][n].begin()));
            }
        }
    }
    if (ivKind == 3) check(samples == original);

    streamIv = iv;
    enc::encryptStreamSamples(list, subsamples, manager(), streamIv, infos);
    check(samples == original);

    if (ivKind != 3) {
        Bytes counter = iv;
        counter.resize(16, 0);
        checkSplitCtr(counter, size % 200, data[size - 1] % 14);
    }
    return 0;
}
