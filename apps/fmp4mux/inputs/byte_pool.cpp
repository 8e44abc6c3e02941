#include "apps/fmp4mux/inputs/byte_pool.h"

#include <utility>

namespace fmp4mux {

std::vector<std::uint8_t> BytePool::take(std::size_t size) {
    std::vector<std::uint8_t> bytes;
    {
        std::lock_guard lock(m_mutex);
        // The smallest kept buffer that fits without being more than four times too large.
        std::size_t best = m_kept.size();
        for (std::size_t i = 0; i < m_kept.size(); ++i) {
            const std::size_t capacity = m_kept[i].capacity();
            if (capacity >= size && capacity / 4 <= size && (best == m_kept.size() || capacity < m_kept[best].capacity()))
                best = i;
        }
        if (best != m_kept.size()) {
            bytes.swap(m_kept[best]);
            m_kept[best].swap(m_kept.back());
            m_kept.pop_back();
            m_keptBytes -= bytes.capacity();
        }
    }
    if (bytes.capacity() == 0) bytes.reserve(size);
    bytes.clear();
    return bytes;
}

void BytePool::recycle(std::vector<std::uint8_t>&& bytes) {
    if (bytes.capacity() == 0) return;
    std::vector<std::uint8_t> dropped;  // freed outside the lock
    {
        std::lock_guard lock(m_mutex);
        if (m_kept.size() < kMaxKept && m_keptBytes + bytes.capacity() <= kMaxBytes) {
            m_keptBytes += bytes.capacity();
            m_kept.push_back(std::move(bytes));
        } else {
            dropped = std::move(bytes);
        }
    }
}

std::size_t BytePool::keptBuffers() const {
    std::lock_guard lock(m_mutex);
    return m_kept.size();
}

}  // namespace fmp4mux
