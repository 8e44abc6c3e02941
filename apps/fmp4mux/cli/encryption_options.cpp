#include "apps/fmp4mux/cli/encryption_options.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <initializer_list>
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
            {"irdeto_url", &o.irdetoUrl}, {"irdeto_account_id", &o.irdetoAccountId},
            {"irdeto_content_id", &o.irdetoContentId}, {"irdeto_user", &o.irdetoUser},
            {"irdeto_password", &o.irdetoPassword}, {"irdeto_event_name", &o.irdetoEventName},
            {"irdeto_event_description", &o.irdetoEventDescription}, {"irdeto_event_url", &o.irdetoEventUrl},
            {"irdeto_event_sub_content_type", &o.irdetoEventSubContentType},
            {"irdeto_event_encryption_type", &o.irdetoEventEncryptionType},
            {"irdeto_policy_group_id", &o.irdetoPolicyGroupText},
            {"irdeto_key_request_period", &o.irdetoRequestPeriodText}, {"vmx_url", &o.vmxUrl},
            {"vmx_resource_id", &o.vmxResourceId}, {"kms_timeout", &o.kmsTimeoutText}, {"kms_wait", &o.kmsWaitText},
            {"kms_content_id", &o.kmsContentId}, {"widevine_key_server", &o.widevineKeyServer},
            {"widevine_signer", &o.widevineSigner}, {"widevine_signing_key", &o.widevineSigningKey},
            {"widevine_signing_iv", &o.widevineSigningIv}, {"insidesecure_key_server", &o.insideSecureKeyServer},
            {"buydrm_key_server", &o.buyDrmKeyServer}, {"buydrm_user_key", &o.buyDrmUserKey},
            {"buydrm_server_key", &o.buyDrmServerKey}, {"encryption_scheme", &o.schemeText},
            {"constant_iv", &o.constantIvText}};
        std::string* target = nullptr;
        for (const auto& [known, field] : names)
            if (name == known) target = field;
        if (equals == std::string::npos || target == nullptr)
            refuse("--key-file: line " + std::to_string(number) + " of '" + o.keyFile +
                   "' is not key_id=, key=, key_seed=, encryption_scheme=, constant_iv= or a kms_...=, irdeto_...= or "
                   "vmx_...= setting");
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

bool anySet(std::initializer_list<const std::string*> fields) {
    return std::any_of(fields.begin(), fields.end(), [](const std::string* f) { return !f->empty(); });
}

void checkAddress(const char* option, const std::string& url) {
    static const std::regex address("https?://[^ ]+");
    if (!url.empty() && !std::regex_match(url, address))
        refuse(std::string(option) + ": '" + url + "' is not an http:// or https:// address");
}

// A number of seconds from 0 to an hour, or 0 when not given.
std::int32_t secondsOf(const char* option, const std::string& text) {
    if (text.empty()) return 0;
    static const std::regex digits("[0-9]{1,4}");
    if (!std::regex_match(text, digits) || std::stoi(text) > 3600)
        refuse(std::string(option) + ": '" + text + "' is not a number of seconds from 0 to 3600");
    return std::stoi(text);
}

