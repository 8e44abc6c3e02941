#pragma once
// A host's side of the filter in tests: upstream samples and a downstream sink that keeps what it gets.
#include <mutex>
#include <vector>

#include "filter/mux_fmp4_filter/mux_fmp4_filter.h"

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
        bool sync = false;
        bool discontinuity = false;
        bool hasTime = false;
        REFERENCE_TIME start = 0;
        bool hasDataId = false;
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
        std::lock_guard lock(m_mutex);
        received.push_back(std::move(r));
        return S_OK;
    }
    HRESULT EndOfStream() override {
        std::lock_guard lock(m_mutex);
        ++ends;
        return S_OK;
    }
    MemAllocator* GetAllocator() override { return &m_allocator; }
    std::vector<Received> snapshot() {
        std::lock_guard lock(m_mutex);
        return received;
    }
    MemAllocator& allocator() { return m_allocator; }
    int endCount() {
        std::lock_guard lock(m_mutex);
        return ends;
    }

    std::vector<Received> received;
    int ends = 0;

private:
    std::mutex m_mutex;
    MemAllocator m_allocator;
};

// Releases a filter at the end of a scope.
struct FilterHolder {
    explicit FilterHolder(CMuxFmp4Filter* f) : filter(f) {}
    ~FilterHolder() { filter->Release(); }
    CMuxFmp4Filter* operator->() const { return filter; }
    CMuxFmp4Filter* filter;
};

}  // namespace filter_test
