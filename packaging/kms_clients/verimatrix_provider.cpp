#include "packaging/kms_clients/verimatrix_provider.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <exception>
#include <utility>

#include "packaging/encryption/protection_signalling.h"
#include "packaging/kms_clients/kms_exception.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

using encryption::KeyUpdateResult;

namespace {

constexpr std::uint64_t kTicksPerSecond = 10'000'000;  // 100 ns units
constexpr std::size_t kKeySize = 16;

void cleanse(std::vector<std::uint8_t>& bytes) {
    if (!bytes.empty()) OPENSSL_cleanse(bytes.data(), bytes.size());
}

bool startsWithNoCase(const std::string& line, std::string_view name) {
    return line.size() >= name.size() &&
           std::equal(name.begin(), name.end(), line.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
           });
}

std::int64_t clockSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string uuidTextOf(const std::vector<std::uint8_t>& bytes) {
    if (bytes.size() != kKeySize) throw encryption::IEncryptionProvider::Exception("invalid UUID");
    static const char* digits = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

}  // namespace

std::string buildKeyFileQuery(const std::string& resourceId, int channel, std::uint64_t position, int mode,
                              KeyFilePurpose purpose) {
    std::string query = "?";
    if (purpose == KeyFilePurpose::Connect) query += "&e=DASH&c=0";
    if (mode == 0) query += "&PROTECTION-TYPE=PLAYREADY";
    query += "&r=";
    for (char c : resourceId) {
        if (c == ' ')
            query += "%20";
        else
            query += c;
    }
    query += channel != 0 ? "&t=DTV" : "&t=VOD";
    query += "&p=" + std::to_string(position);
    return query;
}

std::vector<std::uint8_t> makePositionKeyId(std::uint64_t position) {
    std::vector<std::uint8_t> id(kKeySize, 0);
    for (std::size_t i = 0; i < 4; ++i) id[15 - i] = static_cast<std::uint8_t>(position >> (8 * i));
    return id;
}

void readKeyFileHeaders(const std::vector<std::string>& lines, KeyFileResponse& response) {
    for (const std::string& line : lines) {
        const auto value = [&](std::string_view name) {
            const std::size_t end = line.find_first_of(" \r\n", name.size());
            return line.substr(name.size(), end == std::string::npos ? std::string::npos : end - name.size());
        };
        if (startsWithNoCase(line, "location: ")) {
            response.location = value("location: ");
        } else if (startsWithNoCase(line, "dash-keyid: ")) {
            response.dashKeyId = encryption::base64Decode(value("dash-keyid: "));
            response.hasDashKeyId = true;
        } else if (startsWithNoCase(line, "dash-mpd: ")) {
            response.dashMpd = value("dash-mpd: ");
        } else if (startsWithNoCase(line, "dash-pssh: ")) {
            response.dashPssh = encryption::base64Decode(value("dash-pssh: "));
        } else if (startsWithNoCase(line, "dash-systemid: ")) {
            response.dashSystemId = value("dash-systemid: ");
        }
    }
}

KeyFileClient::KeyFileClient(std::string serverUrl, encryption::TransportSecurity security, HttpTimeouts timeouts)
    : m_serverUrl(std::move(serverUrl)), m_http(std::move(security), timeouts, true) {}

void KeyFileClient::request(KeyFileResponse& response, const std::string& resourceId, int channel,
                            std::uint64_t position, int mode, KeyFilePurpose purpose) {
    response = KeyFileResponse{};
    std::string body;
    std::vector<std::string> headers;
    struct Wipe {
        std::string& body;
        ~Wipe() {
            if (!body.empty()) OPENSSL_cleanse(body.data(), body.size());
        }
    } wipe{body};
    try {
        m_http.get(m_serverUrl + buildKeyFileQuery(resourceId, channel, position, mode, purpose), &body, headers);
    } catch (const KmsException& e) {
        throw KmsException(std::string("Could not retrieve key from key server: ") + e.what());
    }
    if (body.size() != kKeySize)
        throw KmsException("Incomplete key received from key server (" + std::to_string(body.size()) + " bytes)");
    readKeyFileHeaders(headers, response);
    response.key.assign(body.begin(), body.end());
}

VerimatrixEncryptionProvider::VerimatrixEncryptionProvider(encryption::VerimatrixConfiguration configuration,
                                                           encryption::TransportSecurity transportSecurity,
                                                           tvrn::log::ILogger& logger, VerimatrixOptions options)
    : m_configuration(std::move(configuration)),
      m_transportSecurity(std::move(transportSecurity)),
      m_logger(logger),
      m_options(options) {}

