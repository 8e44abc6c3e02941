// The Harmonic KMS provider against harmonic_kms_server.py, a scripted server whose answers were written by hand
// (its docstring gives the keys of each time). SOAP time-outs are cut to half a second through HarmonicOptions.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "packaging/encryption/protection_signalling.h"
#include "packaging/kms_clients/encryption_factory.h"
#include "packaging/kms_clients/harmonic_provider.h"
#include "packaging/kms_clients/http_client.h"
#include "tests/common/boxes.h"
#include "tests/common/bytes.h"
#include "tests/common/loggers.h"
#include "tests/packaging/kms_clients/loopback_server.h"

namespace {

using namespace tvrn::encoding::packaging::kms_clients;
namespace enc = tvrn::encoding::packaging::encryption;
using enc::KeyUpdateResult;
using testkit::hex;

constexpr const char* kKeyIdAtZero = "11111111-2222-3333-4444-555555555555";
constexpr const char* kKeyIdLater = "66666666-7777-8888-9999-aaaaaaaaaaaa";
constexpr std::uint64_t kSecond = 10'000'000;

struct Kms {
    kmstest::LoopbackServer server{{"--lifetime", "30"}, KMS_TEST_HARMONIC_SERVER};
    testkit::RecordingLogger logger;

    std::string url(const std::string& path) const { return server.url("http", path); }
    std::unique_ptr<HarmonicEncryptionProvider> minimal(const std::string& keys, std::int32_t keyPeriod = 10) {
        enc::HarmonicConfiguration c{"resource-1", "requestor-1", keyPeriod};
        c.implementation = 1;
        c.keyProvisioningUrl = url(keys);
        c.drmList = {{"edef8ba9-79d6-4ace-a3c8-27dcd51d21ed", "Widevine"}, {"9a04f079-9840-4286-ab92-e65be0885f95", ""}};
        return std::make_unique<HarmonicEncryptionProvider>(c, enc::TransportSecurity{}, logger, HarmonicOptions{false, -500000});
    }
    std::unique_ptr<HarmonicEncryptionProvider> full(const std::string& session, const std::string& backup = "") {
        enc::HarmonicConfiguration c{"resource-1", "requestor-1", 10, session, backup, "assetType=2;encryptionType=1"};
        return std::make_unique<HarmonicEncryptionProvider>(c, enc::TransportSecurity{}, logger, HarmonicOptions{true, -500000});
    }
    std::string get(const std::string& path) {
        std::string text;
        HttpClient().get(url(path), &text);
        return text;
    }
    // No line of the log holds a key's bytes, in base64 or in hexadecimal, though the responses were dumped.
    void expectNoKeyInTheLog() const {
        const auto lines = logger.lines();
        EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
            return line.find("Harmonic KMS SOAP response: ") != std::string::npos;
        }));
        for (const std::string& line : lines)
            for (const char* key : {"AAECAwQFBgcICQoLDA0ODw==", "EBESExQVFhcYGRobHB0eHw==", "AAECAwQFBgc=",
                                    "000102030405060708090a0b0c0d0e0f", "101112131415161718191a1b1c1d1e1f"})
                EXPECT_EQ(line.find(key), std::string::npos) << line;
    }
};

enc::KeyId keyIdOf(HarmonicEncryptionProvider& provider) {
    enc::KeyId id{};
    EXPECT_TRUE(provider.getKeyId(id));
    return id;
}

testkit::Bytes keyOf(HarmonicEncryptionProvider& provider) {
    enc::ContentKey key{};
    if (!provider.getContentKey(key)) return {};
    return {key.begin(), key.end()};
}

