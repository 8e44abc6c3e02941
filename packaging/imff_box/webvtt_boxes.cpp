#include "packaging/imff_box/webvtt_boxes.h"

namespace tvrn::encoding::packaging::imff::imff_box {
inline namespace v0 {

void BoxStringBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writer.copyBuffer(reinterpret_cast<const std::uint8_t*>(m_text.data()), m_text.size());
    if (m_zeroTerminated) writer.writeBits(8, 0);
}

void CueSourceIDBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    writer.writeBits(32, m_sourceId);
}

std::uint64_t VTTCueBox::getSize() const {
    std::uint64_t size = Box::getSize() + m_payload.getSize();
    for (const auto& box : m_optional) size += box->getSize();
    return size;
}

void VTTCueBox::binarize(ImffBitWriter& writer) const {
    binarizeBoxHeader(writer);
    for (const auto& box : m_optional) binarizeChecked(*box, writer);
    binarizeChecked(m_payload, writer);
}

}  // namespace v0
}  // namespace tvrn::encoding::packaging::imff::imff_box
