#pragma once
// What the host declares of a stream, and the sink of finished chunks.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "packaging/fmp4_types/stream_type.h"
#include "support/system/kept_bytes.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// Element-level signalling of a stream: element is one of "Role", "Viewpoint", "Accessibility", "Rating",
// "EventStream", "m3u8".
struct StreamDescriptor {
    std::string element;
    std::string schemeIdUri;
    std::string value;

    bool operator==(const StreamDescriptor&) const = default;
};

struct ElementaryStreamAttributes {
    virtual ~ElementaryStreamAttributes() = default;

    std::uint32_t type = STREAM_TYPE_UNSET;
    std::int32_t bitrate = 0;     // bits per second
    std::uint32_t bandwidth = 0;  // bits per second announced in manifests
    std::string name;
    std::string name2;  // extra parameters: "key=value" pairs joined by ";"
    std::string language = "und";
    std::int32_t group = -1;
    bool flag = false;  // accessibility mark of a text stream
    std::vector<StreamDescriptor> descriptors;
};

// The sink of finished chunks.
class IOutputFmp4 {
public:
    virtual ~IOutputFmp4() = default;
    // One complete serialised chunk, not kept by the call. startTime is null for an init chunk (and only then
    // is init true); stopTime is 0. False: the sink could not take the chunk, which the caller drops.
    virtual bool Write(const std::uint8_t* data, std::size_t size, const std::int64_t* startTime,
                       std::int64_t stopTime, bool init, bool discontinuity, bool dataIdPresent,
                       std::uint64_t dataId) = 0;
    // No more chunks.
    virtual void EndOfStream() = 0;
};

// An output that can lend the memory a chunk is serialised into, so that the chunk's bytes are written once, in
// place, instead of serialised and then copied into the output. ChunksBuilder asks for it beside IOutputFmp4.
class IOutputFmp4Placement {
public:
    virtual ~IOutputFmp4Placement() = default;
    // Memory for the `size` bytes of the next chunk, or null when the output cannot lend that much at once (the
    // chunk then goes through Write as usual).
    virtual std::uint8_t* Place(std::size_t size, const std::int64_t* startTime, std::int64_t stopTime) = 0;
    // Whether the memory of the last Place may be left with holes where the chunk's sample bytes lie elsewhere,
    // given to Commit as references instead: an output that writes the chunk out from both (no copy of the bytes).
    virtual bool TakesReferences() const { return false; }
    // The chunk written into the memory of the last Place is complete: as Write, with the same marks. Its bytes
    // at each reference's `at` are the reference's (none unless TakesReferences).
    virtual bool Commit(bool init, bool discontinuity, bool dataIdPresent, std::uint64_t dataId,
                        tvrn::system::KeptBytesList&& references) = 0;
};

// The content of a chunk as its track table records it.
enum ChunkContentType : std::uint32_t {
    ChunkVideo = 0,
    ChunkAudio = 1,
    ChunkTimedText3gpp = 3,
    ChunkTimedText = 4,
    ChunkMetadata = 5,
};

// From the kind of a chunk's first sample.
constexpr ChunkContentType chunkContentType(std::int32_t firstSampleKind) {
    switch (firstSampleKind) {
        case 1:
        case 6: return ChunkAudio;
        case 7: return ChunkMetadata;
        case 8: return ChunkTimedText3gpp;
        case 9: return ChunkTimedText;
        default: return ChunkVideo;
    }
}

// The label of one stream in logs: "video_%dkbps", "audio_%dkbps" or "text_%dkbps" from bandwidth / 1000.
std::string streamLabel(const ElementaryStreamAttributes& attributes);

// The label of an output in logs: "output#%d" with its index, followed by the labels of its streams;
// a stream that is not registered adds nothing.
std::string outputLabel(int outputIndex, const std::vector<std::int32_t>& streamIds,
                        const std::map<std::uint32_t, ElementaryStreamAttributes>& registered);

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
