#include "Common/LogManager.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/logutils.h"

namespace fs = std::filesystem;

namespace {

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

const std::regex kStamp(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} )");

class LogManagerTest : public ::testing::Test {
protected:
    LogManagerTest() {
        char tmpl[] = "/tmp/logmgrXXXXXX";
        dir_ = mkdtemp(tmpl);
        log_ = dir_ + "/multipath.log";
    }
    ~LogManagerTest() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }
    std::string dir_;
    std::string log_;
};

// Every line "<stamp>w<writer> n<number> <padding>" exactly once, none cut or merged.
void expectAllLines(const std::string& text, int writers, int perWriter) {
    std::set<std::pair<int, int>> seen;
    const std::regex line(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} w(\d+) n(\d+) x*$)");
    for (const std::string& l : linesOf(text)) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(l, m, line)) << l.substr(0, 80);
        EXPECT_TRUE(seen.insert({std::stoi(m[1]), std::stoi(m[2])}).second) << l.substr(0, 80);
    }
    EXPECT_EQ(static_cast<size_t>(writers * perWriter), seen.size());
}

std::string payload(int writer, int number) {
    std::string text = "w" + std::to_string(writer) + " n" + std::to_string(number) + " ";
    text.append(static_cast<size_t>(number % 7 == 0 ? 3000 : 20 + number % 90), 'x');
    // Half the messages carry their own newline: both kinds must end up as one line.
    return number % 2 ? text + "\n" : text;
}

void writeMany(LogManager* log, int writer, int count) {
    for (int n = 0; n < count; ++n) log->LogActivityLog(payload(writer, n).c_str());
}

TEST_F(LogManagerTest, LineCarriesStampAndOneNewline) {
    struct {
        const char* message;
        const char* written;
    } cases[] = {{"AGT0429I PathPlanner started", "AGT0429I PathPlanner started\n"},
                 {"AGT0430I done\n", "AGT0430I done\n"},
                 {"first\nsecond", "first\nsecond\n"},
                 {"blank after\n\n", "blank after\n\n"},
                 {"", "\n"},
                 {nullptr, "\n"}};
    LogManager log(log_);
    for (const auto& c : cases) {
        fs::remove(log_);
        ASSERT_EQ(RC_OK, log.LogActivityLog(c.message));
        std::string text = readFile(log_);
        std::smatch m;
        ASSERT_TRUE(std::regex_search(text, m, kStamp)) << text;
        EXPECT_EQ(c.written, text.substr(m.length(0))) << (c.message ? c.message : "<null>");
    }
}

TEST_F(LogManagerTest, AppendsAndFollowsRename) {
    LogManager log(log_);
    ASSERT_EQ(RC_OK, log.LogActivityLog("one"));
    ASSERT_EQ(RC_OK, log.LogActivityLog("two"));
    std::string second = dir_ + "/multipath_000002.log";
    log.setLogName(second);
    ASSERT_EQ(RC_OK, log.LogActivityLog("three"));
    EXPECT_EQ(second, log.logName());
    std::vector<std::string> first = linesOf(readFile(log_));
    ASSERT_EQ(2u, first.size());
    EXPECT_EQ("one", first[0].substr(24));
    EXPECT_EQ("two", first[1].substr(24));
    ASSERT_EQ(1u, linesOf(readFile(second)).size());
    EXPECT_EQ("three", linesOf(readFile(second))[0].substr(24));
}

TEST_F(LogManagerTest, EmptyNameWritesNothing) {
    LogManager log("");
    EXPECT_EQ(RC_LOG_NO_NAME, log.LogActivityLog("lost"));
    EXPECT_TRUE(fs::is_empty(dir_));
}

TEST_F(LogManagerTest, UnusableLogPathReturnsOpenFailedAndRecovers) {
    LogManager log(log_);
    ASSERT_EQ(RC_OK, log.LogActivityLog("before"));
    fs::remove(log_);
    fs::create_directory(log_);
    EXPECT_EQ(RC_LOG_OPEN_FAILED, log.LogActivityLog("lost"));
    EXPECT_TRUE(fs::is_empty(log_));
    log.setLogName(dir_ + "/missing/multipath.log");
    EXPECT_EQ(RC_LOG_OPEN_FAILED, log.LogActivityLog("lost"));
    EXPECT_FALSE(fs::exists(dir_ + "/missing"));
    fs::remove(log_);
    log.setLogName(log_);
    EXPECT_EQ(RC_OK, log.LogActivityLog("after"));
    std::vector<std::string> lines = linesOf(readFile(log_));
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("after", lines[0].substr(24));
}

TEST_F(LogManagerTest, ReadOnlyDirectoryReturnsOpenFailed) {
    ASSERT_EQ(0, chmod(dir_.c_str(), 0555));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // Root writes anywhere; drop to an unprivileged user for the attempt.
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(77);
        LogManager log(log_);
        _exit(log.LogActivityLog("lost") == RC_LOG_OPEN_FAILED && access(log_.c_str(), F_OK) != 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    chmod(dir_.c_str(), 0755);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "cannot drop privileges";
    EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST_F(LogManagerTest, WrappingLogAtThePathBecomesPlain) {
    LogFile wrap;
    utSetLogSettings(&wrap, 4000, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
    ASSERT_EQ(0, utWrapFile(&wrap, log_.c_str(), 1));
    ASSERT_EQ(0, utLogWrite(&wrap, "2024-03-15 10:00:00.000 old entry\n", 34));
    utCloseLog(&wrap);
    LogManager log(log_);
    ASSERT_EQ(RC_OK, log.LogActivityLog("new entry"));
    std::vector<std::string> lines = linesOf(readFile(log_));
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("2024-03-15 10:00:00.000 old entry", lines[0]);
    EXPECT_EQ("new entry", lines[1].substr(24));
}

TEST_F(LogManagerTest, ThreadsNeverInterleaveOrLoseLines) {
    constexpr int kThreads = 6;
    constexpr int kLines = 300;
    LogManager log(log_);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(writeMany, &log, t, kLines);
    for (std::thread& t : threads) t.join();
    expectAllLines(readFile(log_), kThreads, kLines);
}

TEST_F(LogManagerTest, ProcessesNeverInterleaveOrLoseLines) {
    constexpr int kLines = 1000;
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        LogManager child(log_);
        writeMany(&child, 1, kLines);
        _exit(0);
    }
    LogManager log(log_);
    writeMany(&log, 0, kLines);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    expectAllLines(readFile(log_), 2, kLines);
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
    char exact[20];
    LogManager::getTimeStamp(exact, sizeof(exact));
    EXPECT_TRUE(std::regex_match(exact, std::regex(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2})"))) << exact;
}

}  // namespace
