// AES-128 CTR against AES-128-ECB block by block, the subsample map, and how the IV and the block counter move
// from NAL to NAL and from sample to sample.
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "packaging/encryption/sample_encryption.h"
#include "tests/common/bytes.h"
#include "tests/common/fixed_key_provider.h"
#include "tests/packaging/encryption/ctr_reference.h"

namespace {

namespace enc = tvrn::encoding::packaging::encryption;
using testkit::Bytes;
using testkit::counterBlock;
using testkit::FixedKeyProvider;
using Map = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

const std::uint64_t kIvHigh = 0xa1a2a3a4a5a6a7a8ULL;  // FixedKeyProvider::defaultIv() as a number

// A manager with the provider's key installed.
struct Keyed {
    enc::EncryptionManager manager{std::make_unique<FixedKeyProvider>()};
    Keyed() {
        Bytes iv;
        manager.updateKey(0, iv);
    }
};

Bytes pattern(std::size_t n) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(n + 7 * i);
    return b;
}

// The samples of one stream, as NAL sizes per sample, encrypted through encryptStreamSamples.
struct Stream {
    std::vector<std::vector<Bytes>> original, bytes;
    std::vector<std::vector<enc::NalBytes>> nals;
    std::vector<std::optional<enc::SampleEncryptionInfo>> infos;
    Stream(const std::vector<std::vector<std::size_t>>& sizes, bool subsamples, Bytes& iv) {
        for (const auto& sample : sizes) {
            original.emplace_back();
            for (std::size_t n : sample) original.back().push_back(pattern(n));
        }
        bytes = original;
        for (auto& sample : bytes) nals.emplace_back(sample.begin(), sample.end());
        Keyed k;
        enc::encryptStreamSamples(std::vector<enc::SampleNals>(nals.begin(), nals.end()), subsamples, k.manager, iv,
                                  infos);
    }
    // NAL n of sample s: its first `clear` bytes as they were, the rest encrypted from counter (high, low).
    void expectNal(std::size_t s, std::size_t n, std::size_t clear, std::uint64_t high, std::uint64_t low) const {
        Bytes expected = original[s][n];
        const Bytes tail = testkit::referenceCtr(FixedKeyProvider::kKey, high, low,
                                                 Bytes(expected.begin() + static_cast<long>(clear), expected.end()));
        std::copy(tail.begin(), tail.end(), expected.begin() + static_cast<long>(clear));
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
    const std::uint64_t high = 0x0123456789abcdefULL, start = 0xfffffffffffffffdULL;
    const Bytes plain = pattern(5 * 16 + 7);  // counts FD, FE, FF, 0, 1, and 2 for the partial block
    Bytes out(plain.size()), counter = counterBlock(high, start);
    k.manager.encryptCtr(plain.data(), out.data(), static_cast<std::int64_t>(plain.size()), counter);
    for (std::size_t i = 0; i < plain.size(); ++i) {
        const Bytes keystream = testkit::ecbEncrypt(FixedKeyProvider::kKey, counterBlock(high, start + i / 16));
        ASSERT_EQ(out[i], plain[i] ^ keystream[i % 16]) << "block " << i / 16 << ", byte " << i % 16;
    }
    EXPECT_EQ(counter, counterBlock(high, 3));
}

TEST(SubsampleMap, FollowsTheClearRuleAndMergesEntriesWithoutProtectedBytes) {
    const std::vector<std::pair<std::vector<std::size_t>, Map>> table = {
        {{5}, {{5, 0}}},   {{20}, {{20, 0}}},       {{21}, {{5, 16}}},           {{22}, {{6, 16}}},
        {{1000}, {{8, 992}}}, {{9, 37}, {{14, 32}}}, {{21, 9}, {{5, 16}, {9, 0}}}, {{5, 6, 20}, {{31, 0}}}};
    for (const auto& [sizes, map] : table) {
        Bytes iv = FixedKeyProvider::defaultIv();
        Stream stream({sizes}, true, iv);
        EXPECT_EQ(stream.infos[0]->subsamples, map) << testing::PrintToString(sizes);
    }
}

TEST(SampleEncryption, EightByteIvRunsTheBlockCounterAcrossNalsAndRestartsItWithTheNextIv) {
    Bytes iv = FixedKeyProvider::defaultIv();
    Stream stream({{37, 21}, {}, {22}}, true, iv);
    EXPECT_EQ(stream.infos[0]->iv, FixedKeyProvider::defaultIv());
    EXPECT_FALSE(stream.infos[1].has_value());  // no NAL, no record; the IV moves on all the same
    EXPECT_EQ(stream.infos[2]->iv, testkit::hex("a1a2a3a4a5a6a7aa"));
    EXPECT_EQ(iv, testkit::hex("a1a2a3a4a5a6a7ab"));
    stream.expectNal(0, 0, 5, kIvHigh, 0);
    stream.expectNal(0, 1, 5, kIvHigh, 2);
    stream.expectNal(2, 0, 6, kIvHigh + 2, 0);
}

TEST(SampleEncryption, SixteenByteIvCarriesOverFromSampleToSample) {
    const std::uint64_t high = 0x1122334455667788ULL, start = 0xfffffffffffffffeULL;
    Bytes iv = counterBlock(high, start);
    Stream stream({{37, 22}, {21}}, true, iv);
    EXPECT_EQ(stream.infos[1]->iv, counterBlock(high, 1));  // three blocks on, past the wrap
    EXPECT_EQ(iv, counterBlock(high, 2));
    stream.expectNal(0, 0, 5, high, start);
    stream.expectNal(0, 1, 6, high, 0);
    stream.expectNal(1, 0, 5, high, 1);
}

TEST(SampleEncryption, WholeSampleModeEncryptsEveryByteAndRestartsEachNalWithAnEightByteIv) {
    Bytes iv = FixedKeyProvider::defaultIv();
    Stream stream({{20, 35}, {7}}, false, iv);
    EXPECT_TRUE(stream.infos[0]->subsamples.empty());
    stream.expectNal(0, 0, 0, kIvHigh, 0);
    stream.expectNal(0, 1, 0, kIvHigh, 0);
    stream.expectNal(1, 0, 0, kIvHigh + 1, 0);
}

TEST(SampleEncryption, NalShorterThanFiveBytesFailsWithTheManagersException) {
    for (std::size_t n = 0; n < 5; ++n) {
        Bytes iv = FixedKeyProvider::defaultIv();
        EXPECT_EQ(testkit::failureOf<enc::EncryptionManager::Exception>([&] { Stream({{21, n}}, true, iv); }),
                  "Rijndael 128 CTR encrypt : failed (error -1)")
            << n;
    }
}

}  // namespace
