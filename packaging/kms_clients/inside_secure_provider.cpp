#include "packaging/kms_clients/inside_secure_provider.h"

#include <openssl/crypto.h>

#include <chrono>
#include <utility>

#include "InsideSecureKeyProvisioning/InsideSecureKeyProvisioningKeyProvisioningProxy.h"
#include "packaging/encryption/protection_signalling.h"
#include "packaging/kms_clients/kms_exception.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

namespace is = InsideSecureKeyProvisioning;
namespace enc = encryption;
using enc::KeyUpdateResult;

namespace {
constexpr std::uint64_t kTicksPerSecond = 10'000'000;  // 100 ns units

std::uint64_t systemUnixTime() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count());
}
}  // namespace

InsideSecureEncryptionProvider::InsideSecureEncryptionProvider(enc::InsideSecureConfiguration configuration,
                                                               enc::TransportSecurity transportSecurity,
                                                               tvrn::log::ILogger& logger, int soapTimeout,
                                                               std::function<std::uint64_t()> unixTime)
    : m_configuration(std::move(configuration)),
      m_transportSecurity(std::move(transportSecurity)),
      m_logger(logger),
      m_soapTimeout(soapTimeout),
      m_unixTime(unixTime ? std::move(unixTime) : systemUnixTime),
      m_dumper(&logger, "Inside Secure SOAP") {}

InsideSecureEncryptionProvider::~InsideSecureEncryptionProvider() {
    OPENSSL_cleanse(m_contentKey.data(), m_contentKey.size());
}

void InsideSecureEncryptionProvider::provisionKey() {
    if (m_configuration.contentId.empty()) throw KmsException("Invalid configuration : 'Content Id' is empty");
    if (!m_client) {
        m_client = std::make_unique<Service>();
        openSoapService(m_client.get(), m_configuration.serverUrl, m_transportSecurity, m_soapTimeout, &m_dumper);
    }
    is::insec__ExternalContentIdentifier content;
    content.contentID = m_configuration.contentId;
    content.position = std::to_string(m_unixTime());
    is::_insec__ProvisionKeyRequest request;
    request.protectionSystem = "PlayReady";
    request.externalContentIdentifier = &content;
    is::_insec__PlayReadyProvisionKeyResponse response;
    checkSoapResult(m_client->call([&](is::KeyProvisioningProxy& p) { return p.ProvisionKey(&request, response); }),
                    m_client->context(), "provisionKey");
    const auto* key = response.encryptionKey;
    if (key == nullptr || key->__ptr == nullptr || key->__size != 16)
        throw KmsException("Invalid encryption key size from Inside Secure");
    enc::KeyId keyId{};
    try {
        keyId = enc::parseGuidText(response.keyID != nullptr ? *response.keyID : std::string());
    } catch (const std::exception&) {
        throw KmsException("Invalid Key Id received from Inside Secure");
    }
    OPENSSL_cleanse(m_contentKey.data(), m_contentKey.size());
    m_contentKey.assign(key->__ptr, key->__ptr + key->__size);
    m_keyId.assign(keyId.begin(), keyId.end());
}

bool InsideSecureEncryptionProvider::connect() {
    m_client.reset();
    provisionKey();
    m_lastKeyTime = 0;
    return true;
}

KeyUpdateResult InsideSecureEncryptionProvider::updateKey(std::uint64_t time) {
    if (m_lastKeyTime == 0) m_lastKeyTime = time;
    if (m_configuration.keyPeriod <= 0 ||
        (time - m_lastKeyTime) / kTicksPerSecond <= static_cast<std::uint64_t>(m_configuration.keyPeriod))
        return KeyUpdateResult::Unchanged;
    try {
        provisionKey();
    } catch (const std::exception& e) {
        m_logger.WriteMsg(tvrn::log::LOG_ERROR, "Encryption exception: %s, use previous key", e.what());
        return KeyUpdateResult::Failed;
    }
    m_lastKeyTime = time;
    return KeyUpdateResult::Updated;
}

void InsideSecureEncryptionProvider::getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) {
    boxes.push_back(enc::makeProtectionBox(enc::getProtectionSystemId(enc::ProtectionSystem::PlayReady),
                                           enc::makePlayReadyObject(m_configuration.laUrl, m_keyId, m_contentKey, "", {}),
                                           cencForm));
}

void InsideSecureEncryptionProvider::getContentProtectionText(std::string& text, bool dashForm) {
    enc::makePlayReadySignalling(text, enc::makePlayReadyObject(m_configuration.laUrl, m_keyId, m_contentKey, "", {}),
                                 dashForm);
}

bool InsideSecureEncryptionProvider::getKeyId(enc::KeyId& keyId) {
    if (m_keyId.size() != keyId.size()) return false;
    std::copy(m_keyId.begin(), m_keyId.end(), keyId.begin());
    return true;
}

bool InsideSecureEncryptionProvider::getContentKey(enc::ContentKey& key) {
    if (m_contentKey.size() != key.size()) return false;
    std::copy(m_contentKey.begin(), m_contentKey.end(), key.begin());
    return true;
}

void InsideSecureEncryptionProvider::getInitialisationVector(std::vector<std::uint8_t>& iv) { iv.assign(8, 0); }

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
