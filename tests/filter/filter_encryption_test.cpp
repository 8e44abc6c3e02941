// The filter's encryption: the configuration slots and the wait for the key server, with a scripted provider
// standing in for the key server behind the manager factory.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <chrono>
#include <string>
#include <thread>
#include <type_traits>

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
// A call of `slot` with `settings`, changed by `change` first; with `null`, a call without settings.
template <typename S>
Call with(HRESULT (IMuxFmp4Config::*slot)(const S*), S settings,
          std::type_identity_t<std::function<void(S&)>> change = {}) {
    if (change) change(settings);
    return [slot, settings](IMuxFmp4Config& f) { return (f.*slot)(&settings); };
}
template <typename S>
Call null(HRESULT (IMuxFmp4Config::*slot)(const S*)) {
    return [slot](IMuxFmp4Config& f) { return (f.*slot)(nullptr); };
}
Call connection(bool enabled, std::uint32_t kind, const KeyServerConnectionOptions* options) {
    return [=](IMuxFmp4Config& f) { return f.SetKeyServerConnection(enabled, kind, options); };
}

const std::uint8_t kConstantIv[16] = {0xf0, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7,
                                      0xf8, 0xf9, 0xfa, 0xfb, 0xfc, 0xfd, 0xfe, 0xff};
Call scheme(std::uint32_t kind, bool withIv) {
    return [=](IMuxFmp4Config& f) { return f.SetEncryptionScheme(kind, withIv ? &kConstantIv : nullptr); };
}

TEST(EncryptionSlots, CheckTheirArgumentsAndRefuseWhileASessionExists) {
    using C = IMuxFmp4Config;
    const std::string id128(128, 'r'), id129(129, 'r');
    const KeyServerConnectionOptions passwordOnly{true, true, "", nullptr, "secret"};
    // While a session exists what an idle filter takes is refused with E_FAIL; other answers stay.
    const std::pair<Call, HRESULT> rows[] = {
        {with(&C::SetHarmonicKmsEncryption, kHarmonic, [&](auto& s) { s.resourceId = id128.c_str(); }), S_OK},
        {with(&C::SetHarmonicKmsEncryption, kHarmonic, [&](auto& s) { s.resourceId = id129.c_str(); }), E_INVALIDARG},
        {with(&C::SetHarmonicKmsEncryption, kHarmonic, [](auto& s) { s.drmList = nullptr; }), E_INVALIDARG},
        {with(&C::SetHarmonicKmsEncryption, kHarmonic, [](auto& s) { s.drmCount = -1; }), E_INVALIDARG},
        {with(&C::SetIrdetoEncryption, kIrdeto), S_OK},
        {with(&C::SetIrdetoEncryption, kIrdeto, [](auto& s) { s.variant = 1; }), S_OK},
        {with(&C::SetIrdetoEncryption, kIrdeto, [](auto& s) { s.variant = 2; }), E_INVALIDARG},
        {with(&C::SetBuyDrmEncryption, kBuyDrm), S_OK},
        {with(&C::SetVerimatrixEncryption, kVerimatrix), S_OK},
        {with(&C::SetInsideSecureEncryption, kInsideSecure), S_OK},
        {with(&C::SetWidevineEncryption, kWidevine), S_OK},
        {with(&C::SetManualPlayReadyEncryption, kManual), S_OK},
        {with(&C::SetMultiDrmEncryption, kMultiDrm), S_OK},
        {null(&C::SetHarmonicKmsEncryption), E_POINTER}, {null(&C::SetIrdetoEncryption), E_POINTER},
        {null(&C::SetBuyDrmEncryption), E_POINTER}, {null(&C::SetVerimatrixEncryption), E_POINTER},
        {null(&C::SetInsideSecureEncryption), E_POINTER}, {null(&C::SetWidevineEncryption), E_POINTER},
        {null(&C::SetManualPlayReadyEncryption), E_POINTER}, {null(&C::SetMultiDrmEncryption), E_POINTER},
        {connection(true, KeyServerPlain, nullptr), S_OK},
        {connection(true, KeyServerTls, &kTls), S_OK},
        {connection(true, KeyServerTls, nullptr), E_POINTER},
        {connection(true, 2, &kTls), E_INVALIDARG},
        {connection(true, KeyServerTls, &passwordOnly), E_INVALIDARG},
        {scheme(EncryptionSchemeCenc, false), S_OK},
        {scheme(EncryptionSchemeCbcs, false), S_OK},
        {scheme(EncryptionSchemeCbcs, true), S_OK},
        {scheme(EncryptionSchemeCenc, true), E_INVALIDARG},  // cenc has per-sample IVs
        {scheme(2, false), E_INVALIDARG},
    };
    FilterHolder idle(CMuxFmp4Filter::Create());
    FilterHolder running(CMuxFmp4Filter::Create());
    ASSERT_TRUE(paused(running.get()));
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        const auto& [call, result] = rows[i];
        EXPECT_EQ(call(*idle), result) << "row " << i;
        EXPECT_EQ(call(*running), result == S_OK ? E_FAIL : result) << "row " << i;
    }
    // A disabled connection changes nothing, and is taken in any state.
    EXPECT_EQ(connection(false, 7, nullptr)(*running), S_OK);
    running->Stop();
}

