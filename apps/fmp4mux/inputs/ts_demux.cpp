#include "apps/fmp4mux/inputs/ts_demux.h"

#include <algorithm>
#include <cstring>

namespace fmp4mux {

namespace {
constexpr std::uint8_t kSync = 0x47;
constexpr std::uint16_t kPatPid = 0;
constexpr std::uint16_t kNullPid = 0x1FFF;
constexpr std::uint8_t kScte35Type = 0x86;
constexpr std::size_t kMaxSection = 3 + 4093;
constexpr std::int64_t kWrap = std::int64_t{1} << 33;
constexpr std::int64_t kMinute = 60 * 90000;

// CRC-32/MPEG-2: polynomial 0x04C11DB7, most significant bit first, initial value all ones, no final inversion.
// Run over a whole section, CRC_32 field included, it leaves 0.
struct CrcTable {
    std::uint32_t entries[256];
    CrcTable() {
        for (std::uint32_t i = 0; i < 256; ++i) {
            std::uint32_t c = i << 24;
            for (int k = 0; k < 8; ++k) c = (c & 0x80000000u) ? (c << 1) ^ 0x04C11DB7u : c << 1;
            entries[i] = c;
        }
    }
};

std::uint32_t crc32Mpeg2(const std::uint8_t* p, std::size_t n) {
    static const CrcTable table;
    std::uint32_t crc = 0xFFFFFFFFu;
    for (std::size_t i = 0; i < n; ++i) crc = (crc << 8) ^ table.entries[((crc >> 24) ^ p[i]) & 0xFF];
    return crc;
}

// A 33-bit time stamp in the five bytes of a PES header: 4 bits, 3 bits, marker, 15 bits, marker, 15 bits, marker.
std::int64_t timeStamp(const std::uint8_t* p) {
    return (static_cast<std::int64_t>(p[0] & 0x0E) << 29) | (static_cast<std::int64_t>(p[1]) << 22) |
           (static_cast<std::int64_t>(p[2] & 0xFE) << 14) | (static_cast<std::int64_t>(p[3]) << 7) | (p[4] >> 1);
}

// Stream ids whose PES carry no optional header: program stream map, padding, private stream 2, ECM, EMM,
// program stream directory, DSM-CC, H.222.1 type E.
bool plainPes(std::uint8_t streamId) {
    return streamId == 0xBC || streamId == 0xBE || streamId == 0xBF || streamId == 0xF0 || streamId == 0xF1 ||
           streamId == 0xFF || streamId == 0xF2 || streamId == 0xF8;
}
}  // namespace

struct TsDemux::PidState {
    enum Kind { kPat, kPmt, kPes, kSections, kClock };
    int kind = kPes;
    std::uint16_t pid = 0;
    std::uint16_t program = 0;
    std::uint8_t streamType = 0;
    int lastCc = -1;
    bool duplicateSeen = false;
    std::uint64_t lastTail = 0;  // the last 8 bytes of the last packet with a payload
    bool ignored = false;
    bool discontinuity = false;  // seen, not yet handed on
    // PES: waiting for a start, reading the header, reading the payload.
    enum { kIdle, kHeader, kPayload } state = kIdle;
    std::size_t remaining = 0;  // payload bytes still due; 0 with `bounded` false: until the next start
    bool bounded = false;
    Pes current;
    Wraps wraps;
    // Sections: one under way in `buffer`.
    bool collecting = false;
    std::vector<std::uint8_t> buffer;
    std::size_t typical = 0;  // PES: a running average of the sizes handed on
};

TsDemux::TsDemux(Callbacks callbacks) : m_callbacks(std::move(callbacks)) { add(kPatPid, PidState::kPat, 0); }

TsDemux::~TsDemux() = default;

TsDemux::PidState& TsDemux::add(std::uint16_t pid, int kind, std::uint16_t program) {
    auto& slot = m_pids[pid];
    if (!slot || slot->kind != kind) {
        if (slot) forget(pid);
        slot = std::make_unique<PidState>();
        slot->pid = pid;
        slot->kind = kind;
        slot->ignored = m_ignored.test(pid);
    }
    slot->program = program;
    return *slot;
}

void TsDemux::forget(std::uint16_t pid) {
    if (auto& slot = m_pids[pid]) {
        m_buffered -= std::min(m_buffered, slot->buffer.size());
        const bool stream = slot->kind == PidState::kPes || slot->kind == PidState::kSections;
        slot.reset();
        if (stream && m_callbacks.gone) m_callbacks.gone(pid);
    }
}

void TsDemux::ignore(std::uint16_t pid) {
    pid &= 0x1FFF;
    m_ignored.set(pid);
    if (auto& slot = m_pids[pid]) {
        dropPes(*slot, false);
        slot->ignored = true;
    }
}

TsDemux::Line& TsDemux::line(std::uint16_t program) {
    for (auto& [number, l] : m_lines)
        if (number == program) return l;
    return m_lines.emplace_back(program, Line{}).second;
}

std::int64_t TsDemux::onLine(Line& line, Wraps& wraps, std::int64_t raw) {
    if (!line.reference) {
        line.reference = raw - kMinute;
        line.subtract = raw >= kWrap - kMinute;
    }
    std::int64_t t = raw;
    if (!line.subtract && raw < *line.reference) t += kWrap;
    if (line.subtract && raw >= *line.reference) t -= kWrap;
    t += wraps.epoch * kWrap;
    // Past the window of the reference: this stream wrapped again, or a late time from before that.
    if (wraps.last && t < *wraps.last - kWrap / 2) {
        ++wraps.epoch;
        t += kWrap;
    } else if (wraps.last && wraps.epoch > 0 && t > *wraps.last + kWrap / 2) {
        t -= kWrap;
    }
    wraps.last = t;
    return t;
}

void TsDemux::push(const std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        if (m_carry.empty()) {
            std::size_t used = 0;
            scan(data, size, used, false);
            m_carry.assign(data + used, data + size);
            return;
        }
        // Bytes left from before: completed to a packet (or, out of step, to three), then read from there.
        const std::size_t want = m_synced ? kPacketSize : 3 * kPacketSize;
        const std::size_t take = std::min(size, want > m_carry.size() ? want - m_carry.size() : 0);
        m_carry.insert(m_carry.end(), data, data + take);
        data += take;
        size -= take;
        if (m_carry.size() < want) return;
        std::size_t used = 0;
        scan(m_carry.data(), m_carry.size(), used, false);
        m_carry.erase(m_carry.begin(), m_carry.begin() + static_cast<std::ptrdiff_t>(used));
    }
}