VerimatrixEncryptionProvider::~VerimatrixEncryptionProvider() { cleanse(m_contentKey); }

bool VerimatrixEncryptionProvider::connect() {
    const std::int64_t seconds = m_options.unixSeconds != nullptr ? m_options.unixSeconds() : clockSeconds();
    const auto now = static_cast<std::uint64_t>(std::max<std::int64_t>(seconds, 0));
    m_client = std::make_unique<KeyFileClient>(m_configuration.serverUrl, m_transportSecurity, m_options.timeouts);
    KeyFileResponse response;
    m_logger.WriteMsg(tvrn::log::LOG_DEBUG, "Verimatrix: key file request at connection (position = %llu)",
                      static_cast<unsigned long long>(now));
    m_client->request(response, m_configuration.resourceId, m_options.channel, now, m_options.mode,
                      KeyFilePurpose::Connect);
    if (response.key.size() != kKeySize) return false;
    std::vector<std::uint8_t> keyId = makePositionKeyId(now);
    if (m_options.mode == 0) {
        if (response.dashKeyId.size() != kKeySize) {
            cleanse(response.key);
            return false;
        }
        keyId = response.dashKeyId;
    }
    cleanse(m_contentKey);
    m_contentKey = std::move(response.key);
    m_keyId = std::move(keyId);
    if (m_options.mode == 0) {
        m_psshData = encryption::makePlayReadyObject("", m_keyId, m_contentKey, "", {});
    } else if (m_options.mode == 1) {
        m_psshData = std::move(response.dashPssh);
        m_keyIdBytes = std::move(response.dashKeyId);
        m_mpdText = std::move(response.dashMpd);
        m_otherText = std::move(response.location);
    } else {
        m_psshData = encryption::makeVerimatrixPsshData(response.dashMpd);
        m_keyIdBytes = m_keyId;
    }
    return true;
}

KeyUpdateResult VerimatrixEncryptionProvider::updateKey(std::uint64_t time) {
    const bool haveKey = !m_contentKey.empty();
    const std::int32_t period = m_configuration.keyPeriod;
    if (period != 0 && haveKey && time - m_lastKeyTime <= static_cast<std::uint64_t>(period) * kTicksPerSecond)
        return KeyUpdateResult::Unchanged;
    if (period == 0 && haveKey) return KeyUpdateResult::Unchanged;
    KeyFileResponse response;
    m_logger.WriteMsg(tvrn::log::LOG_DEBUG, "Verimatrix: key file request (position = %llu)",
                      static_cast<unsigned long long>(time));
    try {
        if (!m_client) m_client = std::make_unique<KeyFileClient>(m_configuration.serverUrl, m_transportSecurity,
                                                                  m_options.timeouts);
        m_client->rebuildHandle();
        m_client->request(response, m_configuration.resourceId, m_options.channel, time, m_options.mode,
                          KeyFilePurpose::Key);
    } catch (const std::exception&) {
        return KeyUpdateResult::Failed;  // the manager tells the listener
    }
    cleanse(m_contentKey);
    m_contentKey = std::move(response.key);
    if (!response.hasDashKeyId) m_keyId = makePositionKeyId(time);
    m_lastKeyTime = time;
    return KeyUpdateResult::Updated;
}

bool VerimatrixEncryptionProvider::getKeyId(encryption::KeyId& keyId) {
    if (m_keyId.size() != keyId.size()) return false;
    std::copy(m_keyId.begin(), m_keyId.end(), keyId.begin());
    return true;
}

bool VerimatrixEncryptionProvider::getContentKey(encryption::ContentKey& key) {
    if (m_contentKey.size() != key.size()) return false;
    std::copy(m_contentKey.begin(), m_contentKey.end(), key.begin());
    return true;
}

void VerimatrixEncryptionProvider::getInitialisationVector(std::vector<std::uint8_t>& iv) { iv.assign(8, 0); }

void VerimatrixEncryptionProvider::getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) {
    boxes.push_back(encryption::makeProtectionBox(
        encryption::getProtectionSystemId(static_cast<std::size_t>(m_options.mode)), m_psshData, cencForm));
}

void VerimatrixEncryptionProvider::getContentProtectionText(std::string& text, bool dashForm) {
    text.clear();
    if (m_options.mode == 0) {
        encryption::makePlayReadySignalling(text, m_psshData, dashForm);
    } else if (m_options.mode == 1) {
        std::string part;
        encryption::makeCommonEncryptionElement(part, uuidTextOf(m_keyIdBytes));
        text = part + "\n";
        encryption::makeVerimatrixElement(part);
        text += part + "\n";
    }
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
