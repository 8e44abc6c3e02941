#include "apps/fmp4mux/inputs/ts_input.h"

#include <algorithm>

namespace fmp4mux {

namespace {
// 90 kHz clock ticks to 100 ns units, rounding half away from zero.
std::int64_t toHundredNs(std::int64_t ticks) {
    const std::int64_t scaled = ticks * 1000;
    return (scaled >= 0 ? scaled + 4 : scaled - 4) / 9;
}
}  // namespace

TsSource::Status MappedTsSource::next(const std::uint8_t*& data, std::size_t& size, std::string& error) {
    const MappedFile::Bytes bytes = m_file->next();
    data = bytes.data;
    size = bytes.size;
    if (size > 0) return Status::Data;
    error = m_file->error();
    return error.empty() ? Status::End : Status::Failed;
}

TsInput::TsInput(std::unique_ptr<TsSource> source, TsContents contents)
    : m_source(std::move(source)),
      m_demux(TsDemux::Callbacks{
          [this](const TsDemux::Pes& pes) {
              const int stream = m_pidToStream[pes.pid];
              if (stream < 0) return;
              take(Unit{static_cast<std::size_t>(stream), pes.data, pes.size, pes.buffer, pes.pts, pes.dts, std::nullopt,
                        pes.damaged, pes.discontinuity});
          },
          [this](const TsDemux::Section& section) {
              const int stream = m_pidToStream[section.pid];
              if (stream < 0) return;
              take(Unit{static_cast<std::size_t>(stream), section.data, section.size, nullptr, std::nullopt,
                        std::nullopt, section.clock, false, false});
          },
          [this](std::uint16_t pid) {
              const int stream = m_pidToStream[pid];
              if (stream < 0) return;
              // The stream is over: a PID that a later PMT lists again is another stream, not read.
              m_pidToStream[pid] = -1;
              Unit end;
              end.stream = static_cast<std::size_t>(stream);
              end.ended = true;
              take(end);
          },
          [pool = m_buffers](std::size_t size) { return pool->take(size); },
          nullptr}) {
    m_pidToStream.fill(-1);
    for (KeptStream& stream : contents.kept) {
        m_pidToStream[static_cast<std::size_t>(stream.id) & 0x1FFF] = static_cast<int>(m_kept.size());
        m_streams.push_back(stream.info);
        m_kept.push_back(std::move(stream));
    }
    m_dropped.assign(m_kept.size(), false);
    // Streams not packaged are not gathered at all.
    for (const std::uint16_t pid : contents.ignored)
        if (m_pidToStream[pid & 0x1FFFu] < 0) m_demux.ignore(pid);
}

TsInput::~TsInput() = default;

void TsInput::drop(std::size_t index) {
    m_dropped.at(index) = true;
    m_pidToStream[static_cast<std::size_t>(m_kept[index].id)] = -1;
    m_demux.ignore(static_cast<std::uint16_t>(m_kept[index].id));
}

// A unit is measured and kept while the input is read ahead, and handed on otherwise.
void TsInput::take(const Unit& unit) {
    if (!m_readingAhead) return deliver(unit);
    Held held{unit, {}};
    if (unit.buffer != nullptr)
        held.bytes.swap(*unit.buffer);
    else
        held.bytes.assign(unit.data, unit.data + unit.size);
    held.unit.data = held.bytes.data();
    held.unit.buffer = nullptr;  // set when handed on: the deque may move the held units
    if (m_meter != nullptr && m_meter->wantsMore() && !unit.ended) {
        const KeptStream& kept = m_kept[unit.stream];
        const std::optional<std::int64_t> when = kept.scte35 ? unit.clock : unit.dts ? unit.dts : unit.pts;
        std::optional<double> seconds;
        if (when) seconds = static_cast<double>(*when) / 90000.0;
        std::optional<std::int64_t> pts = kept.scte35 ? unit.clock : unit.pts;
        if (pts) pts = toHundredNs(*pts);
        m_meter->add(unit.stream, unit.size, seconds, pts,
                     [&] { return annexBRandomAccess(unit.data, unit.size, kept.hevc); });
    }
    m_readAhead.push_back(std::move(held));
}

// As LibavInput hands on a packet of an MPEG-TS: the same bytes, times, key and damage flags, and SCTE-35 timed by
// the program's clock, or else by the latest video picture.
void TsInput::deliver(const Unit& unit) {
    if (m_dropped[unit.stream] || m_onPacket == nullptr) return;
    if (unit.ended) {
        Packet end;
        end.stream = unit.stream;
        end.ended = true;
        return (*m_onPacket)(end);
    }
    const KeptStream& kept = m_kept[unit.stream];
    if (kept.video && unit.pts) m_lastVideoPts = unit.pts;
    if (kept.scte35) {
        const std::optional<std::int64_t> clock = unit.clock ? unit.clock : m_lastVideoPts;
        if (!clock || unit.size == 0) return;  // before any video: nothing to time it by
        Packet out = sectionPacket(unit.stream, *clock, unit.data, unit.size);
        return (*m_onPacket)(out);
    }
    Packet out;
    out.stream = unit.stream;
    out.damaged = unit.damaged && !(kept.adts && wholeAdtsFrames(unit.data, unit.size));
    // A PES of audio sync frames lasts as long as its frames: the timeline keeper tells by it one that overlaps the
    // PES before it, and which of its frames to cut.
    const FrameRun run = frameRun(kept.framing, unit.data, unit.size, &m_kept[unit.stream].latm);
    out.frames = run.frames;
    out.duration = run.duration;
    out.key = kept.video && annexBRandomAccess(unit.data, unit.size, kept.hevc);
    out.discontinuity = unit.discontinuity;
    if (unit.pts) out.pts = toHundredNs(*unit.pts);
    if (unit.dts) out.dts = toHundredNs(*unit.dts);
    if (kept.rawAac) {
        out.owned = makeRawAacPacket(kept.asc, kept.bitrate, unit.data, unit.size);
        out.data = out.owned.data();
        out.size = out.owned.size();
    } else if (unit.buffer != nullptr) {
        // The PES buffer itself goes on, into the packager: no copy.
        out.owned.swap(*unit.buffer);
        out.recycler = m_buffers;
        out.data = out.owned.data();
        out.size = out.owned.size();
    } else {
        out.data = unit.data;
        out.size = unit.size;
    }
    (*m_onPacket)(out);
}

bool TsInput::feed(bool& failed) {
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
    switch (m_source->next(data, size, m_error)) {
        case TsSource::Status::Data: m_demux.push(data, size); break;
        case TsSource::Status::Again: return true;
        case TsSource::Status::End: return false;
        case TsSource::Status::Failed: failed = true; return false;
    }
    m_lost.store(m_demux.stats().lost, std::memory_order_relaxed);
    m_pesDropped.store(m_demux.stats().pesDropped, std::memory_order_relaxed);
    return true;
}

std::optional<double> TsInput::keyFrameInterval(double maxSeconds) {
    std::optional<std::size_t> video;
    for (std::size_t k = 0; k < m_kept.size() && !video; ++k)
        if (m_kept[k].video) video = k;
    // Without video, only rates to measure make reading ahead worth it.
    if (!video && std::all_of(m_streams.begin(), m_streams.end(), [](const StreamInfo& s) { return s.bitrate > 0; }))
        return std::nullopt;
    KeyFrameMeter meter(m_kept.size(), video, maxSeconds);
    m_meter = &meter;
    m_readingAhead = true;
    bool failed = false, more = true;
    while (meter.wantsMore() && (more = feed(failed))) {
    }
    // The whole input was read ahead: what it leaves under way is measured too.
    if (!more && !failed) m_demux.finish();
    m_meter = nullptr;
    m_readingAhead = false;
    if (failed) m_error.clear();  // run() meets it again
    meter.measureBitrates(m_streams);
    m_firstKey = meter.firstKey();
    m_pictureDuration = meter.pictureDuration();
    return meter.interval();
}

std::string TsInput::transportReport() const {
    const TsDemux::Stats& stats = m_demux.stats();
    std::string report;
    const auto add = [&report](std::uint64_t count, const char* one, const char* many) {
        if (count == 0) return;
        report += (report.empty() ? "" : ", ") + std::to_string(count) + " " + (count == 1 ? one : many);
    };
    add(stats.duplicates, "repeated packet skipped", "repeated packets skipped");
    add(stats.resyncs, "loss of the packet grid", "losses of the packet grid");
    add(stats.badSections, "table section with a bad CRC or length", "table sections with a bad CRC or length");
    add(stats.pmtChanges, "new version of the program map", "new versions of the program map");
    if (const std::string received = m_source->receiverReport(); !received.empty())
        report += (report.empty() ? "" : ", ") + received;
    return report;
}

bool TsInput::run(const std::function<void(Packet&)>& onPacket, const std::atomic<bool>& stop) {
    m_source->setStop(&stop);
    m_onPacket = &onPacket;
    while (!m_readAhead.empty() && !stop.load()) {
        Held& held = m_readAhead.front();
        held.unit.buffer = &held.bytes;
        deliver(held.unit);
        m_readAhead.pop_front();
    }
    bool failed = false, ended = false;
    while (!stop.load()) {
        if (!feed(failed)) {
            ended = !failed && !stop.load();
            break;
        }
    }
    // What the end leaves under way: a PES without a length is whole at the end of the input.
    if (ended && m_error.empty()) m_demux.finish();
    m_lost.store(m_demux.stats().lost, std::memory_order_relaxed);
    m_pesDropped.store(m_demux.stats().pesDropped, std::memory_order_relaxed);
    m_onPacket = nullptr;
    m_source->setStop(nullptr);
    return !failed;
}

}  // namespace fmp4mux
