#pragma once
// What a session writes, kept and read back: an output that keeps every chunk, real fixtures fed with their
// times, and a readable tree of a chunk's boxes (with the engine's chunk reader) for comparing chunks.
#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "packaging/fmp4/fmp4_mux/fmp4_mux.h"
#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "packaging/fmp4/output/chunk_reader.h"
#include "packaging/imff_samples/sample_builder.h"
#include "tests/common/bytes.h"
#include "tests/common/fixtures.h"
#include "tests/common/samples.h"
#include "tests/common/waiting.h"

namespace testkit {

using namespace tvrn::encoding::packaging::imff::fmp4;

struct WrittenChunk {
    Bytes bytes;
    bool init = false;
    bool hasTime = false;
    std::int64_t time = 0;
    bool discontinuity = false;
};

// Keeps every chunk, from whichever thread writes; refuses writes while `refuse` is set.
class KeepingOutput : public IOutputFmp4 {
public:
    bool Write(const std::uint8_t* data, std::size_t size, const std::int64_t* startTime, std::int64_t, bool init,
               bool discontinuity, bool, std::uint64_t) override {
        if (refuse) return false;
        m_state.update([&](State& s) {
            s.chunks.push_back({Bytes(data, data + size), init, startTime != nullptr, startTime ? *startTime : 0,
                                discontinuity});
        });
        return true;
    }
    void EndOfStream() override {
        m_state.update([](State& s) { ++s.ends; });
    }
    bool waitForEnd() {
        return m_state.waitFor([](const State& s) { return s.ends > 0; });
    }
    std::vector<WrittenChunk> chunks() const { return m_state.get().chunks; }
    std::vector<WrittenChunk> media() const {
        std::vector<WrittenChunk> out;
        for (const auto& c : chunks())
            if (!c.init) out.push_back(c);
        return out;
    }
    int ends() const { return m_state.get().ends; }
    bool refuse = false;

private:
    struct State { std::vector<WrittenChunk> chunks; int ends = 0; };
    Guarded<State> m_state;
};

// A stream's attributes: its type, bit rate, announced bandwidth, name and extra parameters.
inline ElementaryStreamAttributes attributesOf(std::uint32_t type, std::int32_t bitrate = 0,
                                               std::uint32_t bandwidth = 0, const std::string& name = "",
                                               const std::string& extra = "") {
    ElementaryStreamAttributes a;
    a.type = type;
    a.bitrate = bitrate;
    a.bandwidth = bandwidth;
    a.name = name;
    a.name2 = extra;
    return a;
}

// The fixture's packets as input buffers, their 90 kHz times moved by `offset90k`; the first `count` only.
inline std::vector<es::MediaDataRef> fixtureBuffers(const Fixture& fixture, std::int64_t offset90k,
                                                    std::size_t count = SIZE_MAX) {
    std::vector<es::MediaDataRef> buffers;
    std::size_t offset = 0;
    for (const Packet& p : fixture.packets) {
        if (buffers.size() == count) break;
        buffers.push_back(makeBuffer(fixture.bytes.data() + offset, p.size, p.pts + offset90k, p.dts + offset90k));
        offset += p.size;
    }
    return buffers;
}

// The first chunk of a stream as the synchroniser gives it: the configuration samples of the fixture.
inline StreamChunk firstChunkOf(const char* name, std::uint32_t type) {
    SampleChain chain(type);
    for (const auto& buffer : fixtureBuffers(loadFixture(name), 0)) chain.builder->push(buffer.get());
    chain.builder->flush();
    StreamChunk chunk;
    for (auto& sample : chain.collector.all)
        if (sample->kind >= samples::KindSequenceParameterSet && sample->kind <= samples::KindVideoParameterSet)
            chunk.samples.push_back(std::make_shared<Fmp4Sample>(std::shared_ptr<samples::Sample>(sample.release())));
    return chunk;
}

// A stream's first chunk with one configuration sample of `kind` holding `bytes`.
inline StreamChunk configurationChunk(std::int32_t kind, const Bytes& bytes) {
    StreamChunk chunk;
    chunk.samples.push_back(std::make_shared<Fmp4Sample>(std::shared_ptr<samples::Sample>(sampleHolding(kind, bytes))));
    return chunk;
}

// The big-endian number at `at` bytes into a box's content.
inline std::uint32_t u32In(ByteView bytes, const BoxView& box, std::size_t at) {
    return be32(bytes.data() + box.contentStart + at);
}
inline std::uint64_t u64In(ByteView bytes, const BoxView& box, std::size_t at) {
    return be64(bytes.data() + box.contentStart + at);
}
// The types of the boxes in bytes [from, to), each followed by a space.
inline std::string typesIn(ByteView bytes, std::size_t from = 0, std::size_t to = SIZE_MAX) {
    std::string types;
    for (const BoxView& box : boxesIn(bytes, from, std::min(to, bytes.size()))) types += box.type + " ";
    return types;
}
// The children of `box` of one type, in order.
inline std::vector<BoxView> childrenOf(ByteView bytes, const BoxView& box, const std::string& type) {
    std::vector<BoxView> out;
    for (auto& child : boxesIn(bytes, box.contentStart, box.end))
        if (child.type == type) out.push_back(child);
    return out;
}

// The movie part of the init chunk followed by every media chunk: a file that players read.
inline Bytes playableFile(const std::vector<WrittenChunk>& chunks) {
    Bytes file;
    for (const WrittenChunk& chunk : chunks) {
        const ByteView part = chunk.init ? moviePart(chunk.bytes) : ByteView(chunk.bytes);
        file.insert(file.end(), part.begin(), part.end());
    }
    return file;
}

namespace detail {

// Where the children of a box start, for the boxes that hold boxes.
inline std::size_t childrenAt(const std::string& type) {
    static const std::string containers = " moov trak mdia minf stbl mvex moof traf dinf edts mfra udta ";
    if (containers.find(" " + type + " ") != std::string::npos) return 0;
    if (type == "stsd" || type == "dref") return 8;
    if (type == "avc1" || type == "avc3" || type == "hvc1" || type == "hev1" || type == "encv") return 78;
    if (type == "mp4a" || type == "enca" || type == "ac-3" || type == "ec-3" || type == "ac-4") return 28;
    return SIZE_MAX;
}

inline void describe(std::string& out, ByteView b, std::size_t from, std::size_t to, int depth) {
    for (const BoxView& box : boxesIn(b, from, to)) {
        out += std::string(static_cast<std::size_t>(depth) * 2, ' ') + box.type + " size=" + std::to_string(box.size());
        const std::size_t at = childrenAt(box.type);
        if (at != SIZE_MAX && box.contentStart + at <= box.end) {
            out += "\n";
            describe(out, b, box.contentStart + at, box.end, depth + 1);
            continue;
        }
        // A leaf shows its content (its first 256 bytes), 16 bytes to a line, so that a changed field shows.
        const std::size_t shown = std::min<std::size_t>(box.end - box.contentStart, 256);
        const Bytes content(b.begin() + static_cast<std::ptrdiff_t>(box.contentStart),
                            b.begin() + static_cast<std::ptrdiff_t>(box.contentStart + shown));
        const std::string indent = "\n" + std::string(static_cast<std::size_t>(depth) * 2 + 2, ' ');
        std::string text = dumpHex(content);
        for (std::size_t i = text.find('\n'); i != std::string::npos; i = text.find('\n', i + indent.size()))
            text.replace(i, 1, indent);
        out += text + (shown < box.end - box.contentStart ? "...\n" : "\n");
    }
}

}  // namespace detail

// A tree of the boxes of a chunk, one line a box with its type and size, and the content of each leaf (its first
// 256 bytes). An init chunk shows its movie part and its server manifest line by line.
inline std::string describeChunk(ByteView chunk, bool init) {
    std::string out;
    if (!init) {
        detail::describe(out, chunk, 0, chunk.size(), 0);
        return out;
    }
    const ByteView movie = moviePart(chunk);
    out = "movie part size=" + std::to_string(movie.size()) + "\n";
    detail::describe(out, movie, 0, movie.size(), 1);
    out += "manifest\n" + serverManifest(movie) + "\n";
    return out;
}

}  // namespace testkit