void TsDemux::scan(const std::uint8_t* data, std::size_t size, std::size_t& used, bool atEnd) {
    std::size_t at = 0;
    while (true) {
        if (m_synced) {
            while (size - at >= kPacketSize && data[at] == kSync) {
                packet(data + at);
                if (m_callbacks.afterPacket) m_callbacks.afterPacket();
                at += kPacketSize;
            }
            if (size - at < kPacketSize) break;
            m_synced = false;
            ++m_stats.resyncs;
        }
        // Out of step: the next sync byte followed by two more 188 bytes apart, or, at the end, by nothing.
        bool found = false;
        for (; at < size; ++at) {
            if (data[at] != kSync) continue;
            if (at + 2 * kPacketSize < size) {
                if (data[at + kPacketSize] == kSync && data[at + 2 * kPacketSize] == kSync) {
                    found = true;
                    break;
                }
                continue;
            }
            if (atEnd && size - at >= kPacketSize) found = true;
            break;  // too close to the end to tell: kept for later
        }
        if (!found) break;
        m_synced = true;
    }
    used = at;
}

void TsDemux::finish() {
    if (!m_carry.empty()) {
        std::size_t used = 0;
        scan(m_carry.data(), m_carry.size(), used, true);
        m_carry.clear();
    }
    for (auto& slot : m_pids) {
        if (!slot || slot->kind != PidState::kPes || slot->state != PidState::kPayload) continue;
        emitPes(*slot, !slot->bounded);
    }
}

