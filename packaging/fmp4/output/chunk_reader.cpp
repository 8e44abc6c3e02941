#include "packaging/fmp4/output/chunk_reader.h"

#include <cstring>

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

namespace {

std::uint32_t be32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) << 24 | static_cast<std::uint32_t>(p[1]) << 16 |
           static_cast<std::uint32_t>(p[2]) << 8 | p[3];
}
std::uint64_t be64(const std::uint8_t* p) { return static_cast<std::uint64_t>(be32(p)) << 32 | be32(p + 4); }

// The Smooth time box of a track fragment: uuid 6D1D9B05-42D5-44E6-80E2-141DAFF757B2.
constexpr std::uint8_t kTfxdUuid[16] = {0x6D, 0x1D, 0x9B, 0x05, 0x42, 0xD5, 0x44, 0xE6,
                                        0x80, 0xE2, 0x14, 0x1D, 0xAF, 0xF7, 0x57, 0xB2};

const BoxView* find(const std::vector<BoxView>& boxes, std::string_view type) {
    for (const auto& b : boxes)
        if (b.type == type) return &b;
    return nullptr;
}

std::optional<ChunkTiming> sidxTiming(ByteView bytes, const BoxView& sidx) {
    const std::size_t length = sidx.end - sidx.contentStart;
    if (length < 32) return std::nullopt;
    const std::uint8_t* p = bytes.data() + sidx.contentStart;
    ChunkTiming timing;
    timing.timescale = be32(p + 8);
    std::size_t at = 12;
    if (p[0] == 0) {
        timing.time = be32(p + at);
        at += 8;  // earliest presentation time, first offset
    } else {
        if (length < 44) return std::nullopt;
        timing.time = be64(p + at);
        at += 16;
    }
    at += 2;  // reserved
    const auto count = static_cast<std::uint16_t>(p[at] << 8 | p[at + 1]);
    at += 2;
    for (std::uint16_t i = 0; i < count && at + 12 <= length; ++i, at += 12) timing.duration += be32(p + at + 4);
    if (timing.timescale == 0) return std::nullopt;
    return timing;
}

