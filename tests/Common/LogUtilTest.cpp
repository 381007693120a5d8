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
    testfiles::TempDir dir_;
};

TEST_F(LogUtilTest, NextNameFollowsTheHighestNumber) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"multipath_000003.log", "multipath_000007.log", "multipath_000009.trace"}, "multipath_000008.log"},
        {{"multipath_00a009.log", "multipath_000009.log.old", "multipath_000002.log"}, "multipath_000003.log"},
        // A number with no successor is not taken as a run number.
        {{"multipath_2147483647.log", "multipath_99999999999999999999.log"}, "multipath_000001.log"},
    };
    for (const auto& c : cases) {
        clear();
        for (const std::string& file : c.first) make(file);
        LogPurgeSettings settings;
        EXPECT_EQ(c.second, next(&settings, false)) << c.second;
    }
}

TEST_F(LogUtilTest, SizeLimitDecidesWhetherTheLastFileGoesOn) {
    const struct { int64_t size; int32_t maxSizeKB; bool goesOn; } cases[] = {
        {3072, 4, true}, {3073, 4, false},  // 1 KB of room is enough
        {0, 0, false},                      // no limit at all
        {(int64_t{4} << 30) + 100, 4, true},  // only the low 32 bits count: 4 GB and 100 bytes looks like 100
    };
    for (const auto& c : cases) {
        clear();
        make("multipath_000002.log");
        make("multipath_000005.log", c.size);
        LogPurgeSettings settings;
        settings.maxSize = c.maxSizeKB;
        EXPECT_EQ(c.goesOn ? "multipath_000005.log" : "multipath_000006.log", next(&settings, true)) << c.size;
        EXPECT_EQ(!c.goesOn, settings.newLogStarted) << c.size << " bytes, " << c.maxSizeKB << " KB";
    }
}

TEST_F(LogUtilTest, PurgeKeepsTheNewestByCountAndDropsOldFilesByAge) {
    const time_t day = 86400;
    const std::vector<time_t> fresh(3, 0), aged = {10 * day, 10 * day, 4 * day, 0};
    // Settings: aged-rule limit, plain limit, days, size, new log started.
    using Numbers = std::vector<int32_t>;
    const struct { std::vector<time_t> ages; bool useAge; LogPurgeSettings settings; Numbers kept, keys; } cases[] = {
        {fresh, false, {100, 2, 0, 0, true}, {3}, {3}},  // a new log takes one of the places
        {fresh, false, {100, 2, 0, 0, false}, {2, 3}, {2, 3}},
        {fresh, false, {100, 0, 0, 0, true}, {}, {}},
        // Age takes 1 and 2; the count rule (aged limit 3) then "deletes" 1 again,
        // so two files are left where the limit would allow three.
        {aged, true, {3, 1, 5, 0, false}, {3, 4}, {2, 3, 4}},
        {aged, false, {3, 1, 5, 0, false}, {4}, {4}},
    };
    for (const auto& c : cases) {
        clear();
        std::map<int32_t, std::string> files, made;
        for (int32_t i = 1; i <= static_cast<int32_t>(c.ages.size()); ++i) {
            make("multipath_00000" + std::to_string(i) + ".log", 0, c.ages[i - 1]);
            files[i] = made[i] = dir_.file("multipath_00000" + std::to_string(i) + ".log");
        }
        purgeLogFiles(c.settings, files, c.useAge);
        Numbers kept, keys;
        for (const auto& file : made) if (testfiles::fileExists(file.second)) kept.push_back(file.first);
        for (const auto& file : files) keys.push_back(file.first);
        const LogPurgeSettings& s = c.settings;
        EXPECT_EQ(c.kept, kept) << c.ages.size() << " files, limit " << s.countLimitPlain << ", days " << s.maxDays;
        EXPECT_EQ(c.keys, keys) << c.ages.size() << " files, limit " << s.countLimitPlain << ", days " << s.maxDays;
    }
}

}  // namespace
