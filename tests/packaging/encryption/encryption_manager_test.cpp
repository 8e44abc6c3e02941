// The key life cycle of the manager against a scripted provider, the factory, and the configuration rules.
#include <gtest/gtest.h>

#include <array>
#include <functional>
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
using testkit::Bytes;
using testkit::FixedKeyProvider;
using Failure = enc::EncryptionManager::Exception;

constexpr enc::KeyId kOtherId = {9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9};
constexpr enc::ContentKey kOtherKey = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

struct Listener : enc::IEncryptionListener {
    void OnKeyServerStatus(bool up) override { reports.push_back(up); }
    std::vector<bool> reports;
};

// The key the manager encrypts with, told by one block at counter 0; empty while none is installed.
std::optional<enc::ContentKey> keyInForce(enc::EncryptionManager& manager) {
    Bytes block(16, 0), counter(16, 0);
    if (testkit::failureOf<Failure>([&] { manager.encryptCtr(block.data(), block.data(), 16, counter); }) ==
        "Rijndael 128 CTR encrypt : failed (error -2)") {
        return std::nullopt;
    }
    for (const enc::ContentKey& key : {FixedKeyProvider::kKey, kOtherKey}) {
        if (testkit::ecbEncrypt(key, Bytes(16, 0)) == block) return key;
    }
    return enc::ContentKey{};
}

TEST(EncryptionManager, KeyLifeCycle) {
    const Bytes wideIv(16, 0x42), shortIv = FixedKeyProvider::defaultIv();
    const auto key = FixedKeyProvider::kKey;
    const auto failed = enc::KeyUpdateResult::Failed, unchanged = enc::KeyUpdateResult::Unchanged;
    struct Row {
        const char* name;
        bool keyIdAtStart;
        std::vector<FixedKeyProvider::Step> steps;
        std::string last;  // "true", "false" or the text the last call throws
        std::vector<bool> reports;
        Bytes iv;
        std::optional<enc::ContentKey> key;
    };
    const std::vector<Row> table = {
        {"updated", true, {{}}, "true", {true}, shortIv, key},
        {"unchanged installs the key known since connect", true, {{unchanged}}, "false", {}, {}, key},
        {"failed keeps the previous key", true, {{}, {failed}}, "false", {true, false}, {}, key},
        {"failed before any key", false, {{failed}}, "false", {false}, {}, std::nullopt},
        {"a new key id installs its key", true, {{}, {.keyId = kOtherId, .key = kOtherKey, .iv = wideIv}}, "true",
         {true, true}, wideIv, kOtherKey},
        {"a new key under the same id is not taken", true, {{}, {.key = kOtherKey}}, "true", {true, true}, shortIv,
         key},
        {"a new key id without its key", true, {{}, {.keyId = kOtherId, .forgetKey = true}}, "invalid content key",
         {true, true, false}, {}, key},
        {"the provider throws", true, {{}, {.throws = "key server unreachable"}}, "key server unreachable",
         {true, false}, {}, key},
        {"a key id of zeros is never installed", true, {{.keyId = enc::KeyId{}}}, "true", {true}, shortIv,
         std::nullopt},
    };
    for (const Row& row : table) {
        SCOPED_TRACE(row.name);
        auto provider = std::make_unique<FixedKeyProvider>();
        if (!row.keyIdAtStart) provider->keyId.reset();
        for (const auto& step : row.steps) provider->then(step);
        Listener listener;
        enc::EncryptionManager manager(std::move(provider), &listener);
        Bytes iv{0xee};
        std::string last;
        for (std::size_t i = 0; i < row.steps.size(); ++i) {
            bool answer = false;
            last = testkit::failureOf<Failure>([&] { answer = manager.updateKey(i, iv); });
            if (last == "no failure") last = answer ? "true" : "false";
        }
        EXPECT_EQ(last, row.last);
        EXPECT_EQ(listener.reports, row.reports);
        EXPECT_EQ(iv, row.iv);
        EXPECT_EQ(keyInForce(manager), row.key);
        EXPECT_EQ(manager.hasKey(), row.keyIdAtStart);
    }
}

TEST(EncryptionManager, FailureTexts) {
    enc::EncryptionManager none;
    auto provider = std::make_unique<FixedKeyProvider>();
    provider->connectThrows = "handshake refused";
    enc::EncryptionManager refusing(std::move(provider));
    Bytes iv, counter(16), shortCounter(8), data(16);
    std::string text;
    tvrn::encoding::packaging::imff::imff_box::BoxList boxes;
    EXPECT_FALSE(none.connect() || none.hasKey() || none.fillInitialisationVector(iv));
    const std::string noProvider = "No Encryption Provider Specified";
    for (const auto& [call, expected] : std::vector<std::pair<std::function<void()>, std::string>>{
             {[&] { none.updateKey(0, iv); }, noProvider},
             {[&] { none.getProtectionBoxes(boxes, true); }, noProvider},
             {[&] { none.getContentProtectionText(text, true); }, noProvider},
             {[&] { none.encryptCtr(data.data(), data.data(), 16, counter); }, noProvider},
             {[&] { refusing.connect(); }, "handshake refused"},
             {[&] { refusing.encryptCtr(data.data(), data.data(), 16, shortCounter); },
              "Initialisation vector : invalid length"}}) {
        EXPECT_EQ(testkit::failureOf<Failure>(call), expected);
    }
}

