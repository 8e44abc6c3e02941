// The Harmonic KMS provider against loopback_server.py's scripted KMS; SOAP time-outs cut to 0.5 s by injection.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "packaging/kms_clients/encryption_factory.h"
#include "tests/packaging/kms_clients/loopback_server.h"

namespace {
using namespace kmstest;
using namespace tvrn::encoding::packaging::kms_clients;
using Provider = std::unique_ptr<HarmonicEncryptionProvider>;

const testkit::Bytes kKeyAtZero = hex("000102030405060708090a0b0c0d0e0f");
const testkit::Bytes kKeyLater = hex("101112131415161718191a1b1c1d1e1f");
constexpr const char* kIdAtZero = "11111111222233334444555555555555";
constexpr const char* kIdLater = "66666666777788889999aaaaaaaaaaaa";

struct Kms : Scripted {
    Provider make(enc::HarmonicConfiguration c) {
        c.resourceId = "resource-1";
        c.drmList = {{"edef8ba9-79d6-4ace-a3c8-27dcd51d21ed", "Widevine"}, {"9a04f079-9840-4286-ab92-e65be0885f95", ""}};
        return std::make_unique<HarmonicEncryptionProvider>(c, enc::TransportSecurity{}, logger, HarmonicOptions{false, -500000});
    }
    Provider minimal(const std::string& keys, std::int32_t keyPeriod = 10) {
        return make({.keyPeriod = keyPeriod, .implementation = 1, .keyProvisioningUrl = url(keys)});
    }
    Provider full(const std::string& session, const std::string& backup = "") {
        return make({.requestorId = "requestor-1", .keyPeriod = 10, .keySessionUrl = session,
                     .backupKeySessionUrl = backup, .keySessionSettings = "assetType=2"});
    }
    // Responses were dumped, and no line holds a key, in base64 or in hexadecimal.
    void expectNoKeyInTheLog() const {
        EXPECT_TRUE(logger.mentions("Harmonic KMS SOAP response: "));
        expectNotLogged({"AAECAwQFBgcICQoLDA0ODw==", "EBESExQVFhcYGRobHB0eHw==", "AAECAwQFBgc=",
                         "000102030405060708090a0b0c0d0e0f", "101112131415161718191a1b1c1d1e1f"});
    }
};

TEST(HarmonicProvider, TheKeyOfTimeZeroWithItsSignallingThenANewKeyOnceThePeriodHasPassed) {
    Kms kms;
    Provider provider = kms.minimal("/keys/ok");
    ASSERT_TRUE(provider->connect());
    expectKey(*provider, kIdAtZero, kKeyAtZero);
    std::vector<std::uint8_t> iv;  // eight zero bytes, whatever the server's IV
    provider->getInitialisationVector(iv);
    EXPECT_BYTES(iv, testkit::zeros(8));
    EXPECT_BYTES(protectionBoxesOf(*provider),
                 hex("00000024 'pssh' 00000000 edef8ba9 79d64ace a3c827dc d51d21ed 00000004 08011210"));
    std::string text;
    provider->getContentProtectionText(text, false);
    EXPECT_EQ(text, "<!-- Common Encryption -->\n"
                    "<ContentProtection schemeIdUri=\"urn:mpeg:dash:mp4protection:2011\" value=\"cenc\" />\n"
                    "<ContentProtection schemeIdUri=\"urn:uuid:edef8ba9-79d6-4ace-a3c8-27dcd51d21ed\">\n"
                    "<cenc:pssh>AAAA</cenc:pssh>\n</ContentProtection>\n");
    const std::string request = kms.get("/last/GetKeyAndSignalization");
    expectInOrder(request, {">resource-1</", ":distributionMode>0<", ":streamingMode>0<", ":emi>16420<",
                            ":cryptoPeriod>10<", ":time>0<", "drmName>Widevine</harmonic243:drmName>"});

    EXPECT_TRUE(provider->isKeyRotationEnabled());
    EXPECT_EQ(provider->updateKey(10 * kSecond), KeyUpdateResult::Unchanged);
    EXPECT_EQ(provider->updateKey(10 * kSecond + 1), KeyUpdateResult::Updated);
    expectKey(*provider, kIdLater, kKeyLater);
    EXPECT_EQ(provider->updateKey(20 * kSecond + 1), KeyUpdateResult::Unchanged);
    EXPECT_EQ(kms.get("/calls"), "/keys/ok GetKeyAndSignalization 0\n/keys/ok GetKeyAndSignalization 100000001\n");
    expectOneKeyForEver(*kms.minimal("/keys/ok", 0));
    kms.expectNoKeyInTheLog();
}

TEST(HarmonicProvider, AFailedRequestKeepsThePreviousKeyAndAsksAgainAtTheNextSegment) {
    Kms kms;
    Provider provider = kms.minimal("/keys/fail-after-first");
    ASSERT_TRUE(provider->connect());
    EXPECT_EQ(provider->updateKey(11 * kSecond), KeyUpdateResult::Failed);
    EXPECT_EQ(provider->updateKey(12 * kSecond), KeyUpdateResult::Failed);
    expectKey(*provider, kIdAtZero, kKeyAtZero);
    const std::string failed = "0 Harmonic KMS: getKeyAndSignalization failed (";
    const auto lines = kms.logger.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), failed + "key not ready), use previous key"), 2);
    // Answers that give no key at all.
    const std::pair<const char*, std::string> rows[] = {
        {"/keys/refused", failed + "unknown resource), use previous key"},
        {"/keys/fault", "0 Harmonic KMS: soap issue while retrieving new key (GetKeyAndSignalization error; "
                        "resource unknown), use previous key"},
        {"/keys/malformed", failed + "Failed to parse 'GetKeyAndSignalization' : invalid response), use previous key"},
        {"/keys/empty-key", failed + "invalid content key), use previous key"},
        {"/keys/other-time", "0 Harmonic KMS: getKeyAndSignalization : empty key received for time = 0"},
    };
    for (const auto& [path, line] : rows) {
        EXPECT_FALSE(kms.minimal(path)->connect()) << path;
        EXPECT_TRUE(kms.logger.contains(line)) << path << ": " << kms.logger.lines().back();
    }
    Provider shortKey = kms.minimal("/keys/short-key");  // 8 bytes arrive, but make no content key
    EXPECT_TRUE(shortKey->connect() && keyOf(*shortKey).empty());
    kms.expectNoKeyInTheLog();
}

