// The agent's messages, the activity log they are written to, and the agent's trace set-up.
#include "Common/AgentMessages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <regex>
#include <vector>

#include "BKVlib/common/nls/amsgrtrv.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessageIds.h"
#include "Common/AgentTrace.h"
#include "Common/FailureNote.h"
#include "Common/LogManager.h"
#include "tests/support/TestFiles.h"

namespace {

using ::testing::HasSubstr;

class AgentMessagesTest : public ::testing::Test {
protected:
    // Starts the message layer afresh on the catalogues the build made.
    void SetUp() override {
        endMessages();
        nlSetLanguage("");
        ASSERT_EQ(0, initMessages(std::string(PP_BINARY_DIR) + "/nls", "", "qlxna.cat", "en_US"));
    }
};

TEST_F(AgentMessagesTest, MessagesCarryTheirKeyAndInserts) {
    EXPECT_EQ("AGT0429I PathPlanner started with the command line: /bin/PathPlanner -multipath 5",
              getMsg(AGT0429I, "PathPlanner", "/bin/PathPlanner -multipath 5"));
    EXPECT_EQ("AGT0430I PathPlanner finished with return code 169.", getMsg(AGT0430I, "PathPlanner", 169));
    // The agent's catalogue doubles as the library's English one, with the callers' inserts.
    EXPECT_EQ("KRN0250E Writing to the log /var/x.log failed (errno 28: No space left on device); the log is "
              "switched off.",
              getMsg(250, "", "No space left on device", 28, "/var/x.log"));
}

// Only error messages explain a failure; the start and end messages do not.
TEST_F(AgentMessagesTest, OutputOperationsReachTheirDestinations) {
    testfiles::TempDir dir;
    LogManager log(dir.file("multipath.log"));
    clearFailure();
    testing::internal::CaptureStdout();
    EXPECT_EQ(RC_OK, logMsg(&log, AGT0456E));
    EXPECT_EQ(RC_OK, msgOut(&log, AGT0445I));
    EXPECT_EQ(RC_OK, logMsg(&log, AGT0430I, "PathPlanner", 169));
    EXPECT_EQ("AGT0456E No multipath driver was found on this host.", lastFailure());
    EXPECT_EQ(RC_OK, logAndShowMsg(&log, AGT0412E, "-bogus"));
    EXPECT_EQ("AGT0445I The request was cancelled because the agent asked the tool to stop.\n"
              "AGT0412E The command line was rejected at the argument '-bogus'.\n",
              testing::internal::GetCapturedStdout());
    std::string logged = testfiles::readFile(dir.file("multipath.log"));
    EXPECT_NE(std::string::npos, logged.find("AGT0456E No multipath driver was found on this host."));
    EXPECT_NE(std::string::npos, logged.find("AGT0412E The command line was rejected at the argument '-bogus'."));
    EXPECT_EQ(std::string::npos, logged.find("AGT0445I"));
}

TEST(FailureNoteTest, KeepsTheLastLineThatSaysSomething) {
    const struct { const char* text; const char* note; } cases[] = {
        {"Scanning host 0\r\nNo SCSI host adapters found in /sys\r\n", "No SCSI host adapters found in /sys"},
        {"first\n  last words \t\n\n \n", "last words"},
        {"", "earlier"},  // nothing said: the earlier note stands
    };
    for (const auto& c : cases) {
        clearFailure();
        noteFailure("earlier");
        noteFailure(c.text);
        EXPECT_EQ(c.note, lastFailure()) << "[" << c.text << "]";
    }
}

// The environment's choice in the C library's precedence; C and its code-set forms
// mean English and leave the process locale as it is.
TEST(MessageLanguageTest, EnvironmentChoosesTheCatalogue) {
    const struct { const char* lcAll; const char* lcMessages; const char* lang; const char* language; } cases[] = {
        {nullptr, nullptr, "C.UTF-8", ""},
        {"C", "de_DE", "de_DE", ""},
        {nullptr, "de_DE.UTF-8", "C", "de_DE"},
        {"", "", "fr_FR@euro", "fr_FR"},
    };
    for (const auto& c : cases) {
        setlocale(LC_MESSAGES, "C");
        const char* names[] = {"LC_ALL", "LC_MESSAGES", "LANG"};
        const char* values[] = {c.lcAll, c.lcMessages, c.lang};
        for (int i = 0; i < 3; ++i) values[i] ? setenv(names[i], values[i], 1) : unsetenv(names[i]);
        EXPECT_EQ(c.language, messageLanguageFromEnvironment()) << (c.lang ? c.lang : "-");
        if (!*c.language) {
            EXPECT_STREQ("C", setlocale(LC_MESSAGES, nullptr)) << (c.lang ? c.lang : "-");
        }
    }
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) unsetenv(name);
    setlocale(LC_MESSAGES, "C");
}

using testfiles::readFile;

const std::regex kStamp(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )");

