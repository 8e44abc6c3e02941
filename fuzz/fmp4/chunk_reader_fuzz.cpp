// Arbitrary bytes through the reader of the packager's own output, as a host reads whatever reaches it: the boxes,
// the timing of a media chunk, the movie part of an init chunk with its manifest and its protection. Nothing may
// crash or read outside the bytes given.
#include <cstdint>

#include "packaging/fmp4/output/chunk_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace tvrn::encoding::packaging::imff::fmp4;
    const ByteView bytes(data, size);
    for (const bool dash : {true, false}) (void)readChunkTiming(bytes, dash);
    (void)serverManifest(bytes);
    const MovieProtection protection = readMovieProtection(bytes);
    for (const ProtectionSystem& system : protection.systems)
        if (system.systemId.size() != 16 || system.box.size() < 8 + 4 + 16 + 4 + system.data.size()) __builtin_trap();
    (void)withoutMarkerBoxes(bytes);
    (void)readMovieProtection(moviePart(bytes));
    return 0;
}
