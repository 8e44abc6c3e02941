#include "apps/fmp4mux/outputs/http_origin.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace fmp4mux {

namespace {

constexpr const char* kUtcPath = "/utc";
// How long a reader of a growing file waits for its next chunk before it gives up on the file.
constexpr auto kStall = std::chrono::seconds(20);

std::string contentType(const std::string& path) {
    const auto dot = path.rfind('.');
    const std::string ext = dot == std::string::npos ? "" : path.substr(dot);
    if (ext == ".mpd") return "application/dash+xml";
    if (ext == ".mp4" || ext == ".m4s") return "video/mp4";
    if (ext == ".m3u8") return "application/vnd.apple.mpegurl";
    if (path == "Manifest" || path.ends_with("/Manifest")) return "text/xml";
    return "application/octet-stream";
}

MHD_Result queue(MHD_Connection* connection, unsigned int status, MHD_Response* response) {
    MHD_add_response_header(response, "Access-Control-Allow-Origin", "*");
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

MHD_Result text(MHD_Connection* connection, unsigned int status, const std::string& body) {
    MHD_Response* response =
        MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain");
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED) MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    return queue(connection, status, response);
}

std::string utcNow() {
    const auto now = std::chrono::system_clock::now();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char out[64];
    std::snprintf(out, sizeof out, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms % 1000));
    return out;
}

}  // namespace

bool servablePath(const std::string& path) {
    if (path.empty() || path.find('\0') != std::string::npos || path.find('\\') != std::string::npos) return false;
    std::size_t start = 0;
    while (start <= path.size()) {
        const auto slash = path.find('/', start);
        const std::string segment = path.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
        if (segment.empty() || segment == "." || segment == "..") return false;
        if (slash == std::string::npos) break;
        start = slash + 1;
    }
    return true;
}

// A reader of a file that may still grow, from byte `from` up to `end` (exclusive; the file's end without it):
// each call gives what has come past `position`, waiting for it.
struct OriginReader {
    HttpOrigin* origin;
    std::shared_ptr<HttpOrigin::Entry> entry;
    std::uint64_t from = 0;
    std::optional<std::uint64_t> end = std::nullopt;

    static ssize_t read(void* self, std::uint64_t offset, char* buffer, std::size_t max) {
        auto& r = *static_cast<OriginReader*>(self);
        const std::uint64_t position = r.from + offset;
        if (r.end && position >= *r.end) return MHD_CONTENT_READER_END_OF_STREAM;
        std::unique_lock lock(r.origin->m_mutex);
        const auto deadline = std::chrono::steady_clock::now() + kStall;
        while (r.entry->bytes.size() <= position && !r.entry->complete) {
            if (r.entry->abandoned || r.origin->m_closing ||
                r.origin->m_changed.wait_until(lock, deadline) == std::cv_status::timeout)
                return MHD_CONTENT_READER_END_WITH_ERROR;
        }
        // A range the complete file falls short of fails: its length was promised.
        if (r.entry->bytes.size() <= position) return r.end ? MHD_CONTENT_READER_END_WITH_ERROR : MHD_CONTENT_READER_END_OF_STREAM;
        std::uint64_t available = r.entry->bytes.size() - position;
        if (r.end) available = std::min(available, *r.end - position);
        const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(max, available));
        std::memcpy(buffer, r.entry->bytes.data() + position, count);
        return static_cast<ssize_t>(count);
    }
    static void done(void* self) { delete static_cast<OriginReader*>(self); }
};

// "bytes=A-B" or "bytes=A-": the first byte and, when given, the byte after the last. Unset for anything else
// (several ranges, a suffix range), which is answered whole.
struct ByteRange {
    std::uint64_t from = 0;
    std::optional<std::uint64_t> end = std::nullopt;
};
std::optional<ByteRange> parseRange(const char* header) {
    if (header == nullptr) return std::nullopt;
    unsigned long long first = 0, last = 0;
    int used = 0;
    if (std::sscanf(header, "bytes=%llu-%llu%n", &first, &last, &used) == 2 && header[used] == '\0' && last >= first)
        return ByteRange{first, last + 1};
    used = 0;
    if (std::sscanf(header, "bytes=%llu-%n", &first, &used) == 1 && used > 0 && header[used] == '\0')
        return ByteRange{first, std::nullopt};
    return std::nullopt;
}

