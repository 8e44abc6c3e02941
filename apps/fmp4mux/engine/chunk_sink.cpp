#include "apps/fmp4mux/engine/chunk_sink.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "packaging/fmp4/output/chunk_reader.h"

namespace fmp4mux {

using namespace tvrn::com;
namespace flt = tvrn::encoding::filter;
using flt::IMediaSample3;
namespace reader = tvrn::encoding::packaging::imff::fmp4;

namespace {

// A buffer over the free end of the sink's room: what the output writes into it is in place already, and what it
// refers to stays where it is.
class RoomSlice final : public flt::COOBMediaSample, public flt::IReferencedContent {
public:
    RoomSlice(std::uint8_t* at, std::size_t size) : m_at(at) { m_size = size; }
    HRESULT GetPointer(std::uint8_t** buffer) override {
        if (buffer == nullptr) return E_POINTER;
        *buffer = m_at;
        return S_OK;
    }
    void TakeReferences(tvrn::system::KeptBytesList&& references) override { m_references = std::move(references); }
    tvrn::system::KeptBytesList takeReferences() { return std::move(m_references); }

private:
    std::uint8_t* m_at;
    tvrn::system::KeptBytesList m_references;
};

// Free bytes a slice has at least: a room with less left is made larger first.
constexpr std::size_t kLeastSlice = 64 * 1024;
// The buffers a slice cannot be given for (the one before it is still out) and the first room.
constexpr std::size_t kBufferSize = 256 * 1024;

}  // namespace

ChunkSink::ChunkSink(bool dash, long bufferCount, Handler handler, Rooms rooms)
    : m_dash(dash), m_bufferCount(bufferCount), m_handler(std::move(handler)), m_rooms(std::move(rooms)) {}

HRESULT ChunkSink::RoomAllocator::SetProperties(const Properties& request, Properties& actual) {
    if (request.count <= 0 || request.size <= 0) return E_INVALIDARG;
    actual = request;
    actual.size = std::max(request.size, static_cast<long>(kLeastSlice));
    return S_OK;
}

HRESULT ChunkSink::RoomAllocator::GetBuffer(IMediaSample3** sample, const flt::REFERENCE_TIME*,
                                            const flt::REFERENCE_TIME*, std::uint32_t) {
    if (sample == nullptr) return E_POINTER;
    *sample = m_sink.slice();
    return S_OK;
}

IMediaSample3* ChunkSink::slice() {
    std::lock_guard lock(m_mutex);
    // The output asks again before giving back the slice it has only when it filled it: the chunk outgrew the
    // room, and the rest comes in a buffer of its own, copied in behind.
    if (m_slice != nullptr) return flt::COOBMediaSample::createUninitialised(std::max(kBufferSize, m_largest / 4)).detach();
    makeRoom(kLeastSlice);
    auto* slice = new RoomSlice(m_room.data() + m_length, m_room.size() - m_length);
    m_slice = m_room.data() + m_length;
    return slice;
}

void ChunkSink::makeRoom(std::size_t free) {
    if (m_room.size() - m_length >= free) return;
    // A quarter more than the largest chunk so far: most chunks then fit in one slice.
    const std::size_t wanted = std::max({m_length + free, m_largest + m_largest / 4, kBufferSize});
    if (m_length == 0 && m_room.capacity() < wanted && m_rooms) {
        Bytes room = m_rooms(wanted);
        if (room.capacity() >= wanted) m_room.swap(room);
    }
    // Growing leaves the new bytes as they are: the output writes the boxes, and the bytes it refers to it never
    // writes, so their pages are never brought in.
    m_room.resize(std::max(wanted, m_room.capacity()));
}

void ChunkSink::append(const std::uint8_t* data, std::size_t size) {
    makeRoom(size);
    std::memcpy(m_room.data() + m_length, data, size);
    m_length += size;
}

HRESULT ChunkSink::Receive(IMediaSample3* sample) {
    std::uint8_t* data = nullptr;
    if (FAILED(sample->GetPointer(&data))) return E_POINTER;
    const auto length = static_cast<std::size_t>(std::max(sample->GetActualDataLength(), 0L));
    const bool init = sample->IsSyncPoint() == S_OK;
    std::int64_t start = 0, stop = 0;
    const bool hasTime = SUCCEEDED(sample->GetTime(&start, &stop));

    std::lock_guard lock(m_mutex);
    const bool inPlace = data != nullptr && data == m_slice;
    if (inPlace) m_slice = nullptr;
    auto* slice = dynamic_cast<RoomSlice*>(sample);
    References references = slice != nullptr ? slice->takeReferences() : References{};
    // A sample of another kind or time starts a new chunk: the pending one is done. Bytes written behind it in
    // its room go to the next room.
    if (m_length > 0 && (init != m_pendingInit || hasTime != m_pendingHasTime || start != m_pendingTime)) {
        if (inPlace) {
            const Bytes next(data, data + length);
            finish();
            append(next.data(), next.size());
        } else {
            finish();
        }
    } else if (inPlace) {
        m_length += length;
    }
    if (!inPlace) append(data, length);
    // The sample's bytes are the last `length` of the pending chunk; what it refers to is copied in when they
    // were copied.
    for (auto& reference : references) {
        reference.at += m_length - length;
        if (inPlace)
            m_references.push_back(std::move(reference));
        else if (reference.at + reference.size <= m_length)
            std::memcpy(m_room.data() + reference.at, reference.data, reference.size);
    }
    if (m_length == length) {
        m_pendingInit = init;
        m_pendingHasTime = hasTime;
        m_pendingTime = start;
    }

    const reader::ByteView pending(m_room.data(), m_length);
    if (m_pendingInit) {
        if (!reader::moviePart(pending).empty()) finish();
        return S_OK;
    }
    // The boxes complete so far are walked once each, from where the last buffer left off.
    for (const reader::BoxView& box : reader::boxesIn(pending, m_nextBox, m_length)) {
        m_lastBox = box.type;
        m_nextBox = box.end;
    }
    if (m_nextBox != m_length) return S_OK;
    // A chunk inside a segment ends at its end-of-chunk box; one that ends a segment has the end-of-segment box
    // after it, which a full buffer may leave for the next one.
    const bool full = static_cast<long>(length) >= sample->GetSize();
    if ((m_dash && (m_lastBox == "teos" || (m_lastBox == "teoc" && !full))) || (!m_dash && m_lastBox == "mdat")) finish();
    return S_OK;
}

void ChunkSink::finish() {
    if (m_length == 0) return;
    m_largest = std::max(m_largest, m_length);
    Bytes room;
    room.swap(m_room);
    const std::size_t length = std::exchange(m_length, 0);
    m_slice = nullptr;
    m_nextBox = 0;
    m_lastBox.clear();
    m_handler(m_pendingInit, std::move(room), length, std::exchange(m_references, {}));
}

HRESULT ChunkSink::EndOfStream() {
    std::lock_guard lock(m_mutex);
    finish();
    m_ended = true;
    m_endCv.notify_all();
    return S_OK;
}

bool ChunkSink::waitForEnd(std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_mutex);
    return m_endCv.wait_for(lock, timeout, [this] { return m_ended; });
}

bool ChunkSink::ended() const {
    std::lock_guard lock(m_mutex);
    return m_ended;
}

}  // namespace fmp4mux
