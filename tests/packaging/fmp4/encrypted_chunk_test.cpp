// An encrypted DASH chunk read back byte by byte: pssh ahead of mfhd, the samples' encryption data at the start of
// mdat for the encrypted track only, saio pointing exactly at it, and offsets and sizes that count it.
#include <gtest/gtest.h>

#include "packaging/fmp4/chunks/chunk_serializer.h"
#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "tests/common/chunks.h"

namespace {
using namespace testkit;
namespace box = tvrn::encoding::packaging::imff::imff_box;

// A sample at 90 kHz of `size` bytes of `fill`, with encryption info when `iv` is not empty.
std::shared_ptr<ISyncSample> sampleOf(std::int32_t kind, std::uint32_t type, std::int64_t dts, std::size_t size,
                                      std::uint8_t fill, const Bytes& iv = {},
                                      std::vector<std::pair<std::uint32_t, std::uint32_t>> subsamples = {}) {
    std::shared_ptr<samples::Sample> sample = timedSample(1, kind, type, dts, dts, 3600, Bytes(size, fill));
    if (!iv.empty()) sample->encryptionInfo = std::make_unique<box::SampleEncryptionInfo>(box::SampleEncryptionInfo{iv, subsamples});
    return std::make_shared<Fmp4Sample>(sample);
}

struct EncryptedChunk : testing::Test {
    EncryptedChunk() {
        video.duration = audio.duration = 400000;
        // Track 1, video, encrypted: entries of 8 + 2 + 12 and 8 + 2 + 6 bytes.
        video.samples = {sampleOf(samples::KindVideo, H264_VIDEO, 0, 67, 0x11, hex("0102030405060708"), {{5, 16}, {14, 32}}),
                         sampleOf(samples::KindVideo, H264_VIDEO, 3600, 1000, 0x22, hex("0102030405060709"), {{8, 992}})};
        // Track 2, audio, left clear: no encryption info.
        audio.samples = {sampleOf(samples::KindAudio, AAC_ADTS_AUDIO, 0, 10, 0x33)};
        p.tracks = {{2, ChunkAudio, &audio}, {1, ChunkVideo, &video}};
        p.chunkDuration = 400000;
        p.atSegmentStart = p.psshInFragments = true;
        p.encryption = FragmentEncryptionInfo{
            .encrypted = true,
            .fragmentProtectionBoxes = {std::make_shared<box::ProtectionSystemSpecificHeaderBox>(box::Uuid{}, Bytes{7})}};
    }
    Bytes serialise() const {
        const ChunkBytes chunk = serialiseChunk(p);
        return Bytes(chunk.data.get(), chunk.data.get() + chunk.size);
    }
    StreamChunk video, audio;
    ChunkSerialisationParameters p;
};

TEST_F(EncryptedChunk, AuxiliaryDataOfTheEncryptedTrackOpensMdat) {
    const Bytes bytes = serialise();
    const auto moof = findBox(bytes, "moof"), mdat = findBox(bytes, "mdat"), sidx = findBox(bytes, "sidx");
    ASSERT_TRUE(moof && mdat && sidx);
    EXPECT_EQ(typesIn(bytes, moof->contentStart, moof->end), "pssh mfhd traf traf ");
    const auto trafs = childrenOf(bytes, *moof, "traf");
    EXPECT_EQ(typesIn(bytes, trafs[0].contentStart, trafs[0].end), "tfhd tfdt trun saiz saio sbgp sgpd ");
    EXPECT_EQ(typesIn(bytes, trafs[1].contentStart, trafs[1].end), "tfhd tfdt trun ");

    // saio: version and flags, type, parameter, count, then the 64-bit offset from the start of moof.
    const auto saio = childrenOf(bytes, trafs[0], "saio");
    const std::uint64_t auxAt = moof->offset + u64In(bytes, saio[0], 16);
    EXPECT_EQ(auxAt, mdat->contentStart);
    // The two senc entries: IV, subsample count, (clear, protected) pairs.
    const Bytes aux = hex("0102030405060708 0002 0005 00000010 000E 00000020  0102030405060709 0001 0008 000003E0");
    EXPECT_BYTES(slice(bytes, auxAt, aux.size()), aux);

    // The samples follow: video (1067 bytes) then audio (10); each trun's data offset (after version and flags,
    // count) points at its first sample.
    const std::size_t videoAt = mdat->contentStart + aux.size();
    EXPECT_EQ(moof->offset + u32In(bytes, childrenOf(bytes, trafs[0], "trun")[0], 8), videoAt);
    EXPECT_EQ(moof->offset + u32In(bytes, childrenOf(bytes, trafs[1], "trun")[0], 8), videoAt + 1067);
    EXPECT_EQ(bytes[videoAt], 0x11);
    EXPECT_EQ(bytes[videoAt + 1067], 0x33);
    EXPECT_EQ(mdat->size(), 8 + aux.size() + 1067 + 10);
    // sidx: the referenced size (after version, flags, ids, times, reserved, count) spans moof and mdat.
    EXPECT_EQ(u32In(bytes, *sidx, 32), moof->size() + mdat->size());
}

TEST_F(EncryptedChunk, AClearChunkIsTheChunkOfASessionWithoutEncryption) {
    p.atSegmentStart = false;  // no pssh either
    p.encryption->encrypted = false;
    const Bytes clear = serialise();
    p.encryption.reset();
    EXPECT_BYTES(clear, serialise());
    EXPECT_FALSE(findBox(clear, "moof/traf/saiz"));
}

}  // namespace
