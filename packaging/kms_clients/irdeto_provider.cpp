#include "packaging/kms_clients/irdeto_provider.h"

#include <openssl/crypto.h>
#include <tinyxml2.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <utility>

// The envelope's types (the service header) before the service's stubs, which leave the global types out.
#include "soapEnv/soapEnvH.h"
// Then the stubs.
#include "IrdetoLiveDrm/IrdetoLiveDrmLiveDrmServicesSoap12Proxy.h"
#include "packaging/encryption/protection_signalling.h"
#include "packaging/kms_clients/kms_exception.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

namespace ir = IrdetoLiveDrm;
using encryption::KeyUpdateResult;
using tvrn::log::LOG_ERROR;
using tvrn::log::LOG_INFO;

namespace {

constexpr std::size_t kBlockSize = 16;

void cleanse(std::vector<std::uint8_t>& bytes) {
    if (!bytes.empty()) OPENSSL_cleanse(bytes.data(), bytes.size());
}

void cleanse(std::string& text) {
    if (!text.empty()) OPENSSL_cleanse(text.data(), text.size());
}

std::string_view localName(const char* name) {
    const std::string_view qualified = name != nullptr ? name : "";
    const std::size_t colon = qualified.rfind(':');
    return colon == std::string_view::npos ? qualified : qualified.substr(colon + 1);
}

// An attribute of that name, or the text of a child element of that name.
std::string fieldOf(const tinyxml2::XMLElement& key, const char* name) {
    if (const char* value = key.Attribute(name)) return value;
    for (const tinyxml2::XMLElement* child = key.FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement())
        if (localName(child->Name()) == name) return child->GetText() != nullptr ? child->GetText() : "";
    return {};
}

std::string format(const char* pattern, long long value) {
    char text[160];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

// The number of bits of a key id text: 128 for UUID text, else four per hexadecimal digit it holds.
int keyIdBits(const std::string& text) {
    return static_cast<int>(4 * std::count_if(text.begin(), text.end(),
                                              [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); }));
}

std::string uuidText(const std::vector<std::uint8_t>& guid) {
    // GUID memory order back to text: the first three groups little-endian.
    static const int order[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
    static const char* digits = "0123456789abcdef";
    std::string text;
    for (int i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        const std::uint8_t byte = guid[static_cast<std::size_t>(order[i])];
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

}  // namespace

struct IrdetoEncryptionProvider::Header {
    ::_irdeto__LiveDrmServiceHeader block;
    ::SOAP_ENV__Header envelope;
    std::string accountId, contentId, userName, password;
    ~Header() { cleanse(password); }
};

const char* irdetoProtectionSystemText(IrdetoProtectionSystem system) {
    switch (system) {
    case IrdetoProtectionSystem::PlayReady: return "PlayReady";
    case IrdetoProtectionSystem::Widevine: return "Widevine";
    case IrdetoProtectionSystem::Marlin: return "Marlin";
    case IrdetoProtectionSystem::ActiveCloakPr: return "ActiveCloakPR";
    case IrdetoProtectionSystem::HlsPantos: return "HlsPantos";
    case IrdetoProtectionSystem::Ske: return "SKE";
    case IrdetoProtectionSystem::Ca: return "CA";
    case IrdetoProtectionSystem::ClearKey: return "ClearKey";
    case IrdetoProtectionSystem::HlsChinaDrm: return "HLSChinaDRM";
    case IrdetoProtectionSystem::IrdetoProtection: return "IrdetoProtection";
    case IrdetoProtectionSystem::PrimeTime: return "PrimeTime";
    case IrdetoProtectionSystem::FairPlayStreaming: return "Streaming";
    }
    return "";
}

std::vector<std::string> irdetoProtectionSystems(const encryption::IrdetoGenerateKeysSettings& s) {
    using P = IrdetoProtectionSystem;
    const std::pair<P, bool> flags[] = {
        {P::PlayReady, s.playReady},   {P::Widevine, s.widevine},     {P::Marlin, s.marlin},
        {P::ActiveCloakPr, s.activeCloakPr}, {P::HlsPantos, s.hlsPantos}, {P::Ske, s.ske},
        {P::Ca, s.ca},                 {P::ClearKey, s.clearKey},     {P::HlsChinaDrm, s.hlsChinaDrm},
        {P::IrdetoProtection, s.irdetoProtection}, {P::PrimeTime, s.primeTime},
        {P::FairPlayStreaming, s.fairPlayStreaming}};
    std::vector<std::string> texts;
    for (const auto& [system, set] : flags)
        if (set) texts.emplace_back(irdetoProtectionSystemText(system));
    return texts;
}

bool parseIrdetoKeys(const std::string& xml, std::vector<IrdetoKeyEntry>& entries) {
    entries.clear();
    tinyxml2::XMLDocument document;
    if (document.Parse(xml.data(), xml.size()) != tinyxml2::XML_SUCCESS) return false;
    const tinyxml2::XMLElement* keys = document.RootElement();
    if (keys == nullptr || localName(keys->Name()) != "Keys") return false;
    for (const tinyxml2::XMLElement* key = keys->FirstChildElement(); key != nullptr;
         key = key->NextSiblingElement()) {
        if (localName(key->Name()) != "Key") continue;
        IrdetoKeyEntry e;
        e.version = fieldOf(*key, "Version");
        e.accountId = fieldOf(*key, "AccountId");
        e.contentId = fieldOf(*key, "ContentId");
        e.keyId = fieldOf(*key, "KeyId");
        e.contentKey = fieldOf(*key, "ContentKey");
        e.iv = fieldOf(*key, "IV");
        e.systemId = fieldOf(*key, "SystemId");
        e.playReadyKeySeed = fieldOf(*key, "PlayReadyKeySeed");
        e.playReadyLicenseUrl = fieldOf(*key, "PlayReadyLicenseURL");
        e.pssh = fieldOf(*key, "PSSH");
        e.contentProtectionElement = fieldOf(*key, "ContentProtectionElement");
        e.hlsMethod = fieldOf(*key, "HLS_METHOD");
        e.hlsUri = fieldOf(*key, "HLS_URI");
        e.hlsKeyFormat = fieldOf(*key, "HLS_KEYFORMAT");
        e.hlsKeyFormatVersions = fieldOf(*key, "HLS_KEYFORMATVERSIONS");
        e.hlsExtXKey = fieldOf(*key, "HLS_EXT-X-KEY");
        e.ekf = fieldOf(*key, "EKF");
        const bool complete = !e.accountId.empty() && !e.contentId.empty() && !e.keyId.empty() &&
                              !e.contentKey.empty() && !e.iv.empty();
        entries.push_back(std::move(e));
        if (!complete) {
            for (IrdetoKeyEntry& entry : entries) cleanse(entry.contentKey), cleanse(entry.playReadyKeySeed);
            return false;
        }
    }
    return true;
}

IrdetoEncryptionProvider::IrdetoEncryptionProvider(encryption::IrdetoConfiguration configuration,
                                                   encryption::TransportSecurity transportSecurity,
                                                   tvrn::log::ILogger& logger, IrdetoOptions options)
    : m_configuration(std::move(configuration)),
      m_transportSecurity(std::move(transportSecurity)),
      m_logger(logger),
      m_options(std::move(options)),
      m_dumper(&logger, "Irdeto SOAP", true),
      m_header(std::make_unique<Header>()),
      m_cryptoPeriod(m_options.firstCryptoPeriod.value_or(
          std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
              .count())) {
    m_logger.WriteMsg(LOG_INFO, "Irdeto GenerateKeys Encryption: Use '%s' as key session url.",
                      m_configuration.serverUrl.c_str());
    Header& h = *m_header;
    h.accountId = m_configuration.accountId;
    h.contentId = m_configuration.contentId;
    h.userName = m_configuration.userName;
    h.password = m_configuration.password;
    h.block.AccountId = &h.accountId;
    h.block.ContentId = &h.contentId;
    h.block.UserName = &h.userName;
    h.block.Password = &h.password;
    h.envelope.irdeto__LiveDrmServiceHeader = &h.block;
}

IrdetoEncryptionProvider::~IrdetoEncryptionProvider() {
    cleanse(m_contentKey);
    cleanse(m_configuration.password);
}

bool IrdetoEncryptionProvider::isKeyRotationEnabled() const {
    const auto* keys = std::get_if<encryption::IrdetoGenerateKeysSettings>(&m_configuration.variant);
    return keys != nullptr && keys->keyChangePeriod > 0;
}

bool IrdetoEncryptionProvider::ensureClient(std::string& text) {
    if (m_client) return true;
    auto client = std::make_unique<Service>();
    try {
        openSoapService(client.get(), m_configuration.serverUrl, m_transportSecurity, m_options.soapTimeout, &m_dumper);
    } catch (const KmsException& e) {
        text = e.what();
        return false;
    }
    m_client = std::move(client);
    return true;
}

void IrdetoEncryptionProvider::setHeader() { m_client->context()->header = &m_header->envelope; }

std::string IrdetoEncryptionProvider::faultText(int code) {
    const char* fault = ::soap_fault_string(m_client->context());
    if (fault != nullptr && *fault != '\0') return fault;
    return format("request failed %lld", code);
}

bool IrdetoEncryptionProvider::createLiveEvent(std::string& text) {
    if (!ensureClient(text)) return false;
    const encryption::IrdetoConfiguration& c = m_configuration;
    std::string account = c.accountId, content = c.contentId, name = c.eventName, description = c.description,
                url = c.url, subContentType = c.subContentType, encryptionType = c.encryptionType;
    ir::_irdeto__CreateLiveEvent request;
    request.sAccountID = &account;
    request.sContentId = &content;
    request.sName = &name;
    request.sDescription = &description;
    request.sUrl = &url;
    request.sSubContentType = &subContentType;
    request.nPolicyGroupId = c.policyGroupId;
    request.sEncryptionType = &encryptionType;
    ir::_irdeto__CreateLiveEventResponse response;
    const int code = m_client->call([&](ir::LiveDrmServicesSoap12Proxy& proxy) {
        setHeader();
        return proxy.CreateLiveEvent(&request, response);
    });
    m_client->context()->header = nullptr;
    if (code == SOAP_OK) return true;
    text = faultText(code);
    return false;
}

bool IrdetoEncryptionProvider::generateKeys(std::int64_t period, std::string& text) {
    text.clear();
    const auto* settings = std::get_if<encryption::IrdetoGenerateKeysSettings>(&m_configuration.variant);
    if (settings == nullptr || !ensureClient(text)) return false;
    std::string account = m_configuration.accountId, content = m_configuration.contentId;
    std::string periodText = format("%lld", static_cast<long long>(period));
    ir::irdeto__ArrayOfString systems;
    systems.string = irdetoProtectionSystems(*settings);
    ir::irdeto__ArrayOfString trackTypes;
    trackTypes.string = m_options.trackTypes;
    ir::_irdeto__GenerateKeys request;
    request.accountId = &account;
    request.contentId = &content;
    request.protectionSystem = &systems;
    request.trackTypes = &trackTypes;
    request.cryptoPeriod = &periodText;
    ir::_irdeto__GenerateKeysResponse response;
    const int code = m_client->call([&](ir::LiveDrmServicesSoap12Proxy& proxy) {
        setHeader();
        return proxy.GenerateKeys(&request, response);
    });
    m_client->context()->header = nullptr;
    if (code != SOAP_OK) {
        text = faultText(code);
        return false;
    }

    std::vector<IrdetoKeyEntry> entries;
    const bool parsed = response.GenerateKeysResult != nullptr && parseIrdetoKeys(*response.GenerateKeysResult, entries);
    if (response.GenerateKeysResult != nullptr) cleanse(*response.GenerateKeysResult);
    struct Wipe {
        std::vector<IrdetoKeyEntry>& entries;
        ~Wipe() {
            for (IrdetoKeyEntry& e : entries) cleanse(e.contentKey), cleanse(e.playReadyKeySeed);
        }
    } wipe{entries};
    if (!parsed) {
        text = "Invalid Xml response";
        return false;
    }
    if (entries.size() != systems.string.size()) return false;
    if (entries.empty()) {
        text = "GenerateKeys returned empty key";
        return false;
    }

    std::vector<std::uint8_t> key, iv, keyId;
    std::map<std::string, SystemData> newSystems;
    bool first = true;
    struct WipeKey {
        std::vector<std::uint8_t>& key;
        ~WipeKey() { cleanse(key); }
    } wipeKey{key};
    for (const IrdetoKeyEntry& e : entries) {
        if (e.systemId.empty()) continue;
        std::vector<std::uint8_t> entryKey = encryption::base64Decode(e.contentKey);
        WipeKey wipeEntry{entryKey};
        const std::vector<std::uint8_t> entryIv = encryption::base64Decode(e.iv);
        std::vector<std::uint8_t> entryKeyId;
        try {
            const encryption::KeyId guid = encryption::parseGuidText(e.keyId);
            entryKeyId.assign(guid.begin(), guid.end());
        } catch (const std::exception&) {
        }
        if (first) {
            if (entryKey.size() != kBlockSize) {
                text = format("GenerateKeys returned invalid %lld bits key (128 bits is expected)",
                              static_cast<long long>(entryKey.size() * 8));
                return false;
            }
            if (entryIv.size() != kBlockSize) {
                text = format("GenerateKeys returned invalid %lld bits init. vector (128 bits  is expected)",
                              static_cast<long long>(entryIv.size() * 8));
                return false;
            }
            if (entryKeyId.size() != kBlockSize) {
                text = format("GenerateKeys returned invalid %lld bits key id (128 bits is expected)",
                              keyIdBits(e.keyId));
                return false;
            }
            key = entryKey;
            iv = entryIv;
            keyId = entryKeyId;
            first = false;
        } else if (entryKey != key || entryIv != iv || entryKeyId != keyId) {
            text = "GenerateKeys invalid response:  Key, KeyId and Init. Vector must be the same accross protection "
                   "systems";
            return false;
        }
        // A system id that is not UUID text could not be signalled.
        try {
            (void)encryption::parseUuidFields(e.systemId);
        } catch (const std::exception&) {
            text = "GenerateKeys returned unexpected system id";
            return false;
        }
        newSystems[e.systemId] = {e.contentProtectionElement, encryption::base64Decode(e.pssh)};
    }
    if (first) {  // no entry named its system: no key either
        text = "GenerateKeys returned empty key";
        return false;
    }
    std::set<std::string> ids;
    for (const auto& [id, data] : newSystems) ids.insert(id);
    if (!m_knownSystemIds.empty() && ids != m_knownSystemIds) {
        text = "GenerateKeys returned unexpected system id";
        return false;
    }
    if (m_knownSystemIds.empty()) m_knownSystemIds = ids;
    cleanse(m_contentKey);
    m_contentKey = key;
    m_initialisationVector = std::move(iv);
    m_keyId = std::move(keyId);
    m_systems = std::move(newSystems);
    text = "Key updated kid = " + uuidText(m_keyId);
    return true;
}

bool IrdetoEncryptionProvider::connect() {
    if (m_configuration.serverUrl.empty()) return false;
    if (std::holds_alternative<encryption::IrdetoPlayReadyScalableLicense>(m_configuration.variant)) {
        m_logger.WriteMsg(LOG_INFO, "Irdeto PlayReady Scalable Licences is not implemented.");
        return false;
    }
    std::string text;
    if (!m_configuration.eventName.empty() && !createLiveEvent(text)) {
        m_logger.WriteMsg(LOG_INFO, "Irdeto Create Live Event Failed: '%s'", text.c_str());
        return false;
    }
    if (!generateKeys(m_cryptoPeriod, text)) {
        m_logger.WriteMsg(LOG_INFO, "Irdeto GenerateKeys failed: '%s'", text.c_str());
        return false;
    }
    return true;
}

KeyUpdateResult IrdetoEncryptionProvider::updateKey(std::uint64_t time) {
    const auto* settings = std::get_if<encryption::IrdetoGenerateKeysSettings>(&m_configuration.variant);
    if (settings == nullptr) return KeyUpdateResult::Unchanged;
    const std::uint64_t now = time / 10'000;
    const auto ms = [](std::int32_t seconds) { return seconds > 0 ? static_cast<std::uint64_t>(seconds) * 1000 : 0; };
    const std::uint64_t request = ms(settings->keyRequestPeriod);
    const std::uint64_t change = ms(settings->keyChangePeriod);
    if (!m_lastRequestTimeMs) m_lastRequestTimeMs = now;
    if (!m_lastChangeTimeMs) m_lastChangeTimeMs = now;
    bool need = request != 0 && *m_lastRequestTimeMs + request < now;
    if (change != 0 && now > *m_lastChangeTimeMs + change) {
        ++m_cryptoPeriod;
        m_lastChangeTimeMs = now;
        need = true;
    }
    if (!need) return KeyUpdateResult::Unchanged;
    std::string text;
    if (!generateKeys(m_cryptoPeriod, text)) {
        m_logger.WriteMsg(LOG_ERROR, "Irdeto update key failed: \"%s\"", text.c_str());
        return KeyUpdateResult::Failed;
    }
    m_lastRequestTimeMs = now;
    m_logger.WriteMsg(LOG_INFO, "Irdeto encryption : generate key request succeeded (crypto period = %lld)",
                      static_cast<long long>(m_cryptoPeriod));
    return KeyUpdateResult::Updated;
}

bool IrdetoEncryptionProvider::getKeyId(encryption::KeyId& keyId) {
    if (m_keyId.size() != keyId.size()) return false;
    std::copy(m_keyId.begin(), m_keyId.end(), keyId.begin());
    return true;
}

bool IrdetoEncryptionProvider::getContentKey(encryption::ContentKey& key) {
    if (m_contentKey.size() != key.size()) return false;
    std::copy(m_contentKey.begin(), m_contentKey.end(), key.begin());
    return true;
}

void IrdetoEncryptionProvider::getInitialisationVector(std::vector<std::uint8_t>& iv) { iv = m_initialisationVector; }

void IrdetoEncryptionProvider::getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) {
    for (const auto& [id, data] : m_systems) {
        const imff::imff_box::Uuid systemId = imff::imff_box::keyIdToUuid(encryption::parseUuidFields(id));
        boxes.push_back(encryption::makeProtectionBox(systemId, data.pssh, cencForm));
    }
}

void IrdetoEncryptionProvider::getContentProtectionText(std::string& text, bool dashForm) {
    text.clear();
    if (dashForm)
        text = "<!-- Common Encryption -->\n"
               "<ContentProtection schemeIdUri=\"urn:mpeg:dash:mp4protection:2011\" value=\"cenc\" />\n";
    for (const auto& [id, data] : m_systems) {
        if (!data.contentProtectionElement.empty())
            text += data.contentProtectionElement;
        else if (dashForm)
            text += "<ContentProtection schemeIdUri=\"urn:uuid:" + id + "\"/>";
        else
            text += "<ProtectionHeader SystemID=\"" + id + "\"/>";
        text += "\n";
    }
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
