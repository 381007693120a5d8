#include "BKVlib/common/ut/logutils.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// A dated entry of exactly length bytes, newline included.
std::string entry(int number, size_t length = 40) {
    std::string text = "2024-03-15 12:00:00.000 entry " + std::to_string(number) + " ";
    text.resize(length - 1, 'x');
    return text + "\n";
}

class TempDir {
public:
    TempDir() {
        char tmpl[] = "/tmp/logutilsXXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// "Today" for the pruner: 2024-03-15 at noon, local time.
time_t fixedNoon() {
    struct tm noon = {};
    noon.tm_year = 124;
    noon.tm_mon = 2;
    noon.tm_mday = 15;
    noon.tm_hour = 12;
    noon.tm_isdst = -1;
    return mktime(&noon);
}

class LogFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        utSetDateFormat(3);
        utSetTimeFormat(1);
        utSetClock(fixedNoon);
    }
    void TearDown() override {
        utCloseLog(&log_);
        utSetClock(nullptr);
        utSetDateFormat(3);
        utSetTimeFormat(1);
    }
    // Opens path as a wrapping log of maxBytes and writes entries to it.
    void writeWrapping(const std::string& path, uint32_t maxBytes, int from, int count, size_t length = 40) {
        utSetLogSettings(&log_, maxBytes, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
        ASSERT_EQ(0, utWrapFile(&log_, path.c_str(), 1));
        for (int i = from; i < from + count; ++i) {
            std::string text = entry(i, length);
            ASSERT_EQ(0, utLogWrite(&log_, text.data(), text.size())) << i;
        }
        utCloseLog(&log_);
    }
    LogFile log_;
    TempDir dir_;
};

std::string endLine() {
    return std::string(kLogEndMarker) + "\n";
}

// ---------------------------------------------------------------------------------

TEST(LogHeaderTest, ParsesHeaderLines) {
    struct Case {
        const char* line;
        int present, valid, hasMax;
        uint32_t nextWrite, maxBytes;
    } cases[] = {
        {"LOGHEADERREC 83          400        ZOR Quillon 5.2.8.0               Jan 01 2024", 1, 1, 1, 83, 400},
        {"LOGHEADERREC 4294967295  4294967295 ", 1, 1, 1, 4294967295u, 4294967295u},
        {"LOGHEADERREC 83", 1, 1, 0, 83, 0},
        {"LOGHEADERREC ", 1, 0, 0, 0, 0},
        {"LOGHEADERREC -5 400", 1, 0, 0, 0, 0},
        {"LOGHEADERREC 4294967296 400", 1, 0, 0, 0, 0},
        {"LOGHEADERREC83 400", 1, 0, 0, 0, 0},
        {"2024-03-15 12:00:00.000 LOGHEADERREC 1 2", 0, 0, 0, 0, 0},
        {"", 0, 0, 0, 0, 0},
    };
    for (const Case& c : cases) {
        LogHeader h = utParseLogHeader(c.line, strlen(c.line));
        EXPECT_EQ(c.present, h.present) << c.line;
        EXPECT_EQ(c.valid, h.valid) << c.line;
        EXPECT_EQ(c.hasMax, h.hasMax) << c.line;
        EXPECT_EQ(c.valid ? c.nextWrite : 0, h.valid ? h.nextWrite : 0) << c.line;
        EXPECT_EQ(c.hasMax ? c.maxBytes : 0, h.hasMax ? h.maxBytes : 0) << c.line;
    }
}

TEST(LogHeaderTest, FormatsFixedByteLayout) {
    std::string header = utFormatLogHeader(83, 400);
    EXPECT_EQ("LOGHEADERREC ", header.substr(0, 13));
    EXPECT_EQ("83          ", header.substr(13, 12));
    EXPECT_EQ("400        ZOR Quillon 5.2.8.0               ", header.substr(25, 45));
    EXPECT_EQ(header.size() - 2, header.find('\n'));
    LogHeader parsed = utParseLogHeader(header.data(), header.find('\n'));
    EXPECT_EQ(83u, parsed.nextWrite);
    EXPECT_EQ(400u, parsed.maxBytes);
}

// ---------------------------------------------------------------------------------

class LogDateTest : public LogFileTest {};

TEST_F(LogDateTest, FormatsEachSetting) {
    struct tm when = {};
    when.tm_year = 124;
    when.tm_mon = 1;
    when.tm_mday = 9;
    when.tm_hour = 14;
    when.tm_min = 5;
    when.tm_sec = 7;
    struct {
        int32_t setting;
        const char* text;
        char separator;
    } dates[] = {{1, "02/09/2024", '/'}, {2, "09-02-2024", '-'}, {3, "2024-02-09", '-'},
                 {4, "09.02.2024", '.'}, {5, "2024.02.09", '.'}, {6, "2024.02.09", '.'}, {-1, "2024.02.09", '.'}};
    char buf[64];
    for (const auto& d : dates) {
        utSetDateFormat(d.setting);
        EXPECT_EQ(strlen(d.text), utFormatDate(&when, buf, sizeof(buf))) << d.setting;
        EXPECT_STREQ(d.text, buf) << d.setting;
        EXPECT_EQ(d.separator, utDateSeparator()) << d.setting;
        struct tm parsed = {};
        ASSERT_EQ(0, utParseDate((std::string(buf) + " 14:05").c_str(), 10, &parsed)) << buf;
        EXPECT_EQ(0, utDaysBetween(&when, &parsed)) << buf;
    }
    struct {
        int32_t setting;
        int hour;
        const char* text;
        char separator;
    } times[] = {{1, 14, "14:05:07", ':'}, {2, 14, "14,05,07", ','},     {3, 14, "14.05.07", '.'},
                 {4, 14, "02:05:07PM", ':'}, {4, 9, "09:05:07AM", ':'}, {5, 9, "09:05:07AM", ':'}};
    for (const auto& t : times) {
        utSetTimeFormat(t.setting);
        when.tm_hour = t.hour;
        utFormatTime(&when, buf, sizeof(buf));
        EXPECT_STREQ(t.text, buf) << t.setting;
        EXPECT_EQ(t.separator, utTimeSeparator()) << t.setting;
    }
    EXPECT_EQ(0u, utFormatTime(&when, buf, 5));
    EXPECT_STREQ("", buf);
}

TEST_F(LogDateTest, LocaleFormatsUsableOnlyWithDateOrTimeDirectives) {
    struct {
        const char* format;
        bool date, time;
    } cases[] = {{"%m/%d/%y", true, false}, {"%d.%m.%Y", true, false}, {"%I:%M:%S %p", false, true},
                 {"%a %d %b", false, false}, {"%r", false, false},     {"%", false, false},
                 {"", false, false},         {"%Y-%m-%d %H", false, false}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.date, utDateFormatUsable(c.format)) << c.format;
        EXPECT_EQ(c.time, utTimeFormatUsable(c.format)) << c.format;
    }
    utSetDateFormat(0);
    EXPECT_TRUE(utDateFormatUsable(utDateFormat())) << utDateFormat();
    utSetTimeFormat(0);
    EXPECT_TRUE(utTimeFormatUsable(utTimeFormat())) << utTimeFormat();
}