TEST(HarmonicProvider, TheKeyOfTimeZeroWithItsSignalling) {
    Kms kms;
    auto provider = kms.minimal("/keys/ok");
    ASSERT_TRUE(provider->connect());
    EXPECT_EQ(keyIdOf(*provider), enc::parseGuidText(kKeyIdAtZero));
    EXPECT_BYTES(keyOf(*provider), hex("000102030405060708090a0b0c0d0e0f"));
    std::vector<std::uint8_t> iv;
    provider->getInitialisationVector(iv);
    EXPECT_BYTES(iv, testkit::zeros(8));
    EXPECT_TRUE(provider->isKeyRotationEnabled());

    tvrn::encoding::packaging::imff::imff_box::BoxList boxes;
    provider->getProtectionBoxes(boxes, true);
    ASSERT_EQ(boxes.size(), 1u);
    EXPECT_BYTES(testkit::writeBox(boxes[0]),
                 hex("00000024 'pssh' 00000000 edef8ba9 79d64ace a3c827dc d51d21ed 00000004 08011210"));
    std::string text;
    provider->getContentProtectionText(text, false);
    EXPECT_EQ(text,
              "<!-- Common Encryption -->\n"
              "<ContentProtection schemeIdUri=\"urn:mpeg:dash:mp4protection:2011\" value=\"cenc\" />\n"
              "<ContentProtection schemeIdUri=\"urn:uuid:edef8ba9-79d6-4ace-a3c8-27dcd51d21ed\">\n"
              "<cenc:pssh>AAAA</cenc:pssh>\n"
              "</ContentProtection>\n");

    const std::string request = kms.get("/last");
    for (const char* part : {">resource-1</", ":distributionMode>0<", ":streamingMode>0<", ":emi>16420<",
                             ":cryptoPeriod>10<", ":time>0<", ":drmName>Widevine<"})
        EXPECT_NE(request.find(part), std::string::npos) << part;
    const std::string named = "drmName>Widevine</harmonic243:drmName>";
    EXPECT_EQ(request.find("drmName>", request.find(named) + named.size()), std::string::npos)
        << "the second system has no drmName";
    EXPECT_TRUE(kms.logger.contains("2 Harmonic KMS: Use '" + kms.url("/keys/ok") + "' as key provivioning url"));
    EXPECT_TRUE(kms.logger.contains("2 Harmonic KMS: request key (getKeyAndSignalization) for time = 0"));
    kms.expectNoKeyInTheLog();
}

TEST(HarmonicProvider, ANewKeyOnlyOnceTheKeyPeriodHasPassed) {
    Kms kms;
    auto provider = kms.minimal("/keys/ok");
    ASSERT_TRUE(provider->connect());
    EXPECT_EQ(provider->updateKey(10 * kSecond), KeyUpdateResult::Unchanged);
    EXPECT_EQ(provider->updateKey(10 * kSecond + 1), KeyUpdateResult::Updated);
    EXPECT_EQ(keyIdOf(*provider), enc::parseGuidText(kKeyIdLater));
    EXPECT_BYTES(keyOf(*provider), hex("101112131415161718191a1b1c1d1e1f"));
    EXPECT_EQ(provider->updateKey(20 * kSecond + 1), KeyUpdateResult::Unchanged);
    const std::string path = kms.url("/keys/ok").substr(kms.url("").size());
    EXPECT_EQ(kms.get("/calls"), path + " GetKeyAndSignalization 0\n" + path + " GetKeyAndSignalization 100000001\n");

    auto once = kms.minimal("/keys/ok", 0);  // key period 0: the key of connect for ever
    ASSERT_TRUE(once->connect());
    EXPECT_FALSE(once->isKeyRotationEnabled());
    EXPECT_EQ(once->updateKey(1000000 * kSecond), KeyUpdateResult::Unchanged);
    kms.expectNoKeyInTheLog();
}

TEST(HarmonicProvider, AFailedRequestKeepsThePreviousKeyAndAsksAgainAtTheNextSegment) {
    Kms kms;
    auto provider = kms.minimal("/keys/fail-after-first");
    ASSERT_TRUE(provider->connect());
    EXPECT_EQ(provider->updateKey(11 * kSecond), KeyUpdateResult::Failed);
    EXPECT_EQ(provider->updateKey(12 * kSecond), KeyUpdateResult::Failed);
    EXPECT_EQ(keyIdOf(*provider), enc::parseGuidText(kKeyIdAtZero));
    EXPECT_BYTES(keyOf(*provider), hex("000102030405060708090a0b0c0d0e0f"));
    const auto lines = kms.logger.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "0 Harmonic KMS: getKeyAndSignalization failed (key not ready), use previous key"),
              2);
    kms.expectNoKeyInTheLog();
}

TEST(HarmonicProvider, AnswersThatGiveNoKey) {
    Kms kms;
    const auto failed = [&](const std::string& reason) {
        return "0 Harmonic KMS: getKeyAndSignalization failed (" + reason + "), use previous key";
    };
    const std::pair<const char*, std::string> rows[] = {
        {"/keys/refused", failed("unknown resource")},
        {"/keys/fault", "0 Harmonic KMS: soap issue while retrieving new key (GetKeyAndSignalization error; key "
                        "service unavailable), use previous key"},
        {"/keys/malformed", failed("Failed to parse 'GetKeyAndSignalization' : invalid response")},
        {"/keys/empty-key", failed("invalid content key")},
        {"/keys/other-time", "0 Harmonic KMS: getKeyAndSignalization : empty key received for time = 0"},
    };
    for (const auto& [path, line] : rows) {
        auto provider = kms.minimal(path);
        EXPECT_FALSE(provider->connect()) << path;
        EXPECT_TRUE(kms.logger.contains(line)) << path << ": " << kms.logger.lines().back();
        enc::KeyId id{};
        EXPECT_FALSE(provider->getKeyId(id)) << path;
    }
    // A key of 8 bytes arrives, but is no content key.
    auto provider = kms.minimal("/keys/short-key");
    EXPECT_TRUE(provider->connect());
    EXPECT_TRUE(keyOf(*provider).empty());
    kms.expectNoKeyInTheLog();
}

