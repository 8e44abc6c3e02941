#include "apps/fmp4mux/engine/stream_ends.h"

namespace fmp4mux {

StreamEnds::StreamEnds(std::vector<std::vector<int>> engineOf, std::function<void(int)> end,
                       std::function<void(const std::string&)> warn)
    : m_engineOf(std::move(engineOf)), m_end(std::move(end)), m_warn(std::move(warn)) {
    for (const auto& streams : m_engineOf) {
        m_inputs.push_back(std::make_unique<Input>());
        m_inputs.back()->ended.assign(streams.size(), false);
        m_inputs.back()->cameBack.assign(streams.size(), false);
    }
}

void StreamEnds::endLocked(std::size_t input, std::size_t stream) {
    m_inputs[input]->ended[stream] = true;
    if (const int engine = m_engineOf[input][stream]; engine >= 0) m_end(engine);
}

void StreamEnds::end(std::size_t input, std::size_t stream, const std::string& why) {
    Input& in = *m_inputs.at(input);
    std::lock_guard lock(in.mutex);
    if (in.ended.at(stream)) return;
    m_warn("input " + std::to_string(input) + " stream " + std::to_string(stream) + ": " + why);
    endLocked(input, stream);
}

void StreamEnds::endInput(std::size_t input, const std::string& why) {
    Input& in = *m_inputs.at(input);
    std::lock_guard lock(in.mutex);
    bool said = why.empty();
    for (std::size_t k = 0; k < in.ended.size(); ++k) {
        if (in.ended[k]) continue;
        if (!said && m_engineOf[input][k] >= 0) {
            m_warn("input " + std::to_string(input) + ": " + why);
            said = true;
        }
        endLocked(input, k);
    }
}

void StreamEnds::refusedLocked(std::size_t input, std::size_t stream) {
    Input& in = *m_inputs[input];
    if (in.cameBack[stream]) return;
    in.cameBack[stream] = true;
    m_warn("input " + std::to_string(input) + " stream " + std::to_string(stream) +
           ": it came back after it had ended; it is left out until fmp4mux is started again");
}

bool StreamEnds::ended(std::size_t input, std::size_t stream) const {
    const Input& in = *m_inputs.at(input);
    std::lock_guard lock(in.mutex);
    return in.ended.at(stream);
}

}  // namespace fmp4mux
