#include "Common/LogManager.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/logutils.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

using testfiles::readFile;
using testfiles::splitLines;

const std::regex kStamp(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )");

class LogManagerTest : public ::testing::Test {
protected:
    // The messages of the log's lines, each line checked for its time stamp.
    std::vector<std::string> messages(const std::string& path) {
        std::vector<std::string> lines = splitLines(readFile(path));
        for (std::string& line : lines) {
            EXPECT_TRUE(std::regex_search(line, kStamp)) << line;
            line.erase(0, 24);
        }
        return lines;
    }
    testfiles::TempDir dir_;
    std::string log_ = dir_.file("multipath.log");
};

// Every line "w<writer> n<number> <padding>" exactly once, none cut or merged.
void writeMany(LogManager* log, int writer, int count) {
    for (int n = 0; n < count; ++n) {
        std::string text = "w" + std::to_string(writer) + " n" + std::to_string(n) + " ";
        text.append(static_cast<size_t>(n % 7 == 0 ? 3000 : 20 + n % 90), 'x');
        log->LogActivityLog((n % 2 ? text + "\n" : text).c_str());  // half carry their own newline
    }
}

void expectAllLines(const std::vector<std::string>& lines, int writers, int perWriter) {
    std::set<std::pair<int, int>> seen;
    const std::regex line(R"(w(\d+) n(\d+) x*)");
    for (const std::string& l : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(l, m, line)) << l.substr(0, 80);
        EXPECT_TRUE(seen.insert({std::stoi(m[1]), std::stoi(m[2])}).second) << l.substr(0, 80);
    }
    EXPECT_EQ(static_cast<size_t>(writers * perWriter), seen.size());
}

TEST_F(LogManagerTest, LineCarriesStampAndOneNewline) {
    const struct {
        const char* message;
        std::string written;
    } cases[] = {{"AGT0429I PathPlanner started", "AGT0429I PathPlanner started\n"},
                 {"AGT0430I done\n", "AGT0430I done\n"}, {"first\nsecond", "first\nsecond\n"},
                 {"blank after\n\n", "blank after\n\n"}, {"", "\n"}, {nullptr, "\n"}};
    LogManager log(log_);
    for (const auto& c : cases) {
        unlink(log_.c_str());
        ASSERT_EQ(RC_OK, log.LogActivityLog(c.message));
        std::string text = readFile(log_);
        EXPECT_TRUE(std::regex_search(text, kStamp)) << text;
        EXPECT_EQ(c.written, text.substr(24)) << (c.message ? c.message : "<null>");
    }
}

TEST_F(LogManagerTest, AppendsAndFollowsRename) {
    LogManager log(log_);
    ASSERT_EQ(RC_OK, log.LogActivityLog("one"));
    ASSERT_EQ(RC_OK, log.LogActivityLog("two"));
    log.setLogName(dir_.file("multipath_000002.log"));
    ASSERT_EQ(RC_OK, log.LogActivityLog("three"));
    EXPECT_EQ((std::vector<std::string>{"one", "two"}), messages(log_));
    EXPECT_EQ(std::vector<std::string>{"three"}, messages(dir_.file("multipath_000002.log")));
}

TEST_F(LogManagerTest, UnusableLogPathReturnsItsCodeAndRecovers) {
    EXPECT_EQ(RC_LOG_NO_NAME, LogManager("").LogActivityLog("lost"));
    LogManager log(log_);
    ASSERT_EQ(0, mkdir(log_.c_str(), 0755));
    EXPECT_EQ(RC_LOG_OPEN_FAILED, log.LogActivityLog("lost"));
    log.setLogName(dir_.file("missing/multipath.log"));
    EXPECT_EQ(RC_LOG_OPEN_FAILED, log.LogActivityLog("lost"));
    EXPECT_FALSE(testfiles::fileExists(dir_.file("missing")));
    rmdir(log_.c_str());
    log.setLogName(log_);
    EXPECT_EQ(RC_OK, log.LogActivityLog("after"));
    EXPECT_EQ(std::vector<std::string>{"after"}, messages(log_));
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

TEST_F(LogManagerTest, ThreadsNeverInterleaveOrLoseLines) {
    LogManager log(log_);
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) threads.emplace_back(writeMany, &log, t, 300);
    for (std::thread& t : threads) t.join();
    expectAllLines(messages(log_), 6, 300);
}

TEST_F(LogManagerTest, ProcessesNeverInterleaveOrLoseLines) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        LogManager child(log_);
        writeMany(&child, 1, 1000);
        _exit(0);
    }
    LogManager log(log_);
    writeMany(&log, 0, 1000);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    expectAllLines(messages(log_), 2, 1000);
}

TEST_F(LogManagerTest, CloseLogFileReportsFailedFlush) {
    EXPECT_EQ(RC_OK, LogManager::CloseLogFile(nullptr));
    FILE* fine = fopen(log_.c_str(), "w");
    ASSERT_NE(nullptr, fine);
    fputs("kept\n", fine);
    EXPECT_EQ(RC_OK, LogManager::CloseLogFile(fine));
    EXPECT_EQ("kept\n", readFile(log_));
    FILE* full = fopen("/dev/full", "w");
    ASSERT_NE(nullptr, full);
    fputs("lost\n", full);
    EXPECT_EQ(RC_LOG_CLOSE_FAILED, LogManager::CloseLogFile(full));
}

TEST_F(LogManagerTest, TimeStampNeedsTwentyBytes) {
    char small[19];
    memset(small, '#', sizeof(small));
    LogManager::getTimeStamp(small, sizeof(small));
    EXPECT_EQ(std::string(sizeof(small), '#'), std::string(small, sizeof(small)));
    LogManager::getTimeStamp(nullptr, 20);
}

}  // namespace