TEST_F(LogDateTest, RejectsTextThatIsNoDate) {
    const char* bad[] = {"2024-13-01", "2023-02-29", "2024-04-31", "2024-00-10", "2024/02/09",
                         "2024-2-9  ", "abcdefghij", "2024-02-0",  ""};
    struct tm parsed;
    for (const char* text : bad) EXPECT_EQ(-1, utParseDate(text, strlen(text), &parsed)) << text;
    EXPECT_EQ(-1, utParseDate("2024-02-09", 9, &parsed));
    EXPECT_EQ(0, utParseDate("2024-02-29", 10, &parsed));
    utSetDateFormat(1);
    EXPECT_EQ(-1, utParseDate("2024-02-09", 10, &parsed));
    EXPECT_EQ(0, utParseDate("02/09/2024", 10, &parsed));
}

TEST_F(LogDateTest, CountsDaysAcrossMonthsYearsAndLeapDays) {
    struct {
        const char* from;
        const char* to;
        int64_t days;
    } cases[] = {{"2024-02-28", "2024-03-01", 2},  {"2023-02-28", "2023-03-01", 1},
                 {"2023-12-31", "2024-01-01", 1},  {"2024-01-01", "2023-12-31", -1},
                 {"2000-01-01", "2024-01-01", 8766}, {"1900-03-01", "1900-02-28", -1}};
    for (const auto& c : cases) {
        struct tm from = {}, to = {};
        ASSERT_EQ(0, utParseDate(c.from, 10, &from));
        ASSERT_EQ(0, utParseDate(c.to, 10, &to));
        EXPECT_EQ(c.days, utDaysBetween(&from, &to)) << c.from << " -> " << c.to;
    }
}

// ---------------------------------------------------------------------------------

