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

void Sample::getDataReferring(std::uint8_t* dest, std::size_t base, std::size_t least,
                              tvrn::system::KeptBytesList& references) const {
    // The references keep the sample alive, and with it its units and the input buffers they lie in: a sample not
    // held by a shared pointer cannot, and writes all its bytes.
    const std::shared_ptr<const void> self = weak_from_this().lock();
    if (!self) return getData(dest);
    std::size_t offset = 0;
    for (const auto& nal : nals) {
        if (nal->capacity <= 0 || nal->length == 0) continue;
        const std::span<const std::uint8_t> kept = nal->writeReferring(dest + offset, least);
        if (!kept.empty())
            references.push_back({base + offset + (nal->length - kept.size()), kept.data(), kept.size(), self});
        offset += nal->length;
    }
}

bool Sample::getEncryptionInfo(SampleEncryptionInfo& info) const {
    if (!encryptionInfo) return false;
    info = *encryptionInfo;
    return true;
}

}  // namespace v1
}  // namespace tvrn::encoding::packaging::imff::imff_samples
