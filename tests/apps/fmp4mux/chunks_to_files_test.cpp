// Chunks on their way to files: read, joined back from the filter's buffers, and published by the presentation,
// named by the templates, with the manifests.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "apps/fmp4mux/engine/chunk_sink.h"
#include "apps/fmp4mux/manifests/hls.h"
#include "apps/fmp4mux/manifests/manifests.h"
#include "apps/fmp4mux/model/presentation.h"
#include "packaging/fmp4/output/chunk_reader.h"
#include "tests/common/bytes.h"

namespace {
using namespace fmp4mux;
using namespace tvrn::encoding::packaging::imff::fmp4;
namespace flt = tvrn::encoding::filter;
using testkit::Bytes;
using testkit::cat;
using testkit::hex;

Bytes u32(std::uint64_t v) {
    return {static_cast<std::uint8_t>(v >> 24), static_cast<std::uint8_t>(v >> 16), static_cast<std::uint8_t>(v >> 8),
            static_cast<std::uint8_t>(v)};
}

Bytes box(const std::string& type, const Bytes& content = {}) {
    return cat({u32(content.size() + 8), Bytes(type.begin(), type.end()), content});
}

// An init chunk: its container (the sizes of the movie part and of the index), the movie part (ftyp, the manifest
// box holding `xml` after its uuid, a moov of `moovSize` bytes), then the index (an empty mfra).
Bytes initChunk(const std::string& xml, std::size_t moovSize = 0) {
    const Bytes movie = cat({box("ftyp", hex("'dash' 00000000")),
                             box("uuid", cat({Bytes(16, 0), Bytes(xml.begin(), xml.end())})), box("moov", Bytes(moovSize, 1))});
    const Bytes index = box("mfra");
    return cat({u32(movie.size()), u32(index.size()), movie, index});
}

// A DASH media chunk at 90 kHz between its markers (20 bytes before, 40 after): styp, sidx (version 0, one
// reference of `duration` from `time`), moof, and an mdat of `mdatSize` bytes.
Bytes dashChunk(std::uint32_t time, std::uint32_t duration, std::size_t mdatSize = 1000) {
    const Bytes sidx = box("sidx", cat({hex("00000000 00000001 00015F90"), u32(time), hex("00000000 0000 0001 00000064"),
                                        u32(duration), hex("90000000")}));
    return cat({box("tnsb", Bytes(12, 0)), box("styp", hex("'msdh'")), sidx, box("moof"), box("mdat", Bytes(mdatSize, 7)),
                box("teoc", Bytes(12, 0)), box("teos", Bytes(12, 0))});
}

// The DASH time and the movie part are read in the presentation test below; here Smooth's time box, and chunks
// cut short.
TEST(ChunkReader, SmoothTimesAndChunksCutShort) {
    // uuid 6D1D9B05-42D5-44E6-80E2-141DAFF757B2, version 1, time and duration in 64 bits.
    const Bytes tfxd = box("uuid", hex("6D1D9B0542D544E680E2141DAFF757B2 01000000 0000000000989680 0000000001312D00"));
    const Bytes smooth = cat({box("moof", cat({box("mfhd", hex("00000000 00000001")),
                                               box("traf", cat({box("tfhd", hex("00000000 00000001")), tfxd}))})),
                              box("mdat")});
    const auto timing = readChunkTiming(smooth, false);
    ASSERT_TRUE(timing);
    EXPECT_EQ(timing->timescale, 10000000u);
    EXPECT_EQ(timing->time, 10000000u);
    EXPECT_EQ(timing->duration, 20000000u);
    const Bytes dash = dashChunk(180000, 90000), init = initChunk("<?xml?>");
    EXPECT_FALSE(readChunkTiming(std::span(dash).first(60), true));  // cut inside sidx
    EXPECT_TRUE(moviePart(std::span(init).first(init.size() - 1)).empty());
}

// Feeds a sink as the filter's output pin does: every buffer of a chunk is taken and filled before any is
// delivered; a first buffer that takes references gets the first 16 bytes of an `mdat` in it by reference instead.
// Returns where the first buffer's bytes were.
const std::uint8_t* send(ChunkSink& sink, flt::MemAllocator& allocator, const Bytes& bytes, bool init, std::int64_t time) {
    std::vector<flt::IMediaSample3*> samples;
    const std::uint8_t* first = nullptr;
    for (std::size_t at = 0; at < bytes.size();) {
        flt::IMediaSample3* sample = nullptr;
        EXPECT_EQ(allocator.GetBuffer(&sample, nullptr, nullptr, 0), 0);
        std::uint8_t* data = nullptr;
        sample->GetPointer(&data);
        if (samples.empty()) first = data;
        const std::size_t n = std::min(static_cast<std::size_t>(sample->GetSize()), bytes.size() - at);
        std::memcpy(data, bytes.data() + at, n);
        auto* referring = samples.empty() ? dynamic_cast<flt::IReferencedContent*>(sample) : nullptr;
        const std::string_view type("mdat");
        const auto mdat = std::search(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n), type.begin(), type.end());
        const auto hole = static_cast<std::size_t>(mdat - bytes.begin()) + 4;
        if (referring != nullptr && hole + 16 <= n) {
            std::memset(data + hole, 0, 16);
            referring->TakeReferences({{hole, bytes.data() + hole, 16, nullptr}});
        }
        sample->SetActualDataLength(static_cast<long>(n));
        sample->SetSyncPoint(init);
        if (!init) sample->SetTime(&time, nullptr);
        samples.push_back(sample);
        at += n;
    }
    for (flt::IMediaSample3* sample : samples) {
        sink.Receive(sample);
        sample->Release();
    }
    return first;
}