void TsDemux::packet(const std::uint8_t* p) {
    ++m_stats.packets;
    const auto pid = static_cast<std::uint16_t>(((p[1] & 0x1F) << 8) | p[2]);
    if (pid == kNullPid) return;
    PidState* s = m_pids[pid].get();
    if (s == nullptr) return;
    // A packet the transport marked as broken is not read: its counter cannot be trusted either, and the next
    // packet shows the loss.
    if ((p[1] & 0x80) != 0) return;
    const bool start = (p[1] & 0x40) != 0;
    const int control = (p[3] >> 4) & 3;
    const int cc = p[3] & 0x0F;
    std::size_t at = 4;
    bool discontinuity = false, randomAccess = false;
    if (control & 2) {
        const std::size_t length = p[4];
        at = 5 + length;
        if (at > kPacketSize) return;  // a broken adaptation field: the packet is not read
        if (length > 0) {
            discontinuity = (p[5] & 0x80) != 0;
            randomAccess = (p[5] & 0x40) != 0;
            if ((p[5] & 0x10) != 0 && length >= 7) {
                const std::int64_t base = (static_cast<std::int64_t>(p[6]) << 25) | (p[7] << 17) | (p[8] << 9) |
                                          (p[9] << 1) | (p[10] >> 7);
                for (const Program& program : m_programs)
                    if (program.pcrPid == pid) line(program.number).pcr = base;
            }
        }
    }
    const bool payload = (control & 1) != 0 && at < kPacketSize;
    // Continuity: the counter steps with each packet that carries a payload.
    const auto tailOf = [p] {
        std::uint64_t tail = 0;
        std::memcpy(&tail, p + kPacketSize - sizeof tail, sizeof tail);
        return tail;
    };
    if ((control & 1) != 0) {
        if (s->lastCc >= 0 && !discontinuity) {
            // A repeated packet is the packet before once more (its PCR aside). Another packet with the same count
            // is no repeat: packets came out of order, or sixteen went missing; it counts as a loss.
            if (cc == s->lastCc && tailOf() == s->lastTail) {
                if (!s->duplicateSeen) {
                    s->duplicateSeen = true;
                    ++m_stats.duplicates;
                    return;
                }
            }
            const int expected = (s->lastCc + 1) & 0x0F;
            if (cc != expected) {
                m_stats.lost += static_cast<std::uint64_t>((cc - expected) & 0x0F);
                if (s->kind == PidState::kPes && s->state != PidState::kIdle) s->current.damaged = true;
                if (s->kind != PidState::kPes) s->collecting = false;
            }
        }
        s->duplicateSeen = false;
        s->lastCc = cc;
    }
    if (discontinuity) s->discontinuity = true;
    if (!payload) {
        if ((control & 1) != 0) s->lastTail = tailOf();
        return;
    }
    const std::uint8_t* body = p + at;
    const std::size_t n = kPacketSize - at;
    switch (s->kind) {
        case PidState::kPes:
            pesPayload(*s, body, n, start, randomAccess);
            // Read once the payload was copied, from the cache: read first, the end of the packet would hold
            // up the reading of every packet.
            s->lastTail = tailOf();
            break;
        case PidState::kClock: s->lastTail = tailOf(); break;
        default:
            s->lastTail = tailOf();  // before the section is read: a PAT or PMT in it may remove this PID
            sectionPayload(*s, body, n, start);
            break;
    }
}

// ---- PES ----

void TsDemux::dropPes(PidState& s, bool count) {
    if (count && s.state != PidState::kIdle) ++m_stats.pesDropped;
    m_buffered -= std::min(m_buffered, s.buffer.size());
    s.buffer.clear();
    s.state = PidState::kIdle;
}

