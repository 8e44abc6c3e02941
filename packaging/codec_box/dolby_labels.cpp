#include "packaging/codec_box/dolby_labels.h"

#include <string>

namespace tvrn::encoding::packaging::imff::codec_box {
inline namespace v0 {

namespace {
constexpr const char* kLevels[9] = {"+3.0 dB", "+1.5 dB", "0.0 dB", "-1.5 dB", "-3.0 dB",
                                    "-4.5 dB", "-6.0 dB", "-inf dB", "None"};
constexpr int kNone = 8;
// Code to label index per kind. cmixlev: 0.707, 0.595, 0.500, reserved. surmixlev: 0.707, 0.500, 0, reserved.
// The 3-bit centre levels run from 1.414 to 0 in 1.5 dB steps; the 3-bit surround levels start at 0.841, the
// codes below 3 being reserved.
constexpr int kCentre[4] = {4, 5, 6, kNone};
constexpr int kSurround[4] = {4, 6, 7, kNone};
constexpr int kCentre3[8] = {0, 1, 2, 3, 4, 5, 6, 7};
constexpr int kSurround3[8] = {kNone, kNone, kNone, 3, 4, 5, 6, 7};

bool hasThreeFronts(unsigned acmod) { return (acmod & 1u) != 0 && acmod != 1; }
bool hasSurrounds(unsigned acmod) { return (acmod & 4u) != 0; }
}  // namespace

const char* dolbyMixLevelLabel(DolbyMixLevel level, int code, unsigned acmod) {
    if (code < 0) return kLevels[kNone];
    const bool centre = level == DolbyMixLevel::Centre || level == DolbyMixLevel::LtRtCentre ||
                        level == DolbyMixLevel::LoRoCentre;
    if (centre ? !hasThreeFronts(acmod) : !hasSurrounds(acmod))
        throw DolbyMetadataException("uncompliant Dolby mix level with audio mode");
    const bool twoBits = level == DolbyMixLevel::Centre || level == DolbyMixLevel::Surround;
    if (code >= (twoBits ? 4 : 8)) return kLevels[kNone];
    if (twoBits) return kLevels[centre ? kCentre[code] : kSurround[code]];
    return kLevels[centre ? kCentre3[code] : kSurround3[code]];
}

const char* dolbyStereoDownmixLabel(int code, unsigned acmod) {
    static constexpr const char* kLabels[4] = {"Not indicated", "Lt/Rt", "Lo/Ro", "Dolby Prologic II"};
    if (code <= 0) return kLabels[0];
    if (code > 3 || acmod <= 2) throw DolbyMetadataException("uncompliant Dolby stereo downmix preference with audio mode");
    return kLabels[code];
}

const char* dolbySurroundModeLabel(int code) {
    static constexpr const char* kLabels[3] = {"Not indicated", "Surround disabled", "Surround enabled"};
    return code == 1 || code == 2 ? kLabels[code] : kLabels[0];
}

const char* dolbyDynamicRangeProfileLabel(int code) {
    static constexpr const char* kLabels[6] = {"None",           "Film Standard", "Film Light",
                                               "Music Standard", "Music Light",   "Speech"};
    if (code < 0) return kLabels[0];
    return code < 6 ? kLabels[code] : "Unknown";
}

void dumpDolbyDownmix(std::ostream& stream, const DolbyDownmix& d, unsigned acmod) {
    std::string line = "<DolbyDownmix";
    try {
        const auto level = [&](const char* name, DolbyMixLevel kind, int code) {
            if (code >= 0) line += std::string(" ") + name + "=\"" + dolbyMixLevelLabel(kind, code, acmod) + "\"";
        };
        level("CentreMixLevel", DolbyMixLevel::Centre, d.cmixlev);
        level("SurroundMixLevel", DolbyMixLevel::Surround, d.surmixlev);
        level("LtRtCentreMixLevel", DolbyMixLevel::LtRtCentre, d.ltrtcmixlev);
        level("LoRoCentreMixLevel", DolbyMixLevel::LoRoCentre, d.lorocmixlev);
        level("LtRtSurroundMixLevel", DolbyMixLevel::LtRtSurround, d.ltrtsurmixlev);
        level("LoRoSurroundMixLevel", DolbyMixLevel::LoRoSurround, d.lorosurmixlev);
        if (d.dmixmod >= 0) line += std::string(" StereoDownmix=\"") + dolbyStereoDownmixLabel(d.dmixmod, acmod) + "\"";
        if (d.dsurmod >= 0) line += std::string(" SurroundMode=\"") + dolbySurroundModeLabel(d.dsurmod) + "\"";
    } catch (const DolbyMetadataException& e) {
        line += std::string(" Error=\"") + e.what() + "\"";
    }
    stream << line << "/>" << std::endl;
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::codec_box