// Stands in for the key server: each manager the filter builds gets a scripted provider whose connection is up,
// down or throws as `answer` says for the address; the addresses, the last mode and transport and the
// disconnections are kept.
enum Answer { Down, Up, Throws };
struct KeyServer {
    struct State {
        int builds = 0, disconnects = 0;
        enc::EncryptionMode mode = enc::EncryptionMode::None;
        std::vector<std::string> addresses;
        enc::TransportSecurity transport;
        tvrn::encoding::packaging::kms_clients::KeyClientOptions options;
        enc::SchemeSettings scheme;
    };
    struct Provider : testkit::FixedKeyProvider {
        explicit Provider(testkit::Guarded<State>& state) : m_state(state) {}
        void disconnect() override { m_state.update([](State& s) { ++s.disconnects; }); }
        testkit::Guarded<State>& m_state;
    };
    std::function<Answer(const std::string& address)> answer;
    testkit::Guarded<State> state;

    KeyServerParts parts() {
        return {[this](std::unique_ptr<enc::EncryptionManager>& manager,
                       const enc::EncryptionConfiguration& configuration, const enc::TransportSecurity& transport,
                       tvrn::log::ILogger&, IEncryptionListener* listener,
                       const tvrn::encoding::packaging::kms_clients::KeyClientOptions& options) {
                    const std::string address = enc::getServerUrl(configuration);
                    auto provider = std::make_unique<Provider>(state);
                    const Answer a = answer(address);
                    provider->connectAnswer = a == Up;
                    if (a == Throws) provider->connectThrows = "no route to key server";
                    manager = std::make_unique<enc::EncryptionManager>(std::move(provider), listener);
                    state.update([&](State& s) {
                        ++s.builds;
                        s.mode = configuration.mode();
                        s.addresses.push_back(address);
                        s.transport = transport;
                        s.options = options;
                        s.scheme = configuration.scheme();
                    });
                },
                std::chrono::milliseconds(1), std::chrono::milliseconds(1500)};
    }
    int builds() const { return state.get().builds; }
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
    server.answer = [](const std::string& address) { return address == "https://main.kms" ? Down : Up; };
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
    using M = enc::EncryptionMode;
    // A key period above 0 puts the pssh boxes in the fragments. Harmonic's main address is down: its backup is up.
    struct Row { Call set; M mode; std::vector<std::string> addresses; std::uint32_t status; bool psshInFragments; };
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
        ASSERT_TRUE(paused(filter.get()));
        EXPECT_EQ(server.state.get().mode, row.mode);
        EXPECT_EQ(server.state.get().addresses, row.addresses);
        EXPECT_EQ(statusOf(*filter), row.status);
        EXPECT_EQ(chunks.flags[1], row.psshInFragments);
        const bool logged = logger.contains("2 Connection Established to " + row.addresses.back());
        EXPECT_EQ(logged, !row.addresses.back().empty());
        ASSERT_TRUE(stopped(filter.get()));
    }
    const enc::TransportSecurity transport = server.state.get().transport;
    const auto* tls = std::get_if<enc::TlsSettings>(&transport);
    ASSERT_TRUE(tls && tls->clientCertificate && !tls->clientCertificate->password);
    EXPECT_EQ(std::tie(tls->verifyPeer, tls->verifyHost, tls->caFile, tls->clientCertificate->keyFile),
              std::make_tuple(true, false, std::string("ca.pem"), std::string("client.key")));
}

// The scheme outlives a new configuration and reaches the factory in DASH; Smooth Streaming (cenc only) builds no
// key source with cbcs and says why.
TEST(EncryptionSlots, TheSchemeGoesWithEveryConfigurationAndCbcsDoesNotStartInSmoothStreaming) {
    KeyServer server;
    server.answer = [](const std::string&) { return Up; };
    testkit::ChunksBuilderLog chunks;
    fmp4::Fmp4MuxParts parts;
    parts.makeChunksBuilder = [&](const fmp4::ChunksBuilderParams&) {
        return std::make_unique<testkit::FakeChunksBuilder>(chunks);
    };
    testkit::RecordingLogger logger;
    FilterHolder filter(CMuxFmp4Filter::Create(parts, server.parts()));
    filter->SetLogger(&logger);
    ASSERT_EQ(filter->SetEncryptionScheme(EncryptionSchemeCbcs, &kConstantIv), S_OK);
    ASSERT_EQ(filter->SetMultiDrmEncryption(&kMultiDrm), S_OK);
    const std::string refusal = "0 Encryption scheme cbcs is not available in Smooth Streaming output (cenc only)";
    ASSERT_EQ(filter->Pause(), S_OK);  // Smooth Streaming, the default format
    EXPECT_TRUE(logger.waitFor(refusal));
    EXPECT_EQ(server.builds(), 0);
    ASSERT_TRUE(stopped(filter.get()));
    ASSERT_EQ(filter->SetMuxMode("s", fmp4::Dash, fmp4::GopSegments, 1000, 1, 0, 0, 0, 0, 0, 0, 1), S_OK);
    ASSERT_TRUE(paused(filter.get()));
    const enc::SchemeSettings reached = server.state.get().scheme;
    EXPECT_EQ(reached.scheme, enc::EncryptionScheme::Cbcs);
    EXPECT_TRUE(reached.constantIv && std::equal(reached.constantIv->begin(), reached.constantIv->end(), kConstantIv));
    ASSERT_EQ(filter->Stop(), S_OK);
}

