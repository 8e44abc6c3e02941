#include <gtest/gtest.h>
#include <unistd.h>

#include "support/text/files.h"
#include "support/text/paths.h"

namespace {
using namespace tvrn::encoding::paths;
using namespace tvrn::encoding::files;

std::string failure(const std::function<void()>& f) {
    try {
        f();
    } catch (const CorvaneException& e) {
        return e.what();
    }
    return "";
}

TEST(Paths, ParseAndPrintTheKnownForms) {
    EXPECT_EQ(toString(parseAbsolutePath("D:")), "D:");
    EXPECT_EQ(toString(parseAbsolutePath("D:\\")), "D:");
    EXPECT_EQ(toString(parseAbsolutePath("//serveur")), "//serveur");
    EXPECT_EQ(parseAbsolutePath("c:/a/b/x").directory.components, (std::vector<std::string>{"a", "b", "x"}));
    EXPECT_EQ(toString(parseAbsolutePath("c:\\a\\b/x")), "c:/a/b/x");
    EXPECT_EQ(toString(parseAbsolutePath("/srv/media//out")), "/srv/media/out");
    EXPECT_EQ(toString(AbsolutePath(WindowsDrive{"c"}, DirectoryPath())), "c:");
    EXPECT_EQ(failure([] { parseAbsolutePath("./serveur"); }), "invalid absolute path:./serveur");
    EXPECT_EQ(failure([] { parseAbsolutePath("toto/titi"); }), "invalid absolute path:toto/titi");
}

TEST(Paths, ParentFileNameAndJoin) {
    const auto base = parseAbsolutePath("c:/a/b");
    EXPECT_EQ(toString(base + RelativePath("../c/d.mp4")), "c:/a/c/d.mp4");
    EXPECT_EQ(fileName(base), "b");
    EXPECT_EQ(toString(parent(base)), "c:/a");
    EXPECT_EQ(parent(RelativePath()), RelativePath(".."));
    EXPECT_THROW(base + RelativePath("../../.."), PathException);
    EXPECT_EQ(failure([] { parent(parseAbsolutePath("D:")); }), "cannot get parent of empty directory path");
    EXPECT_EQ(failure([] { fileName(RelativePath()); }), "cannot exctract file name from empty path");
}

TEST(Files, WriteReadMoveEnumerateAndTemporaryNames) {
    char pattern[] = "/tmp/fmp4-files-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string dir = pattern;
    const std::string tmp = temporaryDirectory(dir);
    EXPECT_EQ(tmp, dir + "/f0077324-7974-46c1-8f4d-c121507e30e6");
    const std::string first = makeTemporaryFile(tmp);
    const std::string second = makeTemporaryFile(tmp);
    EXPECT_EQ(first, tmp + "/f0077324-7974-46c1-8f4d-c121507e30e6_0");
    EXPECT_EQ(second, tmp + "/f0077324-7974-46c1-8f4d-c121507e30e6_1");

    writeFile(first, "chunk bytes");
    moveFile(first, dir + "/final.m4s");
    const auto bytes = readFile(dir + "/final.m4s");
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "chunk bytes");
    EXPECT_EQ(enumerateDirectory(dir), (std::vector<std::string>{"f0077324-7974-46c1-8f4d-c121507e30e6", "final.m4s"}));

    const std::string missing = dir + "/none";
    EXPECT_EQ(failure([&] { removeFile(missing); }),
              "could not remove file [" + missing + "]: Win32 error " + std::to_string(ENOENT));
    EXPECT_EQ(failure([&] { enumerateDirectory(missing); }),
              "could not enumerate the contents of [" + missing + "]: Win32 error " + std::to_string(ENOENT));
    EXPECT_EQ(failure([&] { readFile(missing); }).rfind("could not read file:", 0), 0u);
    EXPECT_EQ(failure([&] { moveFile(missing, dir + "/x"); }).rfind("Can't move file", 0), 0u);
    removeDirectory(dir);
    EXPECT_EQ(access(dir.c_str(), F_OK), -1);
}
}  // namespace
