// The Irdeto provider against key_servers.py's scripted service (SOAP 1.2); SOAP time-outs cut to 0.5 s and the
// first crypto period fixed at 1000 by injection.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "packaging/kms_clients/encryption_factory.h"
#include "tests/packaging/kms_clients/loopback_server.h"

namespace {
using namespace kmstest;
using namespace tvrn::encoding::packaging::kms_clients;
using Provider = std::unique_ptr<IrdetoEncryptionProvider>;
constexpr const char* kPassword = "pw-SECRET-irdeto";

struct Irdeto : Scripted {
    enc::IrdetoConfiguration record(const std::string& path, enc::IrdetoGenerateKeysSettings keys) const {
        return {.serverUrl = path.empty() ? "" : url(path), .variant = keys, .accountId = "account-1",
                .contentId = "content-1", .userName = "user-1", .password = kPassword};
    }
    Provider make(const enc::IrdetoConfiguration& c) {
        return std::make_unique<IrdetoEncryptionProvider>(c, enc::TransportSecurity{}, logger,
                                                          IrdetoOptions{-500000, 1000, {"VIDEO", "AUDIO"}});
    }
    // PlayReady and Widevine, a key change every `change` seconds, a repeat of the request every `request`.
    Provider make(const std::string& path, std::int32_t request = 0, std::int32_t change = 10) {
        return make(record(path, {.keyRequestPeriod = request, .keyChangePeriod = change, .playReady = true,
                                  .widevine = true}));
    }
};

TEST(IrdetoProvider, TheKeyOfEachCryptoPeriodWithEachSystemsSignalling) {
    Irdeto irdeto;
    enc::IrdetoConfiguration c = irdeto.record("/irdeto/ok", {.keyChangePeriod = 10, .playReady = true,
                                                              .fairPlayStreaming = true, .widevine = true});
    c.eventName = "live-1";
    c.policyGroupId = -7;
    Provider provider = irdeto.make(c);
    ASSERT_TRUE(provider->connect());
    EXPECT_TRUE(provider->isKeyRotationEnabled());
    expectKey(*provider, "a1a1a1a1b2b2c3c3d4d40000000003e8", hex("e8e8e8e8 e8e8e8e8 e8e8e8e8 e8e8e8e8"));
    std::vector<std::uint8_t> iv;
    provider->getInitialisationVector(iv);
    EXPECT_BYTES(iv, hex("00010203 04050607 08090a0b 0c0d0e0f"));

    // Systems in the order of their ids: the one "Streaming" got, PlayReady, Widevine.
    EXPECT_BYTES(protectionBoxesOf(*provider),
                 hex("00000020 'pssh' 00000000 00000000 00000000 00000000 000000ee 00000000"
                     "00000023 'pssh' 00000000 9a04f079 98404286 ab92e65b e0885f95 00000003 010203"
                     "00000024 'pssh' 00000000 edef8ba9 79d64ace a3c827dc d51d21ed 00000004 08011210"));
    std::string text;
    provider->getContentProtectionText(text, true);
    EXPECT_EQ(text, "<!-- Common Encryption -->\n"
                    "<ContentProtection schemeIdUri=\"urn:mpeg:dash:mp4protection:2011\" value=\"cenc\" />\n"
                    "<ContentProtection schemeIdUri=\"urn:uuid:00000000-0000-0000-0000-0000000000ee\"/>\n"
                    "<ContentProtection schemeIdUri=\"urn:uuid:9a04f079-9840-4286-ab92-e65be0885f95\"/>\n"
                    "<ContentProtection schemeIdUri=\"urn:uuid:edef8ba9-79d6-4ace-a3c8-27dcd51d21ed\"><cenc:pssh>"
                    "AAAAJHBzc2gAAAAA7e+LqXnWSs6jyCfc1R0h7QAAAAQIARIQ</cenc:pssh></ContentProtection>\n");

    // The request: the service header, the systems by their texts in the order of their numbers, the period.
    const std::string request = irdeto.get("/last-irdeto/GenerateKeys");
    expectInOrder(request, {"http://www.w3.org/2003/05/soap-envelope", "<irdeto:AccountId>account-1<",
                            "<irdeto:UserName>user-1<", "<irdeto:Password>", "<irdeto:accountId>account-1<",
                            "<irdeto:contentId>content-1<", ":string>PlayReady<", ":string>Widevine<",
                            ":string>Streaming<", ":string>VIDEO<", "<irdeto:cryptoPeriod>1000<"});
    expectInOrder(irdeto.get("/last-irdeto/CreateLiveEvent"),
                  {":sAccountID>account-1<", ":sName>live-1<", ":nPolicyGroupId>-7<"});

    // The next crypto period once the change period has passed, by media time in milliseconds.
    EXPECT_EQ(provider->updateKey(5 * kSecond), KeyUpdateResult::Unchanged);
    EXPECT_EQ(provider->updateKey(15 * kSecond), KeyUpdateResult::Unchanged);
    EXPECT_EQ(provider->updateKey(15 * kSecond + 10'000), KeyUpdateResult::Updated);
    expectKey(*provider, "a1a1a1a1b2b2c3c3d4d40000000003e9", hex("e9e9e9e9 e9e9e9e9 e9e9e9e9 e9e9e9e9"));
    EXPECT_TRUE(irdeto.logger.contains("2 Irdeto encryption : generate key request succeeded (crypto period = 1001)"));
    EXPECT_EQ(irdeto.get("/calls-of/irdeto"), "/irdeto/ok CreateLiveEvent live-1\n/irdeto/ok GenerateKeys 1000\n"
                                              "/irdeto/ok GenerateKeys 1001\n");
    // Responses were dumped; neither the password, nor a key, nor a key seed reached a line.
    EXPECT_TRUE(irdeto.logger.mentions("Irdeto SOAP response: "));
    irdeto.expectNotLogged({kPassword, "6Ojo6Ojo6Ojo6Ojo6Ojo6A==", "6enp6enp6enp6enp6enp6Q==",
                            "c2VlZC1TRUNSRVQtc2VlZA==", "e8e8e8e8"});
}

// The two periods: which requests they make, and with which crypto period.
TEST(IrdetoProvider, TheRequestPeriodRepeatsThePeriodTheChangePeriodMovesOnEvenWhenTheServerFails) {
    struct Row {
        const char* path;
        std::int32_t request, change;
        std::vector<std::pair<double, KeyUpdateResult>> updates;  // seconds of media time, and the answer
        const char* periodsAsked;                                  // after connect's 1000
    };
    const auto U = KeyUpdateResult::Unchanged, N = KeyUpdateResult::Updated, F = KeyUpdateResult::Failed;
    const Row rows[] = {
        {"/irdeto/ok", 0, 0, {{0, U}, {1e6, U}}, ""},
        {"/irdeto/ok", 10, 0, {{5, U}, {15, U}, {15.001, N}, {20, U}, {25.002, N}}, " 1000 1000"},
        // A key change on a failing server: each change moves on, so the periods 1001 and 1002 are skipped over,
        // and the failed request is asked again at the next segment (a request period is set).
        {"/irdeto/fail-after-first", 10, 10, {{0, U}, {10.001, F}, {10.002, F}, {20.003, F}}, " 1001 1001 1002"},
    };
    for (const Row& row : rows) {
        Irdeto irdeto;
        Provider provider = irdeto.make(row.path, row.request, row.change);
        ASSERT_TRUE(provider->connect()) << row.path;
        for (const auto& [seconds, answer] : row.updates)
            EXPECT_EQ(provider->updateKey(static_cast<std::uint64_t>(seconds * kSecond)), answer) << seconds;
        std::string asked;
        const std::string calls = irdeto.get("/calls-of/irdeto");
        for (std::size_t at = calls.find("GenerateKeys ", 1); at != std::string::npos; at = calls.find("GenerateKeys ", at + 1))
            asked.append(" ").append(calls, at + 13, calls.find('\n', at) - at - 13);
        std::string expected = " 1000";
        expected.append(row.periodsAsked);
        EXPECT_EQ(asked, expected) << row.path << " " << row.request;
        EXPECT_BYTES(keyOf(*provider), hex("e8e8e8e8 e8e8e8e8 e8e8e8e8 e8e8e8e8"));  // the failures kept it
    }
}

// Every way connect fails: the line it logs, and no key.
TEST(IrdetoProvider, EachFaultAtConnectionIsLoggedInItsOwnWordsAndGivesNoKey) {
    Irdeto irdeto;
    const std::string failed = "2 Irdeto GenerateKeys failed: '";
    const std::pair<std::string, std::string> rows[] = {
        {"/irdeto/fault", failed + "account unknown'"},
        {"/irdeto/malformed-xml", failed + "Invalid Xml response'"},
        {"/irdeto/missing-account", failed + "Invalid Xml response'"},
        {"/irdeto/short-key", failed + "GenerateKeys returned invalid 64 bits key (128 bits is expected)'"},
        {"/irdeto/short-iv", failed + "GenerateKeys returned invalid 80 bits init. vector (128 bits  is expected)'"},
        {"/irdeto/bad-kid", failed + "GenerateKeys returned invalid 16 bits key id (128 bits is expected)'"},
        {"/irdeto/iv-differs", failed + "GenerateKeys invalid response:  Key, KeyId and Init. Vector must be the "
                                        "same accross protection systems'"},
        {"/irdeto/one-key-short", failed + "'"},
        {"/irdeto/http-503", failed + "HTTP Error'"},
        {"/irdeto/bad-envelope", failed + "request failed -1'"},
        {"/irdeto/slow", failed + "request failed -1'"},
        {"down", failed + "Connection refused'"},
        {"event", "2 Irdeto Create Live Event Failed: 'event refused'"},
        {"scalable", "2 Irdeto PlayReady Scalable Licences is not implemented."},
    };
    for (const auto& [path, line] : rows) {
        enc::IrdetoConfiguration c = irdeto.record(path == "event"      ? "/irdeto/event-fails"
                                                   : path[0] == '/' ? path
                                                                    : "/irdeto/ok",
                                                   {.playReady = true, .widevine = true});
        if (path == "down") c.serverUrl = downUrl("/irdeto/ok");
        if (path == "event") c.eventName = "live-1";
        if (path == "scalable") c.variant = enc::IrdetoPlayReadyScalableLicense{};
        Provider provider = irdeto.make(c);
        EXPECT_FALSE(provider->connect()) << path;
        EXPECT_TRUE(keyOf(*provider).empty()) << path;
        EXPECT_EQ(irdeto.logger.lines().back(), line) << path;
    }
    EXPECT_FALSE(irdeto.make(irdeto.record("", {.playReady = true}))->connect());  // no address

    // An entry without a system id is passed over; a system that was not there at first fails every update.
    Provider skipped = irdeto.make("/irdeto/no-system");
    ASSERT_TRUE(skipped->connect());
    tvrn::encoding::packaging::imff::imff_box::BoxList boxes;
    skipped->getProtectionBoxes(boxes, true);
    EXPECT_EQ(boxes.size(), 1u);
    Provider added = irdeto.make("/irdeto/new-system");
    ASSERT_TRUE(added->connect());
    EXPECT_EQ(added->updateKey(0), KeyUpdateResult::Unchanged);
    EXPECT_EQ(added->updateKey(11 * kSecond), KeyUpdateResult::Failed);
    EXPECT_EQ(irdeto.logger.lines().back(), "0 Irdeto update key failed: \"GenerateKeys returned unexpected system id\"");
    EXPECT_EQ(keyIdOf(*added), "a1a1a1a1b2b2c3c3d4d40000000003e8");
}

}  // namespace