TEST(HarmonicProvider, TheKeySessionItsBackupServerItsRenewalAndItsEnd) {
    Kms kms;
    const std::string down = downUrl("/session");
    Provider provider = kms.full(kms.url("/session/active"));
    ASSERT_TRUE(provider->connect());
    EXPECT_EQ(provider->keyProvisioningUrl(), kms.url("/keys/ok"));
    EXPECT_EQ(keyIdOf(*provider), kIdAtZero);
    const std::string create = kms.get("/last/CreateKeySession");
    expectInOrder(create, {":assetType>2<", ":cryptoPeriod>10<", ":keyLength>128<", ":opaqueData>assetType=2<",
                           ":requestorId>requestor-1<", ":resourceId>resource-1<"});
    provider->disconnect();
    EXPECT_EQ(kms.get("/calls"), "/session/active Heartbeat -\n/session/active CreateKeySession resource-1\n"
                                 "/keys/ok GetKeyAndSignalization 0\n/session/active DestroyKeySession resource-1\n");

    for (const std::string& primary : {down, kms.url("/session/standby")}) {
        Provider switched = kms.full(primary, kms.url("/session/active"));
        ASSERT_TRUE(switched->connect()) << primary;
        EXPECT_EQ(switched->currentSessionUrl(), kms.url("/session/active"));
    }
    EXPECT_TRUE(kms.logger.contains("0 Harmonic KMS: switch to backup Key Session server and re-try"));
    EXPECT_TRUE(kms.logger.contains("0 Harmonic KMS: Heartbeat(Key Session): server is 'STANDBY'"));
    Provider neither = kms.full(kms.url("/session/standby"), down);
    EXPECT_FALSE(neither->connect());
    EXPECT_EQ(neither->currentSessionUrl(), kms.url("/session/standby"));

    // A failed key request has the session invalidated: the next segment asks the new key address.
    Provider flaky = kms.full(kms.url("/session/flaky"));
    ASSERT_TRUE(flaky->connect());
    EXPECT_EQ(flaky->updateKey(11 * kSecond), KeyUpdateResult::Failed);
    EXPECT_EQ(flaky->keyProvisioningUrl(), kms.url("/keys/ok"));
    EXPECT_EQ(flaky->updateKey(11 * kSecond), KeyUpdateResult::Updated);
    EXPECT_EQ(keyIdOf(*flaky), kIdLater);
}

