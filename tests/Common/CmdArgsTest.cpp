#include "Common/CmdArgs.h"

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/comutils.h"
#include "gtest/gtest.h"

namespace {

// Holds one command line; argv[0] is the program path, as the tool sees it.
class CommandLine {
public:
    explicit CommandLine(std::vector<std::string> words) : words_(std::move(words)) {
        words_.insert(words_.begin(), "/opt/ZOR/QLX/agent/bin/PathPlanner");
        for (const std::string& word : words_) argv_.push_back(word.c_str());
    }
    CmdArgs record(uint32_t mode = kParseModePathPlanner) const {
        return CmdArgs(static_cast<int32_t>(argv_.size()), argv_.data(), mode);
    }

private:
    std::vector<std::string> words_;
    std::vector<const char*> argv_;
};

struct LogFile {
    std::string name;
    size_t size;
    time_t age;  // seconds before now
};

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += "[" + word + "]";
    return text;
}

class CmdArgsTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/cmdargsXXXXXX";
        ASSERT_NE(nullptr, mkdtemp(dir));
        install_ = dir;
        logDir_ = install_ + "/log";
        ASSERT_EQ(0, mkdir(logDir_.c_str(), 0755));
    }
    void TearDown() override { std::system(("rm -rf '" + install_ + "'").c_str()); }

    // Parses in the path-planner mode with the test's installation directory.
    int32_t parse(const CommandLine& line, CmdArgs* args) {
        args->installDir = install_;
        return args->parse();
    }
    void makeLog(const LogFile& file) {
        std::string path = logDir_ + "/" + file.name;
        std::ofstream(path) << std::string(file.size, 'x');
        if (file.age != 0) {
            struct timeval times[2] = {{time(nullptr) - file.age, 0}, {time(nullptr) - file.age, 0}};
            ASSERT_EQ(0, utimes(path.c_str(), times));
        }
    }
    bool exists(const std::string& name) { return access((logDir_ + "/" + name).c_str(), F_OK) == 0; }

    std::string install_;
    std::string logDir_;
};