class LogPruneTest : public LogFileTest {};

TEST_F(LogPruneTest, CutsLinesUpToFirstEntryYoungerThanRetention) {
    struct Case {
        const char* name;
        uint32_t retention;
        std::string log, kept, saved;
    } cases[] = {
        {"exactly at age is pruned", 3,
         "undated first\n2024-03-10 a\n2024-03-12 b\n2024-03-13 c\n2024-03-01 d\ntail\n",
         "2024-03-13 c\n2024-03-01 d\ntail\n", "undated first\n2024-03-10 a\n2024-03-12 b\n"},
        {"today is kept with retention 1", 1, "2024-03-14 a\n2024-03-15 b\n", "2024-03-15 b\n", "2024-03-14 a\n"},
        {"no dated line prunes all", 30, "one\ntwo\n2024-13-01 bad date\n", "", "one\ntwo\n2024-13-01 bad date\n"},
        {"future date is kept", 2, "2023-01-01 a\n2025-01-01 b\n", "2025-01-01 b\n", "2023-01-01 a\n"},
        {"retention 0 prunes up to today", 0, "2024-03-15 a\n2024-03-14 b\n", "", "2024-03-15 a\n2024-03-14 b\n"},
        {"short lines are pruned", 5, "short\n2024-03-1\n2024-03-15\n", "2024-03-15\n", "short\n2024-03-1\n"},
    };
    for (const Case& c : cases) {
        std::string path = dir_.file("prune.log");
        writeFile(path, c.log);
        fs::remove(dir_.file("saved.log"));
        FILE* stream = fopen(path.c_str(), "a");
        EXPECT_EQ(0, utPruneLog(&log_, path.c_str(), "/elsewhere/saved.log", &stream, c.retention)) << c.name;
        EXPECT_EQ(nullptr, stream) << c.name;
        EXPECT_EQ(c.kept, readFile(path)) << c.name;
        EXPECT_EQ(c.saved, readFile(dir_.file("saved.log"))) << c.name;
        EXPECT_FALSE(fs::exists(dir_.file("kfwprune.log"))) << c.name;
    }
    EXPECT_EQ(-1, utPruneLog(&log_, dir_.file("missing.log").c_str(), nullptr, nullptr, 5));
    EXPECT_EQ(ENOENT, log_.lastErrno);
}

TEST_F(LogPruneTest, KeepForeverNeverTouchesLog) {
    std::string path = dir_.file("keep.log");
    writeFile(path, "1999-01-01 ancient\nundated\n");
    struct stat before, after;
    ASSERT_EQ(0, stat(path.c_str(), &before));
    FILE* stream = fopen(path.c_str(), "a");
    EXPECT_EQ(0, utPruneLog(&log_, path.c_str(), "saved.log", &stream, kLogKeepForever));
    ASSERT_EQ(0, stat(path.c_str(), &after));
    EXPECT_NE(nullptr, stream);
    fclose(stream);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ("1999-01-01 ancient\nundated\n", readFile(path));
    EXPECT_FALSE(fs::exists(dir_.file("saved.log")));
}

TEST_F(LogPruneTest, DeletesSaveFileBelowEightBytes) {
    struct {
        std::string pruned;
        bool saveKept;
    } cases[] = {{"", false}, {"x\n", false}, {"abcdef\n", false}, {"abcdefg\n", true}};
    for (const auto& c : cases) {
        std::string path = dir_.file("small.log");
        writeFile(path, c.pruned + "2024-03-15 kept\n");
        fs::remove(dir_.file("saved.log"));
        EXPECT_EQ(0, utPruneLog(&log_, path.c_str(), "saved.log", nullptr, 5)) << c.pruned;
        EXPECT_EQ(c.saveKept, fs::exists(dir_.file("saved.log"))) << c.pruned.size();
        EXPECT_EQ("2024-03-15 kept\n", readFile(path));
    }
}

TEST_F(LogPruneTest, PlainLogIsPrunedWhenOpenedSavingOnlyInSaveMode) {
    for (char mode : {kLogPruneSave, kLogPruneDiscard}) {
        std::string path = dir_.file("plain.log");
        writeFile(path, "2024-01-01 old\n2024-03-14 new\n");
        fs::remove(dir_.file("pruned.log"));
        utSetLogSettings(&log_, 0, "pruned.log", 30, mode, 0, 0);
        ASSERT_EQ(0, utWrapFile(&log_, path.c_str(), 0));
        ASSERT_EQ(0, utLogWrite(&log_, "2024-03-15 more\n", 16));
        utCloseLog(&log_);
        EXPECT_EQ("2024-03-14 new\n2024-03-15 more\n", readFile(path)) << mode;
        EXPECT_EQ(mode == kLogPruneSave ? "2024-01-01 old\n" : "", readFile(dir_.file("pruned.log"))) << mode;
    }
}