void TsDemux::pesPayload(PidState& s, const std::uint8_t* p, std::size_t n, bool start, bool randomAccess) {
    if (s.ignored) return;
    if (start) {
        if (s.state == PidState::kPayload) emitPes(s, !s.bounded);
        else dropPes(s, true);  // a header that never ended
        s.current = Pes{};
        s.current.randomAccess = randomAccess;
        s.current.discontinuity = s.discontinuity;
        s.discontinuity = false;
        s.state = PidState::kHeader;
    }
    if (s.state == PidState::kIdle) return;
    if (s.state == PidState::kPayload && s.bounded) n = std::min(n, s.remaining);
    if (s.buffer.size() + n > kMaxPesSize || m_buffered + n > kMaxBuffered) return dropPes(s, true);
    s.buffer.insert(s.buffer.end(), p, p + n);
    m_buffered += n;
    if (s.state == PidState::kHeader) return pesHeader(s);
    if (s.bounded) {
        s.remaining -= std::min(s.remaining, n);
        if (s.remaining == 0) emitPes(s, true);
    }
}

// Reads the PES header once the buffer holds it all, and leaves the payload alone in the buffer; a broken header
// drops the PES.
void TsDemux::pesHeader(PidState& s) {
    std::vector<std::uint8_t>& b = s.buffer;
    if (b.size() < 6) return;
    if (b[0] != 0 || b[1] != 0 || b[2] != 1) {
        dropPes(s, true);
        return;
    }
    const std::size_t length = (static_cast<std::size_t>(b[4]) << 8) | b[5];
    std::size_t header = 6;
    if (!plainPes(b[3])) {
        if (b.size() < 9) return;
        header = 9 + b[8];
        if (b.size() < header) return;
        const int flags = b[7] >> 6;
        if (flags >= 2 && b[8] >= 5) {
            s.current.pts = timeStamp(&b[9]);
            s.current.dts = s.current.pts;
            if (flags == 3 && b[8] >= 10) s.current.dts = timeStamp(&b[14]);
        }
    }
    if (length != 0 && length + 6 < header) {
        dropPes(s, true);
        return;
    }
    s.bounded = length != 0;
    s.remaining = s.bounded ? length + 6 - header : 0;
    // Payload bytes past the end of a bounded PES are not part of it.
    const std::size_t keep = s.bounded ? std::min(b.size() - header, s.remaining) : b.size() - header;
    m_buffered -= std::min(m_buffered, b.size() - keep);
    std::memmove(b.data(), b.data() + header, keep);
    b.resize(keep);
    s.remaining -= keep;
    s.state = PidState::kPayload;
    if (s.bounded && s.remaining == 0) emitPes(s, true);
}

void TsDemux::emitPes(PidState& s, bool complete) {
    Pes& pes = s.current;
    pes.pid = s.pid;
    pes.streamType = s.streamType;
    pes.damaged = pes.damaged || !complete;
    pes.data = s.buffer.data();
    pes.size = s.buffer.size();
    pes.buffer = &s.buffer;
    if (pes.pts || pes.dts) {
        Line& l = line(s.program);
        // The line's reference comes from the decoding time, the first time on it.
        if (pes.dts) pes.dts = onLine(l, s.wraps, *pes.dts);
        if (pes.pts) {
            Wraps copy = s.wraps;
            pes.pts = onLine(l, copy, *pes.pts);
        }
    }
    s.state = PidState::kIdle;
    const std::size_t size = pes.size;
    if (size > 0 && m_callbacks.pes) m_callbacks.pes(pes);
    m_buffered -= std::min(m_buffered, size);
    s.buffer.clear();
    // A buffer taken is replaced by one of twice the usual size, so that a PES a little larger than the last does
    // not grow it (copying what it holds) packet by packet; a key frame's, many times the usual, still grows.
    s.typical = s.typical == 0 ? size : (7 * s.typical + size) / 8;
    if (s.buffer.capacity() == 0) {
        const std::size_t room = std::min(2 * s.typical, kMaxPesSize);
        if (m_callbacks.buffer) s.buffer = m_callbacks.buffer(room);
        else s.buffer.reserve(room);
    }
}

