#include "Common/CmdArgs.h"

#include <sys/stat.h>
#include <sys/time.h>

#include <algorithm>
#include <memory>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/comutils.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

using testfiles::TempDir;

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += "[" + word + "]";
    return text;
}

class CmdArgsTest : public ::testing::Test {
protected:
    CmdArgsTest() { mkdir(logDir_.c_str(), 0755); }

    // A record of words after the program path, installed in the test's directory.
    CmdArgs& line(std::vector<std::string> words, uint32_t mode = kParseModePathPlanner) {
        words_ = std::move(words);
        words_.insert(words_.begin(), "/opt/ZOR/QLX/agent/bin/PathPlanner");
        argv_.clear();
        for (const std::string& word : words_) argv_.push_back(word.c_str());
        args_ = std::make_unique<CmdArgs>(static_cast<int32_t>(argv_.size()), argv_.data(), mode);
        args_->installDir = dir_.path();
        return *args_;
    }
    // A file of size bytes last changed age seconds ago.
    void makeLog(const std::string& name, size_t size, time_t age) {
        testfiles::writeFile(logDir_ + "/" + name, std::string(size, 'x'));
        struct timeval times[2] = {{time(nullptr) - age, 0}, {time(nullptr) - age, 0}};
        utimes((logDir_ + "/" + name).c_str(), times);
    }

    TempDir dir_;
    std::string logDir_ = dir_.file("log");
    std::vector<std::string> words_;
    std::vector<const char*> argv_;
    std::unique_ptr<CmdArgs> args_;
};

TEST_F(CmdArgsTest, PathPlannerLinesGiveTheirResult) {
    const std::string longWord(5000, 'd');
    const struct {
        std::vector<std::string> words;
        int32_t rc, commandCode;
        std::string currentArg, errorText;
    } cases[] = {
        {{}, RC_OK, 0, "", ""},
        {{"-version", "-debug", "MIN"}, RC_OK, kCommandVersion, "-debug", ""},
        {{"-MULTIPATH", "5"}, RC_OK, kCommandMultipath, "-MULTIPATH", ""},
        {{"-serverip", "10.1.1.1", "-servername", "srv", "-serverport", "9510", "-multipath", "5"},
         RC_OK, kCommandMultipath, "-multipath", ""},
        // The request is refused once "-version" led the line.
        {{"-version", "-multipath", "5"}, RC_BAD_ARGS, kCommandVersion, "-multipath", ""},
        // A word without "-" stops the parse and becomes the insert.
        {{"multipath", "5"}, RC_BAD_ARGS, kCommandMultipath, "multipath", ""},
        {{"-multipath", "5", "stray"}, RC_BAD_ARGS, kCommandMultipath, "stray", ""},
        {{""}, RC_BAD_ARGS, kCommandMultipath, "", ""},
        {{"-"}, RC_BAD_ARGS, kCommandMultipath, "-", ""},
        {{"-installLoc", "/opt"}, RC_BAD_ARGS, kCommandMultipath, "-installLoc", ""},
        {{"-debug" + longWord, "MIN"}, RC_BAD_ARGS, kCommandMultipath, "-debug" + longWord, ""},
        {{"-d\xc3\xa9" "bug", "MIN"}, RC_BAD_ARGS, kCommandMultipath, "-d\xc3\xa9" "bug", ""},
        {{"-debug", "verbose"}, RC_BAD_ARGS, kCommandMultipath, "-debug", "Invalid debug mode"},
        {{"-maxnumlogs", "12abc"}, RC_BAD_ARGS, kCommandMultipath, "-maxnumlogs", "Invalid maxNumLogs value"},
        {{"-maxnumlogs", "-5"}, RC_BAD_ARGS, kCommandMultipath, "-maxnumlogs", "Invalid maxNumLogs value"},
        {{"-maxlogsize", "2147483648"}, RC_BAD_ARGS, kCommandMultipath, "-maxlogsize", "Invalid maxLogSize value"},
        {{"-serverport", "65536"}, RC_BAD_ARGS, kCommandMultipath, "-serverport", "Invalid ServerPort value"},
        // A value-taking option at the end of the line.
        {{"-multipath"}, RC_MISSING_VALUE, kCommandMultipath, "-multipath", "Multipath options list is missing."},
        {{"-debug"}, RC_MISSING_VALUE, kCommandMultipath, "-debug", "Debug mode not specified"},
        {{"-maxlogsize"}, RC_MISSING_VALUE, kCommandMultipath, "-maxlogsize", "maxLogSize not specified"},
        {{"-multipath", "5", "-maxnumlogs"}, RC_MISSING_VALUE, kCommandMultipath, "-maxnumlogs",
         "maxNumLogs not specified"},
        {{"-maxnumdays"}, RC_MISSING_VALUE, kCommandMultipath, "-maxnumdays", "maxNumDays not specified"},
        {{"-serverport"}, RC_MISSING_VALUE, kCommandMultipath, "-serverport", "ServerPort not specified"},
        {{"-serverip"}, RC_MISSING_VALUE, kCommandMultipath, "-serverip", "ServerIP not specified"},
        {{"-version", "-servername"}, RC_MISSING_VALUE, kCommandVersion, "-servername", "ServerName not specified"},
    };
    for (const auto& c : cases) {
        CmdArgs& args = line(c.words);
        EXPECT_EQ(c.rc, args.parse()) << joined(c.words);
        EXPECT_EQ(c.commandCode, args.commandCode) << joined(c.words);
        EXPECT_EQ(c.currentArg, args.currentArg) << joined(c.words);
        EXPECT_EQ(c.errorText, args.errorText) << joined(c.words);
    }
}

