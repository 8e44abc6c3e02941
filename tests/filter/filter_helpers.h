#pragma once
// A host's side of the filter in tests: upstream samples and a downstream sink that keeps what it gets.
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "filter/mux_fmp4_filter/mux_fmp4_filter.h"
#include "tests/common/fixtures.h"
#include "tests/common/waiting.h"

namespace filter_test {
using namespace tvrn::encoding::filter;
using namespace tvrn::com;

inline MediaType inputType(std::size_t index, std::uint32_t bitrate = 0) {
    MediaType type;
    type.majortype = inputTypeTable().at(index).majortype;
    type.subtype = inputTypeTable().at(index).subtype;
    type.formattype = guids::FORMAT_None;
    type.bitrate = bitrate;
    return type;
}

// Keeps every sample it receives, with its bytes and properties.
class RecordingSink : public IMediaSampleSink {
public:
    struct Received {
        std::vector<std::uint8_t> bytes;
        bool sync = false, discontinuity = false, hasTime = false, hasDataId = false;
        REFERENCE_TIME start = 0;
        std::uint64_t dataId = 0;
    };
    // Its allocator gives at most `maxBuffers` buffers of at most `maxSize` bytes, and of at least `minSize`.
    explicit RecordingSink(long maxBuffers = 0x7FFFFFFF, long maxSize = 0x7FFFFFFF, long minSize = 0)
        : m_allocator(maxBuffers, maxSize, minSize) {}
    HRESULT Receive(IMediaSample3* sample) override {
        Received r;
        std::uint8_t* data = nullptr;
        sample->GetPointer(&data);
        r.bytes.assign(data, data + sample->GetActualDataLength());
        r.sync = sample->IsSyncPoint() == S_OK;
        r.discontinuity = sample->IsDiscontinuity() == S_OK;
        REFERENCE_TIME stop = 0;
        r.hasTime = SUCCEEDED(sample->GetTime(&r.start, &stop));
        const std::uint8_t* id = nullptr;
        std::size_t size = 0;
        if (sample->GetMetadata(MetadataDataId, &id, &size) == S_OK && size == 8) {
            r.hasDataId = true;
            std::memcpy(&r.dataId, id, 8);
        }
        m_state.update([&](State& s) { s.received.push_back(std::move(r)); });
        return S_OK;
    }
    HRESULT EndOfStream() override {
        m_state.update([](State& s) { ++s.ends; });
        return S_OK;
    }
    MemAllocator* GetAllocator() override { return &m_allocator; }
    std::vector<Received> snapshot() const { return m_state.get().received; }
    MemAllocator& allocator() { return m_allocator; }
    int endCount() const { return m_state.get().ends; }
    bool waitForEnds(int count) {
        return m_state.waitFor([count](const State& s) { return s.ends >= count; });
    }

private:
    struct State { std::vector<Received> received; int ends = 0; };
    testkit::Guarded<State> m_state;
    MemAllocator m_allocator;
};

// One input buffer: its bytes, its presentation time and, for video, its decoding time (100 ns).
struct Unit { const std::uint8_t* bytes; std::size_t size; REFERENCE_TIME pts; std::optional<REFERENCE_TIME> dts; };

// The H.264 fixture's access units (input 0) and the AAC fixture's frames (input 1).
using Inputs = std::array<std::vector<Unit>, 2>;
inline Inputs loadInputs(const testkit::Fixture& video, const testkit::AudioFixture& audio) {
    Inputs inputs;
    std::size_t offset = 0;
    for (const testkit::Packet& p : video.packets) {
        inputs[0].push_back(
            {video.bytes.data() + offset, p.size, testkit::es::from90kHz(p.pts), testkit::es::from90kHz(p.dts)});
        offset += p.size;
    }
    offset = 0;
    for (const testkit::AudioPacket& p : audio.packets) {
        inputs[1].push_back({audio.bytes.data() + offset, p.size, testkit::probeTo100ns(p.pts), std::nullopt});
        offset += p.size;
    }
    return inputs;
}

// One input in order from a streaming thread, then its end of stream.
inline void push(MuxFmp4InputPin& pin, const std::vector<Unit>& units) {
    for (const Unit& u : units) {
        auto sample = COOBMediaSample::create(u.size);
        std::uint8_t* data = nullptr;
        sample->GetPointer(&data);
        std::memcpy(data, u.bytes, u.size);
        sample->SetTime(&u.pts, nullptr);
        if (u.dts) sample->SetMediaTime(&*u.dts, &*u.dts);
        ASSERT_EQ(pin.Receive(sample.get()), S_OK);
    }
    pin.EndOfStream();
}

// Waits until the filter's worker is in `state`.
inline bool waitForWorker(CMuxFmp4Filter* filter, fmp4::WorkerState state) {
    return filter->waitForWorkerState(state, testkit::kWaitLimit);
}
// Pauses the filter and waits until its session runs; stops it and waits until its worker is idle.
inline bool paused(CMuxFmp4Filter* f) { return f->Pause() == S_OK && waitForWorker(f, fmp4::Running); }
inline bool stopped(CMuxFmp4Filter* f) { return f->Stop() == S_OK && waitForWorker(f, fmp4::Idle); }

// Releases a filter at the end of a scope.
using FilterHolder = std::unique_ptr<CMuxFmp4Filter, decltype([](CMuxFmp4Filter* filter) { filter->Release(); })>;

}  // namespace filter_test
