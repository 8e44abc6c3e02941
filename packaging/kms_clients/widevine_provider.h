#pragma once
// Keys from a Widevine key server: a JSON request over HTTP POST, signed with the operator's AES key and IV when
// the configuration says so, for the keys of one track set; with a key period, a new request once the period has
// passed in media time. The answer gives, for the first track, the key, its key id and Widevine's pssh data.
// A failed request at connect time answers false (the filter keeps waiting); during the run it keeps the last key.
// Not locked: connect on the filter's thread, everything else on the segment-building thread.
#include <cstdint>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/encryption/i_encryption_provider.h"
#include "packaging/kms_clients/http_client.h"
#include "support/log/i_logger.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

// The request's JSON documents. `inner` is what the signature covers; `outer` is the text that is posted.
struct WidevineRequestText {
    std::string inner;
    std::string outer;
};

// The request for `contentId`: inner {"content_id": base64, "tracks": [{"type": "HD"}]}; outer {"request": the
// inner text in base64, "signature" when signed, "signer" when not empty}. The signature is the SHA-1 of the inner
// text, padded with PKCS#7 to 32 bytes and encrypted with AES-CBC under the decoded key (16, 24 or 32 bytes) and
// IV (16 bytes), in base64. A key or IV of another size throws KmsException "Rijndael 256 CBC encrypt : invalid
// parameters".
WidevineRequestText makeWidevineRequest(const encryption::WidevineConfiguration& configuration);

// What the answer gives for the first track.
struct WidevineKey {
    std::vector<std::uint8_t> keyId;  // as the server gives it: the bytes written in tenc
    std::vector<std::uint8_t> key;
    std::vector<std::uint8_t> psshData;
};

// Reads an answer: {"response": base64 of {"status": "OK", "drm": [{"type": "WIDEVINE", ...}], "tracks": [{"key_id",
// "key", "pssh": [{"drm_type": "WIDEVINE", "data"}]}]}}. Throws KmsException "Invalid response" for anything
// missing or of the wrong kind, "Response status is <status>" for a status other than OK.
WidevineKey readWidevineResponse(const std::string& body);

class WidevineEncryptionProvider : public encryption::IEncryptionProvider {
public:
    WidevineEncryptionProvider(encryption::WidevineConfiguration configuration,
                               encryption::TransportSecurity transportSecurity, tvrn::log::ILogger& logger,
                               HttpTimeouts timeouts = {});
    ~WidevineEncryptionProvider() override;

    bool connect() override;
    encryption::KeyUpdateResult updateKey(std::uint64_t time) override;
    // One Widevine pssh with the server's data.
    void getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) override;
    // Common Encryption with the key id, then Widevine's element with the whole pssh box in base64.
    void getContentProtectionText(std::string& text, bool dashForm) override;
    bool getKeyId(encryption::KeyId& keyId) override;
    bool getContentKey(encryption::ContentKey& key) override;
    void getInitialisationVector(std::vector<std::uint8_t>& iv) override;
    bool acceptsSample(const void*, const void*, const void*) override { return true; }
    bool isKeyRotationEnabled() const { return m_configuration.keyPeriod > 0; }

    // The crypto period index the next request would name (it moves on with every request after connect).
    std::uint32_t cryptoPeriodIndex() const { return m_cryptoPeriodIndex; }

private:
    void request();

    encryption::WidevineConfiguration m_configuration;
    tvrn::log::ILogger& m_logger;
    HttpClient m_client;
    std::uint32_t m_cryptoPeriodIndex = 0;
    WidevineKey m_key;
    std::uint64_t m_lastKeyTime = 0;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
