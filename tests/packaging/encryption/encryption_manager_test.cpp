// The key life cycle of the manager against a scripted provider, the factory, and the configuration rules.
#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "packaging/encryption/encryption_manager.h"
#include "tests/common/bytes.h"
#include "tests/common/fixed_key_provider.h"
#include "tests/common/loggers.h"
#include "tests/packaging/encryption/ctr_reference.h"

namespace {

namespace enc = tvrn::encoding::packaging::encryption;
using enc::KeyUpdateResult;
using testkit::Bytes;
using testkit::FixedKeyProvider;
using Step = FixedKeyProvider::Step;

constexpr enc::KeyId kOtherId = {9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9};
constexpr enc::ContentKey kOtherKey = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

struct Listener : enc::IEncryptionListener {
    void OnKeyServerStatus(bool up) override { reports.push_back(up); }
    std::vector<bool> reports;
};

// The key the manager encrypts with, told by one block at counter 0; empty when it has none installed.
std::optional<enc::ContentKey> keyInForce(enc::EncryptionManager& manager) {
    Bytes block(16, 0), counter(16, 0);
    try {
        manager.encryptCtr(block.data(), block.data(), 16, counter);
    } catch (const enc::EncryptionManager::Exception&) {
        return std::nullopt;
    }
    for (const enc::ContentKey& key : {FixedKeyProvider::kKey, kOtherKey}) {
        const testkit::Block expected = testkit::ecbEncrypt(key, testkit::Block{});
        if (Bytes(expected.begin(), expected.end()) == block) return key;
    }
    ADD_FAILURE() << "encrypted with an unexpected key";
    return std::nullopt;
}

TEST(EncryptionManager, KeyLifeCycle) {
    const Bytes wideIv(16, 0x42);
    struct Row {
        const char* name;
        bool keyIdAtStart;
        std::vector<Step> steps;
        std::string last;  // "true", "false" or the text the last call throws
        std::vector<bool> reports;
        Bytes iv;
        std::optional<enc::ContentKey> key;
    };
    const std::vector<Row> table = {
        {"updated", true, {{}}, "true", {true}, FixedKeyProvider::defaultIv(), FixedKeyProvider::kKey},
        {"unchanged still installs the key known since connect", true, {{KeyUpdateResult::Unchanged}}, "false", {},
         {}, FixedKeyProvider::kKey},
        {"failed keeps the previous key", true, {{}, {KeyUpdateResult::Failed}}, "false", {true, false}, {},
         FixedKeyProvider::kKey},
        {"failed before any key", false, {{KeyUpdateResult::Failed}}, "false", {false}, {}, std::nullopt},
        {"a new key id installs its key", true, {{}, {.keyId = kOtherId, .key = kOtherKey, .iv = wideIv}}, "true",
         {true, true}, wideIv, kOtherKey},
        {"a new key under the same id is not taken", true, {{}, {.key = kOtherKey}}, "true", {true, true},
         FixedKeyProvider::defaultIv(), FixedKeyProvider::kKey},
        {"a new key id without a key", true, {{}, {.keyId = kOtherId, .forgetKey = true}}, "invalid content key",
         {true, true, false}, {}, FixedKeyProvider::kKey},
        {"the provider throws", true, {{}, {.throws = "key server unreachable"}}, "key server unreachable",
         {true, false}, {}, FixedKeyProvider::kKey},
    };
    for (const Row& row : table) {
        SCOPED_TRACE(row.name);
        auto provider = std::make_unique<FixedKeyProvider>();
        if (!row.keyIdAtStart) provider->keyId.reset();
        for (const Step& step : row.steps) provider->then(step);
        Listener listener;
        enc::EncryptionManager manager(std::move(provider), &listener);
        Bytes iv{0xee};
        std::string last;
        for (std::size_t i = 0; i < row.steps.size(); ++i) {
            try {
                last = manager.updateKey(1000 * i, iv) ? "true" : "false";
            } catch (const enc::EncryptionManager::Exception& e) {
                last = e.what();
            }
        }
        EXPECT_EQ(last, row.last);
        EXPECT_EQ(listener.reports, row.reports);
        EXPECT_EQ(iv, row.iv);
        EXPECT_EQ(keyInForce(manager), row.key);
        EXPECT_EQ(manager.hasKey(), row.keyIdAtStart);
    }
}

TEST(EncryptionManager, WithoutProviderRefusesKeyWorkAndAnswersFalse) {
    enc::EncryptionManager manager;
    Bytes iv, counter(16), data(16);
    std::string text;
    tvrn::encoding::packaging::imff::imff_box::BoxList boxes;
    EXPECT_FALSE(manager.connect());
    EXPECT_FALSE(manager.hasKey());
    EXPECT_FALSE(manager.fillInitialisationVector(iv));
    EXPECT_EQ(manager.getInitialisationVectorSize(), 0u);
    for (const auto& call : std::vector<std::function<void()>>{
             [&] { manager.updateKey(0, iv); }, [&] { manager.getProtectionBoxes(boxes, true); },
             [&] { manager.getContentProtectionText(text, true); },
             [&] { manager.encryptCtr(data.data(), data.data(), 16, counter); }}) {
        EXPECT_EQ(testkit::failureOf<enc::EncryptionManager::Exception>(call), "No Encryption Provider Specified");
    }
}

TEST(EncryptionManager, ConnectAnswersForTheProviderAndCarriesItsFailureText) {
    auto provider = std::make_unique<FixedKeyProvider>();
    FixedKeyProvider& p = *provider;
    enc::EncryptionManager manager(std::move(provider));
    EXPECT_TRUE(manager.connect());
    p.connectAnswer = false;
    EXPECT_FALSE(manager.connect());
    p.connectThrows = "handshake refused";
    EXPECT_EQ(testkit::failureOf<enc::EncryptionManager::Exception>([&] { manager.connect(); }), "handshake refused");
    manager.disconnect();
    EXPECT_EQ(p.disconnects, 1);
}

TEST(EncryptionManager, InitialisationVectorAndCounterLengths) {
    auto provider = std::make_unique<FixedKeyProvider>();
    FixedKeyProvider& p = *provider;
    enc::EncryptionManager manager(std::move(provider));
    for (std::size_t size : {8u, 16u, 12u}) {
        p.iv.assign(size, 7);
        Bytes iv;
        EXPECT_EQ(manager.fillInitialisationVector(iv), size != 12) << size;
        EXPECT_EQ(iv, p.iv);
        EXPECT_EQ(manager.getInitialisationVectorSize(), size);
    }
    Bytes data(16), counter(8);
    EXPECT_EQ(testkit::failureOf<enc::EncryptionManager::Exception>(
                  [&] { manager.encryptCtr(data.data(), data.data(), 16, counter); }),
              "Initialisation vector : invalid length");
}

TEST(EncryptionManager, KeyIdOfZerosIsNeverInstalledAndEncryptionRefuses) {
    auto provider = std::make_unique<FixedKeyProvider>();
    provider->keyId = enc::KeyId{};
    enc::EncryptionManager manager(std::move(provider));
    Bytes iv;
    EXPECT_FALSE(manager.updateKey(0, iv));
    EXPECT_TRUE(manager.hasKey());
    Bytes data(16), counter(16);
    EXPECT_EQ(testkit::failureOf<enc::EncryptionManager::Exception>(
                  [&] { manager.encryptCtr(data.data(), data.data(), 16, counter); }),
              "Rijndael 128 CTR encrypt : failed (error -2)");
}

TEST(BuildEncryptionManager, MakesNoProviderAndWarnsForModesNotAvailable) {
    enc::IrdetoConfiguration scalable{.serverUrl = "https://irdeto", .variant = enc::IrdetoPlayReadyScalableLicense{}};
    const std::vector<std::pair<enc::EncryptionConfiguration, std::string>> table = {
        {enc::EncryptionConfiguration{}, ""},
        {enc::EncryptionConfiguration{enc::EncryptionMode::Manual}, "Manual"},
        {enc::EncryptionConfiguration{enc::EncryptionMode::AutoGen}, "AutoGen"},
        {enc::SecureMediaConfiguration{}, "SecureMedia"},
        {enc::HarmonicConfiguration{}, "Harmonic KMS"},
        {enc::IrdetoConfiguration{}, "Irdeto"},
        {scalable, "Irdeto PlayReady Scalable License"},
    };
    Listener listener;
    for (const auto& [configuration, name] : table) {
        testkit::RecordingLogger logger;
        std::unique_ptr<enc::EncryptionManager> manager;
        enc::buildEncryptionManager(manager, configuration, enc::TlsSettings{}, logger, &listener);
        ASSERT_NE(manager, nullptr);
        EXPECT_FALSE(manager->hasProvider());
        EXPECT_FALSE(manager->connect());
        EXPECT_EQ(logger.lines(), name.empty() ? std::vector<std::string>{}
                                               : std::vector<std::string>{"1 Encryption Mode \"" + name +
                                                                          "\" is not yet implemented"});
    }
    testkit::RecordingLogger logger;
    std::unique_ptr<enc::EncryptionManager> manager;
    for (const auto& [configuration, text] : std::vector<std::pair<enc::EncryptionConfiguration, std::string>>{
             {enc::EncryptionConfiguration{static_cast<enc::EncryptionMode>(12)}, "internal assertion failure"},
             {enc::EncryptionConfiguration{enc::EncryptionMode::Widevine}, "cannot convert union to given type"}}) {
        EXPECT_EQ(testkit::failureOf<std::logic_error>(
                      [&] { enc::buildEncryptionManager(manager, configuration, {}, logger, nullptr); }),
                  text);
    }
}

TEST(EncryptionConfiguration, ServerUrlOfEachMode) {
    const enc::EncryptionConfiguration harmonic =
        enc::HarmonicConfiguration{.keySessionUrl = "https://kms", .backupKeySessionUrl = "https://kms2"};
    EXPECT_EQ(enc::getServerUrl(harmonic), "https://kms");
    EXPECT_EQ(enc::getServerUrl(harmonic, true), "https://kms2");
    EXPECT_EQ(enc::getServerUrl(enc::WidevineConfiguration{"https://wv"}), "https://wv");
    EXPECT_EQ(enc::getServerUrl(enc::WidevineConfiguration{"https://wv"}, true), "");
    EXPECT_EQ(enc::getServerUrl(enc::IrdetoConfiguration{.serverUrl = "https://ir"}), "https://ir");
    EXPECT_EQ(enc::getServerUrl(enc::MultiDrmConfiguration{}), "");
    EXPECT_EQ(enc::getServerUrl(enc::EncryptionConfiguration{enc::EncryptionMode::AutoGen}), "");
}

TEST(MaskSecret, KeepsTheEndsAndStarsTheMiddle) {
    const std::vector<std::pair<std::string, std::string>> table = {
        {"", ""}, {"a", "a"}, {"abc", "abc"}, {"abcdef", "ab***f"}, {"abcdefg", "abcdefg"},
        {"abcdefghij", "abcd***hij"}, {"0123456789abcdef", "0123*********def"}};
    for (const auto& [text, masked] : table) EXPECT_EQ(enc::maskSecret(text), masked) << text;
}

TEST(ValidityRules, KeyChangePeriod) {
    const std::string smooth = "Smooth Streaming Key Rotation Period should be equal to zero";
    const std::string dash = "key change period should be betwin 0 and 36000 seconds";
    const std::vector<std::tuple<int, std::uint32_t, std::string>> table = {
        {0, 0, ""},     {10, 0, smooth}, {0, 1, ""},    {3600, 1, ""},
        {3601, 1, dash}, {3601, 2, dash}, {-1, 2, dash}, {99999, 3, ""}};
    for (const auto& [period, format, text] : table) {
        std::string error;
        EXPECT_EQ(enc::isValidKeyChangePeriod(period, format, error), text.empty()) << period << "/" << format;
        EXPECT_EQ(error, text);
    }
}

TEST(ValidityRules, IrdetoProtectionList) {
    using S = enc::IrdetoGenerateKeysSettings;
    const std::vector<std::pair<S, bool>> table = {
        {S{}, true},
        {S{.irdetoProtection = true}, true},
        {S{.activeCloakPr = true}, false},
        {S{.activeCloakPr = true, .irdetoProtection = true}, false},
        {S{.ca = true, .hlsPantos = true, .ske = true}, true},
        {S{.hlsPantos = true, .playReady = true}, false},
        {S{.clearKey = true, .widevine = true}, true},
        {S{.playReady = true, .widevine = true}, false},
        {S{.irdetoProtection = true, .playReady = true}, true},
        {S{.ca = true}, false},
        {S{.ca = true, .irdetoProtection = true}, true},
    };
    for (std::size_t i = 0; i < table.size(); ++i) {
        std::string error;
        EXPECT_EQ(enc::isValidIrdetoProtectionList(table[i].first, error), table[i].second) << "row " << i;
        EXPECT_EQ(error, table[i].second ? "" : "forbidden combination: IrdetoProtection + ActivCloakPr");
    }
}

TEST(ValidityRules, IrdetoForDashAndHls) {
    using S = enc::IrdetoGenerateKeysSettings;
    const std::string systems = "\"HLSPantos\", \"CA\", \"SKE\", \"FairPlayStreaming\", \"ActiveCloakPr\" and "
                                "\"HLSChinaDrm\" are not available in MPEG-DASH output.";
    const std::string hls = "Only \"PlayReady Scalable Licenses\" is implemented in HLS output.";
    const std::vector<std::tuple<decltype(enc::IrdetoConfiguration::variant), std::string, std::string>> table = {
        {enc::IrdetoPlayReadyScalableLicense{}, "\"PlayReady Scalable Licenses\" is not implemented in MPEG-DASH output.",
         ""},
        {S{.hlsPantos = true, .primeTime = true}, "\"Adobe PrimeTime\" is not available in MPEG-DASH output.", hls},
        {S{.activeCloakPr = true, .clearKey = true}, systems, hls},
        {S{.fairPlayStreaming = true}, systems, hls},
        {S{.clearKey = true}, "\"ClearKey\" is not implemented in MPEG-DASH output.", hls},
        {S{.playReady = true, .widevine = true}, "", hls},
    };
    for (const auto& [variant, dash, hlsText] : table) {
        const enc::IrdetoConfiguration configuration{.serverUrl = "", .variant = variant};
        std::string dashError, hlsError;
        EXPECT_EQ(enc::isValidForDash(configuration, dashError), dash.empty());
        EXPECT_EQ(dashError, dash);
        EXPECT_EQ(enc::isValidForHls(configuration, hlsError), hlsText.empty());
        EXPECT_EQ(hlsError, hlsText);
    }
}

}  // namespace
