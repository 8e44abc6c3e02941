#include <gtest/gtest.h>
#include <unistd.h>

#include "support/text/files.h"
#include "support/text/paths.h"
#include "tests/common/bytes.h"

namespace {
using namespace tvrn::encoding::paths;
using namespace tvrn::encoding::files;
using testkit::failureOf;

TEST(Paths, ParseAndPrintTheKnownForms) {
    EXPECT_EQ(toString(parseAbsolutePath("D:")), "D:");
    EXPECT_EQ(toString(parseAbsolutePath("D:\\")), "D:");
    EXPECT_EQ(toString(parseAbsolutePath("//serveur")), "//serveur");
    EXPECT_EQ(parseAbsolutePath("c:/a/b/x").directory.components, (std::vector<std::string>{"a", "b", "x"}));
    EXPECT_EQ(toString(parseAbsolutePath("c:\\a\\b/x")), "c:/a/b/x");
    EXPECT_EQ(toString(parseAbsolutePath("/srv/media//out")), "/srv/media/out");
    EXPECT_EQ(toString(AbsolutePath(WindowsDrive{"c"}, DirectoryPath())), "c:");
    EXPECT_EQ(failureOf([] { parseAbsolutePath("./serveur"); }), "invalid absolute path:./serveur");
    EXPECT_EQ(failureOf([] { parseAbsolutePath("toto/titi"); }), "invalid absolute path:toto/titi");
}

TEST(Paths, ParentFileNameAndJoin) {
    const auto base = parseAbsolutePath("c:/a/b");
    EXPECT_EQ(toString(base + RelativePath("../c/d.mp4")), "c:/a/c/d.mp4");
    EXPECT_EQ(fileName(base), "b");
    EXPECT_EQ(toString(parent(base)), "c:/a");
    EXPECT_EQ(parent(RelativePath()), RelativePath(".."));
    EXPECT_THROW(base + RelativePath("../../.."), PathException);
    EXPECT_EQ(failureOf([] { parent(parseAbsolutePath("D:")); }), "cannot get parent of empty directory path");
    EXPECT_EQ(failureOf([] { fileName(RelativePath()); }), "cannot exctract file name from empty path");
}

TEST(Files, WriteReadMoveEnumerateAndTemporaryNames) {
    char pattern[] = "/tmp/fmp4-files-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string dir = pattern, tmp = temporaryDirectory(dir);
    EXPECT_EQ(tmp, dir + "/f0077324-7974-46c1-8f4d-c121507e30e6");
    const std::string first = makeTemporaryFile(tmp);
    EXPECT_EQ(first, tmp + "/f0077324-7974-46c1-8f4d-c121507e30e6_0");
    EXPECT_EQ(makeTemporaryFile(tmp), tmp + "/f0077324-7974-46c1-8f4d-c121507e30e6_1");

    writeFile(first, "chunk bytes");
    moveFile(first, dir + "/final.m4s");
    const auto bytes = readFile(dir + "/final.m4s");
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "chunk bytes");
    EXPECT_EQ(enumerateDirectory(dir), (std::vector<std::string>{"f0077324-7974-46c1-8f4d-c121507e30e6", "final.m4s"}));

    const std::string missing = dir + "/none", win32 = "]: Win32 error " + std::to_string(ENOENT);
    EXPECT_EQ(failureOf([&] { removeFile(missing); }), "could not remove file [" + missing + win32);
    EXPECT_EQ(failureOf([&] { enumerateDirectory(missing); }), "could not enumerate the contents of [" + missing + win32);
    EXPECT_EQ(failureOf([&] { readFile(missing); }).rfind("could not read file:", 0), 0u);
    EXPECT_EQ(failureOf([&] { moveFile(missing, dir + "/x"); }).rfind("Can't move file", 0), 0u);
    removeDirectory(dir);
    EXPECT_EQ(access(dir.c_str(), F_OK), -1);
}
}  // namespace
