#include "apps/fmp4mux/inputs/mapped_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>

namespace fmp4mux {

namespace {

// The windows mapped now, one slot each, which the SIGBUS handler looks at: a fault inside one is a page the file
// lost, which gets a page of zeros in its place; any other fault goes to the handler that was there before.
struct Slot {
    std::atomic<bool> used{false};
    std::atomic<std::uintptr_t> begin{0}, end{0};
    std::atomic<bool> hit{false};
};
constexpr int kSlots = 64;
Slot g_slots[kSlots];
struct sigaction g_previous {};
std::uintptr_t g_page = 4096;
std::once_flag g_installed;

void onBusError(int signal, siginfo_t* info, void* context) {
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    for (Slot& slot : g_slots) {
        if (address < slot.begin.load(std::memory_order_acquire) || address >= slot.end.load(std::memory_order_acquire))
            continue;
        void* page = reinterpret_cast<void*>(address & ~(g_page - 1));
        if (mmap(page, g_page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED) {
            slot.hit.store(true, std::memory_order_release);
            return;  // the read is made again, and finds zeros
        }
    }
    if ((g_previous.sa_flags & SA_SIGINFO) != 0 && g_previous.sa_sigaction != nullptr)
        return g_previous.sa_sigaction(signal, info, context);
    if (g_previous.sa_handler != SIG_DFL && g_previous.sa_handler != SIG_IGN) return g_previous.sa_handler(signal);
    // Not a window's: the default action, when the fault comes again on return (or at once, for a signal sent).
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    sigaction(SIGBUS, &fallback, nullptr);
    if (info->si_code <= 0) raise(signal);
}

void installGuard() {
    std::call_once(g_installed, [] {
        g_page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
        struct sigaction action {};
        action.sa_sigaction = &onBusError;
        action.sa_flags = SA_SIGINFO | SA_NODEFER;
        sigemptyset(&action.sa_mask);
        sigaction(SIGBUS, &action, &g_previous);
    });
}

int takeSlot() {
    for (int k = 0; k < kSlots; ++k) {
        bool expected = false;
        if (g_slots[k].used.compare_exchange_strong(expected, true)) return k;
    }
    return -1;
}

}  // namespace

std::unique_ptr<MappedFile> MappedFile::open(const std::string& url, std::uint64_t offset) {
    std::string path = url;
    if (path.rfind("file:", 0) == 0) path = path.substr(5);
    else if (path.find("://") != std::string::npos || path.rfind("pipe:", 0) == 0 || path == "-") return nullptr;
    // Without waiting: a named pipe whose writer is gone would hold the open for ever.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return nullptr;
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        return nullptr;
    }
    const int slot = takeSlot();
    if (slot < 0) {  // as many files mapped as there are slots: read this one as before
        ::close(fd);
        return nullptr;
    }
    installGuard();
    std::unique_ptr<MappedFile> file(new MappedFile(fd, offset));
    file->m_slot = slot;
    return file;
}

MappedFile::~MappedFile() {
    unmap();
    if (m_slot >= 0) g_slots[m_slot].used.store(false);
    ::close(m_fd);
}

void MappedFile::unmap() {
    if (m_map == nullptr) return;
    // The range empties before it moves: no moment covers memory that is not the window.
    Slot& slot = g_slots[m_slot];
    slot.end.store(0, std::memory_order_release);
    slot.begin.store(0, std::memory_order_release);
    if (slot.hit.exchange(false)) m_shrank = true;
    munmap(m_map, m_mapped);
    m_map = nullptr;
    m_mapped = 0;
}

MappedFile::Bytes MappedFile::next(std::size_t window) {
    unmap();
    if (m_shrank) return {};
    struct stat status {};
    if (fstat(m_fd, &status) != 0) {
        m_error = std::strerror(errno);
        return {};
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (m_offset >= size) return {};
    const std::uint64_t start = m_offset & ~static_cast<std::uint64_t>(g_page - 1);
    const std::size_t skip = static_cast<std::size_t>(m_offset - start);
    window = (std::max<std::size_t>(window, 1) + g_page - 1) & ~(g_page - 1);
    const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(window, size - start));
    void* map = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, m_fd, static_cast<off_t>(start));
    if (map == MAP_FAILED) {
        m_error = std::strerror(errno);
        return {};
    }
    madvise(map, length, MADV_SEQUENTIAL);
    m_map = map;
    m_mapped = length;
    Slot& slot = g_slots[m_slot];
    slot.begin.store(reinterpret_cast<std::uintptr_t>(map), std::memory_order_release);
    slot.end.store(reinterpret_cast<std::uintptr_t>(map) + length, std::memory_order_release);
    m_offset = start + length;
    return {static_cast<const std::uint8_t*>(map) + skip, length - skip};
}

}  // namespace fmp4mux
