#pragma once
// Helpers of the chunk tests: an output that keeps what it is given, real fixtures fed with their input
// times, a reader of box headers, and a temporary directory for the files that ffprobe and ffmpeg read.
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "packaging/fmp4/fmp4_mux/fmp4_mux.h"
#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "packaging/imff_samples/sample_builder.h"
#include "packaging/lib_parse_es/nal.h"
#include "tests/packaging/imff_samples/sample_collector.h"
#include "tests/packaging/lib_parse_es/es_test_support.h"

namespace chunk_test {
using namespace tvrn::encoding::packaging::imff::fmp4;
using Bytes = std::vector<std::uint8_t>;

struct WrittenChunk {
    Bytes bytes;
    bool init = false;
    bool hasTime = false;
    std::int64_t time = 0;
    bool discontinuity = false;
};

// Keeps every chunk; may refuse writes to test the drop path. Written on the synchroniser's thread.
class KeepingOutput : public IOutputFmp4 {
public:
    bool Write(const std::uint8_t* data, std::size_t size, const std::int64_t* startTime, std::int64_t, bool init,
               bool discontinuity, bool, std::uint64_t) override {
        std::lock_guard lock(m_mutex);
        if (refuse) return false;
        m_chunks.push_back({Bytes(data, data + size), init, startTime != nullptr, startTime ? *startTime : 0,
                            discontinuity});
        return true;
    }
    void EndOfStream() override {
        std::lock_guard lock(m_mutex);
        ++m_ends;
        m_ended.notify_all();
    }
    bool waitForEnd(int seconds = 30) {
        std::unique_lock lock(m_mutex);
        return m_ended.wait_for(lock, std::chrono::seconds(seconds), [this] { return m_ends > 0; });
    }
    std::vector<WrittenChunk> chunks() const {
        std::lock_guard lock(m_mutex);
        return m_chunks;
    }
    int ends() const {
        std::lock_guard lock(m_mutex);
        return m_ends;
    }
    bool refuse = false;

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_ended;
    std::vector<WrittenChunk> m_chunks;
    int m_ends = 0;
};

class SilentLogger : public tvrn::log::ILogger {
public:
    void WriteMsg(tvrn::log::LOGLEVEL, const char*, ...) override {}
};

// The fixture's packets as input buffers, with their times at 90 kHz moved by `offset90k`.
inline std::vector<es_test::es::MediaDataRef> fixtureBuffers(const es_test::Fixture& fixture, std::int64_t offset90k) {
    std::vector<es_test::es::MediaDataRef> buffers;
    std::size_t offset = 0;
    for (const es_test::Packet& p : fixture.packets) {
        buffers.push_back(es_test::makeBuffer(fixture.bytes.data() + offset, p.size, p.pts + offset90k, p.dts + offset90k));
        offset += p.size;
    }
    return buffers;
}

// The first chunk of a stream as the synchroniser gives it: the configuration samples of the fixture.
inline StreamChunk firstChunkOf(const char* name, std::uint32_t type) {
    const es_test::Fixture fixture = es_test::loadFixture(name);
    es_test::SampleCollector collector;
    auto nals = es_test::es::createNalBuilder(type);
    auto builder = es_test::samples::createSampleBuilder(type, false, &collector);
    nals->setListener(builder.get());
    for (const auto& buffer : fixtureBuffers(fixture, 0)) nals->push(buffer.get());
    nals->flush();
    StreamChunk chunk;
    for (auto& sample : collector.all)
        if (sample->kind >= 2 && sample->kind <= 4)
            chunk.samples.push_back(std::make_shared<Fmp4Sample>(std::shared_ptr<es_test::samples::Sample>(sample.release())));
    return chunk;
}

// One box header in a byte range.
struct BoxInfo {
    std::string type;
    std::size_t offset = 0;  // of the header
    std::size_t size = 0;
};

inline std::uint32_t be32(const std::uint8_t* p) {
    return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) | p[3];
}
inline std::uint64_t be64(const std::uint8_t* p) { return (std::uint64_t{be32(p)} << 32) | be32(p + 4); }

// The boxes one after the other in [from, to); stops at a malformed header.
inline std::vector<BoxInfo> boxesIn(const Bytes& bytes, std::size_t from, std::size_t to) {
    std::vector<BoxInfo> boxes;
    while (from + 8 <= to) {
        const std::size_t size = be32(&bytes[from]);
        if (size < 8 || from + size > to) break;
        boxes.push_back({std::string(reinterpret_cast<const char*>(&bytes[from + 4]), 4), from, size});
        from += size;
    }
    return boxes;
}
inline std::vector<BoxInfo> boxesIn(const Bytes& bytes) { return boxesIn(bytes, 0, bytes.size()); }

// The first box of `path` ("moof/traf/tfdt") below [from, to); children of plain containers start after 8 bytes.
inline bool findBox(const Bytes& bytes, std::size_t from, std::size_t to, const std::string& path, BoxInfo& out) {
    const std::string head = path.substr(0, path.find('/'));
    for (const BoxInfo& box : boxesIn(bytes, from, to)) {
        if (box.type != head) continue;
        if (head.size() == path.size()) {
            out = box;
            return true;
        }
        return findBox(bytes, box.offset + 8, box.offset + box.size, path.substr(head.size() + 1), out);
    }
    return false;
}
inline bool findBox(const Bytes& bytes, const std::string& path, BoxInfo& out) {
    return findBox(bytes, 0, bytes.size(), path, out);
}

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/fmp4_chunks_XXXXXX";
        const char* made = mkdtemp(pattern);
        path = made ? made : "/tmp";
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string file(const std::string& name) const { return path + "/" + name; }
    std::string path;
};

inline void writeFile(const std::string& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// Standard output of a shell command, and its exit status.
inline std::string run(const std::string& command, int* status = nullptr) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return output;
    char buffer[4096];
    std::size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
    const int rc = pclose(pipe);
    if (status) *status = rc;
    return output;
}

inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::size_t from = 0;
    while (from < text.size()) {
        std::size_t end = text.find('\n', from);
        if (end == std::string::npos) end = text.size();
        if (end > from) out.push_back(text.substr(from, end - from));
        from = end + 1;
    }
    return out;
}

}  // namespace chunk_test
