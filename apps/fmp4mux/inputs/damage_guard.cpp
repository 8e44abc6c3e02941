#include "apps/fmp4mux/inputs/damage_guard.h"

namespace fmp4mux {

void DamageGuard::dropVideo(Stream& stream, bool damaged) {
    if (damaged) m_damagedVideo.fetch_add(1, std::memory_order_relaxed);
    m_videoDropped.fetch_add(1, std::memory_order_relaxed);
    stream.waitingForKey = true;
}

void DamageGuard::offer(Packet& packet, bool video, bool jumped, const Forward& forward) {
    if (!video) {
        if (!packet.damaged) return forward(packet);
        m_audioDropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    if (packet.stream >= m_streams.size()) m_streams.resize(packet.stream + 1);
    Stream& stream = m_streams[packet.stream];
    if (stream.held) {
        if (packet.key && jumped && !packet.damaged)
            forward(*stream.held);
        else
            dropVideo(stream, true);
        stream.held.reset();
    }
    if (packet.damaged) {
        if (stream.waitingForKey) return dropVideo(stream, true);
        // Held past this call: its bytes move into the packet itself.
        if (packet.owned.empty()) packet.owned.assign(packet.data, packet.data + packet.size);
        stream.held = std::move(packet);
        stream.held->data = stream.held->owned.data();
        return;
    }
    if (stream.waitingForKey && !packet.key) return dropVideo(stream, false);
    stream.waitingForKey = false;
    forward(packet);
}

void DamageGuard::finish() {
    for (Stream& stream : m_streams)
        if (stream.held) {
            dropVideo(stream, true);
            stream.held.reset();
        }
}

}  // namespace fmp4mux
