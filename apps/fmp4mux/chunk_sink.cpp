#include "apps/fmp4mux/chunk_sink.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <unistd.h>

namespace fmp4mux {

using namespace tvrn::com;

namespace {

std::uint32_t be32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 |
           static_cast<std::uint32_t>(p[2]) << 8 | p[3];
}
std::uint64_t be64(const std::uint8_t* p) { return static_cast<std::uint64_t>(be32(p)) << 32 | be32(p + 4); }

// One box: its type, where its content starts and where it ends.
struct BoxView {
    std::string type;
    std::size_t contentStart = 0;
    std::size_t end = 0;
};

// The boxes between `from` and `to`; stops at the first box that does not fit.
std::vector<BoxView> children(const std::uint8_t* data, std::size_t from, std::size_t to) {
    std::vector<BoxView> boxes;
    std::size_t pos = from;
    while (pos + 8 <= to) {
        std::uint64_t size = be32(data + pos);
        std::size_t header = 8;
        if (size == 1) {
            if (pos + 16 > to) break;
            size = be64(data + pos + 8);
            header = 16;
        } else if (size == 0) {
            size = to - pos;
        }
        if (size < header || size > to - pos) break;
        BoxView box;
        box.type.assign(reinterpret_cast<const char*>(data + pos + 4), 4);
        box.contentStart = pos + header;
        box.end = pos + static_cast<std::size_t>(size);
        boxes.push_back(box);
        pos = box.end;
    }
    return boxes;
}

const BoxView* find(const std::vector<BoxView>& boxes, const char* type) {
    for (const auto& b : boxes)
        if (b.type == type) return &b;
    return nullptr;
}

// The Smooth time box of a track fragment: uuid 6D1D9B05-42D5-44E6-80E2-141DAFF757B2.
constexpr std::uint8_t kTfxdUuid[16] = {0x6D, 0x1D, 0x9B, 0x05, 0x42, 0xD5, 0x44, 0xE6,
                                        0x80, 0xE2, 0x14, 0x1D, 0xAF, 0xF7, 0x57, 0xB2};

}  // namespace

std::optional<ChunkTiming> readChunkTiming(const std::uint8_t* data, std::size_t size, bool dash) {
    const auto top = children(data, 0, size);
    if (dash) {
        const BoxView* sidx = find(top, "sidx");
        if (sidx == nullptr || sidx->end - sidx->contentStart < 32) return std::nullopt;
        const std::uint8_t* p = data + sidx->contentStart;
        const std::uint8_t version = p[0];
        ChunkTiming timing;
        timing.timescale = be32(p + 8);
        std::size_t at = 12;
        if (version == 0) {
            timing.time = be32(p + at);
            at += 8;
        } else {
            if (sidx->end - sidx->contentStart < 44) return std::nullopt;
            timing.time = be64(p + at);
            at += 16;
        }
        at += 2;  // reserved
        const std::uint16_t count = static_cast<std::uint16_t>(p[at] << 8 | p[at + 1]);
        at += 2;
        for (std::uint16_t i = 0; i < count && sidx->contentStart + at + 12 <= sidx->end; ++i, at += 12)
            timing.duration += be32(p + at + 4);
        if (timing.timescale == 0) return std::nullopt;
        return timing;
    }
    const BoxView* moof = find(top, "moof");
    if (moof == nullptr) return std::nullopt;
    for (const auto& traf : children(data, moof->contentStart, moof->end)) {
        if (traf.type != "traf") continue;
        for (const auto& box : children(data, traf.contentStart, traf.end)) {
            if (box.type != "uuid" || box.end - box.contentStart < 16 + 4 + 8) continue;
            const std::uint8_t* p = data + box.contentStart;
            if (std::memcmp(p, kTfxdUuid, 16) != 0) continue;
            ChunkTiming timing;
            timing.timescale = 10000000;
            if (p[16] == 1 && box.end - box.contentStart >= 16 + 4 + 16) {
                timing.time = be64(p + 20);
                timing.duration = be64(p + 28);
            } else {
                timing.time = be32(p + 20);
                timing.duration = be32(p + 24);
            }
            return timing;
        }
    }
    return std::nullopt;
}

std::vector<std::uint8_t> moviePart(const std::vector<std::uint8_t>& initChunk) {
    if (initChunk.size() < 8) return {};
    const std::uint32_t a = be32(initChunk.data());
    const std::uint32_t b = be32(initChunk.data() + 4);
    if (static_cast<std::uint64_t>(a) + b + 8 != initChunk.size()) return {};
    return std::vector<std::uint8_t>(initChunk.begin() + 8, initChunk.begin() + 8 + a);
}