TEST_F(CmdArgsTest, PathPlannerLinesGiveTheirResult) {
    const std::string longWord(5000, 'd');
    struct Case {
        std::vector<std::string> words;
        int32_t rc;
        int32_t commandCode;
        std::string currentArg;
        std::string errorText;
    } cases[] = {
        {{}, RC_OK, 0, "", ""},
        {{"-version"}, RC_OK, kCommandVersion, "-version", ""},
        {{"-version", "-debug", "MIN"}, RC_OK, kCommandVersion, "-debug", ""},
        {{"-multipath", "5"}, RC_OK, kCommandMultipath, "-multipath", ""},
        {{"-MULTIPATH", "5"}, RC_OK, kCommandMultipath, "-MULTIPATH", ""},
        {{"-serverip", "10.1.1.1", "-servername", "srv", "-serverport", "9510", "-multipath", "5"},
         RC_OK, kCommandMultipath, "-multipath", ""},
        // The request is refused once "-version" led the line.
        {{"-version", "-multipath", "5"}, RC_BAD_ARGS, kCommandVersion, "-multipath", ""},
        // A word without "-" stops the parse and becomes the insert.
        {{"multipath", "5"}, RC_BAD_ARGS, kCommandMultipath, "multipath", ""},
        {{"-multipath", "5", "stray"}, RC_BAD_ARGS, kCommandMultipath, "stray", ""},
        {{"-version", "extra"}, RC_BAD_ARGS, kCommandVersion, "extra", ""},
        {{""}, RC_BAD_ARGS, kCommandMultipath, "", ""},
        {{"-"}, RC_BAD_ARGS, kCommandMultipath, "-", ""},
        {{"-bogus", "1"}, RC_BAD_ARGS, kCommandMultipath, "-bogus", ""},
        // General options that the path planner's table does not hold.
        {{"-installLoc", "/opt"}, RC_BAD_ARGS, kCommandMultipath, "-installLoc", ""},
        {{"-jobrunnumber", "4"}, RC_BAD_ARGS, kCommandMultipath, "-jobrunnumber", ""},
        {{"-" + longWord}, RC_BAD_ARGS, kCommandMultipath, "-" + longWord, ""},
        {{"-debug" + longWord, "MIN"}, RC_BAD_ARGS, kCommandMultipath, "-debug" + longWord, ""},
        {{"-d\xc3\xa9" "bug", "MIN"}, RC_BAD_ARGS, kCommandMultipath, "-d\xc3\xa9" "bug", ""},
        {{"-\xff\xfe"}, RC_BAD_ARGS, kCommandMultipath, "-\xff\xfe", ""},
        // Values the handlers reject.
        {{"-debug", "verbose"}, RC_BAD_ARGS, kCommandMultipath, "-debug", "Invalid debug mode"},
        {{"-debug", ""}, RC_BAD_ARGS, kCommandMultipath, "-debug", "Invalid debug mode"},
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
    for (const Case& c : cases) {
        CommandLine line(c.words);
        CmdArgs args = line.record();
        EXPECT_EQ(c.rc, parse(line, &args)) << joined(c.words);
        EXPECT_EQ(c.commandCode, args.commandCode) << joined(c.words);
        EXPECT_EQ(c.currentArg, args.currentArg) << joined(c.words);
        EXPECT_EQ(c.errorText, args.errorText) << joined(c.words);
    }
}

TEST_F(CmdArgsTest, OptionValuesAreStored) {
    CommandLine line({"-DEBUG", "mid", "-ServerIP", "10.0.0.9", "-servername", "host a", "-serverport", "9510",
                      "-maxlogsize", "0", "-maxnumlogs", "4"});
    CmdArgs args = line.record();
    ASSERT_EQ(RC_OK, parse(line, &args));
    EXPECT_EQ("MID", args.debugMode);
    EXPECT_EQ(2, args.debugLevel);
    EXPECT_EQ("10.0.0.9", args.serverIp);
    EXPECT_EQ("host a", args.serverName);
    EXPECT_EQ(9510, args.serverPort);
    EXPECT_EQ(1024, args.maxLogSize);  // 0 stands for the default size
    EXPECT_EQ(4, args.maxNumLogs);
    EXPECT_EQ(kGivenMaxLogSize | kGivenMaxNumLogs, args.logLimitsGiven);
    CommandLine cut({"-maxnumlogs", "3", "-debug", "max", "-maxnumlogs"});
    CmdArgs cutArgs = cut.record();
    EXPECT_EQ(RC_MISSING_VALUE, parse(cut, &cutArgs));
    EXPECT_EQ(-1, cutArgs.maxNumLogs);
    EXPECT_EQ(1, cutArgs.debugLevel);
}

TEST(SplitMultipathValueTest, TokensLoseTheirQuotes) {
    const std::string longToken(5000, 'w');
    const struct {
        std::string value;
        std::vector<std::string> tokens;
    } cases[] = {
        {"5", {"5"}},
        {"", {""}},
        {"2;dev1", {"2", "dev1"}},
        {"0;dev1;", {"0", "dev1", ""}},
        {";", {"", ""}},
        {";;", {"", "", ""}},
        {"\"3\";\"dev1\"", {"3", "dev1"}},
        {"\"3;dev1\"", {"3", "dev1"}},
        {"\"", {""}},
        {"\"\"", {""}},
        {"\"\"x\"\"", {"\"x\""}},
        {"a\"b", {"a\"b"}},
        {" 2 ; dev 1 ", {" 2 ", " dev 1 "}},
        {"1;d\xc3\xa9v;\xff", {"1", "d\xc3\xa9v", "\xff"}},
        {"5;" + longToken, {"5", longToken}},
    };
    for (const auto& c : cases) {
        CmdArgs args(0, nullptr, kParseModePathPlanner);
        EXPECT_EQ(RC_OK, splitMultipathValue(c.value.c_str(), &args)) << c.value;
        EXPECT_EQ(c.tokens, args.multipathOptions) << c.value;
        EXPECT_EQ(c.value, args.multipathValue);
    }
}

TEST_F(CmdArgsTest, RepeatedRequestAppendsTokens) {
    CommandLine line({"-multipath", "2;dev1", "-Multipath", "\"dev2\""});
    CmdArgs args = line.record();
    ASSERT_EQ(RC_OK, parse(line, &args));
    EXPECT_EQ((std::vector<std::string>{"2", "dev1", "dev2"}), args.multipathOptions);
    EXPECT_EQ("\"dev2\"", args.multipathValue);
}

TEST_F(CmdArgsTest, PermissionMatrixIsRefilledByEachParse) {
    CommandLine line({"-debug", "MIN"});
    CmdArgs args = line.record();
    args.permissionColumns = 20;
    args.permissions.assign(100, 1);
    ASSERT_EQ(RC_OK, parse(line, &args));
    ASSERT_EQ(kPathPlannerOptionColumns, args.permissionColumns);
    for (int32_t code = 0; code < kPathPlannerCommandRows; ++code) {
        for (int32_t id = 0; id < kPathPlannerOptionColumns; ++id) {
            bool expected = id != kOptionIdMultipath || code == kCommandMultipath;
            EXPECT_EQ(expected, args.optionAllowed(code, id)) << code << "," << id;
        }
    }
    EXPECT_FALSE(args.optionAllowed(kPathPlannerCommandRows, 0));
    EXPECT_FALSE(args.optionAllowed(0, kPathPlannerOptionColumns));
    EXPECT_FALSE(args.optionAllowed(-1, 0));
}

TEST_F(CmdArgsTest, ModesAboveThePathPlannerParseNothing) {
    for (uint32_t mode : {15u, 100u}) {
        CommandLine line({"-multipath", "5", "-bogus"});
        CmdArgs args = line.record(mode);
        EXPECT_EQ(RC_OK, args.parse()) << mode;  // no installation directory needed either
        EXPECT_EQ(1, args.cursor);
        EXPECT_TRUE(args.multipathOptions.empty());
        EXPECT_TRUE(args.permissions.empty());
    }
}

TEST_F(CmdArgsTest, AgentModesReadCommandAndGeneralOptions) {
    const struct {
        std::vector<std::string> words;
        int32_t rc;
        int32_t commandCode;
        std::string commandName;
    } cases[] = {
        {{"-pathPlanner", "-installLoc", "/x", "-multipath", "5;d"}, RC_OK, 42, "PATHPLANNER"},
        {{"-COPYFILE", "a.txt", "-force", "-jobrunnumber", "12"}, RC_OK, 1, "COPYFILE"},
        {{"-getinstallloc"}, RC_OK, 47, "GETINSTALLLOC"},
        {{"-version", "-passphrase", "p", "-migration"}, RC_OK, 30, "VERSION"},
        {{}, RC_NO_COMMAND, 0, ""},
        {{"pathPlanner"}, RC_NO_COMMAND, 0, ""},
        {{"-nosuchcommand"}, RC_NO_COMMAND, 0, ""},
        {{"-ping", "host", "-nosuchoption"}, RC_BAD_ARGS, 17, "PING"},
        {{"-ping", "host", "-jobrunnumber"}, RC_MISSING_VALUE, 17, "PING"},
    };
    for (const auto& c : cases) {
        CommandLine line(c.words);
        CmdArgs args = line.record(0);
        EXPECT_EQ(c.rc, args.parse()) << joined(c.words);
        EXPECT_EQ(c.commandCode, args.commandCode) << joined(c.words);
        EXPECT_EQ(c.commandName, args.commandName) << joined(c.words);
    }
    CommandLine line({"-pathPlanner", "-installLoc", "/x", "-JobRunNumber", "12", "-multipath", "5;d"});
    CmdArgs args = line.record(3);
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
    CommandLine line({"-multipath", "5"});
    CmdArgs args = line.record();
    args.installLoc = install_;
    EXPECT_EQ(install_, args.getInstallDir());
    EXPECT_EQ(RC_OK, args.parse());
    EXPECT_EQ(install_, args.installDir);
}

TEST_F(CmdArgsTest, UnknownInstallDirectoryGives59) {
    if (!getInstallLocation().empty()) GTEST_SKIP() << "this host has the agent installed";
    CommandLine line({"-multipath", "5"});
    CmdArgs args = line.record();
    EXPECT_EQ("", args.getInstallDir());
    EXPECT_EQ(RC_NO_INSTALL_DIR, args.parse());
    EXPECT_EQ("Unable to determine install location\n", args.errorText);
    EXPECT_TRUE(args.jobName.empty());
    // A rejected line keeps its own result.
    CommandLine bad({"-bogus"});
    CmdArgs badArgs = bad.record();
    EXPECT_EQ(RC_BAD_ARGS, badArgs.parse());
}

TEST_F(CmdArgsTest, LimitsSelectAndPurgeNumberedLogs) {
    const time_t tenDays = 10 * 86400;
    const std::vector<LogFile> series = {{"multipath_000001.log", 9, 0},     {"multipath_000002.log", 9, 0},
                                         {"multipath_000003.log", 9, 0},     {"multipath_000004.log", 9, tenDays},
                                         {"multipath_000005.log", 9, 0},     {"multipath_000001.trace", 0, 0},
                                         {"multipath.log", 0, 0}};
    const std::vector<LogFile> traces = {
        {"multipath_000001.trace", 0, 0}, {"multipath_000002.trace", 0, 0}, {"multipath_000003.trace", 0, 0}};
    const struct {
        std::vector<LogFile> files;
        std::vector<std::string> words;
        std::string logFile;
        std::string traceFile;
        std::vector<std::string> removed;
    } cases[] = {
        {{}, {"-multipath", "5"}, "", "", {}},
        {{}, {"-debug", "MAX", "-multipath", "5"}, "", "multipath.trace", {}},
        {{}, {"-maxnumruns", "2"}, "multipath_000001.log", "", {}},
        // 1 KB of room left under 4 KB: the last file goes on.
        {{{"multipath_000004.log", 3072, 0}}, {"-maxlogsize", "4"}, "multipath_000004.log", "", {}},
        {{{"multipath_000004.log", 3072, 0}}, {"-maxlogsize", "3", "-debug", "MIN"}, "multipath_000005.log",
         "multipath_000005.trace", {}},
        {{{"multipath_000004.log", 3072, 0}}, {"-maxnumdays", "30"}, "multipath_000005.log", "", {}},
        // Room for 4 with the coming 000006: 1 and 2 go by count, 4 by age.
        {series, {"-maxnumlogs", "9", "-maxnumruns", "4", "-maxnumdays", "5"}, "multipath_000006.log", "",
         {"multipath_000001.log", "multipath_000002.log", "multipath_000004.log"}},
        // 0 is no limit; the trace series is purged like the logs.
        {traces, {"-maxnumlogs", "0", "-maxnumruns", "2"}, "multipath_000001.log", "",
         {"multipath_000001.trace", "multipath_000002.trace"}},
        {traces, {"-maxnumlogs", "0"}, "multipath_000001.log", "", {}},
    };
    for (const auto& c : cases) {
        std::system(("rm -f '" + logDir_ + "'/*").c_str());
        for (const LogFile& file : c.files) makeLog(file);
        CommandLine line(c.words);
        CmdArgs args = line.record();
        ASSERT_EQ(RC_OK, parse(line, &args)) << joined(c.words);
        EXPECT_EQ(c.logFile.empty() ? "" : logDir_ + "/" + c.logFile, args.logFileName) << joined(c.words);
        EXPECT_EQ(c.traceFile.empty() ? "" : logDir_ + "/" + c.traceFile, args.traceFileName) << joined(c.words);
        for (const LogFile& file : c.files) {
            bool removed = std::find(c.removed.begin(), c.removed.end(), file.name) != c.removed.end();
            EXPECT_EQ(!removed, exists(file.name)) << file.name << " " << joined(c.words);
        }
        EXPECT_EQ("multipath", args.jobName);
        EXPECT_EQ("", args.jobFileName);
    }
}

TEST_F(CmdArgsTest, KnownRunNumbersNameTheJobFile) {
    CommandLine line({"-multipath", "5"});
    CmdArgs args = line.record();
    args.jobRunNumber = 12;
    args.sidRunNumber = 34;
    ASSERT_EQ(RC_OK, parse(line, &args));
    EXPECT_EQ(logDir_ + "/multipath_12_34.jobinfo", args.jobFileName);
}

}  // namespace
