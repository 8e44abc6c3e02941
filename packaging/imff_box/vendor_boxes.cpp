#include "packaging/imff_box/vendor_boxes.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

namespace {
// a5d40b30-e814-11dd-ba2f-0800200c9a66
constexpr Uuid kLiveServerManifestUuid = {0xa5, 0xd4, 0x0b, 0x30, 0xe8, 0x14, 0x11, 0xdd,
                                          0xba, 0x2f, 0x08, 0x00, 0x20, 0x0c, 0x9a, 0x66};
}  // namespace

void TovraneBoxWith64bitsNumber::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.write64(m_value);
}

LiveServerManifestBox::LiveServerManifestBox(std::string manifest)
    : FullBox(kLiveServerManifestUuid, 0, 0), m_manifest(std::move(manifest)) {}

void LiveServerManifestBox::binarize(ImffBitWriter& writer) const {
    binarizeFullBoxHeader(writer);
    writer.copyBuffer(reinterpret_cast<const std::uint8_t*>(m_manifest.data()), m_manifest.size());
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