// ---------------------------------------------------------------------------------

class LogWrapTest : public LogFileTest {};

TEST_F(LogWrapTest, ConvertsPlainToWrappingAndBackKeepingEntries) {
    std::string path = dir_.file("conv.log");
    std::string plain;
    for (int i = 0; i < 5; ++i) plain += entry(i);
    writeFile(path, plain);
    utSetLogSettings(&log_, 2000, "old.log", kLogKeepForever, kLogPruneDiscard, 0, 0);
    ASSERT_EQ(0, utWrapFile(&log_, path.c_str(), 0));
    EXPECT_EQ(1, log_.wrapping);
    utCloseLog(&log_);
    uint32_t headerSize = static_cast<uint32_t>(utFormatLogHeader(0, 2000).size());
    EXPECT_EQ(plain, readFile(dir_.file("old.log")));
    EXPECT_EQ(utFormatLogHeader(headerSize, 2000) + endLine(), readFile(path));

    writeWrapping(path, 2000, 5, 7);
    utSetLogSettings(&log_, 0, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 0);
    ASSERT_EQ(0, utWrapFile(&log_, path.c_str(), 0));
    EXPECT_EQ(0, log_.wrapping);
    ASSERT_EQ(0, utLogWrite(&log_, "last\n", 5));
    utCloseLog(&log_);
    std::string expected;
    for (int i = 5; i < 12; ++i) expected += entry(i);
    EXPECT_EQ(expected + "last\n", readFile(path));
}

