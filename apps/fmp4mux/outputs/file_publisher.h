#pragma once
// Publishes into a folder: each file is written under a temporary name and renamed, so that a reader never sees
// half a file; folders are made as needed. A growing segment is appended to, chunk by chunk, under a name of its
// own (growingName) and renamed to its name with its last chunk. One thread writes, in the order published. The first file that cannot
// be written (a full disk, a file size limit) stops all writing: what is on disk stays consistent, since every
// manifest is published after the files it lists.
#include <condition_variable>
#include <ctime>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "apps/fmp4mux/outputs/publisher.h"

namespace fmp4mux {

class FilePublisher : public Publisher {
public:
    // `recycle`, when set, takes back the byte room of each publication once written.
    explicit FilePublisher(std::string root, std::function<void(tvrn::system::ByteBuffer&&)> recycle = {});
    ~FilePublisher() override;
    FilePublisher(const FilePublisher&) = delete;
    FilePublisher& operator=(const FilePublisher&) = delete;

    void publish(Publication&& publication) override;
    void drain() override;
    // With a limit, publish() waits while the files not yet written hold more than `bytes`: an input read as fast
    // as it can be would otherwise queue what the disk has not taken yet without bound. 0 (the default) never
    // waits, for a live input that cannot be held back.
    void limitBacklog(std::size_t bytes);
    std::optional<std::string> failure() const override;

private:
    void run();

    const std::string m_root;
    const bool m_preallocate;
    const std::function<void(tvrn::system::ByteBuffer&&)> m_recycle;
    mutable std::mutex m_mutex;
    std::condition_variable m_work, m_idle, m_room;
    std::deque<Publication> m_queue;
    std::size_t m_queuedBytes = 0, m_backlogLimit = 0;
    bool m_writing = false;
    bool m_closing = false;
    std::optional<std::string> m_failure;
    std::thread m_thread;
};

// The output folder, made when it is missing and held for one run: a second fmp4mux writing into the same folder
// would interleave its files with this one's, so it is refused. The lock is on ".fmp4mux.lock" in the folder and
// ends with the process. Raises ExitError (output folder not usable) when the folder cannot be made or written,
// or another fmp4mux holds it.
class OutputFolder {
public:
    explicit OutputFolder(const std::string& folder);
    ~OutputFolder();
    OutputFolder(const OutputFolder&) = delete;
    OutputFolder& operator=(const OutputFolder&) = delete;

private:
    int m_lock = -1;
};

// The folder of a live run below the output folder, named for the run's start in UTC ("run-20261125T170102Z",
// then "-2", "-3" for further runs of the same second), and the folders of earlier runs found there. A live
// channel's timeline starts again with each run, so each run's files get names no earlier run used: a CDN
// that cached an earlier run's segment never serves it for this run's.
struct RunFolders {
    std::string current;
    std::vector<std::string> earlier;
};
RunFolders planRunFolders(const std::string& outputDirectory, std::time_t start);

// Writes what `file` writes (forEachPiece) to `path` through a temporary name and a rename; its path is not read.
// `preallocate`: a file of a media segment's size takes its blocks in one call before it is written, which on a
// disk file system costs less than reserving them page by page as the writes go (and more on a memory one).
// Raises std::runtime_error with the reason on failure.
void writeFileAtomically(const std::string& path, const Publication& file, bool preallocate = false);

// Writes one part of a growing segment at `path`: to its growing name, made anew for Start, appended to for
// More; renamed to `path` when `complete`. Raises std::runtime_error with the reason on failure.
void writeSegmentPart(const std::string& path, const Publication& part);

}  // namespace fmp4mux
