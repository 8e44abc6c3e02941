#include "filter/mux_fmp4_filter/mux_fmp4_filter.h"

#include <algorithm>
#include <cstring>

#include "packaging/fmp4/chunks/parental_rating.h"
#include "packaging/lib_parse_es/nal_builder_audio_frames.h"
#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::filter {

using namespace tvrn::com;
using tvrn::log::LOG_ERROR;
using tvrn::log::LOG_INFO;

namespace {

std::string text(const char* value) { return value ? value : ""; }

// The records of the encryption configuration, from the settings of the configuration slots.

std::optional<encryption::HarmonicConfiguration> recordOf(const HarmonicKmsEncryptionSettings& s) {
    const std::string resourceId = text(s.resourceId);
    if (resourceId.size() > 128 || s.drmCount < 0 || (s.drmCount > 0 && s.drmList == nullptr)) return std::nullopt;
    encryption::HarmonicConfiguration r;
    r.resourceId = resourceId;
    r.requestorId = text(s.requestorId);
    r.keyPeriod = s.keyPeriod;
    r.keySessionUrl = text(s.keySessionUrl);
    r.backupKeySessionUrl = text(s.backupKeySessionUrl);
    r.keySessionSettings = text(s.keySessionSettings);
    r.implementation = s.implementation;
    r.keyProvisioningUrl = text(s.keyProvisioningUrl);
    for (std::int32_t i = 0; i < s.drmCount; ++i)
        r.drmList.push_back({text(s.drmList[i].drmSystemId), text(s.drmList[i].drmName)});
    return r;
}

std::optional<encryption::IrdetoConfiguration> recordOf(const IrdetoEncryptionSettings& s) {
    encryption::IrdetoConfiguration r;
    r.serverUrl = text(s.serverUrl);
    if (s.variant == 0) {
        r.variant = encryption::IrdetoGenerateKeysSettings{
            s.keyRequestPeriod, s.keyChangePeriod, s.activeCloakPr, s.ca, s.clearKey, s.hlsChinaDrm, s.hlsPantos,
            s.irdetoProtection, s.marlin, s.playReady, s.primeTime, s.ske, s.fairPlayStreaming, s.widevine};
    } else if (s.variant == 1) {
        r.variant = encryption::IrdetoPlayReadyScalableLicense{};
    } else {
        return std::nullopt;
    }
    r.accountId = text(s.accountId);
    r.contentId = text(s.contentId);
    r.userName = text(s.userName);
    r.password = text(s.password);
    r.eventName = text(s.eventName);
    r.description = text(s.description);
    r.url = text(s.url);
    r.subContentType = text(s.subContentType);
    r.encryptionType = text(s.encryptionType);
    r.policyGroupId = s.policyGroupId;
    return r;
}

encryption::BuyDrmConfiguration recordOf(const BuyDrmEncryptionSettings& s) {
    return {.keyId = text(s.keyId), .userKey = text(s.userKey), .serverKey = text(s.serverKey),
            .contentId = text(s.contentId), .serverUrl = text(s.serverUrl)};
}

encryption::VerimatrixConfiguration recordOf(const VerimatrixEncryptionSettings& s) {
    return {.keyPeriod = s.keyPeriod, .resourceId = text(s.resourceId), .serverUrl = text(s.serverUrl)};
}

encryption::InsideSecureConfiguration recordOf(const InsideSecureEncryptionSettings& s) {
    return {.serverUrl = text(s.serverUrl), .laUrl = text(s.laUrl), .contentId = text(s.contentId),
            .keyPeriod = s.keyPeriod};
}

encryption::WidevineConfiguration recordOf(const WidevineEncryptionSettings& s) {
    encryption::WidevineConfiguration r{.serverUrl = text(s.serverUrl), .signer = text(s.signer), .signing = {},
                                        .keyPeriod = s.keyPeriod, .contentId = text(s.contentId)};
    if (s.signRequests) r.signing = encryption::WidevineSigningKey{text(s.signingKey), text(s.signingIv)};
    return r;
}

encryption::ManualPlayReadyConfiguration recordOf(const ManualPlayReadyEncryptionSettings& s) {
    return {.keyId = text(s.keyId), .keySeed = text(s.keySeed), .contentKey = text(s.contentKey),
            .laUrl = text(s.laUrl), .luiUrl = text(s.luiUrl), .domainServiceId = text(s.domainServiceId)};
}

encryption::MultiDrmConfiguration recordOf(const MultiDrmEncryptionSettings& s) {
    return {.keyId = text(s.keyId), .keyPeriod = s.keyPeriod, .keySeed = text(s.keySeed),
            .contentKey = text(s.contentKey), .playReadyEnabled = s.playReadyEnabled, .laUrl = text(s.laUrl),
            .marlinEnabled = s.marlinEnabled, .marlinText = text(s.marlinText),
            .verimatrixEnabled = s.verimatrixEnabled, .verimatrixData = text(s.verimatrixData),
            .widevineEnabled = s.widevineEnabled, .widevineProvider = text(s.widevineProvider),
            .widevineContentId = text(s.widevineContentId), .customEnabled = s.customEnabled,
            .customSystemId = text(s.customSystemId), .customPsshData = text(s.customPsshData),
            .customElement = text(s.customElement), .customPsshListsKeyId = s.customPsshListsKeyId};
}

// The key period of the provider the configuration makes, in seconds: above 0 the key changes during the session.
std::int32_t keyRotationPeriod(const encryption::EncryptionConfiguration& configuration) {
    using encryption::EncryptionMode;
    switch (configuration.mode()) {
    case EncryptionMode::HarmonicKms: return configuration.record<encryption::HarmonicConfiguration>().keyPeriod;
    case EncryptionMode::Verimatrix: return configuration.record<encryption::VerimatrixConfiguration>().keyPeriod;
    case EncryptionMode::InsideSecure: return configuration.record<encryption::InsideSecureConfiguration>().keyPeriod;
    case EncryptionMode::Widevine: return configuration.record<encryption::WidevineConfiguration>().keyPeriod;
    case EncryptionMode::Irdeto: {
        const auto& variant = configuration.record<encryption::IrdetoConfiguration>().variant;
        const auto* keys = std::get_if<encryption::IrdetoGenerateKeysSettings>(&variant);
        return keys ? keys->keyChangePeriod : 0;
    }
    default: return 0;  // one key for the whole session
    }
}

}  // namespace

