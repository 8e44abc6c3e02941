// The PlayReady key servers against loopback_server.py's scripted services: Inside Secure (a key per request,
// rotated by media time, the position the wall clock), BuyDRM KeyOS (one request, the server's PlayReady header),
// and the Viaccess and PlayReady packaging client libraries, with their failures.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "packaging/kms_clients/buydrm_provider.h"
#include "packaging/kms_clients/inside_secure_provider.h"
#include "packaging/kms_clients/playready_packaging_client.h"
#include "packaging/kms_clients/viaccess_client.h"
#include "tests/packaging/kms_clients/loopback_server.h"

namespace {
using namespace kmstest;
using namespace tvrn::encoding::packaging::kms_clients;
constexpr int kTimeout = -1000000;  // 1 s, in gSOAP's microseconds

// Text as UTF-16LE bytes, as a PlayReady header holds it.
testkit::Bytes utf16(const std::string& text) {
    testkit::Bytes out;
    for (const char c : text) out.insert(out.end(), {static_cast<std::uint8_t>(c), 0});
    return out;
}
bool holds(const testkit::Bytes& bytes, const testkit::Bytes& part) {
    return std::search(bytes.begin(), bytes.end(), part.begin(), part.end()) != bytes.end();
}

TEST(InsideSecureProvider, AKeyAtConnectAndOnceEachPeriodWithItsPlayReadyHeader) {
    Scripted is;
    const auto make = [&](const std::string& name, std::int32_t period, const std::string& contentId = "channel-1") {
        return std::make_unique<InsideSecureEncryptionProvider>(
            enc::InsideSecureConfiguration{name.rfind("http", 0) == 0 ? name : is.url("/insidesecure/" + name),
                                           "https://licence.invalid/pr", contentId, period},
            enc::TransportSecurity{}, is.logger, kTimeout, [] { return std::uint64_t{1764000000}; });
    };
    auto provider = make("ok", 4);
    ASSERT_TRUE(provider->connect());
    const std::string request = is.get("/last/insidesecure");
    expectInOrder(request, {"protectionSystem>PlayReady<", "contentID>channel-1<", "position>1764000000<"});
    expectKey(*provider, "15150000000041518000000000000000", hex("404142434445464748494a4b4c4d4e4f"));
    const testkit::Bytes box = protectionBoxesOf(*provider);
    EXPECT_TRUE(box.size() > 4 && testkit::be32(box.data()) == box.size()) << "one box";
    EXPECT_TRUE(holds(box, hex("9a04f079 98404286 ab92e65b e0885f95"))) << "PlayReady's system id";
    EXPECT_TRUE(holds(box, utf16("<LA_URL>https://licence.invalid/pr</LA_URL>")));
    // The first segment sets the clock; a new key once more than the period has passed, none without a period.
    EXPECT_EQ(provider->updateKey(50 * kSecond), KeyUpdateResult::Unchanged);
    EXPECT_EQ(provider->updateKey(54 * kSecond + kSecond - 1), KeyUpdateResult::Unchanged);
    EXPECT_EQ(provider->updateKey(55 * kSecond), KeyUpdateResult::Updated);
    EXPECT_EQ(keyIdOf(*provider), "15150000000141518000000000000000");
    expectOneKeyForEver(*make("ok", 0));

    // Failures at connect escape to the filter's loop; during the run they keep the last key.
    const std::pair<std::string, std::string> rows[] = {
        {"fault", "provisionKey error; resource unknown"},
        {"short-key", "Invalid encryption key size from Inside Secure"},
        {"bad-key-id", "Invalid Key Id received from Inside Secure"},
    };
    for (const auto& [name, message] : rows) EXPECT_EQ(testkit::failureOf([&] { make(name, 4)->connect(); }), message);
    // Down at the start, or answering after the 1 s time-out: the connection fails, and the filter keeps waiting.
    for (const std::string& at : {downUrl("/insidesecure/ok"), std::string("slow")})
        EXPECT_EQ(testkit::failureOf([&] { make(at, 2)->connect(); }).rfind("provisionKey error; ", 0), 0u) << at;
    EXPECT_EQ(testkit::failureOf([&] { make("ok", 4, "")->connect(); }), "Invalid configuration : 'Content Id' is empty");
    std::unique_ptr<InsideSecureEncryptionProvider> running;
    {
        LoopbackServer gone({"--lifetime", "30"});
        running = make(gone.url("http", "/insidesecure/ok"), 2);
        ASSERT_TRUE(running->connect());
        ASSERT_EQ(running->updateKey(kSecond), KeyUpdateResult::Unchanged);
    }
    const std::string kept = keyIdOf(*running);
    EXPECT_EQ(running->updateKey(4 * kSecond), KeyUpdateResult::Failed);
    EXPECT_EQ(keyIdOf(*running), kept);
    EXPECT_NE(is.logger.lines().back().find("0 Encryption exception: provisionKey error; "), std::string::npos);
    EXPECT_NE(is.logger.lines().back().find(", use previous key"), std::string::npos);
    is.expectNotLogged({"QEFCQ0RFRkdISUpLTE1OTw=="});
}

TEST(BuyDrmProvider, TheRequestDocumentTheServersHeaderAndTheAnswersFailures) {
    const enc::BuyDrmConfiguration record{"0a0b0c0d-0102-0304-0506-0708090a0b0c", "user-SECRET-1", "server-SECRET-2",
                                          "movie<1>", ""};
    EXPECT_EQ(makeKeyOsRequest(record),
              "<KeyOSEncryptionInfoRequest><APIVersion>5.0.0.2</APIVersion><DRMType>smooth</DRMType><EncoderVersion>"
              "tovrane-fmp4 1</EncoderVersion><UserKey>user-SECRET-1</UserKey><KeyID>0a0b0c0d-0102-0304-0506-"
              "0708090a0b0c</KeyID><ContentID>movie&lt;1&gt;</ContentID><fl_GeneratePRHeader>true</fl_GeneratePRHeader>"
              "<MediaID>movie&lt;1&gt;</MediaID></KeyOSEncryptionInfoRequest>");
    Scripted kos;
    const auto make = [&](const std::string& name, std::string userKey = "user-SECRET-1") {
        enc::BuyDrmConfiguration c = record;
        c.serverUrl = name.rfind("http", 0) == 0 ? name : kos.url("/keyos/" + name);
        c.userKey = std::move(userKey);
        return std::make_unique<BuyDrmEncryptionProvider>(c, enc::TransportSecurity{}, kos.logger, kTimeout);
    };
    auto provider = make("ok");
    ASSERT_TRUE(provider->connect());
    expectKey(*provider, "0a0b0c0d01020304050607080" "90a0b0c", hex("606162636465666768696a6b6c6d6e6f"));
    EXPECT_EQ(provider->updateKey(1000 * kSecond), KeyUpdateResult::Unchanged);
    // The pssh holds the server's header as a PlayReady object: total length, one record of type 1, UTF-16LE.
    const std::string header = "<WRMHEADER xmlns=\"http://schemas.microsoft.com/DRM/2007/03/PlayReadyHeader\" "
                               "version=\"4.0.0.0\"><DATA><PROTECTINFO><KEYLEN>16</KEYLEN><ALGID>AESCTR</ALGID>"
                               "</PROTECTINFO><KID>kid-from-keyos</KID><LA_URL>https://keyos.invalid/licence</LA_URL>"
                               "</DATA></WRMHEADER>";
    const std::uint32_t length = static_cast<std::uint32_t>(2 * header.size());
    testkit::Bytes object{static_cast<std::uint8_t>((length + 10) & 0xff), static_cast<std::uint8_t>((length + 10) >> 8), 0, 0,
                          1, 0, 1, 0, static_cast<std::uint8_t>(length & 0xff), static_cast<std::uint8_t>(length >> 8)};
    const testkit::Bytes text = utf16(header);
    object.insert(object.end(), text.begin(), text.end());
    const testkit::Bytes box = protectionBoxesOf(*provider);
    EXPECT_TRUE(box.size() > 4 && testkit::be32(box.data()) == box.size()) << "one box";
    EXPECT_TRUE(holds(box, object));
    EXPECT_TRUE(make("no-licuiurl")->connect());

    const std::string failed = "0 BuyDRM KeyOS request failed: ";
    const std::pair<std::string, std::string> rows[] = {
        {"no-keyid", "KeyOS soap response: KeyId is empty"},
        {"no-contentkey", "KeyOS soap response: ContentKey is empty"},
        {"no-licacqurl", "KeyOS soap response: LicAcqURL is empty"},
        {"no-prheader", "KeyOS soap response: PRHeader is empty"},
        {"not-xml", "KeyOS soap response: invalid XML"},
        {"fault", "RequestEncryptionInfo error; resource unknown"},
        {"short-key", "the content key is not 16 bytes"},
    };
    for (const auto& [name, message] : rows) {
        EXPECT_FALSE(make(name)->connect()) << name;
        EXPECT_EQ(kos.logger.lines().back(), failed + message) << name;
    }
    for (const std::string& at : {std::string("slow"), downUrl("/keyos/ok")}) {  // past the 1 s time-out; nothing there
        EXPECT_FALSE(make(at)->connect()) << at;
        EXPECT_EQ(kos.logger.lines().back().rfind(failed + "RequestEncryptionInfo error; ", 0), 0u) << kos.logger.lines().back();
    }
    EXPECT_FALSE(make("ok", "user-wrong")->connect());
    EXPECT_EQ(kos.logger.lines().back(), failed + "Invalid user key");
    kos.expectNotLogged({"SECRET", "YGFiY2RlZmdoaWprbG1ubw=="});
}

TEST(ViaccessClient, TheKeyAndEachSystemsInformationOrTheFailureOfTheMissingPart) {
    Scripted via;
    const auto ask = [&](const std::string& name, bool changeKey = false) {
        return ViaccessClient(via.url("/viaccess/" + name), enc::TransportSecurity{}, via.logger, kTimeout)
            .getProtectionInfo("channel-1", changeKey);
    };
    const ViaccessProtectionInfo info = ask("ok", true);
    const std::string request = via.get("/last/viaccess");
    expectInOrder(request, {"ProtocolVersion>1<", "ContentId>channel-1<", "ProtectionSystem>PLAYREADY<",
                             "ProtectionSystem>VODRM<", "ChangeKey>true<"});
    EXPECT_BYTES(info.key, hex("707172737475767778797a7b7c7d7e7f"));
    ASSERT_TRUE(info.playReady && info.vodrm);
    EXPECT_EQ(info.playReady->keyId, "0a0b0c0d-0102-0304-0506-0708090a0b0c");
    EXPECT_EQ(std::tie(info.playReady->licenseAcquisitionUrl, info.playReady->licenseAcquisitionUiUrl,
                       info.playReady->customData, info.playReady->serviceId),
              std::make_tuple(std::string("https://via.invalid/pr"), std::string("https://via.invalid/ui"),
                              std::string("cd"), std::string("svc")));
    EXPECT_BYTES(info.playReadyPssh, hex("00000001"));
    EXPECT_EQ(*info.vodrm, "vodrm");
    EXPECT_BYTES(info.vodrmPssh, hex("00000002"));
    const std::pair<std::string, std::string> rows[] = {
        {"fault", "getProtectionInfo error; resource unknown"},
        {"no-key", "Returned Key is empty"},
        {"no-list", "Invalid returned protection list"},
        {"no-pssh", "Invalid returned PSSH"},
        {"unknown-system", "Invalid returned Protection Specific Information"},
        {"no-playready-key-id", "Invalid returned PlayReady cProtection Specific Information"},
    };
    for (const auto& [name, message] : rows) EXPECT_EQ(testkit::failureOf([&] { ask(name); }), message) << name;
}

TEST(PlayReadyPackagingClient, ThePackagingDataForItsDurationsOrTheFailure) {
    EXPECT_EQ(packagingDuration(93784), "P1DT2H3M4S");
    EXPECT_EQ(packagingDuration(0), "P0DT0H0M0S");
    Scripted prp;
    const auto ask = [&](const std::string& name) {
        return PlayReadyPackagingClient(prp.url("/prpackaging/" + name), enc::TransportSecurity{}, prp.logger, kTimeout)
            .acquirePackagingData("channel-1", 93784, 3600);
    };
    const PlayReadyPackagingData data = ask("ok");
    const std::string request = prp.get("/last/prpackaging");
    expectInOrder(request, {"ContentId>channel-1<", "KeyRotationDuration>P1DT2H3M4S<", "LicenseDuration>P0DT1H0M0S<"});
    EXPECT_EQ(data.keyId, "0a0b0c0d-0102-0304-0506-0708090a0b0c");
    EXPECT_BYTES(data.contentKey, hex("505152535455565758595a5b5c5d5e5f"));
    EXPECT_EQ(data.playReadyHeader, "<WRMHEADER/>");
    EXPECT_EQ(testkit::failureOf([&] { ask("fault"); }), "request failed 2");  // gSOAP's code of a server fault
    for (const char* name : {"short-key", "no-header"})
        EXPECT_EQ(testkit::failureOf([&] { ask(name); }), "Failed to parse 'PackagingDataResult' : invalid response ")
            << name;
    prp.expectNotLogged({"UFFSU1RVVldYWVpbXF1eXw=="});
}

}  // namespace
