// The agent's command line, the numbered log files it selects and purges, and the job file.
#include "Common/CmdArgs.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <memory>
#include <tuple>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/JobFile.h"
#include "Common/LogUtil.h"
#include "Common/RunFiles.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

using ::testing::PrintToString;
using Words = std::vector<std::string>;

// A file of size bytes, age seconds old; sizes are set with truncate, so a file of
// gigabytes costs no disk space.
void makeFile(const std::string& path, int64_t size, time_t age) {
    testfiles::writeFile(path, "");
    ASSERT_EQ(0, truncate(path.c_str(), size));
    struct timeval times[2] = {{time(nullptr) - age, 0}, {time(nullptr) - age, 0}};
    ASSERT_EQ(0, utimes(path.c_str(), times));
}

class CmdArgsTest : public ::testing::Test {
protected:
    CmdArgsTest() { mkdir(logDir_.c_str(), 0755); }
    // A record of words after the program path, installed in the test's directory.
    CmdArgs& line(Words words) {
        words_ = std::move(words);
        words_.insert(words_.begin(), "/opt/ZOR/QLX/agent/bin/PathPlanner");
        argv_.clear();
        for (const std::string& word : words_) argv_.push_back(word.c_str());
        args_ = std::make_unique<CmdArgs>(static_cast<int32_t>(argv_.size()), argv_.data(), kParseModePathPlanner);
        args_->installDir = dir_.path();
        return *args_;
    }
    testfiles::TempDir dir_;
    std::string logDir_ = dir_.file("log");
    Words words_;
    std::vector<const char*> argv_;
    std::unique_ptr<CmdArgs> args_;
};

TEST_F(CmdArgsTest, PathPlannerLinesGiveTheirResult) {
    const std::string longWord = "-debug" + std::string(5000, 'd');
    const int32_t kMp = kCommandMultipath;
    const struct { Words words; int32_t rc, commandCode; std::string currentArg, errorText; } cases[] = {
        {{}, RC_OK, 0, "", ""},
        {{"-version", "-debug", "MIN"}, RC_OK, kCommandVersion, "-debug", ""},
        // The request is refused once "-version" led the line (the run still prints the version).
        {{"-version", "-multipath", "5"}, RC_BAD_ARGS, kCommandVersion, "-multipath", ""},
        // A word without "-" is the insert.
        {{"-multipath", "5", "stray"}, RC_BAD_ARGS, kMp, "stray", ""},
        {{"-installLoc", "/opt"}, RC_BAD_ARGS, kMp, "-installLoc", ""},
        {{longWord, "MIN"}, RC_BAD_ARGS, kMp, longWord, ""},
        {{"-debug", "verbose"}, RC_BAD_ARGS, kMp, "-debug", "Invalid debug mode"},
        {{"-maxnumlogs", "12abc"}, RC_BAD_ARGS, kMp, "-maxnumlogs", "Invalid maxNumLogs value"},
        {{"-maxlogsize", "2147483648"}, RC_BAD_ARGS, kMp, "-maxlogsize", "Invalid maxLogSize value"},
        // A value-taking option at the end of the line.
        {{"-multipath"}, RC_MISSING_VALUE, kMp, "-multipath", "Multipath options list is missing."},
        {{"-multipath", "5", "-maxnumlogs"}, RC_MISSING_VALUE, kMp, "-maxnumlogs", "maxNumLogs not specified"},
    };
    for (const auto& c : cases) {
        CmdArgs& args = line(c.words);
        int32_t rc = args.parse();
        EXPECT_EQ(std::make_tuple(c.rc, c.commandCode, c.currentArg, c.errorText),
                  std::make_tuple(rc, args.commandCode, args.currentArg, args.errorText)) << PrintToString(c.words);
    }
}

