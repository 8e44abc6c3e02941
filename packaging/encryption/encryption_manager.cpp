#include "packaging/encryption/encryption_manager.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include <cstdio>
#include <exception>
#include <stdexcept>
#include <utility>

#include "packaging/encryption/manual_playready_provider.h"
#include "packaging/encryption/multi_drm_provider.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

namespace {

constexpr const char* kNoProvider = "No Encryption Provider Specified";

EncryptionManager::Exception primitiveFailure(int code, const char* mode = "CTR") {
    char text[64];
    std::snprintf(text, sizeof text, "Rijndael 128 %s encrypt : failed (error %d)", mode, code);
    return EncryptionManager::Exception(text);
}

void drawIv(std::array<std::uint8_t, 16>& iv) {
    if (RAND_bytes(iv.data(), static_cast<int>(iv.size())) != 1)
        throw EncryptionManager::Exception("Initialisation vector : random generation failed");
}

}  // namespace

EncryptionManager::EncryptionManager(std::unique_ptr<IEncryptionProvider> provider, IEncryptionListener* listener)
    : m_listener(listener), m_provider(std::move(provider)) {}

EncryptionManager::~EncryptionManager() = default;

bool EncryptionManager::connect() {
    if (!m_provider) return false;
    try {
        return m_provider->connect();
    } catch (const std::exception& e) {
        throw Exception(e.what());
    }
}

void EncryptionManager::disconnect() {
    if (m_provider) m_provider->disconnect();
}

bool EncryptionManager::updateKey(std::uint64_t time, std::vector<std::uint8_t>& iv) {
    if (!m_provider) throw Exception(kNoProvider);
    iv.clear();
    KeyUpdateResult result;
    try {
        result = m_provider->updateKey(time);
    } catch (const std::exception& e) {
        if (m_listener) m_listener->OnKeyServerStatus(false);
        throw Exception(e.what());
    }
    if (m_listener && result != KeyUpdateResult::Unchanged) {
        m_listener->OnKeyServerStatus(result == KeyUpdateResult::Updated);
    }
    // The schedule follows the key id alone, whatever the answer: a key taken in at connect time is installed at
    // the first segment, and a new key under the same id is not taken.
    KeyId keyId{};
    if (m_provider->getKeyId(keyId) && keyId != m_currentKeyId) {
        ContentKey key{};
        if (!m_provider->getContentKey(key)) {
            if (m_listener) m_listener->OnKeyServerStatus(false);
            throw Exception("invalid content key");
        }
        int failure = m_keySchedule.setKey(key);
        if (failure == 0 && m_scheme == EncryptionScheme::Cbcs) failure = m_cbcKeySchedule.setKey(key);
        OPENSSL_cleanse(key.data(), key.size());
        if (failure != 0) throw primitiveFailure(failure);
        // A new key gets a new IV; the first one keeps the IV drawn with the scheme, which the init segment holds.
        if (m_keyInstalled && m_drawsConstantIv) drawIv(m_constantIv);
        m_keyInstalled = true;
        m_currentKeyId = keyId;
    }
    if (result != KeyUpdateResult::Updated) return false;
    m_provider->getInitialisationVector(iv);
    return true;
}

bool EncryptionManager::hasKey() const {
    KeyId keyId{};
    return m_provider && m_provider->getKeyId(keyId);
}

bool EncryptionManager::getKeyId(KeyId& keyId) const { return m_provider && m_provider->getKeyId(keyId); }

bool EncryptionManager::overridesTrackEncryption() const {
    return m_provider && m_provider->overridesTrackEncryption();
}

bool EncryptionManager::fillInitialisationVector(std::vector<std::uint8_t>& iv) const {
    if (!m_provider) return false;
    m_provider->getInitialisationVector(iv);
    return iv.size() == 8 || iv.size() == 16;
}

std::size_t EncryptionManager::getInitialisationVectorSize() const {
    if (!m_provider) return 0;
    std::vector<std::uint8_t> iv;
    m_provider->getInitialisationVector(iv);
    return iv.size();
}

void EncryptionManager::getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) const {
    if (!m_provider) throw Exception(kNoProvider);
    m_provider->getProtectionBoxes(boxes, cencForm);
}

void EncryptionManager::getContentProtectionText(std::string& text, bool dashForm) const {
    if (!m_provider) throw Exception(kNoProvider);
    m_provider->getContentProtectionText(text, dashForm);
}

void EncryptionManager::encryptCtr(const std::uint8_t* source, std::uint8_t* destination, std::int64_t length,
                                   std::span<std::uint8_t> counter) {
    if (!m_provider) throw Exception(kNoProvider);
    if (counter.size() != 16) throw Exception("Initialisation vector : invalid length");
    if (length == 0) return;
    const int failure = m_keySchedule.encrypt(source, destination, length, counter.first<16>());
    if (failure != 0) throw primitiveFailure(failure);
}

