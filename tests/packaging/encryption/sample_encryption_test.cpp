// AES-128 CTR against AES-128-ECB computed block by block, the subsample map, and how the IV and the block
// counter move from NAL to NAL and from sample to sample.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

#include "packaging/encryption/sample_encryption.h"
#include "tests/common/bytes.h"
#include "tests/common/fixed_key_provider.h"
#include "tests/packaging/encryption/ctr_reference.h"

namespace {

namespace enc = tvrn::encoding::packaging::encryption;
using testkit::Bytes;
using testkit::FixedKeyProvider;
using testkit::referenceCtr;
using Infos = std::vector<std::optional<enc::SampleEncryptionInfo>>;

// A manager with the provider's key installed.
struct Keyed {
    enc::EncryptionManager manager{std::make_unique<FixedKeyProvider>()};
    Keyed() {
        std::vector<std::uint8_t> iv;
        manager.updateKey(0, iv);
    }
};

Bytes pattern(std::size_t n, std::uint8_t seed) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(seed + 7 * i);
    return b;
}

Bytes slice(const Bytes& b, std::size_t from, std::size_t to) {
    return Bytes(b.begin() + static_cast<long>(std::min(from, b.size())),
                 b.begin() + static_cast<long>(std::min(to, b.size())));
}

Bytes bytesOf(const testkit::Block& block) { return Bytes(block.begin(), block.end()); }

std::uint64_t high(const Bytes& iv) {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < 8; ++i) v = (v << 8) | iv[i];
    return v;
}

// The samples of one stream given as NAL sizes per sample; the bytes before encryption are kept.
struct Stream {
    std::vector<std::vector<Bytes>> original, bytes;
    std::vector<std::vector<enc::NalBytes>> nals;
    std::vector<enc::SampleNals> samples;
    explicit Stream(const std::vector<std::vector<std::size_t>>& sizes) {
        for (const auto& sample : sizes) {
            original.emplace_back();
            for (std::size_t n : sample) original.back().push_back(pattern(n, static_cast<std::uint8_t>(n)));
        }
        bytes = original;
        for (auto& sample : bytes) {
            nals.emplace_back(sample.begin(), sample.end());
        }
        samples.assign(nals.begin(), nals.end());
    }
    // NAL n of sample s: its first `clear` bytes as they were, the rest encrypted from counter (hi, lo).
    void expectNal(std::size_t s, std::size_t n, std::size_t clear, std::uint64_t hi, std::uint64_t lo) const {
        const Bytes& before = original[s][n];
        Bytes expected = slice(before, 0, clear);
        const Bytes encrypted = referenceCtr(FixedKeyProvider::kKey, hi, lo, slice(before, clear, before.size()));
        expected.insert(expected.end(), encrypted.begin(), encrypted.end());
        EXPECT_EQ(bytes[s][n], expected) << "sample " << s << ", NAL " << n;
    }
};

TEST(EncryptCtr, GivesTheKnownAnswerOfSp800_38a) {
    Keyed k;
    Bytes data = testkit::hex("6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51");
    Bytes counter = testkit::hex("f0f1f2f3f4f5f6f7 f8f9fafbfcfdfeff");
    k.manager.encryptCtr(data.data(), data.data(), 32, counter);
    EXPECT_EQ(data, testkit::hex("874d6191b620e3261bef6864990db6ce 9806f66b7970fdff8617187bb9fffdff"));
    EXPECT_EQ(counter, testkit::hex("f0f1f2f3f4f5f6f7 f8f9fafbfcfdff01"));
}

TEST(EncryptCtr, LowHalfWrapsToZeroWithoutCarryIntoTheHighHalf) {
    Keyed k;
    const std::uint64_t hi = 0x0123456789abcdefULL, start = 0xfffffffffffffffdULL;
    const Bytes plain = pattern(5 * 16 + 7, 3);  // counts FD, FE, FF, 0, 1, and 2 for the partial block
    for (bool inPlace : {true, false}) {
        Bytes counter = bytesOf(testkit::counterBlock(hi, start));
        Bytes source = plain, destination(plain.size());
        Bytes& out = inPlace ? source : destination;
        k.manager.encryptCtr(source.data(), out.data(), static_cast<std::int64_t>(plain.size()), counter);
        for (std::size_t block = 0; block * 16 < plain.size(); ++block) {
            const Bytes keystream = bytesOf(testkit::ecbEncrypt(FixedKeyProvider::kKey,
                                                                testkit::counterBlock(hi, start + block)));
            Bytes expected = slice(plain, block * 16, block * 16 + 16);
            for (std::size_t i = 0; i < expected.size(); ++i) expected[i] ^= keystream[i];
            EXPECT_EQ(slice(out, block * 16, block * 16 + 16), expected) << "block " << block;
        }
        EXPECT_EQ(counter, bytesOf(testkit::counterBlock(hi, 3)));
        if (!inPlace) {
            EXPECT_EQ(source, plain);
        }
    }
}

TEST(SubsampleMap, FollowsTheClearRuleAndMergesEntriesWithoutProtectedBytes) {
    using Map = std::vector<std::pair<std::uint32_t, std::uint32_t>>;
    const std::vector<std::pair<std::vector<std::size_t>, Map>> table = {
        {{5}, {{5, 0}}},         {{20}, {{20, 0}}},        {{21}, {{5, 16}}},
        {{22}, {{6, 16}}},       {{1000}, {{8, 992}}},     {{9, 37}, {{14, 32}}},
        {{21, 9}, {{5, 16}, {9, 0}}}, {{5, 6, 20}, {{31, 0}}},
    };
    for (const auto& [sizes, map] : table) {
        Keyed k;
        Stream stream({sizes});
        Bytes iv = FixedKeyProvider::defaultIv();
        enc::SampleEncryptionInfo info;
        ASSERT_TRUE(enc::encryptSample(stream.samples[0], true, k.manager, iv, info));
        EXPECT_EQ(info.subsamples, map) << testing::PrintToString(sizes);
        EXPECT_EQ(info.iv, FixedKeyProvider::defaultIv());
    }
}

