// The shared signalling builders against values worked out by hand: the PlayReady Header Object layout from
// Microsoft's PlayReady Header Object documentation, the checksum with `openssl enc -aes-128-ecb` on the command
// line, base64 from RFC 4648's vectors, the Widevine header fields byte by byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "packaging/encryption/protection_signalling.h"
#include "tests/common/boxes.h"
#include "tests/common/bytes.h"

namespace {

namespace enc = tvrn::encoding::packaging::encryption;
using testkit::Bytes;
using testkit::hex;

// The GUID 00112233-4455-6677-8899-aabbccddeeff as the system holds key ids (first three groups little-endian).
const Bytes kKeyId = hex("33221100 5544 7766 8899 aabbccddeeff");
// FIPS-197 / SP 800-38A's AES-128 key.
const Bytes kKey = hex("2b7e151628aed2a6abf7158809cf4f3c");
const std::string kKidBase64 = "MyIRAFVEd2aImaq7zN3u/w==";
// printf 3322110055447766 8899aabbccddeeff | xxd -r -p | openssl enc -aes-128-ecb -nopad -K <kKey> gives
// 230f56ed89a93b4e e14d649d4e313437; its first 8 bytes in base64:
const std::string kChecksum = "Iw9W7YmpO04=";

TEST(ProtectionSignalling, UuidReaders) {
    const Bytes guidOrder = kKeyId;
    for (const std::string text : {"00112233-4455-6677-8899-aabbccddeeff", "00112233-4455-6677-8899-AABBCCDDEEFF"}) {
        const enc::KeyId guid = enc::parseGuidText(text), fields = enc::parseUuidFields(text);
        EXPECT_BYTES(Bytes(guid.begin(), guid.end()), guidOrder);
        EXPECT_BYTES(Bytes(fields.begin(), fields.end()), guidOrder);
    }
    const auto guidFailure = [](const std::string& text) {
        return testkit::failureOf<enc::IEncryptionProvider::Exception>([&] { enc::parseGuidText(text); });
    };
    const auto fieldsFailure = [](const std::string& text) {
        return testkit::failureOf<std::logic_error>([&] {
            try {
                enc::parseUuidFields(text);
            } catch (const enc::IEncryptionProvider::Exception& e) {
                throw std::logic_error(e.what());
            }
        });
    };
    for (const auto& [text, guid, fields] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"", "invalid UUID", "invalid UUID"},
             {"00112233445566778899aabbccddeeff", "invalid UUID", "invalid UUID"},
             {"{00112233-4455-6677-8899-aabbccddeeff}", "invalid UUID", "invalid UUID"},
             {"001122334-455-6677-8899-aabbccddeeff", "invalid UUID", "invalid UUID"},
             {"001122g3-4455-6677-8899-aabbccddeeff", "invalid UUID", "invalid stoul argument"},
         }) {
        EXPECT_EQ(guidFailure(text), guid) << text;
        EXPECT_EQ(fieldsFailure(text), fields) << text;
    }
}

TEST(ProtectionSignalling, SystemIdsAndBoxes) {
    EXPECT_BYTES(enc::getProtectionSystemId(enc::ProtectionSystem::PlayReady), hex("9A04F079 98404286 AB92E65B E0885F95"));
    EXPECT_BYTES(enc::getProtectionSystemId(enc::ProtectionSystem::Marlin), hex("5E629AF5 38DA4063 897797FF BD9902D4"));
    EXPECT_TRUE(enc::getProtectionSystemId(4).empty());
    EXPECT_BYTES(testkit::writeBox(enc::makeProtectionBox(enc::getProtectionSystemId(1), {0xAB}, true)),
                 hex("00000021 'pssh' 00000000 9A27DD82 FDE24725 8CBC4234 AA06EC09 00000001 AB"));
    EXPECT_BYTES(testkit::writeBox(enc::makeProtectionBox(enc::getProtectionSystemId(2), {}, false)),
                 hex("00000030 'uuid' D08A4F18 10F34A82 B6C832D8 ABA183D3 00000000 EDEF8BA9 79D64ACE A3C827DC D51D21ED"
                     " 00000000"));
    EXPECT_EQ(testkit::failureOf<enc::IEncryptionProvider::Exception>(
                  [] { enc::makeProtectionBox(Bytes(15), {}, true); }),
              "invalid vector size");
}

