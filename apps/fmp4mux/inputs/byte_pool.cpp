#include "apps/fmp4mux/inputs/byte_pool.h"

#include <new>
#include <utility>

namespace fmp4mux {

namespace {

std::size_t classOf(std::size_t capacity) { return capacity == 0 ? 0 : 63 - static_cast<std::size_t>(__builtin_clzll(capacity)); }

}  // namespace

std::vector<std::uint8_t> BytePool::take(std::size_t size) {
    std::vector<std::uint8_t> bytes;
    {
        std::lock_guard lock(m_mutex);
        // Capacities from `size` to four times it lie in the class of `size` and the two above it. The newest
        // fitting buffer of the lowest class that has one.
        const std::size_t first = classOf(size);
        for (std::size_t c = first; c < std::min(first + 3, kClasses) && bytes.capacity() == 0; ++c) {
            auto& kept = m_kept[c];
            for (std::size_t i = kept.size(); i-- > 0;) {
                const std::size_t capacity = kept[i].capacity();
                if (capacity < size || capacity / 4 > size) continue;
                bytes.swap(kept[i]);
                kept[i].swap(kept.back());
                kept.pop_back();
                --m_keptCount;
                m_keptBytes -= capacity;
                break;
            }
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
        dropped = std::move(bytes);
        if (m_keptCount < kMaxKept && m_keptBytes + dropped.capacity() <= kMaxBytes) {
            // Called from a sample's destructor: a buffer the class list has no room for is freed instead.
            try {
                auto& kept = m_kept[classOf(dropped.capacity())];
                kept.emplace_back();
                kept.back().swap(dropped);
                m_keptBytes += kept.back().capacity();
                ++m_keptCount;
            } catch (const std::bad_alloc&) {
            }
        }
    }
}

std::size_t BytePool::keptBuffers() const {
    std::lock_guard lock(m_mutex);
    return m_keptCount;
}

}  // namespace fmp4mux