TEST_F(CmdArgsTest, OptionValuesAreStored) {
    CmdArgs& args = line({"-DEBUG", "mid", "-ServerIP", "10.0.0.9", "-servername", "host a", "-serverport", "9510",
                          "-maxlogsize", "0", "-maxnumlogs", "4", "-multipath", "2;dev1", "-Multipath", "\"dev2\""});
    ASSERT_EQ(RC_OK, args.parse());
    EXPECT_EQ("MID", args.debugMode);
    EXPECT_EQ(2, args.debugLevel);
    EXPECT_EQ("10.0.0.9", args.serverIp);
    EXPECT_EQ("host a", args.serverName);
    EXPECT_EQ(9510, args.serverPort);
    EXPECT_EQ(1024, args.maxLogSize);  // 0 stands for the default size
    EXPECT_EQ(4, args.maxNumLogs);
    EXPECT_EQ(kGivenMaxLogSize | kGivenMaxNumLogs, args.logLimitsGiven);
    // A repeated request appends its tokens; the raw value is the last one.
    EXPECT_EQ((std::vector<std::string>{"2", "dev1", "dev2"}), args.multipathOptions);
    EXPECT_EQ("\"dev2\"", args.multipathValue);
    CmdArgs& cut = line({"-maxnumlogs", "3", "-maxnumlogs"});
    EXPECT_EQ(RC_MISSING_VALUE, cut.parse());
    EXPECT_EQ(-1, cut.maxNumLogs);
}

TEST(SplitMultipathValueTest, TokensLoseTheirQuotes) {
    const std::string longToken(5000, 'w');
    const struct {
        std::string value;
        std::vector<std::string> tokens;
    } cases[] = {
        {"5", {"5"}}, {"", {""}}, {"2;dev1", {"2", "dev1"}}, {"0;dev1;", {"0", "dev1", ""}}, {";", {"", ""}},
        {"\"3\";\"dev1\"", {"3", "dev1"}}, {"\"3;dev1\"", {"3", "dev1"}}, {"\"", {""}}, {"\"\"", {""}},
        {"\"\"x\"\"", {"\"x\""}}, {"a\"b", {"a\"b"}}, {" 2 ; dev 1 ", {" 2 ", " dev 1 "}},
        {"1;d\xc3\xa9v;\xff", {"1", "d\xc3\xa9v", "\xff"}}, {"5;" + longToken, {"5", longToken}},
    };
    for (const auto& c : cases) {
        CmdArgs args(0, nullptr, kParseModePathPlanner);
        EXPECT_EQ(RC_OK, splitMultipathValue(c.value.c_str(), &args)) << c.value;
        EXPECT_EQ(c.tokens, args.multipathOptions) << c.value;
        EXPECT_EQ(c.value, args.multipathValue);
    }
}