std::optional<ChunkTiming> tfxdTiming(ByteView bytes, const BoxView& moof) {
    for (const auto& traf : boxesIn(bytes, moof.contentStart, moof.end)) {
        if (traf.type != "traf") continue;
        for (const auto& box : boxesIn(bytes, traf.contentStart, traf.end)) {
            const std::size_t length = box.end - box.contentStart;
            if (box.type != "uuid" || length < 16 + 4 + 8) continue;
            const std::uint8_t* p = bytes.data() + box.contentStart;
            if (std::memcmp(p, kTfxdUuid, 16) != 0) continue;
            ChunkTiming timing;
            timing.timescale = 10000000;
            if (p[16] == 1 && length >= 16 + 4 + 16) {
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

}  // namespace

std::vector<BoxView> boxesIn(ByteView bytes, std::size_t from, std::size_t to) {
    std::vector<BoxView> boxes;
    if (to > bytes.size()) to = bytes.size();
    const std::uint8_t* data = bytes.data();
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
        box.offset = pos;
        box.contentStart = pos + header;
        box.end = pos + static_cast<std::size_t>(size);
        boxes.push_back(std::move(box));
        pos = boxes.back().end;
    }
    return boxes;
}

std::optional<BoxView> findBox(ByteView bytes, std::string_view path) {
    std::size_t from = 0, to = bytes.size();
    while (true) {
        const std::string_view head = path.substr(0, path.find('/'));
        const auto boxes = boxesIn(bytes, from, to);
        const BoxView* box = find(boxes, head);
        if (box == nullptr) return std::nullopt;
        if (head.size() == path.size()) return *box;
        path.remove_prefix(head.size() + 1);
        from = box->contentStart;
        to = box->end;
    }
}

std::optional<ChunkTiming> readChunkTiming(ByteView chunk, bool dash) {
    const auto top = boxesIn(chunk);
    const BoxView* box = find(top, dash ? "sidx" : "moof");
    if (box == nullptr) return std::nullopt;
    return dash ? sidxTiming(chunk, *box) : tfxdTiming(chunk, *box);
}

ByteView moviePart(ByteView initChunk) {
    if (initChunk.size() < 8) return {};
    const std::uint32_t a = be32(initChunk.data());
    const std::uint32_t b = be32(initChunk.data() + 4);
    if (static_cast<std::uint64_t>(a) + b + 8 != initChunk.size()) return {};
    return initChunk.subspan(8, a);
}

std::string serverManifest(ByteView movie) {
    for (const auto& box : boxesIn(movie)) {
        if (box.type != "uuid" || box.end - box.contentStart < 16) continue;
        // The manifest box holds the XML text after its uuid; find the document in it.
        const std::string content(reinterpret_cast<const char*>(movie.data() + box.contentStart + 16),
                                  box.end - box.contentStart - 16);
        const auto start = content.find("<?xml");
        if (start == std::string::npos) continue;
        std::string xml = content.substr(start);
        while (!xml.empty() && xml.back() == '\0') xml.pop_back();
        return xml;
    }
    return {};
}

namespace {
// The scheme and default key id of a trak's first protected sample entry: stsd's entries follow its 8 bytes of
// version, flags and count; an entry's boxes follow its fixed fields (78 bytes for video, 28 for audio).
void readProtectedEntry(ByteView movie, const BoxView& trak, MovieProtection& protection) {
    const auto stsd = findBox(movie.subspan(0, trak.end).subspan(trak.contentStart), "mdia/minf/stbl/stsd");
    if (!stsd) return;
    const std::size_t base = trak.contentStart;
    for (const BoxView& entry : boxesIn(movie, base + stsd->contentStart + 8, base + stsd->end)) {
        const std::size_t fields = entry.type == "encv" ? 78 : entry.type == "enca" ? 28 : 0;
        if (fields == 0 || entry.end - entry.contentStart < fields) continue;
        for (const BoxView& sinf : boxesIn(movie, entry.contentStart + fields, entry.end)) {
            if (sinf.type != "sinf") continue;
            const ByteView inside = movie.subspan(0, sinf.end).subspan(sinf.contentStart);
            const auto schm = findBox(inside, "schm");
            const auto tenc = findBox(inside, "schi/tenc");
            if (schm && schm->end - schm->contentStart >= 8)
                protection.scheme.assign(reinterpret_cast<const char*>(inside.data() + schm->contentStart + 4), 4);
            if (tenc && tenc->end - tenc->contentStart >= 24)
                protection.defaultKeyId.assign(inside.begin() + static_cast<std::ptrdiff_t>(tenc->contentStart + 8),
                                               inside.begin() + static_cast<std::ptrdiff_t>(tenc->contentStart + 24));
            return;
        }
    }
}
}  // namespace

MovieProtection readMovieProtection(ByteView movie) {
    static constexpr std::uint8_t kPiffPssh[16] = {0xd0, 0x8a, 0x4f, 0x18, 0x10, 0xf3, 0x4a, 0x82,
                                                   0xb6, 0xc8, 0x32, 0xd8, 0xab, 0xa1, 0x83, 0xd3};
    MovieProtection protection;
    const auto moov = findBox(movie, "moov");
    if (!moov) return protection;
    for (const BoxView& box : boxesIn(movie, moov->contentStart, moov->end)) {
        std::size_t at = box.contentStart;  // the full box header of pssh
        if (box.type == "uuid") {
            if (box.end - at < 16 || !std::equal(kPiffPssh, kPiffPssh + 16, movie.begin() + static_cast<std::ptrdiff_t>(at)))
                continue;
            at += 16;
        } else if (box.type != "pssh") {
            if (box.type == "trak" && protection.scheme.empty()) readProtectedEntry(movie, box, protection);
            continue;
        }
        if (box.end - at < 4 + 16 + 4) continue;
        const std::uint8_t version = movie[at];
        ProtectionSystem system;
        system.systemId.assign(movie.begin() + static_cast<std::ptrdiff_t>(at + 4), movie.begin() + static_cast<std::ptrdiff_t>(at + 20));
        std::size_t data = at + 20;
        if (version > 0) {
            if (box.end - data < 4) continue;
            data += 4 + 16 * static_cast<std::size_t>(be32(movie.data() + data));
        }
        if (data + 4 > box.end || be32(movie.data() + data) > box.end - data - 4) continue;
        system.data.assign(movie.begin() + static_cast<std::ptrdiff_t>(data + 4),
                           movie.begin() + static_cast<std::ptrdiff_t>(data + 4 + be32(movie.data() + data)));
        // The cenc form of the box: "pssh" with the same full box content.
        const std::size_t content = box.end - at;
        system.box = {static_cast<std::uint8_t>((content + 8) >> 24), static_cast<std::uint8_t>((content + 8) >> 16),
                      static_cast<std::uint8_t>((content + 8) >> 8), static_cast<std::uint8_t>(content + 8), 'p', 's', 's', 'h'};
        system.box.insert(system.box.end(), movie.begin() + static_cast<std::ptrdiff_t>(at), movie.begin() + static_cast<std::ptrdiff_t>(box.end));
        protection.systems.push_back(std::move(system));
    }
    return protection;
}

bool isMarkerBox(std::string_view type) { return type == "tnsb" || type == "teoc" || type == "teos"; }

std::vector<ByteView> withoutMarkerBoxes(ByteView chunk) {
    std::vector<ByteView> ranges;
    auto keep = [&](std::size_t from, std::size_t to) {
        if (to <= from) return;
        if (!ranges.empty() && ranges.back().data() + ranges.back().size() == chunk.data() + from)
            ranges.back() = ByteView(ranges.back().data(), ranges.back().size() + (to - from));
        else
            ranges.push_back(chunk.subspan(from, to - from));
    };
    std::size_t consumed = 0;
    for (const auto& box : boxesIn(chunk)) {
        if (!isMarkerBox(box.type)) keep(box.offset, box.end);
        consumed = box.end;
    }
    keep(consumed, chunk.size());
    return ranges;
}

std::string lastCompleteBox(ByteView bytes) {
    const auto boxes = boxesIn(bytes);
    if (boxes.empty() || boxes.back().end != bytes.size()) return {};
    return boxes.back().type;
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
