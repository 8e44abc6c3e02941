#include "apps/fmp4mux/outputs/http_pusher.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstring>

#include "apps/fmp4mux/outputs/http_origin.h"

namespace fmp4mux {

namespace {

struct CurlSetup {
    CurlSetup() { curl_global_init(CURL_GLOBAL_DEFAULT); }
};

}  // namespace

// The body of one PUT: the file's bytes from the start, waiting for more while the file grows.
struct PushBody {
    HttpPusher* pusher;
    HttpPusher::Item* item;
    std::size_t position = 0;

    static std::size_t read(char* buffer, std::size_t size, std::size_t count, void* self) {
        auto& body = *static_cast<PushBody*>(self);
        std::unique_lock lock(body.pusher->m_mutex);
        // A growing file's next chunk comes within a segment; past a minute the transfer is given up.
        const bool more = body.pusher->m_grown.wait_for(lock, std::chrono::seconds(60), [&] {
            return body.item->bytes.size() > body.position || body.item->complete || body.item->abandoned ||
                   body.pusher->m_closing;
        });
        if (!more || body.item->abandoned || (body.pusher->m_closing && !body.item->complete)) return CURL_READFUNC_ABORT;
        const std::size_t n = std::min(size * count, body.item->bytes.size() - body.position);
        std::memcpy(buffer, body.item->bytes.data() + body.position, n);
        body.position += n;
        return n;  // 0 once complete and all sent: the end of the body
    }
};

HttpPusher::HttpPusher(Settings settings, std::function<void(const std::string&)> warn)
    : m_settings(std::move(settings)), m_warn(std::move(warn)) {
    static CurlSetup setup;
    for (unsigned i = 0; i < std::max(1u, m_settings.threads); ++i) m_threads.emplace_back([this] { run(); });
}

HttpPusher::~HttpPusher() {
    {
        std::lock_guard lock(m_mutex);
        m_closing = true;
    }
    m_work.notify_all();
    m_grown.notify_all();
    for (auto& thread : m_threads) thread.join();
}

void HttpPusher::publish(Publication&& publication) {
    tvrn::system::ByteBuffer bytes = publication.remove ? tvrn::system::ByteBuffer{} : gather(publication);
    std::string dropped;
    {
        std::lock_guard lock(m_mutex);
        if (m_closing) return;
        if (publication.growth == Publication::Growth::More) {
            const auto it = m_growing.find(publication.path);
            if (it != m_growing.end()) {
                tvrn::system::append(it->second->bytes, bytes.data(), bytes.size());
                it->second->complete = publication.complete;
                if (publication.complete) m_growing.erase(it);
                m_grown.notify_all();
                return;
            }
        }
        auto item = std::make_shared<Item>();
        item->path = publication.path;
        item->bytes = std::move(bytes);
        item->growing = publication.growth != Publication::Growth::Whole;
        item->complete = !item->growing || publication.complete;
        item->remove = publication.remove;
        item->tree = publication.tree;
        item->replaceable = publication.replaceable;
        if (item->growing) {
            // A growing file started again (the session restarted) replaces the one under way.
            if (const auto old = m_growing.find(item->path); old != m_growing.end()) {
                old->second->abandoned = true;
                m_growing.erase(old);
                m_grown.notify_all();
            }
            if (!item->complete) m_growing[item->path] = item;
        }
        if (const auto sending = m_sending.find(item->path); sending != m_sending.end() && item->replaceable)
            sending->second->superseded = true;
        bool replaced = false;
        if (item->replaceable)
            for (auto& waiting : m_queue)
                if (waiting->replaceable && waiting->path == item->path) {
                    waiting = item;
                    replaced = true;
                }
        if (!replaced) m_queue.push_back(item);
        // Bounded: the oldest whole file waiting goes first; a growing segment is never cut.
        while (m_queue.size() > m_settings.maxWaiting) {
            const auto oldest = std::find_if(m_queue.begin(), m_queue.end(), [](const auto& i) { return !i->growing; });
            if (oldest == m_queue.end()) break;
            dropped += (dropped.empty() ? "" : ", ") + (*oldest)->path;
            ++m_givenUp;
            m_queue.erase(oldest);
        }
    }
    m_work.notify_one();
    if (!dropped.empty() && m_warn) m_warn("push: the queue is full, not sent: " + dropped);
}

void HttpPusher::drain() {
    std::unique_lock lock(m_mutex);
    m_idle.wait(lock, [this] { return m_queue.empty() && m_busy == 0; });
}

std::uint64_t HttpPusher::filesSent() const {
    std::lock_guard lock(m_mutex);
    return m_sent;
}

std::uint64_t HttpPusher::filesGivenUp() const {
    std::lock_guard lock(m_mutex);
    return m_givenUp;
}

bool HttpPusher::send(void* handle, Item& item) {
    CURL* curl = static_cast<CURL*>(handle);
    if (!servablePath(item.path)) return false;  // never sent outside the origin's folder
    const std::string url = m_settings.baseUrl + item.path + (item.remove && item.tree ? "/" : "");
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 2000L);
    // A transfer that moves nothing for 70 s is dead (a growing segment waits for its chunks, never that long).
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 70L);
    curl_slist* headers = nullptr;
    PushBody body{this, &item, 0};
    if (item.remove) {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "DELETE");
    } else {
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, &PushBody::read);
        curl_easy_setopt(curl, CURLOPT_READDATA, &body);
        bool knownSize = false;
        {
            std::lock_guard lock(m_mutex);
            knownSize = item.complete;
        }
        if (knownSize) {
            curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(item.bytes.size()));
        } else {
            headers = curl_slist_append(headers, "Transfer-Encoding: chunked");
        }
        headers = curl_slist_append(headers, "Expect:");
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    }
    const CURLcode code = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    if (code != CURLE_OK) return false;
    if (item.remove) return status < 300 || status == 404;
    return status >= 200 && status < 300;
}

