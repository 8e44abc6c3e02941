#pragma once
// How a stream tells players which DRM systems protect it: pssh boxes (or their PIFF uuid form) for moov and moof,
// and the manifest's XML text (MPEG-DASH ContentProtection elements, the Smooth Streaming ProtectionHeader). These
// are the builders that providers share, with the PlayReady header, the Widevine and Verimatrix pssh data, UUID text
// readers and base64. Failures throw IEncryptionProvider::Exception unless said otherwise.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "packaging/encryption/i_encryption_provider.h"
#include "packaging/imff_box/protection_boxes.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

using ProtectionSystemBox = imff::imff_box::ProtectionSystemSpecificHeaderBox;
// A PlayReady Header Object: the record list that carries a WRMHEADER (see makePlayReadyObject).
using PlayReadyObject = std::vector<std::uint8_t>;

// The systems this library signals by itself, by their index in the system table.
enum class ProtectionSystem : std::size_t { PlayReady = 0, Verimatrix = 1, Widevine = 2, Marlin = 3 };

inline constexpr const char* kPlayReadySystemIdText = "9A04F079-9840-4286-AB92-E65BE0885F95";
inline constexpr const char* kVerimatrixSystemIdText = "9A27DD82-FDE2-4725-8CBC-4234AA06EC09";
inline constexpr const char* kWidevineSystemIdText = "EDEF8BA9-79D6-4ACE-A3C8-27DCD51D21ED";
inline constexpr const char* kMarlinSystemIdText = "5E629AF5-38DA-4063-8977-97FFBD9902D4";
// Known by text only: Irdeto's system, and the W3C common system that ClearKey players read.
inline constexpr const char* kIrdetoSystemIdText = "80A6BE7E-1448-4C37-9E70-D5AEBE04C8D2";
inline constexpr const char* kClearKeySystemIdText = "1077EFEC-C0B2-4D02-ACE3-3C1E52E2FB4B";

// The 16 bytes of a system id in canonical (writing) order; empty for an index outside the table.
std::vector<std::uint8_t> getProtectionSystemId(std::size_t index);
inline std::vector<std::uint8_t> getProtectionSystemId(ProtectionSystem system) {
    return getProtectionSystemId(static_cast<std::size_t>(system));
}

// A pssh box (cencForm true) or its PIFF uuid form, version 0, of the system id in canonical order. A system id not
// of 16 bytes throws "invalid vector size".
std::shared_ptr<ProtectionSystemBox> makeProtectionBox(std::span<const std::uint8_t> systemId,
                                                       std::vector<std::uint8_t> data, bool cencForm);

// The key id reader: hyphenated UUID text "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" in either case, to GUID memory
// order (first three groups little-endian). Anything else throws "invalid UUID".
KeyId parseGuidText(const std::string& text);
// The reader of system ids that servers send: 36 characters with '-' at 8, 13, 18 and 23 (else "invalid UUID"),
// each pair read as the standard unsigned conversion reads it, into GUID memory order. A pair it cannot read throws
// std::invalid_argument "invalid stoul argument" (std::out_of_range "stoul argument out of range" for a value it
// cannot hold). imff_box::keyIdToUuid gives the canonical order.
KeyId parseUuidFields(const std::string& text);

// The WRMHEADER (version 4.0.0.0) of one key: key length, algorithm, the key id's 16 bytes in base64, its checksum,
// the IIS DRM version, then the licence and licence UI addresses and the domain service id (16 bytes, base64) when
// not empty. One line, URLs unescaped.
std::string makeWrmHeader(const std::string& algorithmId, const std::string& laUrl, const std::string& luiUrl,
                          std::span<const std::uint8_t> domainServiceId, std::span<const std::uint8_t> contentKey,
                          std::span<const std::uint8_t> keyId);
// The PlayReady Header Object of an AES-CTR key: makeWrmHeader's text in UTF-16LE (see wrapWrmHeader).
PlayReadyObject makePlayReadyObject(const std::string& laUrl, std::span<const std::uint8_t> keyId,
                                    std::span<const std::uint8_t> contentKey, const std::string& luiUrl,
                                    std::span<const std::uint8_t> domainServiceId);
// A PlayReady Header Object holding one rights management header record with this text: total length (32 bits),
// record count 1, record type 1, record length (16 bits each), then the text in UTF-16LE without terminator, all
// little-endian. The text is read as UTF-8; bytes that are not UTF-8 widen one to one. A text of more than 32767
// code units is cut there, to fit the record length.
PlayReadyObject wrapWrmHeader(const std::string& wrmHeader);
// The PlayReady checksum of a key: its key id's 16 bytes through AES-128-ECB under the key, the first 8 bytes of
// that in base64. A key or key id of another length, or a cipher failure, throws "Rijndael 128 ECB encrypt : failed".
std::string makePlayReadyChecksum(std::span<const std::uint8_t> contentKey, std::span<const std::uint8_t> keyId);

// Manifest texts. Each builder sets `text`.
// PlayReady alone: the DASH form (Common Encryption without a default key id, then makePlayReadyElement), or the
// Smooth Streaming ProtectionHeader.
void makePlayReadySignalling(std::string& text, const PlayReadyObject& object, bool dashForm);
// The mandatory Common Encryption element, with cenc:default_KID when the text is not empty.
void makeCommonEncryptionElement(std::string& text, const std::string& defaultKidText);
// PlayReady's element with the object in mspr:pro; a commented empty element for an empty object.
void makePlayReadyElement(std::string& text, const PlayReadyObject& object);
void makeVerimatrixElement(std::string& text);
// Marlin's element; with a key id (held in GUID memory order), its content id urn:marlin:kid: and the key id's 32
// lower-case hexadecimal digits in UUID byte order, as tenc shows it.
void makeMarlinElement(std::string& text, const std::optional<KeyId>& keyId);
// Widevine's element; with a pssh (base64 of the whole box), a cenc:pssh child.
void makeWidevineElement(std::string& text, const std::string& psshBase64);

// Widevine's header message for its pssh: algorithm AES-CTR, key id, provider, content id, each field with a
// one-byte length (a field above 255 bytes keeps its bytes and a length byte cut to 8 bits), then the pairs
// 2A 00 and 33 00. The key id's bytes are written as given.
std::vector<std::uint8_t> makeWidevinePsshData(std::span<const std::uint8_t> keyId, const std::string& provider,
                                               std::span<const std::uint8_t> contentId);
// Verimatrix's pssh data: the text's length, 32 bits big-endian, then the text.
std::vector<std::uint8_t> makeVerimatrixPsshData(const std::string& text);

// Standard base64 with '=' padding. A non-empty separator goes after every 64 groups of 4 characters, between
// lines (not at the end).
void base64Encode(const std::uint8_t* bytes, std::size_t length, std::string& text, const std::string& separator);
inline std::string base64Encode(std::span<const std::uint8_t> bytes) {
    std::string text;
    base64Encode(bytes.data(), bytes.size(), text, std::string());
    return text;
}
// Decodes what it can: characters outside the alphabet ('=' included) are skipped, and bits left over at the end
// that make no whole byte are dropped. Never fails.
std::vector<std::uint8_t> base64Decode(const std::string& text);

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
