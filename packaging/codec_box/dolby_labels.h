#pragma once
// Text labels of the downmix and dynamic range metadata of Dolby streams (ETSI TS 102 366), for the dumps of
// the Dolby sample entries. The values stay numbers everywhere else.
#include <ostream>

#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::packaging::imff::codec_box {
inline namespace v0 {

// A mix level or downmix preference that the audio coding mode has no channels for.
class DolbyMetadataException : public CorvaneException {
public:
    using CorvaneException::CorvaneException;
};

// Which mix level a code is: the 2-bit AC-3 centre and surround levels (cmixlev, surmixlev), or one of the 3-bit
// levels of the Lt/Rt and Lo/Ro stereo downmixes (ltrtcmixlev, lorocmixlev, ltrtsurmixlev, lorosurmixlev).
enum class DolbyMixLevel { Centre, Surround, LtRtCentre, LoRoCentre, LtRtSurround, LoRoSurround };

// "+3.0 dB" down to "-inf dB"; "None" for an absent (negative), reserved or out of range code. Throws
// DolbyMetadataException when `acmod` has no channel of that kind: centre levels need three front channels
// (acmod 3, 5, 7), surround levels surround channels (acmod 4 to 7).
const char* dolbyMixLevelLabel(DolbyMixLevel level, int code, unsigned acmod);

// dmixmod: "Not indicated", "Lt/Rt", "Lo/Ro", "Dolby Prologic II". Throws DolbyMetadataException for a
// preference given to a mode that is stereo or less (acmod 0 to 2), or for a code beyond the 2-bit field.
const char* dolbyStereoDownmixLabel(int code, unsigned acmod);

// dsurmod: "Not indicated" (also absent or reserved), "Surround disabled", "Surround enabled".
const char* dolbySurroundModeLabel(int code);

// The dynamic range compression profile of an encoder: "None" (also absent), "Film Standard", "Film Light",
// "Music Standard", "Music Light", "Speech"; "Unknown" beyond.
const char* dolbyDynamicRangeProfileLabel(int code);

// What a Dolby stream's first sync frame says of its downmix: the codes as coded, -1 where the frame has none.
struct DolbyDownmix {
    int cmixlev = -1;
    int surmixlev = -1;
    int ltrtcmixlev = -1;
    int lorocmixlev = -1;
    int ltrtsurmixlev = -1;
    int lorosurmixlev = -1;
    int dmixmod = -1;
    int dsurmod = -1;
};

// One line "<DolbyDownmix .../>" with the labels of the codes present; a code that does not fit the mode puts
// the exception's text in an Error attribute instead.
void dumpDolbyDownmix(std::ostream& stream, const DolbyDownmix& downmix, unsigned acmod);

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::codec_box
