#include "packaging/encryption/encryption_configuration.h"

namespace tvrn::encoding::packaging::encryption {
inline namespace v0 {

namespace {

template <typename... F>
struct Overloaded : F... {
    using F::operator()...;
};
template <typename... F>
Overloaded(F...) -> Overloaded<F...>;

}  // namespace

std::string getServerUrl(const EncryptionConfiguration& configuration, bool backup) {
    if (backup) {
        return configuration.mode() == EncryptionMode::HarmonicKms
                   ? configuration.record<HarmonicConfiguration>().backupKeySessionUrl
                   : std::string();
    }
    switch (configuration.mode()) {
    case EncryptionMode::BuyDrm: return configuration.record<BuyDrmConfiguration>().serverUrl;
    case EncryptionMode::HarmonicKms: return configuration.record<HarmonicConfiguration>().keySessionUrl;
    case EncryptionMode::Verimatrix: return configuration.record<VerimatrixConfiguration>().serverUrl;
    case EncryptionMode::SecureMedia: return configuration.record<SecureMediaConfiguration>().serverUrl;
    case EncryptionMode::InsideSecure: return configuration.record<InsideSecureConfiguration>().serverUrl;
    case EncryptionMode::Widevine: return configuration.record<WidevineConfiguration>().serverUrl;
    case EncryptionMode::Irdeto: return configuration.record<IrdetoConfiguration>().serverUrl;
    default: return std::string();
    }
}

bool isValidKeyChangePeriod(int period, std::uint32_t outputFormat, std::string& error) {
    if (outputFormat == 0) {
        if (period == 0) return true;
        error = "Smooth Streaming Key Rotation Period should be equal to zero";
        return false;
    }
    if (outputFormat == 1 || outputFormat == 2) {
        // The limit is an hour while the message says 36000: both are kept as they are.
        if (period >= 0 && period <= 3600) return true;
        error = "key change period should be betwin 0 and 36000 seconds";
        return false;
    }
    return true;
}

bool isValidIrdetoProtectionList(const IrdetoGenerateKeysSettings& s, std::string& error) {
    const bool pantosOnly =
        s.hlsPantos && !(s.clearKey || s.hlsChinaDrm || s.marlin || s.playReady || s.primeTime ||
                         s.fairPlayStreaming || s.widevine);
    const bool dashFamilyOnly =
        !s.hlsPantos && !(s.ca || s.hlsChinaDrm || s.marlin || s.playReady || s.primeTime || s.ske ||
                          s.fairPlayStreaming);
    if (!s.activeCloakPr && (s.irdetoProtection || pantosOnly || dashFamilyOnly)) return true;
    // One text for every refusal, whatever the flags were.
    error = "forbidden combination: IrdetoProtection + ActivCloakPr";
    return false;
}

bool isValidForDash(const IrdetoConfiguration& configuration, std::string& error) {
    if (configuration.variant.valueless_by_exception()) throw std::logic_error("internal assertion failure");
    return std::visit(
        Overloaded{
            [&](const IrdetoPlayReadyScalableLicense&) {
                error = "\"PlayReady Scalable Licenses\" is not implemented in MPEG-DASH output.";
                return false;
            },
            [&](const IrdetoGenerateKeysSettings& s) {
                if (s.primeTime) {
                    error = "\"Adobe PrimeTime\" is not available in MPEG-DASH output.";
                    return false;
                }
                if (s.hlsPantos || s.ca || s.ske || s.fairPlayStreaming || s.hlsChinaDrm || s.activeCloakPr) {
                    error = "\"HLSPantos\", \"CA\", \"SKE\", \"FairPlayStreaming\", \"ActiveCloakPr\" and "
                            "\"HLSChinaDrm\" are not available in MPEG-DASH output.";
                    return false;
                }
                if (s.clearKey) {
                    error = "\"ClearKey\" is not implemented in MPEG-DASH output.";
                    return false;
                }
                return true;
            }},
        configuration.variant);
}

bool isValidForHls(const IrdetoConfiguration& configuration, std::string& error) {
    if (configuration.variant.valueless_by_exception()) throw std::logic_error("internal assertion failure");
    if (std::holds_alternative<IrdetoPlayReadyScalableLicense>(configuration.variant)) return true;
    error = "Only \"PlayReady Scalable Licenses\" is implemented in HLS output.";
    return false;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::encryption
