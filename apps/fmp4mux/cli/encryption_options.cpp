#include "apps/fmp4mux/cli/encryption_options.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <regex>

#include "apps/fmp4mux/exit_error.h"

namespace fmp4mux {

namespace {

[[noreturn]] void refuse(const std::string& message) { throw ExitError(kExitUsage, message); }

std::string base64(const std::vector<std::uint8_t>& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(), static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(std::max(length, 0)));
    return text;
}

std::vector<std::uint8_t> fromHex(const std::string& text) {
    std::vector<std::uint8_t> bytes;
    if (text.size() % 2 != 0 || !std::all_of(text.begin(), text.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); }))
        return bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) bytes.push_back(static_cast<std::uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

std::vector<std::uint8_t> fromBase64(const std::string& text) {
    static const std::regex shape("([A-Za-z0-9+/]{4})*([A-Za-z0-9+/]{2}==|[A-Za-z0-9+/]{3}=)?");
    if (text.empty() || !std::regex_match(text, shape)) return {};
    std::vector<std::uint8_t> bytes(text.size() / 4 * 3);
    const int length = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                       static_cast<int>(text.size()));
    if (length < 0) return {};
    bytes.resize(static_cast<std::size_t>(length) - static_cast<std::size_t>(std::count(text.end() - 2, text.end(), '=')));
    return bytes;
}

// UUID text (8-4-4-4-12 hexadecimal digits), 32 hexadecimal digits or base64 of 16 bytes, as UUID text.
std::string uuidOf(const std::string& text, const std::string& option) {
    static const std::regex uuid("[0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12}");
    std::vector<std::uint8_t> bytes;
    if (std::regex_match(text, uuid)) {
        std::string digits = text;
        digits.erase(std::remove(digits.begin(), digits.end(), '-'), digits.end());
        bytes = fromHex(digits);
    } else {
        bytes = decodeHexOrBase64(text);
    }
    if (bytes.size() != 16)
        refuse(option + ": '" + text + "' is not a UUID (8-4-4-4-12 hexadecimal digits, 32 digits or base64 of 16 bytes)");
    static const char* digits = "0123456789abcdef";
    std::string out;
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

// The key file: one NAME=VALUE a line (key_id, key, key_seed), '#' starting a comment. Values it gives stand in
// for options not given on the command line.
void readKeyFile(EncryptionOptions& o) {
    std::ifstream file(o.keyFile);
    if (!file) refuse("--key-file: cannot read '" + o.keyFile + "'");
    std::string line;
    int number = 0;
    while (std::getline(file, line)) {
        ++number;
        line.erase(std::find(line.begin(), line.end(), '#'), line.end());
        const auto notSpace = [](unsigned char c) { return !std::isspace(c); };
        line.erase(line.begin(), std::find_if(line.begin(), line.end(), notSpace));
        line.erase(std::find_if(line.rbegin(), line.rend(), notSpace).base(), line.end());
        if (line.empty()) continue;
        const auto equals = line.find('=');
        const std::string name = line.substr(0, equals);
        const std::pair<const char*, std::string*> names[] = {
            {"key_id", &o.keyIdText}, {"key", &o.keyText}, {"key_seed", &o.keySeedText},
            {"kms_key_url", &o.kmsKeyUrl}, {"kms_session_url", &o.kmsSessionUrl},
            {"kms_backup_session_url", &o.kmsBackupSessionUrl}, {"kms_resource_id", &o.kmsResourceId},
            {"kms_requestor_id", &o.kmsRequestorId}, {"key_period", &o.keyPeriodText}, {"kms_ca_file", &o.kmsCaFile},
            {"kms_client_key", &o.kmsClientKey}, {"kms_client_key_password", &o.kmsClientKeyPassword},
            {"kms_timeout", &o.kmsTimeoutText}, {"kms_wait", &o.kmsWaitText}};
        std::string* target = nullptr;
        for (const auto& [known, field] : names)
            if (name == known) target = field;
        if (equals == std::string::npos || target == nullptr)
            refuse("--key-file: line " + std::to_string(number) + " of '" + o.keyFile +
                   "' is not key_id=, key=, key_seed= or a kms_...= setting");
        if (target->empty()) *target = line.substr(equals + 1);
    }
}

}  // namespace

std::vector<std::uint8_t> decodeHexOrBase64(const std::string& text) {
    std::vector<std::uint8_t> bytes = fromHex(text);
    return bytes.empty() ? fromBase64(text) : bytes;
}

