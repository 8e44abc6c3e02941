#include "packaging/lib_parse_es/buffer_timing.h"

#include "support/exceptions/result_codes.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

using tvrn::com::HRESULT;
using tvrn::com::S_OK;
using tvrn::com::SUCCEEDED;

void takeBufferTiming(IMediaData& buffer, NalTimingInfo& timing, bool withDuration) {
    std::int64_t start = 0;
    std::int64_t stop = 0;
    const HRESULT timeResult = buffer.GetTime(&start, &stop);
    if (SUCCEEDED(timeResult)) {
        timing.hasTime = 1;
        timing.time = start;
        timing.syncPoint = buffer.IsSyncPoint() == S_OK;
        timing.discontinuity = buffer.IsDiscontinuity() == S_OK;
        timing.preroll = buffer.IsPreroll() == S_OK;
        buffer.GetCuePoint(timing.cuePoint);
        imff::fmp4::SampleDate date;
        if (buffer.GetSampleDate(date)) timing.sampleDate = date.value;
        imff::fmp4::DataId dataId;
        timing.hasDataId = buffer.GetDataId(dataId);
        if (timing.hasDataId) timing.dataId = dataId.value;
        // Read into a block kept per thread: one on the stack would be zero-filled for every buffer.
        thread_local ParentalRatingEventBlock block;
        timing.hasParentalRating = buffer.GetParentalRating(block);
        if (timing.hasParentalRating) timing.parentalRating = std::make_shared<const ParentalRatingEventBlock>(block);
        if (withDuration && timeResult == S_OK) {
            timing.hasDuration = 1;
            timing.duration = stop - start;
        }
    }
    std::int64_t mediaStart = 0;
    std::int64_t mediaStop = 0;
    if (SUCCEEDED(buffer.GetMediaTime(&mediaStart, &mediaStop))) {
        timing.hasMediaTime = 1;
        timing.mediaTime = mediaStart;
    }
}

bool bufferBytes(IMediaData& buffer, const std::uint8_t*& bytes, std::uint32_t& size) {
    const long length = buffer.GetActualDataLength();
    if (length < 1) return false;
    std::uint8_t* pointer = nullptr;
    if (tvrn::com::FAILED(buffer.GetPointer(&pointer)) || pointer == nullptr) return false;
    bytes = pointer;
    size = static_cast<std::uint32_t>(length);
    return true;
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
