#include "packaging/kms_clients/harmonic_provider.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <utility>

#include "HarmonicKeyProvisioning/HarmonicKeyProvisioningKeyProvisioningProxy.h"
#include "HarmonicKeySession/HarmonicKeySessionKeySessionProxy.h"
#include "packaging/encryption/protection_signalling.h"
#include "packaging/imff_box/protection_boxes.h"
#include "packaging/kms_clients/kms_exception.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

namespace hk = HarmonicKeyProvisioning;
namespace hs = HarmonicKeySession;
using encryption::KeyUpdateResult;
using tvrn::log::LOG_ERROR;
using tvrn::log::LOG_INFO;

namespace {

constexpr std::uint64_t kTicksPerSecond = 10'000'000;  // 100 ns units
constexpr int kEmi = 16420;
constexpr int kKeyLength = 128;

// The session settings may name the three enumerations of the session request, as "name=number" entries
// separated by ';' (for example "assetType=1;encryptionType=2"); an entry not given is 0. The whole text is
// also sent as the request's opaque data.
int sessionSetting(const std::string& settings, const std::string& name) {
    const std::string wanted = name + "=";
    std::size_t start = 0;
    while (start <= settings.size()) {
        std::size_t end = settings.find(';', start);
        if (end == std::string::npos) end = settings.size();
        std::size_t first = settings.find_first_not_of(' ', start);
        if (first < end && settings.compare(first, wanted.size(), wanted) == 0)
            return std::atoi(settings.c_str() + first + wanted.size());
        start = end + 1;
    }
    return 0;
}

std::vector<std::uint8_t> bytesOf(const hk::xsd__base64Binary* binary) {
    if (binary == nullptr || binary->__ptr == nullptr || binary->__size <= 0) return {};
    return {binary->__ptr, binary->__ptr + binary->__size};
}

std::string textOf(const std::string* text) { return text != nullptr ? *text : std::string(); }

}  // namespace

HarmonicEncryptionProvider::HarmonicEncryptionProvider(encryption::HarmonicConfiguration configuration,
                                                       encryption::TransportSecurity transportSecurity,
                                                       tvrn::log::ILogger& logger, HarmonicOptions options)
    : m_configuration(std::move(configuration)),
      m_transportSecurity(std::move(transportSecurity)),
      m_logger(logger),
      m_options(options),
      m_dumper(&logger, "Harmonic KMS SOAP"),
      m_isMinimal(m_configuration.implementation != 0) {
    if (m_isMinimal) {
        m_keyProvisioningUrl = m_configuration.keyProvisioningUrl;
        m_logger.WriteMsg(LOG_INFO, "Harmonic KMS: Use '%s' as key provivioning url", m_keyProvisioningUrl.c_str());
    } else {
        m_currentSessionUrl = m_configuration.keySessionUrl;
        m_logger.WriteMsg(LOG_INFO, "Harmonic KMS: Use '%s' as key session url.", m_currentSessionUrl.c_str());
    }
}

HarmonicEncryptionProvider::~HarmonicEncryptionProvider() {
    if (m_currentKey) OPENSSL_cleanse(m_currentKey->key.data(), m_currentKey->key.size());
}

template <class Proxy>
void HarmonicEncryptionProvider::initService(SoapService<Proxy>& service, const std::string& url) {
    openSoapService(&service, url, m_transportSecurity, m_options.soapTimeout, &m_dumper);
}

bool HarmonicEncryptionProvider::connect() {
    if (!m_isMinimal) {
        if (!openKeySession()) {
            if (m_configuration.backupKeySessionUrl.empty()) return false;
            m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: switch to backup Key Session server and re-try");
            m_currentSessionUrl = m_configuration.backupKeySessionUrl;
            m_logger.WriteMsg(LOG_INFO, "Harmonic KMS: Use '%s' as key session url.", m_currentSessionUrl.c_str());
            if (!openKeySession()) {
                m_currentSessionUrl = m_configuration.keySessionUrl;
                return false;
            }
        }
    }
    if (m_keyProvisioningUrl.empty()) {
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: empty key server url");
        return false;
    }
    m_keyClient.reset();  // built on the address by requestKey
    return requestKey(0);
}