std::optional<std::uint64_t> number(const char* text) {
    if (text == nullptr || *text == '\0' || std::strlen(text) > 19) return std::nullopt;
    for (const char* c = text; *c != '\0'; ++c)
        if (*c < '0' || *c > '9') return std::nullopt;
    return std::strtoull(text, nullptr, 10);
}

// 206 with the range sent, the file's size after the slash once it is known.
MHD_Result partial(MHD_Connection* connection, MHD_Response* response, const ByteRange& range,
                   std::optional<std::uint64_t> size) {
    if (range.end) {
        const std::string value = "bytes " + std::to_string(range.from) + "-" + std::to_string(*range.end - 1) + "/" +
                                  (size ? std::to_string(*size) : "*");
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_RANGE, value.c_str());
    }
    return queue(connection, MHD_HTTP_PARTIAL_CONTENT, response);
}

struct OriginAccess {
    static MHD_Result answer(void* self, MHD_Connection* connection, const char* url, const char* method,
                             const char*, const char*, std::size_t*, void**) {
        auto& origin = *static_cast<HttpOrigin*>(self);
        const std::string verb = method;
        if (verb != MHD_HTTP_METHOD_GET && verb != MHD_HTTP_METHOD_HEAD)
            return text(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "method not allowed\n");
        const std::string target = url;  // percent-decoded by the library
        if (target == kUtcPath) {
            MHD_Response* response = nullptr;
            const std::string now = utcNow();
            response = MHD_create_response_from_buffer(now.size(), const_cast<char*>(now.data()), MHD_RESPMEM_MUST_COPY);
            MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain");
            MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
            return queue(connection, MHD_HTTP_OK, response);
        }
        const std::string path = target.starts_with("/") ? target.substr(1) : target;
        if (!servablePath(path)) return text(connection, MHD_HTTP_FORBIDDEN, "forbidden\n");
        // A growing file is served by its name, never by the name it has on disk meanwhile.
        if (path.ends_with(".growing")) return text(connection, MHD_HTTP_NOT_FOUND, "not found\n");
        // A blocking playlist reload waits for the part it asks for.
        if (const char* msn = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "_HLS_msn")) {
            const char* part = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "_HLS_part");
            const auto m = number(msn), p = number(part);
            if (!m || (part != nullptr && !p)) return text(connection, MHD_HTTP_BAD_REQUEST, "bad _HLS_msn or _HLS_part\n");
            const unsigned int status = origin.awaitPart(path, *m, p);
            if (status != MHD_HTTP_OK) return text(connection, status, status == MHD_HTTP_BAD_REQUEST ? "too far ahead\n" : "not yet\n");
        }
        std::optional<ByteRange> range = parseRange(MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_RANGE));

        for (int attempt = 0; attempt < 2; ++attempt) {
            if (auto entry = origin.find(path, attempt == 1)) {
                std::unique_lock lock(origin.m_mutex);
                MHD_Response* response = nullptr;
                if (range && entry->complete && range->from >= entry->bytes.size())
                    return text(connection, MHD_HTTP_RANGE_NOT_SATISFIABLE, "range not satisfiable\n");
                if (range && entry->complete) {
                    const std::uint64_t size = entry->bytes.size();
                    range->end = std::min(range->end.value_or(size), size);
                    response = MHD_create_response_from_buffer(static_cast<std::size_t>(*range->end - range->from),
                                                               entry->bytes.data() + range->from, MHD_RESPMEM_MUST_COPY);
                    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType(path).c_str());
                    return partial(connection, response, *range, size);
                }
                if (range) {
                    lock.unlock();
                    // Bytes of a growing file, sent as they come: a closed range has its length, an open one goes
                    // to the file's end with chunked transfer encoding (no Content-Range: its end is not known).
                    response = MHD_create_response_from_callback(
                        range->end ? *range->end - range->from : MHD_SIZE_UNKNOWN, 64 * 1024, &OriginReader::read,
                        new OriginReader{&origin, entry, range->from, range->end}, &OriginReader::done);
                    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType(path).c_str());
                    return partial(connection, response, *range, std::nullopt);
                }
                if (entry->complete) {
                    response = MHD_create_response_from_buffer(entry->bytes.size(), entry->bytes.data(),
                                                               MHD_RESPMEM_MUST_COPY);
                } else {
                    lock.unlock();
                    // Size unknown: sent with chunked transfer encoding, each part as it comes.
                    response = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, 64 * 1024, &OriginReader::read,
                                                                 new OriginReader{&origin, entry}, &OriginReader::done);
                }
                MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType(path).c_str());
                MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL,
                                        path.ends_with(".mpd") || path.ends_with(".m3u8") || path == "Manifest"
                                            ? "no-cache"
                                            : "max-age=60");
                return queue(connection, MHD_HTTP_OK, response);
            }
            // On disk, inside the folder once links are followed.
            const std::string full = origin.m_settings.root + "/" + path;
            char* real = ::realpath(full.c_str(), nullptr);
            if (real != nullptr) {
                const std::string resolved = real;
                std::free(real);
                if (!resolved.starts_with(origin.m_realRoot + "/")) return text(connection, MHD_HTTP_FORBIDDEN, "forbidden\n");
                const int fd = ::open(resolved.c_str(), O_RDONLY | O_CLOEXEC);
                struct stat info {};
                if (fd >= 0 && ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
                    const auto size = static_cast<std::uint64_t>(info.st_size);
                    if (range && range->from >= size) {
                        ::close(fd);
                        return text(connection, MHD_HTTP_RANGE_NOT_SATISFIABLE, "range not satisfiable\n");
                    }
                    if (range) range->end = std::min(range->end.value_or(size), size);
                    MHD_Response* response = range ? MHD_create_response_from_fd_at_offset64(*range->end - range->from, fd, range->from)
                                                   : MHD_create_response_from_fd(size, fd);
                    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, contentType(path).c_str());
                    return range ? partial(connection, response, *range, size) : queue(connection, MHD_HTTP_OK, response);
                }
                if (fd >= 0) ::close(fd);
                return text(connection, MHD_HTTP_NOT_FOUND, "not found\n");
            }
        }
        return text(connection, MHD_HTTP_NOT_FOUND, "not found\n");
    }
};

