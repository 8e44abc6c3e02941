#include "packaging/lib_parse_es/nal_builder.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

std::unique_ptr<NALBuilder> createNalBuilder(std::uint32_t streamType) {
    switch (streamType) {
        // Each codec's framing adds its builder here.
        default: return nullptr;
    }
}

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