TEST_F(CmdArgsTest, OptionValuesAreStored) {
    CmdArgs& args = line({"-DEBUG", "mid", "-maxlogsize", "0", "-maxnumlogs", "4", "-multipath", "2;dev1", "-Multipath",
                          "\"dev2\""});
    ASSERT_EQ(RC_OK, args.parse());
    EXPECT_EQ("MID", args.debugMode);
    EXPECT_EQ(2, args.debugLevel);
    EXPECT_EQ(1024, args.maxLogSize);  // 0 stands for the default size
    EXPECT_EQ(4, args.maxNumLogs);
    EXPECT_EQ(kGivenMaxLogSize | kGivenMaxNumLogs, args.logLimitsGiven);
    // A repeated request appends its tokens; the raw value is the last one.
    EXPECT_EQ((Words{"2", "dev1", "dev2"}), args.multipathOptions);
    EXPECT_EQ("\"dev2\"", args.multipathValue);
}

TEST(SplitMultipathValueTest, TokensLoseTheirQuotes) {
    const std::pair<std::string, Words> cases[] = {
        {"5", {"5"}}, {"0;dev1;", {"0", "dev1", ""}}, {"\"3\";\"dev1\"", {"3", "dev1"}}, {"\"3;dev1\"", {"3", "dev1"}},
        {"\"\"", {""}}, {"\"\"x\"\"", {"\"x\""}}, {" 2 ; dev 1 ", {" 2 ", " dev 1 "}},
    };
    for (const auto& c : cases) {
        CmdArgs args(0, nullptr, kParseModePathPlanner);
        EXPECT_EQ(RC_OK, splitMultipathValue(c.first.c_str(), &args)) << c.first;
        EXPECT_EQ(c.second, args.multipathOptions) << c.first;
        EXPECT_EQ(c.first, args.multipathValue);
    }
}

// Settling the run's files names the log and trace and purges the old ones.
TEST_F(CmdArgsTest, LimitsSelectAndPurgeNumberedLogs) {
    const std::string old = "multipath_000004.log";  // 3 KB and ten days old; the others are small and new
    const Words series = {"multipath_000001.log", "multipath_000002.log", "multipath_000003.log", old,
                          "multipath_000005.log", "multipath_000001.trace"};
    const struct { Words files, words; std::string logFile, traceFile; Words removed; } cases[] = {
        {{}, {"-debug", "MAX", "-multipath", "5"}, "", "multipath.trace", {}},
        {{old}, {"-maxlogsize", "3", "-debug", "MIN"}, "multipath_000005.log", "multipath_000005.trace", {}},
        // Room for 4 with the coming 000006: 1 and 2 go by count, 4 by age.
        {series, {"-maxnumlogs", "9", "-maxnumruns", "4", "-maxnumdays", "5"}, "multipath_000006.log", "",
         {"multipath_000001.log", "multipath_000002.log", old}},
    };
    for (const auto& c : cases) {
        std::filesystem::remove_all(logDir_);
        mkdir(logDir_.c_str(), 0755);
        for (const std::string& file : c.files) {
            makeFile(logDir_ + "/" + file, file == old ? 3072 : 9, file == old ? 10 * 86400 : 0);
        }
        CmdArgs& args = line(c.words);
        ASSERT_EQ(RC_OK, args.parse()) << PrintToString(c.words);
        settleRunFiles(&args);
        EXPECT_EQ(c.logFile.empty() ? "" : logDir_ + "/" + c.logFile, args.logFileName) << PrintToString(c.words);
        EXPECT_EQ(c.traceFile.empty() ? "" : logDir_ + "/" + c.traceFile, args.traceFileName);
        for (const std::string& file : c.files) {
            bool removed = std::find(c.removed.begin(), c.removed.end(), file) != c.removed.end();
            EXPECT_NE(removed, testfiles::fileExists(logDir_ + "/" + file)) << file;
        }
    }
}

