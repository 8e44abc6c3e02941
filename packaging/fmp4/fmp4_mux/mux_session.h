#pragma once
// The two entry points of a session that the worker calls for each queued entry, and the encryption that the
// key wait gives a session before it runs.
#include <cstdint>
#include <memory>

#include "packaging/encryption/encryption_manager.h"
#include "packaging/fmp4_types/media_data.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

class IMuxSession {
public:
    virtual ~IMuxSession() = default;
    virtual void ConsumeSample(std::uint32_t streamId, IMediaData* sample) = 0;
    virtual void ConsumeEndOfStream(std::uint32_t streamId) = 0;
    // Before the first sample: the manager that encrypts the session's chunks, connected to its key server.
    virtual void SetEncryptionManager(std::unique_ptr<encryption::EncryptionManager> manager) = 0;
};

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
