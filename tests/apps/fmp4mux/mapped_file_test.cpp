// The mapped reader of local files: every byte from the offset on, across windows and pages, a file that grows
// read on, one that shrinks under a window read as zeros there (no SIGBUS) and ended, and what it does not map.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "apps/fmp4mux/inputs/mapped_file.h"
#include "tests/common/process.h"

namespace {
using fmp4mux::MappedFile;

std::vector<std::uint8_t> pattern(std::size_t size, std::size_t from = 0) {
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t k = 0; k < size; ++k) bytes[k] = static_cast<std::uint8_t>((from + k) * 7 + (from + k) / 251);
    return bytes;
}

void append(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::app).write(reinterpret_cast<const char*>(bytes.data()),
                                                               static_cast<std::streamsize>(bytes.size()));
}

// Everything next() hands until the end, in windows of `window`.
std::vector<std::uint8_t> readAll(MappedFile& file, std::size_t window) {
    std::vector<std::uint8_t> out;
    for (MappedFile::Bytes bytes; (bytes = file.next(window)).size > 0;) out.insert(out.end(), bytes.data, bytes.data + bytes.size);
    return out;
}

TEST(MappedFile, ReadsEveryByteFromTheOffsetOnThenWhatTheFileGrowsBy) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    struct Case {
        std::size_t size, offset, window;
    };
    for (const Case& c : {Case{0, 0, 4096}, Case{100, 0, 1}, Case{3 * page + page / 2, 100, page},
                          Case{3 * page + page / 2, page, 2 * page},
                          Case{10000, 9999, 1 << 20}, Case{5000, 6000, 4096}}) {
        SCOPED_TRACE(std::to_string(c.size) + " bytes from " + std::to_string(c.offset) + " by " + std::to_string(c.window));
        testkit::TempDir dir;
        const std::string path = dir.path + "/in.ts";
        append(path, pattern(c.size));
        std::unique_ptr<MappedFile> file = MappedFile::open(path, c.offset);
        ASSERT_NE(file, nullptr);
        const std::vector<std::uint8_t> all = pattern(c.size);
        const std::vector<std::uint8_t> expected(all.begin() + static_cast<std::ptrdiff_t>(std::min(c.offset, c.size)),
                                                 all.end());
        EXPECT_EQ(readAll(*file, c.window), expected);
        // Written on after the end was met: read on from there.
        append(path, pattern(777, c.size));
        if (c.offset <= c.size) {
            EXPECT_EQ(readAll(*file, c.window), pattern(777, c.size));
        }
        EXPECT_FALSE(file->shrank());
        EXPECT_EQ(file->error(), "");
    }
}

TEST(MappedFile, AFileThatShrinksUnderAWindowReadsZerosThereAndEnds) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    testkit::TempDir dir;
    const std::string path = dir.path + "/in.ts";
    append(path, pattern(4 * page));
    std::unique_ptr<MappedFile> file = MappedFile::open("file:" + path, 0);
    ASSERT_NE(file, nullptr);
    const MappedFile::Bytes bytes = file->next(2 * page);
    ASSERT_EQ(bytes.size, 2 * page);
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(page / 2)), 0);
    EXPECT_EQ(bytes.data[page + 5], 0);  // past the new end: a page of zeros instead of SIGBUS
    EXPECT_EQ(bytes.data[10], pattern(11)[10]);
    EXPECT_EQ(file->next(2 * page).size, 0u);
    EXPECT_TRUE(file->shrank());
    // A fault outside the reader's windows still ends the process.
    EXPECT_DEATH(
        {
            const int fd = ::open(path.c_str(), O_RDONLY);
            auto* other = static_cast<volatile const std::uint8_t*>(mmap(nullptr, 2 * page, PROT_READ, MAP_PRIVATE, fd, 0));
            std::printf("%d\n", other[page + 5]);
        },
        "");
}

TEST(MappedFile, MapsOnlyRegularLocalFiles) {
    testkit::TempDir dir;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string pipePath = "/proc/self/fd/" + std::to_string(ends[0]);
    const std::string fifo = dir.path + "/fifo";  // no writer: opening it to read would wait for one
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& url : {std::string("udp://127.0.0.1:5000"), std::string("srt://host:9000"),
                                   std::string("pipe:0"), std::string("-"), dir.path,
                                   dir.path + "/missing.ts", pipePath, fifo})
        EXPECT_EQ(MappedFile::open(url, 0), nullptr) << url;
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
