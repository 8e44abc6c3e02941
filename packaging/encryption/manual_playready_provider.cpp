#include "packaging/encryption/manual_playready_provider.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <utility>

#include "packaging/encryption/encryption_manager.h"
#include "packaging/encryption/protection_signalling.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

namespace {

constexpr std::size_t kSeedSize = 30;
using Digest = std::array<std::uint8_t, 32>;

// SHA-256 of the parts one after the other.
bool sha256(std::initializer_list<std::span<const std::uint8_t>> parts, Digest& digest) {
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    bool ok = context != nullptr && EVP_DigestInit_ex(context, EVP_sha256(), nullptr) == 1;
    for (const auto& part : parts) ok = ok && EVP_DigestUpdate(context, part.data(), part.size()) == 1;
    unsigned int size = 0;
    ok = ok && EVP_DigestFinal_ex(context, digest.data(), &size) == 1 && size == digest.size();
    EVP_MD_CTX_free(context);
    return ok;
}

KeyId parseOrThrow(const std::string& text, const char* failure) {
    try {
        return parseGuidText(text);
    } catch (const IEncryptionProvider::Exception&) {
        throw EncryptionManager::Exception(failure);
    }
}

}  // namespace

ContentKey derivePlayReadyContentKey(std::span<const std::uint8_t> seed, const KeyId& keyId) {
    std::array<std::uint8_t, kSeedSize> s{};
    std::copy_n(seed.begin(), std::min(seed.size(), kSeedSize), s.begin());
    Digest a{}, b{}, c{};
    const bool ok = sha256({s, keyId}, a) && sha256({s, keyId, s}, b) && sha256({s, keyId, s, keyId}, c);
    ContentKey key{};
    for (std::size_t i = 0; ok && i < key.size(); ++i) {
        key[i] = static_cast<std::uint8_t>(a[i] ^ a[i + 16] ^ b[i] ^ b[i + 16] ^ c[i] ^ c[i + 16]);
    }
    for (auto* secret : {a.data(), b.data(), c.data()}) OPENSSL_cleanse(secret, sizeof(Digest));
    OPENSSL_cleanse(s.data(), s.size());
    if (!ok) throw IEncryptionProvider::Exception("SHA 256 Update : failed");
    return key;
}

ManualPlayReadyEncryptionProvider::ManualPlayReadyEncryptionProvider(std::string laUrl, std::string luiUrl,
                                                                     std::vector<std::uint8_t> keyId,
                                                                     std::vector<std::uint8_t> contentKey,
                                                                     std::vector<std::uint8_t> domainServiceId)
    : m_laUrl(std::move(laUrl)), m_luiUrl(std::move(luiUrl)),
      m_systemId(getProtectionSystemId(ProtectionSystem::PlayReady)), m_keyId(std::move(keyId)),
      m_contentKey(std::move(contentKey)), m_domainServiceId(std::move(domainServiceId)) {}

ManualPlayReadyEncryptionProvider::~ManualPlayReadyEncryptionProvider() {
    OPENSSL_cleanse(m_contentKey.data(), m_contentKey.size());
}

std::vector<std::uint8_t> ManualPlayReadyEncryptionProvider::playReadyObject() const {
    return makePlayReadyObject(m_laUrl, m_keyId, m_contentKey, m_luiUrl, m_domainServiceId);
}

void ManualPlayReadyEncryptionProvider::getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) {
    boxes.push_back(makeProtectionBox(m_systemId, playReadyObject(), cencForm));
}

void ManualPlayReadyEncryptionProvider::getContentProtectionText(std::string& text, bool dashForm) {
    makePlayReadySignalling(text, playReadyObject(), dashForm);
}

bool ManualPlayReadyEncryptionProvider::getKeyId(KeyId& keyId) {
    if (m_keyId.size() != keyId.size()) return false;
    std::copy(m_keyId.begin(), m_keyId.end(), keyId.begin());
    return true;
}

bool ManualPlayReadyEncryptionProvider::getContentKey(ContentKey& key) {
    if (m_contentKey.size() != key.size()) return false;
    std::copy(m_contentKey.begin(), m_contentKey.end(), key.begin());
    return true;
}

void ManualPlayReadyEncryptionProvider::getInitialisationVector(std::vector<std::uint8_t>& iv) { iv.assign(8, 0); }

bool ManualPlayReadyEncryptionProvider::acceptsSample(const void*, const void*, const void*) { return true; }

std::unique_ptr<ManualPlayReadyEncryptionProvider> buildManualPlayReadyProvider(
    const ManualPlayReadyConfiguration& configuration) {
    std::vector<std::uint8_t> seed = base64Decode(configuration.keySeed);
    std::vector<std::uint8_t> contentKey = base64Decode(configuration.contentKey);
    const auto cleanse = [&] {
        OPENSSL_cleanse(seed.data(), seed.size());
        OPENSSL_cleanse(contentKey.data(), contentKey.size());
    };
    try {
        const KeyId keyId = parseOrThrow(configuration.keyId, "Invalid Key Id");
        std::vector<std::uint8_t> domainServiceId;
        if (!configuration.domainServiceId.empty()) {
            const KeyId parsed = parseOrThrow(configuration.domainServiceId, "Invalid Domain Service Id");
            domainServiceId.assign(parsed.begin(), parsed.end());
        }
        if (contentKey.empty()) {
            if (seed.empty()) throw IEncryptionProvider::Exception("Either a content key or a key seed is required.");
            ContentKey derived = derivePlayReadyContentKey(seed, keyId);
            contentKey.assign(derived.begin(), derived.end());
            OPENSSL_cleanse(derived.data(), derived.size());
        }
        auto provider = std::make_unique<ManualPlayReadyEncryptionProvider>(
            configuration.laUrl, configuration.luiUrl, std::vector<std::uint8_t>(keyId.begin(), keyId.end()),
            contentKey, std::move(domainServiceId));
        cleanse();
        return provider;
    } catch (...) {
        cleanse();
        throw;
    }
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
