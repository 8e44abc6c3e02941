#pragma once
// fmp4mux's own MPEG transport stream demultiplexer: bytes in, whole PES payloads and private sections out. No I/O
// and no allocation per packet: each PID gathers its PES payload in a buffer of its own, handed to the callback as
// it is, and reused for the next PES unless the callback took it.
//
// What it reads: the PAT and the PMTs (sections across packets, CRC checked, a new version read again: a PMT change
// adds and removes PIDs), PES with or without a length, PTS and DTS (33 bits, put on one line per program as
// libavformat puts them: the first time of a program less 60 s is the wrap reference; a time below it has wrapped
// and gains 2^33, or, when the first time lies within 60 s of the wrap, a time at or above it has not wrapped yet
// and loses 2^33; further wraps go on from there), the continuity counter of each PID (one duplicate packet
// allowed; a gap counts the packets lost, modulo 16, and marks the PES under way as damaged), the discontinuity
// indicator (handed on with the PES that starts at or after it), adaptation fields and stuffing, and private
// sections (SCTE-35 splice information, stream type 0x86) handed on whole with their PID and the program's clock.
// After garbage it finds the packets again at three sync bytes 188 apart. Memory is bounded whatever the input.
#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace fmp4mux {

class TsDemux {
public:
    static constexpr std::size_t kPacketSize = 188;
    // A PES longer than this is dropped (and counted): no real access unit comes near it.
    static constexpr std::size_t kMaxPesSize = 16u << 20;
    // All PES under way together hold at most this much.
    static constexpr std::size_t kMaxBuffered = 64u << 20;

    struct Pes {
        std::uint16_t pid = 0;
        std::uint8_t streamType = 0;  // as the PMT declares it
        const std::uint8_t* data = nullptr;  // the payload, valid during the callback
        std::size_t size = 0;
        // The buffer that holds the payload, exactly: the callback may take it (swap it out), and the next PES of
        // the PID then starts in a new buffer of the same size. A reader that hands PES on takes them without a copy.
        std::vector<std::uint8_t>* buffer = nullptr;
        std::optional<std::int64_t> pts, dts;  // 90 kHz on the program's line; dts is pts when only pts is given
        bool damaged = false;        // packets of it were lost, or it ended short of its length
        bool discontinuity = false;  // the source set the discontinuity indicator since this PID's last PES
        bool randomAccess = false;   // the random access indicator of its first packet
    };
    struct Section {
        std::uint16_t pid = 0;
        const std::uint8_t* data = nullptr;  // table_id to CRC_32 inclusive, valid during the callback
        std::size_t size = 0;
        std::optional<std::int64_t> clock;   // the program's last PCR (90 kHz, on the program's line)
    };
    struct Stream {
        std::uint16_t pid = 0;
        std::uint8_t streamType = 0;
        std::vector<std::uint8_t> descriptors;  // its ES_info descriptor loop, as the PMT gives it
    };
    struct Program {
        std::uint16_t number = 0;
        std::uint16_t pmtPid = 0;
        std::uint16_t pcrPid = 0x1FFF;
        int version = -1;  // of its PMT; -1 before the PMT was read
        std::vector<Stream> streams;
    };
    struct Stats {
        std::uint64_t packets = 0;      // transport packets read
        std::uint64_t lost = 0;         // transport packets missing by the continuity counters
        std::uint64_t duplicates = 0;   // repeated packets skipped
        std::uint64_t pesDropped = 0;   // PES left out: too long, broken header, or cut by the memory bound
        std::uint64_t badSections = 0;  // sections with a wrong CRC or length
        std::uint64_t resyncs = 0;      // times the packet grid was lost and found again
        std::uint64_t pmtChanges = 0;   // PMTs read again with a new version
    };
    struct Callbacks {
        std::function<void(const Pes&)> pes;
        std::function<void(const Section&)> section;
        // A PID of PES or sections that no PMT lists any more (or lists with another stream type): nothing more
        // of it comes, until a PMT lists it again.
        std::function<void(std::uint16_t pid)> gone;
        // An empty buffer with room for at least the bytes given, for the next PES of a PID whose buffer the pes
        // callback took (optional: a new one otherwise).
        std::function<std::vector<std::uint8_t>(std::size_t)> buffer;
        // After each transport packet read, whatever its PID (optional): the point at which the state of the
        // programs is the same however the input was cut into pushes.
        std::function<void()> afterPacket;
    };

    explicit TsDemux(Callbacks callbacks);
    ~TsDemux();
    TsDemux(const TsDemux&) = delete;
    TsDemux& operator=(const TsDemux&) = delete;

    // Any number of bytes, cut anywhere.
    void push(const std::uint8_t* data, std::size_t size);
    // The input ended: a PES without a length goes out; one short of its length goes out damaged.
    void finish();
    // The PES and sections of this PID, now or once a PMT lists it, are not gathered (a stream nobody reads); its
    // continuity is still counted.
    void ignore(std::uint16_t pid);

    const Stats& stats() const { return m_stats; }
    const std::vector<Program>& programs() const { return m_programs; }

private:
    struct PidState;
    void scan(const std::uint8_t* data, std::size_t size, std::size_t& used, bool atEnd);
    void packet(const std::uint8_t* p);
    void pesPayload(PidState& s, const std::uint8_t* p, std::size_t n, bool start, bool randomAccess);
    void pesHeader(PidState& s);
    void emitPes(PidState& s, bool complete);
    void dropPes(PidState& s, bool count);
    void sectionPayload(PidState& s, const std::uint8_t* p, std::size_t n, bool start);
    void sectionBytes(PidState& s, const std::uint8_t* p, std::size_t n);
    void section(PidState& s);
    void readPat(const std::uint8_t* p, std::size_t n);
    void readPmt(std::uint16_t pid, const std::uint8_t* p, std::size_t n);
    void forget(std::uint16_t pid);
    PidState& add(std::uint16_t pid, int kind, std::uint16_t program);
    // Past the first wrap, each stream (and each program's clock) counts its own further wraps.
    struct Wraps {
        std::int64_t epoch = 0;  // in units of 2^33
        std::optional<std::int64_t> last;
    };
    // A program's timestamp line: its wrap reference, and its last PCR.
    struct Line {
        std::optional<std::int64_t> reference;
        bool subtract = false;
        std::optional<std::int64_t> pcr;  // raw, 90 kHz
        Wraps pcrWraps;
    };
    Line& line(std::uint16_t program);
    static std::int64_t onLine(Line& line, Wraps& wraps, std::int64_t raw);

    Callbacks m_callbacks;
    std::array<std::unique_ptr<PidState>, 8192> m_pids;
    std::vector<Program> m_programs;
    std::bitset<8192> m_ignored;
    std::vector<std::pair<std::uint16_t, Line>> m_lines;  // by program number, kept when a program goes
    int m_patVersion = -1;  // of the PAT in force
    // The sections of a PAT version still being gathered (a PAT of many programs spans several): by section
    // number, the (program number, PMT PID) pairs of each that has come.
    struct PendingPat {
        int version = -1;
        int last = -1;
        std::vector<std::optional<std::vector<std::pair<std::uint16_t, std::uint16_t>>>> sections;
    } m_pendingPat;
    std::vector<std::uint8_t> m_carry;  // bytes of a packet cut between two pushes
    bool m_synced = false;
    std::size_t m_buffered = 0;  // PES bytes held, all PIDs together
    Stats m_stats;
};

}  // namespace fmp4mux
