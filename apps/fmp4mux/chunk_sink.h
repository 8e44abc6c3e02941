#pragma once
// The downstream end of one filter output: joins the media samples of each chunk back into the chunk, reads the
// times it needs from the chunk's boxes, and writes init and media files atomically.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "filter/mux_fmp4_filter/pins.h"

namespace fmp4mux {

using tvrn::encoding::filter::IMediaSample3;
using tvrn::encoding::filter::HRESULT;

// What the host reads from one media chunk.
struct ChunkTiming {
    std::uint64_t time = 0;      // presentation time of its start, at `timescale`
    std::uint64_t duration = 0;  // at `timescale`
    std::uint64_t timescale = 0;
};

// Reads the start and duration of a DASH chunk (from `sidx`) or of a Smooth chunk (from its time box in `traf`).
std::optional<ChunkTiming> readChunkTiming(const std::uint8_t* data, std::size_t size, bool dash);

// The movie part of an init chunk (its `ftyp`, manifest box and `moov`), or empty when the container is not valid.
std::vector<std::uint8_t> moviePart(const std::vector<std::uint8_t>& initChunk);

// The server manifest text carried in a movie part, or empty.
std::string serverManifest(const std::vector<std::uint8_t>& movie);

// The chunk without its top-level vendor boxes (segment and chunk markers "tnsb", "teoc", "teos"), which tell a
// downstream publisher where segments end and which players do not know. The segment index does not count them.
std::vector<std::uint8_t> withoutVendorBoxes(const std::vector<std::uint8_t>& chunk);

// The byte ranges of the chunk without its vendor boxes, for writing without a copy.
std::vector<std::pair<const std::uint8_t*, std::size_t>> playerRanges(const std::vector<std::uint8_t>& chunk);

// Top-level boxes: the type of the last box when the bytes end exactly at a box boundary, else empty.
std::string lastCompleteBox(const std::uint8_t* data, std::size_t size);

// Writes bytes to `path` through a temporary name and a rename, creating folders, so that a reader never sees
// half a file. Raises std::runtime_error on failure.
void writeFileAtomically(const std::string& path, const std::uint8_t* data, std::size_t size);
void writeFileAtomically(const std::string& path, const std::vector<std::pair<const std::uint8_t*, std::size_t>>& ranges);

// Receives one output's samples. A chunk is complete when its bytes end at the box that closes it (the index of
// an init chunk, `mdat` of a Smooth chunk, the end-of-segment box of a DASH chunk); any other chunk is completed
// by the start of the next one or by the end of the stream.
class ChunkSink : public tvrn::encoding::filter::IMediaSampleSink {
public:
    using InitHandler = std::function<void(const std::vector<std::uint8_t>& initChunk)>;
    using MediaHandler = std::function<void(const std::vector<std::uint8_t>& chunk)>;

    // `bufferCount`: how many 8192-byte buffers to ask of the output; this sink copies each buffer at once, so
    // the pool needs to hold one chunk.
    ChunkSink(bool dash, long bufferCount, InitHandler onInit, MediaHandler onMedia);

    HRESULT Receive(IMediaSample3* sample) override;
    HRESULT EndOfStream() override;
    long RequestedBufferCount() override { return m_bufferCount; }

    void waitForEnd();
    bool ended() const;
    std::uint64_t chunks() const;

private:
    void finish();

    bool m_dash;
    long m_bufferCount;
    InitHandler m_onInit;
    MediaHandler m_onMedia;
    std::vector<std::uint8_t> m_pending;  // keeps the room of the largest chunk for the next ones
    bool m_pendingInit = false;
    bool m_pendingHasTime = false;
    std::int64_t m_pendingTime = 0;
    mutable std::mutex m_mutex;
    std::condition_variable m_endCv;
    bool m_ended = false;
    std::uint64_t m_chunks = 0;
};

}  // namespace fmp4mux
