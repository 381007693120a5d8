#include "Common/LogManager.h"

#include <unistd.h>

#include <algorithm>
#include <regex>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

using testfiles::readFile;

const std::regex kStamp(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )");

class LogManagerTest : public ::testing::Test {
protected:
    // The messages of the log's lines, each line checked for its time stamp.
    std::vector<std::string> messages(const std::string& path) {
        std::vector<std::string> lines = testfiles::splitLines(readFile(path));
        for (std::string& line : lines) {
            EXPECT_TRUE(std::regex_search(line, kStamp)) << line;
            line.erase(0, 24);
        }
        return lines;
    }
    testfiles::TempDir dir_;
    std::string log_ = dir_.file("multipath.log");
};

TEST_F(LogManagerTest, LineCarriesStampAndOneNewline) {
    const std::pair<const char*, std::string> cases[] = {
        {"AGT0430I done\n", "AGT0430I done\n"}, {"first\nsecond", "first\nsecond\n"}, {nullptr, "\n"}};
    LogManager log(log_);
    for (const auto& c : cases) {
        unlink(log_.c_str());
        ASSERT_EQ(RC_OK, log.LogActivityLog(c.first));
        std::string text = readFile(log_);
        EXPECT_TRUE(std::regex_search(text, kStamp)) << text;
        EXPECT_EQ(c.second, text.substr(24)) << (c.first ? c.first : "<null>");
    }
}

TEST_F(LogManagerTest, AppendsFollowsRenameAndSurvivesUnusablePaths) {
    EXPECT_EQ(RC_LOG_NO_NAME, LogManager("").LogActivityLog("lost"));
    LogManager log(log_);
    ASSERT_EQ(RC_OK, log.LogActivityLog("one"));
    ASSERT_EQ(RC_OK, log.LogActivityLog("two"));
    log.setLogName(dir_.file("missing/multipath.log"));
    EXPECT_EQ(RC_LOG_OPEN_FAILED, log.LogActivityLog("lost"));
    EXPECT_FALSE(testfiles::fileExists(dir_.file("missing")));
    log.setLogName(dir_.file("multipath_000002.log"));
    ASSERT_EQ(RC_OK, log.LogActivityLog("three"));
    EXPECT_EQ((std::vector<std::string>{"one", "two"}), messages(log_));
    EXPECT_EQ(std::vector<std::string>{"three"}, messages(dir_.file("multipath_000002.log")));
}

// Messages of many lengths from two processes, half with their own newline: each
// must become exactly one line, none cut or merged.
TEST_F(LogManagerTest, ProcessesNeverInterleaveOrLoseLines) {
    auto payload = [](int writer, int n) {
        return "w" + std::to_string(writer) + " n" + std::to_string(n) + " " + std::string(n % 7 ? 20 + n % 90 : 3000, 'x');
    };
    auto writeMany = [&](int writer) {
        LogManager log(log_);
        for (int n = 0; n < 1000; ++n) log.LogActivityLog((payload(writer, n) + (n % 2 ? "\n" : "")).c_str());
    };
    pid_t pid = fork();
    if (pid == 0) {
        writeMany(1);
        _exit(0);
    }
    writeMany(0);
    ASSERT_EQ(0, testfiles::exitCodeOf(pid));
    std::vector<std::string> lines = messages(log_), expected;
    for (int n = 0; n < 2000; ++n) expected.push_back(payload(n / 1000, n % 1000));
    std::sort(lines.begin(), lines.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(expected == lines) << lines.size() << " lines";
}

}  // namespace
