#pragma once
// Receives a UDP stream (unicast, or multicast joined, any source or the sources named) on a thread of its own
// into a ring that the reader empties. The thread takes what the socket holds in batches (recvmmsg) and then naps
// a few milliseconds while the socket's buffer fills again, so that a channel costs a couple of hundred wake-ups a
// second instead of one or two per datagram; the nap is skipped while the stream comes faster than the socket's
// buffer can hold over a nap. A reader that pauses is covered by the ring; what overflows it is dropped (and
// counted), or ends the stream when the URL says overrun_nonfatal=0.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace fmp4mux {

class UdpReceiver {
public:
    // What a udp:// URL asks for. Options: localaddr (the interface of a multicast join, else the address bound),
    // sources (source-specific multicast, IPv4, comma separated), reuse, buffer_size (of the socket, bytes),
    // fifo_size (of the ring, in 188-byte packets), overrun_nonfatal, timeout (microseconds without data that end
    // the stream), pkt_size (a sender's, ignored).
    struct Address {
        std::string host;  // empty: any
        std::uint16_t port = 0;
        std::string localAddress;
        std::vector<std::string> sources;
        bool reuse = false;
        int socketBuffer = 0;  // 0: a large one
        std::size_t ringBytes = 16u << 20;
        bool overrunFatal = false;
        std::int64_t timeoutUs = 0;  // 0: none
    };
    // The address of a udp:// URL; none when the URL is not one, or asks for an option this receiver does not know
    // (libavformat's own receiver then takes it). Raises std::runtime_error for a URL it knows to be wrong.
    static std::optional<Address> parse(const std::string& url);

    // Opens the socket (bound, the group joined) and starts receiving. Raises std::runtime_error with the reason.
    explicit UdpReceiver(const Address& address);
    ~UdpReceiver();
    UdpReceiver(const UdpReceiver&) = delete;
    UdpReceiver& operator=(const UdpReceiver&) = delete;

    // What a read came to.
    enum class Status { Data, Stopped, TimedOut, Overrun };
    // Copies up to `size` bytes of what has come into `buffer`, waiting for the first; `stopped` is asked every
    // 100 ms while waiting. `got` is what was copied (with Data).
    Status read(std::uint8_t* buffer, std::size_t size, std::size_t& got, const std::function<bool()>& stopped);
    // Datagrams dropped because the ring was full (the reader fell behind), and those the system dropped because
    // the socket's buffer was full (this receiver fell behind).
    std::uint64_t overruns() const { return m_overruns.load(std::memory_order_relaxed); }
    std::uint64_t systemDrops() const { return m_systemDrops.load(std::memory_order_relaxed); }
    // The port bound (the one asked for, or the one the system chose for port 0).
    std::uint16_t port() const { return m_port; }

private:
    void receive();

    int m_socket = -1;
    std::uint16_t m_port = 0;
    int m_socketBuffer = 0;  // what the system granted, bookkeeping included
    const bool m_overrunFatal;
    const std::int64_t m_timeoutUs;
    std::unique_ptr<std::uint8_t[]> m_ring;  // not cleared: pages are taken as the ring first turns
    const std::size_t m_ringSize;
    std::size_t m_head = 0, m_filled = 0;  // the oldest byte, and how many follow it
    bool m_overran = false;
    std::atomic<std::uint64_t> m_overruns{0}, m_systemDrops{0};
    std::atomic<bool> m_closing{false};
    std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::thread m_thread;
};

}  // namespace fmp4mux
