#include "apps/fmp4mux/engine/chunk_sink.h"

#include <algorithm>
#include <string>

#include "packaging/fmp4/output/chunk_reader.h"

namespace fmp4mux {

using namespace tvrn::com;
using tvrn::encoding::filter::IMediaSample3;
namespace reader = tvrn::encoding::packaging::imff::fmp4;

ChunkSink::ChunkSink(bool dash, long bufferCount, Handler handler, Rooms rooms)
    : m_dash(dash), m_bufferCount(bufferCount), m_handler(std::move(handler)), m_rooms(std::move(rooms)) {}

HRESULT ChunkSink::Receive(IMediaSample3* sample) {
    std::uint8_t* data = nullptr;
    if (FAILED(sample->GetPointer(&data))) return E_POINTER;
    const long length = sample->GetActualDataLength();
    const bool init = sample->IsSyncPoint() == S_OK;
    std::int64_t start = 0, stop = 0;
    const bool hasTime = SUCCEEDED(sample->GetTime(&start, &stop));

    std::lock_guard lock(m_mutex);
    // A sample of another kind or time starts a new chunk: the pending one is done.
    if (!m_pending.empty() && (init != m_pendingInit || hasTime != m_pendingHasTime || start != m_pendingTime)) finish();
    if (m_pending.empty()) {
        m_pendingInit = init;
        m_pendingHasTime = hasTime;
        m_pendingTime = start;
        // A chunk comes in buffers of a few kilobytes: room for one a quarter larger than the largest so far
        // spares growing it step by step, each step a copy into fresh memory and twice the room.
        if (m_pending.capacity() < m_largest) m_pending.reserve(m_largest + m_largest / 4);
    }
    m_pending.insert(m_pending.end(), data, data + std::max(length, 0L));

    if (m_pendingInit) {
        if (!reader::moviePart(m_pending).empty()) finish();
        return S_OK;
    }
    // The boxes complete so far are walked once each, from where the last buffer left off.
    for (const reader::BoxView& box : reader::boxesIn(m_pending, m_nextBox, m_pending.size())) {
        m_lastBox = box.type;
        m_nextBox = box.end;
    }
    if (m_nextBox != m_pending.size()) return S_OK;
    // A chunk inside a segment ends at its end-of-chunk box; one that ends a segment has the end-of-segment box
    // after it, which a full buffer may leave for the next one.
    const bool full = length >= sample->GetSize();
    if ((m_dash && (m_lastBox == "teos" || (m_lastBox == "teoc" && !full))) || (!m_dash && m_lastBox == "mdat")) finish();
    return S_OK;
}

void ChunkSink::finish() {
    if (m_pending.empty()) return;
    m_largest = std::max(m_largest, m_pending.size());
    Bytes chunk = m_rooms ? m_rooms(m_largest + m_largest / 4) : Bytes{};
    chunk.swap(m_pending);
    m_pending.clear();
    m_nextBox = 0;
    m_lastBox.clear();
    m_handler(m_pendingInit, std::move(chunk));
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
