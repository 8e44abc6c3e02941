#pragma once
// Reads a local file through windows of it mapped into memory, one at a time, instead of copying it with read():
// the demultiplexer takes the bytes where the page cache holds them, which saves the kernel's copy of every byte
// (a tenth of what packaging a file costs). Only one window is mapped at a time, so what is resident stays small.
//
// A mapped file that shrinks under the reader would kill the process (SIGBUS) on the first page past its new end;
// instead, such a page reads as zeros (the demultiplexer finds no packets there) and the reader ends where the
// file now ends, as read() would have.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace fmp4mux {

class MappedFile {
public:
    // The file `url` names (a path, or a file: URL), read from `offset` on; null when it is not a regular local
    // file that can be mapped (a pipe, a device, a network URL), which is then read as before.
    static std::unique_ptr<MappedFile> open(const std::string& url, std::uint64_t offset);
    ~MappedFile();
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    // The next bytes, up to a window of `window` bytes (rounded up to whole pages); the window handed before is
    // unmapped. Size 0 at the end of the file: its size as the reader meets it, so a file still being written is
    // read on while it grows.
    struct Bytes {
        const std::uint8_t* data = nullptr;
        std::size_t size = 0;
    };
    Bytes next(std::size_t window = kWindow);
    // Whether a window read zeros in place of bytes the file lost while it was mapped; the reader ends there.
    bool shrank() const { return m_shrank; }
    // Why the last next() found nothing when the file could not be read ("" at its end).
    const std::string& error() const { return m_error; }

    static constexpr std::size_t kWindow = 8u << 20;

private:
    MappedFile(int fd, std::uint64_t offset) : m_fd(fd), m_offset(offset) {}
    void unmap();

    int m_fd = -1;
    std::uint64_t m_offset = 0;  // of the next byte to hand
    void* m_map = nullptr;
    std::size_t m_mapped = 0;
    int m_slot = -1;  // the guard's slot of the window mapped
    bool m_shrank = false;
    std::string m_error;
};

}  // namespace fmp4mux
