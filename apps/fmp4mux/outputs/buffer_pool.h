#pragma once
// Rooms for chunks, recycled: a chunk's room goes back once its file is written and the next chunk takes it,
// so a long run does not take and free a block the size of a chunk for every chunk (which leaves the heap in
// more and more pieces). At most `keep` rooms wait; more are freed.
#include <cstdint>
#include <mutex>
#include <vector>

namespace fmp4mux {

class BufferPool {
public:
    explicit BufferPool(std::size_t keep = 4) : m_keep(keep) {}

    std::vector<std::uint8_t> take() {
        std::lock_guard lock(m_mutex);
        if (m_rooms.empty()) return {};
        std::vector<std::uint8_t> room = std::move(m_rooms.back());
        m_rooms.pop_back();
        return room;
    }
    void give(std::vector<std::uint8_t>&& room) {
        room.clear();
        std::lock_guard lock(m_mutex);
        if (m_rooms.size() < m_keep) m_rooms.push_back(std::move(room));
    }

private:
    const std::size_t m_keep;
    std::mutex m_mutex;
    std::vector<std::vector<std::uint8_t>> m_rooms;
};

}  // namespace fmp4mux
