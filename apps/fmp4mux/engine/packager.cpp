#include "apps/fmp4mux/engine/packager.h"

#include <algorithm>
#include <memory>
#include <cstring>
#include <stdexcept>
#include <string>

#include "apps/fmp4mux/cli/console.h"
#include "apps/fmp4mux/exit_error.h"

namespace fmp4mux {

namespace flt = tvrn::encoding::filter;
using tvrn::com::S_OK;

namespace {

// The first row of the filter's input type table that carries a stream type.
std::size_t inputTypeIndex(std::uint32_t streamType) {
    const auto& table = flt::inputTypeTable();
    for (std::size_t i = 0; i < table.size(); ++i)
        if (table[i].streamType == streamType) return i;
    throw std::logic_error("no input type carries stream type " + std::to_string(streamType));
}

flt::MediaType mediaTypeFor(std::uint32_t streamType) {
    const auto& row = flt::inputTypeTable().at(inputTypeIndex(streamType));
    flt::MediaType type;
    type.majortype = row.majortype;
    type.subtype = row.subtype;
    type.formattype = flt::guids::FORMAT_None;
    return type;
}

flt::KeyServerParts keyServerParts(const EncryptionOptions& e) {
    flt::KeyServerParts parts;
    parts.requestTimeout = e.kmsTimeout;
    return parts;
}

// The engine's parts as fmp4mux wants them: MP3 framed, sparse streams not awaited for the time origin, and, when
// asked, each chunk described in a debug line.
tvrn::encoding::packaging::imff::fmp4::Fmp4MuxParts sessionParts(const EngineSettings& s, tvrn::log::ILogger& logger) {
    // The samples fmp4mux hands the filter are buffers of their own (the reader's PES), not a pool's: the
    // packager keeps them rather than copying what they hold.
    auto parts = flt::withInputsReferenced(flt::withoutWaitingForSparseStreams(flt::withMpeg1Layer3({})));
    if (!s.chunkDump) return parts;
    return flt::withChunkDump(std::move(parts), [&logger](const std::string& line) {
        logger.WriteMsg(tvrn::log::LOG_DEBUG, "%s", line.c_str());
    });
}

}  // namespace

Packager::Packager(const EngineSettings& s, tvrn::log::ILogger& logger)
    : m_filter(tvrn::encoding::RefPtr<flt::CMuxFmp4Filter>::adopt(
          flt::CMuxFmp4Filter::Create(sessionParts(s, logger), keyServerParts(s.encryption)))),
      m_dash(s.dash), m_keyServer(s.encryption.keyServer()), m_keyServerWait(s.encryption.kmsWait) {
    m_filter->SetLogger(&logger);
    try {
        m_filter->SetMuxMode(s.streamName.c_str(), s.dash ? 1 : 0, s.mode, s.gopDurationMs, s.gopsPerSegment,
                             s.audioSegmentDurationMs, s.chunkDurationMs, s.inBandParameterSets, 0, s.allVideoInInit,
                             s.driftDetection, s.offline);
    } catch (const std::exception& e) {
        throw ExitError(kExitUsage, e.what());
    }
    m_filter->SetFirstNumber(s.firstNumber);
    if (s.encryption.enabled()) {
        configureEncryption(s.encryption);
        configureScheme(s.encryption);
    }
    // fmp4mux writes for players and validators, which read the sample flags by the ISO rules.
    m_filter->SetPlayerCompatibleOutput(true);
}

// One key of the operator's, signalled for the systems asked for: the engine's key configuration of several
// systems. ClearKey is its system of the host's choice, with a version 1 pssh that lists the key id.
void Packager::configureEncryption(const EncryptionOptions& e) {
    constexpr const char* kClearKey = "1077efec-c0b2-4d02-ace3-3c1e52e2fb4b";
    if (e.keyServer()) return configureKeyServer(e);
    flt::MultiDrmEncryptionSettings settings{};
    settings.keyId = e.keyId.c_str();
    settings.contentKey = e.keyBase64.c_str();
    settings.keySeed = e.keySeedBase64.c_str();
    settings.playReadyEnabled = e.playReady;
    settings.laUrl = e.playReadyLicenceUrl.c_str();
    settings.widevineEnabled = e.widevine;
    settings.widevineProvider = e.widevineProvider.c_str();
    settings.widevineContentId = e.widevineContentId.c_str();
    settings.customEnabled = e.clearKey || !e.customSystemUuid.empty();
    settings.customSystemId = e.clearKey ? kClearKey : e.customSystemUuid.c_str();
    settings.customPsshData = e.customPsshBase64.c_str();
    settings.customPsshListsKeyId = e.clearKey;
    if (m_filter->SetMultiDrmEncryption(&settings) != S_OK)
        throw ExitError(kExitUsage, "the engine refused the encryption settings");
}

// cenc unless cbcs was asked for, with the operator's constant IV or none (a random one for each key).
void Packager::configureScheme(const EncryptionOptions& e) {
    if (!e.cbcs) return;
    std::uint8_t iv[16] = {};
    if (!e.constantIv.empty()) std::copy_n(e.constantIv.begin(), sizeof iv, iv);
    if (m_filter->SetEncryptionScheme(flt::EncryptionSchemeCbcs, e.constantIv.empty() ? nullptr : &iv) != S_OK)
        throw ExitError(kExitUsage, "the engine refused the encryption scheme");
}

// Keys from a key server (Harmonic KMS, Irdeto, Verimatrix, Widevine, Inside Secure or BuyDRM), asked for the systems
// the operator named where the server asks; TLS with the operator's trust and client key when given (https is
// verified against the system's CA store otherwise).
void Packager::configureKeyServer(const EncryptionOptions& e) {
    using Server = EncryptionOptions::KeyServer;
    if (e.keyServerKind == Server::Irdeto) {
        flt::IrdetoEncryptionSettings settings{};
        settings.serverUrl = e.irdetoUrl.c_str();
        settings.variant = 0;
        settings.keyRequestPeriod = e.irdetoRequestPeriod;
        settings.keyChangePeriod = e.keyPeriod;
        settings.playReady = e.playReady;
        settings.widevine = e.widevine;
        settings.accountId = e.irdetoAccountId.c_str();
        settings.contentId = e.irdetoContentId.c_str();
        settings.userName = e.irdetoUser.c_str();
        settings.password = e.irdetoPassword.c_str();
        settings.eventName = e.irdetoEventName.c_str();
        settings.description = e.irdetoEventDescription.c_str();
        settings.url = e.irdetoEventUrl.c_str();
        settings.subContentType = e.irdetoEventSubContentType.c_str();
        settings.encryptionType = e.irdetoEventEncryptionType.c_str();
        settings.policyGroupId = e.irdetoPolicyGroupId;
        if (m_filter->SetIrdetoEncryption(&settings) != S_OK)
            throw ExitError(kExitUsage, "the engine refused the Irdeto settings");
    } else if (e.keyServerKind == Server::Verimatrix) {
        flt::VerimatrixEncryptionSettings settings{};
        settings.keyPeriod = e.keyPeriod;
        settings.resourceId = e.vmxResourceId.c_str();
        settings.serverUrl = e.vmxUrl.c_str();
        if (m_filter->SetVerimatrixEncryption(&settings) != S_OK)
            throw ExitError(kExitUsage, "the engine refused the Verimatrix settings");
    } else if (e.keyServerKind == Server::Widevine) {
        flt::WidevineEncryptionSettings settings{};
        settings.serverUrl = e.widevineKeyServer.c_str();
        settings.signer = e.widevineSigner.c_str();
        settings.signRequests = !e.widevineSigningKey.empty();
        settings.signingKey = e.widevineSigningKey.c_str();
        settings.signingIv = e.widevineSigningIv.c_str();
        settings.keyPeriod = e.keyPeriod;
        settings.contentId = e.kmsContentId.c_str();
        if (m_filter->SetWidevineEncryption(&settings) != S_OK)
            throw ExitError(kExitUsage, "the engine refused the Widevine settings");
    } else if (e.keyServerKind == Server::InsideSecure) {
        flt::InsideSecureEncryptionSettings settings{};
        settings.serverUrl = e.insideSecureKeyServer.c_str();
        settings.laUrl = e.playReadyLicenceUrl.c_str();
        settings.contentId = e.kmsContentId.c_str();
        settings.keyPeriod = e.keyPeriod;
        if (m_filter->SetInsideSecureEncryption(&settings) != S_OK)
            throw ExitError(kExitUsage, "the engine refused the Inside Secure settings");
    } else if (e.keyServerKind == Server::BuyDrm) {
        flt::BuyDrmEncryptionSettings settings{};
        settings.keyId = e.keyId.c_str();
        settings.userKey = e.buyDrmUserKey.c_str();
        settings.serverKey = e.buyDrmServerKey.c_str();
        settings.contentId = e.kmsContentId.c_str();
        settings.serverUrl = e.buyDrmKeyServer.c_str();
        if (m_filter->SetBuyDrmEncryption(&settings) != S_OK)
            throw ExitError(kExitUsage, "the engine refused the BuyDRM settings");
    } else {
        configureHarmonic(e);
    }
    configureKeyServerTls(e);
}

void Packager::configureHarmonic(const EncryptionOptions& e) {
    std::vector<flt::HarmonicDrmSystemSettings> systems;
    if (e.playReady) systems.push_back({"9a04f079-9840-4286-ab92-e65be0885f95", "PlayReady"});
    if (e.widevine) systems.push_back({"edef8ba9-79d6-4ace-a3c8-27dcd51d21ed", "Widevine"});
    if (e.clearKey) systems.push_back({"1077efec-c0b2-4d02-ace3-3c1e52e2fb4b", "ClearKey"});
    flt::HarmonicKmsEncryptionSettings settings{};
    settings.resourceId = e.kmsResourceId.c_str();
    settings.requestorId = e.kmsRequestorId.c_str();
    settings.keyPeriod = e.keyPeriod;
    settings.keySessionUrl = e.kmsSessionUrl.c_str();
    settings.backupKeySessionUrl = e.kmsBackupSessionUrl.c_str();
    settings.keySessionSettings = "";
    settings.implementation = e.kmsKeyUrl.empty() ? 0 : 1;
    settings.keyProvisioningUrl = e.kmsKeyUrl.c_str();
    settings.drmCount = static_cast<std::int32_t>(systems.size());
    settings.drmList = systems.data();
    if (m_filter->SetHarmonicKmsEncryption(&settings) != S_OK)
        throw ExitError(kExitUsage, "the engine refused the key server settings");
}

void Packager::configureKeyServerTls(const EncryptionOptions& e) {
    if (e.kmsCaFile.empty() && e.kmsClientKey.empty()) return;
    flt::KeyServerConnectionOptions tls{};
    tls.verifyPeer = true;
    tls.verifyHost = true;
    tls.caFile = e.kmsCaFile.empty() ? nullptr : e.kmsCaFile.c_str();
    tls.clientKeyFile = e.kmsClientKey.empty() ? nullptr : e.kmsClientKey.c_str();
    tls.clientKeyPassword = e.kmsClientKeyPassword.empty() ? nullptr : e.kmsClientKeyPassword.c_str();
    if (m_filter->SetKeyServerConnection(true, flt::KeyServerTls, &tls) != S_OK)
        throw ExitError(kExitUsage, "the engine refused the key server's TLS settings");
}

Packager::~Packager() { stop(); }

int Packager::connect(const StreamSetup& stream, long bufferCount, ChunkSink::Handler onChunk, ChunkSink::Rooms rooms) {
    const StreamInfo& info = stream.info;
    // The engine's stream descriptors: {element, scheme, value} each.
    const std::size_t count = stream.descriptors.size();
    auto descriptors = std::make_unique<const char* [][3]>(std::max<std::size_t>(count, 1));
    for (std::size_t i = 0; i < count; ++i) {
        const Descriptor& d = stream.descriptors[i];
        descriptors[i][0] = d.element.c_str();
        descriptors[i][1] = d.scheme.c_str();
        descriptors[i][2] = d.value.c_str();
    }
    if (m_filter->ConfigureInputPin(stream.bitrate, stream.language.c_str(), 0, stream.name.c_str(), "", 0,
                                    static_cast<std::int32_t>(count), descriptors.get()) != S_OK)
        throw ExitError(kExitFailed, "cannot configure an input for stream " + stream.label);
    flt::MuxFmp4InputPin* pin = nullptr;
    for (auto* p : m_filter->inputPins())
        if (!p->IsConnected() && (pin == nullptr || p->streamId() < pin->streamId())) pin = p;
    // LATM and raw AAC are not offered at connection: the stream connects as ADTS and then takes its real type
    // through the pin's dynamic type change.
    const bool changesType = info.streamType == 5 || info.streamType == 10;
    if (pin == nullptr || pin->ReceiveConnection(mediaTypeFor(changesType ? 4 : info.streamType)) != S_OK ||
        (changesType && pin->SetMediaType(mediaTypeFor(info.streamType)) != S_OK))
        throw ExitError(kExitFailed, "cannot connect stream " + stream.label + " (" + info.codec + ")");
    flt::MuxFmp4OutputPin* output = m_filter->outputFor(pin->streamId());
    m_sinks.push_back(std::make_unique<ChunkSink>(m_dash, bufferCount, std::move(onChunk), std::move(rooms)));
    if (output == nullptr || output->Connect(m_sinks.back().get()) != S_OK)
        throw ExitError(kExitFailed, "cannot connect the output of stream " + stream.label);
    m_pins.push_back(pin);
    m_awaited.push_back(m_sinks.back().get());
    return static_cast<int>(m_pins.size() - 1);
}

int Packager::connectSplices(const StreamSetup& stream, std::string& refused) {
    if (!flt::packagesStreamType(stream.info.streamType)) {
        refused = "the engine does not take SCTE-35 input";
        return -1;
    }
    try {
        const int handle = connect(stream, 16, [](bool, ChunkSink::Bytes&&, std::size_t, ChunkSink::References&&) {}, {});
        m_awaited.pop_back();  // its output carries no media: the run does not wait for its end
        return handle;
    } catch (const ExitError& e) {
        refused = e.what();
        return -1;
    }
}

void Packager::start(const std::atomic<bool>& stop) {
    namespace fmp4 = tvrn::encoding::packaging::imff::fmp4;
    m_filter->Pause();
    m_filter->Run();
    m_running = true;
    // The session is built on the filter's worker; a configuration it cannot run leaves the worker idle. With a
    // key server, the worker waits for its first answer, trying again every few seconds.
    const auto started = std::chrono::steady_clock::now();
    bool told = false;
    for (;;) {
        if (m_filter->waitForWorkerState(fmp4::Running, std::chrono::milliseconds(200))) return;
        const auto waited = std::chrono::steady_clock::now() - started;
        const bool waitingForKeys = m_keyServer && m_filter->workerState() == fmp4::Starting;
        if (!waitingForKeys && waited > std::chrono::seconds(10))
            throw ExitError(kExitFailed, "the packaging session did not start (see the messages above)");
        if (!waitingForKeys) continue;
        if (!told && keyServerDown()) {
            say("waiting for the key server to answer before reading the inputs (Ctrl-C stops)");
            told = true;
        }
        if (stop.load()) throw ExitError(kExitFailed, "interrupted while waiting for the key server");
        if (m_keyServerWait.count() > 0 && waited > m_keyServerWait)
            throw ExitError(kExitFailed, "the key server did not answer within --kms-wait");
    }
}

bool Packager::keyServerDown() const {
    std::uint32_t status = flt::KeyServerUnknown;
    return m_keyServer && m_filter->GetKeyServerStatus(&status) == S_OK && status == flt::KeyServerDown;
}

void Packager::deliver(int stream, Packet& packet) {
    // Bytes the packet owns whole go into the sample as they are; bytes it only points to are copied.
    const bool whole = !packet.owned.empty() && packet.data == packet.owned.data() && packet.size == packet.owned.size();
    auto sample = whole ? flt::COwnedMediaSample::adopt(std::move(packet.owned), std::move(packet.recycler))
                        : flt::COOBMediaSample::createUninitialised(packet.size);
    if (whole) {
        packet.data = nullptr;
        packet.size = 0;
    } else if (packet.size > 0) {
        std::uint8_t* data = nullptr;
        sample->GetPointer(&data);
        std::memcpy(data, packet.data, packet.size);
    }
    if (packet.pts) {
        const std::int64_t stopTime = *packet.pts + packet.duration;
        sample->SetTime(&*packet.pts, packet.duration > 0 ? &stopTime : nullptr);
    }
    if (packet.dts) sample->SetMediaTime(&*packet.dts, &*packet.dts);
    sample->SetSyncPoint(packet.key);
    m_pins.at(static_cast<std::size_t>(stream))->Receive(sample.get());
}

void Packager::endOfStream(int stream) { m_pins.at(static_cast<std::size_t>(stream))->EndOfStream(); }

bool Packager::waitForEnd(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (ChunkSink* sink : m_awaited) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (!sink->waitForEnd(std::max(left, std::chrono::milliseconds(0)))) return false;
    }
    return true;
}

void Packager::stop() {
    if (!m_running) return;
    m_running = false;
    m_filter->Stop();
    // The session ends on the filter's worker, which joins the threads that deliver chunks: once the worker is
    // idle nothing reaches the sinks (and what they hand chunks to) any more, even when the run stops early.
    m_filter->waitForWorkerState(tvrn::encoding::packaging::imff::fmp4::Idle, std::chrono::seconds(60));
}

}  // namespace fmp4mux