TEST(ProtectionSignalling, Base64) {
    // RFC 4648, section 10.
    for (const auto& [plain, coded] : std::vector<std::pair<std::string, std::string>>{
             {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}}) {
        EXPECT_EQ(enc::base64Encode(Bytes(plain.begin(), plain.end())), coded);
        EXPECT_EQ(enc::base64Decode(coded), Bytes(plain.begin(), plain.end()));
    }
    // Characters outside the alphabet are skipped wherever they are.
    EXPECT_EQ(enc::base64Decode(" Zm9v\r\n\tYm{Fy}~ "), hex("'foobar'"));
    // 65 groups: the separator after the 64th, none at the end.
    std::string text;
    enc::base64Encode(Bytes(195, 0).data(), 195, text, "|");
    EXPECT_EQ(text, std::string(256, 'A') + "|AAAA");
}

TEST(ProtectionSignalling, PlayReadyHeader) {
    EXPECT_EQ(enc::makePlayReadyChecksum(kKey, kKeyId), kChecksum);
    // A sixteen-zero key id still has its checksum; a key of another length has none.
    EXPECT_EQ(enc::makePlayReadyChecksum(kKey, Bytes(16, 0)).size(), 12u);
    EXPECT_EQ(testkit::failureOf<enc::IEncryptionProvider::Exception>(
                  [] { enc::makePlayReadyChecksum(Bytes(15, 1), kKeyId); }),
              "Rijndael 128 ECB encrypt : failed");

    const std::string head = "<WRMHEADER xmlns=\"http://schemas.microsoft.com/DRM/2007/03/PlayReadyHeader\" "
                             "version=\"4.0.0.0\"><DATA><PROTECTINFO><KEYLEN>16</KEYLEN><ALGID>AESCTR</ALGID>"
                             "</PROTECTINFO><KID>" + kKidBase64 + "</KID><CHECKSUM>" + kChecksum + "</CHECKSUM>"
                             "<CUSTOMATTRIBUTES><IIS_DRM_VERSION>7.1.1064.0</IIS_DRM_VERSION></CUSTOMATTRIBUTES>";
    // The domain service ffeeddcc-bbaa-9988-7766-554433221100 in GUID memory order, base64.
    const Bytes domain = hex("ccddeeff aabb 8899 7766554433221100");
    EXPECT_EQ(enc::makeWrmHeader("AESCTR", "", "", {}, kKey, kKeyId), head + "</DATA></WRMHEADER>");
    EXPECT_EQ(enc::makeWrmHeader("AESCTR", "http://la/?a=1&b", "http://ui", domain, kKey, kKeyId),
              head + "<LA_URL>http://la/?a=1&b</LA_URL><LUI_URL>http://ui</LUI_URL><DS_ID>zN3u/6q7iJl3ZlVEMyIRAA==</DS_ID>"
                     "</DATA></WRMHEADER>");

    // Total length (chars x 2 + 10), record count 1, record type 1, record length (chars x 2), UTF-16LE text.
    EXPECT_BYTES(enc::wrapWrmHeader("<W/>"), hex("12000000 0100 0100 0800 3C00 5700 2F00 3E00"));
    EXPECT_BYTES(enc::wrapWrmHeader("\xC3\xA9"), hex("0C000000 0100 0100 0200 E900"));  // U+00E9 from UTF-8
    const enc::PlayReadyObject object = enc::makePlayReadyObject("", kKeyId, kKey, "", {});
    EXPECT_EQ(object, enc::wrapWrmHeader(head + "</DATA></WRMHEADER>"));
}

