#include "Common/comutils.h"

#include "BKVlib/common/ut/ReturnCodes.h"
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

}  // namespace
