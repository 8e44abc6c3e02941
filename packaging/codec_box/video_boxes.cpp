#include "packaging/codec_box/video_boxes.h"

#include <iostream>

namespace tvrn::encoding::packaging::imff::codec_box {
inline namespace v0 {

using imff_box::binarizeChecked;

namespace {
std::uint64_t parameterSetsSize(const std::vector<Bytes>& sets) {
    std::uint64_t size = 0;
    for (const Bytes& set : sets) size += 2 + set.size();
    return size;
}
void writeParameterSets(ImffBitWriter& writer, const std::vector<Bytes>& sets) {
    for (const Bytes& set : sets) {
        writer.writeBits(16, set.size());
        writer.copyBuffer(set.data(), set.size());
    }
}
}  // namespace

bool AVCConfigurationBox::hasChromaFields(std::uint8_t profile) {
    return profile == 100 || profile == 110 || profile == 122 || profile == 144;
}

std::uint64_t AVCConfigurationBox::getSize() const {
    std::uint64_t size = Box::getSize() + 7 + parameterSetsSize(sequenceParameterSets) +
                         parameterSetsSize(pictureParameterSets);
    if (hasChromaFields(profileIndication)) size += 4 + parameterSetsSize(sequenceParameterSetExtensions);
    return size;
}

void AVCConfigurationBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writer.writeBits(8, configurationVersion);
    writer.writeBits(8, profileIndication);
    writer.writeBits(8, profileCompatibility);
    writer.writeBits(8, levelIndication);
    writer.writeBits(6, 63);
    writer.writeBits(2, lengthSizeMinusOne);
    writer.writeBits(3, 7);
    writer.writeBits(5, sequenceParameterSets.size());
    writeParameterSets(writer, sequenceParameterSets);
    writer.writeBits(8, pictureParameterSets.size());
    writeParameterSets(writer, pictureParameterSets);
    if (hasChromaFields(profileIndication)) {
        writer.writeBits(6, 63);
        writer.writeBits(2, chromaFormat);
        writer.writeBits(5, 31);
        writer.writeBits(3, bitDepthLumaMinus8);
        writer.writeBits(5, 31);
        writer.writeBits(3, bitDepthChromaMinus8);
        writer.writeBits(8, sequenceParameterSetExtensions.size());
        writeParameterSets(writer, sequenceParameterSetExtensions);
    }
}

void AVCConfigurationBox::dump(std::ostream* stream) const {
    if (stream != nullptr) {
        *stream << "<AVCDecoderConfigBox>" << std::endl;
        *stream << "<AVCDecoderConfigRecord configVersion=\"" << unsigned{configurationVersion}
                << "\" AVCProfile_idc=\"" << unsigned{profileIndication} << "\" profile compatibility=\""
                << unsigned{profileCompatibility} << "\" AVC Level Indication =\"" << unsigned{levelIndication}
                << "\"SPS_number=\"" << sequenceParameterSets.size() << "\" PPS_Number=\""
                << pictureParameterSets.size() << "\" />" << std::endl;
        Box::dump(stream);
    }
    std::cout << "</AVCDecoderConfigBox>" << std::endl;
}

AVCSampleEntry::AVCSampleEntry(bool inBand) : VisualSampleEntry(inBand ? fourCC("avc3") : fourCC("avc1")) {
    width = 0;
    height = 0;
}

std::uint64_t AVCSampleEntry::getConfigurationSize() const {
    return configuration.getSize() + (bitRate ? bitRate->getSize() : 0);
}

void AVCSampleEntry::binarizeConfiguration(ImffBitWriter& writer) const {
    binarizeChecked(configuration, writer);
    if (bitRate) binarizeChecked(*bitRate, writer);
}

void AVCSampleEntry::dump(std::ostream* stream) const {
    VisualSampleEntry::dump(stream);
    configuration.dump(stream);
}

// ---------------------------------------------------------------------------------------------------------

void HEVCConfigurationBox::addNalUnit(std::uint8_t nalUnitType, Bytes unit, bool completeness) {
    NalArray& array = arrays[nalUnitType];
    array.completeness = completeness;
    array.units.push_back(std::move(unit));
}

std::uint64_t HEVCConfigurationBox::getSize() const {
    std::uint64_t size = Box::getSize() + 23;
    for (const auto& [type, array] : arrays) size += 3 + parameterSetsSize(array.units);
    return size;
}

void HEVCConfigurationBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writer.writeBits(8, configurationVersion);
    writer.writeBits(2, generalProfileSpace);
    writer.writeBit(generalTierFlag);
    writer.writeBits(5, generalProfileIdc);
    writer.writeBits(32, generalProfileCompatibilityFlags);
    writer.writeBit(progressiveSourceFlag);
    writer.writeBit(interlacedSourceFlag);
    writer.writeBit(nonPackedConstraintFlag);
    writer.writeBit(frameOnlyConstraintFlag);
    writer.writeBits64(44, generalConstraintIndicatorFlags);
    writer.writeBits(8, generalLevelIdc);
    writer.writeBits(4, 0xF);
    writer.writeBits(12, minSpatialSegmentationIdc);
    writer.writeBits(6, 0x3F);
    writer.writeBits(2, parallelismType);
    writer.writeBits(6, 0x3F);
    writer.writeBits(2, chromaFormat);
    writer.writeBits(5, 0x1F);
    writer.writeBits(3, bitDepthLumaMinus8);
    writer.writeBits(5, 0x1F);
    writer.writeBits(3, bitDepthChromaMinus8);
    writer.writeBits(16, averageFrameRate);
    writer.writeBits(2, constantFrameRate);
    writer.writeBits(3, numTemporalLayers);
    writer.writeBit(temporalIdNested);
    writer.writeBits(2, lengthSizeMinusOne);
    writer.writeBits(8, arrays.size());
    for (const auto& [type, array] : arrays) {
        writer.writeBit(array.completeness);
        writer.writeBit(false);
        writer.writeBits(6, type);
        writer.writeBits(16, array.units.size());
        writeParameterSets(writer, array.units);
    }
}

HEVCSampleEntry::HEVCSampleEntry(bool inBand) : VisualSampleEntry(inBand ? fourCC("hev1") : fourCC("hvc1")) {
    width = 0;
    height = 0;
}

std::uint64_t HEVCSampleEntry::getConfigurationSize() const {
    return configuration.getSize() + (extraBox ? extraBox->getSize() : 0);
}

void HEVCSampleEntry::binarizeConfiguration(ImffBitWriter& writer) const {
    binarizeChecked(configuration, writer);
    if (extraBox) binarizeChecked(*extraBox, writer);
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::codec_box
