#pragma once
// What the encryption manager asks of a key source (a key server client, or keys from the configuration), and
// what it tells whoever watches the key server. Operations are declared in their slot order, which is part of
// the interface.
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "packaging/imff_box/box.h"
#include "packaging/imff_box/protection_boxes.h"
#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

// A key id in GUID memory order (as the boxes hold it), and an AES-128 content key.
using imff::imff_box::KeyId;
using ContentKey = std::array<std::uint8_t, 16>;

// Crosses the provider interface as a number: the values are fixed.
enum class KeyUpdateResult : std::uint32_t {
    Updated = 0,    // a key request was made and answered; key id, key and IV may have changed
    Unchanged = 1,  // not time for a request; nothing happened
    Failed = 2,     // a request was made and failed; the previous key stays in force
};

class IEncryptionProvider {
public:
    using Exception = cpp_utils::exception_utils::ExceptionTemplate<IEncryptionProvider>;

    virtual ~IEncryptionProvider() = default;
    // The protection system headers for moov or moof.
    virtual void getProtectionBoxes(imff::imff_box::BoxList& boxes, bool cencForm) = 0;
    // The content protection signalling text of a manifest.
    virtual void getContentProtectionText(std::string& text, bool dashForm) = 0;
    // False while no key id, or no key, is known.
    virtual bool getKeyId(KeyId& keyId) = 0;
    virtual bool getContentKey(ContentKey& key) = 0;
    // The IV a stream starts from: 8 or 16 bytes.
    virtual void getInitialisationVector(std::vector<std::uint8_t>& iv) = 0;
    // When true, the sample encryption box of a fragment carries its own algorithm, IV size and key id.
    virtual bool overridesTrackEncryption() { return false; }
    // Kept for the slot order; the packaging path never calls it and every provider answers true.
    virtual bool acceptsSample(const void* first, const void* second, const void* third) = 0;
    // Called once per segment with the media time of the middle of the segment, in 100 ns units.
    virtual KeyUpdateResult updateKey(std::uint64_t time) {
        (void)time;
        return KeyUpdateResult::Unchanged;
    }
    virtual bool connect() { return true; }
    virtual void disconnect() {}
};

// Told whether the key server answers. Implemented by the filter.
class IEncryptionListener {
public:
    virtual ~IEncryptionListener() = default;
    virtual void OnKeyServerStatus(bool up) = 0;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
