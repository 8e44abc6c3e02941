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
    // Keys from Irdeto's live DRM service instead: its address, the account, content and user names, the password
    // (from the key file only: a secret), the live event to create at the start (none without a name), and the
    // period of repeated requests for the same key (the key period is the one of key changes). The systems asked
    // for are the --drm ones.
    std::string irdetoUrl;
    std::string irdetoAccountId;
    std::string irdetoContentId;
    std::string irdetoUser;
    std::string irdetoPassword;
    std::string irdetoEventName;
    std::string irdetoEventDescription;
    std::string irdetoEventUrl;
    std::string irdetoEventSubContentType;
    std::string irdetoEventEncryptionType;
    std::string irdetoPolicyGroupText;
    std::string irdetoRequestPeriodText;
    // Or from a Verimatrix key file server: its address and the resource id; the server signals Verimatrix.
    std::string vmxUrl;
    std::string vmxResourceId;
    // Or from a Widevine key server (signed with the key file's widevine_signing_key= and widevine_signing_iv=), an
    // Inside Secure key server (PlayReady, with --playready-la-url) or a BuyDRM KeyOS server (with --key-id, and the
    // key file's buydrm_user_key= and buydrm_server_key=), for the content id.
    std::string widevineKeyServer;
    std::string widevineSigner;
    std::string widevineSigningKey;  // key file only: a secret
    std::string widevineSigningIv;   // key file only: a secret
    std::string insideSecureKeyServer;
    std::string buyDrmKeyServer;
    std::string buyDrmUserKey;    // key file only: a secret
    std::string buyDrmServerKey;  // key file only: a secret
    std::string kmsContentId;
    // The scheme, cenc (the default) or cbcs, and the cbcs constant IV (32 hexadecimal digits or base64 of 16
    // bytes); from the command line or the key file's encryption_scheme= and constant_iv=.
    std::string schemeText;
    std::string constantIvText;

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
    // cbcs instead of cenc, with the operator's constant IV (empty: a random IV for each key).
    bool cbcs = false;
    std::vector<std::uint8_t> constantIv;

    std::int32_t keyPeriod = 0;  // seconds; 0: one key for the run
    std::chrono::milliseconds kmsTimeout{5000};  // each stage of a key request
    std::chrono::milliseconds kmsWait{0};        // 0: wait for the key server until interrupted
    enum class KeyServer { None, Harmonic, Irdeto, Verimatrix, Widevine, InsideSecure, BuyDrm };
    KeyServer keyServerKind = KeyServer::None;
    std::int32_t irdetoRequestPeriod = 0;  // seconds; 0: none
    std::int32_t irdetoPolicyGroupId = 0;
    bool keyServer() const { return keyServerKind != KeyServer::None; }
    bool enabled() const { return !keyId.empty() || keyServer(); }
};

// Reads the key file when there is one, checks every value and fills the normalised fields. Raises ExitError
// (bad command line) naming the option, never quoting a key, a seed or an IV: a key of the wrong length, text
// that is neither hexadecimal nor base64, a malformed key id or system id, a key file that cannot be read, a
// system asked for without a key, settings of two key servers at once, a scheme other than cenc and cbcs, a
// scheme or constant IV without encryption.
void finishEncryptionOptions(EncryptionOptions& options);

// The bytes of hexadecimal text (an even number of digits) or base64 text; empty when it is neither.
std::vector<std::uint8_t> decodeHexOrBase64(const std::string& text);

}  // namespace fmp4mux
