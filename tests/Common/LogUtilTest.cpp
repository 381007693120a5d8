#include "Common/LogUtil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <vector>

#include "gtest/gtest.h"

namespace {

struct LogFile {
    std::string name;
    int64_t size;
};

class LogUtilTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/logutilXXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir));
        dir_ = dir;
    }
    void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

    void clear() {
        std::system(("rm -rf '" + dir_ + "'/*").c_str());
    }
    // Sizes are set with truncate, so a file of gigabytes costs no disk space.
    void make(const LogFile& file, time_t age = 0) {
        std::string path = dir_ + "/" + file.name;
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0) << path;
        ASSERT_EQ(0, ftruncate(fd, file.size));
        close(fd);
        if (age != 0) {
            struct timeval times[2] = {{time(nullptr) - age, 0}, {time(nullptr) - age, 0}};
            ASSERT_EQ(0, utimes(path.c_str(), times));
        }
    }
    bool exists(const std::string& name) { return access((dir_ + "/" + name).c_str(), F_OK) == 0; }

    std::string dir_;
};

std::string names(const std::vector<LogFile>& files) {
    std::string text;
    for (const LogFile& file : files) text += file.name + " ";
    return text;
}

TEST_F(LogUtilTest, NextNameFollowsTheHighestNumber) {
    const struct {
        std::vector<LogFile> files;
        std::string next;
    } cases[] = {
        {{}, "multipath_000001.log"},
        {{{"multipath_000003.log", 0}, {"multipath_000007.log", 0}}, "multipath_000008.log"},
        {{{"multipath_00a009.log", 0}, {"multipath_000002.log", 0}}, "multipath_000003.log"},
        {{{"multipath_00a009.log", 0}}, "multipath_000001.log"},
        {{{"multipath_000009.log.old", 0}, {"multipath_000002.log", 0}}, "multipath_000003.log"},
        {{{"multipath_000009.trace", 0}, {"multipath_000009", 0}}, "multipath_000001.log"},
        {{{"multipath_000009.LOG", 0}, {"multipath.log", 0}, {"multipath_12.log", 0}}, "multipath_000001.log"},
        {{{"other_000009.log", 0}, {"multipat_000009.log", 0}}, "multipath_000001.log"},
        // The byte between prefix and number is not checked; digits run on past six.
        {{{"multipathX000004.log", 0}, {"multipath_0000123.log", 0}}, "multipath_000124.log"},
        {{{"multipath_000009.trace.log", 0}}, "multipath_000010.log"},
        {{{"multipath_999999.log", 0}}, "multipath_1000000.log"},
        // A number with no successor is not taken as a run number.
        {{{"multipath_2147483646.log", 0}}, "multipath_2147483647.log"},
        {{{"multipath_2147483647.log", 0}}, "multipath_000001.log"},
        {{{"multipath_99999999999999999999.log", 0}}, "multipath_000001.log"},
    };
    for (const auto& c : cases) {
        clear();
        for (const LogFile& file : c.files) make(file);
        LogPurgeSettings settings;
        EXPECT_EQ(c.next, getNextLogName(settings, dir_, "multipath", ".log", false)) << names(c.files);
        EXPECT_TRUE(settings.newLogStarted) << names(c.files);
    }
}

TEST_F(LogUtilTest, SizeLimitDecidesWhetherTheLastFileGoesOn) {
    const int64_t fourGB = int64_t{4} << 30;
    const struct {
        const char* label;
        int64_t size;
        int32_t maxSizeKB;
        std::string next;
    } cases[] = {
        {"empty", 0, 4, "multipath_000005.log"},
        {"exactly 1 KB of room", 3072, 4, "multipath_000005.log"},
        {"1 KB and a byte of room", 3071, 4, "multipath_000005.log"},
        {"one byte short of 1 KB", 3073, 4, "multipath_000006.log"},
        {"full", 4096, 4, "multipath_000006.log"},
        {"over the limit", 9000, 4, "multipath_000006.log"},
        {"no limit at all", 0, 0, "multipath_000006.log"},
        // Only the low 32 bits of the size count: 4 GB and 100 bytes looks like 100 bytes.
        {"4 GB wraps", fourGB + 100, 4, "multipath_000005.log"},
        // A limit of 2 GB and more is negative in 32 bits: even an empty file is "full".
        {"3 GB limit wraps", 0, 3000000, "multipath_000006.log"},
    };
    for (const auto& c : cases) {
        clear();
        make({"multipath_000002.log", 0});
        make({"multipath_000005.log", c.size});
        LogPurgeSettings settings;
        settings.maxSize = c.maxSizeKB;
        EXPECT_EQ(c.next, getNextLogName(settings, dir_, "multipath", ".log", true)) << c.label;
        EXPECT_EQ(c.next != "multipath_000005.log", settings.newLogStarted) << c.label;
    }
}

