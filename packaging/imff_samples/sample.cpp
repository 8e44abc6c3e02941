#include "packaging/imff_samples/sample.h"

#include <algorithm>
#include <cstring>

namespace tvrn::encoding::packaging::imff::imff_samples {
inline namespace v1 {

using lib_parse_es::IMediaData;
using lib_parse_es::MediaDataRef;

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
    // A sample held by a shared pointer keeps its units, and the input buffers they lie in, alive itself: then
    // every large unit is referred to where it is, in an input buffer or in its own storage (an encrypted one).
    // Otherwise only units over input buffers are, each kept by its input buffer.
    const std::shared_ptr<const void> self = weak_from_this().lock();
    const IMediaData* lastInput = nullptr;
    std::shared_ptr<const void> lastKeep = self;
    std::size_t offset = 0;
    for (const auto& nal : nals) {
        if (nal->capacity <= 0 || nal->length == 0) continue;
        std::span<const std::uint8_t> kept;
        if (self && !nal->borrowed() && nal->length >= std::max<std::size_t>(least, 1))
            kept = {nal->bytes(), nal->length};
        else
            kept = nal->writeReferring(dest + offset, least);
        if (!kept.empty()) {
            if (!self && (nal->input().get() != lastInput || !lastKeep)) {
                lastInput = nal->input().get();
                auto holder = std::make_shared<MediaDataRef>(nal->input());
                lastKeep = std::shared_ptr<const void>(holder, holder.get());
            }
            references.push_back({base + offset + (nal->length - kept.size()), kept.data(), kept.size(), lastKeep});
        }
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
