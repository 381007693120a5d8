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
