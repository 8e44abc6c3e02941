#pragma once
// Bytes that lie in memory owned elsewhere (an input buffer), placed at an offset of a larger whole that refers to
// them instead of holding a copy, with a reference that keeps that memory alive for as long as the whole needs it.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace tvrn::system {

struct KeptBytes {
    std::size_t at = 0;  // where the bytes belong in the whole
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    std::shared_ptr<const void> keep;
};

using KeptBytesList = std::vector<KeptBytes>;

}  // namespace tvrn::system