TEST(KeyWait, SamplesAreDroppedUntilTheServerIsUpThenChunksLeaveEncrypted) {
    const testkit::Fixture video = testkit::loadFixture("h264_plain");
    const Inputs inputs = loadInputs(video, testkit::loadAudioFixture("aac_lc_stereo_48k.adts"));
    KeyServer server;
    std::atomic<Answer> answer{Throws};
    server.answer = [&](const std::string&) { return answer.load(); };
    testkit::RecordingLogger logger;
    FilterHolder filter(CMuxFmp4Filter::Create({}, server.parts()));
    filter->SetLogger(&logger);
    ASSERT_EQ(filter->SetMuxMode("s", fmp4::Dash, fmp4::GopSegments, 1000, 1, 0, 0, 0, 0, 0, 0, 1), S_OK);
    ASSERT_EQ(filter->SetVerimatrixEncryption(&kVerimatrix), S_OK);
    auto* pin = filter->inputPins().at(0);
    ASSERT_EQ(pin->ReceiveConnection(inputType(1, 1000000)), S_OK);
    RecordingSink sink;
    ASSERT_EQ(filter->outputPins().at(0)->Connect(&sink), S_OK);

    // Connections that throw, then a server that is down; a stop ends the wait and the next pause starts again.
    ASSERT_EQ(filter->Pause(), S_OK);
    ASSERT_TRUE(server.waitForBuilds(3));
    answer = Down;
    ASSERT_TRUE(server.waitForBuilds(server.builds() + 2));
    EXPECT_EQ(filter->workerState(), fmp4::Starting);
    EXPECT_EQ(statusOf(*filter), KeyServerDown);
    EXPECT_EQ(filter->SetVerimatrixEncryption(&kVerimatrix), E_FAIL);
    push(*pin, inputs[0]);  // dropped: the session does not run yet
    EXPECT_EQ(filter->stats().samplesReceived.load(), inputs[0].size());
    ASSERT_TRUE(stopped(filter.get()));
    ASSERT_EQ(filter->Pause(), S_OK);
    ASSERT_TRUE(server.waitForBuilds(server.builds() + 2));
    answer = Up;
    ASSERT_TRUE(waitForWorker(filter.get(), fmp4::Running));
    EXPECT_TRUE(sink.snapshot().empty());
    EXPECT_EQ(statusOf(*filter), KeyServerMainUp);
    push(*pin, inputs[0]);
    ASSERT_TRUE(sink.waitForEnds(1));
    ASSERT_TRUE(stopped(filter.get()));

    const auto lines = logger.lines();
    for (const char* line : {"0 Failed to configure encryption : 'no route to key server'",
                             "2 Wait for key management server", "2 Connection Established to https://vmx.kms"})
        EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 1) << line;
    // An offline session is on-demand content to the key clients, which get the filter's request time-out.
    EXPECT_TRUE(server.state.get().options.vod);
    EXPECT_EQ(server.state.get().options.timeout, std::chrono::milliseconds(1500));
    // Only the manager that connected was installed, and it disconnected as the session ended.
    EXPECT_EQ(server.state.get().disconnects, 1);
    const auto received = sink.snapshot();
    ASSERT_GT(received.size(), 2u);
    EXPECT_TRUE(holdsBox(received[0].bytes, "encv"));  // a protected sample entry in the init chunk
    EXPECT_TRUE(holdsBox(received[1].bytes, "saiz"));  // and sample encryption data in the first fragment
}

TEST(KeyWait, TheDefaultFactoryHasTheHarmonicProvider) {
    std::unique_ptr<enc::EncryptionManager> manager;
    testkit::RecordingLogger logger;
    KeyServerParts{}.buildEncryptionManager(manager, enc::HarmonicConfiguration{"r", "q", 0, "http://s"}, {}, logger,
                                            nullptr, {});
    EXPECT_TRUE(manager && manager->hasProvider());
}

}  // namespace
