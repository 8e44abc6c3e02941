#pragma once
// The two entry points of a session that the worker calls for each queued entry.
#include <cstdint>

#include "packaging/fmp4_types/media_data.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

class IMuxSession {
public:
    virtual ~IMuxSession() = default;
    virtual void ConsumeSample(std::uint32_t streamId, IMediaData* sample) = 0;
    virtual void ConsumeEndOfStream(std::uint32_t streamId) = 0;
};

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