void HttpPusher::run() {
    CURL* curl = curl_easy_init();
    std::unique_lock lock(m_mutex);
    while (true) {
        // The first file waiting that no other thread is sending.
        auto next = m_queue.end();
        m_work.wait(lock, [this, &next] {
            next = std::find_if(m_queue.begin(), m_queue.end(), [this](const auto& i) { return !m_sending.count(i->path); });
            return next != m_queue.end() || (m_closing && m_queue.empty());
        });
        if (next == m_queue.end()) break;  // closing with nothing left
        std::shared_ptr<Item> item = *next;
        m_queue.erase(next);
        m_sending[item->path] = item;
        ++m_busy;
        lock.unlock();
        bool arrived = false;
        auto pause = m_settings.firstPause;
        for (unsigned attempt = 0; attempt < m_settings.attempts && curl != nullptr; ++attempt) {
            if (attempt > 0) {
                std::unique_lock wait(m_mutex);
                if (m_grown.wait_for(wait, pause, [this] { return m_closing; })) break;
                pause = std::min(pause * 2, m_settings.longestPause);
            }
            if ((arrived = send(curl, *item))) break;
            std::lock_guard check(m_mutex);
            if (item->abandoned || item->superseded) break;
        }
        lock.lock();
        const bool replaced = item->superseded && !arrived;
        lock.unlock();
        if (!arrived && !replaced && m_warn) m_warn("push: " + item->path + " could not be sent");
        lock.lock();
        m_sending.erase(item->path);
        --m_busy;
        if (arrived) ++m_sent; else if (!replaced) ++m_givenUp;
        m_work.notify_all();  // a later version of this file may go now
        if (m_queue.empty() && m_busy == 0) m_idle.notify_all();
    }
    lock.unlock();
    if (curl != nullptr) curl_easy_cleanup(curl);
}

}  // namespace fmp4mux