namespace {
void readSystems(EncryptionOptions& o) {
    for (const std::string& system : o.drmSystems) {
        if (system == "clearkey")
            o.clearKey = true;
        else if (system == "playready")
            o.playReady = true;
        else if (system == "widevine")
            o.widevine = true;
        else
            refuse("--drm: unknown system '" + system + "' (clearkey, playready or widevine; others with --drm-system-id)");
    }
}

// A key server's settings, checked: the run then takes its keys from the server.
void finishKeyServer(EncryptionOptions& o) {
    if (!o.keyIdText.empty() || !o.keyText.empty() || !o.keySeedText.empty())
        refuse("a key server (--kms-...) gives the keys: --key-id, --key and --key-seed do not go with it");
    if (!o.customSystemId.empty()) refuse("--drm-system-id does not go with a key server, whose answer signals the systems");
    if (o.kmsResourceId.empty() || o.kmsResourceId.size() > 128)
        refuse("--kms-resource-id: a key server needs the resource id (at most 128 characters)");
    if (o.kmsKeyUrl.empty() == o.kmsSessionUrl.empty())
        refuse("a key server needs either --kms-key-url or --kms-session-url, not both");
    if (!o.kmsBackupSessionUrl.empty() && o.kmsSessionUrl.empty())
        refuse("--kms-backup-session-url needs --kms-session-url");
    static const std::regex address("https?://[^ ]+");
    for (const auto& [option, url] : {std::pair<const char*, const std::string*>{"--kms-key-url", &o.kmsKeyUrl},
                                      {"--kms-session-url", &o.kmsSessionUrl},
                                      {"--kms-backup-session-url", &o.kmsBackupSessionUrl}})
        if (!url->empty() && !std::regex_match(*url, address))
            refuse(std::string(option) + ": '" + *url + "' is not an http:// or https:// address");
    if (!o.keyPeriodText.empty()) {
        static const std::regex digits("[0-9]{1,4}");
        if (!std::regex_match(o.keyPeriodText, digits) || std::stoi(o.keyPeriodText) > 3600)
            refuse("--key-period: '" + o.keyPeriodText + "' is not a number of seconds from 0 to 3600");
        o.keyPeriod = std::stoi(o.keyPeriodText);
    }
    // Seconds with up to three decimals: a request stage from 0.1 s to 60 s; the wait at the start up to a day.
    const auto seconds = [](const std::string& text, const char* option, const char* range, double low, double high) {
        static const std::regex number("[0-9]{1,5}(\\.[0-9]{1,3})?");
        if (!std::regex_match(text, number) || std::stod(text) < low || std::stod(text) > high)
            refuse(std::string(option) + ": '" + text + "' is not a number of seconds from " + range);
        return std::chrono::milliseconds(static_cast<std::int64_t>(std::stod(text) * 1000 + 0.5));
    };
    if (!o.kmsTimeoutText.empty()) o.kmsTimeout = seconds(o.kmsTimeoutText, "--kms-timeout", "0.1 to 60", 0.1, 60);
    if (!o.kmsWaitText.empty()) o.kmsWait = seconds(o.kmsWaitText, "--kms-wait", "0 to 86400", 0, 86400);
    for (const auto& [option, file] : {std::pair<const char*, const std::string*>{"--kms-ca-file", &o.kmsCaFile},
                                       {"--kms-client-key", &o.kmsClientKey}})
        if (!file->empty() && !std::ifstream(*file)) refuse(std::string(option) + ": cannot read '" + *file + "'");
    if (!o.kmsClientKeyPassword.empty() && o.kmsClientKey.empty())
        refuse("kms_client_key_password in the key file needs a client key (--kms-client-key)");
}
}  // namespace

void finishEncryptionOptions(EncryptionOptions& o) {
    if (!o.keyFile.empty()) readKeyFile(o);
    const bool server = !o.kmsKeyUrl.empty() || !o.kmsSessionUrl.empty() || !o.kmsBackupSessionUrl.empty() ||
                        !o.kmsResourceId.empty() || !o.kmsRequestorId.empty() || !o.keyPeriodText.empty() ||
                        !o.kmsCaFile.empty() || !o.kmsClientKey.empty() || !o.kmsClientKeyPassword.empty() ||
                        !o.kmsTimeoutText.empty() || !o.kmsWaitText.empty();
    if (server) {
        finishKeyServer(o);
        readSystems(o);
        return;
    }
    const bool asked = !o.keyIdText.empty() || !o.keyText.empty() || !o.keySeedText.empty() || !o.drmSystems.empty() ||
                       !o.customSystemId.empty();
    if (!asked) return;
    if (o.keyIdText.empty()) refuse("encryption needs a key id: --key-id (or key_id= in the key file)");
    if (o.keyText.empty() == o.keySeedText.empty())
        refuse("encryption needs either --key or --key-seed (or key= or key_seed= in the key file), not both");
    o.keyId = uuidOf(o.keyIdText, "--key-id");
    if (!o.keyText.empty()) {
        const std::vector<std::uint8_t> key = decodeHexOrBase64(o.keyText);
        if (key.size() != 16)
            refuse("--key: the key is not 32 hexadecimal digits or base64 of 16 bytes (AES-128)");
        o.keyBase64 = base64(key);
    } else {
        const std::vector<std::uint8_t> seed = fromBase64(o.keySeedText);
        if (seed.size() < 30) refuse("--key-seed: the key seed is not base64 of at least 30 bytes");
        o.keySeedBase64 = base64(seed);
    }
    readSystems(o);
    if (!o.playReadyLicenceUrl.empty() && !o.playReady) refuse("--playready-la-url needs --drm playready");
    if ((!o.widevineProvider.empty() || !o.widevineContentId.empty()) && !o.widevine)
        refuse("--widevine-provider and --widevine-content-id need --drm widevine");
    if (o.widevine && o.widevineProvider.empty()) refuse("--drm widevine needs --widevine-provider");
    if (!o.widevineContentId.empty()) o.widevineContentId = uuidOf(o.widevineContentId, "--widevine-content-id");
    if (!o.customSystemId.empty()) o.customSystemUuid = uuidOf(o.customSystemId, "--drm-system-id");
    // ClearKey is signalled as the one system of its own the key configuration holds.
    if (o.clearKey && !o.customSystemId.empty()) refuse("--drm clearkey and --drm-system-id cannot go together");
    if (!o.customPsshData.empty()) {
        if (o.customSystemId.empty()) refuse("--drm-pssh-data needs --drm-system-id");
        const std::vector<std::uint8_t> data = decodeHexOrBase64(o.customPsshData);
        if (data.empty()) refuse("--drm-pssh-data: not hexadecimal or base64");
        o.customPsshBase64 = base64(data);
    }
}

}  // namespace fmp4mux
