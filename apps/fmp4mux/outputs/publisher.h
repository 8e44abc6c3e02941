#pragma once
// Where the files of a presentation go. A publisher takes each file whole, with the name it has below the
// presentation's root, and makes it visible to players in the order given, on a thread of its own: whoever
// publishes never waits for I/O.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/system/byte_buffer.h"
#include "support/system/kept_bytes.h"

namespace fmp4mux {

struct Publication {
    std::string path;                 // below the root, '/' separated
    tvrn::system::ByteBuffer bytes;  // given away with the publication
    // The parts of `bytes` to write, as (offset, length); all of it when empty.
    std::vector<std::pair<std::size_t, std::size_t>> ranges;
    // A manifest: a newer publication of the same path replaces one still waiting.
    bool replaceable = false;
    // Takes the file away instead (a segment that has left a live window); a file already gone is no failure.
    bool remove = false;
    // With `remove`: takes away the folder at `path` with all it holds (an earlier live run's).
    bool tree = false;
    // A segment that grows chunk by chunk: Start begins it with `bytes`, More appends them; `complete` says that
    // this is its last part. Whole: a file given at once.
    enum class Growth { Whole, Start, More };
    Growth growth = Growth::Whole;
    bool complete = false;
    // A low-latency HLS playlist: the last partial segment it lists (media sequence number, part index), for an
    // origin that holds a blocking playlist request (_HLS_msn, _HLS_part) until the playlist lists that part.
    struct PartPosition {
        std::uint64_t msn = 0, part = 0;
    };
    std::optional<PartPosition> lastPart = std::nullopt;
    // Bytes of `bytes` that lie elsewhere (sample bytes left where they lie, kept alive with the
    // publication), in order and apart: the bytes at each `at` are the reference's, not those of `bytes`.
    tvrn::system::KeptBytesList references = {};
};

// Calls `piece(data, size)` for each run of bytes the publication writes, in order: its ranges (all of `bytes`
// without ranges), with the referenced bytes in place of those of `bytes`.
template <typename Piece>
void forEachPiece(const Publication& p, Piece&& piece) {
    const auto range = [&](std::size_t at, std::size_t end) {
        for (const auto& reference : p.references) {
            if (reference.at + reference.size <= at || reference.at >= end) continue;
            const std::size_t from = std::max(at, reference.at), to = std::min(end, reference.at + reference.size);
            if (from > at) piece(p.bytes.data() + at, from - at);
            piece(reference.data + (from - reference.at), to - from);
            at = to;
        }
        if (end > at) piece(p.bytes.data() + at, end - at);
    };
    if (p.ranges.empty()) range(0, p.bytes.size());
    for (const auto& [offset, length] : p.ranges) range(offset, offset + length);
}

// The bytes a publication writes, joined.
inline tvrn::system::ByteBuffer gather(const Publication& p) {
    std::size_t size = 0;
    forEachPiece(p, [&](const std::uint8_t*, std::size_t length) { size += length; });
    tvrn::system::ByteBuffer out;
    out.reserve(size);
    forEachPiece(p, [&](const std::uint8_t* data, std::size_t length) { tvrn::system::append(out, data, length); });
    return out;
}

// The name a growing segment has on disk until its last chunk is in.
inline std::string growingName(const std::string& path) { return path + ".growing"; }

class Publisher {
public:
    virtual ~Publisher() = default;
    virtual void publish(Publication&& publication) = 0;
    // Waits until everything published so far is written (or has failed).
    virtual void drain() = 0;
    // The first failure, if any: the presentation is incomplete from there on.
    virtual std::optional<std::string> failure() const = 0;
};

}  // namespace fmp4mux
