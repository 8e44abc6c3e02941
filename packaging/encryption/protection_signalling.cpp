#include "packaging/encryption/protection_signalling.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "support/text/utf.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

namespace {

using Exception = IEncryptionProvider::Exception;

constexpr const char* kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// The namespace that the PlayReady Header Object documentation gives to WRMHEADER.
constexpr const char* kWrmHeaderNamespace = "http://schemas.microsoft.com/DRM/2007/03/PlayReadyHeader";

// The system table, in canonical order.
constexpr std::array<imff::imff_box::Uuid, 4> kSystemIds = {{
    {0x9A, 0x04, 0xF0, 0x79, 0x98, 0x40, 0x42, 0x86, 0xAB, 0x92, 0xE6, 0x5B, 0xE0, 0x88, 0x5F, 0x95},
    {0x9A, 0x27, 0xDD, 0x82, 0xFD, 0xE2, 0x47, 0x25, 0x8C, 0xBC, 0x42, 0x34, 0xAA, 0x06, 0xEC, 0x09},
    {0xED, 0xEF, 0x8B, 0xA9, 0x79, 0xD6, 0x4A, 0xCE, 0xA3, 0xC8, 0x27, 0xDC, 0xD5, 0x1D, 0x21, 0xED},
    {0x5E, 0x62, 0x9A, 0xF5, 0x38, 0xDA, 0x40, 0x63, 0x89, 0x77, 0x97, 0xFF, 0xBD, 0x99, 0x02, 0xD4},
}};

constexpr bool isHyphenAt(std::size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Where the hexadecimal pair at each text position goes in GUID memory order: the first three groups reversed.
constexpr std::array<std::size_t, 16> kPairPositions = {6, 4, 2, 0, 11, 9, 16, 14, 19, 21, 24, 26, 28, 30, 32, 34};

void appendLine(std::string& text, const std::string& line) {
    text += line;
    text += '\n';
}

const std::string kPlayReadySchemeOpening =
    std::string("<ContentProtection schemeIdUri=\"urn:uuid:") + kPlayReadySystemIdText + "\">";

}  // namespace

std::vector<std::uint8_t> getProtectionSystemId(std::size_t index) {
    if (index >= kSystemIds.size()) return {};
    return {kSystemIds[index].begin(), kSystemIds[index].end()};
}

std::shared_ptr<ProtectionSystemBox> makeProtectionBox(std::span<const std::uint8_t> systemId,
                                                       std::vector<std::uint8_t> data, bool cencForm) {
    if (systemId.size() != 16) throw Exception("invalid vector size");
    imff::imff_box::Uuid id{};
    std::copy(systemId.begin(), systemId.end(), id.begin());
    return std::make_shared<ProtectionSystemBox>(id, std::move(data), cencForm);
}

KeyId parseGuidText(const std::string& text) {
    if (text.size() != 36) throw Exception("invalid UUID");
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isHyphenAt(i) ? text[i] != '-' : hexValue(text[i]) < 0) throw Exception("invalid UUID");
    }
    KeyId keyId{};
    for (std::size_t i = 0; i < keyId.size(); ++i) {
        const std::size_t at = kPairPositions[i];
        keyId[i] = static_cast<std::uint8_t>(hexValue(text[at]) * 16 + hexValue(text[at + 1]));
    }
    return keyId;
}

KeyId parseUuidFields(const std::string& text) {
    if (text.size() != 36) throw Exception("invalid UUID");
    for (std::size_t i : {8u, 13u, 18u, 23u}) {
        if (text[i] != '-') throw Exception("invalid UUID");
    }
    KeyId keyId{};
    for (std::size_t i = 0; i < keyId.size(); ++i) {
        unsigned long value = 0;
        try {
            value = std::stoul(text.substr(kPairPositions[i], 2), nullptr, 16);
        } catch (const std::invalid_argument&) {
            throw std::invalid_argument("invalid stoul argument");
        } catch (const std::out_of_range&) {
            throw std::out_of_range("stoul argument out of range");
        }
        keyId[i] = static_cast<std::uint8_t>(value);
    }
    return keyId;
}

std::string makePlayReadyChecksum(std::span<const std::uint8_t> contentKey, std::span<const std::uint8_t> keyId) {
    std::array<std::uint8_t, 32> block{};
    int written = 0;
    bool ok = contentKey.size() == 16 && keyId.size() == 16;
    if (ok) {
        EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
        ok = context != nullptr &&
             EVP_EncryptInit_ex(context, EVP_aes_128_ecb(), nullptr, contentKey.data(), nullptr) == 1 &&
             EVP_CIPHER_CTX_set_padding(context, 0) == 1 &&
             EVP_EncryptUpdate(context, block.data(), &written, keyId.data(), 16) == 1 && written == 16;
        EVP_CIPHER_CTX_free(context);  // clears the expanded key
    }
    if (!ok) throw Exception("Rijndael 128 ECB encrypt : failed");
    std::string checksum;
    base64Encode(block.data(), 8, checksum, std::string());
    OPENSSL_cleanse(block.data(), block.size());
    return checksum;
}

