#include "packaging/fmp4_types/stream_attributes.h"

#include <cstdio>

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

std::string streamLabel(const ElementaryStreamAttributes& attributes) {
    const char* format = isVideo(attributes.type) ? "video_%dkbps" : isAudio(attributes.type) ? "audio_%dkbps" : "text_%dkbps";
    char text[48];
    std::snprintf(text, sizeof text, format, static_cast<int>(attributes.bandwidth / 1000));
    return text;
}

std::string outputLabel(int outputIndex, const std::vector<std::int32_t>& streamIds,
                        const std::map<std::uint32_t, ElementaryStreamAttributes>& registered) {
    std::string label = "output#" + std::to_string(outputIndex);
    for (const std::int32_t id : streamIds) {
        const auto it = registered.find(static_cast<std::uint32_t>(id));
        if (it != registered.end()) label += streamLabel(it->second);
    }
    return label;
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