TEST(SampleEncryption, EightByteIvRunsTheBlockCounterAcrossNalsAndRestartsItWithTheNextIv) {
    Keyed k;
    Stream stream({{37, 21}, {}, {22}});
    Bytes iv = FixedKeyProvider::defaultIv();
    Infos infos;
    enc::encryptStreamSamples(stream.samples, true, k.manager, iv, infos);
    const Bytes third = testkit::hex("a1a2a3a4a5a6a7aa");
    ASSERT_EQ(infos.size(), 3u);
    EXPECT_EQ(infos[0]->iv, FixedKeyProvider::defaultIv());
    EXPECT_FALSE(infos[1].has_value());  // no NAL: no record, but the IV still moves on
    EXPECT_EQ(infos[2]->iv, third);
    EXPECT_EQ(iv, testkit::hex("a1a2a3a4a5a6a7ab"));
    stream.expectNal(0, 0, 5, high(FixedKeyProvider::defaultIv()), 0);
    stream.expectNal(0, 1, 5, high(FixedKeyProvider::defaultIv()), 2);
    stream.expectNal(2, 0, 6, high(third), 0);
}

TEST(SampleEncryption, SixteenByteIvCarriesOverFromSampleToSample) {
    Keyed k;
    Stream stream({{37, 22}, {21}});
    const std::uint64_t hi = 0x1122334455667788ULL, start = 0xfffffffffffffffeULL;
    Bytes iv = bytesOf(testkit::counterBlock(hi, start));
    Infos infos;
    enc::encryptStreamSamples(stream.samples, true, k.manager, iv, infos);
    EXPECT_EQ(infos[0]->iv, bytesOf(testkit::counterBlock(hi, start)));
    EXPECT_EQ(infos[1]->iv, bytesOf(testkit::counterBlock(hi, 1)));  // three blocks on, past the wrap
    EXPECT_EQ(iv, bytesOf(testkit::counterBlock(hi, 2)));
    stream.expectNal(0, 0, 5, hi, start);
    stream.expectNal(0, 1, 6, hi, 0);
    stream.expectNal(1, 0, 5, hi, 1);
}

TEST(SampleEncryption, WholeSampleModeEncryptsEveryByteAndRestartsEachNalWithAnEightByteIv) {
    Keyed k;
    Stream stream({{20, 35}, {7}});
    Bytes iv = FixedKeyProvider::defaultIv();
    Infos infos;
    enc::encryptStreamSamples(stream.samples, false, k.manager, iv, infos);
    EXPECT_TRUE(infos[0]->subsamples.empty());
    stream.expectNal(0, 0, 0, high(FixedKeyProvider::defaultIv()), 0);
    stream.expectNal(0, 1, 0, high(FixedKeyProvider::defaultIv()), 0);
    stream.expectNal(1, 0, 0, high(FixedKeyProvider::defaultIv()) + 1, 0);

    Stream wide({{20, 35}});
    Bytes counter = bytesOf(testkit::counterBlock(7, 40));
    enc::encryptStreamSamples(wide.samples, false, k.manager, counter, infos);
    wide.expectNal(0, 0, 0, 7, 40);
    wide.expectNal(0, 1, 0, 7, 42);  // a 16-byte IV runs on, the partial block counted whole
}

TEST(SampleEncryption, NalShorterThanFiveBytesFailsWithTheManagersException) {
    for (std::size_t n = 0; n < 5; ++n) {
        Keyed k;
        Stream stream({{21, n}});
        Bytes iv = FixedKeyProvider::defaultIv();
        enc::SampleEncryptionInfo info;
        EXPECT_EQ(testkit::failureOf<enc::EncryptionManager::Exception>(
                      [&] { enc::encryptSample(stream.samples[0], true, k.manager, iv, info); }),
                  "Rijndael 128 CTR encrypt : failed (error -1)")
            << n;
    }
}

TEST(SampleEncryption, IvOfAnotherLengthEncryptsNothingAndStillWritesTheMap) {
    Keyed k;
    Stream stream({{9, 37}});
    Bytes iv(12, 0x55);
    enc::SampleEncryptionInfo info;
    ASSERT_TRUE(enc::encryptSample(stream.samples[0], true, k.manager, iv, info));
    EXPECT_EQ(stream.bytes, stream.original);
    EXPECT_EQ(info.subsamples, (std::vector<std::pair<std::uint32_t, std::uint32_t>>{{14, 32}}));
    EXPECT_EQ(info.iv, iv);
}

TEST(IncrementIv, AddsOneBigEndianAndWrapsAtTheTop) {
    const std::vector<std::pair<std::string, std::string>> table = {
        {"0000000000000000", "0000000000000001"}, {"00000000000000ff", "0000000000000100"},
        {"01ffffffffffffff", "0200000000000000"}, {"ffffffffffffffff", "0000000000000000"}};
    for (const auto& [before, after] : table) {
        Bytes iv = testkit::hex(before);
        enc::incrementIv(iv);
        EXPECT_EQ(iv, testkit::hex(after)) << before;
    }
}

}  // namespace
