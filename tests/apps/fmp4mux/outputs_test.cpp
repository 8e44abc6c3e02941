// The host's publishers: a segment that grows chunk by chunk on disk.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "apps/fmp4mux/outputs/file_publisher.h"

namespace {
using namespace fmp4mux;
namespace fs = std::filesystem;

std::string readAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

Publication part(const std::string& path, const std::string& text, Publication::Growth growth, bool complete) {
    Publication p{path, std::vector<std::uint8_t>(text.begin(), text.end()), {}, false};
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

}  // namespace
