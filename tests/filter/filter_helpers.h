#pragma once
// A host's side of the filter in tests: upstream samples and a downstream sink that keeps what it gets.
#include <memory>
#include <vector>

#include "filter/mux_fmp4_filter/mux_fmp4_filter.h"
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
    explicit RecordingSink(long maxBuffers = 0x7FFFFFFF) : m_allocator(maxBuffers) {}
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
    struct State {
        std::vector<Received> received;
        int ends = 0;
    };
    testkit::Guarded<State> m_state;
    MemAllocator m_allocator;
};

// Waits until the filter's worker is in `state`.
inline bool waitForWorker(CMuxFmp4Filter* filter, fmp4::WorkerState state) {
    return filter->waitForWorkerState(state, testkit::kWaitLimit);
}

// Releases a filter at the end of a scope.
using FilterHolder = std::unique_ptr<CMuxFmp4Filter, decltype([](CMuxFmp4Filter* filter) { filter->Release(); })>;

}  // namespace filter_test
