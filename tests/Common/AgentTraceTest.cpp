#include "Common/AgentTrace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "tests/BKVlib/common/ut/TraceTestUtil.h"

using ::testing::HasSubstr;

namespace {

class AgentTraceTest : public ::testing::Test {
protected:
    void SetUp() override { endTrace(); }
    void TearDown() override { endTrace(); }
    TempDir dir_;
    std::string path_ = dir_.file("multipath.trace");
};

TEST_F(AgentTraceTest, DebugModeChoosesTheRecords) {
    const std::pair<const char*, std::string> cases[] = {
        {"MIN", "min "}, {"MID", "min mid "}, {"max", "enter min mid max exit "}};
    const std::pair<const char*, const char*> kinds[] = {{"enter", "Enter: probe()\n"}, {"min", "min record"},
        {"mid", "mid record"}, {"max", "max record"}, {"exit", "Exit: probe(), rc = 0\n"}};
    for (const auto& c : cases) {
        endTrace();
        unlink(path_.c_str());
        ASSERT_EQ(RC_OK, initTrace(path_, c.first, 1024));
        NA_TRACE_ENTER("probe()");
        NA_TRACE_MIN("min record\n");
        NA_TRACE_MID("mid record\n");
        NA_TRACE_MAX("max record\n");
        NA_TRACE_EXIT("Exit: %s, rc = %d\n", "probe()", 0);
        std::string text = readFile(path_), seen;
        for (const auto& r : kinds) seen += text.find(r.second) == std::string::npos ? "" : std::string(r.first) + ' ';
        EXPECT_EQ(c.second, seen) << c.first;
    }
}

// Arguments are cut to their first 4604 characters, then control characters escaped.
TEST_F(AgentTraceTest, ArgumentsAreCutAndEscaped) {
    const std::pair<std::string, std::string> cases[] = {
        {"Ger\xc3\xa4t \\n", "Ger\xc3\xa4t \\n"},  // multibyte text and a typed backslash stay as they are
        {"a\n2099-01-01 00:00:00.000 AGT0430I", "a\\n2099-01-01 00:00:00.000 AGT0430I"},
        {"cr\rtab\tbell\adel\x7f", "cr\\x0Dtab\\x09bell\\x07del\\x7F"},
        {std::string("nul\0x", 5), "nul\\x00x"},
        {std::string(4604, 'a') + std::string(396, 'b'), std::string(4604, 'a')},
        {std::string(4603, 'a') + "\n\n", std::string(4603, 'a') + "\\n"},  // an escape is never split
    };
    for (const auto& c : cases) EXPECT_EQ(c.second, NA_STR(c.first)) << c.first;
    EXPECT_STREQ("<NULL>", NA_STR(static_cast<const char*>(nullptr)));
    std::string longText = std::string(4604, 'a') + "b", empty;
    EXPECT_EQ(std::string(4604, 'a'), naCutInPlace(longText));
    EXPECT_EQ(4604u, longText.size());
    EXPECT_STREQ("<NULL>", naCutInPlace(empty));
}

TEST_F(AgentTraceTest, SetUpFailuresReturnTheirCodes) {
    EXPECT_EQ(RC_OK, initTrace("", "MAX", 1024));
    EXPECT_EQ(0, trIsActive());
    endTrace();
    EXPECT_EQ(RC_TRACE_FAILED, initTrace(dir_.file("no/such/t.trace"), "MIN", 1024));
    endTrace();
    mkdir(path_.c_str(), 0700);
    testing::internal::CaptureStdout();
    EXPECT_EQ(RC_TRACE_BEGIN_FAILED, initTrace(path_, "MIN", 1024));
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("Unable to open trace output file " + path_));
    EXPECT_EQ(0, trIsActive());
}

}  // namespace
