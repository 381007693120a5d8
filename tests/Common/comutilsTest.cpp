#include "Common/comutils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "gtest/gtest.h"

namespace {

class ComutilsTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/comutilsXXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir));
        root_ = dir;
    }
    void TearDown() override { std::system(("rm -rf '" + root_ + "'").c_str()); }
    void write(const std::string& rel, const std::string& text) {
        std::ofstream(root_ + "/" + rel) << text;
    }
    std::string read(const std::string& rel) {
        std::ifstream in(root_ + "/" + rel);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    std::string root_;
};

TEST_F(ComutilsTest, QuotedNamesAreUnquotedOnce) {
    write("f", "x");
    EXPECT_TRUE(psFileExist("\"" + root_ + "/f\""));
    EXPECT_FALSE(psFileExist(root_ + "/missing"));
    EXPECT_EQ("\"", psUnquote("\"\"\"").substr(0, 1));
    EXPECT_EQ("\"\"", psUnquote("\"\""));
    EXPECT_EQ("a", psUnquote("\"a\""));
    EXPECT_EQ(RC_OK, psRemoveFile("\"" + root_ + "/f\""));
    EXPECT_EQ(-1, psRemoveFile(root_ + "/f"));
}

TEST_F(ComutilsTest, TempFilesAreNewEmptyAndDistinct) {
    std::string a = psGetTempFileName(), b = psGetTempFileName(), c = psGetTempFileName(".sh");
    EXPECT_NE(a, b);
    EXPECT_EQ(0u, a.find("/tmp/hka"));
    EXPECT_EQ(c.size() - 3, c.rfind(".sh"));
    for (const std::string& name : {a, b, c}) {
        int64_t size = -1;
        EXPECT_EQ(0, psFileSize(name, &size)) << name;
        EXPECT_EQ(0, size);
        unlink(name.c_str());
    }
}

TEST_F(ComutilsTest, KernelReleaseThreshold) {
    struct {
        const char* release;
        bool newer;
    } cases[] = {{"2.6.5", true}, {"2.4.21", false}, {"3.0", true}, {"2.5.99", false},
                 {"6.1.0-13-amd64", true}, {"", false}, {"garbage", false}};
    for (const auto& c : cases) EXPECT_EQ(c.newer, isKernel26OrGreater(c.release)) << c.release;
}

TEST_F(ComutilsTest, DirectoryTreeCopiesAndRemovesCompletely) {
    ASSERT_EQ(0, psMkdir(root_ + "/src"));
    ASSERT_EQ(0, psMkdir(root_ + "/src/sub"));
    ASSERT_EQ(0, psMkdir(root_ + "/src/sub/deeper"));
    write("src/a", "alpha");
    write("src/sub/deeper/b", std::string(200000, 'b'));
    EXPECT_FALSE(psIsDirectoryEmpty(root_ + "/src"));
    ASSERT_EQ(RC_OK, psCopyDirectoryTree(root_ + "/src", root_ + "/copy/of/src"));
    EXPECT_EQ("alpha", read("copy/of/src/a"));
    EXPECT_EQ(200000u, read("copy/of/src/sub/deeper/b").size());
    std::vector<std::string> files, dirs;
    psListDirectoryFiles(root_ + "/src", &files);
    psListDirectories(root_ + "/src", &dirs);
    EXPECT_EQ(std::vector<std::string>{"a"}, files);
    EXPECT_EQ(std::vector<std::string>{"sub"}, dirs);
    EXPECT_EQ(RC_OK, psRemoveDirectoryTree(root_ + "/src"));
    EXPECT_FALSE(psFileExist(root_ + "/src"));
    ASSERT_EQ(0, psMkdir(root_ + "/empty"));
    EXPECT_TRUE(psIsDirectoryEmpty(root_ + "/empty"));
}

TEST_F(ComutilsTest, CopyFileRefusesMissingAndRelativeNames) {
    write("a", "x");
    EXPECT_NE(RC_OK, copyFile("", root_ + "/b"));
    EXPECT_NE(RC_OK, copyFile("relative/a", root_ + "/b"));
    EXPECT_NE(RC_OK, copyFile(root_ + "/missing", root_ + "/b"));
    EXPECT_EQ(RC_OK, copyFile(root_ + "/a", root_ + "/new/dir/b"));
    EXPECT_EQ("x", read("new/dir/b"));
}

TEST_F(ComutilsTest, TextHelpers) {
    std::string text = "\t\r\n  word with blanks \f\n";
    EXPECT_EQ("word with blanks", psTrim(text));
    std::string blank = " \t ";
    EXPECT_EQ("", psTrim(blank));
    std::string mixed = "MultiPath-9";
    psToUpper(&mixed);
    EXPECT_EQ("MULTIPATH-9", mixed);
    psToLower(&mixed);
    EXPECT_EQ("multipath-9", mixed);
    const unsigned char bytes[] = {0x00, 0x0f, 0xab, 0xff};
    EXPECT_EQ("000fabff", psHexText(bytes, sizeof(bytes)));
    EXPECT_EQ("qlxna.cat", getMessageCatalogName());
}

TEST_F(ComutilsTest, ExecutableSearchFollowsPath) {
    write("tool", "#!/bin/sh\n");
    chmod((root_ + "/tool").c_str(), 0755);
    write("plain", "");
    std::string oldPath = getenv("PATH");
    setenv("PATH", ("/nonexistent:" + root_).c_str(), 1);
    EXPECT_EQ(root_ + "/tool", psFindExecutable("tool"));
    EXPECT_EQ("", psFindExecutable("plain"));
    EXPECT_EQ("", psFindExecutable("missing"));
    setenv("PATH", oldPath.c_str(), 1);
    EXPECT_EQ("/bin/sh", psFindExecutable("/bin/sh"));
}

TEST_F(ComutilsTest, DiskSpaceOfAnExistingPath) {
    DiskSpaceInfo info{0, 0};
    ASSERT_EQ(0, psGetDiskSpaceInfo(root_, &info));
    EXPECT_GT(info.totalBytes, 0u);
    EXPECT_LE(info.availableBytes, info.totalBytes);
    EXPECT_NE(0, psGetDiskSpaceInfo(root_ + "/missing", &info));
}

}  // namespace
