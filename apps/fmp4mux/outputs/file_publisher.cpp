#include "apps/fmp4mux/outputs/file_publisher.h"

#include "apps/fmp4mux/exit_error.h"

#include <fcntl.h>
#include <sys/file.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <regex>
#include <stdexcept>

namespace fmp4mux {

OutputFolder::OutputFolder(const std::string& dir) {
    std::error_code code;
    std::filesystem::create_directories(dir, code);
    if (code || !std::filesystem::is_directory(dir))
        throw ExitError(kExitOutput, "cannot create the output folder '" + dir + "'" + (code ? ": " + code.message() : ""));
    const std::string lockPath = dir + "/.fmp4mux.lock";
    m_lock = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (m_lock < 0)
        throw ExitError(kExitOutput, "the output folder '" + dir + "' is not writable: " + std::strerror(errno));
    if (::flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
        char holder[32] = {};
        const ssize_t n = ::pread(m_lock, holder, sizeof holder - 1, 0);
        ::close(m_lock);
        m_lock = -1;
        throw ExitError(kExitOutput, "the output folder '" + dir + "' is in use by another fmp4mux" +
                                         (n > 0 ? " (process " + std::string(holder, static_cast<std::size_t>(n)) + ")" : ""));
    }
    const std::string pid = std::to_string(::getpid());
    if (::ftruncate(m_lock, 0) != 0 || ::pwrite(m_lock, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        ::close(m_lock);
        m_lock = -1;
        throw ExitError(kExitOutput, "the output folder '" + dir + "' is not writable: " + std::strerror(errno));
    }
}

OutputFolder::~OutputFolder() {
    if (m_lock >= 0) ::close(m_lock);
}

RunFolders planRunFolders(const std::string& outputDirectory, std::time_t start) {
    RunFolders folders;
    std::error_code code;
    for (const auto& entry : std::filesystem::directory_iterator(outputDirectory, code)) {
        const std::string name = entry.path().filename().string();
        // Only what a run names so: an operator's own folder of another name is never touched.
        static const std::regex runName("run-[0-9]{8}T[0-9]{6}Z(-[0-9]+)?");
        if (entry.is_directory() && std::regex_match(name, runName)) folders.earlier.push_back(name);
    }
    std::sort(folders.earlier.begin(), folders.earlier.end());
    std::tm utc{};
    gmtime_r(&start, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "run-%Y%m%dT%H%M%SZ", &utc);
    folders.current = stamp;
    for (int n = 2; std::filesystem::exists(outputDirectory + "/" + folders.current); ++n)
        folders.current = std::string(stamp) + "-" + std::to_string(n);
    return folders;
}

namespace {
// The temporary name of a file being written: the process id keeps two runs apart.
std::string temporaryName(const std::string& path) {
    static const std::string suffix = ".tmp" + std::to_string(::getpid());
    return path + suffix;
}

// Opens `path` for writing, making its folders when they are missing: the folders are made on the first failure
// only, so that a file into a folder that exists costs one system call.
int openForWriting(const std::string& path, int flags) {
    int fd = ::open(path.c_str(), flags | O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0 || errno != ENOENT) return fd;
    const std::filesystem::path target(path);
    if (!target.has_parent_path()) return fd;
    std::error_code error;
    std::filesystem::create_directories(target.parent_path(), error);
    if (error) throw std::runtime_error("cannot create folder " + target.parent_path().string() + ": " + error.message());
    return ::open(path.c_str(), flags | O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
}

// Files smaller than this are written without taking their blocks first: manifests and init segments.
constexpr std::size_t kPreallocateFrom = 64 * 1024;

// How many bytes a publication writes.
std::size_t writtenSize(const Publication& file) {
    if (file.ranges.empty()) return file.bytes.size();
    std::size_t size = 0;
    for (const auto& range : file.ranges) size += range.second;
    return size;
}

// Writes what a publication writes, its pieces gathered into as few system calls as they allow.
bool writePieces(int fd, const Publication& file) {
    std::vector<iovec> parts;
    forEachPiece(file, [&](const std::uint8_t* data, std::size_t size) {
        if (size > 0) parts.push_back({const_cast<std::uint8_t*>(data), size});
    });
    std::size_t next = 0;
    while (next < parts.size()) {
        const int count = static_cast<int>(std::min<std::size_t>(parts.size() - next, IOV_MAX));
        const ssize_t done = ::writev(fd, parts.data() + next, count);
        if (done < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        // Past the parts written whole; a part written in half goes on from where it stopped.
        auto left = static_cast<std::size_t>(done);
        while (next < parts.size() && left >= parts[next].iov_len) left -= parts[next++].iov_len;
        if (left > 0) {
            parts[next].iov_base = static_cast<std::uint8_t*>(parts[next].iov_base) + left;
            parts[next].iov_len -= left;
        }
        while (next < parts.size() && parts[next].iov_len == 0) ++next;
    }
    return true;
}

// Whether `folder` is on a file system in memory (tmpfs, ramfs).
bool inMemoryFileSystem(const std::string& folder) {
    struct statfs about {};
    if (::statfs(folder.c_str(), &about) != 0) return false;
    return about.f_type == TMPFS_MAGIC || about.f_type == RAMFS_MAGIC;
}
}  // namespace

void writeFileAtomically(const std::string& path, const Publication& file, bool preallocate) {
    const std::string temporary = temporaryName(path);
    const int fd = openForWriting(temporary, O_TRUNC);
    if (fd < 0) throw std::runtime_error("cannot write " + temporary + ": " + std::strerror(errno));
    // The whole file is in hand: its blocks are taken in one call rather than reserved page by page as the writes
    // go (a sixth less system time for a media segment on ext4). A file system without the call just writes.
    if (preallocate) {
        const std::size_t size = writtenSize(file);
        if (size >= kPreallocateFrom) (void)::fallocate(fd, 0, 0, static_cast<off_t>(size));
    }
    const bool written = writePieces(fd, file);
    const int writeError = errno;
    const bool closed = ::close(fd) == 0;
    if (!written || !closed) {
        const int error = !written ? writeError : errno;
        std::remove(temporary.c_str());
        throw std::runtime_error("cannot write " + temporary + ": " + std::strerror(error));
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        std::remove(temporary.c_str());
        throw std::runtime_error("cannot rename " + temporary + " to " + path + ": " + std::strerror(error));
    }
}

void writeSegmentPart(const std::string& path, const Publication& part) {
    const std::string growing = growingName(path);
    const int fd = openForWriting(growing, part.growth == Publication::Growth::Start ? O_TRUNC : O_APPEND);
    if (fd < 0) throw std::runtime_error("cannot write " + growing + ": " + std::strerror(errno));
    // Each chunk reaches the file as it comes: a reader of the growing file sees it at once.
    const bool written = writePieces(fd, part);
    const int writeError = errno;
    const bool closed = ::close(fd) == 0;
    if (!written || !closed)
        throw std::runtime_error("cannot write " + growing + ": " + std::strerror(!written ? writeError : errno));
    if (part.complete && std::rename(growing.c_str(), path.c_str()) != 0)
        throw std::runtime_error("cannot rename " + growing + " to " + path + ": " + std::strerror(errno));
}

FilePublisher::FilePublisher(std::string root, std::function<void(tvrn::system::ByteBuffer&&)> recycle)
    : m_root(std::move(root)),
      m_preallocate(!inMemoryFileSystem(m_root)),
      m_recycle(std::move(recycle)),
      m_thread([this] { run(); }) {}

FilePublisher::~FilePublisher() {
    {
        std::lock_guard lock(m_mutex);
        m_closing = true;
    }
    m_work.notify_all();
    m_thread.join();
}

void FilePublisher::limitBacklog(std::size_t bytes) {
    std::lock_guard lock(m_mutex);
    m_backlogLimit = bytes;
}

void FilePublisher::publish(Publication&& publication) {
    {
        std::unique_lock lock(m_mutex);
        if (m_backlogLimit > 0)
            m_room.wait(lock, [this] { return m_failure || m_queuedBytes <= m_backlogLimit; });
        // After a failure nothing more is written: a manifest published after a file that was not written would
        // list it. What is on disk stays consistent: every manifest written lists files written before it.
        if (m_failure) {
            if (m_recycle) m_recycle(std::move(publication.bytes));
            return;
        }
        if (publication.replaceable) {
            // Only the newest manifest matters: it replaces one that has not been written yet.
            for (auto& waiting : m_queue)
                if (waiting.replaceable && waiting.path == publication.path) {
                    m_queuedBytes = m_queuedBytes - waiting.bytes.size() + publication.bytes.size();
                    waiting = std::move(publication);
                    return;
                }
        }
        m_queuedBytes += publication.bytes.size();
        m_queue.push_back(std::move(publication));
    }
    m_work.notify_one();
}

void FilePublisher::drain() {
    std::unique_lock lock(m_mutex);
    m_idle.wait(lock, [this] { return m_queue.empty() && !m_writing; });
}

std::optional<std::string> FilePublisher::failure() const {
    std::lock_guard lock(m_mutex);
    return m_failure;
}

void FilePublisher::run() {
    std::unique_lock lock(m_mutex);
    while (true) {
        m_work.wait(lock, [this] { return m_closing || !m_queue.empty(); });
        if (m_queue.empty()) return;  // closing with nothing left
        Publication next = std::move(m_queue.front());
        m_queue.pop_front();
        const std::size_t size = next.bytes.size();
        m_writing = true;
        lock.unlock();
        std::optional<std::string> failed;
        try {
            // Files written before would be missing under a folder made again (init files that the manifest
            // names): a folder taken away during the run stops it.
            if (!std::filesystem::is_directory(m_root))
                throw std::runtime_error("the output folder '" + m_root + "' was removed during the run");
            if (next.remove && next.tree)
                std::filesystem::remove_all(m_root + "/" + next.path);
            else if (next.remove)
                std::filesystem::remove(m_root + "/" + next.path);  // throws only when a file there stays
            else if (next.growth != Publication::Growth::Whole)
                writeSegmentPart(m_root + "/" + next.path, next);
            else
                writeFileAtomically(m_root + "/" + next.path, next, m_preallocate);
        } catch (const std::exception& e) {
            failed = e.what();
        }
        if (m_recycle) m_recycle(std::move(next.bytes));
        lock.lock();
        m_writing = false;
        m_queuedBytes -= size;
        if (failed && !m_failure) {
            m_failure = failed;
            for (auto& dropped : m_queue)
                if (m_recycle) m_recycle(std::move(dropped.bytes));
            m_queue.clear();
            m_queuedBytes = 0;
        }
        if (m_queuedBytes <= m_backlogLimit || m_failure) m_room.notify_all();
        if (m_queue.empty()) m_idle.notify_all();
    }
}

}  // namespace fmp4mux
