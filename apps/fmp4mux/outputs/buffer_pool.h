#pragma once
// Rooms for chunks, recycled: a chunk's room goes back once its file is written and a later chunk of about its size
// takes it, so a long run does not take and free a block the size of a chunk for every chunk (which leaves the heap
// in more and more pieces). A room is taken only by a chunk that fills a good part of it: an audio chunk in a room
// made for video would hold megabytes for kilobytes. At most `keep` rooms wait; the oldest goes first. A room comes
// back with the size it had and its stale bytes.
#include <algorithm>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "support/system/byte_buffer.h"

namespace fmp4mux {

class BufferPool {
public:
    explicit BufferPool(std::size_t keep = 2) : m_keep(keep) {}

    // A room of at least `wanted` bytes and not much more, the closest fit; an empty one when none fits.
    tvrn::system::ByteBuffer take(std::size_t wanted) {
        std::lock_guard lock(m_mutex);
        const std::size_t most = 2 * wanted + (64u << 10);
        auto best = m_rooms.end();
        for (auto it = m_rooms.begin(); it != m_rooms.end(); ++it)
            if (it->capacity() >= wanted && it->capacity() <= most &&
                (best == m_rooms.end() || it->capacity() < best->capacity()))
                best = it;
        if (best == m_rooms.end()) return {};
        tvrn::system::ByteBuffer room = std::move(*best);
        m_rooms.erase(best);
        return room;
    }
    void give(tvrn::system::ByteBuffer&& room) {
        if (room.capacity() == 0) return;
        std::lock_guard lock(m_mutex);
        m_rooms.push_back(std::move(room));
        if (m_rooms.size() > m_keep) m_rooms.pop_front();
    }

private:
    const std::size_t m_keep;
    std::mutex m_mutex;
    std::deque<tvrn::system::ByteBuffer> m_rooms;
};

}  // namespace fmp4mux
