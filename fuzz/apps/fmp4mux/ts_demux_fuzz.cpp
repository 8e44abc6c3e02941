// libFuzzer entry for fmp4mux's MPEG-TS demultiplexer: arbitrary bytes pushed whole, then cut at the points the
// first bytes choose. Both ways must give the same PES and sections, none over the size bound, the same counts and
// the same programs.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "apps/fmp4mux/inputs/ts_demux.h"

namespace {
using fmp4mux::TsDemux;

// What came out, folded into numbers: PID, size, times, flags and an FNV-1a hash of the bytes of each unit.
std::vector<std::uint64_t> demux(const std::uint8_t* data, std::size_t size, const std::uint8_t* cuts, std::size_t cutCount) {
    std::vector<std::uint64_t> out;
    const auto hash = [](const std::uint8_t* p, std::size_t n) {
        std::uint64_t h = 1469598103934665603ull;
        for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 1099511628211ull;
        return h;
    };
    std::vector<std::uint8_t> spare;
    TsDemux d({[&](const TsDemux::Pes& p) {
                   if (p.size == 0 || p.size > TsDemux::kMaxPesSize || p.data == nullptr) __builtin_trap();
                   out.insert(out.end(), {p.pid, p.size, static_cast<std::uint64_t>(p.pts.value_or(-1)),
                                          static_cast<std::uint64_t>(p.dts.value_or(-1)),
                                          std::uint64_t{p.damaged} | std::uint64_t{p.discontinuity} << 1, hash(p.data, p.size)});
                   // The buffer holds exactly the payload; taking it (as the reader does, every other PES here)
                   // changes nothing that comes after.
                   if (p.buffer == nullptr || p.buffer->data() != p.data || p.buffer->size() != p.size) __builtin_trap();
                   if ((p.size & 1) != 0) {
                       spare.clear();
                       spare.swap(*p.buffer);
                   }
               },
               [&](const TsDemux::Section& s) {
                   if (s.size < 8 || s.size > 4096 || s.data == nullptr) __builtin_trap();
                   out.insert(out.end(), {s.pid, s.size, static_cast<std::uint64_t>(s.clock.value_or(-1)), hash(s.data, s.size)});
               },
               [&](std::uint16_t pid) { out.push_back(0x10000u | pid); },
               // A taken buffer comes back as the next one asked for, as from the reader's pool.
               [&](std::size_t room) {
                   std::vector<std::uint8_t> next;
                   next.swap(spare);
                   next.clear();
                   next.reserve(room);
                   return next;
               },
               nullptr});
    std::size_t at = 0, k = 0;
    while (at < size) {
        const std::size_t piece = cutCount == 0 ? size : 1 + cuts[k++ % cutCount] * 3u;
        const std::size_t n = piece < size - at ? piece : size - at;
        d.push(data + at, n);
        at += n;
    }
    d.finish();
    const TsDemux::Stats& s = d.stats();
    out.insert(out.end(), {s.packets, s.lost, s.duplicates, s.pesDropped, s.badSections, s.pmtChanges});
    // The programs as the PAT and PMTs left them.
    for (const TsDemux::Program& program : d.programs()) {
        out.insert(out.end(), {program.number, program.pmtPid, program.pcrPid, static_cast<std::uint64_t>(program.version)});
        for (const TsDemux::Stream& stream : program.streams)
            out.insert(out.end(), {stream.pid, stream.streamType, hash(stream.descriptors.data(), stream.descriptors.size())});
    }
    return out;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4) return 0;
    // Four bytes choose the pieces' sizes (1 to 766 bytes); the rest is the stream.
    const std::vector<std::uint64_t> whole = demux(data + 4, size - 4, nullptr, 0);
    if (demux(data + 4, size - 4, data, 4) != whole) __builtin_trap();
    return 0;
}
