#include "packaging/encryption/multi_drm_provider.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <span>
#include <utility>

#include "packaging/encryption/manual_playready_provider.h"
#include "packaging/encryption/protection_signalling.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

namespace {

void cleanse(std::string& secret) { OPENSSL_cleanse(secret.data(), secret.size()); }

// UUID text in canonical (writing) order.
imff::imff_box::Uuid parseCanonical(const std::string& text) {
    return imff::imff_box::keyIdToUuid(parseGuidText(text));
}

}  // namespace

MultiDrmEncryptionProvider::MultiDrmEncryptionProvider(MultiDrmConfiguration configuration)
    : m_configuration(std::move(configuration)) {}

MultiDrmEncryptionProvider::~MultiDrmEncryptionProvider() {
    cleanse(m_configuration.keySeed);
    cleanse(m_configuration.contentKey);
    if (m_contentKey) OPENSSL_cleanse(m_contentKey->data(), m_contentKey->size());
}

bool MultiDrmEncryptionProvider::connect() {
    const KeyId keyId = parseGuidText(m_configuration.keyId);
    std::vector<std::uint8_t> key;
    if (!m_configuration.contentKey.empty()) {
        key = base64Decode(m_configuration.contentKey);
    } else {
        std::vector<std::uint8_t> seed = base64Decode(m_configuration.keySeed);
        if (!seed.empty()) {
            ContentKey derived = derivePlayReadyContentKey(seed, keyId);
            key.assign(derived.begin(), derived.end());
            OPENSSL_cleanse(derived.data(), derived.size());
        }
        OPENSSL_cleanse(seed.data(), seed.size());
    }
    m_keyId = keyId;
    if (key.size() == 16) {
        m_contentKey.emplace();
        std::copy(key.begin(), key.end(), m_contentKey->begin());
    }
    OPENSSL_cleanse(key.data(), key.size());
    return m_contentKey.has_value();
}

std::vector<std::uint8_t> MultiDrmEncryptionProvider::playReadyObject() const {
    // Before connect there is no key: the checksum then refuses to be made.
    using Bytes = std::span<const std::uint8_t>;
    const Bytes keyId = m_keyId ? Bytes(*m_keyId) : Bytes();
    const Bytes key = m_contentKey ? Bytes(*m_contentKey) : Bytes();
    return makePlayReadyObject(m_configuration.laUrl, keyId, key, std::string(), {});
}

void MultiDrmEncryptionProvider::getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) {
    const MultiDrmConfiguration& c = m_configuration;
    if (c.verimatrixEnabled) {
        boxes.push_back(makeProtectionBox(getProtectionSystemId(ProtectionSystem::Verimatrix),
                                          makeVerimatrixPsshData(c.verimatrixData), cencForm));
    }
    if (c.playReadyEnabled) {
        boxes.push_back(makeProtectionBox(getProtectionSystemId(ProtectionSystem::PlayReady), playReadyObject(),
                                          cencForm));
    }
    if (c.widevineEnabled) {
        // Widevine's key id and content id are the UUIDs' bytes in writing order, the key id as tenc shows it.
        const imff::imff_box::Uuid keyId = imff::imff_box::keyIdToUuid(m_keyId.value_or(KeyId{}));
        std::vector<std::uint8_t> contentId;
        if (!c.widevineContentId.empty()) {
            const imff::imff_box::Uuid parsed = parseCanonical(c.widevineContentId);
            contentId.assign(parsed.begin(), parsed.end());
        }
        boxes.push_back(makeProtectionBox(getProtectionSystemId(ProtectionSystem::Widevine),
                                          makeWidevinePsshData(keyId, c.widevineProvider, contentId), cencForm));
    }
    if (c.customEnabled) {
        auto box = makeProtectionBox(parseCanonical(c.customSystemId), base64Decode(c.customPsshData), cencForm);
        if (c.customPsshListsKeyId && cencForm && m_keyId) box->listKeyIds({*m_keyId});
        boxes.push_back(std::move(box));
    }
}

void MultiDrmEncryptionProvider::getContentProtectionText(std::string& text, bool dashForm) {
    (void)dashForm;
    const MultiDrmConfiguration& c = m_configuration;
    std::string part;
    makeCommonEncryptionElement(text, c.keyId);
    text += '\n';
    if (c.verimatrixEnabled) {
        makeVerimatrixElement(part);
        text += part + '\n';
    }
    if (c.playReadyEnabled) {
        makePlayReadyElement(part, playReadyObject());
        text += part + '\n';
    }
    if (c.widevineEnabled) {
        makeWidevineElement(part, std::string());
        text += part + '\n';
    }
    if (c.marlinEnabled) {
        makeMarlinElement(part, m_keyId);
        text += part + '\n';
    }
    if (c.customEnabled) {
        text += c.customElement.empty() ? "<ContentProtection schemeIdUri=\"urn:uuid:" + c.customSystemId + "\"/>\n"
                                        : c.customElement;
        text += '\n';
    }
}

bool MultiDrmEncryptionProvider::getKeyId(KeyId& keyId) {
    if (!m_keyId) return false;
    keyId = *m_keyId;
    return true;
}

bool MultiDrmEncryptionProvider::getContentKey(ContentKey& key) {
    if (!m_contentKey) return false;
    key = *m_contentKey;
    return true;
}

void MultiDrmEncryptionProvider::getInitialisationVector(std::vector<std::uint8_t>& iv) { iv.assign(8, 0); }

bool MultiDrmEncryptionProvider::acceptsSample(const void*, const void*, const void*) { return true; }

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
