#include "Common/CmdArgs.h"

#include <sys/stat.h>
#include <sys/time.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <tuple>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/RunFiles.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

using ::testing::PrintToString;
using Words = std::vector<std::string>;

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

// Parsing leaves the log directory alone; settling the run's files names and purges.
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
            testfiles::writeFile(logDir_ + "/" + file, std::string(file == old ? 3072 : 9, 'x'));
        }
        struct timeval tenDaysAgo[2] = {{time(nullptr) - 10 * 86400, 0}, {time(nullptr) - 10 * 86400, 0}};
        utimes((logDir_ + "/" + old).c_str(), tenDaysAgo);
        CmdArgs& args = line(c.words);
        ASSERT_EQ(RC_OK, args.parse()) << PrintToString(c.words);
        EXPECT_EQ("", args.logFileName + args.traceFileName);
        for (const std::string& file : c.files) EXPECT_TRUE(testfiles::fileExists(logDir_ + "/" + file)) << file;
        settleRunFiles(&args);
        EXPECT_EQ(c.logFile.empty() ? "" : logDir_ + "/" + c.logFile, args.logFileName) << PrintToString(c.words);
        EXPECT_EQ(c.traceFile.empty() ? "" : logDir_ + "/" + c.traceFile, args.traceFileName);
        for (const std::string& file : c.files) {
            bool removed = std::find(c.removed.begin(), c.removed.end(), file) != c.removed.end();
            EXPECT_NE(removed, testfiles::fileExists(logDir_ + "/" + file)) << file;
        }
    }
}

}  // namespace
