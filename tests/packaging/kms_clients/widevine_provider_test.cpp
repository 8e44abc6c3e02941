// The Widevine provider: the signed request against a vector worked out with the openssl command line, and the
// provider against loopback_server.py's scripted Widevine server (keys of each request, faults by name).
#include <gtest/gtest.h>

#include <string>

#include "packaging/kms_clients/encryption_factory.h"
#include "packaging/kms_clients/widevine_provider.h"
#include "tests/packaging/kms_clients/loopback_server.h"

namespace {
using namespace kmstest;
using namespace tvrn::encoding::packaging::kms_clients;

// Key 20 21 .. 3f and IV 40 41 .. 4f, in base64: the server checks signatures with them.
const enc::WidevineSigningKey kSigning{"ICEiIyQlJicoKSorLC0uLzAxMjM0NTY3ODk6Ozw9Pj8=", "QEFCQ0RFRkdISUpLTE1OTw=="};

TEST(WidevineRequest, SignedOverTheInnerTextAndWithoutPeriodMembers) {
    enc::WidevineConfiguration c{"http://k", "tovrane", kSigning, 10, "channel-1"};
    // The signature: printf '%s' INNER | openssl dgst -sha1 -binary, twelve bytes 0c, then openssl enc -aes-256-cbc
    // -nopad -K 2021..3f -iv 4041..4f, in base64.
    const std::string inner = R"({"content_id":"Y2hhbm5lbC0x","tracks":[{"type":"HD"}]})";
    const WidevineRequestText signed_ = makeWidevineRequest(c);
    EXPECT_EQ(signed_.inner, inner);
    EXPECT_EQ(signed_.outer, R"({"request":"eyJjb250ZW50X2lkIjoiWTJoaGJtNWxiQzB4IiwidHJhY2tzIjpbeyJ0eXBlIjoiSEQifV19",)"
                             R"("signature":"9AsONO5FVAuDkmeMb6FHiSdzKodxmHI0jYT1Su/IC6w=","signer":"tovrane"})");
    c.signing = {};
    c.signer.clear();
    EXPECT_EQ(makeWidevineRequest(c).outer, R"({"request":"eyJjb250ZW50X2lkIjoiWTJoaGJtNWxiQzB4IiwidHJhY2tzIjpbeyJ0eXBlIjoiSEQifV19"})");
    // The test credentials Widevine publishes for its UAT server (signer widevine_test): key 1ae8ccd0..ab9, IV
    // d58ce954..249, content id "test content id"; the signature worked out the same way with openssl.
    const WidevineRequestText published = makeWidevineRequest(
        {"http://k", "widevine_test",
         enc::WidevineSigningKey{"GujM0OeYXMC2IDpVhVoQNK/CUpgOlwypDlICaJ+Uerk=", "1YzpVCA7fJqanUZ/WYOSSQ=="}, 0,
         "test content id"});
    EXPECT_EQ(published.outer, R"({"request":"eyJjb250ZW50X2lkIjoiZEdWemRDQmpiMjUwWlc1MElHbGsiLCJ0cmFja3MiOlt7InR5cGUiOiJIRCJ9XX0=",)"
                               R"("signature":"ak0HdX4T4atXWpHMfSFSZVDME59/Kmufeu8x2tZesWc=","signer":"widevine_test"})");
    c.signing = enc::WidevineSigningKey{"AAECAwQFBgc=", kSigning.signingIv};  // an 8-byte key
    EXPECT_EQ(testkit::failureOf([&] { makeWidevineRequest(c); }), "Rijndael 256 CBC encrypt : invalid parameters");
}

struct Server : Scripted {
    std::unique_ptr<WidevineEncryptionProvider> make(const std::string& name, std::int32_t keyPeriod = 4,
                                                     std::variant<std::monostate, enc::WidevineSigningKey> signing = kSigning) {
        return at(server.url("http", "/widevine/" + name), keyPeriod, signing);
    }
    std::unique_ptr<WidevineEncryptionProvider> at(const std::string& url, std::int32_t keyPeriod = 4,
                                                   std::variant<std::monostate, enc::WidevineSigningKey> signing = {}) {
        return std::make_unique<WidevineEncryptionProvider>(
            enc::WidevineConfiguration{url, "tovrane", signing, keyPeriod, "channel-1"}, enc::TransportSecurity{}, logger,
            HttpTimeouts{std::chrono::milliseconds(1000), std::chrono::milliseconds(1000)});
    }
};

TEST(WidevineProvider, TheKeyOfEachRequestItsSignallingAndRotationByMediaTime) {
    Server wv;
    auto provider = wv.make("ok");
    ASSERT_TRUE(provider->connect());
    // The n-th answer: key id d0d0d0d0 + n + 8 zero bytes, key 80+n .., pssh data 08 01 12 10 + key id.
    expectKey(*provider, "d0d0d0d0000000000000000000000000", hex("808182838485868788898a8b8c8d8e8f"));
    EXPECT_BYTES(protectionBoxesOf(*provider), hex("00000034 'pssh' 00000000 edef8ba9 79d64ace a3c827dc d51d21ed"
                                                   "00000014 08011210 d0d0d0d0 00000000 00000000 00000000"));
    std::string text;
    provider->getContentProtectionText(text, true);
    EXPECT_NE(text.find("cenc:default_KID=\"d0d0d0d0-0000-0000-0000-000000000000\""), std::string::npos) << text;
    EXPECT_NE(text.find("urn:uuid:edef8ba9-79d6-4ace-a3c8-27dcd51d21ed"), std::string::npos) << text;
    EXPECT_NE(text.find("AAAANHBzc2gAAAAA7e+LqXnWSs6jyCfc1R0h7QAAABQIARIQ0NDQ0AAAAAAAAAAAAAAAAA=="), std::string::npos) << text;
    // The first segment sets the clock; a new key once more than the period has passed.
    EXPECT_EQ(provider->updateKey(100 * kSecond), KeyUpdateResult::Unchanged);
    EXPECT_EQ(provider->updateKey(104 * kSecond + kSecond - 1), KeyUpdateResult::Unchanged);
    EXPECT_EQ(provider->updateKey(105 * kSecond), KeyUpdateResult::Updated);
    EXPECT_EQ(keyIdOf(*provider), "d0d0d0d0000000010000000000000000");
    EXPECT_EQ(provider->cryptoPeriodIndex(), 1u);
    expectOneKeyForEver(*wv.make("ok", 0, {}));  // unsigned
    wv.expectNotLogged({"ICEiIyQlJicoKSorLC0uLzAxMjM0NTY3ODk6Ozw9Pj8"});
}

TEST(WidevineProvider, FailuresAtConnectAndDuringTheRun) {
    Server wv;
    const std::string down = downUrl("/widevine/ok");
    const std::string failed = "0 Widevine Key request failed: '";
    const std::pair<std::string, std::string> rows[] = {
        {"not-found", failed + "Response status is NOT_FOUND'"},
        {"no-widevine", failed + "Invalid response'"},
        {"no-tracks", failed + "Invalid response'"},
        {"no-key", failed + "Invalid response'"},
        {"broken", failed + "Invalid response'"},
        {"empty", failed + "HTTP POST returned code 200 : empty response buffer'"},
        {"http-500", failed + "HTTP POST returned code 500 : the key server is in trouble'"},
        {"slow", failed + "HTTP POST failed with error \"HTTP POST to "},  // answered after the 1 s time-out
    };
    for (const auto& [name, line] : rows) {
        EXPECT_FALSE(wv.make(name)->connect()) << name;
        EXPECT_EQ(wv.logger.lines().back().rfind(line, 0), 0u) << name << ": " << wv.logger.lines().back();
    }
    // A signature made with another key: the server says so, and nothing is installed.
    auto wrongKey = wv.make("ok", 4, enc::WidevineSigningKey{"AAECAwQFBgcICQoLDA0ODw==", kSigning.signingIv});
    EXPECT_FALSE(wrongKey->connect());
    EXPECT_TRUE(wv.logger.contains(failed + "Response status is SIGNATURE_FAILED'"));
    auto shortKey = wv.make("short-key");
    EXPECT_TRUE(shortKey->connect());
    EXPECT_TRUE(keyOf(*shortKey).empty());
    // Down at the start, and gone in the middle of the run: the last key stays, and the period index has moved on.
    EXPECT_FALSE(wv.at(down)->connect());
    EXPECT_NE(wv.logger.lines().back().find("Widevine Key request failed: 'HTTP POST failed with error \"HTTP POST to "),
              std::string::npos) << wv.logger.lines().back();
    std::unique_ptr<WidevineEncryptionProvider> running;
    std::string first;
    {
        LoopbackServer gone({"--lifetime", "30"});
        running = wv.at(gone.url("http", "/widevine/ok"), 2);
        ASSERT_TRUE(running->connect());
        first = keyIdOf(*running);
        ASSERT_EQ(running->updateKey(10 * kSecond), KeyUpdateResult::Unchanged);
    }
    EXPECT_EQ(running->updateKey(13 * kSecond), KeyUpdateResult::Failed);
    EXPECT_EQ(keyIdOf(*running), first);
    EXPECT_EQ(running->cryptoPeriodIndex(), 1u);
    EXPECT_NE(wv.logger.lines().back().find(", fallback on last received key"), std::string::npos);
}

// The factory of the key clients: the provider each record gets (none for the scalable licence) and the lines logged.
TEST(KeyClientFactory, BuildsEachProviderAndLogsItsParameters) {
    const struct { enc::EncryptionConfiguration record; bool provider; std::vector<std::string> lines; } rows[] = {
        {enc::WidevineConfiguration{"http://k", "s", kSigning, 10, "channel-1"}, true,
         {"2 Widevine encryption parameters: Content Id = 'channel-1' : Server Url = 'http://k' : Key Change period = "
          "10 sec."}},
        {enc::HarmonicConfiguration{"r", "q", 10, "http://s"}, true,
         {"2 Harmonic KMS full impl.: resourceId='r' , requestorId='q' : KeyPeriod = 10 sec., "
          "KeySessionUrl='http://s'"}},
        {enc::IrdetoConfiguration{.serverUrl = "http://i", .variant = enc::IrdetoGenerateKeysSettings{0, 30},
                                  .contentId = "c", .password = "pw"},
         true,
         {"2 Irdeto encryption parameters: Content Id = 'c' : Server Url = 'http://i' : Key Change period = 30 sec.",
          "2 Irdeto GenerateKeys Encryption: Use 'http://i' as key session url."}},
        {enc::IrdetoConfiguration{.serverUrl = "http://i", .variant = enc::IrdetoPlayReadyScalableLicense{}}, false,
         {"1 Encryption Mode \"Irdeto PlayReady Scalable License\" is not yet implemented"}},
    };
    for (const auto& row : rows) {
        testkit::RecordingLogger logger;
        std::unique_ptr<enc::EncryptionManager> manager;
        tvrn::encoding::packaging::kms_clients::buildEncryptionManager(manager, row.record, {}, logger, nullptr, {});
        EXPECT_EQ(manager && manager->hasProvider(), row.provider) << row.lines[0];
        for (const std::string& line : row.lines) EXPECT_TRUE(logger.contains(line)) << line;
    }
}

}  // namespace