TEST(HarmonicProvider, TheFactoryLogsTheParametersPassesTheSessionsOptionsAndRefusesALongResourceId) {
    testkit::RecordingLogger logger;
    std::unique_ptr<enc::EncryptionManager> manager;
    const auto build = [&](const enc::HarmonicConfiguration& record, KeyClientOptions options = {}) {
        // Qualified: argument-dependent lookup also finds the encryption library's factory.
        tvrn::encoding::packaging::kms_clients::buildEncryptionManager(manager, record, {}, logger, nullptr, options);
    };
    enc::HarmonicConfiguration record{"r", "q", 10, "http://s"};
    // On-demand content is distribution mode 1; an answer later than the time-out fails the request, not the run.
    Kms kms;
    build({"r", "", 10, "", "", "", 1, kms.url("/keys/hang-after-first")}, {true, std::chrono::milliseconds(300)});
    EXPECT_TRUE(logger.contains("2 Harmonic KMS minimal impl.: resourceId='r', KeyPeriod= 10 sec., KeyProvisioningUrl='" +
                                kms.url("/keys/hang-after-first") + "'"));
    ASSERT_TRUE(manager->connect());
    EXPECT_NE(kms.get("/last/GetKeyAndSignalization").find(":distributionMode>1<"), std::string::npos);
    const auto asked = std::chrono::steady_clock::now();
    std::vector<std::uint8_t> iv;
    EXPECT_FALSE(manager->updateKey(20 * kSecond, iv));  // the server answers after 2 s
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::milliseconds(1500));
    EXPECT_TRUE(manager->hasKey());
    record.resourceId.assign(129, 'x');
    EXPECT_EQ(testkit::failureOf([&] { build(record); }), "Invalid resource identifier.");
}

TEST(HarmonicProvider, TlsTrustsTheOperatorsCaAndRefusesWhatNobodyConfigured) {
    Certificates certificates;
    enc::TlsSettings operatorCa{true, true, certificates.file("ca.pem")};
    enc::TlsSettings noHostCheck = operatorCa;
    noHostCheck.verifyHost = false;
    struct Row { const char* certificate; enc::TransportSecurity security; bool connects; };
    const Row rows[] = {
        {"server", operatorCa, true},
        {"self", enc::TlsSettings{true, true, ""}, false},   // self-signed, trusted by nobody
        {"self", enc::TransportSecurity{}, false},           // no TLS record: still verified against the system's CAs
        {"other", operatorCa, false},                        // signed by the CA for another host name
        {"other", noHostCheck, true},
    };
    for (const Row& row : rows) {
        const std::string name = row.certificate;
        LoopbackServer server({"--cert", certificates.file(name + ".pem"), "--key", certificates.file(name + ".key")});
        testkit::RecordingLogger logger;
        HarmonicEncryptionProvider provider({"r", "", 0, "", "", "", 1, server.url("https", "/keys/ok")}, row.security,
                                            logger);
        EXPECT_EQ(provider.connect(), row.connects) << name << " " << row.security.index();
    }
}

}  // namespace