// What every key server shares: the keys come from it, the key period, the TLS trust and client key.
void finishAnyKeyServer(EncryptionOptions& o) {
    // BuyDRM's server gives the key of the operator's key id; every other server gives both.
    if (!o.buyDrmKeyServer.empty()) {
        if (!o.keyText.empty() || !o.keySeedText.empty())
            refuse("--buydrm-key-server gives the key: --key and --key-seed do not go with it");
    } else if (!o.keyIdText.empty() || !o.keyText.empty() || !o.keySeedText.empty()) {
        refuse("a key server (--kms-..., --irdeto-..., --vmx-..., --widevine-key-server or --insidesecure-key-server) "
               "gives the keys: --key-id, --key and --key-seed do not go with it");
    }
    if (!o.customSystemId.empty()) refuse("--drm-system-id does not go with a key server, whose answer signals the systems");
    o.keyPeriod = secondsOf("--key-period", o.keyPeriodText);
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

void finishIrdeto(EncryptionOptions& o) {
    o.keyServerKind = EncryptionOptions::KeyServer::Irdeto;
    if (o.irdetoUrl.empty()) refuse("--irdeto-url: Irdeto's service needs its address");
    checkAddress("--irdeto-url", o.irdetoUrl);
    checkAddress("--irdeto-event-url", o.irdetoEventUrl);
    if (o.irdetoAccountId.empty() || o.irdetoContentId.empty())
        refuse("Irdeto's service needs the account and the content: --irdeto-account-id and --irdeto-content-id");
    o.irdetoRequestPeriod = secondsOf("--irdeto-key-request-period", o.irdetoRequestPeriodText);
    if (!o.irdetoPolicyGroupText.empty()) {
        static const std::regex number("-?[0-9]{1,9}");
        if (!std::regex_match(o.irdetoPolicyGroupText, number))
            refuse("irdeto_policy_group_id: '" + o.irdetoPolicyGroupText + "' is not a number");
        o.irdetoPolicyGroupId = std::stoi(o.irdetoPolicyGroupText);
    }
    if (o.clearKey) refuse("--drm clearkey: Irdeto's ClearKey is not available in this output; ask for playready or widevine");
    if (!o.playReady && !o.widevine) refuse("Irdeto's service needs the systems to ask for: --drm playready and/or --drm widevine");
}

void finishVerimatrix(EncryptionOptions& o) {
    o.keyServerKind = EncryptionOptions::KeyServer::Verimatrix;
    if (o.vmxUrl.empty() || o.vmxResourceId.empty())
        refuse("a Verimatrix key server needs --vmx-url and --vmx-resource-id");
    checkAddress("--vmx-url", o.vmxUrl);
    if (!o.drmSystems.empty()) refuse("--drm does not go with Verimatrix, whose server signals its own system");
}

// Widevine, Inside Secure and BuyDRM: an address and the content id; Widevine's signing key and IV together and of
// AES sizes; BuyDRM's key id and its two secrets.
void finishContentKeyServer(EncryptionOptions& o) {
    using Server = EncryptionOptions::KeyServer;
    o.keyServerKind = !o.widevineKeyServer.empty() ? Server::Widevine
                    : !o.insideSecureKeyServer.empty() ? Server::InsideSecure : Server::BuyDrm;
    checkAddress("--widevine-key-server", o.widevineKeyServer);
    checkAddress("--insidesecure-key-server", o.insideSecureKeyServer);
    checkAddress("--buydrm-key-server", o.buyDrmKeyServer);
    if (o.widevineKeyServer.empty() && o.insideSecureKeyServer.empty() && o.buyDrmKeyServer.empty())
        refuse("--kms-content-id and the Widevine and BuyDRM settings need their key server's address");
    if (o.kmsContentId.empty()) refuse("--kms-content-id: the key server needs the content id");
    if (o.widevineSigningKey.empty() != o.widevineSigningIv.empty())
        refuse("widevine_signing_key= and widevine_signing_iv= go together in the key file");
    if (!o.widevineSigningKey.empty()) {
        const std::size_t size = fromBase64(o.widevineSigningKey).size();
        if (size != 16 && size != 24 && size != 32)
            refuse("widevine_signing_key= in the key file is not base64 of 16, 24 or 32 bytes");
        if (fromBase64(o.widevineSigningIv).size() != 16)
            refuse("widevine_signing_iv= in the key file is not base64 of 16 bytes");
    }
    if (o.keyServerKind == Server::BuyDrm) {
        if (o.keyIdText.empty()) refuse("--buydrm-key-server needs the key id (--key-id)");
        o.keyId = uuidOf(o.keyIdText, "--key-id");
        if (o.buyDrmUserKey.empty() || o.buyDrmServerKey.empty())
            refuse("--buydrm-key-server needs buydrm_user_key= and buydrm_server_key= in the key file");
    }
}

// A Harmonic key server's settings, checked: the run then takes its keys from the server.
void finishKeyServer(EncryptionOptions& o) {
    o.keyServerKind = EncryptionOptions::KeyServer::Harmonic;
    if (o.kmsResourceId.empty() || o.kmsResourceId.size() > 128)
        refuse("--kms-resource-id: a key server needs the resource id (at most 128 characters)");
    if (o.kmsKeyUrl.empty() == o.kmsSessionUrl.empty())
        refuse("a key server needs either --kms-key-url or --kms-session-url, not both");
    if (!o.kmsBackupSessionUrl.empty() && o.kmsSessionUrl.empty())
        refuse("--kms-backup-session-url needs --kms-session-url");
    checkAddress("--kms-key-url", o.kmsKeyUrl);
    checkAddress("--kms-session-url", o.kmsSessionUrl);
    checkAddress("--kms-backup-session-url", o.kmsBackupSessionUrl);
}

// The scheme and the cbcs constant IV; they need encryption, checked once the rest is known.
void finishScheme(EncryptionOptions& o) {
    if (!o.schemeText.empty() && o.schemeText != "cenc" && o.schemeText != "cbcs")
        refuse("--encryption-scheme: unknown scheme '" + o.schemeText + "' (cenc or cbcs)");
    o.cbcs = o.schemeText == "cbcs";
    if (o.constantIvText.empty()) return;
    if (!o.cbcs) refuse("--constant-iv needs --encryption-scheme cbcs");
    o.constantIv = decodeHexOrBase64(o.constantIvText);
    if (o.constantIv.size() != 16) refuse("--constant-iv: the IV is not 32 hexadecimal digits or base64 of 16 bytes");
}

void finishKeysAndServers(EncryptionOptions& o);

}  // namespace

