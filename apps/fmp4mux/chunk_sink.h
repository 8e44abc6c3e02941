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

// Top-level boxes: the type of the last box when the bytes end exactly at a box boundary, else empty.
std::string lastCompleteBox(const std::uint8_t* data, std::size_t size);

// Writes bytes to `path` through a temporary name and a rename, creating folders, so that a reader never sees
// half a file. Raises std::runtime_error on failure.
void writeFileAtomically(const std::string& path, const std::uint8_t* data, std::size_t size);

// Receives one output's samples. A chunk is complete when its bytes end at the box that closes it (the index of
// an init chunk, `mdat` of a Smooth chunk, the end-of-segment box of a DASH chunk); any other chunk is completed
// by the start of the next one or by the end of the stream.
class ChunkSink : public tvrn::encoding::filter::IMediaSampleSink {
public:
    using InitHandler = std::function<void(const std::vector<std::uint8_t>& initChunk)>;
    using MediaHandler = std::function<void(const std::vector<std::uint8_t>& chunk)>;

    ChunkSink(bool dash, InitHandler onInit, MediaHandler onMedia);

    HRESULT Receive(IMediaSample3* sample) override;
    HRESULT EndOfStream() override;

    void waitForEnd();
    bool ended() const;
    std::uint64_t chunks() const;

private:
    void finish();

    bool m_dash;
    InitHandler m_onInit;
    MediaHandler m_onMedia;
    std::vector<std::uint8_t> m_pending;
    bool m_pendingInit = false;
    bool m_pendingHasTime = false;
    std::int64_t m_pendingTime = 0;
    mutable std::mutex m_mutex;
    std::condition_variable m_endCv;
    bool m_ended = false;
    std::uint64_t m_chunks = 0;
};

}  // namespace fmp4mux