std::string makeWrmHeader(const std::string& algorithmId, const std::string& laUrl, const std::string& luiUrl,
                          std::span<const std::uint8_t> domainServiceId, std::span<const std::uint8_t> contentKey,
                          std::span<const std::uint8_t> keyId) {
    std::string header = std::string("<WRMHEADER xmlns=\"") + kWrmHeaderNamespace + "\" version=\"4.0.0.0\">";
    header += "<DATA><PROTECTINFO><KEYLEN>16</KEYLEN><ALGID>" + algorithmId + "</ALGID></PROTECTINFO>";
    header += "<KID>" + base64Encode(keyId) + "</KID>";
    header += "<CHECKSUM>" + makePlayReadyChecksum(contentKey, keyId) + "</CHECKSUM>";
    header += "<CUSTOMATTRIBUTES><IIS_DRM_VERSION>7.1.1064.0</IIS_DRM_VERSION></CUSTOMATTRIBUTES>";
    if (!laUrl.empty()) header += "<LA_URL>" + laUrl + "</LA_URL>";
    if (!luiUrl.empty()) header += "<LUI_URL>" + luiUrl + "</LUI_URL>";
    if (!domainServiceId.empty()) header += "<DS_ID>" + base64Encode(domainServiceId) + "</DS_ID>";
    header += "</DATA></WRMHEADER>";
    return header;
}

PlayReadyObject wrapWrmHeader(const std::string& wrmHeader) {
    std::vector<std::uint8_t> record;
    try {
        record = utf::TextEmitterUTF16LE().emit(utf::TextParserUTF8().parse(wrmHeader));
    } catch (const utf::UtfException&) {
        record.clear();
        for (char c : wrmHeader) {
            record.push_back(static_cast<std::uint8_t>(c));
            record.push_back(0);
        }
    }
    // The record length is a 16-bit field; a header that long is cut there rather than written inconsistently.
    if (record.size() > 0xFFFE) record.resize(0xFFFE);
    const std::size_t total = record.size() + 10;
    PlayReadyObject object;
    object.reserve(total);
    for (const std::uint8_t byte : {static_cast<std::uint8_t>(total), static_cast<std::uint8_t>(total >> 8),
                                    static_cast<std::uint8_t>(total >> 16), static_cast<std::uint8_t>(total >> 24),
                                    std::uint8_t{1}, std::uint8_t{0},  // record count
                                    std::uint8_t{1}, std::uint8_t{0},  // record type: rights management header
                                    static_cast<std::uint8_t>(record.size()),
                                    static_cast<std::uint8_t>(record.size() >> 8)})
        object.push_back(byte);
    object.insert(object.end(), record.begin(), record.end());
    return object;
}

PlayReadyObject makePlayReadyObject(const std::string& laUrl, std::span<const std::uint8_t> keyId,
                                    std::span<const std::uint8_t> contentKey, const std::string& luiUrl,
                                    std::span<const std::uint8_t> domainServiceId) {
    return wrapWrmHeader(makeWrmHeader("AESCTR", laUrl, luiUrl, domainServiceId, contentKey, keyId));
}

void makeCommonEncryptionElement(std::string& text, const std::string& defaultKidText) {
    text.clear();
    appendLine(text, "<!-- Common Encryption -->");
    appendLine(text, "<ContentProtection schemeIdUri=\"urn:mpeg:dash:mp4protection:2011\" value=\"cenc\"");
    if (!defaultKidText.empty()) appendLine(text, "cenc:default_KID=\"" + defaultKidText + "\"");
    appendLine(text, "/>");
}

void makePlayReadyElement(std::string& text, const PlayReadyObject& object) {
    text.clear();
    if (object.empty()) {
        text = "<!-- PlayReady -->\n" + kPlayReadySchemeOpening + "\n</ContentProtection>";
        return;
    }
    appendLine(text, kPlayReadySchemeOpening);
    appendLine(text, "  <mspr:pro>" + base64Encode(object) + "</mspr:pro>");
    appendLine(text, "</ContentProtection>");
}

void makePlayReadySignalling(std::string& text, const PlayReadyObject& object, bool dashForm) {
    if (dashForm) {
        std::string element;
        makeCommonEncryptionElement(text, std::string());
        makePlayReadyElement(element, object);
        text += element;
    } else {
        text = "<ProtectionHeader SystemID=\"9a04f079-9840-4286-ab92-e65be0885f95\">" + base64Encode(object) +
               "</ProtectionHeader>";
    }
}