fmp4::Fmp4MuxParts withMpeg1Layer3(fmp4::Fmp4MuxParts parts) {
    namespace es = packaging::lib_parse_es;
    parts.makeNalBuilder = [others = std::move(parts.makeNalBuilder)](std::uint32_t streamType) {
        if (streamType == es::StreamType::MPEG1_AUDIO)
            return std::unique_ptr<es::NALBuilder>(std::make_unique<es::NALBuilderMPEG1Audio>(true));
        return others(streamType);
    };
    return parts;
}

fmp4::Fmp4MuxParts withInputsReferenced(fmp4::Fmp4MuxParts parts) {
    parts.makeNalBuilder = [others = std::move(parts.makeNalBuilder)](std::uint32_t streamType) {
        auto builder = others(streamType);
        if (builder) builder->setReferenceInputs(true);
        return builder;
    };
    return parts;
}

fmp4::Fmp4MuxParts withoutWaitingForSparseStreams(fmp4::Fmp4MuxParts parts) {
    parts.makeChunksBuilder = [others = std::move(parts.makeChunksBuilder)](fmp4::ChunksBuilderParams params) {
        params.sparseStreamsHoldOrigin = false;
        return others(params);
    };
    return parts;
}

fmp4::Fmp4MuxParts withChunkDump(fmp4::Fmp4MuxParts parts, std::function<void(const std::string&)> dump) {
    parts.makeChunksBuilder = [others = std::move(parts.makeChunksBuilder), dump = std::move(dump)](fmp4::ChunksBuilderParams params) {
        params.chunkDump = dump;
        return others(params);
    };
    return parts;
}

CMuxFmp4Filter* CMuxFmp4Filter::Create(fmp4::Fmp4MuxParts parts, KeyServerParts keyServer) {
    return new CMuxFmp4Filter(std::move(parts), std::move(keyServer));
}