TEST_F(LogUtilTest, UnreadableSizeOrDirectoryStartsANewFile) {
    ASSERT_EQ(0, symlink((dir_ + "/gone").c_str(), (dir_ + "/multipath_000003.log").c_str()));
    LogPurgeSettings settings;
    settings.maxSize = 1024;
    EXPECT_EQ("multipath_000004.log", getNextLogName(settings, dir_, "multipath", ".log", true));
    EXPECT_TRUE(settings.newLogStarted);
    LogPurgeSettings none;
    EXPECT_EQ("multipath_000001.log", getNextLogName(none, dir_ + "/none", "multipath", ".log", true));
    EXPECT_TRUE(none.newLogStarted);
}

TEST_F(LogUtilTest, JobFormMatchesNumberAfterJobNameAndComponentAfterUnderscore) {
    for (const char* name : {"probe-0007_disk.log", "probe-0012_disk", "probe-0009_tape.log", "probe-00x7_disk.log",
                             "other-0003_disk.log", "probe_0005_disk.log", "probe-0004"}) {
        make({name, 0});
    }
    std::map<int32_t, std::string> expected = {{7, dir_ + "/probe-0007_disk.log"}, {12, dir_ + "/probe-0012_disk"}};
    EXPECT_EQ(expected, getMatchingFilesMap(dir_, "probe", 3, "disk"));
    EXPECT_TRUE(getMatchingFilesMap(dir_ + "/none", "probe", 3, "disk").empty());
}

std::map<int32_t, std::string> runFiles(const std::string& dir, int32_t count) {
    std::map<int32_t, std::string> files;
    for (int32_t i = 1; i <= count; ++i) files[i] = dir + "/multipath_00000" + std::to_string(i) + ".log";
    return files;
}

TEST_F(LogUtilTest, CountRuleDeletesTheLowestNumbers) {
    const struct {
        int32_t files;
        int32_t limit;
        bool newLogStarted;
        std::vector<int32_t> kept;
    } cases[] = {
        {3, 2, true, {3}},
        {3, 2, false, {2, 3}},
        {3, 3, false, {1, 2, 3}},
        {3, 4, true, {1, 2, 3}},
        {3, 0, true, {}},
        {0, 0, true, {}},
    };
    for (const auto& c : cases) {
        clear();
        std::map<int32_t, std::string> files = runFiles(dir_, c.files);
        for (const auto& file : files) make({file.second.substr(dir_.size() + 1), 0});
        LogPurgeSettings settings;
        settings.countLimitPlain = c.limit;
        settings.countLimitAged = 100;
        settings.newLogStarted = c.newLogStarted;
        purgeLogFiles(settings, files, false);
        std::vector<int32_t> kept;
        for (int32_t i = 1; i <= c.files; ++i) {
            if (exists("multipath_00000" + std::to_string(i) + ".log")) kept.push_back(i);
        }
        EXPECT_EQ(c.kept, kept) << c.files << " files, limit " << c.limit;
        std::vector<int32_t> keys;
        for (const auto& file : files) keys.push_back(file.first);
        EXPECT_EQ(c.kept, keys) << c.files << " files, limit " << c.limit;
    }
}

TEST_F(LogUtilTest, AgeRuleDeletesOldFilesThatStillCount) {
    const struct {
        bool useAge;
        int32_t maxDays;
        std::vector<int32_t> kept;
        size_t mapSize;
    } cases[] = {
        // Age takes 1 and 2; the count rule (aged limit 3) then "deletes" 1 again,
        // so two files are left where the limit would allow three.
        {true, 5, {3, 4}, 3},
        {true, 11, {2, 3, 4}, 3},
        {true, 0, {2, 3, 4}, 3},
        {false, 5, {4}, 1},  // no age rule; the plain limit is 1
    };
    for (const auto& c : cases) {
        clear();
        const time_t ages[] = {10 * 86400, 10 * 86400, 4 * 86400, 0};
        std::map<int32_t, std::string> files = runFiles(dir_, 4);
        for (int32_t i = 1; i <= 4; ++i) make({"multipath_00000" + std::to_string(i) + ".log", 0}, ages[i - 1]);
        LogPurgeSettings settings;
        settings.countLimitAged = 3;
        settings.countLimitPlain = 1;
        settings.maxDays = c.maxDays;
        purgeLogFiles(settings, files, c.useAge);
        std::vector<int32_t> kept;
        for (int32_t i = 1; i <= 4; ++i) {
            if (exists("multipath_00000" + std::to_string(i) + ".log")) kept.push_back(i);
        }
        EXPECT_EQ(c.kept, kept) << c.useAge << " " << c.maxDays;
        EXPECT_EQ(c.mapSize, files.size()) << c.useAge << " " << c.maxDays;
    }
}

}  // namespace