bool HarmonicEncryptionProvider::openKeySession() {
    if (m_currentSessionUrl.empty()) m_currentSessionUrl = m_configuration.keySessionUrl;
    m_sessionClient = std::make_unique<SessionService>();
    try {
        initService(*m_sessionClient, m_currentSessionUrl);
    } catch (const KmsException& e) {
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: Heartbeat soap issue: %s", e.what());
        return false;
    }

    hs::_harmonic243__HeartbeatRequest heartbeat;
    heartbeat.version = "2.0";
    hs::_harmonic243__HeartbeatResponse alive;
    try {
        checkSoapResult(m_sessionClient->call([&](hs::KeySessionProxy& p) { return p.Heartbeat(&heartbeat, alive); }),
                        *m_sessionClient, "Heartbeat");
    } catch (const KmsException& e) {
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: Heartbeat soap issue: %s", e.what());
        return false;
    }
    if (alive.returnCode != 0) {
        const std::string reason = alive.errorMessage ? *alive.errorMessage
                                                      : "return code " + std::to_string(alive.returnCode);
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: Heartbeat failed (Key Session): %s", reason.c_str());
        return false;
    }
    if (textOf(alive.status) == "STANDBY") {
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: Heartbeat(Key Session): server is 'STANDBY'");
        return false;
    }

    hs::_harmonic243__CreateKeySessionRequest create;
    const std::string& settings = m_configuration.keySessionSettings;
    create.assetType = sessionSetting(settings, "assetType");
    create.cryptoPeriod = m_configuration.keyPeriod;
    create.encryptionAlgorithm = sessionSetting(settings, "encryptionAlgorithm");
    create.encryptionType = sessionSetting(settings, "encryptionType");
    create.keyLength = kKeyLength;
    std::string opaqueData = settings;
    create.opaqueData = &opaqueData;
    create.requestorId = m_configuration.requestorId;
    create.resourceId = m_configuration.resourceId;
    hs::_harmonic243__CreateKeySessionResponse created;
    try {
        checkSoapResult(
            m_sessionClient->call([&](hs::KeySessionProxy& p) { return p.CreateKeySession(&create, created); }),
            *m_sessionClient, "CreateKeySession");
    } catch (const KmsException& e) {
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: failed to create Key Session: soap issue: %s", e.what());
        return false;
    }
    std::string reason;
    if (created.returnCode != 0)
        reason = created.errorMessage ? *created.errorMessage : "return code " + std::to_string(created.returnCode);
    else if (textOf(created.keySessionURI).empty())
        reason = "missing key session URI";
    if (!reason.empty()) {
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: failed to create Key Session: %s", reason.c_str());
        return false;
    }
    m_keyProvisioningUrl = *created.keySessionURI;
    m_keyClient.reset();
    return true;
}

bool HarmonicEncryptionProvider::invalidKeySession() {
    if (!m_sessionClient) return false;
    hs::_harmonic243__InvalidKeySessionRequest request;
    request.resourceId = m_configuration.resourceId;
    hs::_harmonic243__InvalidKeySessionResponse response;
    try {
        checkSoapResult(
            m_sessionClient->call([&](hs::KeySessionProxy& p) { return p.InvalidKeySession(&request, response); }),
            *m_sessionClient, "InvalidKeySession");
    } catch (const KmsException&) {
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: invalidKeySession failed : soap issue");
        return false;
    }
    std::string reason;
    if (response.returnCode != 0)
        reason = response.errorMessage ? *response.errorMessage : "return code " + std::to_string(response.returnCode);
    else if (textOf(response.keySessionURI).empty())
        reason = "missing key session URI";
    if (!reason.empty()) {
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: invalidKeySession failed (%s)", reason.c_str());
        return false;
    }
    m_keyProvisioningUrl = *response.keySessionURI;
    m_keyClient.reset();
    return true;
}

