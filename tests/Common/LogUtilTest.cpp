#include "Common/LogUtil.h"

#include <sys/time.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

class LogUtilTest : public ::testing::Test {
protected:
    void clear() {
        for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) std::filesystem::remove(entry);
    }
    // Sizes are set with truncate, so a file of gigabytes costs no disk space.
    void make(const std::string& name, int64_t size = 0, time_t age = 0) {
        std::string path = dir_.file(name);
        testfiles::writeFile(path, "");
        ASSERT_EQ(0, truncate(path.c_str(), size));
        struct timeval times[2] = {{time(nullptr) - age, 0}, {time(nullptr) - age, 0}};
        ASSERT_EQ(0, utimes(path.c_str(), times));
    }
    std::string next(LogPurgeSettings* settings, bool checkSize) {
        return getNextLogName(*settings, dir_.path(), "multipath", ".log", checkSize);
    }
    // Purges multipath_000001.log and on, aged as given; returns the numbers left on disk.
    std::vector<int32_t> purge(const LogPurgeSettings& settings, const std::vector<time_t>& ages, bool useAge,
                               std::vector<int32_t>* keys) {
        clear();
        std::map<int32_t, std::string> files;
        for (int32_t i = 1; i <= static_cast<int32_t>(ages.size()); ++i) {
            files[i] = dir_.file("multipath_00000" + std::to_string(i) + ".log");
            make(files[i].substr(dir_.path().size() + 1), 0, ages[i - 1]);
        }
        purgeLogFiles(settings, files, useAge);
        for (const auto& file : files) keys->push_back(file.first);
        std::vector<int32_t> kept;
        for (int32_t i = 1; i <= static_cast<int32_t>(ages.size()); ++i) {
            if (testfiles::fileExists(dir_.file("multipath_00000" + std::to_string(i) + ".log"))) kept.push_back(i);
        }
        return kept;
    }
    testfiles::TempDir dir_;
};

TEST_F(LogUtilTest, NextNameFollowsTheHighestNumber) {
    const struct {
        std::vector<std::string> files;
        std::string next;
    } cases[] = {
        {{}, "multipath_000001.log"},
        {{"multipath_000003.log", "multipath_000007.log"}, "multipath_000008.log"},
        {{"multipath_00a009.log", "multipath_000002.log"}, "multipath_000003.log"},
        {{"multipath_000009.log.old", "multipath_000002.log"}, "multipath_000003.log"},
        {{"multipath_000009.trace", "multipath_000009", "multipath_000009.LOG", "multipath.log", "multipath_12.log",
          "other_000009.log", "multipat_000009.log"}, "multipath_000001.log"},
        // The byte between prefix and number is not checked; digits run on past six.
        {{"multipathX000004.log", "multipath_0000123.log"}, "multipath_000124.log"},
        {{"multipath_000009.trace.log"}, "multipath_000010.log"},
        {{"multipath_999999.log"}, "multipath_1000000.log"},
        // A number with no successor is not taken as a run number.
        {{"multipath_2147483646.log"}, "multipath_2147483647.log"},
        {{"multipath_2147483647.log", "multipath_99999999999999999999.log"}, "multipath_000001.log"},
    };
    for (const auto& c : cases) {
        clear();
        for (const std::string& file : c.files) make(file);
        LogPurgeSettings settings;
        EXPECT_EQ(c.next, next(&settings, false)) << c.next;
        EXPECT_TRUE(settings.newLogStarted) << c.next;
    }
}

TEST_F(LogUtilTest, SizeLimitDecidesWhetherTheLastFileGoesOn) {
    const struct {
        const char* label;
        int64_t size;
        int32_t maxSizeKB;
        bool goesOn;
    } cases[] = {
        {"exactly 1 KB of room", 3072, 4, true},
        {"1 KB and a byte of room", 3071, 4, true},
        {"one byte short of 1 KB", 3073, 4, false},
        {"full", 4096, 4, false},
        {"no limit at all", 0, 0, false},
        // Only the low 32 bits of the size count: 4 GB and 100 bytes looks like 100 bytes.
        {"4 GB wraps", (int64_t{4} << 30) + 100, 4, true},
        // A limit of 2 GB and more is negative in 32 bits: even an empty file is "full".
        {"3 GB limit wraps", 0, 3000000, false},
    };
    for (const auto& c : cases) {
        clear();
        make("multipath_000002.log");
        make("multipath_000005.log", c.size);
        LogPurgeSettings settings;
        settings.maxSize = c.maxSizeKB;
        EXPECT_EQ(c.goesOn ? "multipath_000005.log" : "multipath_000006.log", next(&settings, true)) << c.label;
        EXPECT_EQ(!c.goesOn, settings.newLogStarted) << c.label;
    }
}

TEST_F(LogUtilTest, UnreadableSizeOrDirectoryStartsANewFile) {
    ASSERT_EQ(0, symlink(dir_.file("gone").c_str(), dir_.file("multipath_000003.log").c_str()));
    LogPurgeSettings settings;
    settings.maxSize = 1024;
    EXPECT_EQ("multipath_000004.log", next(&settings, true));
    EXPECT_TRUE(settings.newLogStarted);
    LogPurgeSettings none;
    EXPECT_EQ("multipath_000001.log", getNextLogName(none, dir_.file("none"), "multipath", ".log", true));
}

TEST_F(LogUtilTest, JobFormMatchesNumberAfterJobNameAndComponentAfterUnderscore) {
    for (const char* name : {"probe-0007_disk.log", "probe-0012_disk", "probe-0009_tape.log", "probe-00x7_disk.log",
                             "other-0003_disk.log", "probe_0005_disk.log", "probe-0004"}) {
        make(name);
    }
    std::map<int32_t, std::string> expected = {{7, dir_.file("probe-0007_disk.log")}, {12, dir_.file("probe-0012_disk")}};
    EXPECT_EQ(expected, getMatchingFilesMap(dir_.path(), "probe", 3, "disk"));
    EXPECT_TRUE(getMatchingFilesMap(dir_.file("none"), "probe", 3, "disk").empty());
}

TEST_F(LogUtilTest, CountRuleDeletesTheLowestNumbers) {
    const struct {
        int32_t files, limit;
        bool newLogStarted;
        std::vector<int32_t> kept;
    } cases[] = {
        {3, 2, true, {3}}, {3, 2, false, {2, 3}}, {3, 3, false, {1, 2, 3}}, {3, 4, true, {1, 2, 3}}, {3, 0, true, {}},
        {0, 0, true, {}},
    };
    for (const auto& c : cases) {
        LogPurgeSettings settings;
        settings.countLimitPlain = c.limit;
        settings.countLimitAged = 100;
        settings.newLogStarted = c.newLogStarted;
        std::vector<int32_t> keys;
        EXPECT_EQ(c.kept, purge(settings, std::vector<time_t>(c.files, 0), false, &keys)) << c.limit;
        EXPECT_EQ(c.kept, keys) << c.limit;
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
        LogPurgeSettings settings;
        settings.countLimitAged = 3;
        settings.countLimitPlain = 1;
        settings.maxDays = c.maxDays;
        std::vector<int32_t> keys;
        EXPECT_EQ(c.kept, purge(settings, {10 * 86400, 10 * 86400, 4 * 86400, 0}, c.useAge, &keys)) << c.maxDays;
        EXPECT_EQ(c.mapSize, keys.size()) << c.useAge << " " << c.maxDays;
    }
}

}  // namespace