TEST(ProtectionSignalling, ManifestTexts) {
    const std::string cenc = "<!-- Common Encryption -->\n"
                             "<ContentProtection schemeIdUri=\"urn:mpeg:dash:mp4protection:2011\" value=\"cenc\"\n";
    const std::string playReady = "<ContentProtection schemeIdUri=\"urn:uuid:9A04F079-9840-4286-AB92-E65BE0885F95\">";
    const std::string widevine = "<!-- Widevine -->\n<ContentProtection value=\"widevine\" "
                                 "schemeIdUri=\"urn:uuid:edef8ba9-79d6-4ace-a3c8-27dcd51d21ed\"";
    const std::string marlin = "<!-- Marlin -->\n"
                               "<ContentProtection schemeIdUri=\"urn:uuid:5E629AF5-38DA-4063-8977-97FFBD9902D4\">\n";
    const enc::PlayReadyObject object = {1, 2, 3};  // base64 AQID
    enc::KeyId keyId{};
    std::copy(kKeyId.begin(), kKeyId.end(), keyId.begin());
    const auto text = [](auto build) {
        std::string out = "left over";
        build(out);
        return out;
    };
    const std::vector<std::pair<std::string, std::string>> table = {
        {text([](std::string& t) { enc::makeCommonEncryptionElement(t, ""); }), cenc + "/>\n"},
        {text([](std::string& t) { enc::makeCommonEncryptionElement(t, "00112233-4455-6677-8899-aabbccddeeff"); }),
         cenc + "cenc:default_KID=\"00112233-4455-6677-8899-aabbccddeeff\"\n/>\n"},
        {text([](std::string& t) { enc::makePlayReadyElement(t, {}); }),
         "<!-- PlayReady -->\n" + playReady + "\n</ContentProtection>"},
        {text([&](std::string& t) { enc::makePlayReadyElement(t, object); }),
         playReady + "\n  <mspr:pro>AQID</mspr:pro>\n</ContentProtection>\n"},
        {text([&](std::string& t) { enc::makePlayReadySignalling(t, object, true); }),
         cenc + "/>\n" + playReady + "\n  <mspr:pro>AQID</mspr:pro>\n</ContentProtection>\n"},
        {text([&](std::string& t) { enc::makePlayReadySignalling(t, object, false); }),
         "<ProtectionHeader SystemID=\"9a04f079-9840-4286-ab92-e65be0885f95\">AQID</ProtectionHeader>"},
        {text([](std::string& t) { enc::makeVerimatrixElement(t); }),
         "<!-- Verimatrix -->\n<ContentProtection schemeIdUri=\"urn:uuid:9A27DD82-FDE2-4725-8CBC-4234AA06EC09\">\n"
         "</ContentProtection>"},
        {text([](std::string& t) { enc::makeMarlinElement(t, std::nullopt); }), marlin + "</ContentProtection>\n"},
        {text([&](std::string& t) { enc::makeMarlinElement(t, keyId); }),
         marlin + "<mas:MarlinContentIds>\n"
                  " <mas:MarlinContentId>urn:marlin:kid:00112233445566778899aabbccddeeff</mas:MarlinContentId>\n"
                  "</mas:MarlinContentIds>\n</ContentProtection>\n"},
        {text([](std::string& t) { enc::makeWidevineElement(t, ""); }), widevine + "/>"},
        {text([](std::string& t) { enc::makeWidevineElement(t, "AAAA"); }),
         widevine + ">\n<cenc:pssh>AAAA</cenc:pssh>\n</ContentProtection>"},
    };
    for (const auto& [got, expected] : table) EXPECT_EQ(got, expected);
}

TEST(ProtectionSignalling, PsshData) {
    const Bytes contentId = hex("0123456789abcdef0123456789abcdef");
    // Field 1 (varint AES-CTR), 2 key id, 3 provider, 4 content id, each with one length byte; then 2A 00 33 00.
    EXPECT_BYTES(enc::makeWidevinePsshData(hex("00112233445566778899aabbccddeeff"), "tovrane", contentId),
                 hex("0801 1210 00112233445566778899aabbccddeeff 1A07 'tovrane' 2210 0123456789abcdef0123456789abcdef"
                     " 2A00 3300"));
    // 300 bytes of provider: the length byte is 300 mod 256 = 44 (0x2C), and all 300 bytes follow.
    const std::string provider(300, 'p');
    EXPECT_BYTES(enc::makeWidevinePsshData(Bytes(16, 0xAA), provider, {}),
                 testkit::cat({hex("0801 1210"), Bytes(16, 0xAA), hex("1A2C"), Bytes(300, 'p'), hex("2200 2A00 3300")}));
    EXPECT_BYTES(enc::makeVerimatrixPsshData("abc"), hex("00000003 'abc'"));
}

}  // namespace
