#pragma once
// Recording stand-ins for the parts of a session: synchroniser, chunk builder and NAL builder.
#include <mutex>
#include <string>
#include <vector>

#include "packaging/fmp4/fmp4_mux/fmp4_mux.h"
#include "tests/common/loggers.h"

namespace testkit {
using namespace tvrn::encoding::packaging::imff::fmp4;
namespace lib_parse_es = tvrn::encoding::packaging::lib_parse_es;
namespace imff_samples = tvrn::encoding::packaging::imff::imff_samples;

struct SynchronizatorLog {
    std::vector<std::string> added;  // "id:kind:label"
    std::vector<std::shared_ptr<ISyncSample>> samples;
    std::vector<std::uint32_t> ends;
};

class FakeSynchronizator : public ISampleSynchronizator {
public:
    explicit FakeSynchronizator(SynchronizatorLog& log) : m_log(log) {}
    void addStream(std::uint32_t id, std::uint32_t kind, const std::string& label) override {
        m_log.added.push_back(std::to_string(id) + ":" + std::to_string(kind) + ":" + label);
    }
    void pushSample(std::shared_ptr<ISyncSample> sample) override { m_log.samples.push_back(std::move(sample)); }
    void eof(std::uint32_t id) override { m_log.ends.push_back(id); }

private:
    SynchronizatorLog& m_log;
};

struct ChunksBuilderLog {
    std::vector<std::string> streams;  // "streamId:trackId"
    std::vector<ElementaryStreamAttributes> attributes;
    std::vector<ChunkOutputSeed> outputs;
    bool flags[3] = {};
    int endsOfStream = 0;
};

class FakeChunksBuilder : public IChunksBuilder {
public:
    explicit FakeChunksBuilder(ChunksBuilderLog& log) : m_log(log) {}
    void AddStream(std::uint32_t streamId, std::uint32_t trackId, const ElementaryStreamAttributes& a) override {
        m_log.streams.push_back(std::to_string(streamId) + ":" + std::to_string(trackId));
        m_log.attributes.push_back(a);
    }
    void SetOutputs(const std::vector<ChunkOutputSeed>& outputs, bool a, bool b, bool c) override {
        m_log.outputs = outputs;
        m_log.flags[0] = a;
        m_log.flags[1] = b;
        m_log.flags[2] = c;
    }
    void SetDefaultParentalRating(std::uint32_t) override {}
    void OnChunks(const SegmentChunks&, bool) override {}
    void OnFirstSegments(const SegmentChunks&, std::uint64_t, std::uint64_t, std::uint64_t) override {}
    void OnEndOfStream() override { ++m_log.endsOfStream; }
    void OnRestart() override {}

private:
    ChunksBuilderLog& m_log;
};

struct NalBuilderLog {
    std::vector<std::pair<std::uint32_t, std::int64_t>> pushes;  // (stream type, time or -1)
    int flushes = 0;
};

class FakeNalBuilder : public lib_parse_es::NALBuilder {
public:
    FakeNalBuilder(std::uint32_t type, NalBuilderLog& log) : m_type(type), m_log(log) {}
    void push(IMediaData* data) override {
        REFERENCE_TIME start = -1, stop = 0;
        if (tvrn::com::FAILED(data->GetTime(&start, &stop))) start = -1;
        m_log.pushes.emplace_back(m_type, start);
    }
    void flush() override {
        ++m_log.flushes;
        signalEnd();
    }

private:
    std::uint32_t m_type;
    NalBuilderLog& m_log;
};

inline MediaDataRef timedBuffer(std::int64_t time, const std::vector<std::uint8_t>& bytes = {0, 0, 0, 1, 0x09}) {
    MediaDataRef data = SimpleMediaData::create(bytes.data(), bytes.size());
    if (time >= 0) data->SetTime(&time, nullptr);
    return data;
}

}  // namespace testkit
