#include "Common/comutils.h"

#include <cstdlib>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

using testfiles::readFile;
using testfiles::writeFile;

class ComutilsTest : public ::testing::Test {
protected:
    testfiles::TempDir dir_;
};

TEST_F(ComutilsTest, QuotedNamesAreUnquotedOnce) {
    const std::pair<std::string, std::string> cases[] = {{"\"a\"", "a"}, {"\"\"\"", "\""}, {"\"\"", "\"\""}, {"\"a b", "\"a b"}};
    for (const auto& c : cases) EXPECT_EQ(c.second, psUnquote(c.first)) << c.first;
    writeFile(dir_.file("f"), "x");
    EXPECT_TRUE(psFileExist("\"" + dir_.file("f") + "\""));
    EXPECT_EQ(RC_OK, psRemoveFile("\"" + dir_.file("f") + "\""));
    EXPECT_FALSE(psFileExist(dir_.file("f")));
    EXPECT_EQ(-1, psRemoveFile(dir_.file("f")));
}

TEST_F(ComutilsTest, KernelReleaseThreshold) {
    const std::pair<const char*, bool> cases[] = {{"2.6.5", true},  {"2.4.21", false}, {"3.0", true}, {"2.5.99", false},
                                                  {"6.1.0-13-amd64", true}, {"", false}, {"garbage", false}};
    for (const auto& c : cases) EXPECT_EQ(c.second, isKernel26OrGreater(c.first)) << c.first;
}

TEST_F(ComutilsTest, DirectoryTreeCopiesAndRemovesCompletely) {
    const std::string src = dir_.file("src");
    ASSERT_EQ(0, psMkdir(src));
    ASSERT_EQ(0, psMkdir(src + "/sub"));
    ASSERT_EQ(0, psMkdir(src + "/sub/deeper"));
    writeFile(src + "/a", "alpha");
    writeFile(src + "/sub/deeper/b", std::string(200000, 'b'));
    ASSERT_EQ(RC_OK, psCopyDirectoryTree(src, dir_.file("copy/of/src")));
    EXPECT_EQ("alpha", readFile(dir_.file("copy/of/src/a")));
    EXPECT_EQ(200000u, readFile(dir_.file("copy/of/src/sub/deeper/b")).size());
    std::vector<std::string> files, dirs;
    psListDirectoryFiles(src, &files);
    psListDirectories(src, &dirs);
    EXPECT_EQ(std::vector<std::string>{"a"}, files);
    EXPECT_EQ(std::vector<std::string>{"sub"}, dirs);
    EXPECT_FALSE(psIsDirectoryEmpty(src));
    EXPECT_EQ(RC_OK, psRemoveDirectoryTree(src));
    EXPECT_FALSE(psFileExist(src));
    ASSERT_EQ(0, psMkdir(dir_.file("empty")));
    EXPECT_TRUE(psIsDirectoryEmpty(dir_.file("empty")));
}

}  // namespace