TEST_F(LogWrapTest, WrappedLogConvertsToPlainInAgeOrder) {
    std::string path = dir_.file("aged.log");
    writeWrapping(path, 700, 0, 60, 37);
    EXPECT_EQ(700u, fs::file_size(path));
    utSetLogSettings(&log_, 0, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
    ASSERT_EQ(0, utWrapFile(&log_, path.c_str(), 1));
    utCloseLog(&log_);
    std::vector<std::string> lines = linesOf(readFile(path));
    ASSERT_GE(lines.size(), 10u);
    int first = 60 - static_cast<int>(lines.size());
    for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(entry(first + static_cast<int>(i), 37), lines[i] + "\n") << i;
}

TEST_F(LogWrapTest, EntryThatWouldCrossMaximumWrapsAndPadsToExactlyMaxBytes) {
    const uint32_t maxBytes = 1000;
    const uint32_t header = static_cast<uint32_t>(utFormatLogHeader(0, maxBytes).size());
    const uint32_t headerLine = header - 1;
    const uint32_t endLen = static_cast<uint32_t>(strlen(kLogEndMarker)) + 1;
    const uint32_t wrapLen = static_cast<uint32_t>(strlen(kLogWrapMarker)) + 1;
    const uint32_t fits = maxBytes - wrapLen - endLen - header;  // largest entry a fresh log takes
    struct {
        const char* name;
        uint32_t first, second;  // entry lengths; the second (if any) does not fit
    } cases[] = {{"marginal entry fits", fits, 40},
                 {"one byte more wraps at once", fits + 1, 0},
                 {"padding one line wider", fits - 39, 40},
                 {"wide padding", 300, fits - 299}};
    for (const auto& c : cases) {
        std::string path = dir_.file("wrap.log");
        fs::remove(path);
        utSetLogSettings(&log_, maxBytes, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
        ASSERT_EQ(0, utWrapFile(&log_, path.c_str(), 1));
        std::string first = entry(1, c.first);
        std::string second = c.second ? entry(2, c.second) : "";
        ASSERT_EQ(0, utLogWrite(&log_, first.data(), first.size()));
        if (c.second) {
            ASSERT_EQ(0, utLogWrite(&log_, second.data(), second.size()));
        }
        const std::string& newest = c.second ? second : first;
        EXPECT_EQ(headerLine + newest.size(), log_.nextWrite) << c.name;
        utCloseLog(&log_);
        std::string text = readFile(path);
        ASSERT_EQ(maxBytes, text.size()) << c.name;
        EXPECT_EQ(newest + endLine(), text.substr(headerLine, newest.size() + endLen)) << c.name;
        EXPECT_EQ("*\n", text.substr(maxBytes - 2)) << c.name;
        uint32_t wrapAt = header + c.first;
        if (c.second && headerLine + c.second + endLen <= wrapAt) {
            // The wrap marker stands where the last entry before the wrap ended.
            EXPECT_EQ(std::string(kLogWrapMarker) + "\n", text.substr(wrapAt, wrapLen)) << c.name;
            EXPECT_EQ(std::string(maxBytes - wrapAt - wrapLen - 2, ' ') + "*\n", text.substr(wrapAt + wrapLen)) << c.name;
        }
        LogHeader h = utParseLogHeader(text.data(), text.find('\n'));
        EXPECT_EQ(log_.nextWrite, h.nextWrite) << c.name;
    }
}

TEST_F(LogWrapTest, OversizedEntryIsWrittenWholeAndLaterWrapRestoresSize) {
    std::string path = dir_.file("huge.log");
    utSetLogSettings(&log_, 400, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
    ASSERT_EQ(0, utWrapFile(&log_, path.c_str(), 1));
    std::string huge = entry(0, 500);
    ASSERT_EQ(0, utLogWrite(&log_, huge.data(), huge.size()));
    EXPECT_NE(std::string::npos, readFile(path).find(huge));
    for (int i = 1; i <= 20; ++i) {
        std::string text = entry(i);
        ASSERT_EQ(0, utLogWrite(&log_, text.data(), text.size())) << i;
    }
    utCloseLog(&log_);
    EXPECT_EQ(400u, fs::file_size(path));
}

TEST_F(LogWrapTest, SmallerMaximumKeepsNewestEntries) {
    std::string path = dir_.file("shrink.log");
    writeWrapping(path, 3000, 0, 50);
    writeWrapping(path, 600, 50, 0);
    EXPECT_LE(fs::file_size(path), 600u);
    std::string text = readFile(path);
    EXPECT_EQ(600u, utParseLogHeader(text.data(), text.find('\n')).maxBytes);
    writeWrapping(path, 600, 50, 20);
    EXPECT_EQ(600u, fs::file_size(path));
    utSetLogSettings(&log_, 0, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
    ASSERT_EQ(0, utWrapFile(&log_, path.c_str(), 1));
    std::vector<std::string> lines = linesOf(readFile(path));
    ASSERT_FALSE(lines.empty());
    int first = 70 - static_cast<int>(lines.size());
    for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(entry(first + static_cast<int>(i)), lines[i] + "\n") << i;
}

TEST_F(LogWrapTest, LargerMaximumIsRecordedInPlace) {
    std::string path = dir_.file("grow.log");
    writeWrapping(path, 600, 0, 3);
    std::string before = readFile(path);
    writeWrapping(path, 900, 3, 0);
    std::string after = readFile(path);
    EXPECT_EQ("900       ", after.substr(25, 10));
    EXPECT_EQ(before.substr(0, 25), after.substr(0, 25));
    EXPECT_EQ(before.substr(35), after.substr(35));
}

TEST_F(LogWrapTest, DamagedHeaderLeavesLogAsItWas) {
    std::string header = utFormatLogHeader(0, 600);
    const char* bad[] = {"LOGHEADERREC garbage\n\n2024-03-15 a\n", "LOGHEADERREC 99999       600\n\n2024-03-15 a\n",
                         "LOGHEADERREC 3           600\n\n2024-03-15 a\n", "LOGHEADERREC -1\n\n",
                         "LOGHEADERREC"};
    for (const char* text : bad) {
        for (uint32_t maxBytes : {0u, 600u, 300u}) {
            std::string path = dir_.file("damaged.log");
            writeFile(path, text);
            utSetLogSettings(&log_, maxBytes, "save.log", 5, kLogPruneSave, 0, 1);
            EXPECT_EQ(-1, utWrapFile(&log_, path.c_str(), 1)) << text << maxBytes;
            EXPECT_EQ(EINVAL, log_.lastErrno);
            EXPECT_EQ(nullptr, log_.stream);
            EXPECT_EQ(text, readFile(path)) << maxBytes;
            EXPECT_FALSE(fs::exists(dir_.file("save.log")));
        }
    }
}

TEST_F(LogWrapTest, OpenFailuresLeaveNoStream) {
    fs::create_directory(dir_.file("adir"));
    const std::string paths[] = {dir_.file("adir"), dir_.file("no/such/dir.log"), ""};
    for (const std::string& path : paths) {
        for (uint32_t maxBytes : {0u, 600u}) {
            utSetLogSettings(&log_, maxBytes, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
            EXPECT_EQ(-1, utWrapFile(&log_, path.c_str(), 1)) << path;
            EXPECT_NE(0, log_.lastErrno) << path;
            EXPECT_EQ(nullptr, log_.stream);
            EXPECT_EQ(-1, utLogWrite(&log_, "x\n", 2));
        }
    }
    EXPECT_TRUE(fs::is_directory(dir_.file("adir")));
}

TEST_F(LogWrapTest, StreamsAreCloseOnExec) {
    for (uint32_t maxBytes : {0u, 600u}) {
        utSetLogSettings(&log_, maxBytes, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
        ASSERT_EQ(0, utWrapFile(&log_, dir_.file("exec.log").c_str(), 1));
        EXPECT_TRUE(fcntl(fileno(log_.stream), F_GETFD) & FD_CLOEXEC) << maxBytes;
        utCloseLog(&log_);
    }
}

TEST_F(LogWrapTest, RemoveIfEmptyOnlyRemovesFilesBelowTenBytes) {
    struct {
        std::string text;
        bool removed;
    } cases[] = {{"", true}, {"123456789", true}, {"1234567890", false}};
    for (const auto& c : cases) {
        std::string path = dir_.file("maybe.log");
        writeFile(path, c.text);
        EXPECT_EQ(0, utRemoveIfEmpty(path.c_str()));
        EXPECT_EQ(c.removed, !fs::exists(path)) << c.text.size();
    }
    fs::create_directory(dir_.file("emptydir"));
    EXPECT_EQ(0, utRemoveIfEmpty(dir_.file("emptydir").c_str()));
    EXPECT_TRUE(fs::exists(dir_.file("emptydir")));
}

// ---------------------------------------------------------------------------------
// A full file system during a conversion, on a tiny tmpfs in a private mount namespace.

struct FullCase {
    const char* name;
    uint32_t startBytes;  // the log's wrap size before; 0: plain
    uint32_t maxBytes, retention;
    int expectedRc;  // a failed prune does not stop the log from being opened
};

// Runs in the child: 0 when the log is byte for byte as before the failed step.
int runFullCase(const FullCase& c, const std::string& dir) {
    std::string path = dir + "/full.log";
    LogFile log;
    utSetLogSettings(&log, c.startBytes, nullptr, kLogKeepForever, kLogPruneDiscard, 0, 1);
    if (utWrapFile(&log, path.c_str(), 1) != 0) return 3;
    utLogWrite(&log, "2020-01-01 old\n", 15);
    for (int i = 0; i < 380; ++i) utLogWrite(&log, entry(i, 100).c_str(), 100);
    utCloseLog(&log);
    std::string before = readFile(path);
    std::ofstream ballast(dir + "/ballast", std::ios::binary);
    std::string block(4096, 'b');
    while (ballast.write(block.data(), static_cast<std::streamsize>(block.size())) && ballast.flush()) {
    }
    ballast.close();
    // Room for a little, never for a second copy of the log.
    fs::resize_file(dir + "/ballast", fs::file_size(dir + "/ballast") - 20000);
    utSetLogSettings(&log, c.maxBytes, "old.log", c.retention, kLogPruneDiscard, 0, 1);
    int rc = utWrapFile(&log, path.c_str(), 1);
    utCloseLog(&log);
    int result = rc == c.expectedRc && log.lastErrno == ENOSPC && before == readFile(path) ? 0 : 10;
    if (fs::exists(dir + "/old.log") && fs::file_size(dir + "/old.log") != 0) result = 11;
    for (const auto& e : fs::directory_iterator(dir)) {
        if (e.path().filename().string().find("kfw") != std::string::npos) result = 12;
    }
    return result;
}

TEST_F(LogFileTest, FullFileSystemDuringConversionLeavesLogAsItWas) {
    const FullCase cases[] = {{"plain to wrapping", 0, 2000, kLogKeepForever, -1},
                              {"wrapping to plain", 40000, 0, kLogKeepForever, -1},
                              {"prune", 0, 0, 30, 0}};
    for (const FullCase& c : cases) {
        std::string dir = dir_.file("tmpfs");
        fs::create_directories(dir);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=128k") != 0) {
                _exit(77);
            }
            _exit(runFullCase(c, dir));
        }
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        ASSERT_TRUE(WIFEXITED(status)) << c.name;
        if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "private mount namespace with tmpfs refused (needs root)";
        EXPECT_EQ(0, WEXITSTATUS(status)) << c.name;
    }
}

}  // namespace
