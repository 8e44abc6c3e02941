#include "apps/fmp4mux/manifests/webvtt_segment.h"

#include <cstdio>
#include <vector>

#include "packaging/fmp4/output/chunk_reader.h"

namespace fmp4mux {

namespace {

namespace reader = tvrn::encoding::packaging::imff::fmp4;
using ByteView = std::span<const std::uint8_t>;

std::uint64_t be(ByteView b, std::size_t at, int bytes) {
    std::uint64_t v = 0;
    for (int i = 0; i < bytes; ++i) v = v << 8 | b[at + static_cast<std::size_t>(i)];
    return v;
}

// "hh:mm:ss.ttt"; hours grow past two digits on long runs, as WebVTT allows.
std::string timestamp(std::uint64_t ticks, std::uint64_t timescale) {
    const std::uint64_t ms = static_cast<std::uint64_t>(static_cast<unsigned __int128>(ticks) * 1000 / timescale);
    char text[48];
    std::snprintf(text, sizeof text, "%02llu:%02llu:%02llu.%03llu", static_cast<unsigned long long>(ms / 3600000),
                  static_cast<unsigned long long>(ms / 60000 % 60), static_cast<unsigned long long>(ms / 1000 % 60),
                  static_cast<unsigned long long>(ms % 1000));
    return text;
}

// A box's content as text, without the terminating zero bytes some writers add.
std::string textOf(ByteView b, const reader::BoxView& box) {
    std::string text(b.begin() + static_cast<std::ptrdiff_t>(box.contentStart), b.begin() + static_cast<std::ptrdiff_t>(box.end));
    while (!text.empty() && text.back() == '\0') text.pop_back();
    return text;
}

struct Sample { std::uint64_t duration = 0, size = 0; };

}  // namespace

std::optional<std::string> webVttOfSegment(ByteView b, std::uint64_t timescale) {
    const auto moof = reader::findBox(b, "moof");
    const auto tfhd = reader::findBox(b, "moof/traf/tfhd");
    const auto tfdt = reader::findBox(b, "moof/traf/tfdt");
    const auto trun = reader::findBox(b, "moof/traf/trun");
    if (!moof || !tfhd || !tfdt || !trun || timescale == 0) return std::nullopt;
    // tfhd: version and flags, track id, then the optional fields its flags name, in order.
    if (tfhd->end - tfhd->contentStart < 8) return std::nullopt;
    const auto tfhdFlags = be(b, tfhd->contentStart, 4) & 0xFFFFFF;
    std::size_t at = tfhd->contentStart + 8;
    std::uint64_t defaultDuration = 0, defaultSize = 0;
    const struct { std::uint32_t flag; int bytes; std::uint64_t* into; } fields[] = {
        {0x01, 8, nullptr}, {0x02, 4, nullptr}, {0x08, 4, &defaultDuration}, {0x10, 4, &defaultSize}, {0x20, 4, nullptr}};
    for (const auto& f : fields) {
        if (!(tfhdFlags & f.flag)) continue;
        if (at + static_cast<std::size_t>(f.bytes) > tfhd->end) return std::nullopt;
        if (f.into) *f.into = be(b, at, f.bytes);
        at += static_cast<std::size_t>(f.bytes);
    }
    if (tfdt->end - tfdt->contentStart < 8) return std::nullopt;
    const bool wide = b[tfdt->contentStart] == 1;
    if (wide && tfdt->end - tfdt->contentStart < 12) return std::nullopt;
    std::uint64_t time = be(b, tfdt->contentStart + 4, wide ? 8 : 4);
    // trun: version and flags, sample count, the data offset (from the start of moof), then per sample the fields
    // its flags name.
    if (trun->end - trun->contentStart < 8) return std::nullopt;
    const auto trunFlags = be(b, trun->contentStart, 4) & 0xFFFFFF;
    const auto count = be(b, trun->contentStart + 4, 4);
    at = trun->contentStart + 8;
    std::uint64_t data = moof->end + 8;  // no offset given: just past the mdat header that follows
    if (trunFlags & 0x01) {
        if (at + 4 > trun->end) return std::nullopt;
        data = moof->offset + be(b, at, 4);
        at += 4;
    }
    if (trunFlags & 0x04) at += 4;
    const std::size_t perSample = 4u * static_cast<std::size_t>(((trunFlags >> 8) & 1) + ((trunFlags >> 9) & 1) +
                                                                ((trunFlags >> 10) & 1) + ((trunFlags >> 11) & 1));
    if (count > (trun->end - std::min(at, trun->end)) / std::max<std::size_t>(perSample, 1)) return std::nullopt;
    std::vector<Sample> samples;
    for (std::uint64_t i = 0; i < count; ++i, at += perSample) {
        std::size_t field = at;
        Sample s{defaultDuration, defaultSize};
        if (trunFlags & 0x100) s.duration = be(b, field, 4), field += 4;
        if (trunFlags & 0x200) s.size = be(b, field, 4);
        samples.push_back(s);
    }
    std::string out = "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:0,LOCAL:00:00:00.000\n";
    for (const Sample& s : samples) {
        if (data + s.size > b.size()) return std::nullopt;
        const auto end = static_cast<std::size_t>(data + s.size);
        for (const reader::BoxView& cue : reader::boxesIn(b, static_cast<std::size_t>(data), end)) {
            if (cue.type != "vttc") continue;
            std::string id, settings, payload;
            for (const reader::BoxView& part : reader::boxesIn(b, cue.contentStart, cue.end)) {
                if (part.type == "iden") id = textOf(b, part);
                if (part.type == "sttg") settings = textOf(b, part);
                if (part.type == "payl") payload = textOf(b, part);
            }
            out += "\n";
            if (!id.empty()) out += id + "\n";
            out += timestamp(time, timescale) + " --> " + timestamp(time + s.duration, timescale);
            if (!settings.empty()) out += " " + settings;
            out += "\n" + payload + "\n";
        }
        data = end;
        time += s.duration;
    }
    return out;
}

std::string webVttName(const std::string& mediaName) {
    const auto slash = mediaName.find_last_of('/');
    const auto dot = mediaName.find_last_of('.');
    const bool hasExtension = dot != std::string::npos && (slash == std::string::npos || dot > slash);
    return (hasExtension ? mediaName.substr(0, dot) : mediaName) + ".vtt";
}

}  // namespace fmp4mux
