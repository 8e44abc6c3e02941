#include "apps/fmp4mux/inputs/udp_receiver.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace fmp4mux {

namespace {

std::runtime_error failure(const std::string& what) { return std::runtime_error(what + ": " + std::strerror(errno)); }

std::int64_t number(const std::string& key, const std::string& value, std::int64_t least, std::int64_t most) {
    std::size_t used = 0;
    std::int64_t n = 0;
    try {
        n = std::stoll(value, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != value.size() || n < least || n > most)
        throw std::runtime_error("udp:// option " + key + "=" + value + " is not a number from " +
                                 std::to_string(least) + " to " + std::to_string(most));
    return n;
}

struct Resolved {
    sockaddr_storage address{};
    socklen_t length = 0;
    int family = AF_INET;
};

Resolved resolve(const std::string& host, std::uint16_t port, int family) {
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(port);
    const int code = getaddrinfo(host.empty() ? nullptr : host.c_str(), service.c_str(), &hints, &found);
    if (code != 0 || found == nullptr)
        throw std::runtime_error("cannot resolve '" + host + "': " + gai_strerror(code != 0 ? code : EAI_NONAME));
    Resolved r;
    std::memcpy(&r.address, found->ai_addr, found->ai_addrlen);
    r.length = found->ai_addrlen;
    r.family = found->ai_family;
    freeaddrinfo(found);
    return r;
}

bool multicast(const Resolved& r) {
    if (r.family == AF_INET)
        return IN_MULTICAST(ntohl(reinterpret_cast<const sockaddr_in&>(r.address).sin_addr.s_addr));
    return r.family == AF_INET6 && IN6_IS_ADDR_MULTICAST(&reinterpret_cast<const sockaddr_in6&>(r.address).sin6_addr);
}

in_addr ipv4(const std::string& text) {
    in_addr a{};
    if (inet_pton(AF_INET, text.c_str(), &a) != 1) throw std::runtime_error("'" + text + "' is not an IPv4 address");
    return a;
}

// The nap after the socket has been emptied, and how many datagrams one receiving call takes at most.
constexpr auto kNap = std::chrono::milliseconds(5);
constexpr unsigned kBatch = 32;
constexpr std::size_t kLargestDatagram = 65536;
// What the system books for a datagram besides its bytes, at most, in the socket's buffer.
constexpr std::size_t kBooking = 1024;

}  // namespace

std::optional<UdpReceiver::Address> UdpReceiver::parse(const std::string& url) {
    if (url.rfind("udp://", 0) != 0) return std::nullopt;
    const std::size_t query = url.find('?', 6);
    std::string authority = url.substr(6, query == std::string::npos ? std::string::npos : query - 6);
    if (const std::size_t at = authority.rfind('@'); at != std::string::npos) authority.erase(0, at + 1);
    Address a;
    std::string port;
    if (!authority.empty() && authority[0] == '[') {
        const std::size_t close = authority.find(']');
        if (close == std::string::npos || authority.compare(close + 1, 1, ":") != 0)
            throw std::runtime_error("udp:// URL without a port: " + url);
        a.host = authority.substr(1, close - 1);
        port = authority.substr(close + 2);
    } else {
        const std::size_t colon = authority.rfind(':');
        if (colon == std::string::npos) throw std::runtime_error("udp:// URL without a port: " + url);
        a.host = authority.substr(0, colon);
        port = authority.substr(colon + 1);
    }
    a.port = static_cast<std::uint16_t>(number("port", port, 0, 65535));
    if (query == std::string::npos) return a;
    std::size_t from = query + 1;
    while (from <= url.size()) {
        const std::size_t end = std::min(url.find('&', from), url.size());
        const std::string pair = url.substr(from, end - from);
        from = end + 1;
        if (pair.empty()) continue;
        const std::size_t eq = pair.find('=');
        const std::string key = pair.substr(0, eq), value = eq == std::string::npos ? "1" : pair.substr(eq + 1);
        if (key == "localaddr") {
            a.localAddress = value;
        } else if (key == "sources") {
            for (std::size_t s = 0; s <= value.size();) {
                const std::size_t comma = std::min(value.find(',', s), value.size());
                if (comma > s) a.sources.push_back(value.substr(s, comma - s));
                s = comma + 1;
            }
        } else if (key == "reuse" || key == "reuse_socket") {
            a.reuse = number(key, value, 0, 1) == 1;
        } else if (key == "buffer_size") {
            a.socketBuffer = static_cast<int>(number(key, value, 1, 1 << 30));
        } else if (key == "fifo_size") {
            a.ringBytes = static_cast<std::size_t>(number(key, value, 1, (1 << 30) / 188)) * 188;
        } else if (key == "overrun_nonfatal") {
            a.overrunFatal = number(key, value, 0, 1) == 0;
        } else if (key == "timeout") {
            a.timeoutUs = number(key, value, 0, std::int64_t{1} << 40);
        } else if (key != "pkt_size") {
            return std::nullopt;
        }
    }
    return a;
}

UdpReceiver::UdpReceiver(const Address& address)
    : m_overrunFatal(address.overrunFatal), m_timeoutUs(address.timeoutUs),
      m_ring(new std::uint8_t[std::max<std::size_t>(address.ringBytes, kLargestDatagram)]),
      m_ringSize(std::max<std::size_t>(address.ringBytes, kLargestDatagram)) {
    const Resolved group = resolve(address.host, address.port, address.host.empty() ? AF_INET : AF_UNSPEC);
    const bool joins = multicast(group);
    if (!address.sources.empty() && !(joins && group.family == AF_INET))
        throw std::runtime_error("sources= is for an IPv4 multicast group");
    m_socket = socket(group.family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_socket < 0) throw failure("cannot open a UDP socket");
    try {
        const int one = 1;
        if ((joins || address.reuse) && setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0)
            throw failure("cannot share the port");
        // A large buffer lets the thread nap: what arrives meanwhile waits there. The system's cap applies unless
        // the process may lift it.
        const int wanted = address.socketBuffer > 0 ? address.socketBuffer : 8 << 20;
        if (setsockopt(m_socket, SOL_SOCKET, SO_RCVBUFFORCE, &wanted, sizeof wanted) != 0)
            setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted);
        socklen_t length = sizeof m_socketBuffer;
        getsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &m_socketBuffer, &length);
        // Each datagram then tells how many the system has dropped on this socket so far.
        setsockopt(m_socket, SOL_SOCKET, SO_RXQ_OVFL, &one, sizeof one);