void EncryptionManager::setScheme(const SchemeSettings& settings) {
    m_scheme = settings.scheme;
    m_drawsConstantIv = m_scheme == EncryptionScheme::Cbcs && !settings.constantIv;
    m_constantIv = {};
    if (m_scheme != EncryptionScheme::Cbcs) return;
    if (settings.constantIv)
        m_constantIv = *settings.constantIv;
    else
        drawIv(m_constantIv);
}

void EncryptionManager::encryptCbc(std::uint8_t* data, std::size_t length, std::uint8_t crypt, std::uint8_t skip) {
    if (!m_provider) throw Exception(kNoProvider);
    if (length < 16) return;
    const int failure = m_cbcKeySchedule.encrypt(data, length, crypt, skip, m_constantIv);
    if (failure != 0) throw primitiveFailure(failure, "CBC");
}

void buildEncryptionManager(std::unique_ptr<EncryptionManager>& manager, const EncryptionConfiguration& configuration,
                            const TransportSecurity& transportSecurity, tvrn::log::ILogger& logger,
                            IEncryptionListener* listener) {
    // Each provider takes its record, and those of key servers their own copy of the transport security and the
    // logger. The providers without a server (Manual PlayReady, Multi-DRM) are here; none of the key server clients
    // is in this library yet: their modes are read for consistency, get no provider and are reported like the modes
    // that have none at all, so the filter keeps waiting for a key server. Secrets reach the log masked or not at
    // all.
    (void)transportSecurity;
    manager.reset();
    std::unique_ptr<IEncryptionProvider> provider;
    const char* notImplemented = nullptr;
    switch (configuration.mode()) {
    case EncryptionMode::None: break;
    case EncryptionMode::Manual: notImplemented = "Manual"; break;
    case EncryptionMode::AutoGen: notImplemented = "AutoGen"; break;
    case EncryptionMode::ManualPlayReady: {
        const ManualPlayReadyConfiguration& record = configuration.record<ManualPlayReadyConfiguration>();
        logger.WriteMsg(tvrn::log::LOG_INFO,
                        "Manual PlayReady encryption parameters: Key Id = '%s' : KeySeed = '%s' : LaUrl = '%s'",
                        record.keyId.c_str(), maskSecret(record.keySeed).c_str(), record.laUrl.c_str());
        provider = buildManualPlayReadyProvider(record);
        break;
    }
    case EncryptionMode::BuyDrm:
        (void)configuration.record<BuyDrmConfiguration>();
        notImplemented = "BuyDRM";
        break;
    case EncryptionMode::HarmonicKms:
        (void)configuration.record<HarmonicConfiguration>();
        notImplemented = "Harmonic KMS";
        break;
    case EncryptionMode::Verimatrix:
        (void)configuration.record<VerimatrixConfiguration>();
        notImplemented = "Verimatrix";
        break;
    case EncryptionMode::SecureMedia:
        (void)configuration.record<SecureMediaConfiguration>();
        notImplemented = "SecureMedia";
        break;
    case EncryptionMode::InsideSecure:
        (void)configuration.record<InsideSecureConfiguration>();
        notImplemented = "Inside Secure";
        break;
    case EncryptionMode::Widevine:
        (void)configuration.record<WidevineConfiguration>();
        notImplemented = "Widevine";
        break;
    case EncryptionMode::MultiDrm: {
        const MultiDrmConfiguration& record = configuration.record<MultiDrmConfiguration>();
        logger.WriteMsg(tvrn::log::LOG_INFO, "Multi-Drm encryption parameters: Key Id = '%s'", record.keyId.c_str());
        provider = std::make_unique<MultiDrmEncryptionProvider>(record);
        break;
    }
    case EncryptionMode::Irdeto: {
        const IrdetoConfiguration& irdeto = configuration.record<IrdetoConfiguration>();
        if (irdeto.variant.valueless_by_exception()) throw std::logic_error("internal assertion failure");
        notImplemented = std::holds_alternative<IrdetoPlayReadyScalableLicense>(irdeto.variant)
                             ? "Irdeto PlayReady Scalable License"
                             : "Irdeto";
        break;
    }
    default: throw std::logic_error("internal assertion failure");
    }
    if (notImplemented != nullptr) {
        logger.WriteMsg(tvrn::log::LOG_WARNING, "Encryption Mode \"%s\" is not yet implemented", notImplemented);
    }
    manager = std::make_unique<EncryptionManager>(std::move(provider), listener);
    manager->setScheme(configuration.scheme());
}

std::string maskSecret(const std::string& text) {
    const std::size_t k = text.size() < 7 ? 1 : 3;
    std::string masked = text;
    for (std::size_t i = k + 1; i + k < masked.size(); ++i) masked[i] = '*';
    return masked;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