// Through a plain allocator's buffers, and through the sink's own, which the output writes each chunk straight
// into: a chunk that fits is handed on where it was written; one larger than the room, or written behind a chunk
// still open, is joined all the same.
class ChunkSinkBuffers : public ::testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Allocators, ChunkSinkBuffers, ::testing::Values(false, true),
                         [](const auto& p) { return p.param ? "SinksOwn" : "Plain"; });

TEST_P(ChunkSinkBuffers, JoinsBuffersBackIntoWholeChunks) {
    const bool own = GetParam();
    std::vector<Bytes> inits, media;
    const std::uint8_t* handedOn = nullptr;  // where the last chunk was
    ChunkSink sink(true, 10, [&](bool init, ChunkSink::Bytes&& room, std::size_t length, ChunkSink::References&& references) {
        ASSERT_LE(length, room.size());
        handedOn = room.data();
        Bytes whole(room.begin(), room.begin() + static_cast<std::ptrdiff_t>(length));
        for (const auto& reference : references) {
            ASSERT_LE(reference.at + reference.size, length);
            std::copy_n(reference.data, reference.size, whole.begin() + static_cast<std::ptrdiff_t>(reference.at));
        }
        (init ? inits : media).push_back(std::move(whole));
    });
    flt::MemAllocator plain{100, 8192};
    flt::MemAllocator& allocator = own ? *sink.GetAllocator() : plain;
    flt::MemAllocator::Properties actual;
    ASSERT_EQ(allocator.SetProperties({100, 8192, 1, 0}, actual), 0);
    EXPECT_GE(actual.size, 8192);
    const auto feed = [&](const Bytes& bytes, bool init, std::int64_t time) { return send(sink, allocator, bytes, init, time); };
    const Bytes init = initChunk("<?xml?>", 9000), chunk = dashChunk(0, 100, 20000);
    feed(init, true, 0);
    EXPECT_EQ(inits, std::vector<Bytes>{init});  // complete without waiting for what follows
    const std::uint8_t* written = feed(chunk, false, 100);
    ASSERT_EQ(media, std::vector<Bytes>{chunk});  // the end-of-segment box closes it
    EXPECT_EQ(handedOn == written, own);
    // A low-latency chunk ends at its end-of-chunk box, at once. A chunk without a closing box is completed by
    // the next one, and the last by the end of the stream.
    const Bytes inner = cat({box("moof"), box("mdat", {3}), box("teoc")});
    feed(inner, false, 200);
    EXPECT_EQ(media, (std::vector<Bytes>{chunk, inner}));
    const Bytes open = cat({box("moof"), box("mdat", {3})}), large = dashChunk(500, 100, 400000);
    feed(open, false, 300);
    EXPECT_EQ(media.size(), 2u);
    feed(open, false, 400);
    feed(large, false, 500);
    EXPECT_EQ(media, (std::vector<Bytes>{chunk, inner, open, open, large}));
    feed(open, false, 600);
    sink.EndOfStream();
    EXPECT_EQ(media, (std::vector<Bytes>{chunk, inner, open, open, large, open}));
    EXPECT_TRUE(sink.ended());
}

const std::string kManifest = R"(<?xml version="1.0" encoding="UTF-8"?><smil><body><switch>
<video trackId="1" systemBitrate="500000" width="640" height="360" codecs="avc1.64001e"/></switch></body></smil>)";

// Records what is published, as the files would read.
struct Recorder : Publisher {
    std::vector<std::pair<std::string, Bytes>> files;
    void publish(Publication&& p) override {
        EXPECT_FALSE(p.remove) << p.path;  // a static presentation keeps every file
        Bytes content;
        if (p.ranges.empty()) content.assign(p.bytes.begin(), p.bytes.end());
        for (const auto& [offset, length] : p.ranges)
            content.insert(content.end(), p.bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                           p.bytes.begin() + static_cast<std::ptrdiff_t>(offset + length));
        files.emplace_back(p.path, content);
    }
    void drain() override {}
    std::optional<std::string> failure() const override { return std::nullopt; }
};