void finishEncryptionOptions(EncryptionOptions& o) {
    if (!o.keyFile.empty()) readKeyFile(o);
    finishScheme(o);
    finishKeysAndServers(o);
    if (!o.schemeText.empty() && !o.enabled())
        refuse("--encryption-scheme needs encryption: a key (--key-id with --key or --key-seed) or a key server");
}

namespace {

void finishKeysAndServers(EncryptionOptions& o) {
    const bool harmonic = anySet({&o.kmsKeyUrl, &o.kmsSessionUrl, &o.kmsBackupSessionUrl, &o.kmsResourceId,
                                  &o.kmsRequestorId});
    const bool irdeto = anySet({&o.irdetoUrl, &o.irdetoAccountId, &o.irdetoContentId, &o.irdetoUser,
                                &o.irdetoPassword, &o.irdetoEventName, &o.irdetoEventDescription, &o.irdetoEventUrl,
                                &o.irdetoEventSubContentType, &o.irdetoEventEncryptionType, &o.irdetoPolicyGroupText,
                                &o.irdetoRequestPeriodText});
    const bool verimatrix = anySet({&o.vmxUrl, &o.vmxResourceId});
    const bool content = anySet({&o.widevineKeyServer, &o.widevineSigner, &o.widevineSigningKey, &o.widevineSigningIv,
                                 &o.insideSecureKeyServer, &o.buyDrmKeyServer, &o.buyDrmUserKey, &o.buyDrmServerKey,
                                 &o.kmsContentId});
    const int servers = static_cast<int>(harmonic) + static_cast<int>(irdeto) + static_cast<int>(verimatrix) +
                        static_cast<int>(!o.widevineKeyServer.empty()) + static_cast<int>(!o.insideSecureKeyServer.empty()) +
                        static_cast<int>(!o.buyDrmKeyServer.empty());
    const bool shared = anySet({&o.keyPeriodText, &o.kmsCaFile, &o.kmsClientKey, &o.kmsClientKeyPassword,
                                &o.kmsTimeoutText, &o.kmsWaitText});
    if (servers > 1 || (content && (harmonic || irdeto || verimatrix)))
        refuse("the keys come from one key server: Harmonic (--kms-...), Irdeto (--irdeto-...), Verimatrix (--vmx-...), "
               "Widevine, Inside Secure or BuyDRM");
    if (harmonic || irdeto || verimatrix || content || shared) {
        finishAnyKeyServer(o);
        readSystems(o);
        if (irdeto)
            finishIrdeto(o);
        else if (verimatrix)
            finishVerimatrix(o);
        else if (content)
            finishContentKeyServer(o);
        else
            finishKeyServer(o);
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

}  // namespace

}  // namespace fmp4mux