TEST_F(CmdArgsTest, AgentModesReadCommandAndGeneralOptions) {
    const struct {
        std::vector<std::string> words;
        uint32_t mode;
        int32_t rc, commandCode;
        std::string commandName;
    } cases[] = {
        {{"-pathPlanner", "-installLoc", "/x", "-multipath", "5;d"}, 0, RC_OK, 42, "PATHPLANNER"},
        {{"-COPYFILE", "a.txt", "-force", "-jobrunnumber", "12"}, 0, RC_OK, 1, "COPYFILE"},
        {{"-version", "-passphrase", "p", "-migration"}, 0, RC_OK, 30, "VERSION"},
        {{}, 0, RC_NO_COMMAND, 0, ""},
        {{"pathPlanner"}, 0, RC_NO_COMMAND, 0, ""},
        {{"-nosuchcommand"}, 0, RC_NO_COMMAND, 0, ""},
        {{"-ping", "host", "-nosuchoption"}, 0, RC_BAD_ARGS, 17, "PING"},
        {{"-ping", "host", "-jobrunnumber"}, 0, RC_MISSING_VALUE, 17, "PING"},
        // Modes above the path planner's parse nothing.
        {{"-multipath", "5", "-bogus"}, 15, RC_OK, 0, ""},
    };
    for (const auto& c : cases) {
        CmdArgs& args = line(c.words, c.mode);
        EXPECT_EQ(c.rc, args.parse()) << joined(c.words);
        EXPECT_EQ(c.commandCode, args.commandCode) << joined(c.words);
        EXPECT_EQ(c.commandName, args.commandName) << joined(c.words);
    }
    EXPECT_TRUE(args_->multipathOptions.empty());
    CmdArgs& args = line({"-pathPlanner", "-installLoc", "/x", "-JobRunNumber", "12", "-multipath", "5;d"}, 3);
    ASSERT_EQ(RC_OK, args.parse());
    EXPECT_EQ("/x", args.installLoc);
    EXPECT_EQ(12, args.jobRunNumber);
    EXPECT_EQ((std::vector<std::string>{"5", "d"}), args.multipathOptions);
}

TEST(CmdArgsTablesTest, EveryCommandKeywordSetsItsCode) {
    for (const KeywordRow* row = kCommandKeywords; row->keyword != nullptr; ++row) {
        std::string word = std::string("-") + row->keyword;
        const char* argv[] = {"prog", word.c_str(), "value"};
        CmdArgs args(row->takesValue ? 3 : 2, argv, 0);
        EXPECT_EQ(RC_OK, args.parse()) << row->keyword;
        EXPECT_EQ(row->id, args.commandCode) << row->keyword;
    }
}

TEST_F(CmdArgsTest, InstallDirectoryComesFromInstallLocFirst) {
    CmdArgs& args = line({"-multipath", "5"});
    args.installDir.clear();
    args.installLoc = dir_.path();
    EXPECT_EQ(RC_OK, args.parse());
    EXPECT_EQ(dir_.path(), args.installDir);
}