// ---- Sections ----

void TsDemux::sectionPayload(PidState& s, const std::uint8_t* p, std::size_t n, bool start) {
    if (start) {
        const std::size_t pointer = p[0];
        if (pointer + 1 > n) {
            s.collecting = false;
            return;
        }
        if (s.collecting) sectionBytes(s, p + 1, pointer);  // the end of the section under way
        s.collecting = true;
        s.buffer.clear();
        p += 1 + pointer;
        n -= 1 + pointer;
    }
    if (s.collecting) sectionBytes(s, p, n);
}

void TsDemux::sectionBytes(PidState& s, const std::uint8_t* p, std::size_t n) {
    std::vector<std::uint8_t>& b = s.buffer;
    while (n > 0 && s.collecting) {
        if (b.empty() && p[0] == 0xFF) {  // stuffing: no more sections in this packet
            s.collecting = false;
            return;
        }
        std::size_t total = 3;
        if (b.size() >= 3) total = 3 + (((static_cast<std::size_t>(b[1]) & 0x0F) << 8) | b[2]);
        // Shorter than its header and CRC, or longer than a section may be: the rest of the packet is not read.
        if (total > kMaxSection || (b.size() >= 3 && total < 3 + 5)) {
            ++m_stats.badSections;
            s.collecting = false;
            b.clear();
            return;
        }
        const std::size_t take = std::min(n, total - b.size());
        b.insert(b.end(), p, p + take);
        p += take;
        n -= take;
        if (b.size() == total && b.size() > 3) {
            section(s);
            if (m_pids[s.pid].get() != &s) return;  // a PAT or PMT change removed this PID
            b.clear();
        }
    }
}

void TsDemux::section(PidState& s) {
    const std::vector<std::uint8_t>& b = s.buffer;
    // Every section read here ends with a CRC_32: PAT, PMT and splice_info_section alike.
    if (b.size() < 3 + 5 || crc32Mpeg2(b.data(), b.size()) != 0) {
        ++m_stats.badSections;
        return;
    }
    if (s.kind == PidState::kPat) return readPat(b.data(), b.size());
    if (s.kind == PidState::kPmt) return readPmt(s.pid, b.data(), b.size());
    if (s.ignored || !m_callbacks.section) return;
    Section out;
    out.pid = s.pid;
    out.data = b.data();
    out.size = b.size();
    Line& l = line(s.program);
    if (l.pcr) out.clock = onLine(l, l.pcrWraps, *l.pcr);
    m_callbacks.section(out);
}

