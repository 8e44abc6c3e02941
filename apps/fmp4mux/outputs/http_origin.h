#pragma once
// fmp4mux's own HTTP origin (libmicrohttpd): serves the output folder and the manifests to players. What the run
// publishes is kept in memory as it comes, so that a segment still being written is sent with chunked transfer
// encoding, each chunk the moment it is published; older files are read from the folder. It also answers the
// time, for the players' clocks (/utc, ISO 8601).
//
// A Range request (bytes=A-B, bytes=A-) is answered with those bytes (206), waiting for them in a growing file:
// low-latency HLS addresses its partial segments so. A request for a playlist with _HLS_msn (and _HLS_part) is
// held until the playlist lists that part (or a later segment, without _HLS_part), 400 when it asks more than two
// segments ahead, 503 after `blockingReloadLimit`.
//
// Only GET and HEAD are answered (405 otherwise). A path is refused (403) when it has a '.' or '..' segment, after
// percent-decoding, or when it leads out of the folder through a symbolic link; a file not there is 404, after a
// bounded wait for a segment that is about to start. publish() only moves bytes into memory under the origin's
// own lock: the engine's threads never wait for a client.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "apps/fmp4mux/outputs/publisher.h"

struct MHD_Daemon;
struct MHD_Connection;

namespace fmp4mux {

class HttpOrigin : public Publisher {
public:
    struct Settings {
        std::string root;                 // the output folder
        std::string address = "127.0.0.1";  // IPv4
        std::uint16_t port = 0;           // 0: any free port
        std::chrono::milliseconds waitForStart{1500};  // how long a request waits for a file not yet there
        std::size_t keptFiles = 256;      // complete files kept in memory, newest first
        std::chrono::milliseconds blockingReloadLimit{6000};  // how long a blocking playlist request is held
    };
    // Listens at once; raises std::runtime_error when the address cannot be listened on.
    explicit HttpOrigin(Settings settings);
    ~HttpOrigin() override;
    HttpOrigin(const HttpOrigin&) = delete;
    HttpOrigin& operator=(const HttpOrigin&) = delete;

    void publish(Publication&& publication) override;
    void drain() override {}
    std::optional<std::string> failure() const override { return std::nullopt; }

    std::uint16_t port() const { return m_port; }
    // The address of the time answer, for the MPD.
    std::string utcTimingUrl() const;

    // One file as the origin holds it: growing until complete.
    struct Entry {
        tvrn::system::ByteBuffer bytes;
        bool complete = false;
        bool abandoned = false;  // started again or taken away before its end: its readers fail
        std::optional<Publication::PartPosition> lastPart;  // of a low-latency HLS playlist
    };

private:
    friend struct OriginAccess;
    friend struct OriginReader;
    std::shared_ptr<Entry> find(const std::string& path, bool wait);
    // An HTTP status: 200 once the playlist at `path` lists part (`msn`, `part`), or a later segment without a
    // part; 400 for a request more than two segments ahead; 503 when the limit passes first.
    unsigned int awaitPart(const std::string& path, std::uint64_t msn, std::optional<std::uint64_t> part);
    void keep(const std::string& path);

    const Settings m_settings;
    std::string m_realRoot;
    std::uint16_t m_port = 0;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<std::string, std::shared_ptr<Entry>> m_files;
    std::deque<std::string> m_completeOrder;  // complete files, oldest first
    bool m_closing = false;
    MHD_Daemon* m_daemon = nullptr;
};

// Whether `path` (decoded, below the root, without its leading '/') may be served: no empty, '.' or '..' segment,
// no backslash or NUL.
bool servablePath(const std::string& path);

}  // namespace fmp4mux