TEST_F(CmdArgsTest, UnknownInstallDirectoryGives59) {
    if (!getInstallLocation().empty()) GTEST_SKIP() << "this host has the agent installed";
    CmdArgs& args = line({"-multipath", "5"});
    args.installDir.clear();
    EXPECT_EQ(RC_NO_INSTALL_DIR, args.parse());
    EXPECT_EQ("Unable to determine install location\n", args.errorText);
    EXPECT_TRUE(args.jobName.empty());
    CmdArgs& bad = line({"-bogus"});
    bad.installDir.clear();
    EXPECT_EQ(RC_BAD_ARGS, bad.parse());  // a rejected line keeps its own result
}

TEST_F(CmdArgsTest, LimitsSelectAndPurgeNumberedLogs) {
    const time_t tenDays = 10 * 86400;
    const std::vector<std::pair<std::string, time_t>> series = {
        {"multipath_000001.log", 0}, {"multipath_000002.log", 0}, {"multipath_000003.log", 0},
        {"multipath_000004.log", tenDays}, {"multipath_000005.log", 0}, {"multipath_000001.trace", 0}};
    const std::vector<std::pair<std::string, time_t>> traces = {
        {"multipath_000001.trace", 0}, {"multipath_000002.trace", 0}, {"multipath_000003.trace", 0}};
    const struct {
        std::vector<std::pair<std::string, time_t>> files;
        std::vector<std::string> words;
        std::string logFile, traceFile;
        std::vector<std::string> removed;
    } cases[] = {
        {{}, {"-multipath", "5"}, "", "", {}},
        {{}, {"-debug", "MAX", "-multipath", "5"}, "", "multipath.trace", {}},
        // 1 KB of room left under 4 KB: the last file goes on.
        {{{"multipath_000004.log", 0}}, {"-maxlogsize", "4"}, "multipath_000004.log", "", {}},
        {{{"multipath_000004.log", 0}}, {"-maxlogsize", "3", "-debug", "MIN"}, "multipath_000005.log",
         "multipath_000005.trace", {}},
        // Room for 4 with the coming 000006: 1 and 2 go by count, 4 by age.
        {series, {"-maxnumlogs", "9", "-maxnumruns", "4", "-maxnumdays", "5"}, "multipath_000006.log", "",
         {"multipath_000001.log", "multipath_000002.log", "multipath_000004.log"}},
        // 0 is no limit; the trace series is purged like the logs.
        {traces, {"-maxnumlogs", "0", "-maxnumruns", "2"}, "multipath_000001.log", "",
         {"multipath_000001.trace", "multipath_000002.trace"}},
        {traces, {"-maxnumlogs", "0"}, "multipath_000001.log", "", {}},
    };
    for (const auto& c : cases) {
        std::filesystem::remove_all(logDir_);
        mkdir(logDir_.c_str(), 0755);
        for (const auto& file : c.files) makeLog(file.first, file.first == "multipath_000004.log" ? 3072 : 9, file.second);
        CmdArgs& args = line(c.words);
        ASSERT_EQ(RC_OK, args.parse()) << joined(c.words);
        EXPECT_EQ(c.logFile.empty() ? "" : logDir_ + "/" + c.logFile, args.logFileName) << joined(c.words);
        EXPECT_EQ(c.traceFile.empty() ? "" : logDir_ + "/" + c.traceFile, args.traceFileName) << joined(c.words);
        for (const auto& file : c.files) {
            bool removed = std::find(c.removed.begin(), c.removed.end(), file.first) != c.removed.end();
            EXPECT_EQ(!removed, testfiles::fileExists(logDir_ + "/" + file.first)) << file.first << joined(c.words);
        }
        EXPECT_EQ("multipath", args.jobName);
        EXPECT_EQ("", args.jobFileName);
    }
}

TEST_F(CmdArgsTest, KnownRunNumbersNameTheJobFile) {
    CmdArgs& args = line({"-multipath", "5"});
    args.jobRunNumber = 12;
    args.sidRunNumber = 34;
    ASSERT_EQ(RC_OK, args.parse());
    EXPECT_EQ(logDir_ + "/multipath_12_34.jobinfo", args.jobFileName);
}

}  // namespace
