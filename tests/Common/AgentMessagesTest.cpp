#include "Common/AgentMessages.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>

#include "BKVlib/common/nls/amsgrtrv.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessageIds.h"
#include "Common/FailureNote.h"
#include "Common/LogManager.h"
#include "tests/support/TestFiles.h"

namespace {

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

TEST_F(AgentMessagesTest, IdentifierOverwriteExceptForTKeys) {
    EXPECT_EQ(0u, getMsg(1804, "XYZ9999I", "a", "b").find("XYZ9999I a started"));
    EXPECT_EQ(0u, getMsg(1804, "AGT0429T", "a", "b").find("AGT0429I a started"));
    EXPECT_EQ("", getMsg(4242, "AGT4242E"));
}

TEST_F(AgentMessagesTest, OutputOperationsReachTheirDestinations) {
    testfiles::TempDir dir;
    LogManager log(dir.file("multipath.log"));
    testing::internal::CaptureStdout();
    EXPECT_EQ(RC_OK, logMsg(&log, AGT0456E));
    EXPECT_EQ(RC_OK, msgOut(&log, AGT0445I));
    EXPECT_EQ(RC_OK, logAndShowMsg(&log, AGT0412E, "-bogus"));
    EXPECT_EQ(RC_OK, msgOut(&log, 4242, "AGT4242E"));
    EXPECT_EQ(RC_OK, logAndShowMsg(&log, 4243, "AGT4243E"));
    EXPECT_EQ("AGT0445I The request was cancelled because the agent asked the tool to stop.\n"
              "AGT0412E The command line was rejected at the argument '-bogus'.\n\n",
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

// Only error messages explain a failure; the start and end messages do not.
TEST_F(AgentMessagesTest, LoggedErrorMessagesAreNoted) {
    clearFailure();
    logMsg(nullptr, AGT0456E);
    logMsg(nullptr, AGT0430I, "PathPlanner", 169);
    EXPECT_EQ("AGT0456E No multipath driver was found on this host.", lastFailure());
}

// The environment's choice in the C library's precedence; C and its code-set forms
// mean English and leave the process locale as it is.
TEST(MessageLanguageTest, EnvironmentChoosesTheCatalogue) {
    const struct { const char* lcAll; const char* lcMessages; const char* lang; const char* language; } cases[] = {
        {nullptr, nullptr, "C.UTF-8", ""},
        {"", nullptr, "POSIX", ""},
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

}  // namespace