std::string serverManifest(const std::vector<std::uint8_t>& movie) {
    for (const auto& box : children(movie.data(), 0, movie.size())) {
        if (box.type != "uuid" || box.end - box.contentStart < 16) continue;
        // The manifest box holds the XML text after its uuid; find the document in it.
        const char* text = reinterpret_cast<const char*>(movie.data() + box.contentStart + 16);
        const std::size_t length = box.end - box.contentStart - 16;
        const std::string content(text, length);
        const auto start = content.find("<?xml");
        if (start == std::string::npos) continue;
        std::string xml = content.substr(start);
        while (!xml.empty() && xml.back() == '\0') xml.pop_back();
        return xml;
    }
    return {};
}

std::vector<std::pair<const std::uint8_t*, std::size_t>> playerRanges(const std::vector<std::uint8_t>& chunk) {
    std::vector<std::pair<const std::uint8_t*, std::size_t>> ranges;
    std::size_t consumed = 0;
    auto keep = [&](std::size_t from, std::size_t to) {
        if (to <= from) return;
        if (!ranges.empty() && ranges.back().first + ranges.back().second == chunk.data() + from)
            ranges.back().second += to - from;
        else
            ranges.emplace_back(chunk.data() + from, to - from);
    };
    for (const auto& box : children(chunk.data(), 0, chunk.size())) {
        const std::size_t start = consumed;
        consumed = box.end;
        if (box.type == "tnsb" || box.type == "teoc" || box.type == "teos") continue;
        keep(start, box.end);
    }
    // Whatever follows the last whole box is kept as it is.
    keep(consumed, chunk.size());
    return ranges;
}

std::vector<std::uint8_t> withoutVendorBoxes(const std::vector<std::uint8_t>& chunk) {
    std::vector<std::uint8_t> out;
    for (const auto& [data, size] : playerRanges(chunk)) out.insert(out.end(), data, data + size);
    return out;
}

std::string lastCompleteBox(const std::uint8_t* data, std::size_t size) {
    const auto boxes = children(data, 0, size);
    if (boxes.empty() || boxes.back().end != size) return {};
    return boxes.back().type;
}

void writeFileAtomically(const std::string& path, const std::uint8_t* data, std::size_t size) {
    writeFileAtomically(path, {{data, size}});
}

void writeFileAtomically(const std::string& path, const std::vector<std::pair<const std::uint8_t*, std::size_t>>& ranges) {
    const std::filesystem::path target(path);
    if (target.has_parent_path()) {
        std::error_code error;
        std::filesystem::create_directories(target.parent_path(), error);
        if (error) throw std::runtime_error("cannot create folder " + target.parent_path().string() + ": " + error.message());
    }
    const std::string temporary = path + ".tmp" + std::to_string(::getpid());
    std::FILE* file = std::fopen(temporary.c_str(), "wb");
    if (file == nullptr) throw std::runtime_error("cannot write " + temporary + ": " + std::strerror(errno));
    bool written = true;
    for (const auto& [data, size] : ranges) written = written && (size == 0 || std::fwrite(data, 1, size, file) == size);
    const bool closed = std::fclose(file) == 0;
    if (!written || !closed) {
        std::remove(temporary.c_str());
        throw std::runtime_error("cannot write " + temporary + ": " + std::strerror(errno));
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        std::remove(temporary.c_str());
        throw std::runtime_error("cannot rename " + temporary + " to " + path + ": " + std::strerror(errno));
    }
}

ChunkSink::ChunkSink(bool dash, long bufferCount, InitHandler onInit, MediaHandler onMedia)
    : m_dash(dash), m_bufferCount(bufferCount), m_onInit(std::move(onInit)), m_onMedia(std::move(onMedia)) {}

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
        if (m_pending.size() >= 8 &&
            static_cast<std::uint64_t>(be32(m_pending.data())) + be32(m_pending.data() + 4) + 8 == m_pending.size())
            finish();
    } else {
        const std::string last = lastCompleteBox(m_pending.data(), m_pending.size());
        if ((m_dash && last == "teos") || (!m_dash && last == "mdat")) finish();
    }
    return S_OK;
}

void ChunkSink::finish() {
    if (m_pending.empty()) return;
    // The next chunk reuses the room of this one: taking and freeing a block the size of a chunk for every
    // chunk would leave the allocator's heap in more and more pieces over a long run.
    struct ClearAfter {
        std::vector<std::uint8_t>& pending;
        ~ClearAfter() { pending.clear(); }
    } clearAfter{m_pending};
    ++m_chunks;
    if (m_pendingInit)
        m_onInit(m_pending);
    else
        m_onMedia(m_pending);
}

HRESULT ChunkSink::EndOfStream() {
    std::lock_guard lock(m_mutex);
    finish();
    m_ended = true;
    m_endCv.notify_all();
    return S_OK;
}

void ChunkSink::waitForEnd() {
    std::unique_lock lock(m_mutex);
    m_endCv.wait(lock, [this] { return m_ended; });
}

bool ChunkSink::ended() const {
    std::lock_guard lock(m_mutex);
    return m_ended;
}

std::uint64_t ChunkSink::chunks() const {
    std::lock_guard lock(m_mutex);
    return m_chunks;
}

}  // namespace fmp4mux
