#pragma once
// Finds the programs and streams of an MPEG-TS with fmp4mux's own demultiplexer, without libavformat: the PAT and
// the PMTs, each stream's type and language from its PMT entry, and from the first PES of each stream what the
// console says of it (picture size from the sequence parameter set, audio rate and channels from the frame
// header). The streams come out as libavformat's probe lists them (every PMT entry numbered in PMT order, program
// after program in PAT order; the same codec names), so that a TS file reads the same whichever reader opens it.
// Bitrates are not guessed here: the read-ahead measures them.
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "apps/fmp4mux/inputs/kept_stream.h"
#include "apps/fmp4mux/inputs/ts_demux.h"

namespace fmp4mux {

class MappedFile;

struct TsContents {
    std::vector<KeptStream> kept;        // the streams packaged, in their order
    std::vector<std::uint16_t> ignored;  // the PIDs of the streams not packaged
};

class TsProbe {
public:
    // Looks at no more than this much of the input for what it needs.
    static constexpr std::size_t kLimit = 8u << 20;

    TsProbe();
    // Bytes of the input from its start, any number at a time; false once the probe has seen enough.
    bool push(const std::uint8_t* data, std::size_t size);
    // No more bytes (the input ended, or the probe said it had enough): the packets the demultiplexer held back
    // waiting for more are read too.
    void finish();
    // Whether the bytes pushed start with 188-byte transport packets.
    bool looksLikeTs() const { return m_plain.value_or(false); }
    // The streams of one program (`program`, or the first, said through `notes`; a program the input does not have
    // raises ExitError); streams the packager cannot carry are named in `skipped`. None when no PAT and PMT came.
    std::optional<TsContents> contents(int inputIndex, std::vector<std::string>& skipped, std::optional<int> program,
                                       std::vector<std::string>* notes) const;

private:
    struct Seen {
        bool looked = false;  // a PES of it told what it could
        std::string codec;    // when the PES tells it better than the stream type (MPEG audio layers)
        int width = 0, height = 0, sampleRate = 0, channels = 0;
    };
    void look(const TsDemux::Pes& pes);
    void afterPacket();
    void note();
    bool enough() const;
    // The programs as the probe last saw them: when it had seen enough, or the demultiplexer's own.
    const std::vector<TsDemux::Program>& programs() const { return m_programs ? *m_programs : m_demux.programs(); }

    struct Found {  // a PMT entry, in the order of first appearance
        std::uint16_t program = 0;
        TsDemux::Stream stream;
        const char* media = "data";  // video, audio, subtitle or data, by its type
    };

    TsDemux m_demux;
    std::map<std::uint16_t, Seen> m_seen;
    std::vector<Found> m_found;
    std::uint64_t m_pmtState = 0;  // PMTs read and changed when m_found was last brought up to date
    std::optional<bool> m_plain;
    std::vector<std::uint8_t> m_head;  // the first bytes, until the packet grid is checked
    std::size_t m_pushed = 0;
    std::optional<std::vector<TsDemux::Program>> m_programs;  // set once the probe has seen enough
};

// Probes a local file (mapped from its start) that may be an MPEG-TS: its contents, or none when it is not one.
std::optional<TsContents> probeTsFile(MappedFile& file, int inputIndex, std::vector<std::string>& skipped,
                                      std::optional<int> program, std::vector<std::string>* notes);

}  // namespace fmp4mux
