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

class LogFileTest : public ::testing::Test {
protected:
    void TearDown() override { utCloseLog(&log_); }
    // Opens path_ as a log wrapping at maxBytes (0: plain) and writes entries to it.
    void writeLog(uint32_t maxBytes, int from, int count) {
        utSetLogSettings(&log_, maxBytes, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
        ASSERT_EQ(0, utWrapFile(&log_, path_.c_str(), 1));
        EXPECT_TRUE(fcntl(fileno(log_.stream), F_GETFD) & FD_CLOEXEC);  // the tool's children never hold it
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

// The tool writes plain logs only; a wrapping log found in its place is converted.
TEST_F(LogFileTest, WrappingLogIsConvertedToPlainKeepingItsNewestEntries) {
    writeLog(2000, 0, 7);
    expectPlainWithNewest(7);
    EXPECT_EQ(7u, testfiles::splitLines(readFile(path_)).size());
    fs::remove(path_);
    writeLog(600, 0, 70);  // wrapped many times over
    EXPECT_EQ(600u, fs::file_size(path_));
    expectPlainWithNewest(70);
}

TEST_F(LogFileTest, DamagedHeaderOrUnopenablePathLeavesEverythingAsItWas) {
    // Garbage and an offset past the end; finding other damage safely is TraceReopenFuzz's.
    // Damage is found before any size matters, so the tool's plain settings stand for all.
    utSetLogSettings(&log_, 0, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
    for (const char* text : {"LOGHEADERREC garbage\n\n2024-03-15 a\n", "LOGHEADERREC 99999       600\n\n2024-03-15 a\n"}) {
        writeFile(path_, text);
        EXPECT_EQ(-1, utWrapFile(&log_, path_.c_str(), 1)) << text;
        EXPECT_EQ(EINVAL, log_.lastErrno);
        EXPECT_EQ(text, readFile(path_));
    }
    for (const std::string& path : {dir_.path(), dir_.file("no/such/dir.log")}) {
        EXPECT_EQ(-1, utWrapFile(&log_, path.c_str(), 1)) << path;
        EXPECT_EQ(-1, utLogWrite(&log_, "x\n", 2));
    }
}

// Runs in a child on a tiny tmpfs: 0 when converting a wrapping log the full file
// system cut short left the log byte for byte as it was, and no temporary file behind.
int convertOnFullDisk(const std::string& dir) {
    std::string path = dir + "/full.log", ballast = dir + "/ballast";
    LogFile log;
    utSetLogSettings(&log, 40000, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
    if (utWrapFile(&log, path.c_str(), 1) != 0) return 3;
    for (int i = 0; i < 380; ++i) utLogWrite(&log, entry(i, 100).c_str(), 100);
    utCloseLog(&log);
    std::string before = readFile(path);
    const std::string block(4096, 'b');
    for (std::ofstream out(ballast, std::ios::binary); out.write(block.data(), 4096) && out.flush();) {
    }
    fs::resize_file(ballast, fs::file_size(ballast) - 20000);  // room for a little, never for a copy of the log
    utSetLogSettings(&log, 0, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
    int rc = utWrapFile(&log, path.c_str(), 1);
    utCloseLog(&log);
    if (rc != -1 || log.lastErrno != ENOSPC || before != readFile(path)) return 10;
    for (const auto& e : fs::directory_iterator(dir)) {
        if (e.path().filename().string().find("kfw") != std::string::npos) return 12;
    }
    return 0;
}

TEST_F(LogFileTest, FullFileSystemDuringConversionLeavesLogAsItWas) {
    std::string dir = dir_.file("tmpfs");
    fs::create_directories(dir);
    int rc = runInChild([&] { return convertOnFullDisk(dir); }, dir, "size=128k");
    if (rc == 77) GTEST_SKIP() << "private mount namespace with tmpfs refused (needs root)";
    EXPECT_EQ(0, rc);
}

}  // namespace
