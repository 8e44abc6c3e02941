#pragma once
// An encryption provider with a fixed key id, key and IV whose answers to updateKey are scripted call by call:
// Updated, Unchanged or Failed, after taking in a new key id, key or IV, or forgetting its key; or a throw.
// Calls past the script answer Unchanged. Its state is public, for tests to set and read.
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "packaging/encryption/i_encryption_provider.h"

namespace testkit {

namespace enc = tvrn::encoding::packaging::encryption;

class FixedKeyProvider : public enc::IEncryptionProvider {
public:
    // The AES-128 key of NIST SP 800-38A's examples, so that its known answers apply.
    static constexpr enc::ContentKey kKey = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                                             0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};
    static constexpr enc::KeyId kKeyId = {'k', 'e', 'y', '-', 'i', 'd', '-', '0', '0', '0', '0', '0', '0', '0', '0', '1'};
    static std::vector<std::uint8_t> defaultIv() { return {0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8}; }

    struct Step {
        enc::KeyUpdateResult result = enc::KeyUpdateResult::Updated;
        std::optional<enc::KeyId> keyId{};
        std::optional<enc::ContentKey> key{};
        std::optional<std::vector<std::uint8_t>> iv{};
        bool forgetKey = false;                // getContentKey answers false from then on
        std::optional<std::string> throws{};  // throws IEncryptionProvider::Exception with this text instead
    };
    FixedKeyProvider& then(Step step) { return steps.push_back(std::move(step)), *this; }

    void getProtectionBoxes(tvrn::encoding::packaging::imff::imff_box::BoxList&, bool) override {}
    void getContentProtectionText(std::string& text, bool) override { text = "fixed key"; }
    bool getKeyId(enc::KeyId& out) override { return keyId && (out = *keyId, true); }
    bool getContentKey(enc::ContentKey& out) override { return key && (out = *key, true); }
    void getInitialisationVector(std::vector<std::uint8_t>& out) override { out = iv; }
    bool acceptsSample(const void*, const void*, const void*) override { return true; }
    enc::KeyUpdateResult updateKey(std::uint64_t) override {
        if (steps.empty()) return enc::KeyUpdateResult::Unchanged;
        Step step = std::move(steps.front());
        steps.pop_front();
        if (step.throws) throw Exception(*step.throws);
        if (step.keyId) keyId = step.keyId;
        if (step.key) key = step.key;
        if (step.iv) iv = *step.iv;
        if (step.forgetKey) key.reset();
        return step.result;
    }
    bool connect() override { return connectThrows ? throw Exception(*connectThrows) : connectAnswer; }

    std::optional<enc::KeyId> keyId = kKeyId;   // empty: no key id known
    std::optional<enc::ContentKey> key = kKey;  // empty: no key known
    std::vector<std::uint8_t> iv = defaultIv();
    bool connectAnswer = true;
    std::optional<std::string> connectThrows;
    std::deque<Step> steps;
};

}  // namespace testkit
