// The host's publishers: a segment that grows chunk by chunk on disk.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "apps/fmp4mux/outputs/file_publisher.h"

namespace {
using namespace fmp4mux;
namespace fs = std::filesystem;

std::string readAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

Publication part(const std::string& path, const std::string& text, Publication::Growth growth, bool complete) {
    Publication p{path, tvrn::system::ByteBuffer(text.begin(), text.end()), {}, false};
    p.growth = growth;
    p.complete = complete;
    return p;
}

struct TempFolder {
    fs::path path = fs::temp_directory_path() / ("fmp4mux-outputs-" + std::to_string(::getpid()));
    TempFolder() { fs::create_directories(path); }
    ~TempFolder() { fs::remove_all(path); }
};

// Readers of a segment's name never see half of it: it grows under its own name, and is renamed with its last
// chunk. A segment started again (a new run with the same name) does not keep the bytes of the old one.
TEST(FilePublisher, AGrowingSegmentHasItsOwnNameUntilItsLastChunk) {
    TempFolder root;
    FilePublisher publisher(root.path.string());
    publisher.publish(part("a/seg_1.mp4", "stale", Publication::Growth::Start, false));
    publisher.publish(part("a/seg_1.mp4", "one", Publication::Growth::Start, false));
    publisher.publish(part("a/seg_1.mp4", "two", Publication::Growth::More, false));
    publisher.drain();
    EXPECT_FALSE(fs::exists(root.path / "a/seg_1.mp4"));
    EXPECT_EQ(readAll(root.path / "a/seg_1.mp4.growing"), "onetwo");
    publisher.publish(part("a/seg_1.mp4", "three", Publication::Growth::More, true));
    publisher.drain();
    EXPECT_EQ(readAll(root.path / "a/seg_1.mp4"), "onetwothree");
    EXPECT_FALSE(fs::exists(root.path / "a/seg_1.mp4.growing"));
    EXPECT_FALSE(publisher.failure());
}

// A file taken in one piece before it is written has the bytes of its ranges and no more, at every size, with
// the referenced bytes in place of the room's: one reference across a range's end, one inside the next range.
TEST(FilePublisher, APreallocatedFileHoldsExactlyItsRangesWithTheReferencedBytes) {
    TempFolder root;
    const auto other = std::make_shared<std::vector<std::uint8_t>>(64, std::uint8_t{0xEE});
    for (const std::size_t size : {std::size_t{100}, std::size_t{200000}}) {
        Publication file;
        file.bytes.resize(size + 100);
        for (std::size_t i = 0; i < file.bytes.size(); ++i) file.bytes[i] = static_cast<std::uint8_t>(i * 7);
        file.ranges = {{0, 50}, {100, size - 50}};
        file.references = {{40, other->data(), 20, other}, {120, other->data() + 1, 30, other}};
        std::vector<std::uint8_t> whole(file.bytes.begin(), file.bytes.end());
        std::fill(whole.begin() + 40, whole.begin() + 60, 0xEE);
        std::fill(whole.begin() + 120, whole.begin() + 150, 0xEE);
        const fs::path path = root.path / ("seg_" + std::to_string(size) + ".mp4");
        writeFileAtomically(path.string(), file, true);
        std::string expected(whole.begin(), whole.begin() + 50);
        expected.append(whole.begin() + 100, whole.begin() + 100 + static_cast<std::ptrdiff_t>(size - 50));
        EXPECT_EQ(readAll(path), expected) << size;
        EXPECT_EQ(gather(file), tvrn::system::ByteBuffer(expected.begin(), expected.end())) << size;
    }
}

}  // namespace

#include <chrono>
#include <thread>

#include "apps/fmp4mux/outputs/http_origin.h"
#include "tests/common/process.h"

namespace {

// The origin on a free port of 127.0.0.1 over a temporary folder, asked with curl.
struct Origin {
    TempFolder folder;
    HttpOrigin origin{HttpOrigin::Settings{folder.path.string(), "127.0.0.1", 0, std::chrono::milliseconds(200), 256,
                                           std::chrono::milliseconds(2000)}};
    std::string url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(origin.port()) + path; }
    // "STATUS BYTES" of one request.
    std::string ask(const std::string& path, const std::string& options = "") const {
        return testkit::run("curl -s --path-as-is -m 10 -o /dev/null -w '%{http_code}' " + options + " '" + url(path) + "'");
    }
};

// Only what lies in the folder is served, however the path is written; other methods are refused.
TEST(HttpOrigin, ServesTheFolderAndNothingOutsideIt) {
    Origin o;
    fs::create_directories(o.folder.path / "a");
    std::ofstream(o.folder.path / "a/init.mp4") << "init";
    fs::create_symlink("/etc", o.folder.path / "a/outside");
    o.origin.publish(part("manifest.mpd", "<MPD/>", Publication::Growth::Whole, true));
    const struct { std::string path, options, status; } cases[] = {
        {"/a/init.mp4", "", "200"},            // from the folder
        {"/manifest.mpd", "", "200"},          // from memory
        {"/manifest.mpd", "-I", "200"},        // HEAD
        {"/utc", "", "200"},
        {"/a/missing.mp4", "", "404"},
        {"/a/init.mp4.growing", "", "404"},
        {"/../etc/passwd", "", "403"},
        {"/%2e%2e/etc/passwd", "", "403"},
        {"/a/%2E%2e/%2e%2e/etc/passwd", "", "403"},
        {"/a/./init.mp4", "", "403"},
        {"/a/outside/passwd", "", "403"},      // a link that leads out
        {"/manifest.mpd", "-X POST", "405"},
        {"/a/init.mp4", "-X PUT -d x", "405"},
        {"/a/init.mp4", "-X DELETE", "405"},
    };
    for (const auto& c : cases) EXPECT_EQ(o.ask(c.path, c.options), c.status) << c.options << " " << c.path;
    EXPECT_EQ(testkit::run("curl -s '" + o.url("/a/init.mp4") + "'"), "init");
}

