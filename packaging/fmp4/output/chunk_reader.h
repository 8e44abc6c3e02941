#pragma once
// Reads back what the chunk builder writes: the boxes of a chunk, the movie part and server manifest of an init
// chunk, and the start and duration of a media chunk. Hosts, tests and fuzz targets read output with it; it never
// throws and never reads past the bytes it is given, whatever they hold.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

using ByteView = std::span<const std::uint8_t>;

// One box: its type, where its header starts, where its content starts and where it ends.
struct BoxView {
    std::string type;
    std::size_t offset = 0;
    std::size_t contentStart = 0;
    std::size_t end = 0;
    std::size_t size() const { return end - offset; }
};

// The boxes one after the other in [from, to), with 64-bit sizes and a size of 0 (to the end) read as the
// standard says; stops at the first box that does not fit.
std::vector<BoxView> boxesIn(ByteView bytes, std::size_t from, std::size_t to);
inline std::vector<BoxView> boxesIn(ByteView bytes) { return boxesIn(bytes, 0, bytes.size()); }

// The first box along `path` ("moof/traf/tfdt"), looking into each box named on the way as a plain container.
std::optional<BoxView> findBox(ByteView bytes, std::string_view path);

// Start and duration of a media chunk: from its segment index (DASH) or its track fragment time box (Smooth).
struct ChunkTiming {
    std::uint64_t time = 0;  // presentation time of its start, at `timescale`
    std::uint64_t duration = 0;
    std::uint64_t timescale = 0;
};
std::optional<ChunkTiming> readChunkTiming(ByteView chunk, bool dash);

// The movie part of an init chunk (its `ftyp`, manifest box and `moov`); empty when the container is not valid.
ByteView moviePart(ByteView initChunk);

// The server manifest document carried in a movie part; empty when there is none.
std::string serverManifest(ByteView movie);

// How a movie part says its media is protected: the default key id of its first protected sample entry ("encv",
// "enca" with sinf/schi/tenc), in the file's byte order, and its protection system boxes ("pssh", and the
// Smooth Streaming "uuid" form d08a4f18-...), each whole with its system id and data. Empty fields when the
// movie says nothing of them.
struct ProtectionSystem {
    std::vector<std::uint8_t> systemId;  // 16 bytes, as in the box
    std::vector<std::uint8_t> box;       // the whole box, in its cenc form ("pssh")
    std::vector<std::uint8_t> data;      // its data field
};
struct MovieProtection {
    std::string scheme;                           // "cenc", "piff", or empty when no entry is protected
    std::vector<std::uint8_t> defaultKeyId;       // 16 bytes when a tenc was found
    std::vector<ProtectionSystem> systems;
};
MovieProtection readMovieProtection(ByteView movie);

// The top-level marker boxes that tell a downstream publisher where chunks and segments end ("tnsb", "teoc",
// "teos"). Players do not know them, and the segment index does not count them.
bool isMarkerBox(std::string_view type);

// The ranges of a chunk without its top-level marker boxes, in order, joined where they touch; whatever follows
// the last whole box is kept as it is.
std::vector<ByteView> withoutMarkerBoxes(ByteView chunk);

// The type of the last top-level box when the bytes end exactly where it ends; empty otherwise.
std::string lastCompleteBox(ByteView bytes);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
