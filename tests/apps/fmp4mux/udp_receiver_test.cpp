// The UDP receiver: what it takes of a URL, and datagrams sent on the loopback read back in order, with the
// ends of a read (time-out, stop, a ring that overflows).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>

#include "apps/fmp4mux/inputs/udp_receiver.h"

namespace {
using fmp4mux::UdpReceiver;
using Status = UdpReceiver::Status;

TEST(UdpReceiver, TakesTheUrlsItKnowsAndLeavesTheOthers) {
    const auto a = UdpReceiver::parse("udp://@239.1.2.3:1234?localaddr=10.0.0.5&sources=10.1.1.1,10.1.1.2&fifo_size=100"
                                      "&overrun_nonfatal=0&timeout=5000000&buffer_size=65536&reuse=1&pkt_size=1316");
    ASSERT_TRUE(a);
    EXPECT_EQ(a->host, "239.1.2.3");
    EXPECT_EQ(a->port, 1234);
    EXPECT_EQ(a->localAddress, "10.0.0.5");
    EXPECT_EQ(a->sources, (std::vector<std::string>{"10.1.1.1", "10.1.1.2"}));
    EXPECT_EQ(a->ringBytes, 18800u);
    EXPECT_TRUE(a->overrunFatal);
    EXPECT_EQ(a->timeoutUs, 5000000);
    EXPECT_EQ(a->socketBuffer, 65536);
    EXPECT_TRUE(a->reuse);
    const auto v6 = UdpReceiver::parse("udp://[ff15::1]:5000");
    ASSERT_TRUE(v6);
    EXPECT_EQ(v6->host, "ff15::1");
    EXPECT_EQ(v6->port, 5000);
    EXPECT_FALSE(v6->overrunFatal);
    // Not ours: another scheme, or an option only libavformat's receiver knows.
    EXPECT_FALSE(UdpReceiver::parse("srt://127.0.0.1:1234"));
    EXPECT_FALSE(UdpReceiver::parse("udp://127.0.0.1:1234?ttl=4"));
    for (const char* wrong : {"udp://127.0.0.1", "udp://127.0.0.1:70000", "udp://:1234?timeout=soon", "udp://[::1]1234"})
        EXPECT_THROW(UdpReceiver::parse(wrong), std::runtime_error) << wrong;
}

struct Sender {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    explicit Sender(std::uint16_t port, const char* host = "127.0.0.1") {
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        inet_pton(AF_INET, host, &to.sin_addr);
    }
    ~Sender() { close(fd); }
    bool send(const std::vector<std::uint8_t>& bytes) const {
        return sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) ==
               static_cast<ssize_t>(bytes.size());
    }
};

std::vector<std::uint8_t> datagram(std::size_t size, std::uint8_t first) {
    std::vector<std::uint8_t> d(size);
    for (std::size_t i = 0; i < size; ++i) d[i] = static_cast<std::uint8_t>(first + i);
    return d;
}

// Reads until `want` bytes have come or a read ends otherwise.
std::vector<std::uint8_t> readAll(UdpReceiver& r, std::size_t want, Status* end = nullptr) {
    std::vector<std::uint8_t> out;
    std::uint8_t buffer[5000];
    while (out.size() < want) {
        std::size_t got = 0;
        const Status s = r.read(buffer, sizeof buffer, got, [] { return false; });
        if (end) *end = s;
        if (s != Status::Data) break;
        out.insert(out.end(), buffer, buffer + got);
    }
    return out;
}

TEST(UdpReceiver, DatagramsComeInOrderAndAReadEndsAtTheTimeOutOrTheStop) {
    UdpReceiver::Address address;
    address.host = "127.0.0.1";
    address.timeoutUs = 300000;
    UdpReceiver receiver(address);
    ASSERT_NE(receiver.port(), 0);
    const Sender sender(receiver.port());
    std::vector<std::uint8_t> sent;
    for (int k = 0; k < 100; ++k) {  // more than one receiving call takes
        const auto d = datagram(1316 + static_cast<std::size_t>(k), static_cast<std::uint8_t>(k));
        ASSERT_TRUE(sender.send(d));
        sent.insert(sent.end(), d.begin(), d.end());
    }
    EXPECT_EQ(readAll(receiver, sent.size()), sent);
    std::uint8_t byte = 0;
    std::size_t got = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(receiver.read(&byte, 1, got, [] { return false; }), Status::TimedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_EQ(receiver.read(&byte, 1, got, [] { return true; }), Status::Stopped);
    EXPECT_EQ(receiver.overruns(), 0u);
}

// A socket's buffer of the least size the system allows, and datagrams sent faster than one thread wakes for
// them: the system drops some, and the receiver counts them.
TEST(UdpReceiver, CountsWhatTheSystemDropped) {
    UdpReceiver::Address address;
    address.socketBuffer = 1;
    UdpReceiver receiver(address);
    const Sender sender(receiver.port());
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (receiver.systemDrops() == 0 && std::chrono::steady_clock::now() < until)
        for (int k = 0; k < 50; ++k) ASSERT_TRUE(sender.send(datagram(1316, 0)));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // a datagram after the drops brings their count
    ASSERT_TRUE(sender.send(datagram(1316, 0)));
    for (int wait = 0; wait < 100 && receiver.systemDrops() == 0; ++wait) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_GT(receiver.systemDrops(), 0u);
}

// A multicast group is joined and received (where the machine routes multicast).
TEST(UdpReceiver, JoinsAGroup) {
    UdpReceiver::Address address;
    address.host = "239.255.42.17";
    address.timeoutUs = 1000000;
    std::unique_ptr<UdpReceiver> receiver;
    try {
        receiver = std::make_unique<UdpReceiver>(address);
    } catch (const std::exception& e) {
        GTEST_SKIP() << "no multicast here: " << e.what();
    }
    const Sender sender(receiver->port(), "239.255.42.17");
    const auto d = datagram(1316, 9);
    if (!sender.send(d)) GTEST_SKIP() << "no multicast route here";
    EXPECT_EQ(readAll(*receiver, d.size()), d);
}

// A ring of 64 KiB (the least) and a reader that is late: what does not fit is dropped and counted, and the rest
// reads on; with overrun_nonfatal=0 the read fails instead.
TEST(UdpReceiver, ARingThatOverflowsDropsOrFails) {
    for (const bool fatal : {false, true}) {
        UdpReceiver::Address address;
        address.ringBytes = 188;
        address.overrunFatal = fatal;
        address.timeoutUs = 300000;
        UdpReceiver receiver(address);
        const Sender sender(receiver.port());
        for (int k = 0; k < 80; ++k) ASSERT_TRUE(sender.send(datagram(1316, 0)));
        for (int wait = 0; wait < 200 && receiver.overruns() == 0; ++wait) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_GT(receiver.overruns(), 0u) << fatal;
        Status end = Status::Data;
        const auto read = readAll(receiver, 80 * 1316, &end);
        if (fatal) {
            EXPECT_EQ(end, Status::Overrun);
        } else {
            EXPECT_EQ(read.size(), (80 - receiver.overruns()) * 1316);
            EXPECT_EQ(end, Status::TimedOut);
        }
    }
}

}  // namespace