// A growing segment is sent as it grows, with chunked transfer encoding, to every player that asks at once; each
// gets the whole file once its last chunk is in.
TEST(HttpOrigin, SendsAGrowingSegmentToManyPlayersAsItGrows) {
    Origin o;
    testkit::TempDir out;
    o.origin.publish(part("s/seg_1.mp4", "first-", Publication::Growth::Start, false));
    const std::string players = "seq 24 | xargs -P 24 -I{} curl -s -N -m 20 -D " + out.path + "/{}.h -o " + out.path +
                                "/{}.b '" + o.url("/s/seg_1.mp4") + "'";
    std::thread clients([&] { testkit::run(players); });
    // Every player has the first chunk before the second exists.
    const auto received = [&](const std::string& text) {
        for (int tries = 0; tries < 200; ++tries) {
            int have = 0;
            for (int i = 1; i <= 24; ++i) have += readAll(out.path + "/" + std::to_string(i) + ".b") == text ? 1 : 0;
            if (have == 24) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        return false;
    };
    EXPECT_TRUE(received("first-"));
    o.origin.publish(part("s/seg_1.mp4", "second-", Publication::Growth::More, false));
    EXPECT_TRUE(received("first-second-"));
    o.origin.publish(part("s/seg_1.mp4", "last", Publication::Growth::More, true));
    clients.join();
    for (int i = 1; i <= 24; ++i) {
        EXPECT_EQ(readAll(out.path + "/" + std::to_string(i) + ".b"), "first-second-last") << i;
        EXPECT_NE(readAll(out.path + "/" + std::to_string(i) + ".h").find("Transfer-Encoding: chunked"), std::string::npos);
    }
}

// A segment started again before its end (the session restarted): who was reading the old one gets an error, not
// its beginning as if it were the whole segment.
TEST(HttpOrigin, AReaderOfASegmentStartedAgainFails) {
    Origin o;
    o.origin.publish(part("s/seg_1.mp4", "old", Publication::Growth::Start, false));
    int status = 0;
    std::string body;
    std::thread reader([&] { body = testkit::run("curl -s -N -m 10 '" + o.url("/s/seg_1.mp4") + "'", &status); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto restarted = std::chrono::steady_clock::now();
    o.origin.publish(part("s/seg_1.mp4", "new", Publication::Growth::Start, true));
    reader.join();
    EXPECT_NE(status, 0) << body;
    EXPECT_LT(std::chrono::steady_clock::now() - restarted, std::chrono::seconds(2)) << "the reader was left waiting";
    EXPECT_EQ(testkit::run("curl -s '" + o.url("/s/seg_1.mp4") + "'"), "new");
}

// Low-latency HLS: parts are byte ranges (206 with those bytes, from memory, from the folder, or waited for in a
// growing file); a blocking playlist reload is answered once the playlist lists the part asked for, 400 when it
// asks more than two segments ahead or is not a number, 503 when the limit passes first.
TEST(HttpOrigin, ByteRangesAndBlockingPlaylistReloads) {
    Origin o;
    std::ofstream(o.folder.path / "init.mp4") << "init";
    o.origin.publish(part("seg.mp4", "0123456789", Publication::Growth::Whole, true));
    o.origin.publish(part("grow.mp4", "abc", Publication::Growth::Start, false));
    Publication playlist = part("v.m3u8", "#EXTM3U\n", Publication::Growth::Whole, true);
    playlist.lastPart = Publication::PartPosition{5, 1};
    o.origin.publish(Publication(playlist));
    const auto get = [&](const std::string& path, const std::string& options) {
        return testkit::run("curl -s -m 10 -w ' %{http_code}' " + options + " '" + o.url(path) + "'");
    };
    std::string grown;
    std::thread growing([&] { grown = get("/grow.mp4", "-r 2-5"); });
    const struct { std::string path, options, answer; } cases[] = {
        {"/seg.mp4", "-r 2-4", "234 206"},
        {"/seg.mp4", "-r 7-", "789 206"},
        {"/seg.mp4", "-r 7-99", "789 206"},
        {"/seg.mp4", "-r 20-30", "range not satisfiable\n 416"},
        {"/init.mp4", "-r 1-2", "ni 206"},
        {"/v.m3u8?_HLS_msn=5&_HLS_part=1", "", "#EXTM3U\n 200"},
        {"/v.m3u8?_HLS_msn=4", "", "#EXTM3U\n 200"},
        {"/v.m3u8?_HLS_msn=8", "", "too far ahead\n 400"},
        {"/v.m3u8?_HLS_msn=x", "", "bad _HLS_msn or _HLS_part\n 400"},
        {"/v.m3u8?_HLS_msn=5&_HLS_part=2", "", "not yet\n 503"},
    };
    for (const auto& c : cases) EXPECT_EQ(get(c.path, c.options), c.answer) << c.options << " " << c.path;
    std::string waited;
    std::thread blocked([&] { waited = get("/v.m3u8?_HLS_msn=6&_HLS_part=0", ""); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // most likely waiting by now; answered either way
    o.origin.publish(part("grow.mp4", "defg", Publication::Growth::More, false));
    playlist.lastPart = Publication::PartPosition{6, 0};
    o.origin.publish(std::move(playlist));
    growing.join();
    blocked.join();
    EXPECT_EQ(grown, "cdef 206");
    EXPECT_EQ(waited, "#EXTM3U\n 200");
}

}  // namespace
