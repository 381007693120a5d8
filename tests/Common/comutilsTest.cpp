#include "Common/comutils.h"

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/unix/psnautil.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

TEST(ComutilsTest, QuotedNamesAreUnquotedOnce) {
    const std::pair<std::string, std::string> cases[] = {
        {"\"a\"", "a"}, {"\"\"\"", "\""}, {"\"\"", "\"\""}, {"\"a b", "\"a b"}};
    for (const auto& c : cases) EXPECT_EQ(c.second, psUnquote(c.first)) << c.first;
    testfiles::TempDir dir;
    testfiles::writeFile(dir.file("f"), "x");
    EXPECT_TRUE(psFileExist("\"" + dir.file("f") + "\""));
    EXPECT_EQ(RC_OK, psRemoveFile("\"" + dir.file("f") + "\""));
    EXPECT_FALSE(psFileExist(dir.file("f")));
    EXPECT_EQ(-1, psRemoveFile(dir.file("f")));
}

TEST(ComutilsTest, KernelReleaseThreshold) {
    const std::pair<const char*, bool> cases[] = {{"2.6.5", true}, {"2.4.21", false}, {"3.0", true}, {"2.5.99", false},
                                                  {"6.1.0-13-amd64", true}, {"", false}, {"garbage", false}};
    for (const auto& c : cases) EXPECT_EQ(c.second, isKernel26OrGreater(c.first)) << c.first;
}

TEST(ComutilsTest, DirectoryTreeCopiesAndRemovesCompletely) {
    testfiles::TempDir dir;
    ASSERT_EQ(0, psMkdir(dir.file("src")));
    ASSERT_EQ(0, psMkdir(dir.file("src/sub")));
    testfiles::writeFile(dir.file("src/a"), "alpha");
    testfiles::writeFile(dir.file("src/sub/b"), std::string(200000, 'b'));
    ASSERT_EQ(RC_OK, psCopyDirectoryTree(dir.file("src"), dir.file("copy/of/src")));
    EXPECT_EQ("alpha", testfiles::readFile(dir.file("copy/of/src/a")));
    EXPECT_EQ(200000u, testfiles::readFile(dir.file("copy/of/src/sub/b")).size());
    EXPECT_NE(RC_OK, copyFile("relative/a", dir.file("b")));
    EXPECT_NE(RC_OK, copyFile(dir.file("missing"), dir.file("b")));
    EXPECT_FALSE(psIsDirectoryEmpty(dir.file("src")));
    EXPECT_EQ(RC_OK, psRemoveDirectoryTree(dir.file("src")));
    EXPECT_FALSE(psFileExist(dir.file("src")));
}

TEST(ComutilsTest, TextHelpersAndExecutableSearch) {
    std::string text = "\t\r\n  two words \f\n", blank = " \t ";
    EXPECT_EQ("two words", psTrim(text));
    EXPECT_EQ("", psTrim(blank));
    const unsigned char bytes[] = {0x00, 0x0f, 0xab, 0xff};
    EXPECT_EQ("000fabff", psHexText(bytes, sizeof(bytes)));
    EXPECT_EQ("/bin/sh", psFindExecutable("/bin/sh"));
    EXPECT_EQ("", psFindExecutable("no-such-program-here"));
    EXPECT_NE("", psFindExecutable("sh"));
}

}  // namespace