TEST(HarmonicProvider, TheKeySessionGivesTheKeyAddressAndIsDestroyedAtDisconnect) {
    Kms kms;
    auto provider = kms.full(kms.url("/session/active"));
    ASSERT_TRUE(provider->connect());
    EXPECT_EQ(provider->keyProvisioningUrl(), kms.url("/keys/ok"));
    EXPECT_EQ(keyIdOf(*provider), enc::parseGuidText(kKeyIdAtZero));
    provider->disconnect();
    EXPECT_EQ(kms.get("/calls"), "/session/active Heartbeat -\n/session/active CreateKeySession resource-1\n"
                                 "/keys/ok GetKeyAndSignalization 0\n/session/active DestroyKeySession resource-1\n");
    EXPECT_NE(kms.get("/last").find(":DestroyKeySessionRequest>"), std::string::npos);
}

TEST(HarmonicProvider, TheBackupSessionServerWhenTheFirstIsDownOrInStandby) {
    Kms kms;
    const std::string down = "http://127.0.0.1:" + std::to_string(kmstest::closedPort()) + "/session";
    for (const std::string& primary : {down, kms.url("/session/standby")}) {
        auto provider = kms.full(primary, kms.url("/session/active"));
        ASSERT_TRUE(provider->connect()) << primary;
        EXPECT_EQ(provider->currentSessionUrl(), kms.url("/session/active"));
    }
    EXPECT_TRUE(kms.logger.contains("0 Harmonic KMS: switch to backup Key Session server and re-try"));
    EXPECT_TRUE(kms.logger.contains("0 Harmonic KMS: Heartbeat(Key Session): server is 'STANDBY'"));
    EXPECT_TRUE(kms.logger.contains("2 Harmonic KMS: Use '" + kms.url("/session/active") + "' as key session url."));

    auto neither = kms.full(kms.url("/session/standby"), down);
    EXPECT_FALSE(neither->connect());
    EXPECT_EQ(neither->currentSessionUrl(), kms.url("/session/standby"));
    neither.reset();
    auto none = kms.full(down);
    EXPECT_FALSE(none->connect());
}

TEST(HarmonicProvider, AFailedKeyRequestInvalidatesTheSessionForTheNextOne) {
    Kms kms;
    auto provider = kms.full(kms.url("/session/flaky"));
    ASSERT_TRUE(provider->connect());
    EXPECT_EQ(provider->updateKey(11 * kSecond), KeyUpdateResult::Failed);
    EXPECT_EQ(provider->keyProvisioningUrl(), kms.url("/keys/ok"));
    EXPECT_EQ(provider->updateKey(11 * kSecond), KeyUpdateResult::Updated);
    EXPECT_EQ(keyIdOf(*provider), enc::parseGuidText(kKeyIdLater));
    EXPECT_NE(kms.get("/calls").find("/session/flaky InvalidKeySession resource-1\n/keys/ok GetKeyAndSignalization "
                                     "110000000\n"),
              std::string::npos);
}

TEST(HarmonicProvider, TheFactoryLogsTheParametersAndRefusesALongResourceId) {
    testkit::RecordingLogger logger;
    std::unique_ptr<enc::EncryptionManager> manager;
    // Qualified: the encryption library's factory of the same name is found by argument-dependent lookup.
    const auto build = &tvrn::encoding::packaging::kms_clients::buildEncryptionManager;
    enc::HarmonicConfiguration record{"r", "q", 10, "http://s"};
    build(manager, record, {}, logger, nullptr);
    EXPECT_TRUE(manager && manager->hasProvider());
    record.implementation = 1;
    record.keyProvisioningUrl = "http://k";
    build(manager, record, {}, logger, nullptr);
    EXPECT_TRUE(logger.contains(
        "2 Harmonic KMS full impl.: resourceId='r' , requestorId='q' : KeyPeriod = 10 sec., KeySessionUrl='http://s'"));
    EXPECT_TRUE(logger.contains("2 Harmonic KMS minimal impl.: resourceId='r', KeyPeriod= 10 sec., KeyProvisioningUrl='http://k'"));
    record.resourceId.assign(129, 'x');
    EXPECT_EQ(testkit::failureOf([&] { build(manager, record, {}, logger, nullptr); }),
              "Invalid resource identifier.");
    build(manager, enc::EncryptionConfiguration(), {}, logger, nullptr);
    EXPECT_TRUE(manager && !manager->hasProvider());
}

}  // namespace
