// The presentation: chunks in, files and manifests out through the publisher, named by the templates.
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>
#include <vector>

#include "apps/fmp4mux/manifests/manifests.h"
#include "apps/fmp4mux/model/presentation.h"
#include "tests/apps/fmp4mux/host_chunks.h"

namespace {
using namespace fmp4mux;
using namespace host_test;

const std::string kManifest = R"(<?xml version="1.0" encoding="UTF-8"?><smil><body><switch>
<video trackId="1" systemBitrate="500000" width="640" height="360" codecs="avc1.64001e"/></switch></body></smil>)";

// Records what is published, as the files would read.
struct Recorder : Publisher {
    std::vector<std::pair<std::string, Bytes>> files;
    std::set<std::string> onDisk;
    void publish(Publication&& p) override {
        if (p.remove) {
            EXPECT_EQ(onDisk.erase(p.path), 1u) << p.path;
            return;
        }
        onDisk.insert(p.path);
        Bytes content;
        if (p.ranges.empty()) content = p.bytes;
        for (const auto& [offset, length] : p.ranges)
            content.insert(content.end(), p.bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                           p.bytes.begin() + static_cast<std::ptrdiff_t>(offset + length));
        files.emplace_back(p.path, content);
    }
    void drain() override {}
    std::optional<std::string> failure() const override { return std::nullopt; }
    std::string text(std::size_t i) const { return std::string(files.at(i).second.begin(), files.at(i).second.end()); }
};

PresentationSettings settings(bool live) {
    PresentationSettings s;
    s.live = live;
    s.streamName = "ch1";
    s.initTemplate = "${sessionId}/${adaptationSetId}/${representationId}/init.mp4";
    s.mediaTemplate = "${sessionId}/${adaptationSetId}/${representationId}/${bitrate}_${time}.mp4";
    s.timeShiftBufferSeconds = 6;
    return s;
}

TEST(Presentation, FileInputWritesNamedFilesWithoutMarkersAndOneStaticManifestOfEverySegment) {
    Recorder out;
    DashManifestWriter mpd;
    Presentation p(settings(false), out, mpd, [] { return 1000.0; });
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
    const std::string text = out.text(11);
    EXPECT_NE(text.find("type=\"static\""), std::string::npos) << text;
    EXPECT_NE(text.find("<S t=\"0\" d=\"180000\" r=\"9\"/>"), std::string::npos) << text;
    // Files are named by the stream's own bitrate, and the template says that very number, not $Bandwidth$ (the
    // measured peak the MPD announces).
    EXPECT_NE(text.find("media=\"ch1/0/$RepresentationID$/500000_$Time$.mp4\""), std::string::npos) << text;
}

TEST(Presentation, LiveInputRewritesTheManifestOnEveryChunkAndKeepsItsWindowOnDisk) {
    Recorder out;
    DashManifestWriter mpd;
    Presentation p(settings(true), out, mpd, [] { return 1000.0; });
    p.addOutput(0, "video", 0, 0, false, "video0", "und");
    p.onChunk(0, true, initChunk(kManifest));
    for (std::uint32_t k = 0; k < 100; ++k) p.onChunk(0, false, dashChunk(180000 * k, 180000));
    // Each media file, then the manifest that lists it; files that left the window go a window later.
    std::size_t media = 0;
    for (const auto& [path, bytes] : out.files) media += path.find("500000_") != std::string::npos ? 1u : 0u;
    EXPECT_EQ(media, 100u);
    EXPECT_LE(out.onDisk.size(), 1u + 1u + 8u) << "init, manifest, window and grace of media";
    EXPECT_TRUE(out.onDisk.count("ch1/0/video0/500000_" + std::to_string(99u * 180000) + ".mp4"));
    EXPECT_FALSE(out.onDisk.count("ch1/0/video0/500000_0.mp4"));
    const std::string last = out.text(out.files.size() - 1);
    EXPECT_NE(last.find("type=\"dynamic\""), std::string::npos) << last;
    // 6 s of window over 2 s segments: the last four segments' starts at most (one straddles the window's edge).
    const std::regex segment("<S t=\"(\\d+)\" d=\"180000\"(?: r=\"(\\d+)\")?/>");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(last, m, segment)) << last;
    const int listed = 1 + (m[2].matched ? std::stoi(m[2]) : 0);
    EXPECT_LE(listed, 4) << last;
    EXPECT_EQ(std::stoull(m[1]) + static_cast<std::uint64_t>(listed) * 180000, 100u * 180000) << last;
    p.finish();
    EXPECT_NE(out.text(out.files.size() - 1).find("type=\"static\""), std::string::npos);
}

}  // namespace