IMuxFmp4Config* CreateMuxFmp4Filter() { return CMuxFmp4Filter::Create(); }

CMuxFmp4Filter::CMuxFmp4Filter(fmp4::Fmp4MuxParts parts, KeyServerParts keyServer)
    : m_parts(std::move(parts)), m_keyServer(std::move(keyServer)) {
    addInputPin();
    m_worker = std::make_unique<fmp4::MuxWorker>(
        m_lock, m_logger, [this] { return buildSession(); },
        [this](fmp4::MuxWorker& worker, fmp4::IMuxSession& session) { return waitForKeyServer(worker, session); });
}

CMuxFmp4Filter::~CMuxFmp4Filter() {
    // The worker ends first (exit event and join), then the pins go.
    m_worker.reset();
    m_listeners.clear();
    m_outputs.clear();
    m_inputs.clear();
}

HRESULT CMuxFmp4Filter::QueryInterface(const GUID& iid, void** object) {
    if (object == nullptr) return E_POINTER;
    if (iid == guids::IID_IMuxFmp4Config) {
        *object = static_cast<IMuxFmp4Config*>(this);
        AddRef();
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}

unsigned long CMuxFmp4Filter::AddRef() { return m_refCount.add(); }

unsigned long CMuxFmp4Filter::Release() {
    const unsigned long left = m_refCount.release();
    if (left == 0) delete this;
    return left;
}

HRESULT CMuxFmp4Filter::ConfigureInputPin(std::uint32_t bitrate, const char* language, std::uint32_t flag,
                                          const char* name, const char* extraParameters, std::uint32_t group,
                                          std::int32_t descriptorCount, const char* const (*descriptors)[3]) {
    try {
        std::lock_guard lock(m_lock);
        if (m_state.load() != FilterState::Stopped) return VFW_E_WRONG_STATE;
        MuxFmp4InputPin* target = nullptr;
        for (const auto& pin : m_inputs) {
            if (!pin->IsConnected() && (target == nullptr || pin->streamId() < target->streamId())) target = pin.get();
        }
        if (target == nullptr) return E_FAIL;
        if (bitrate < 1) return E_INVALIDARG;
        if (descriptorCount < 0 || (descriptorCount > 0 && descriptors == nullptr)) return E_INVALIDARG;
        std::vector<fmp4::StreamDescriptor> list;
        for (std::int32_t i = 0; i < descriptorCount; ++i) {
            const auto& entry = descriptors[i];
            list.push_back({entry[0] ? entry[0] : "", entry[1] ? entry[1] : "", entry[2] ? entry[2] : ""});
        }
        auto& attributes = target->attributes();
        attributes.bitrate = static_cast<std::int32_t>(std::min<std::uint32_t>(bitrate, 0x7FFFFFFF));
        attributes.language = language ? language : "";
        attributes.flag = flag != 0;
        attributes.name = name ? name : "";
        attributes.name2 = extraParameters ? extraParameters : "";
        attributes.group = static_cast<std::int32_t>(group);
        attributes.descriptors = std::move(list);
        return S_OK;
    } catch (const std::exception&) {
        return E_FAIL;
    }
}

HRESULT CMuxFmp4Filter::SetChunkWarningNotifier(
    packaging::synchronizator::i_chunk_warning_notifier::IFmp4ChunkWarningNotifier* notifier) {
    std::lock_guard lock(m_lock);
    m_notifier = notifier;
    return S_OK;
}

HRESULT CMuxFmp4Filter::SetLogger(tvrn::log::ILogger* logger) {
    std::lock_guard lock(m_lock);
    if (!isIdle()) return E_FAIL;
    m_logger.SetTarget(logger);
    return S_OK;
}

HRESULT CMuxFmp4Filter::SetMuxMode(const char* streamName, std::uint32_t outputFormat, std::uint32_t mode,
                                   std::int32_t gopDurationMs, std::uint32_t gopsPerSegment,
                                   std::int32_t audioSegmentDurationMs, std::int32_t chunkDurationMs,
                                   std::uint8_t inBandParameterSets, std::uint8_t psshInFragments,
                                   std::uint8_t allVideoInInit, std::uint8_t driftDetection, std::uint8_t offline) {
    std::lock_guard lock(m_lock);
    if (!isIdle()) return E_FAIL;
    // An unknown mode raises out of the call, before anything changes.
    auto config = fmp4::Fmp4MuxConfig::fromMode(mode, gopDurationMs, gopsPerSegment,
                                                static_cast<std::uint32_t>(audioSegmentDurationMs),
                                                static_cast<std::uint64_t>(chunkDurationMs));
    m_config = std::move(config);
    m_outputFormat = static_cast<fmp4::OutputFormat>(outputFormat);
    m_inBandParameterSets = inBandParameterSets != 0;
    m_psshInFragments = psshInFragments != 0;
    m_allVideoInInit = allVideoInInit != 0;
    m_driftDetection = driftDetection != 0;
    m_offline = offline != 0;
    m_streamName = streamName ? streamName : "";
    for (auto& output : m_outputs) output->setSegmentDurationMs(m_config.segmentDurationMs());
    return S_OK;
}

HRESULT CMuxFmp4Filter::SetPlayerCompatibleOutput(bool on) {
    std::lock_guard lock(m_lock);
    if (!isIdle()) return E_FAIL;
    m_playerCompatible = on;
    return S_OK;
}

HRESULT CMuxFmp4Filter::SetFirstNumber(std::int32_t firstNumber) {
    if (firstNumber < 0) return E_INVALIDARG;
    std::lock_guard lock(m_lock);
    m_firstNumber = firstNumber;
    return S_OK;
}

HRESULT CMuxFmp4Filter::SetDefaultParentalRating(std::uint32_t age) {
    std::lock_guard lock(m_lock);
    m_defaultParentalRating = age;
    return S_OK;
}

HRESULT CMuxFmp4Filter::setEncryption(encryption::EncryptionConfiguration configuration) {
    std::lock_guard lock(m_lock);
    if (!isIdle()) return E_FAIL;
    m_encryption = std::move(configuration);
    return S_OK;
}

HRESULT CMuxFmp4Filter::SetHarmonicKmsEncryption(const HarmonicKmsEncryptionSettings* settings) {
    if (settings == nullptr) return E_POINTER;
    auto record = recordOf(*settings);
    return record ? setEncryption(std::move(*record)) : E_INVALIDARG;
}

HRESULT CMuxFmp4Filter::SetIrdetoEncryption(const IrdetoEncryptionSettings* settings) {
    if (settings == nullptr) return E_POINTER;
    auto record = recordOf(*settings);
    return record ? setEncryption(std::move(*record)) : E_INVALIDARG;
}

HRESULT CMuxFmp4Filter::SetBuyDrmEncryption(const BuyDrmEncryptionSettings* settings) {
    return settings ? setEncryption(recordOf(*settings)) : E_POINTER;
}

HRESULT CMuxFmp4Filter::SetVerimatrixEncryption(const VerimatrixEncryptionSettings* settings) {
    return settings ? setEncryption(recordOf(*settings)) : E_POINTER;
}

HRESULT CMuxFmp4Filter::SetInsideSecureEncryption(const InsideSecureEncryptionSettings* settings) {
    return settings ? setEncryption(recordOf(*settings)) : E_POINTER;
}

HRESULT CMuxFmp4Filter::SetWidevineEncryption(const WidevineEncryptionSettings* settings) {
    return settings ? setEncryption(recordOf(*settings)) : E_POINTER;
}

HRESULT CMuxFmp4Filter::SetManualPlayReadyEncryption(const ManualPlayReadyEncryptionSettings* settings) {
    return settings ? setEncryption(recordOf(*settings)) : E_POINTER;
}

HRESULT CMuxFmp4Filter::SetMultiDrmEncryption(const MultiDrmEncryptionSettings* settings) {
    return settings ? setEncryption(recordOf(*settings)) : E_POINTER;
}

HRESULT CMuxFmp4Filter::SetKeyServerConnection(bool enabled, std::uint32_t kind,
                                               const KeyServerConnectionOptions* options) {
    if (!enabled) return S_OK;
    encryption::TransportSecurity security;
    if (kind == KeyServerTls) {
        if (options == nullptr) return E_POINTER;
        if (options->clientKeyFile == nullptr && options->clientKeyPassword != nullptr) return E_INVALIDARG;
        encryption::TlsSettings tls{options->verifyPeer, options->verifyHost, text(options->caFile), std::nullopt};
        if (options->clientKeyFile != nullptr) {
            tls.clientCertificate = encryption::ClientCertificate{options->clientKeyFile, std::nullopt};
            if (options->clientKeyPassword != nullptr) tls.clientCertificate->password = options->clientKeyPassword;
        }
        security = std::move(tls);
    } else if (kind != KeyServerPlain) {
        return E_INVALIDARG;
    }
    std::lock_guard lock(m_lock);
    if (!isIdle()) return E_FAIL;
    m_transportSecurity = std::move(security);
    return S_OK;
}

HRESULT CMuxFmp4Filter::GetStatus(std::uint32_t* chunksDelivered, char* text, std::uint32_t textSize) {
    if (chunksDelivered == nullptr) return E_POINTER;
    std::lock_guard lock(m_lock);
    *chunksDelivered = static_cast<std::uint32_t>(m_worker->stats().chunksDelivered.load());
    if (text != nullptr && textSize >= 1) text[0] = '\0';
    return S_OK;
}

HRESULT CMuxFmp4Filter::GetKeyServerStatus(std::uint32_t* status) {
    if (status == nullptr) return E_POINTER;
    std::lock_guard lock(m_keyStatusLock);
    *status = m_keyServerStatus;
    return S_OK;
}

HRESULT CMuxFmp4Filter::SetOverheadPercent(std::uint32_t percent) {
    std::lock_guard lock(m_lock);
    m_overheadPercent = percent;
    return S_OK;
}

HRESULT CMuxFmp4Filter::SetEncryptionScheme(std::uint32_t scheme, const std::uint8_t (*constantIv)[16]) {
    encryption::SchemeSettings settings;
    if (scheme == EncryptionSchemeCbcs) {
        settings.scheme = encryption::EncryptionScheme::Cbcs;
        if (constantIv != nullptr) {
            settings.constantIv.emplace();
            std::copy(std::begin(*constantIv), std::end(*constantIv), settings.constantIv->begin());
        }
    } else if (scheme != EncryptionSchemeCenc || constantIv != nullptr) {
        return E_INVALIDARG;
    }
    std::lock_guard lock(m_lock);
    if (!isIdle()) return E_FAIL;
    m_scheme = settings;
    return S_OK;
}

void CMuxFmp4Filter::OnKeyServerStatus(bool up) {
    std::lock_guard lock(m_keyStatusLock);
    if (m_keyServerStatus == KeyServerMainUp || m_keyServerStatus == KeyServerBackupUp) {
        if (up) return;
        m_keyServerStatus = KeyServerDown;
        m_logger.WriteMsg(LOG_ERROR, "Key management server down");
        return;
    }
    if (up) {
        m_keyServerStatus = KeyServerMainUp;
        m_logger.WriteMsg(LOG_INFO, "Key management server up");
    } else if (m_keyServerStatus != KeyServerDown) {
        m_keyServerStatus = KeyServerDown;
        m_logger.WriteMsg(LOG_ERROR, "Key management server down");
    }
}

HRESULT CMuxFmp4Filter::Pause() {
    std::lock_guard lock(m_lock);
    // Pausing from any state asks for a session; a running session makes the request wait for the next stop.
    m_worker->start();
    m_state = FilterState::Paused;
    return S_OK;
}

HRESULT CMuxFmp4Filter::Run() {
    std::lock_guard lock(m_lock);
    m_state = FilterState::Running;
    return S_OK;
}

HRESULT CMuxFmp4Filter::Stop() {
    std::lock_guard lock(m_lock);
    m_worker->stop();
    m_state = FilterState::Stopped;
    return S_OK;
}

FilterState CMuxFmp4Filter::GetState() const { return m_state.load(); }

int CMuxFmp4Filter::GetPinCount() const {
    std::lock_guard lock(m_lock);
    return static_cast<int>(m_inputs.size() + m_outputs.size());
}

std::vector<MuxFmp4InputPin*> CMuxFmp4Filter::inputPins() const {
    std::lock_guard lock(m_lock);
    std::vector<MuxFmp4InputPin*> pins;
    for (const auto& pin : m_inputs) pins.push_back(pin.get());
    return pins;
}

std::vector<MuxFmp4OutputPin*> CMuxFmp4Filter::outputPins() const {
    std::lock_guard lock(m_lock);
    std::vector<MuxFmp4OutputPin*> pins;
    for (const auto& pin : m_outputs) pins.push_back(pin.get());
    return pins;
}

MuxFmp4OutputPin* CMuxFmp4Filter::outputFor(std::int32_t streamId) const {
    std::lock_guard lock(m_lock);
    for (const auto& [index, ids] : m_pairings)
        if (std::find(ids.begin(), ids.end(), streamId) != ids.end()) return m_outputs[static_cast<std::size_t>(index)].get();
    return nullptr;
}

std::int32_t CMuxFmp4Filter::lowestFreeStreamId() const {
    std::int32_t id = 0;
    while (std::any_of(m_inputs.begin(), m_inputs.end(), [id](const auto& p) { return p->streamId() == id; })) ++id;
    return id;
}

void CMuxFmp4Filter::addInputPin() {
    m_inputs.push_back(std::make_unique<MuxFmp4InputPin>(*this, lowestFreeStreamId()));
}

HRESULT CMuxFmp4Filter::onInputConnected(MuxFmp4InputPin& pin, const MediaType& type) {
    const bool video = fmp4::isVideo(pin.attributes().type);
    const std::int32_t streamId = pin.streamId();
    const std::int32_t inputBitrate = pin.attributes().bitrate;
    auto makeOutput = [this]() -> int {
        const int index = static_cast<int>(m_outputs.size());
        m_outputs.push_back(std::make_unique<MuxFmp4OutputPin>(*this, index + 1));
        m_outputs.back()->setSegmentDurationMs(m_config.segmentDurationMs() > 0 ? m_config.segmentDurationMs() : 2000);
        m_listeners[index] = std::make_unique<CIsomffListener>(*m_outputs.back(), *this);
        m_pairings[index] = {};
        return index;
    };
    auto bitrateOf = [this](std::int32_t id) {
        for (const auto& p : m_inputs)
            if (p->streamId() == id) return p->attributes().bitrate;
        return 0;
    };

    const bool muxed = m_muxedTopology == 2;
    if (!muxed) {
        // Each input gets an output of its own.
        const int index = makeOutput();
        m_pairings[index].push_back(streamId);
        m_outputs[static_cast<std::size_t>(index)]->setBitrate(std::max(0, inputBitrate));
    } else if (video) {
        if (m_videoInputs.empty()) {
            m_listeners.clear();
            m_outputs.clear();
            m_pairings.clear();
        }
        const int index = makeOutput();
        std::int32_t total = inputBitrate;
        m_pairings[index].push_back(streamId);
        for (const std::int32_t audio : m_otherInputs) {
            m_pairings[index].push_back(audio);
            total += bitrateOf(audio);
        }
        auto& output = *m_outputs[static_cast<std::size_t>(index)];
        output.setBitrate(std::max(output.bitrate(), total));
    } else if (!m_videoInputs.empty()) {
        for (auto& [index, ids] : m_pairings) {
            ids.push_back(streamId);
            auto& output = *m_outputs[static_cast<std::size_t>(index)];
            output.setBitrate(std::max(output.bitrate(), output.bitrate() + inputBitrate));
        }
    } else {
        const int index = makeOutput();
        m_pairings[index].push_back(streamId);
        m_outputs[static_cast<std::size_t>(index)]->setBitrate(std::max(0, inputBitrate));
    }
    (video ? m_videoInputs : m_otherInputs).push_back(streamId);
    (void)type;

    const bool allConnected = std::all_of(m_inputs.begin(), m_inputs.end(), [](const auto& p) { return p->IsConnected(); });
    if (allConnected && m_inputs.size() < kMaxInputPins) addInputPin();
    return S_OK;
}

void CMuxFmp4Filter::SetEventSink(IMediaEventSink* sink) {
    std::lock_guard lock(m_eventLock);
    m_eventSink = sink;
}

void CMuxFmp4Filter::notifyEvent(long eventCode, std::intptr_t param1, std::intptr_t param2) {
    std::lock_guard lock(m_eventLock);
    if (m_eventSink != nullptr) m_eventSink->Notify(eventCode, param1, param2);
}

void CMuxFmp4Filter::onInputDisconnected(MuxFmp4InputPin& pin) {
    const std::int32_t id = pin.streamId();
    std::erase(m_videoInputs, id);
    std::erase(m_otherInputs, id);
    // The stream leaves its pairings; an output left with no stream goes with its listener, so that a reconnected
    // input gets one output again and no session writes a stream twice. Outputs keep their order and names.
    std::vector<std::unique_ptr<MuxFmp4OutputPin>> outputs;
    std::map<int, std::vector<std::int32_t>> pairings;
    std::map<int, std::unique_ptr<CIsomffListener>> listeners;
    for (std::size_t i = 0; i < m_outputs.size(); ++i) {
        std::vector<std::int32_t>& ids = m_pairings[static_cast<int>(i)];
        std::erase(ids, id);
        if (ids.empty()) {
            m_outputs[i]->Disconnect();
            continue;
        }
        const int index = static_cast<int>(outputs.size());
        outputs.push_back(std::move(m_outputs[i]));
        pairings[index] = std::move(ids);
        listeners[index] = std::move(m_listeners[static_cast<int>(i)]);
    }
    m_listeners = std::move(listeners);
    m_outputs = std::move(outputs);
    m_pairings = std::move(pairings);
    // Unconnected inputs go, except the first pin.
    for (std::size_t i = m_inputs.size(); i-- > 1;)
        if (!m_inputs[i]->IsConnected()) m_inputs.erase(m_inputs.begin() + static_cast<long>(i));
    if (std::all_of(m_inputs.begin(), m_inputs.end(), [](const auto& p) { return p->IsConnected(); })) addInputPin();
}

std::unique_ptr<fmp4::IMuxSession> CMuxFmp4Filter::buildSession() {
    // A key that changes during the session is announced in the fragments that use it.
    const bool psshInFragments = m_psshInFragments || keyRotationPeriod(m_encryption) > 0;
    auto session = std::make_unique<fmp4::Fmp4Mux>(m_outputFormat, m_config, m_notifier, m_logger, m_inBandParameterSets,
                                                   psshInFragments, m_allVideoInInit, m_driftDetection, m_offline,
                                                   m_parts, m_playerCompatible);
    std::vector<MuxFmp4InputPin*> connected;
    for (const auto& pin : m_inputs)
        if (pin->IsConnected()) connected.push_back(pin.get());
    std::sort(connected.begin(), connected.end(), [](auto* a, auto* b) { return a->streamId() < b->streamId(); });
    for (auto* pin : connected) {
        fmp4::ElementaryStreamAttributes attributes = pin->attributes();
        // Video announces that its segments carry rating events when a default rating applies.
        if (m_defaultParentalRating && fmp4::isVideo(attributes.type))
            attributes.descriptors.push_back({"Rating", fmp4::kParentalRatingDescriptorScheme, "1"});
        session->AddStream(static_cast<std::uint32_t>(pin->streamId()), attributes);
    }

    std::vector<fmp4::ChunkOutputSeed> outputs;
    for (const auto& [index, ids] : m_pairings) {
        fmp4::ChunkOutputSeed seed;
        seed.streamIds = ids;
        seed.output = m_listeners.at(index).get();
        seed.firstNumber = static_cast<std::uint64_t>(m_firstNumber);
        outputs.push_back(std::move(seed));
    }
    session->SetOutputs(outputs);
    if (m_defaultParentalRating) session->SetDefaultParentalRating(*m_defaultParentalRating);
    return session;
}

fmp4::WorkerState CMuxFmp4Filter::waitForKeyServer(fmp4::MuxWorker& worker, fmp4::IMuxSession& session) {
    // The configuration is frozen while the worker is not idle: one copy serves every pass.
    encryption::EncryptionConfiguration configuration;
    encryption::TransportSecurity transportSecurity;
    bool smooth = false;
    {
        std::lock_guard lock(m_lock);
        configuration = m_encryption;
        configuration.setScheme(m_scheme);
        transportSecurity = m_transportSecurity;
        smooth = m_outputFormat == fmp4::Smooth;
    }
    if (configuration.mode() == encryption::EncryptionMode::None) return fmp4::Running;
    if (smooth && configuration.scheme().scheme == encryption::EncryptionScheme::Cbcs) {
        // PlayReady's Smooth Streaming protection is AES-CTR: its clients cannot read cbcs.
        m_logger.WriteMsg(LOG_ERROR, "Encryption scheme cbcs is not available in Smooth Streaming output (cenc only)");
        return fmp4::Idle;
    }
    // Only Harmonic has a backup address: the same configuration with the backup as its session address.
    std::optional<encryption::EncryptionConfiguration> backup;
    if (!encryption::getServerUrl(configuration, true).empty()) {
        auto record = configuration.record<encryption::HarmonicConfiguration>();
        record.keySessionUrl = record.backupKeySessionUrl;
        backup = encryption::EncryptionConfiguration(std::move(record));
        backup->setScheme(configuration.scheme());
    }
    for (;;) {
        // Each pass makes a new manager and provider, so that no provider needs to reconnect.
        if (connectKeyServer(configuration, transportSecurity, session, false)) return fmp4::Running;
        if (backup && connectKeyServer(*backup, transportSecurity, session, true)) return fmp4::Running;
        {
            std::lock_guard lock(m_keyStatusLock);
            if (m_keyServerStatus != KeyServerDown) {
                m_logger.WriteMsg(LOG_INFO, "Wait for key management server");
                m_keyServerStatus = KeyServerDown;
            }
        }
        switch (worker.queue().waitStopOrExit(m_keyServer.retryInterval)) {
        case fmp4::SampleQueue::Wake::Stop: return fmp4::Idle;
        case fmp4::SampleQueue::Wake::Exit: return fmp4::Exiting;
        default: break;
        }
    }
}

bool CMuxFmp4Filter::connectKeyServer(const encryption::EncryptionConfiguration& configuration,
                                      const encryption::TransportSecurity& transportSecurity,
                                      fmp4::IMuxSession& session, bool backup) {
    try {
        std::unique_ptr<encryption::EncryptionManager> manager;
        bool offline = false;
        {
            std::lock_guard lock(m_lock);
            offline = m_offline;
        }
        m_keyServer.buildEncryptionManager(manager, configuration, transportSecurity, m_logger, this,
                                           {offline, m_keyServer.requestTimeout});
        if (!manager || !manager->connect()) return false;
        {
            std::lock_guard lock(m_keyStatusLock);
            m_keyServerStatus = backup ? KeyServerBackupUp : KeyServerMainUp;
        }
        const std::string server = encryption::getServerUrl(configuration);
        if (!server.empty()) m_logger.WriteMsg(LOG_INFO, "Connection Established to %s", server.c_str());
        session.SetEncryptionManager(std::move(manager));
        return true;
    } catch (const std::exception& e) {
        // Told once: while the filter waits for the server, each pass fails the same way.
        std::lock_guard lock(m_keyStatusLock);
        if (m_keyServerStatus != KeyServerDown)
            m_logger.WriteMsg(LOG_ERROR, "Failed to configure encryption : '%s'", e.what());
        return false;
    }
}

void CMuxFmp4Filter::pushSample(std::int32_t streamId, fmp4::IMediaData* data) {
    std::lock_guard lock(m_lock);
    m_worker->push(static_cast<std::uint32_t>(streamId), data, m_state.load() == FilterState::Stopped);
}

void CMuxFmp4Filter::pushEndOfStream(std::int32_t streamId) {
    std::lock_guard lock(m_lock);
    m_worker->pushEndOfStream(static_cast<std::uint32_t>(streamId), m_state.load() == FilterState::Stopped);
}

void CMuxFmp4Filter::countChunk() {
    std::lock_guard lock(m_lock);
    m_worker->stats().chunksDelivered.fetch_add(1);
}

}  // namespace tvrn::encoding::filter
