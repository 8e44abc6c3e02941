#pragma once
// Verimatrix's key file protocol as a key source: an HTTP GET whose query names the resource, the channel kind
// and a position; the key comes back as the 16-byte body and everything else in response headers. The first
// request (at connection, position the Unix time in seconds) asks for the DASH signalling as well; the later ones
// (position the media time in 100 ns units) once per key period. A failed request keeps the previous key and id.
// Not locked: connect runs on the filter's thread, everything else on the segment-building thread.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_configuration.h"
#include "packaging/encryption/i_encryption_provider.h"
#include "packaging/kms_clients/http_client.h"
#include "support/log/i_logger.h"

namespace tvrn::encoding::packaging::kms_clients {
inline namespace v0 {

// What a key file request is for: the request at connection asks for the DASH signalling too.
enum class KeyFilePurpose : int { Key = 1, Connect = 2 };

// The query of a key file request, from "?" on.
std::string buildKeyFileQuery(const std::string& resourceId, int channel, std::uint64_t position, int mode,
                              KeyFilePurpose purpose);

// Sixteen bytes, zero but the last four: the low 32 bits of `position`, big-endian.
std::vector<std::uint8_t> makePositionKeyId(std::uint64_t position);

// What one key file request yields: the body, and the values of the headers the server may add.
struct KeyFileResponse {
    std::vector<std::uint8_t> key;
    std::string location;                // "location: ", text
    std::vector<std::uint8_t> dashKeyId;  // "dash-keyid: ", base64
    bool hasDashKeyId = false;
    std::string dashMpd;                 // "dash-mpd: ", text
    std::vector<std::uint8_t> dashPssh;   // "dash-pssh: ", base64
    std::string dashSystemId;            // "dash-systemid: ", text
};

// Fills `response` from header lines as libcurl hands them over: a line that starts with one of the names above
// (in any case) gives its value, cut at the first blank, CR or LF.
void readKeyFileHeaders(const std::vector<std::string>& lines, KeyFileResponse& response);

// One libcurl handle with the transport settings of the key server; HTTP errors are failures.
class KeyFileClient {
public:
    KeyFileClient(std::string serverUrl, encryption::TransportSecurity security, HttpTimeouts timeouts = {});
    // KmsException "Could not retrieve key from key server: <text>" when the request fails, "Incomplete key
    // received from key server (<n> bytes)" when the body is not 16 bytes.
    void request(KeyFileResponse& response, const std::string& resourceId, int channel, std::uint64_t position,
                 int mode, KeyFilePurpose purpose);
    void rebuildHandle() { m_http.rebuildHandle(); }

private:
    std::string m_serverUrl;
    HttpClient m_http;
};

// What the record does not carry.
struct VerimatrixOptions {
    // The protection system of the signalling: 0 PlayReady, 1 Verimatrix (the factory's), others generic.
    int mode = 1;
    // 1 for a live channel.
    int channel = 1;
    HttpTimeouts timeouts{};
    // The Unix time in seconds of the connection; the clock by default.
    std::int64_t (*unixSeconds)() = nullptr;
};

class VerimatrixEncryptionProvider : public encryption::IEncryptionProvider {
public:
    VerimatrixEncryptionProvider(encryption::VerimatrixConfiguration configuration,
                                 encryption::TransportSecurity transportSecurity, tvrn::log::ILogger& logger,
                                 VerimatrixOptions options = {});
    ~VerimatrixEncryptionProvider() override;
    VerimatrixEncryptionProvider(const VerimatrixEncryptionProvider&) = delete;
    VerimatrixEncryptionProvider& operator=(const VerimatrixEncryptionProvider&) = delete;

    // One box of the mode's system with the pssh data.
    void getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) override;
    // PlayReady's signalling (mode 0); the Common Encryption element with the server's DASH key id and the
    // Verimatrix element (mode 1); nothing otherwise.
    void getContentProtectionText(std::string& text, bool dashForm) override;
    bool getKeyId(encryption::KeyId& keyId) override;
    bool getContentKey(encryption::ContentKey& key) override;
    // Eight zero bytes.
    void getInitialisationVector(std::vector<std::uint8_t>& iv) override;
    bool acceptsSample(const void*, const void*, const void*) override { return true; }
    // `time` in 100 ns units: Unchanged within a key period of the last key, then one request at position `time`.
    encryption::KeyUpdateResult updateKey(std::uint64_t time) override;
    // The first key, at position now (Unix seconds), with the DASH signalling. A failure of the request escapes.
    bool connect() override;
    bool isKeyRotationEnabled() const { return m_configuration.keyPeriod > 0; }

    const std::string& mpdText() const { return m_mpdText; }
    const std::string& otherText() const { return m_otherText; }

private:
    encryption::VerimatrixConfiguration m_configuration;
    encryption::TransportSecurity m_transportSecurity;
    tvrn::log::ILogger& m_logger;
    VerimatrixOptions m_options;
    std::vector<std::uint8_t> m_psshData;
    std::vector<std::uint8_t> m_keyIdBytes;  // the DASH key id as the server gave it
    std::string m_mpdText;
    std::string m_otherText;
    std::vector<std::uint8_t> m_contentKey;
    std::vector<std::uint8_t> m_keyId;
    std::uint64_t m_lastKeyTime = 0;
    std::unique_ptr<KeyFileClient> m_client;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::kms_clients
