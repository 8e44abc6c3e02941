#pragma once
// The downstream end of one filter output: joins the media samples of each chunk back into the whole chunk and
// hands it on. It runs on the engine's delivering thread, so it does no I/O: what it hands on is queued by others.
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "filter/mux_fmp4_filter/pins.h"

namespace fmp4mux {

class ChunkSink : public tvrn::encoding::filter::IMediaSampleSink {
public:
    using Bytes = std::vector<std::uint8_t>;
    // A whole chunk, `init` or media, given away to the handler.
    using Handler = std::function<void(bool init, Bytes&& chunk)>;
    // Where the room for the next chunk comes from (a pool that recycles the rooms of chunks written), given the
    // size it should have.
    using Rooms = std::function<Bytes(std::size_t wanted)>;

    // A chunk is complete when its bytes end at the box that closes it (the index of an init chunk, `mdat` of a
    // Smooth chunk, the end-of-segment box of a DASH chunk, or its end-of-chunk box when no more bytes follow in
    // the buffer: a low-latency chunk inside a segment); any other chunk is completed by the start of the
    // next one or by the end of the stream. `bufferCount`: how many 8192-byte buffers to ask of the output (the
    // bytes they come to, in larger buffers); the sink copies each buffer at once, so the pool needs to hold one
    // chunk.
    ChunkSink(bool dash, long bufferCount, Handler handler, Rooms rooms = {});

    tvrn::encoding::filter::HRESULT Receive(tvrn::encoding::filter::IMediaSample3* sample) override;
    tvrn::encoding::filter::HRESULT EndOfStream() override;
    long RequestedBufferCount() override { return m_bufferCount; }
    // Buffers of at least 256 KiB, as many fewer as makes the same bytes: a chunk comes in a few buffers rather
    // than hundreds, each a call, a lock and a copy of its own.
    tvrn::encoding::filter::MemAllocator* GetAllocator() override { return &m_allocator; }

    // Waits for the end of the stream, or until `timeout`; true when it has ended.
    bool waitForEnd(std::chrono::milliseconds timeout);
    bool ended() const;

private:
    void finish();

    const bool m_dash;
    const long m_bufferCount;
    const Handler m_handler;
    const Rooms m_rooms;
    Bytes m_pending;
    std::size_t m_nextBox = 0;  // where the next box of the pending chunk starts
    std::string m_lastBox;      // the type of the last box complete in it
    std::size_t m_largest = 0;  // the largest chunk so far
    bool m_pendingInit = false;
    bool m_pendingHasTime = false;
    std::int64_t m_pendingTime = 0;
    mutable std::mutex m_mutex;
    std::condition_variable m_endCv;
    bool m_ended = false;
    tvrn::encoding::filter::MemAllocator m_allocator{0x7FFFFFFF, 0x7FFFFFFF, 256 * 1024};
};

}  // namespace fmp4mux