void TsDemux::readPat(const std::uint8_t* p, std::size_t n) {
    // table_id 0, section_syntax_indicator, current_next_indicator set.
    if (p[0] != 0x00 || (p[1] & 0x80) == 0 || (p[5] & 0x01) == 0 || n < 12) return;
    const int version = (p[5] >> 1) & 0x1F;
    const int section = p[6], last = p[7];
    if (version == m_patVersion || section > last) return;
    // The new version takes effect once all its sections have come.
    PendingPat& pending = m_pendingPat;
    if (pending.version != version || pending.last != last) pending = {version, last, decltype(pending.sections)(static_cast<std::size_t>(last) + 1)};
    auto& entries = pending.sections[static_cast<std::size_t>(section)].emplace();
    for (std::size_t at = 8; at + 4 <= n - 4; at += 4)
        entries.emplace_back(static_cast<std::uint16_t>((p[at] << 8) | p[at + 1]),
                             static_cast<std::uint16_t>(((p[at + 2] & 0x1F) << 8) | p[at + 3]));
    for (const auto& one : pending.sections)
        if (!one) return;
    m_patVersion = version;
    std::vector<Program> programs;
    for (const auto& one : pending.sections) {
        for (const auto& [number, pid] : *one) {
            if (number == 0 || pid == kPatPid || pid == kNullPid) continue;  // the network PID, or nonsense
            Program program;
            program.number = number;
            program.pmtPid = pid;
            for (const Program& old : m_programs)
                if (old.number == number && old.pmtPid == pid) program = old;
            programs.push_back(std::move(program));
        }
    }
    m_pendingPat = {};
    // Programs gone take their PIDs with them; a PID still listed elsewhere is kept.
    const auto listed = [&programs](std::uint16_t pid) {
        for (const Program& program : programs) {
            if (program.pmtPid == pid || program.pcrPid == pid) return true;
            for (const Stream& st : program.streams)
                if (st.pid == pid) return true;
        }
        return false;
    };
    for (const Program& old : m_programs) {
        if (!listed(old.pmtPid)) forget(old.pmtPid);
        if (old.pcrPid != kNullPid && !listed(old.pcrPid)) forget(old.pcrPid);
        for (const Stream& st : old.streams)
            if (!listed(st.pid)) forget(st.pid);
    }
    m_programs = std::move(programs);
    for (const Program& program : m_programs) add(program.pmtPid, PidState::kPmt, program.number);
}

void TsDemux::readPmt(std::uint16_t pid, const std::uint8_t* p, std::size_t n) {
    if (p[0] != 0x02 || (p[1] & 0x80) == 0 || (p[5] & 0x01) == 0 || n < 16) return;
    const auto number = static_cast<std::uint16_t>((p[3] << 8) | p[4]);
    const int version = (p[5] >> 1) & 0x1F;
    auto it = std::find_if(m_programs.begin(), m_programs.end(),
                           [&](const Program& program) { return program.number == number && program.pmtPid == pid; });
    if (it == m_programs.end() || it->version == version) return;
    if (it->version >= 0) ++m_stats.pmtChanges;
    Program fresh;
    fresh.number = number;
    fresh.pmtPid = pid;
    fresh.version = version;
    fresh.pcrPid = static_cast<std::uint16_t>(((p[8] & 0x1F) << 8) | p[9]);
    const std::size_t end = n - 4;  // before CRC_32
    std::size_t at = 12 + (((static_cast<std::size_t>(p[10]) & 0x0F) << 8) | p[11]);
    while (at + 5 <= end) {
        Stream st;
        st.streamType = p[at];
        st.pid = static_cast<std::uint16_t>(((p[at + 1] & 0x1F) << 8) | p[at + 2]);
        const std::size_t info = ((static_cast<std::size_t>(p[at + 3]) & 0x0F) << 8) | p[at + 4];
        if (at + 5 + info > end) break;  // a descriptor loop past the section: the rest is not read
        st.descriptors.assign(p + at + 5, p + at + 5 + info);
        at += 5 + info;
        if (st.pid == kPatPid || st.pid == kNullPid || st.pid == pid) continue;
        fresh.streams.push_back(st);
    }
    const Program old = *it;
    *it = fresh;
    // PIDs no program lists any more go; new ones come; one whose type changed starts again.
    for (const Stream& st : old.streams) {
        bool still = false;
        for (const Program& program : m_programs)
            for (const Stream& now : program.streams) still = still || (now.pid == st.pid && now.streamType == st.streamType);
        if (!still) forget(st.pid);
    }
    for (const Stream& st : fresh.streams) {
        const int kind = st.streamType == kScte35Type ? PidState::kSections : PidState::kPes;
        const PidState* before = m_pids[st.pid].get();
        if (before != nullptr && (before->kind == PidState::kPat || before->kind == PidState::kPmt)) continue;
        PidState& s = add(st.pid, kind, number);
        s.streamType = st.streamType;
    }
    if (fresh.pcrPid != kNullPid && m_pids[fresh.pcrPid] == nullptr) add(fresh.pcrPid, PidState::kClock, number);
}

}  // namespace fmp4mux
