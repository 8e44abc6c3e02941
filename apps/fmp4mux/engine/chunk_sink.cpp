#include "apps/fmp4mux/engine/chunk_sink.h"

#include <algorithm>

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
    }
    m_pending.insert(m_pending.end(), data, data + std::max(length, 0L));

    if (m_pendingInit) {
        if (!reader::moviePart(m_pending).empty()) finish();
    } else {
        const std::string last = reader::lastCompleteBox(m_pending);
        // A chunk inside a segment ends at its end-of-chunk box; one that ends a segment has the end-of-segment
        // box after it, which a full buffer may leave for the next one.
        const bool full = length >= sample->GetSize();
        if ((m_dash && (last == "teos" || (last == "teoc" && !full))) || (!m_dash && last == "mdat")) finish();
    }
    return S_OK;
}

void ChunkSink::finish() {
    if (m_pending.empty()) return;
    Bytes chunk = m_rooms ? m_rooms() : Bytes{};
    chunk.swap(m_pending);
    m_pending.clear();
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