        // A group is received on its own address (only its datagrams reach the socket); a unicast stream on the
        // local address named, else on every address.
        Resolved local = joins ? group : resolve(address.localAddress, address.port, group.family);
        if (bind(m_socket, reinterpret_cast<const sockaddr*>(&local.address), local.length) != 0)
            throw failure("cannot receive on port " + std::to_string(address.port));
        if (joins && group.family == AF_INET) {
            const in_addr groupAddress = reinterpret_cast<const sockaddr_in&>(group.address).sin_addr;
            const in_addr interface = address.localAddress.empty() ? in_addr{htonl(INADDR_ANY)} : ipv4(address.localAddress);
            if (address.sources.empty()) {
                ip_mreq join{groupAddress, interface};
                if (setsockopt(m_socket, IPPROTO_IP, IP_ADD_MEMBERSHIP, &join, sizeof join) != 0)
                    throw failure("cannot join group " + address.host);
            }
            for (const std::string& source : address.sources) {
                ip_mreq_source join{};
                join.imr_multiaddr = groupAddress;
                join.imr_interface = interface;
                join.imr_sourceaddr = ipv4(source);
                if (setsockopt(m_socket, IPPROTO_IP, IP_ADD_SOURCE_MEMBERSHIP, &join, sizeof join) != 0)
                    throw failure("cannot join group " + address.host + " for source " + source);
            }
        } else if (joins) {
            ipv6_mreq join{};
            join.ipv6mr_multiaddr = reinterpret_cast<const sockaddr_in6&>(group.address).sin6_addr;
            if (setsockopt(m_socket, IPPROTO_IPV6, IPV6_JOIN_GROUP, &join, sizeof join) != 0)
                throw failure("cannot join group " + address.host);
        }
        sockaddr_storage bound{};
        length = sizeof bound;
        getsockname(m_socket, reinterpret_cast<sockaddr*>(&bound), &length);
        m_port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(bound).sin6_port
                                                   : reinterpret_cast<const sockaddr_in&>(bound).sin_port);
    } catch (...) {
        close(m_socket);
        throw;
    }
    m_thread = std::thread([this] { receive(); });
}

