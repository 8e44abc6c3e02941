// The filter's encryption: the configuration slots and the wait for the key server, with a scripted provider
// standing in for the key server behind the manager factory.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <string>

#include "filter_helpers.h"
#include "tests/common/fixed_key_provider.h"
#include "tests/common/loggers.h"
#include "tests/common/session_fakes.h"

namespace {
using namespace filter_test;
namespace enc = tvrn::encoding::packaging::encryption;

const HarmonicDrmSystemSettings kDrms[] = {{"9a04f079-9840-4286-ab92-e65be0885f95", "PlayReady"}};
const HarmonicKmsEncryptionSettings kHarmonic{"resource", "requestor", 0, "https://main.kms", "https://backup.kms",
                                              "", 0, "", 1, kDrms};
const IrdetoEncryptionSettings kIrdeto{.serverUrl = "https://irdeto.kms", .variant = 0, .keyChangePeriod = 60};
const BuyDrmEncryptionSettings kBuyDrm{"key id", "user key", "server key", "content", "https://buydrm.kms"};
const VerimatrixEncryptionSettings kVerimatrix{10, "resource", "https://vmx.kms"};
const InsideSecureEncryptionSettings kInsideSecure{"https://inside.kms", "https://la", "content", 0};
const WidevineEncryptionSettings kWidevine{"https://widevine.kms", "signer", true, "a2V5", "aXY=", 0, "content"};
const ManualPlayReadyEncryptionSettings kManual{"key id", "seed", "", "https://la", "", ""};
const MultiDrmEncryptionSettings kMultiDrm{.keyId = "key id", .contentKey = "a2V5", .playReadyEnabled = true};
const KeyServerConnectionOptions kTls{true, false, "ca.pem", "client.key", nullptr};

using Call = std::function<HRESULT(IMuxFmp4Config&)>;
template <typename S>
Call with(HRESULT (IMuxFmp4Config::*slot)(const S*), S settings) {
    return [slot, settings](IMuxFmp4Config& f) { return (f.*slot)(&settings); };
}
template <typename S>
Call none(HRESULT (IMuxFmp4Config::*slot)(const S*)) {
    return [slot](IMuxFmp4Config& f) { return (f.*slot)(nullptr); };
}

Call connection(bool enabled, std::uint32_t kind, const KeyServerConnectionOptions* options) {
    return [=](IMuxFmp4Config& f) { return f.SetKeyServerConnection(enabled, kind, options); };
}

TEST(EncryptionSlots, CheckTheirArgumentsAndRefuseWhileASessionExists) {
    using C = IMuxFmp4Config;
    HarmonicKmsEncryptionSettings longId = kHarmonic, noList = kHarmonic, negative = kHarmonic;
    const std::string id128(128, 'r'), id129(129, 'r');
    HarmonicKmsEncryptionSettings maxId = kHarmonic;
    maxId.resourceId = id128.c_str();
    longId.resourceId = id129.c_str();
    noList.drmList = nullptr;
    negative.drmCount = -1;
    IrdetoEncryptionSettings license = kIrdeto, unknown = kIrdeto;
    license.variant = 1;
    unknown.variant = 2;
    const KeyServerConnectionOptions passwordOnly{true, true, "", nullptr, "secret"};
    struct Row { const char* what; Call call; HRESULT idle, running; };
    const Row rows[] = {
        {"harmonic", with(&C::SetHarmonicKmsEncryption, kHarmonic), S_OK, E_FAIL},
        {"harmonic id of 128", with(&C::SetHarmonicKmsEncryption, maxId), S_OK, E_FAIL},
        {"harmonic id of 129", with(&C::SetHarmonicKmsEncryption, longId), E_INVALIDARG, E_INVALIDARG},
        {"harmonic list missing", with(&C::SetHarmonicKmsEncryption, noList), E_INVALIDARG, E_INVALIDARG},
        {"harmonic count below 0", with(&C::SetHarmonicKmsEncryption, negative), E_INVALIDARG, E_INVALIDARG},
        {"harmonic null", none(&C::SetHarmonicKmsEncryption), E_POINTER, E_POINTER},
        {"irdeto keys", with(&C::SetIrdetoEncryption, kIrdeto), S_OK, E_FAIL},
        {"irdeto licence", with(&C::SetIrdetoEncryption, license), S_OK, E_FAIL},
        {"irdeto variant 2", with(&C::SetIrdetoEncryption, unknown), E_INVALIDARG, E_INVALIDARG},
        {"irdeto null", none(&C::SetIrdetoEncryption), E_POINTER, E_POINTER},
        {"buydrm", with(&C::SetBuyDrmEncryption, kBuyDrm), S_OK, E_FAIL},
        {"buydrm null", none(&C::SetBuyDrmEncryption), E_POINTER, E_POINTER},
        {"verimatrix", with(&C::SetVerimatrixEncryption, kVerimatrix), S_OK, E_FAIL},
        {"verimatrix null", none(&C::SetVerimatrixEncryption), E_POINTER, E_POINTER},
        {"inside secure", with(&C::SetInsideSecureEncryption, kInsideSecure), S_OK, E_FAIL},
        {"inside secure null", none(&C::SetInsideSecureEncryption), E_POINTER, E_POINTER},
        {"widevine", with(&C::SetWidevineEncryption, kWidevine), S_OK, E_FAIL},
        {"widevine null", none(&C::SetWidevineEncryption), E_POINTER, E_POINTER},
        {"manual playready", with(&C::SetManualPlayReadyEncryption, kManual), S_OK, E_FAIL},
        {"manual playready null", none(&C::SetManualPlayReadyEncryption), E_POINTER, E_POINTER},
        {"multi-drm", with(&C::SetMultiDrmEncryption, kMultiDrm), S_OK, E_FAIL},
        {"multi-drm null", none(&C::SetMultiDrmEncryption), E_POINTER, E_POINTER},
        {"connection disabled", connection(false, 7, nullptr), S_OK, S_OK},
        {"connection plain", connection(true, KeyServerPlain, nullptr), S_OK, E_FAIL},
        {"connection tls", connection(true, KeyServerTls, &kTls), S_OK, E_FAIL},
        {"connection tls null", connection(true, KeyServerTls, nullptr), E_POINTER, E_POINTER},
        {"connection kind 2", connection(true, 2, &kTls), E_INVALIDARG, E_INVALIDARG},
        {"connection password alone", connection(true, KeyServerTls, &passwordOnly), E_INVALIDARG, E_INVALIDARG},
    };
    FilterHolder idle(CMuxFmp4Filter::Create());
    FilterHolder running(CMuxFmp4Filter::Create());
    ASSERT_EQ(running->Pause(), S_OK);
    ASSERT_TRUE(waitForWorker(running.get(), fmp4::Running));
    for (const Row& row : rows) {
        EXPECT_EQ(row.call(*idle), row.idle) << row.what;
        EXPECT_EQ(row.call(*running), row.running) << row.what;
    }
    running->Stop();
}

// Stands in for the key server: each manager the filter builds gets a scripted provider, up or down as `up` says
// at that moment, or throwing `throws`; the addresses it was built for and the disconnections are kept.
struct KeyServer {
    struct State {
        int builds = 0, disconnects = 0;
        enc::EncryptionMode mode = enc::EncryptionMode::None;
        std::vector<std::string> addresses;
        enc::TransportSecurity transport;
    };
    struct Provider : testkit::FixedKeyProvider {
        explicit Provider(testkit::Guarded<State>& state) : m_state(state) {}
        void disconnect() override { m_state.update([](State& s) { ++s.disconnects; }); }
        testkit::Guarded<State>& m_state;
    };
    std::function<bool(const std::string& address)> up = [](const std::string&) { return true; };
    std::optional<std::string> throws;
    testkit::Guarded<State> state;

