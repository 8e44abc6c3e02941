#pragma once
// The one object through which the packaging core reaches content protection. It owns the provider, installs a
// key when the provider's key id changes, asks for a key once per segment, and tells the listener whether the
// key server answered. Not locked: all of it runs on the segment-building thread, after `connect`.
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "packaging/encryption/aes_cbc.h"
#include "packaging/encryption/aes_ctr.h"
#include "packaging/encryption/encryption_configuration.h"
#include "packaging/encryption/i_encryption_provider.h"
#include "packaging/imff_box/box.h"
#include "support/exceptions/corvane_exception.h"
#include "support/log/i_logger.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

class EncryptionManager {
public:
    using Exception = cpp_utils::exception_utils::ExceptionTemplate<EncryptionManager>;

    // Without a provider the stream is not encrypted: connect answers false and key operations fail.
    explicit EncryptionManager(std::unique_ptr<IEncryptionProvider> provider = nullptr,
                               IEncryptionListener* listener = nullptr);
    ~EncryptionManager();
    EncryptionManager(const EncryptionManager&) = delete;
    EncryptionManager& operator=(const EncryptionManager&) = delete;

    bool hasProvider() const { return m_provider != nullptr; }

    // False without a provider; a provider's exception comes out as this class's with the same text.
    bool connect();
    // The provider's disconnect, before the manager goes; nothing without a provider.
    void disconnect();

    // Once per segment, before its samples are encrypted, with the media time of the segment's middle (100 ns).
    // Installs the provider's key when its key id changed, whatever the answer. True when a request was answered:
    // `iv` then holds the provider's IV, from which every stream starts again. False otherwise, `iv` empty.
    // A provider exception or a new key id without a key tells the listener the server is down and throws.
    bool updateKey(std::uint64_t time, std::vector<std::uint8_t>& iv);

    // Whether the provider knows a key id: the segment is encrypted only then.
    bool hasKey() const;
    // The provider's key id; false without a provider or while it knows none.
    bool getKeyId(KeyId& keyId) const;
    bool overridesTrackEncryption() const;
    // Copies the provider's IV into `iv`; true when it has 8 or 16 bytes.
    bool fillInitialisationVector(std::vector<std::uint8_t>& iv) const;
    // The length of the provider's IV; 0 without a provider.
    std::size_t getInitialisationVectorSize() const;

    // The provider's signalling; "No Encryption Provider Specified" without one.
    void getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) const;
    void getContentProtectionText(std::string& text, bool dashForm) const;

    // AES-128 CTR with the installed key over `length` bytes (source == destination for in place), starting at
    // the 16-byte `counter` and leaving in it the block that comes next (a partial last block counts whole).
    // The counter's low 64 bits wrap to zero without touching the high 64. Throws "No Encryption Provider
    // Specified", "Initialisation vector : invalid length" for a counter not of 16 bytes, and "Rijndael 128 CTR
    // encrypt : failed (error N)" for a negative length (N = -1), when no key was ever installed (N = -2), or
    // when OpenSSL fails (its reason code).
    void encryptCtr(const std::uint8_t* source, std::uint8_t* destination, std::int64_t length,
                    std::span<std::uint8_t> counter);

    // The scheme samples are encrypted with; cenc unless set. For cbcs, the configured constant IV, or a random
    // one drawn here and again at each key change after the first (the first key keeps the IV the init segment
    // already announced). Set before the first key is installed: the CBC key schedule is made with the key.
    // Throws "Initialisation vector : random generation failed" when no IV can be drawn.
    void setScheme(const SchemeSettings& settings);
    EncryptionScheme scheme() const { return m_scheme; }
    // The cbcs constant IV: 16 bytes, all zeros under cenc.
    const std::array<std::uint8_t, 16>& constantIv() const { return m_constantIv; }

    // AES-128 CBC in place over one protected range with the installed key, from the constant IV, with the pattern
    // `crypt`:`skip` (0:0 for every whole block); a trailing partial block stays clear. Throws "No Encryption
    // Provider Specified", and "Rijndael 128 CBC encrypt : failed (error N)" when no key was ever installed
    // (N = -2) or when OpenSSL fails (its reason code).
    void encryptCbc(std::uint8_t* data, std::size_t length, std::uint8_t crypt, std::uint8_t skip);

private:
    IEncryptionListener* m_listener;
    std::unique_ptr<IEncryptionProvider> m_provider;
    KeyId m_currentKeyId{};
    AesCtr64 m_keySchedule;
    AesCbcPattern m_cbcKeySchedule;
    EncryptionScheme m_scheme = EncryptionScheme::Cenc;
    std::array<std::uint8_t, 16> m_constantIv{};
    bool m_drawsConstantIv = false;
    bool m_keyInstalled = false;
};

// Builds a manager for `configuration` (with its scheme), holding `listener` (not owned, may be null). The key-server clients build on
// this library, so their providers are not here: kms_clients::buildEncryptionManager, which the filter uses, adds
// them and hands every other mode to this one. Manual PlayReady and Multi-DRM
// get their providers, after an info line of their parameters (the key seed masked, content keys left out); a
// Manual PlayReady configuration that does not build throws as buildManualPlayReadyProvider does. Modes whose
// provider is not available here get no provider and a warning; a number outside the modes throws
// std::logic_error "internal assertion failure".
void buildEncryptionManager(std::unique_ptr<EncryptionManager>& manager, const EncryptionConfiguration& configuration,
                            const TransportSecurity& transportSecurity, tvrn::log::ILogger& logger,
                            IEncryptionListener* listener);

// A secret for a log line: with k = 1 below 7 characters and 3 from 7 on, the first k + 1 and the last k
// characters stay and each other one becomes '*'.
std::string maskSecret(const std::string& text);

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