class LogManagerTest : public ::testing::Test {
protected:
    // The messages of the log's lines, each line checked for its time stamp.
    std::vector<std::string> messages(const std::string& path) {
        std::vector<std::string> lines = testfiles::splitLines(readFile(path));
        for (std::string& line : lines) {
            EXPECT_TRUE(std::regex_search(line, kStamp)) << line;
            line.erase(0, 24);
        }
        return lines;
    }
    testfiles::TempDir dir_;
    std::string log_ = dir_.file("multipath.log");
};

TEST_F(LogManagerTest, LineCarriesStampAndOneNewline) {
    const std::pair<const char*, std::string> cases[] = {
        {"AGT0430I done\n", "AGT0430I done\n"}, {"first\nsecond", "first\nsecond\n"}, {nullptr, "\n"}};
    LogManager log(log_);
    for (const auto& c : cases) {
        unlink(log_.c_str());
        ASSERT_EQ(RC_OK, log.LogActivityLog(c.first));
        std::string text = readFile(log_);
        EXPECT_TRUE(std::regex_search(text, kStamp)) << text;
        EXPECT_EQ(c.second, text.substr(24)) << (c.first ? c.first : "<null>");
    }
}

TEST_F(LogManagerTest, AppendsFollowsRenameAndSurvivesUnusablePaths) {
    EXPECT_EQ(RC_LOG_NO_NAME, LogManager("").LogActivityLog("lost"));
    LogManager log(log_);
    ASSERT_EQ(RC_OK, log.LogActivityLog("one"));
    ASSERT_EQ(RC_OK, log.LogActivityLog("two"));
    log.setLogName(dir_.file("missing/multipath.log"));
    EXPECT_EQ(RC_LOG_OPEN_FAILED, log.LogActivityLog("lost"));
    EXPECT_FALSE(testfiles::fileExists(dir_.file("missing")));
    log.setLogName(dir_.file("multipath_000002.log"));
    ASSERT_EQ(RC_OK, log.LogActivityLog("three"));
    EXPECT_EQ((std::vector<std::string>{"one", "two"}), messages(log_));
    EXPECT_EQ(std::vector<std::string>{"three"}, messages(dir_.file("multipath_000002.log")));
}

// Messages of many lengths from two processes, half with their own newline: each
// must become exactly one line, none cut or merged.
TEST_F(LogManagerTest, ProcessesNeverInterleaveOrLoseLines) {
    auto payload = [](int writer, int n) {
        return "w" + std::to_string(writer) + " n" + std::to_string(n) + " " + std::string(n % 7 ? 20 + n % 90 : 3000, 'x');
    };
    auto writeMany = [&](int writer) {
        LogManager log(log_);
        for (int n = 0; n < 1000; ++n) log.LogActivityLog((payload(writer, n) + (n % 2 ? "\n" : "")).c_str());
    };
    pid_t pid = fork();
    if (pid == 0) {
        writeMany(1);
        _exit(0);
    }
    writeMany(0);
    ASSERT_EQ(0, testfiles::exitCodeOf(pid));
    std::vector<std::string> lines = messages(log_), expected;
    for (int n = 0; n < 2000; ++n) expected.push_back(payload(n / 1000, n % 1000));
    std::sort(lines.begin(), lines.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(expected == lines) << lines.size() << " lines";
}

class AgentTraceTest : public ::testing::Test {
protected:
    void SetUp() override { endTrace(); }
    void TearDown() override { endTrace(); }
    testfiles::TempDir dir_;
    std::string path_ = dir_.file("multipath.trace");
};

// Arguments are cut to their first 4604 characters, then control characters escaped.
TEST_F(AgentTraceTest, ArgumentsAreCutAndEscaped) {
    const std::pair<std::string, std::string> cases[] = {
        {"Ger\xc3\xa4t \\n", "Ger\xc3\xa4t \\n"},  // multibyte text and a typed backslash stay as they are
        {"a\n2099-01-01 00:00:00.000 AGT0430I", "a\\n2099-01-01 00:00:00.000 AGT0430I"},
        {"cr\rtab\tbell\adel\x7f", "cr\\x0Dtab\\x09bell\\x07del\\x7F"},
        {std::string("nul\0x", 5), "nul\\x00x"},
        {std::string(4604, 'a') + std::string(396, 'b'), std::string(4604, 'a')},
        {std::string(4603, 'a') + "\n\n", std::string(4603, 'a') + "\\n"},  // an escape is never split
    };
    for (const auto& c : cases) EXPECT_EQ(c.second, NA_STR(c.first)) << c.first;
    EXPECT_STREQ("<NULL>", NA_STR(static_cast<const char*>(nullptr)));
}

TEST_F(AgentTraceTest, SetUpFailuresReturnTheirCodes) {
    EXPECT_EQ(RC_OK, initTrace("", "MAX", 1024));
    EXPECT_EQ(0, trIsActive());
    endTrace();
    EXPECT_EQ(RC_TRACE_FAILED, initTrace(dir_.file("no/such/t.trace"), "MIN", 1024));
    endTrace();
    mkdir(path_.c_str(), 0700);
    testing::internal::CaptureStdout();
    EXPECT_EQ(RC_TRACE_BEGIN_FAILED, initTrace(path_, "MIN", 1024));
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("Unable to open trace output file " + path_));
    EXPECT_EQ(0, trIsActive());
}

}  // namespace