// A live presentation, which rewrites the MPD on every chunk and deletes the files that left its window, is run
// end to end by tests/e2e/live_input_test.sh; the window's listing is the manifest writer's test.
// A file input's presentation named "ch1", with files named by representation and bitrate.
PresentationSettings fileSettings() {
    PresentationSettings settings;
    settings.streamName = "ch1";
    settings.initTemplate = "${sessionId}/${adaptationSetId}/${representationId}/init.mp4";
    settings.mediaTemplate = "${sessionId}/${adaptationSetId}/${representationId}/${bitrate}_${time}.mp4";
    return settings;
}

TEST(Presentation, FileInputWritesNamedFilesWithoutMarkersAndOneStaticManifestOfEverySegment) {
    Recorder out;
    DashManifestWriter mpd;
    Presentation p(fileSettings(), out, mpd, [] { return 1000.0; });
    p.addOutput(0, "video", 0, 0, false, "video0", "und");
    const Bytes init = initChunk(kManifest);
    p.onChunk(0, true, Bytes(init));
    ASSERT_EQ(out.files.size(), 1u);
    EXPECT_EQ(out.files[0].first, "ch1/0/video0/init.mp4");
    EXPECT_EQ(out.files[0].second, Bytes(init.begin() + 8, init.end() - 8));  // the movie part
    for (std::uint32_t k = 0; k < 10; ++k) p.onChunk(0, false, dashChunk(180000 * k, 180000));
    p.onChunk(0, false, dashChunk(0, 0));  // a stand-in for a missed chunk: no file, no segment at 0
    ASSERT_EQ(out.files.size(), 11u);
    EXPECT_EQ(out.files[3].first, "ch1/0/video0/500000_360000.mp4");  // the bitrate the manifest announces
    const Bytes body = dashChunk(0, 180000);
    EXPECT_EQ(out.files[1].second, Bytes(body.begin() + 20, body.end() - 40));  // markers left out
    EXPECT_EQ(p.chunks(), 10u);
    EXPECT_DOUBLE_EQ(p.mediaSeconds(), 20.0);
    p.finish();
    ASSERT_EQ(out.files.size(), 12u);
    EXPECT_EQ(out.files[11].first, "manifest.mpd");
    const std::string text(out.files[11].second.begin(), out.files[11].second.end());
    EXPECT_NE(text.find("type=\"static\""), std::string::npos) << text;
    EXPECT_NE(text.find("<S t=\"0\" d=\"180000\" r=\"9\"/>"), std::string::npos) << text;
    // Files are named by the stream's own bitrate, and the template says that very number, not $Bandwidth$ (the
    // measured peak the MPD announces).
    EXPECT_NE(text.find("media=\"ch1/0/$RepresentationID$/500000_$Time$.mp4\""), std::string::npos) << text;
}

// Starts and durations rounded apart by a tick meet again in the timeline (as separate-audio segments on a 1 ms
// timescale do); a real gap stays, and HLS marks it as a discontinuity. Both formats' files are written.
TEST(Presentation, TimelineStaysContinuousAcrossRoundingButKeepsRealGaps) {
    Recorder out;
    DashManifestWriter mpd;
    HlsManifestWriter hls;
    const ManifestSet both({&mpd, &hls});
    Presentation p(fileSettings(), out, both, [] { return 1000.0; });
    p.addOutput(0, "audio", 2, 48000, false, "audio0", "und");
    p.onChunk(0, true, initChunk(kManifest));
    for (const auto& [time, duration] : {std::pair{0u, 1002u}, {1003u, 1002u}, {2004u, 1002u}, {4000u, 1000u}})
        p.onChunk(0, false, dashChunk(time, duration));
    p.finish();
    ASSERT_GE(out.files.size(), 3u);
    const auto last = out.files.end() - 3;
    EXPECT_EQ(last[0].first + " " + last[1].first + " " + last[2].first, "manifest.mpd master.m3u8 audio0.m3u8");
    const std::string playlist(last[2].second.begin(), last[2].second.end());
    EXPECT_EQ(playlist.find("#EXT-X-DISCONTINUITY\n"), playlist.find("_2004.mp4\n") + 10) << playlist;
    EXPECT_EQ(playlist.rfind("#EXT-X-DISCONTINUITY\n"), playlist.find("#EXT-X-DISCONTINUITY\n")) << playlist;
    const std::string text(last[0].second.begin(), last[0].second.end());
    for (const char* s : {"<S t=\"0\" d=\"1003\"/>", "<S t=\"1003\" d=\"1001\"/>", "<S t=\"2004\" d=\"1002\"/>",
                          "<S t=\"4000\" d=\"1000\"/>"})
        EXPECT_NE(text.find(s), std::string::npos) << s << "\n" << text;
}

}  // namespace
