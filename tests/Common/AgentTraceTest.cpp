// The agent's trace set-up: size rule, debug modes, record prefix, thread banner
// and the string guards.
#include "Common/AgentTrace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <thread>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "tests/BKVlib/common/ut/TraceTestUtil.h"

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

namespace {

class AgentTraceTest : public ::testing::Test {
protected:
    void SetUp() override { endTrace(); }
    void TearDown() override { endTrace(); }
    TempDir dir_;
    std::string path_ = dir_.file("multipath.trace");
};

TEST_F(AgentTraceTest, SizeInKilobytesBecomesWholeMegabytes) {
    const int32_t cases[][2] = {{100, 1}, {3071, 2}, {1024, 1}, {2047, 1}, {2048, 2}, {0, 1}, {-7, 1}};
    for (const auto& c : cases) EXPECT_EQ(c[1], naTraceSizeMB(c[0])) << c[0] << " KB";
    const int32_t written[][2] = {{100, 1}, {3071, 2}};
    for (const auto& c : written) {
        endTrace();
        unlink(path_.c_str());
        ASSERT_EQ(RC_OK, initTrace(path_, "MIN", c[0]));
        std::string text = readFile(path_);
        EXPECT_EQ(std::to_string(c[1]) + " ", text.substr(24, 2)) << c[0] << " KB";
        EXPECT_THAT(text, HasSubstr("Tracefile maximum length set to " + std::to_string(c[1]) + " MB.\n"));
    }
}

TEST_F(AgentTraceTest, DebugModeChoosesTheRecords) {
    const struct {
        const char* mode;
        bool mid;
        bool max;
        bool enter;
    } cases[] = {{"MIN", false, false, false}, {"MID", true, false, false}, {"max", true, true, true}};
    for (const auto& c : cases) {
        endTrace();
        unlink(path_.c_str());
        ASSERT_EQ(RC_OK, initTrace(path_, c.mode, 1024));
        NA_TRACE_ENTER("probe()");
        NA_TRACE_MIN("min record\n");
        NA_TRACE_MID("mid record\n");
        NA_TRACE_MAX("max record\n");
        NA_TRACE_EXIT("Exit: %s, rc = %d\n", "probe()", 0);
        std::string text = readFile(path_);
        EXPECT_THAT(text, HasSubstr("min record")) << c.mode;
        EXPECT_EQ(c.mid, text.find("mid record") != std::string::npos) << c.mode;
        EXPECT_EQ(c.max, text.find("max record") != std::string::npos) << c.mode;
        EXPECT_EQ(c.enter, text.find("Enter: probe()\n") != std::string::npos) << c.mode;
        EXPECT_EQ(c.enter, text.find("Exit: probe(), rc = 0\n") != std::string::npos) << c.mode;
    }
}

TEST_F(AgentTraceTest, RecordsCarryProcessAndThreadAndAnotherThreadGetsABanner) {
    ASSERT_EQ(RC_OK, initTrace(path_, "MIN", 1024));
    int line = __LINE__ + 1;
    NA_TRACE_MIN("main says %s\n", NA_STR(""));
    std::thread([] { NA_TRACE_MIN("worker says hi\n"); }).join();
    endTrace();
    std::string text = readFile(path_);
    std::string me = std::to_string(getpid());
    EXPECT_THAT(text, MatchesRegex("(.|\n)*\n[-0-9]{10} [:0-9]{8}\\.[0-9]{3} \\[0*" + me + "\\] \\[[0-9]+\\] : .*"
                                   "AgentTraceTest\\.cpp\\( *" + std::to_string(line) + "\\): main says <NULL>\n(.|\n)*"));
    EXPECT_THAT(text, HasSubstr("\n" + std::string(29, ' ') + "New thread" + std::string(9, ' ') + "0================>\n"));
    EXPECT_THAT(text, HasSubstr("worker says hi\n"));
    EXPECT_EQ(text.size() - 22, recordedOffset(text));
    EXPECT_EQ("\nEND OF DATA - close\n\n", text.substr(text.size() - 22));
}

TEST_F(AgentTraceTest, LongArgumentsAreCutToTheirFirst4604Characters) {
    std::string longText = std::string(4604, 'a') + std::string(396, 'b');
    EXPECT_EQ(std::string(4604, 'a'), NA_STR(longText));
    EXPECT_EQ(5000u, longText.size());
    EXPECT_STREQ("<NULL>", NA_STR(static_cast<const char*>(nullptr)));
    EXPECT_EQ(std::string(4604, 'a'), naCutInPlace(longText));
    EXPECT_EQ(4604u, longText.size());
    std::string empty;
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
    EXPECT_EQ(RC_OK, initTrace(dir_.file("again.trace"), "MIN", 1024));
    EXPECT_EQ(1, trIsActive());
}

}  // namespace