TEST(MaskSecret, KeepsTheEndsAndStarsTheMiddle) {
    for (const auto& [text, masked] : std::vector<std::pair<std::string, std::string>>{
             {"", ""}, {"abc", "abc"}, {"abcdef", "ab***f"}, {"abcdefg", "abcdefg"}, {"abcdefghij", "abcd***hij"}}) {
        EXPECT_EQ(enc::maskSecret(text), masked) << text;
    }
}

// A rule's answer as a text: empty when it accepts (leaving the error alone), its error when it refuses.
template <typename Rule>
std::string verdict(Rule rule) {
    std::string error;
    return rule(error) ? error : error.empty() ? "refused without a text" : error;
}

TEST(ValidityRules, AnswerWithTheirExactTexts) {
    const std::string smooth = "Smooth Streaming Key Rotation Period should be equal to zero";
    const std::string period = "key change period should be betwin 0 and 36000 seconds";
    for (const auto& [seconds, format, text] : std::vector<std::tuple<int, std::uint32_t, std::string>>{
             {0, 0, ""}, {10, 0, smooth}, {3600, 1, ""}, {3601, 1, period}, {-1, 2, period}, {99999, 3, ""}}) {
        EXPECT_EQ(verdict([&](std::string& e) { return enc::isValidKeyChangePeriod(seconds, format, e); }), text)
            << seconds << "/" << format;
    }
    using S = enc::IrdetoGenerateKeysSettings;
    const std::string forbidden = "forbidden combination: IrdetoProtection + ActivCloakPr";
    for (const auto& [settings, text] : std::vector<std::pair<S, std::string>>{
             {S{}, ""}, {S{.activeCloakPr = true}, forbidden},
             {S{.activeCloakPr = true, .irdetoProtection = true}, forbidden},
             {S{.ca = true, .hlsPantos = true, .ske = true}, ""}, {S{.hlsPantos = true, .playReady = true}, forbidden},
             {S{.clearKey = true, .widevine = true}, ""}, {S{.playReady = true}, forbidden},
             {S{.irdetoProtection = true, .playReady = true}, ""}}) {
        EXPECT_EQ(verdict([&](std::string& e) { return enc::isValidIrdetoProtectionList(settings, e); }), text);
    }
    const std::string systems = "\"HLSPantos\", \"CA\", \"SKE\", \"FairPlayStreaming\", \"ActiveCloakPr\" and "
                                "\"HLSChinaDrm\" are not available in MPEG-DASH output.";
    const std::string hls = "Only \"PlayReady Scalable Licenses\" is implemented in HLS output.";
    for (const auto& [variant, dash, hlsText] :
         std::vector<std::tuple<decltype(enc::IrdetoConfiguration::variant), std::string, std::string>>{
             {enc::IrdetoPlayReadyScalableLicense{},
              "\"PlayReady Scalable Licenses\" is not implemented in MPEG-DASH output.", ""},
             {S{.hlsPantos = true, .primeTime = true}, "\"Adobe PrimeTime\" is not available in MPEG-DASH output.", hls},
             {S{.activeCloakPr = true, .clearKey = true}, systems, hls},
             {S{.clearKey = true}, "\"ClearKey\" is not implemented in MPEG-DASH output.", hls},
             {S{.playReady = true, .widevine = true}, "", hls}}) {
        const enc::IrdetoConfiguration configuration{.serverUrl = "", .variant = variant};
        EXPECT_EQ(verdict([&](std::string& e) { return enc::isValidForDash(configuration, e); }), dash);
        EXPECT_EQ(verdict([&](std::string& e) { return enc::isValidForHls(configuration, e); }), hlsText);
    }
}

// The init segment announces the constant IV before the first key is installed: the first key keeps the IV drawn
// with the scheme, each later key gets a new one; a configured IV stays for every key.
TEST(CbcsConstantIv, DrawnOnceForTheFirstKeyAndAgainForEachNewKeyUnlessConfigured) {
    const std::array<std::uint8_t, 16> configured{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    for (const bool given : {false, true}) {
        auto provider = std::make_unique<FixedKeyProvider>();
        provider->then({}).then({.keyId = kOtherId, .key = kOtherKey});
        enc::EncryptionManager manager(std::move(provider));
        enc::SchemeSettings settings{enc::EncryptionScheme::Cbcs, std::nullopt};
        if (given) settings.constantIv = configured;
        manager.setScheme(settings);
        const auto announced = manager.constantIv();
        Bytes iv;
        manager.updateKey(0, iv);
        EXPECT_EQ(manager.constantIv(), announced);
        manager.updateKey(1, iv);
        EXPECT_EQ(manager.constantIv() == announced, given);
        EXPECT_EQ(announced == configured, given);
        EXPECT_NE(manager.constantIv(), decltype(configured){});
    }
}

}  // namespace