    KeyServerParts parts() {
        return {[this](std::unique_ptr<enc::EncryptionManager>& manager,
                       const enc::EncryptionConfiguration& configuration, const enc::TransportSecurity& transport,
                       tvrn::log::ILogger&, IEncryptionListener* listener) {
                    const std::string address = enc::getServerUrl(configuration);
                    auto provider = std::make_unique<Provider>(state);
                    provider->connectAnswer = up(address);
                    provider->connectThrows = throws;
                    manager = std::make_unique<enc::EncryptionManager>(std::move(provider), listener);
                    state.update([&](State& s) {
                        ++s.builds;
                        s.mode = configuration.mode();
                        s.addresses.push_back(address);
                        s.transport = transport;
                    });
                },
                std::chrono::milliseconds(1)};
    }
    bool waitForBuilds(int count) {
        return state.waitFor([count](const State& s) { return s.builds >= count; });
    }
};

bool holdsBox(const std::vector<std::uint8_t>& bytes, const std::string& type) {
    return std::search(bytes.begin(), bytes.end(), type.begin(), type.end()) != bytes.end();
}

std::uint32_t statusOf(CMuxFmp4Filter& filter) {
    std::uint32_t status = 99;
    filter.GetKeyServerStatus(&status);
    return status;
}

TEST(EncryptionSlots, EachReachesTheFactoryWithItsModeAddressAndKeyPeriod) {
    KeyServer server;
    server.up = [](const std::string& address) { return address != "https://main.kms"; };
    testkit::ChunksBuilderLog chunks;
    fmp4::Fmp4MuxParts parts;
    parts.makeChunksBuilder = [&](const fmp4::ChunksBuilderParams&) {
        return std::make_unique<testkit::FakeChunksBuilder>(chunks);
    };
    testkit::RecordingLogger logger;
    FilterHolder filter(CMuxFmp4Filter::Create(parts, server.parts()));
    filter->SetLogger(&logger);
    ASSERT_EQ(filter->SetKeyServerConnection(true, KeyServerTls, &kTls), S_OK);
    using C = IMuxFmp4Config;
    using Addresses = std::vector<std::string>;
    using M = enc::EncryptionMode;
    // A key period above 0 puts the pssh boxes in the fragments. Harmonic's main address is down: its backup is up.
    struct Row { Call set; M mode; Addresses addresses; std::uint32_t status; bool psshInFragments; };
    const Row rows[] = {
        {with(&C::SetHarmonicKmsEncryption, kHarmonic), M::HarmonicKms, {"https://main.kms", "https://backup.kms"},
         KeyServerBackupUp, false},
        {with(&C::SetIrdetoEncryption, kIrdeto), M::Irdeto, {"https://irdeto.kms"}, KeyServerMainUp, true},
        {with(&C::SetBuyDrmEncryption, kBuyDrm), M::BuyDrm, {"https://buydrm.kms"}, KeyServerMainUp, false},
        {with(&C::SetVerimatrixEncryption, kVerimatrix), M::Verimatrix, {"https://vmx.kms"}, KeyServerMainUp, true},
        {with(&C::SetInsideSecureEncryption, kInsideSecure), M::InsideSecure, {"https://inside.kms"}, KeyServerMainUp,
         false},
        {with(&C::SetWidevineEncryption, kWidevine), M::Widevine, {"https://widevine.kms"}, KeyServerMainUp, false},
        {with(&C::SetManualPlayReadyEncryption, kManual), M::ManualPlayReady, {""}, KeyServerMainUp, false},
        {with(&C::SetMultiDrmEncryption, kMultiDrm), M::MultiDrm, {""}, KeyServerMainUp, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(static_cast<int>(row.mode));
        server.state.update([](KeyServer::State& s) { s.addresses.clear(); });
        ASSERT_EQ(row.set(*filter), S_OK);
        ASSERT_EQ(filter->Pause(), S_OK);
        ASSERT_TRUE(waitForWorker(filter.get(), fmp4::Running));
        EXPECT_EQ(server.state.get().mode, row.mode);
        EXPECT_EQ(server.state.get().addresses, row.addresses);
        EXPECT_EQ(statusOf(*filter), row.status);
        EXPECT_EQ(chunks.flags[1], row.psshInFragments);
        const bool logged = logger.contains("2 Connection Established to " + row.addresses.back());
        EXPECT_EQ(logged, !row.addresses.back().empty());
        ASSERT_EQ(filter->Stop(), S_OK);
        ASSERT_TRUE(waitForWorker(filter.get(), fmp4::Idle));
    }
    const enc::TransportSecurity transport = server.state.get().transport;
    const auto* tls = std::get_if<enc::TlsSettings>(&transport);
    ASSERT_NE(tls, nullptr);
    EXPECT_EQ(std::tie(tls->verifyPeer, tls->verifyHost, tls->caFile),
              std::make_tuple(true, false, std::string("ca.pem")));
    ASSERT_TRUE(tls->clientCertificate.has_value());
    EXPECT_EQ(tls->clientCertificate->keyFile, "client.key");
    EXPECT_FALSE(tls->clientCertificate->password.has_value());
}

TEST(KeyWait, ChunksLeaveOnlyOnceTheServerIsUpAndAreEncrypted) {
    const testkit::Fixture video = testkit::loadFixture("h264_plain");
    const testkit::AudioFixture audio = testkit::loadAudioFixture("aac_lc_stereo_48k.adts");
    const Inputs inputs = loadInputs(video, audio);
    KeyServer server;
    std::atomic<bool> serverUp{false};
    server.up = [&](const std::string&) { return serverUp.load(); };
    testkit::RecordingLogger logger;
    FilterHolder filter(CMuxFmp4Filter::Create({}, server.parts()));
    filter->SetLogger(&logger);
    ASSERT_EQ(filter->SetMuxMode("s", fmp4::Dash, fmp4::GopSegments, 1000, 1, 0, 0, 0, 0, 0, 0, 1), S_OK);
    ASSERT_EQ(filter->SetVerimatrixEncryption(&kVerimatrix), S_OK);
    auto* pin = filter->inputPins().at(0);
    ASSERT_EQ(pin->ReceiveConnection(inputType(1, 1000000)), S_OK);
    RecordingSink sink;
    ASSERT_EQ(filter->outputPins().at(0)->Connect(&sink), S_OK);

    ASSERT_EQ(filter->Pause(), S_OK);
    ASSERT_TRUE(server.waitForBuilds(3));
    EXPECT_EQ(filter->workerState(), fmp4::Starting);
    EXPECT_EQ(statusOf(*filter), KeyServerDown);
    push(*pin, inputs[0]);  // dropped: the session does not run yet
    EXPECT_EQ(filter->stats().samplesReceived.load(), inputs[0].size());
    serverUp = true;
    ASSERT_TRUE(waitForWorker(filter.get(), fmp4::Running));
    EXPECT_TRUE(sink.snapshot().empty());
    EXPECT_EQ(statusOf(*filter), KeyServerMainUp);
    push(*pin, inputs[0]);
    ASSERT_TRUE(sink.waitForEnds(1));
    ASSERT_EQ(filter->Stop(), S_OK);
    ASSERT_TRUE(waitForWorker(filter.get(), fmp4::Idle));

    const auto lines = logger.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "2 Wait for key management server"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "2 Connection Established to https://vmx.kms"), 1);
    // Only the manager that connected was installed, and it disconnected as the session ended.
    EXPECT_EQ(server.state.get().disconnects, 1);
    const auto received = sink.snapshot();
    ASSERT_GT(received.size(), 2u);
    EXPECT_TRUE(received[0].sync);
    EXPECT_TRUE(holdsBox(received[0].bytes, "encv"));  // a protected sample entry in the init chunk
    EXPECT_TRUE(holdsBox(received[1].bytes, "saiz"));  // and sample encryption data in the first fragment
}

