#include "packaging/kms_clients/widevine_provider.h"

#include <json/json.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include <memory>
#include <sstream>
#include <utility>

#include "packaging/encryption/protection_signalling.h"
#include "packaging/imff_box/protection_boxes.h"
#include "packaging/kms_clients/kms_exception.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

namespace enc = encryption;
using enc::KeyUpdateResult;
using tvrn::log::LOG_ERROR;

namespace {

constexpr std::uint64_t kTicksPerSecond = 10'000'000;  // 100 ns units

std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::string base64Of(const std::string& text) {
    return enc::base64Encode({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

// SHA-1 of the text, PKCS#7-padded to 32 bytes, through AES-CBC under the operator's key and IV.
std::string sign(const std::string& text, const enc::WidevineSigningKey& signing) {
    std::vector<std::uint8_t> key = enc::base64Decode(signing.signingKey);
    const std::vector<std::uint8_t> iv = enc::base64Decode(signing.signingIv);
    const EVP_CIPHER* cipher = key.size() == 16 ? EVP_aes_128_cbc() : key.size() == 24 ? EVP_aes_192_cbc()
                             : key.size() == 32 ? EVP_aes_256_cbc() : nullptr;
    if (cipher == nullptr || iv.size() != 16) {
        OPENSSL_cleanse(key.data(), key.size());
        throw KmsException("Rijndael 256 CBC encrypt : invalid parameters");
    }
    std::uint8_t block[32];
    SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), block);
    std::fill(block + SHA_DIGEST_LENGTH, block + sizeof block, std::uint8_t{32 - SHA_DIGEST_LENGTH});
    std::uint8_t out[32 + 16];
    int length = 0;
    int status = 0;
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    if (!context) status = -1;
    // Padding off: the block is padded already and must come out as 32 bytes.
    if (status == 0 && (EVP_EncryptInit_ex(context.get(), cipher, nullptr, key.data(), iv.data()) != 1 ||
                        EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1 ||
                        EVP_EncryptUpdate(context.get(), out, &length, block, sizeof block) != 1 || length != 32))
        status = -2;
    OPENSSL_cleanse(key.data(), key.size());
    if (status != 0) {
        std::ostringstream message;
        message << "AES CBC encryption failed with status " << status;
        throw KmsException(message.str());
    }
    return enc::base64Encode({out, 32});
}

Json::Value parse(const std::string& text) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    Json::Value value;
    std::string errors;
    std::istringstream in(text);
    try {
        if (!Json::parseFromStream(builder, in, &value, &errors)) throw KmsException("Invalid response");
    } catch (const Json::Exception&) {
        throw KmsException("Invalid response");  // jsoncpp's own limits, such as nesting too deep
    }
    return value;
}

const Json::Value& member(const Json::Value& object, const char* name) {
    static const Json::Value none;
    return object.isObject() && object.isMember(name) ? object[name] : none;
}

std::vector<std::uint8_t> base64Member(const Json::Value& object, const char* name) {
    const Json::Value& value = member(object, name);
    if (!value.isString()) throw KmsException("Invalid response");
    return enc::base64Decode(value.asString());
}

// The first entry of an array whose `field` is `wanted`, or null.
const Json::Value* entryOfType(const Json::Value& array, const char* field, const char* wanted) {
    if (!array.isArray()) return nullptr;
    for (const Json::Value& entry : array)
        if (member(entry, field).isString() && member(entry, field).asString() == wanted) return &entry;
    return nullptr;
}

}  // namespace

WidevineRequestText makeWidevineRequest(const enc::WidevineConfiguration& configuration) {
    Json::Value inner(Json::objectValue);
    inner["content_id"] = base64Of(configuration.contentId);
    Json::Value track(Json::objectValue);
    track["type"] = "HD";
    inner["tracks"].append(track);
    WidevineRequestText text;
    text.inner = compact(inner);
    Json::Value outer(Json::objectValue);
    outer["request"] = base64Of(text.inner);
    if (const auto* signing = std::get_if<enc::WidevineSigningKey>(&configuration.signing))
        outer["signature"] = sign(text.inner, *signing);
    if (!configuration.signer.empty()) outer["signer"] = configuration.signer;
    text.outer = compact(outer);
    return text;
}

WidevineKey readWidevineResponse(const std::string& body) {
    const Json::Value outer = parse(body);
    const Json::Value& response = member(outer, "response");
    if (!response.isString()) throw KmsException("Invalid response");
    const std::vector<std::uint8_t> decoded = enc::base64Decode(response.asString());
    const Json::Value inner = parse(std::string(decoded.begin(), decoded.end()));
    const Json::Value& status = member(inner, "status");
    if (!status.isString()) throw KmsException("Invalid response");
    if (status.asString() != "OK") throw KmsException("Response status is " + status.asString());
    if (entryOfType(member(inner, "drm"), "type", "WIDEVINE") == nullptr) throw KmsException("Invalid response");
    const Json::Value& tracks = member(inner, "tracks");
    if (!tracks.isArray() || tracks.empty()) throw KmsException("Invalid response");
    const Json::Value& track = tracks[0];
    WidevineKey key;
    key.keyId = base64Member(track, "key_id");
    key.key = base64Member(track, "key");
    const Json::Value* pssh = entryOfType(member(track, "pssh"), "drm_type", "WIDEVINE");
    if (pssh == nullptr) throw KmsException("Invalid response");
    key.psshData = base64Member(*pssh, "data");
    return key;
}

