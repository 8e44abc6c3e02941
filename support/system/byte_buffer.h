#pragma once
// A byte vector that leaves new bytes as they are instead of zeroing them, for large buffers that are written
// before they are read (or whose unwritten bytes stand for bytes kept elsewhere): growing one does not touch its
// memory, so pages it never writes are never brought in.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <vector>

namespace tvrn::system {

template <typename T>
struct UninitialisedAllocator : std::allocator<T> {
    template <typename U>
    struct rebind {
        using other = UninitialisedAllocator<U>;
    };
    UninitialisedAllocator() = default;
    template <typename U>
    UninitialisedAllocator(const UninitialisedAllocator<U>&) noexcept {}

    // A new element without a value is default-initialised: left as it is, for plain types. Elements made from
    // values are made as std::allocator makes them.
    template <typename U>
    void construct(U* at) noexcept(std::is_nothrow_default_constructible_v<U>) {
        ::new (static_cast<void*>(at)) U;
    }
};

using ByteBuffer = std::vector<std::uint8_t, UninitialisedAllocator<std::uint8_t>>;

// Appends `size` bytes in one copy (a range insert into a vector of this allocator goes byte by byte).
inline void append(ByteBuffer& to, const std::uint8_t* data, std::size_t size) {
    if (size == 0) return;
    const std::size_t at = to.size();
    to.resize(at + size);
    std::memcpy(to.data() + at, data, size);
}

}  // namespace tvrn::system