TEST(KeyWait, AFailingConnectionIsToldOnceAndAStopEndsTheWaitUntilTheNextPause) {
    KeyServer server;
    server.throws = "no route to key server";
    testkit::RecordingLogger logger;
    FilterHolder filter(CMuxFmp4Filter::Create({}, server.parts()));
    filter->SetLogger(&logger);
    ASSERT_EQ(filter->SetWidevineEncryption(&kWidevine), S_OK);
    ASSERT_EQ(filter->Pause(), S_OK);
    ASSERT_TRUE(server.waitForBuilds(3));
    EXPECT_EQ(filter->SetWidevineEncryption(&kWidevine), E_FAIL);  // frozen while waiting
    ASSERT_EQ(filter->Stop(), S_OK);
    ASSERT_TRUE(waitForWorker(filter.get(), fmp4::Idle));
    const int builds = server.state.get().builds;
    ASSERT_EQ(filter->Pause(), S_OK);
    ASSERT_TRUE(server.waitForBuilds(builds + 2));
    ASSERT_EQ(filter->Stop(), S_OK);
    ASSERT_TRUE(waitForWorker(filter.get(), fmp4::Idle));
    const auto lines = logger.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "0 Failed to configure encryption : 'no route to key server'"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "2 Wait for key management server"), 1);
    EXPECT_EQ(statusOf(*filter), KeyServerDown);
    EXPECT_EQ(server.state.get().disconnects, 0);
}

}  // namespace