class LogUtilTest : public ::testing::Test {
protected:
    void clear() {
        for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) std::filesystem::remove(entry);
    }
    void make(const std::string& name, int64_t size = 0, time_t age = 0) { makeFile(dir_.file(name), size, age); }
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
    const std::vector<time_t> aged = {10 * day, 10 * day, 4 * day, 0};
    // Settings: aged-rule limit, plain limit, days, size, new log started. The count
    // with a new log's place and the age rule through the options are CmdArgsTest's.
    using Numbers = std::vector<int32_t>;
    const struct { std::vector<time_t> ages; bool useAge; LogPurgeSettings settings; Numbers kept, keys; } cases[] = {
        {aged, false, {3, 1, 5, 0, false}, {4}, {4}},
        // Age takes 1 and 2; the count rule (aged limit 3) then "deletes" 1 again,
        // so two files are left where the limit would allow three.
        {aged, true, {3, 1, 5, 0, false}, {3, 4}, {2, 3, 4}},
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

using testfiles::readFile;

class JobFileTest : public ::testing::Test {
protected:
    JobFileTest() { args_.jobName = "multipath"; }
    std::string create(int32_t jobRun, int32_t sidRun, bool scheduled = false) {
        args_.jobRunNumber = jobRun;
        args_.sidRunNumber = sidRun;
        args_.jobFileName = buildJobFileName(dir_.path(), args_.jobName, jobRun, sidRun);
        return createJobFile(dir_.path(), args_, scheduled);
    }
    testfiles::TempDir dir_;
    CmdArgs args_{0, nullptr, kParseModePathPlanner};
    const std::string header_ = "DO NOT EDIT THIS FILE MANUALLY\npid=" + std::to_string(getpid());
};

TEST_F(JobFileTest, NewFileHoldsHeaderPidAndStartTime) {
    args_.jobStartTime = 1234;
    EXPECT_EQ(dir_.file("multipath_1_7.jobinfo"), create(1, 7));
    EXPECT_EQ(header_ + " sched=false startTime=1234", readFile(dir_.file("multipath_1_7.jobinfo")));
    args_.jobStartTime = 99;
    EXPECT_EQ(header_ + " startTime=99", readFile(create(2, 7, true)));
    // An unset start time becomes now, in the file and in the record.
    args_.jobStartTime = -1;
    time_t before = time(nullptr);
    std::string jobFile = create(3, 4);
    EXPECT_GE(args_.jobStartTime, before);
    EXPECT_EQ(header_ + " sched=false startTime=" + std::to_string(args_.jobStartTime), readFile(jobFile));
    // An existing file is left as it is.
    testfiles::writeFile(jobFile, "old content");
    EXPECT_EQ(jobFile, create(3, 4));
    EXPECT_EQ("old content", readFile(jobFile));
}

TEST_F(JobFileTest, MissingRunNumbersAreDrawnAndKept) {
    std::string first = createJobFile(dir_.path(), args_, false);
    EXPECT_EQ(buildJobFileName(dir_.path(), "multipath", args_.jobRunNumber, args_.sidRunNumber), first);
    EXPECT_EQ(first, args_.jobFileName);
    // A second job drawn in the same second must not take the first one's file.
    CmdArgs other(0, nullptr, kParseModePathPlanner);
    other.jobName = "multipath";
    std::string second = createJobFile(dir_.path(), other, false);
    EXPECT_NE("", second);
    EXPECT_NE(first, second);
}

TEST_F(JobFileTest, NoFileInUnusableDirectoryOrForAnImpossibleName) {
    // Both numbers given but no job-file name: drawing cannot change the one possible name.
    testfiles::writeFile(dir_.file("multipath_8_9.jobinfo"), "busy");
    args_.jobRunNumber = 8;
    args_.sidRunNumber = 9;
    EXPECT_EQ("", createJobFile(dir_.path(), args_, false));
    EXPECT_EQ("busy", readFile(dir_.file("multipath_8_9.jobinfo")));
    EXPECT_EQ("", createJobFile(dir_.file("missing"), args_, false));
    EXPECT_EQ("", create(0, 6));  // run number 0 is no job
    EXPECT_FALSE(testfiles::fileExists(args_.jobFileName));
}

// The run's end goes to the file it made; a file removed meanwhile is not made again.
TEST_F(JobFileTest, UpdateAppendsEndFieldsToAnExistingFileOnly) {
    std::string jobFile = create(1, 1);
    std::string created = readFile(jobFile);
    updateJobFile(jobFile, 169);
    std::string text = readFile(jobFile);
    ASSERT_EQ(0u, text.find(created));
    EXPECT_TRUE(std::regex_match(text.substr(created.size()), std::regex(" endTime=[0-9]+ exitCode=169"))) << text;
    unlink(jobFile.c_str());
    updateJobFile(jobFile, 0);
    EXPECT_FALSE(testfiles::fileExists(jobFile));
    updateJobFile("", 0);
}

}  // namespace
