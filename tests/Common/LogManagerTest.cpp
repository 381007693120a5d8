#include "Common/LogManager.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include <algorithm>
#include <regex>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/logutils.h"
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

std::string payload(int writer, int n) {
    return "w" + std::to_string(writer) + " n" + std::to_string(n) + " " + std::string(n % 7 ? 20 + n % 90 : 3000, 'x');
}

// Messages of many lengths, half with their own newline: each must become exactly one line.
void writeMany(LogManager* log, int writer, int count) {
    for (int n = 0; n < count; ++n) log->LogActivityLog((payload(writer, n) + (n % 2 ? "\n" : "")).c_str());
}

// Every message exactly once on a line of its own, none cut or merged.
void expectAllLines(std::vector<std::string> lines, int writers, int perWriter) {
    std::vector<std::string> expected;
    for (int w = 0; w < writers; ++w) {
        for (int n = 0; n < perWriter; ++n) expected.push_back(payload(w, n));
    }
    std::sort(lines.begin(), lines.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected.size(), lines.size());
    EXPECT_TRUE(expected == lines);
}

TEST_F(LogManagerTest, LineCarriesStampAndOneNewline) {
    const std::pair<const char*, std::string> cases[] = {
        {"AGT0429I PathPlanner started", "AGT0429I PathPlanner started\n"}, {"AGT0430I done\n", "AGT0430I done\n"},
        {"first\nsecond", "first\nsecond\n"}, {"", "\n"}, {nullptr, "\n"}};
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
    ASSERT_EQ(0, mkdir(dir_.file("directory").c_str(), 0755));
    log.setLogName(dir_.file("directory"));
    EXPECT_EQ(RC_LOG_OPEN_FAILED, log.LogActivityLog("lost"));
    log.setLogName(dir_.file("multipath_000002.log"));
    ASSERT_EQ(RC_OK, log.LogActivityLog("three"));
    EXPECT_EQ((std::vector<std::string>{"one", "two"}), messages(log_));
    EXPECT_EQ(std::vector<std::string>{"three"}, messages(dir_.file("multipath_000002.log")));
}

TEST_F(LogManagerTest, WrappingLogAtThePathBecomesPlain) {
    LogFile wrap;
    utSetLogSettings(&wrap, 4000, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
    ASSERT_EQ(0, utWrapFile(&wrap, log_.c_str(), 1));
    ASSERT_EQ(0, utLogWrite(&wrap, "2024-03-15 10:00:00.000 old entry\n", 34));
    utCloseLog(&wrap);
    ASSERT_EQ(RC_OK, LogManager(log_).LogActivityLog("new entry"));
    EXPECT_EQ((std::vector<std::string>{"old entry", "new entry"}), messages(log_));
}

TEST_F(LogManagerTest, ProcessesNeverInterleaveOrLoseLines) {
    pid_t pid = fork();
    if (pid == 0) {
        LogManager child(log_);
        writeMany(&child, 1, 1000);
        _exit(0);
    }
    LogManager log(log_);
    writeMany(&log, 0, 1000);
    ASSERT_EQ(0, testfiles::exitCodeOf(pid));
    expectAllLines(messages(log_), 2, 1000);
}

}  // namespace
