// AES-128 CTR against AES-128-ECB block by block, the subsample map, and how the IV and the block counter move
// from NAL to NAL and from sample to sample. cbcs against blocks encrypted apart with
// `openssl enc -aes-128-cbc -nopad -K 2b7e151628aed2a6abf7158809cf4f3c -iv 000102030405060708090a0b0c0d0e0f`.
#include <gtest/gtest.h>

#include <array>
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

// A manager with the provider's key installed; with `cbcs`, after the scheme is set to cbcs with the constant IV
// 00 01 .. 0f.
struct Keyed {
    enc::EncryptionManager manager{std::make_unique<FixedKeyProvider>()};
    explicit Keyed(bool cbcs = false) {
        const std::array<std::uint8_t, 16> iv{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
        if (cbcs) manager.setScheme({enc::EncryptionScheme::Cbcs, iv});
        Bytes ivOut;
        manager.updateKey(0, ivOut);
    }
};

Bytes pattern(std::size_t n) {
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>(n + 7 * i);
    return b;
}

// The samples of one stream, as NAL sizes per sample, encrypted through encryptStreamSamples from `iv`, which moves on.
struct Stream {
    std::vector<std::vector<Bytes>> original, bytes;
    std::vector<std::vector<enc::NalBytes>> nals;
    std::vector<std::optional<enc::SampleEncryptionInfo>> infos;
    Bytes iv;
    Stream(const std::vector<std::vector<std::size_t>>& sizes, bool subsamples,
           Bytes startIv = FixedKeyProvider::defaultIv())
        : iv(std::move(startIv)) {
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
        Stream stream({sizes}, true);
        EXPECT_EQ(stream.infos[0]->subsamples, map) << testing::PrintToString(sizes);
    }
}

TEST(SampleEncryption, EightByteIvRunsTheBlockCounterAcrossNalsAndRestartsItWithTheNextIv) {
    Stream stream({{37, 21}, {}, {22}}, true);
    EXPECT_EQ(stream.infos[0]->iv, FixedKeyProvider::defaultIv());
    EXPECT_FALSE(stream.infos[1].has_value());  // no NAL, no record; the IV moves on all the same
    EXPECT_EQ(stream.infos[2]->iv, testkit::hex("a1a2a3a4a5a6a7aa"));
    EXPECT_EQ(stream.iv, testkit::hex("a1a2a3a4a5a6a7ab"));
    stream.expectNal(0, 0, 5, kIvHigh, 0);
    stream.expectNal(0, 1, 5, kIvHigh, 2);
    stream.expectNal(2, 0, 6, kIvHigh + 2, 0);
}

TEST(SampleEncryption, SixteenByteIvCarriesOverFromSampleToSample) {
    const std::uint64_t high = 0x1122334455667788ULL, start = 0xfffffffffffffffeULL;
    Stream stream({{37, 22}, {21}}, true, counterBlock(high, start));
    EXPECT_EQ(stream.infos[1]->iv, counterBlock(high, 1));  // three blocks on, past the wrap
    EXPECT_EQ(stream.iv, counterBlock(high, 2));
    stream.expectNal(0, 0, 5, high, start);
    stream.expectNal(0, 1, 6, high, 0);
    stream.expectNal(1, 0, 5, high, 1);
}

TEST(SampleEncryption, WholeSampleModeEncryptsEveryByteAndRestartsEachNalWithAnEightByteIv) {
    Stream stream({{20, 35}, {7}}, false);
    EXPECT_TRUE(stream.infos[0]->subsamples.empty());
    stream.expectNal(0, 0, 0, kIvHigh, 0);
    stream.expectNal(0, 1, 0, kIvHigh, 0);
    stream.expectNal(1, 0, 0, kIvHigh + 1, 0);
}

TEST(SampleEncryption, NalShorterThanFiveBytesFailsWithTheManagersException) {
    for (std::size_t n = 0; n < 5; ++n) {
        EXPECT_EQ(testkit::failureOf<enc::EncryptionManager::Exception>([&] { Stream({{21, n}}, true); }),
                  "Rijndael 128 CTR encrypt : failed (error -1)")
            << n;
    }
}

// A NAL of `size` bytes whose byte i is i + offset, under its 4-byte length field and the header byte(s).
Bytes nal(std::size_t size, Bytes header, std::uint8_t offset = 0) {
    Bytes b(size);
    for (std::size_t i = 0; i < size; ++i) b[i] = static_cast<std::uint8_t>(i + offset);
    const auto length = static_cast<std::uint32_t>(size - 4);
    b[0] = static_cast<std::uint8_t>(length >> 24), b[1] = static_cast<std::uint8_t>(length >> 16);
    b[2] = static_cast<std::uint8_t>(length >> 8), b[3] = static_cast<std::uint8_t>(length);
    std::copy(header.begin(), header.end(), b.begin() + 4);
    return b;
}

void put(Bytes& bytes, std::size_t at, const char* hexText) {
    const Bytes block = testkit::hex(hexText);
    std::copy(block.begin(), block.end(), bytes.begin() + static_cast<long>(at));
}

TEST(Cbcs, VideoSlicesGetThePatternFromTheConstantIvAtEachProtectedRangeAndTheRestStaysClear) {
    Keyed k(true);
    // An SEI, all clear; an IDR slice with 181 protected bytes after 4 + 64 clear ones: blocks 0 and 10 encrypted
    // as one chain across the nine skipped, 5 trailing bytes clear; a second slice whose 19 protected bytes start
    // the chain again from the IV.
    std::vector<Bytes> nals = {nal(30, {0x06}), nal(249, {0x65}), nal(87, {0x41}, 0x80)};
    std::vector<Bytes> expected = nals;
    put(expected[1], 68, "08814ebce5c81ae857a087cce7ac6c6a");      // 44 45 .. 53 chained from the IV
    put(expected[1], 68 + 160, "7005fa4a9bf4da07387e65dbd2abe8c8");  // e4 e5 .. f3 chained from the block above
    put(expected[2], 68, "22baab00c71e81b3deb5caeaf559d438");      // c4 c5 .. d3 chained from the IV
    std::vector<enc::NalBytes> views(nals.begin(), nals.end());
    enc::SampleEncryptionInfo info;
    ASSERT_TRUE(enc::encryptSampleCbcs(views, true, enc::NalCodec::H264, k.manager, info));
    EXPECT_EQ(nals, expected);
    EXPECT_TRUE(info.iv.empty());
    EXPECT_EQ(info.subsamples, (Map{{30 + 68, 181}, {68, 19}}));
}

TEST(Cbcs, SubsampleMapReadsEachCodecsNalTypeAndSplitsLongClearRuns) {
    const struct {
        enc::NalCodec codec;
        std::vector<std::pair<std::size_t, Bytes>> nals;  // size, header
        Map map;
    } table[] = {
        {enc::NalCodec::H264, {{100, {0x67}}, {100, {0x01}}}, {{168, 32}}},           // SPS clear, non-IDR slice
        {enc::NalCodec::H264, {{60, {0x65}}}, {{60, 0}}},                             // a slice within the clear bytes
        {enc::NalCodec::Hevc, {{100, {0x40, 0x01}}, {100, {0x26, 0x01}}}, {{168, 32}}},  // VPS clear, IDR_W_RADL
        {enc::NalCodec::Hevc, {{100, {0x02, 0x01}}, {100, {0x4e, 0x01}}}, {{68, 32}, {100, 0}}},  // TRAIL_R, SEI
        {enc::NalCodec::H264, {{70000, {0x06}}, {100, {0x65}}}, {{0xFFFF, 0}, {70068 - 0xFFFF, 32}}},
    };
    for (const auto& row : table) {
        Keyed k(true);
        std::vector<Bytes> nals;
        for (const auto& [size, header] : row.nals) nals.push_back(nal(size, header));
        std::vector<enc::NalBytes> views(nals.begin(), nals.end());
        enc::SampleEncryptionInfo info;
        ASSERT_TRUE(enc::encryptSampleCbcs(views, true, row.codec, k.manager, info));
        EXPECT_EQ(info.subsamples, row.map) << testing::PrintToString(row.map);
    }
}

TEST(Cbcs, AudioIsOneChainOverTheWholeSampleWithItsTrailingPartialBlockClear) {
    Keyed k(true);
    Bytes sample(45);
    for (std::size_t i = 0; i < sample.size(); ++i) sample[i] = static_cast<std::uint8_t>(3 * i);
    Bytes expected = sample;
    put(expected, 0, "535f9652c6a97e3baa2440a132e7c85084e1d61a3c0a2098535d587fe920ca43");
    // Two buffers, the second block straddling them.
    std::vector<Bytes> nals = {Bytes(sample.begin(), sample.begin() + 20), Bytes(sample.begin() + 20, sample.end())};
    std::vector<enc::NalBytes> views(nals.begin(), nals.end());
    std::vector<std::optional<enc::SampleEncryptionInfo>> infos;
    const std::vector<enc::SampleNals> samples = {views, {}};
    enc::encryptStreamSamplesCbcs(samples, false, enc::NalCodec::H264, k.manager, infos);
    nals[0].insert(nals[0].end(), nals[1].begin(), nals[1].end());
    EXPECT_EQ(nals[0], expected);
    ASSERT_TRUE(infos[0].has_value());
    EXPECT_TRUE(infos[0]->iv.empty() && infos[0]->subsamples.empty());
    EXPECT_FALSE(infos[1].has_value());
}

}  // namespace
