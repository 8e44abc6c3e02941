#pragma once
// One key from the configuration, given directly or derived from a PlayReady key seed, signalled with a self-made
// PlayReady header. No server, no rotation: the key is installed at the first segment and the IV runs from 0 for
// the whole stream.
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/encryption/i_encryption_provider.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

// PlayReady's key generation from a key seed: the seed cut or zero-filled to 30 bytes S, the key id's 16 bytes K
// in GUID memory order, and key[i] = A[i] ^ A[i+16] ^ B[i] ^ B[i+16] ^ C[i] ^ C[i+16] over the SHA-256 digests
// A = H(S K), B = H(S K S), C = H(S K S K). A digest failure throws IEncryptionProvider::Exception
// "SHA 256 Update : failed".
ContentKey derivePlayReadyContentKey(std::span<const std::uint8_t> seed, const KeyId& keyId);

class ManualPlayReadyEncryptionProvider : public IEncryptionProvider {
public:
    // The content key is taken as it is: one of another length than 16 bytes makes getContentKey answer false.
    ManualPlayReadyEncryptionProvider(std::string laUrl, std::string luiUrl, std::vector<std::uint8_t> keyId,
                                      std::vector<std::uint8_t> contentKey, std::vector<std::uint8_t> domainServiceId);
    ~ManualPlayReadyEncryptionProvider() override;
    ManualPlayReadyEncryptionProvider(const ManualPlayReadyEncryptionProvider&) = delete;
    ManualPlayReadyEncryptionProvider& operator=(const ManualPlayReadyEncryptionProvider&) = delete;

    // One PlayReady pssh with the header of the key.
    void getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) override;
    // The PlayReady signalling of the same header.
    void getContentProtectionText(std::string& text, bool dashForm) override;
    bool getKeyId(KeyId& keyId) override;
    bool getContentKey(ContentKey& key) override;
    // Eight zero bytes.
    void getInitialisationVector(std::vector<std::uint8_t>& iv) override;
    bool acceptsSample(const void* first, const void* second, const void* third) override;

private:
    std::vector<std::uint8_t> playReadyObject() const;

    std::string m_laUrl;
    std::string m_luiUrl;
    std::vector<std::uint8_t> m_systemId;
    std::vector<std::uint8_t> m_keyId;
    std::vector<std::uint8_t> m_contentKey;
    std::vector<std::uint8_t> m_domainServiceId;
};

// The provider of a configuration: the key id (and the domain service id, if any) must be UUID text, else
// EncryptionManager::Exception "Invalid Key Id" ("Invalid Domain Service Id"); a content key wins over a seed, and
// with neither the provider exception "Either a content key or a key seed is required." is thrown.
std::unique_ptr<ManualPlayReadyEncryptionProvider> buildManualPlayReadyProvider(
    const ManualPlayReadyConfiguration& configuration);

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