bool HarmonicEncryptionProvider::requestKey(std::uint64_t time) {
    if (!m_keyClient) {
        if (m_keyProvisioningUrl.empty()) {
            m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: empty key server url");
            return false;
        }
        auto client = std::make_unique<KeyService>();
        try {
            initService(*client, m_keyProvisioningUrl);
        } catch (const KmsException& e) {  // the TLS settings refused: this request fails, the run goes on
            m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: soap issue while retrieving new key (%s), use previous key",
                              e.what());
            return false;
        }
        m_keyClient = std::move(client);
    }
    m_logger.WriteMsg(LOG_INFO, "Harmonic KMS: request key (getKeyAndSignalization) for time = %llu",
                      static_cast<unsigned long long>(time));

    hk::harmonic243__SecurityProfileType profile;
    profile.distributionMode = m_options.vod ? 1 : 0;
    profile.streamingMode = 0;
    profile.emi = kEmi;
    profile.cryptoPeriod = m_configuration.keyPeriod;
    hk::harmonic243__DrmContentType content;
    content.drmContentId = m_configuration.resourceId;
    content.profile = &profile;
    hk::harmonic243__ScheduledKeyType scheduled;
    scheduled.time = time;
    hk::_harmonic243__GetKeyAndSignalizationRequest request;
    request.drmContent = &content;
    request.scheduledKey.push_back(&scheduled);
    std::vector<hk::harmonic243__DrmSystemType> systems(m_configuration.drmList.size());
    std::vector<std::string> names(m_configuration.drmList.size());
    for (std::size_t i = 0; i < systems.size(); ++i) {
        systems[i].drmSystemId = m_configuration.drmList[i].drmSystemId;
        names[i] = m_configuration.drmList[i].drmName;
        if (!names[i].empty()) systems[i].drmName = &names[i];
        request.drmList.push_back(&systems[i]);
    }

    hk::_harmonic243__GetKeyAndSignalizationResponse response;
    const int code = m_keyClient->call(
        [&](hk::KeyProvisioningProxy& p) { return p.GetKeyAndSignalization(&request, response); });
    if (code != SOAP_OK && soap_xml_error_check(code)) {
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: getKeyAndSignalization failed (%s), use previous key",
                          "Failed to parse 'GetKeyAndSignalization' : invalid response");
        return false;
    }
    try {
        checkSoapResult(code, *m_keyClient, "GetKeyAndSignalization");
    } catch (const KmsException& e) {
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: soap issue while retrieving new key (%s), use previous key",
                          e.what());
        return false;
    }

    // The checks of the answer, in order; the key of `time` when it passes them.
    std::string reason;
    const hk::harmonic243__ContentKeyType* found = nullptr;
    if (response.returnCode != 0) {
        reason = response.errorMessage ? *response.errorMessage
                                       : "return code " + std::to_string(response.returnCode);
    } else if (request.scheduledKey.empty()) {
        reason = "empty scheduled keys";
    } else if (!response.scheduledKey.empty()) {
        for (const hk::harmonic243__ScheduledKeyType* entry : response.scheduledKey) {
            if (entry == nullptr || entry->time != time) continue;
            const hk::harmonic243__ContentKeyType* key = entry->contentKey;
            if (key == nullptr || key->keyId == nullptr || bytesOf(key->key).empty()) {
                reason = "invalid content key";
                break;
            }
            found = key;
        }
    } else if (response.contentKey == nullptr) {
        reason = "missing content key";
    } else if (response.contentKey->keyId == nullptr || bytesOf(response.contentKey->key).empty()) {
        reason = "invalid content key";
    } else {
        found = response.contentKey;
    }
    if (reason.empty() && response.signalization == nullptr) reason = "missing signalization data";
    if (!reason.empty()) {
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: getKeyAndSignalization failed (%s), use previous key",
                          reason.c_str());
        return false;
    }
    if (found == nullptr) {
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: getKeyAndSignalization : empty key received for time = %llu",
                          static_cast<unsigned long long>(time));
        return false;
    }

    if (m_currentKey) OPENSSL_cleanse(m_currentKey->key.data(), m_currentKey->key.size());
    m_currentKey = ScheduledKey{*found->keyId, bytesOf(found->key), bytesOf(found->iv)};
    OPENSSL_cleanse(found->key->__ptr, static_cast<std::size_t>(found->key->__size));
    m_lastKeyTime = time;
    const auto listOf = [](const std::vector<hk::harmonic243__DrmInfoType*>& entries) {
        std::vector<DrmSignalization> list;
        for (const hk::harmonic243__DrmInfoType* info : entries) {
            if (info == nullptr) continue;
            list.push_back({info->drmSystemId, textOf(info->drmName), textOf(info->manifestHeader),
                            info->psshBox ? bytesOf(info->psshBox->data) : std::vector<std::uint8_t>()});
        }
        return list;
    };
    m_signalization = listOf(response.signalization->dash);
    m_hlsSignalization = listOf(response.signalization->hls);
    m_ssSignalization = listOf(response.signalization->ss);
    return true;
}

