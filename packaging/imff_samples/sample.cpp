#include "packaging/imff_samples/sample.h"

#include <cstring>

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

std::size_t Sample::getSize() const {
    std::size_t size = 0;
    for (const auto& nal : nals) size += nal->length;
    return size;
}

void Sample::getData(std::uint8_t* dest) const {
    for (const auto& nal : nals) {
        if (nal->capacity <= 0 || nal->length == 0) continue;
        nal->writeTo(dest);
        dest += nal->length;
    }
}

bool Sample::getEncryptionInfo(SampleEncryptionInfo& info) const {
    if (!encryptionInfo) return false;
    info = *encryptionInfo;
    return true;
}

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
