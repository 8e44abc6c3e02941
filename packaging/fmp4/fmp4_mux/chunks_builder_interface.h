#pragma once
// What the session asks of its chunk builder besides the synchroniser's callbacks.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_manager.h"
#include "packaging/fmp4_types/stream_attributes.h"
#include "packaging/synchronizator/i_sample_synchronizator.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

// One output as the host declares it: the streams written to it and its sink.
struct ChunkOutputSeed {
    std::string name;
    std::vector<std::int32_t> streamIds;
    IOutputFmp4* output = nullptr;  // owned by the host
    std::uint64_t firstNumber = 1;
};

class IChunksBuilder : public synchronizator::i_sample_synchronizator::ISynchronizatorListener {
public:
    virtual void AddStream(std::uint32_t streamId, std::uint32_t trackId, const ElementaryStreamAttributes& attributes) = 0;
    virtual void SetOutputs(const std::vector<ChunkOutputSeed>& outputs, bool inBandParameterSets,
                            bool psshInFragments, bool allVideoInInit) = 0;
    virtual void SetDefaultParentalRating(std::uint32_t age) = 0;
    // The session's encryption, before the first chunk: a manager with the provider of the configuration (key
    // servers, keys of the configuration). Without one, or with one that has no provider, nothing is encrypted.
    virtual void SetEncryptionManager(std::unique_ptr<encryption::EncryptionManager> manager) { (void)manager; }
    virtual encryption::EncryptionManager* GetEncryptionManager() { return nullptr; }
};

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