HttpOrigin::HttpOrigin(Settings settings) : m_settings(std::move(settings)) {
    char* real = ::realpath(m_settings.root.c_str(), nullptr);
    if (real == nullptr) throw std::runtime_error("cannot serve '" + m_settings.root + "': " + std::strerror(errno));
    m_realRoot = real;
    std::free(real);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(m_settings.port);
    if (::inet_pton(AF_INET, m_settings.address.c_str(), &address.sin_addr) != 1)
        throw std::runtime_error("cannot serve on '" + m_settings.address + "': not an IPv4 address");
    m_daemon = MHD_start_daemon(MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD, m_settings.port,
                                nullptr, nullptr, &OriginAccess::answer, this, MHD_OPTION_SOCK_ADDR, &address,
                                MHD_OPTION_CONNECTION_LIMIT, 512u, MHD_OPTION_CONNECTION_TIMEOUT, 30u, MHD_OPTION_END);
    if (m_daemon == nullptr)
        throw std::runtime_error("cannot serve on " + m_settings.address + ":" + std::to_string(m_settings.port) +
                                 " (address in use or not this machine's)");
    const MHD_DaemonInfo* info = MHD_get_daemon_info(m_daemon, MHD_DAEMON_INFO_BIND_PORT);
    m_port = info != nullptr ? info->port : m_settings.port;
}