KeyUpdateResult HarmonicEncryptionProvider::updateKey(std::uint64_t time) {
    const std::uint64_t period =
        m_configuration.keyPeriod > 0 ? static_cast<std::uint64_t>(m_configuration.keyPeriod) * kTicksPerSecond : 0;
    if (period == 0 || time <= m_lastKeyTime + period) return KeyUpdateResult::Unchanged;
    if (requestKey(time)) return KeyUpdateResult::Updated;
    if (!m_isMinimal && !invalidKeySession())
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: invalidKeySession : failed to retrieve new key provivioning url");
    return KeyUpdateResult::Failed;
}

void HarmonicEncryptionProvider::disconnect() {
    if (m_isMinimal || !m_sessionClient) return;
    hs::_harmonic243__DestroyKeySessionRequest request;
    request.resourceId = m_configuration.resourceId;
    hs::_harmonic243__DestroyKeySessionResponse response;
    try {
        checkSoapResult(
            m_sessionClient->call([&](hs::KeySessionProxy& p) { return p.DestroyKeySession(&request, response); }),
            *m_sessionClient, "DestroyKeySession");
    } catch (const KmsException&) {
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: Destroy Key Session failed : soap issue");
        return;
    }
    if (response.returnCode != 0) {
        const std::string reason = response.errorMessage ? *response.errorMessage
                                                         : "return code " + std::to_string(response.returnCode);
        m_logger.WriteMsg(LOG_ERROR, "Harmonic KMS: Destroy Key Session failed (%s)", reason.c_str());
    }
}

bool HarmonicEncryptionProvider::getKeyId(encryption::KeyId& keyId) {
    if (!m_currentKey) return false;
    try {
        keyId = encryption::parseGuidText(m_currentKey->keyId);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

bool HarmonicEncryptionProvider::getContentKey(encryption::ContentKey& key) {
    if (!m_currentKey || m_currentKey->key.size() != key.size()) return false;
    std::copy(m_currentKey->key.begin(), m_currentKey->key.end(), key.begin());
    return true;
}

void HarmonicEncryptionProvider::getInitialisationVector(std::vector<std::uint8_t>& iv) { iv.assign(8, 0); }

void HarmonicEncryptionProvider::getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) {
    for (const DrmSignalization& entry : m_signalization) {
        const imff::imff_box::Uuid systemId = imff::imff_box::keyIdToUuid(encryption::parseUuidFields(entry.drmSystemId));
        boxes.push_back(encryption::makeProtectionBox(systemId, entry.psshData, cencForm));
    }
}

void HarmonicEncryptionProvider::getContentProtectionText(std::string& text, bool dashForm) {
    (void)dashForm;
    text = "<!-- Common Encryption -->\n"
           "<ContentProtection schemeIdUri=\"urn:mpeg:dash:mp4protection:2011\" value=\"cenc\" />\n";
    for (const DrmSignalization& entry : m_signalization) {
        text += "<ContentProtection schemeIdUri=\"urn:uuid:" + entry.drmSystemId + "\">\n";
        text += entry.manifestHeader + "\n";
        text += "</ContentProtection>\n";
    }
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
