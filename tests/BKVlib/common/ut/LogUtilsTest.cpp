#include "BKVlib/common/ut/logutils.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/BKVlib/common/ut/TraceTestUtil.h"

namespace fs = std::filesystem;

namespace {

// A dated entry of exactly length bytes, newline included.
std::string entry(int number, size_t length = 40) {
    std::string text = "2024-03-15 12:00:00.000 entry " + std::to_string(number) + " ";
    text.resize(length - 1, 'x');
    return text + "\n";
}

// "Today" for the pruner: 2024-03-15 at noon, local time.
time_t fixedNoon() {
    struct tm noon = {};
    noon.tm_year = 124, noon.tm_mon = 2, noon.tm_mday = 15, noon.tm_hour = 12, noon.tm_isdst = -1;
    return mktime(&noon);
}

class LogFileTest : public ::testing::Test {
protected:
    void SetUp() override { utSetClock(fixedNoon); }
    void TearDown() override {
        utCloseLog(&log_);
        utSetClock(nullptr);
    }
    // Opens path_ as a log wrapping at maxBytes (0: plain) and writes entries to it.
    void writeLog(uint32_t maxBytes, int from, int count) {
        utSetLogSettings(&log_, maxBytes, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
        ASSERT_EQ(0, utWrapFile(&log_, path_.c_str(), 1));
        for (int i = from; i < from + count; ++i) ASSERT_EQ(0, utLogWrite(&log_, entry(i).data(), 40)) << i;
        utCloseLog(&log_);
    }
    // Converts path_ to a plain log; its lines must be consecutive entries ending with entry last - 1.
    void expectPlainWithNewest(int last) {
        writeLog(0, 0, 0);
        std::vector<std::string> lines = testfiles::splitLines(readFile(path_));
        ASSERT_GE(lines.size(), 5u);
        int first = last - static_cast<int>(lines.size());
        for (size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(entry(first + static_cast<int>(i)), lines[i] + "\n") << i;
        }
    }
    LogFile log_;
    testfiles::TempDir dir_;
    std::string path_ = dir_.file("test.log");
};

TEST(LogHeaderTest, ParsesWhatItFormatsAndRefusesBadNumbers) {
    const struct { const char* line; int present, valid; uint32_t nextWrite; } cases[] = {
        {"LOGHEADERREC 4294967295  4294967295 ", 1, 1, 4294967295u}, {"LOGHEADERREC 4294967296 400", 1, 0, 0},
        {"LOGHEADERREC83 400", 1, 0, 0}, {"2024-03-15 12:00:00.000 LOGHEADERREC 1 2", 0, 0, 0}};
    for (const auto& c : cases) {
        LogHeader h = utParseLogHeader(c.line, strlen(c.line));
        EXPECT_EQ(c.present * 10 + c.valid, h.present * 10 + h.valid) << c.line;
        EXPECT_EQ(c.nextWrite, c.valid ? h.nextWrite : 0) << c.line;
    }
    std::string header = utFormatLogHeader(83, 400);
    EXPECT_EQ("LOGHEADERREC 83          400        ZOR Quillon 5.2.8.0               ", header.substr(0, 70));
    EXPECT_EQ(400u, utParseLogHeader(header.data(), header.find('\n')).maxBytes);
}

TEST_F(LogFileTest, ParsesOnlyRealDates) {
    struct tm parsed;  // in the default setting, year first
    for (const char* bad : {"2024-13-01", "2023-02-29", "2024-04-31", "2024/02/09", "2024-2-9  ", "2024-02-0", ""}) {
        EXPECT_EQ(-1, utParseDate(bad, strlen(bad), &parsed)) << bad;
    }
    EXPECT_EQ(0, utParseDate("2024-02-29", 10, &parsed));
}

TEST_F(LogFileTest, PruneCutsLinesUpToFirstEntryYoungerThanRetention) {
    const struct { const char* name; uint32_t retention; std::string log, kept; } cases[] = {
        {"exactly at age is pruned", 3, "undated first\n2024-03-10 a\n2024-03-12 b\n2024-03-13 c\n2024-03-01 d\ntail\n",
         "2024-03-13 c\n2024-03-01 d\ntail\n"},
        {"no dated line prunes all", 30, "one\ntwo\n2024-13-01 bad date\n", ""},
        {"future date is kept", 2, "2023-01-01 a\n2025-01-01 b\n", "2025-01-01 b\n"},
        {"seven pruned bytes are not saved", 5, "abcdef\n2024-03-15 kept\n", "2024-03-15 kept\n"},
        {"kept forever", kLogKeepForever, "1999-01-01 ancient\n", "1999-01-01 ancient\n"},
    };
    for (const auto& c : cases) {
        writeFile(path_, c.log);
        fs::remove(dir_.file("saved.log"));
        FILE* stream = fopen(path_.c_str(), "a");
        EXPECT_EQ(0, utPruneLog(&log_, path_.c_str(), "/elsewhere/saved.log", &stream, c.retention)) << c.name;
        EXPECT_EQ(c.retention == kLogKeepForever, stream != nullptr) << c.name;  // the pruner closes what it prunes
        if (stream) fclose(stream);
        EXPECT_EQ(c.kept, readFile(path_)) << c.name;
        const std::string saved = c.log.substr(0, c.log.size() - c.kept.size());
        EXPECT_EQ(saved.size() >= 8 ? saved : "", readFile(dir_.file("saved.log"))) << c.name;
        EXPECT_FALSE(fs::exists(dir_.file("kfwprune.log"))) << c.name;
    }
    EXPECT_EQ(-1, utPruneLog(&log_, dir_.file("missing.log").c_str(), nullptr, nullptr, 5));
    EXPECT_EQ(ENOENT, log_.lastErrno);
}

TEST_F(LogFileTest, ConvertsPlainToWrappingAndBackKeepingEntries) {
    std::string plain;
    for (int i = 0; i < 5; ++i) plain += entry(i);
    writeFile(path_, plain);
    utSetLogSettings(&log_, 2000, "old.log", kLogKeepForever, kLogPruneDiscard, 0, 0);
    ASSERT_EQ(0, utWrapFile(&log_, path_.c_str(), 0));
    EXPECT_TRUE(fcntl(fileno(log_.stream), F_GETFD) & FD_CLOEXEC);
    utCloseLog(&log_);
    EXPECT_EQ(plain, readFile(dir_.file("old.log")));
    EXPECT_EQ(utFormatLogHeader(utFormatLogHeader(0, 2000).size(), 2000) + kLogEndMarker + "\n", readFile(path_));
    writeLog(2000, 5, 7);
    expectPlainWithNewest(12);
    EXPECT_EQ(7u, testfiles::splitLines(readFile(path_)).size());
    writeLog(3000, 0, 50);
    writeLog(600, 50, 20);  // a smaller maximum keeps the newest entries, and wraps
    EXPECT_EQ(600u, fs::file_size(path_));
    expectPlainWithNewest(70);
}

TEST_F(LogFileTest, DamagedHeaderOrUnopenablePathLeavesEverythingAsItWas) {
    // Garbage and an offset past the end; finding other damage safely is TraceReopenFuzz's.
    for (const char* text : {"LOGHEADERREC garbage\n\n2024-03-15 a\n", "LOGHEADERREC 99999       600\n\n2024-03-15 a\n"}) {
        for (uint32_t maxBytes : {0u, 600u}) {
            writeFile(path_, text);
            utSetLogSettings(&log_, maxBytes, "save.log", 5, kLogPruneSave, 0, 1);
            EXPECT_EQ(-1, utWrapFile(&log_, path_.c_str(), 1)) << text << maxBytes;
            EXPECT_EQ(EINVAL, log_.lastErrno);
            EXPECT_EQ(text, readFile(path_)) << maxBytes;
            EXPECT_FALSE(fs::exists(dir_.file("save.log")));
        }
    }
    for (const std::string& path : {dir_.path(), dir_.file("no/such/dir.log")}) {
        for (uint32_t maxBytes : {0u, 600u}) {
            utSetLogSettings(&log_, maxBytes, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
            EXPECT_EQ(-1, utWrapFile(&log_, path.c_str(), 1)) << path;
            EXPECT_EQ(-1, utLogWrite(&log_, "x\n", 2));
        }
    }
}

// A full file system during a conversion, on a tiny tmpfs in a private mount namespace.
struct FullCase {
    const char* name;
    uint32_t startBytes, maxBytes, retention;  // startBytes: the log's wrap size before; 0: plain
    int expectedRc;  // a failed prune does not stop the log from being opened
};

// Runs in the child: 0 when the log is byte for byte as before the failed step.
int runFullCase(const FullCase& c, const std::string& dir) {
    std::string path = dir + "/full.log", ballast = dir + "/ballast";
    LogFile log;
    utSetLogSettings(&log, c.startBytes, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
    if (utWrapFile(&log, path.c_str(), 1) != 0) return 3;
    utLogWrite(&log, "2020-01-01 old\n", 15);
    for (int i = 0; i < 380; ++i) utLogWrite(&log, entry(i, 100).c_str(), 100);
    utCloseLog(&log);
    std::string before = readFile(path);
    const std::string block(4096, 'b');
    for (std::ofstream out(ballast, std::ios::binary); out.write(block.data(), 4096) && out.flush();) {
    }
    fs::resize_file(ballast, fs::file_size(ballast) - 20000);  // room for a little, never for a copy of the log
    utSetLogSettings(&log, c.maxBytes, "old.log", c.retention, kLogPruneDiscard, 0, 1);
    int rc = utWrapFile(&log, path.c_str(), 1);
    utCloseLog(&log);
    if (rc != c.expectedRc || log.lastErrno != ENOSPC || before != readFile(path)) return 10;
    if (fs::exists(dir + "/old.log") && fs::file_size(dir + "/old.log") != 0) return 11;
    for (const auto& e : fs::directory_iterator(dir)) {
        if (e.path().filename().string().find("kfw") != std::string::npos) return 12;
    }
    return 0;
}

TEST_F(LogFileTest, FullFileSystemDuringConversionLeavesLogAsItWas) {
    const FullCase cases[] = {{"plain to wrapping", 0, 2000, kLogKeepForever, -1},
                              {"wrapping to plain", 40000, 0, kLogKeepForever, -1},
                              {"prune", 0, 0, 30, 0}};
    for (const FullCase& c : cases) {
        std::string dir = dir_.file("tmpfs");
        fs::create_directories(dir);
        int rc = runInChild([&] { return runFullCase(c, dir); }, dir, "size=128k");
        if (rc == 77) GTEST_SKIP() << "private mount namespace with tmpfs refused (needs root)";
        EXPECT_EQ(0, rc) << c.name;
    }
}

}  // namespace
