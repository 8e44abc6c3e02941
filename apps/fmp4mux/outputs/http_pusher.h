#pragma once
// Sends every file of the presentation to a remote origin with HTTP PUT (libcurl) as it is made: a whole file with
// its length, a segment that grows with chunked transfer encoding, each chunk as it comes. A failed transfer is
// tried again from the start of the file (the file is kept until it has arrived), with growing pauses, a bounded
// number of times; files leaving the live window are deleted there. Transfers run on a few threads of their own;
// publish() only queues. The queue is bounded: past `maxWaiting` files not yet started, the oldest whole file is
// dropped (said through the warning callback), never a part of a growing one. The versions of one file leave in the
// order they were published: a version waits while an earlier one is under way, and stops that one's retries.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "apps/fmp4mux/outputs/publisher.h"

namespace fmp4mux {

class HttpPusher : public Publisher {
public:
    struct Settings {
        std::string baseUrl;  // files go to baseUrl + their path
        unsigned threads = 4;
        std::size_t maxWaiting = 128;
        unsigned attempts = 12;  // per file
        std::chrono::milliseconds firstPause{250};
        std::chrono::milliseconds longestPause{2000};
    };
    HttpPusher(Settings settings, std::function<void(const std::string&)> warn);
    ~HttpPusher() override;
    HttpPusher(const HttpPusher&) = delete;
    HttpPusher& operator=(const HttpPusher&) = delete;

    void publish(Publication&& publication) override;
    // Waits until every file queued has arrived or been given up.
    void drain() override;
    // Pushing is not the presentation: a file given up is warned of, and the run goes on.
    std::optional<std::string> failure() const override { return std::nullopt; }

    std::uint64_t filesSent() const;
    std::uint64_t filesGivenUp() const;

    // One file to send, growing until complete.
    struct Item {
        std::string path;
        tvrn::system::ByteBuffer bytes;
        bool growing = false;
        bool complete = true;
        bool remove = false;
        bool tree = false;
        bool replaceable = false;
        bool abandoned = false;  // a growing file started again before its end: no longer sent
        bool superseded = false;  // a newer version of the file waits: this one is not tried again
    };

private:
    void run();
    bool send(void* curl, Item& item);
    friend struct PushBody;

    const Settings m_settings;
    const std::function<void(const std::string&)> m_warn;
    mutable std::mutex m_mutex;
    std::condition_variable m_work, m_idle, m_grown;
    std::deque<std::shared_ptr<Item>> m_queue;
    std::map<std::string, std::shared_ptr<Item>> m_growing;  // by path, until complete
    // By path, while a thread sends it: a file is never sent by two threads at once, so that a later version of a
    // file (a manifest) cannot be overtaken by an earlier one that a retry brings in last.
    std::map<std::string, std::shared_ptr<Item>> m_sending;
    unsigned m_busy = 0;
    bool m_closing = false;
    std::uint64_t m_sent = 0, m_givenUp = 0;
    std::vector<std::thread> m_threads;
};

}  // namespace fmp4mux