void makeVerimatrixElement(std::string& text) {
    text = std::string("<!-- Verimatrix -->\n<ContentProtection schemeIdUri=\"urn:uuid:") + kVerimatrixSystemIdText +
           "\">\n</ContentProtection>";
}

void makeMarlinElement(std::string& text, const std::optional<KeyId>& keyId) {
    text.clear();
    appendLine(text, std::string("<!-- Marlin -->\n<ContentProtection schemeIdUri=\"urn:uuid:") + kMarlinSystemIdText +
                         "\">");
    if (keyId) {
        static const char* digits = "0123456789abcdef";
        std::string hex;
        for (std::uint8_t byte : imff::imff_box::keyIdToUuid(*keyId)) {
            hex += digits[byte >> 4];
            hex += digits[byte & 15];
        }
        appendLine(text, "<mas:MarlinContentIds>");
        appendLine(text, " <mas:MarlinContentId>urn:marlin:kid:" + hex + "</mas:MarlinContentId>");
        appendLine(text, "</mas:MarlinContentIds>");
    }
    appendLine(text, "</ContentProtection>");
}

void makeWidevineElement(std::string& text, const std::string& psshBase64) {
    text = "<!-- Widevine -->\n<ContentProtection value=\"widevine\" "
           "schemeIdUri=\"urn:uuid:edef8ba9-79d6-4ace-a3c8-27dcd51d21ed\"";
    if (psshBase64.empty()) {
        text += "/>";
    } else {
        text += ">\n<cenc:pssh>" + psshBase64 + "</cenc:pssh>\n</ContentProtection>";
    }
}

std::vector<std::uint8_t> makeWidevinePsshData(std::span<const std::uint8_t> keyId, const std::string& provider,
                                               std::span<const std::uint8_t> contentId) {
    std::vector<std::uint8_t> data;
    data.reserve(12 + keyId.size() + provider.size() + contentId.size());
    data.push_back(0x08);
    data.push_back(0x01);
    const auto field = [&data](std::uint8_t tag, const std::uint8_t* bytes, std::size_t size) {
        data.push_back(tag);
        data.push_back(static_cast<std::uint8_t>(size));  // one length byte, whatever the size
        data.insert(data.end(), bytes, bytes + size);
    };
    field(0x12, keyId.data(), keyId.size());
    field(0x1A, reinterpret_cast<const std::uint8_t*>(provider.data()), provider.size());
    field(0x22, contentId.data(), contentId.size());
    // An empty field 5, then 33 00: players have always been given these two pairs, so they stay as they are.
    for (const int byte : {0x2A, 0x00, 0x33, 0x00}) data.push_back(static_cast<std::uint8_t>(byte));
    return data;
}

std::vector<std::uint8_t> makeVerimatrixPsshData(const std::string& text) {
    const std::size_t size = text.size();
    std::vector<std::uint8_t> data;
    data.reserve(4 + size);
    for (int shift = 24; shift >= 0; shift -= 8) data.push_back(static_cast<std::uint8_t>(size >> shift));
    data.insert(data.end(), text.begin(), text.end());
    return data;
}

void base64Encode(const std::uint8_t* bytes, std::size_t length, std::string& text, const std::string& separator) {
    text.clear();
    text.reserve((length + 2) / 3 * 4);
    std::size_t groups = 0;
    for (std::size_t i = 0; i < length; i += 3) {
        if (!separator.empty() && groups > 0 && groups % 64 == 0) text += separator;
        const std::size_t left = length - i;
        const std::uint32_t triple = std::uint32_t{bytes[i]} << 16 | (left > 1 ? std::uint32_t{bytes[i + 1]} << 8 : 0) |
                                     (left > 2 ? std::uint32_t{bytes[i + 2]} : 0);
        text += kAlphabet[triple >> 18 & 63];
        text += kAlphabet[triple >> 12 & 63];
        text += left > 1 ? kAlphabet[triple >> 6 & 63] : '=';
        text += left > 2 ? kAlphabet[triple & 63] : '=';
        ++groups;
    }
}

std::vector<std::uint8_t> base64Decode(const std::string& text) {
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 4 * 3);
    std::uint32_t bits = 0;
    int count = 0;
    for (char c : text) {
        int value = -1;
        if (c >= 'A' && c <= 'Z') value = c - 'A';
        if (c >= 'a' && c <= 'z') value = c - 'a' + 26;
        if (c >= '0' && c <= '9') value = c - '0' + 52;
        if (c == '+') value = 62;
        if (c == '/') value = 63;
        if (value < 0) continue;
        bits = (bits << 6 | static_cast<std::uint32_t>(value)) & 0xFFFFFF;
        count += 6;
        if (count >= 8) {
            count -= 8;
            bytes.push_back(static_cast<std::uint8_t>(bits >> count));
        }
    }
    OPENSSL_cleanse(&bits, sizeof bits);  // base64 carries keys and seeds here
    return bytes;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
