#pragma once
// Common Encryption as the operator asks for it: one key (given, or derived from a PlayReady key seed) with its
// key id, and the DRM systems to signal. Keys and seeds may come from a key file, so that they stay out of the
// process list; they never appear in a message, a log line or the progress line.
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace fmp4mux {

struct EncryptionOptions {
    // As given on the command line or read from the key file, checked and normalised by finish().
    std::string keyIdText;
    std::string keyText;
    std::string keySeedText;
    std::string keyFile;
    std::vector<std::string> drmSystems;  // clearkey, playready, widevine
    std::string playReadyLicenceUrl;
    std::string widevineProvider;
    std::string widevineContentId;
    std::string customSystemId;
    std::string customPsshData;
    // Keys from a Harmonic key management server instead: its key address (minimal form) or key session server
    // (full form, with a backup), the resource and requestor ids, the key period, TLS trust and client key.
    std::string kmsKeyUrl;
    std::string kmsSessionUrl;
    std::string kmsBackupSessionUrl;
    std::string kmsResourceId;
    std::string kmsRequestorId;
    std::string keyPeriodText;
    std::string kmsCaFile;
    std::string kmsClientKey;
    std::string kmsClientKeyPassword;  // from the key file only: a secret
    std::string kmsTimeoutText;
    std::string kmsWaitText;

    // After finish(): the key id as UUID text (lower case, hyphenated, in the byte order files hold it), the key
    // and the seed in base64 (one of them), and the systems to signal.
    std::string keyId;
    std::string keyBase64;
    std::string keySeedBase64;
    bool clearKey = false;
    bool playReady = false;
    bool widevine = false;
    std::string customSystemUuid;    // UUID text
    std::string customPsshBase64;

    std::int32_t keyPeriod = 0;  // seconds; 0: one key for the run
    std::chrono::milliseconds kmsTimeout{5000};  // each stage of a key request
    std::chrono::milliseconds kmsWait{0};        // 0: wait for the key server until interrupted
    bool keyServer() const { return !kmsResourceId.empty(); }
    bool enabled() const { return !keyId.empty() || keyServer(); }
};

// Reads the key file when there is one, checks every value and fills the normalised fields. Raises ExitError
// (bad command line) naming the option, never quoting a key or a seed: a key of the wrong length, text that is
// neither hexadecimal nor base64, a malformed key id or system id, a key file that cannot be read, a system
// asked for without a key.
void finishEncryptionOptions(EncryptionOptions& options);

// The bytes of hexadecimal text (an even number of digits) or base64 text; empty when it is neither.
std::vector<std::uint8_t> decodeHexOrBase64(const std::string& text);

}  // namespace fmp4mux
