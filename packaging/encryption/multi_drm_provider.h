#pragma once
// One key from the configuration, signalled for every DRM system switched on in it: Verimatrix, PlayReady and
// Widevine pssh boxes and manifest elements, a Marlin element, and a system of the host's choice (ClearKey, for
// one). No server and no rotation.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/encryption/i_encryption_provider.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

class MultiDrmEncryptionProvider : public IEncryptionProvider {
public:
    explicit MultiDrmEncryptionProvider(MultiDrmConfiguration configuration);
    ~MultiDrmEncryptionProvider() override;
    MultiDrmEncryptionProvider(const MultiDrmEncryptionProvider&) = delete;
    MultiDrmEncryptionProvider& operator=(const MultiDrmEncryptionProvider&) = delete;

    // In this order, each when switched on: Verimatrix, PlayReady, Widevine, the custom system. A custom system id
    // that is no UUID throws "invalid UUID", as does a Widevine content id that is neither empty nor a UUID.
    void getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) override;
    // Common Encryption with the configured key id text, then Verimatrix, PlayReady, Widevine (without pssh),
    // Marlin and the custom system, each when switched on, each part followed by a line end. The same text in both
    // forms.
    void getContentProtectionText(std::string& text, bool dashForm) override;
    bool getKeyId(KeyId& keyId) override;
    bool getContentKey(ContentKey& key) override;
    // Eight zero bytes.
    void getInitialisationVector(std::vector<std::uint8_t>& iv) override;
    bool acceptsSample(const void* first, const void* second, const void* third) override;
    // Reads the key id ("invalid UUID" when it is none) and the content key, or derives the key from the seed.
    // False without a 16-byte key: the filter then goes on waiting.
    bool connect() override;

    bool isKeyRotationEnabled() const { return false; }

private:
    std::vector<std::uint8_t> playReadyObject() const;

    MultiDrmConfiguration m_configuration;
    std::optional<KeyId> m_keyId;
    std::optional<ContentKey> m_contentKey;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
