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
#include "support/system/byte_buffer.h"

namespace fmp4mux {

class ChunkSink : public tvrn::encoding::filter::IMediaSampleSink {
public:
    // Grown without zeroing: the parts of a chunk that are referred to are never written in its room.
    using Bytes = tvrn::system::ByteBuffer;
    // A whole chunk, `init` or media, given away to the handler with its room: the chunk is the first `length`
    // bytes of `room`. What follows it in the room is not the chunk's; the room keeps its whole size, so that back
    // in the pool it is taken whole by the next chunk.
    // Sample bytes the output left out of the room (kept where they lie, see IReferencedContent) come as
    // references: the chunk's bytes at each `at` are the reference's.
    using References = tvrn::system::KeptBytesList;
    using Handler = std::function<void(bool init, Bytes&& room, std::size_t length, References&& references)>;
    // Where the room for the next chunk comes from (a pool that recycles the rooms of chunks written), given the
    // size it should have.
    using Rooms = std::function<Bytes(std::size_t wanted)>;

    // A chunk is complete when its bytes end at the box that closes it (the index of an init chunk, `mdat` of a
    // Smooth chunk, the end-of-segment box of a DASH chunk, or its end-of-chunk box when no more bytes follow in
    // the buffer: a low-latency chunk inside a segment); any other chunk is completed by the start of the
    // next one or by the end of the stream. `bufferCount`: how many 8192-byte buffers to ask of the output.
    // `rooms` gives the room of the next chunk, at least as large as asked, holding anything (its bytes are
    // overwritten, never read).
    ChunkSink(bool dash, long bufferCount, Handler handler, Rooms rooms = {});

    tvrn::encoding::filter::HRESULT Receive(tvrn::encoding::filter::IMediaSample3* sample) override;
    tvrn::encoding::filter::HRESULT EndOfStream() override;
    long RequestedBufferCount() override { return m_bufferCount; }
    // The output's buffers are the free end of the pending chunk's room: the output writes each chunk straight
    // into the memory that is then handed on, in one buffer when the room is large enough (it is made a quarter
    // larger than the largest chunk so far), and sample bytes of the input may stay where they are, referred to.
    // Samples from elsewhere are copied in.
    tvrn::encoding::filter::MemAllocator* GetAllocator() override { return &m_allocator; }

    // Waits for the end of the stream, or until `timeout`; true when it has ended.
    bool waitForEnd(std::chrono::milliseconds timeout);
    bool ended() const;

private:
    class RoomAllocator : public tvrn::encoding::filter::MemAllocator {
    public:
        explicit RoomAllocator(ChunkSink& sink) : m_sink(sink) {}
        tvrn::encoding::filter::HRESULT SetProperties(const Properties& request, Properties& actual) override;
        tvrn::encoding::filter::HRESULT GetBuffer(tvrn::encoding::filter::IMediaSample3** sample,
                                                  const tvrn::encoding::filter::REFERENCE_TIME* start,
                                                  const tvrn::encoding::filter::REFERENCE_TIME* stop,
                                                  std::uint32_t flags) override;

    private:
        ChunkSink& m_sink;
    };

    tvrn::encoding::filter::IMediaSample3* slice();
    // Makes the room hold at least `free` bytes after the pending chunk.
    void makeRoom(std::size_t free);
    void append(const std::uint8_t* data, std::size_t size);
    void finish();

    const bool m_dash;
    const long m_bufferCount;
    const Handler m_handler;
    const Rooms m_rooms;
    Bytes m_room;               // the pending chunk's room, all of it in use as size: the chunk is its first m_length bytes
    std::size_t m_length = 0;
    References m_references;    // of the pending chunk
    const std::uint8_t* m_slice = nullptr;  // the free end handed out as a buffer, until it comes back
    std::size_t m_nextBox = 0;  // where the next box of the pending chunk starts
    std::string m_lastBox;      // the type of the last box complete in it
    std::size_t m_largest = 0;  // the largest chunk so far
    bool m_pendingInit = false;
    bool m_pendingHasTime = false;
    std::int64_t m_pendingTime = 0;
    mutable std::mutex m_mutex;
    std::condition_variable m_endCv;
    bool m_ended = false;
    RoomAllocator m_allocator{*this};
};

}  // namespace fmp4mux
