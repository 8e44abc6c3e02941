#pragma once
// The key of the operator's key id from a BuyDRM KeyOS server: one request at connect time over SOAP, whose
// answer is an XML document with the content key, the licence addresses and the PlayReady header as the server
// made it. The key never changes during the run. A failure at connect time keeps the filter waiting.
// Not locked: connect on the filter's thread, everything else on the segment-building thread.
#include <memory>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/encryption/i_encryption_provider.h"
#include "packaging/encryption/protection_signalling.h"
#include "packaging/kms_clients/soap_request_dumper.h"
#include "packaging/kms_clients/soap_transport.h"
#include "support/log/i_logger.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

// The request document: KeyOSEncryptionInfoRequest with no white space, its user key, key id and content id
// (also the media id), and this packager's version as the encoder version.
std::string makeKeyOsRequest(const encryption::BuyDrmConfiguration& configuration);

// What the answer document gives.
struct KeyOsAnswer {
    std::string keyId;
    std::vector<std::uint8_t> contentKey;
    std::string laUrl;
    std::string luiUrl;
    std::string playReadyHeader;  // the WRMHEADER text
};

// Reads the answer document by element name. A Status element holding anything but "OK" or "0" fails with its
// text; then KmsException "KeyOS soap response: KeyId is empty", "... ContentKey is empty", "... LicAcqURL is
// empty" or "... PRHeader is empty" for an element missing or empty; a document that is not XML gives
// "KeyOS soap response: invalid XML". LicUIURL may be missing.
KeyOsAnswer readKeyOsAnswer(const std::string& document);

class BuyDrmEncryptionProvider : public encryption::IEncryptionProvider {
public:
    BuyDrmEncryptionProvider(encryption::BuyDrmConfiguration configuration,
                             encryption::TransportSecurity transportSecurity, tvrn::log::ILogger& logger,
                             int soapTimeout = kSoapTimeoutSeconds);
    ~BuyDrmEncryptionProvider() override;

    // False, with the reason in the log, when the request fails or the key is not 16 bytes.
    bool connect() override;
    // One PlayReady pssh with the server's header.
    void getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) override;
    void getContentProtectionText(std::string& text, bool dashForm) override;
    bool getKeyId(encryption::KeyId& keyId) override;
    bool getContentKey(encryption::ContentKey& key) override;
    void getInitialisationVector(std::vector<std::uint8_t>& iv) override;
    bool acceptsSample(const void*, const void*, const void*) override { return true; }

    const std::string& laUrl() const { return m_answer.laUrl; }

private:
    encryption::BuyDrmConfiguration m_configuration;
    encryption::TransportSecurity m_transportSecurity;
    tvrn::log::ILogger& m_logger;
    int m_soapTimeout;
    SoapRequestDumper m_dumper;
    KeyOsAnswer m_answer;
    encryption::PlayReadyObject m_playReadyObject;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