WidevineEncryptionProvider::WidevineEncryptionProvider(enc::WidevineConfiguration configuration,
                                                       enc::TransportSecurity transportSecurity,
                                                       tvrn::log::ILogger& logger, HttpTimeouts timeouts)
    : m_configuration(std::move(configuration)), m_logger(logger), m_client(std::move(transportSecurity), timeouts) {}

WidevineEncryptionProvider::~WidevineEncryptionProvider() { OPENSSL_cleanse(m_key.key.data(), m_key.key.size()); }

void WidevineEncryptionProvider::request() {
    const WidevineRequestText text = makeWidevineRequest(m_configuration);
    std::string body;
    long status = 0;
    try {
        status = m_client.post(m_configuration.serverUrl, {"Content-Type: application/json"}, text.outer, &body);
    } catch (const KmsException& e) {
        throw KmsException(std::string("HTTP POST failed with error \"") + e.what() + "\"");
    }
    if (status != 200 || body.empty())
        throw KmsException("HTTP POST returned code " + std::to_string(status) + " : " +
                           (body.empty() ? std::string("empty response buffer") : body));
    WidevineKey key = readWidevineResponse(body);
    OPENSSL_cleanse(m_key.key.data(), m_key.key.size());
    m_key = std::move(key);
}

bool WidevineEncryptionProvider::connect() {
    try {
        request();
        m_lastKeyTime = 0;
        return true;
    } catch (const std::exception& e) {
        m_logger.WriteMsg(LOG_ERROR, "Widevine Key request failed: '%s'", e.what());
        return false;
    }
}

KeyUpdateResult WidevineEncryptionProvider::updateKey(std::uint64_t time) {
    if (m_lastKeyTime == 0) m_lastKeyTime = time;
    if (m_configuration.keyPeriod <= 0 ||
        (time - m_lastKeyTime) / kTicksPerSecond <= static_cast<std::uint64_t>(m_configuration.keyPeriod))
        return KeyUpdateResult::Unchanged;
    // The index moves on whatever the answer: a failed period is not asked again under its index.
    ++m_cryptoPeriodIndex;
    try {
        request();
    } catch (const KmsException& e) {
        m_logger.WriteMsg(LOG_ERROR, "Encryption exception: %s, fallback on last received key", e.what());
        return KeyUpdateResult::Failed;
    }
    m_lastKeyTime = time;
    return KeyUpdateResult::Updated;
}

void WidevineEncryptionProvider::getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) {
    boxes.push_back(enc::makeProtectionBox(enc::getProtectionSystemId(enc::ProtectionSystem::Widevine), m_key.psshData,
                                           cencForm));
}

void WidevineEncryptionProvider::getContentProtectionText(std::string& text, bool dashForm) {
    (void)dashForm;
    std::string keyIdText;
    static const char* digits = "0123456789abcdef";
    for (std::size_t i = 0; i < m_key.keyId.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) keyIdText += '-';
        keyIdText += digits[m_key.keyId[i] >> 4];
        keyIdText += digits[m_key.keyId[i] & 15];
    }
    enc::makeCommonEncryptionElement(text, keyIdText);
    text += '\n';
    imff::imff_box::BoxList boxes;
    getProtectionBoxes(boxes, true);
    std::string element;
    enc::makeWidevineElement(element, enc::base64Encode(imff::imff_box::binarizeBoxes(boxes)));
    text += element;
    text += '\n';
}

bool WidevineEncryptionProvider::getKeyId(enc::KeyId& keyId) {
    if (m_key.keyId.size() != keyId.size()) return false;
    // The server's bytes are the key id as files carry it; the engine holds key ids in GUID memory order.
    enc::KeyId uuid{};
    std::copy(m_key.keyId.begin(), m_key.keyId.end(), uuid.begin());
    keyId = imff::imff_box::keyIdToUuid(uuid);
    return true;
}

bool WidevineEncryptionProvider::getContentKey(enc::ContentKey& key) {
    if (m_key.key.size() != key.size()) return false;
    std::copy(m_key.key.begin(), m_key.key.end(), key.begin());
    return true;
}

void WidevineEncryptionProvider::getInitialisationVector(std::vector<std::uint8_t>& iv) { iv.assign(8, 0); }

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
