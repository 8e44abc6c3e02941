#pragma once
// H.264 and HEVC sample entries and their decoder configuration records.
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "packaging/imff_box/box.h"
#include "packaging/imff_box/sample_entry.h"

namespace tvrn::encoding::packaging::imff::codec_box {
inline namespace v0 {

using imff_box::Box;
using imff_box::FourCC;
using imff_box::ImffBitWriter;
using imff_box::fourCC;
using Bytes = std::vector<std::uint8_t>;

// "avcC": an AVC decoder configuration record (ISO/IEC 14496-15).
class AVCConfigurationBox : public Box {
public:
    AVCConfigurationBox() : Box(fourCC("avcC")) {}
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;
    void dump(std::ostream* stream) const override;

    // The profiles whose record carries chroma format, bit depths and SPS extensions.
    static bool hasChromaFields(std::uint8_t profileIndication);

    std::uint8_t configurationVersion = 1;
    std::uint8_t profileIndication = 0;
    std::uint8_t profileCompatibility = 0;
    std::uint8_t levelIndication = 0;
    std::uint8_t lengthSizeMinusOne = 3;
    std::vector<Bytes> sequenceParameterSets;  // at most 31
    std::vector<Bytes> pictureParameterSets;   // at most 255
    std::uint8_t chromaFormat = 1;
    std::uint8_t bitDepthLumaMinus8 = 0;
    std::uint8_t bitDepthChromaMinus8 = 0;
    std::vector<Bytes> sequenceParameterSetExtensions;
};

// "avc1", or "avc3" when the parameter sets travel in band.
class AVCSampleEntry : public imff_box::VisualSampleEntry {
public:
    explicit AVCSampleEntry(bool inBand);
    void dump(std::ostream* stream) const override;

    AVCConfigurationBox configuration;
    std::shared_ptr<imff_box::MPEG4BitRateBox> bitRate;  // optional

protected:
    std::uint64_t getConfigurationSize() const override;
    void binarizeConfiguration(ImffBitWriter& writer) const override;
};

// "hvcC": an HEVC decoder configuration record (ISO/IEC 14496-15).
class HEVCConfigurationBox : public Box {
public:
    HEVCConfigurationBox() : Box(fourCC("hvcC")) {}
    std::uint64_t getSize() const override;
    void binarize(ImffBitWriter& writer) const override;

    struct NalArray {
        bool completeness = true;
        std::vector<Bytes> units;
    };
    // Adds a unit to the array of its type, making the array when needed.
    void addNalUnit(std::uint8_t nalUnitType, Bytes unit, bool completeness = true);

    std::uint8_t configurationVersion = 1;
    std::uint8_t generalProfileSpace = 0;
    bool generalTierFlag = false;
    std::uint8_t generalProfileIdc = 0;
    std::uint32_t generalProfileCompatibilityFlags = 0;
    bool progressiveSourceFlag = false;
    bool interlacedSourceFlag = false;
    bool nonPackedConstraintFlag = false;
    bool frameOnlyConstraintFlag = false;
    std::uint64_t generalConstraintIndicatorFlags = 0;  // 44 bits
    std::uint8_t generalLevelIdc = 0;
    std::uint16_t minSpatialSegmentationIdc = 0;  // 12 bits
    std::uint8_t parallelismType = 0;
    std::uint8_t chromaFormat = 1;
    std::uint8_t bitDepthLumaMinus8 = 0;
    std::uint8_t bitDepthChromaMinus8 = 0;
    std::uint16_t averageFrameRate = 0;
    std::uint8_t constantFrameRate = 0;
    std::uint8_t numTemporalLayers = 0;
    bool temporalIdNested = false;
    std::uint8_t lengthSizeMinusOne = 3;
    // Keyed by NAL unit type, so written in ascending type order.
    std::map<std::uint8_t, NalArray> arrays;
};

// "hvc1", or "hev1" when the parameter sets travel in band.
class HEVCSampleEntry : public imff_box::VisualSampleEntry {
public:
    explicit HEVCSampleEntry(bool inBand);

    HEVCConfigurationBox configuration;
    std::shared_ptr<Box> extraBox;  // optional, written after hvcC

protected:
    std::uint64_t getConfigurationSize() const override;
    void binarizeConfiguration(ImffBitWriter& writer) const override;
};

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::codec_box