UdpReceiver::~UdpReceiver() {
    m_closing = true;
    if (m_thread.joinable()) m_thread.join();
    close(m_socket);
}

void UdpReceiver::receive() {
    std::unique_ptr<std::uint8_t[]> scratch(new std::uint8_t[kBatch * kLargestDatagram]);
    mmsghdr messages[kBatch];
    iovec vectors[kBatch];
    alignas(cmsghdr) char controls[kBatch][CMSG_SPACE(sizeof(std::uint32_t))];
    while (!m_closing.load(std::memory_order_relaxed)) {
        pollfd ready{m_socket, POLLIN, 0};
        if (poll(&ready, 1, 100) <= 0) continue;
        std::size_t booked = 0;  // what the datagrams taken held of the socket's buffer, about
        for (;;) {
            for (unsigned i = 0; i < kBatch; ++i) {
                vectors[i] = {scratch.get() + i * kLargestDatagram, kLargestDatagram};
                messages[i] = {};
                messages[i].msg_hdr.msg_iov = &vectors[i];
                messages[i].msg_hdr.msg_iovlen = 1;
                messages[i].msg_hdr.msg_control = controls[i];
                messages[i].msg_hdr.msg_controllen = sizeof controls[i];
            }
            const int count = recvmmsg(m_socket, messages, kBatch, MSG_DONTWAIT, nullptr);
            if (count <= 0) break;
            {
                std::lock_guard lock(m_mutex);
                for (int i = 0; i < count; ++i) {
                    for (cmsghdr* c = CMSG_FIRSTHDR(&messages[i].msg_hdr); c; c = CMSG_NXTHDR(&messages[i].msg_hdr, c))
                        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_RXQ_OVFL) {
                            std::uint32_t dropped = 0;
                            std::memcpy(&dropped, CMSG_DATA(c), sizeof dropped);
                            m_systemDrops.store(dropped, std::memory_order_relaxed);
                        }
                    const std::size_t size = messages[i].msg_len;
                    booked += size + kBooking;
                    if (m_filled + size > m_ringSize) {
                        m_overran = true;
                        m_overruns.fetch_add(1, std::memory_order_relaxed);
                        continue;
                    }
                    const std::size_t tail = (m_head + m_filled) % m_ringSize;
                    const std::size_t first = std::min(size, m_ringSize - tail);
                    std::memcpy(m_ring.get() + tail, vectors[i].iov_base, first);
                    std::memcpy(m_ring.get(), static_cast<std::uint8_t*>(vectors[i].iov_base) + first, size - first);
                    m_filled += size;
                }
            }
            m_arrived.notify_one();
            if (static_cast<unsigned>(count) < kBatch) break;
        }
        // What came over one cycle comes again over the nap: nap while that stays well within the socket's buffer.
        if (booked * 4 < static_cast<std::size_t>(m_socketBuffer)) std::this_thread::sleep_for(kNap);
    }
}

UdpReceiver::Status UdpReceiver::read(std::uint8_t* buffer, std::size_t size, std::size_t& got,
                                      const std::function<bool()>& stopped) {
    got = 0;
    if (size == 0) return Status::Data;
    const auto start = std::chrono::steady_clock::now();
    std::unique_lock lock(m_mutex);
    while (m_filled == 0) {
        if (m_overran && m_overrunFatal) return Status::Overrun;
        if (stopped()) return Status::Stopped;
        if (m_timeoutUs > 0 && std::chrono::steady_clock::now() - start >= std::chrono::microseconds(m_timeoutUs))
            return Status::TimedOut;
        m_arrived.wait_for(lock, std::chrono::milliseconds(100));
    }
    if (m_overran && m_overrunFatal) return Status::Overrun;
    got = std::min(size, m_filled);
    const std::size_t first = std::min(got, m_ringSize - m_head);
    std::memcpy(buffer, m_ring.get() + m_head, first);
    std::memcpy(buffer + first, m_ring.get(), got - first);
    m_head = (m_head + got) % m_ringSize;
    m_filled -= got;
    return Status::Data;
}

}  // namespace fmp4mux