HttpOrigin::~HttpOrigin() {
    {
        std::lock_guard lock(m_mutex);
        m_closing = true;
    }
    m_changed.notify_all();
    MHD_stop_daemon(m_daemon);
}

std::string HttpOrigin::utcTimingUrl() const {
    return "http://" + m_settings.address + ":" + std::to_string(m_port) + kUtcPath;
}

void HttpOrigin::keep(const std::string& path) {
    m_completeOrder.push_back(path);
    while (m_completeOrder.size() > m_settings.keptFiles) {
        const auto it = m_files.find(m_completeOrder.front());
        // Manifests stay: they are replaced, not added.
        if (it != m_files.end() && it->second->complete) m_files.erase(it);
        m_completeOrder.pop_front();
    }
}

void HttpOrigin::publish(Publication&& publication) {
    tvrn::system::ByteBuffer bytes = publication.remove ? tvrn::system::ByteBuffer{} : gather(publication);
    {
        std::lock_guard lock(m_mutex);
        const std::string& path = publication.path;
        if (publication.remove) {
            if (publication.tree) {
                for (auto it = m_files.lower_bound(path + "/"); it != m_files.end() && it->first.starts_with(path + "/");) {
                    it->second->abandoned = !it->second->complete;
                    it = m_files.erase(it);
                }
            } else if (const auto it = m_files.find(path); it != m_files.end()) {
                it->second->abandoned = !it->second->complete;
                m_files.erase(it);
            }
        } else if (publication.growth == Publication::Growth::More) {
            auto& entry = m_files[path];
            if (!entry) entry = std::make_shared<Entry>();
            tvrn::system::append(entry->bytes, bytes.data(), bytes.size());
            entry->complete = publication.complete;
            if (entry->complete) keep(path);
        } else {
            // A new file, or a growing one that starts. The readers of an old one that had not ended fail (the
            // session started again): a player must not take its beginning for a whole segment.
            if (const auto old = m_files.find(path); old != m_files.end() && !old->second->complete)
                old->second->abandoned = true;
            auto entry = std::make_shared<Entry>();
            entry->bytes = std::move(bytes);
            entry->complete = publication.growth == Publication::Growth::Whole || publication.complete;
            entry->lastPart = publication.lastPart;
            m_files[path] = entry;
            // A manifest is replaced, never added: it stays in memory.
            if (entry->complete && !publication.replaceable) keep(path);
        }
    }
    m_changed.notify_all();
}

std::shared_ptr<HttpOrigin::Entry> HttpOrigin::find(const std::string& path, bool wait) {
    std::unique_lock lock(m_mutex);
    const auto deadline = std::chrono::steady_clock::now() + m_settings.waitForStart;
    while (true) {
        const auto it = m_files.find(path);
        if (it != m_files.end()) return it->second;
        if (!wait || m_closing || m_changed.wait_until(lock, deadline) == std::cv_status::timeout) {
            const auto again = m_files.find(path);
            return again == m_files.end() ? nullptr : again->second;
        }
    }
}

unsigned int HttpOrigin::awaitPart(const std::string& path, std::uint64_t msn, std::optional<std::uint64_t> part) {
    std::unique_lock lock(m_mutex);
    const auto deadline = std::chrono::steady_clock::now() + m_settings.blockingReloadLimit;
    while (true) {
        const auto it = m_files.find(path);
        if (it != m_files.end()) {
            // A playlist that lists no parts (not low latency, or ended) is answered as it is.
            if (!it->second->lastPart) return MHD_HTTP_OK;
            const Publication::PartPosition at = *it->second->lastPart;
            if (msn > at.msn + 2) return MHD_HTTP_BAD_REQUEST;
            if (at.msn > msn || (at.msn == msn && part && at.part >= *part)) return MHD_HTTP_OK;
        }
        if (m_closing || m_changed.wait_until(lock, deadline) == std::cv_status::timeout) return MHD_HTTP_SERVICE_UNAVAILABLE;
    }
}

}  // namespace fmp4mux
