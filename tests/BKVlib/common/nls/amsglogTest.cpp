#include "BKVlib/common/nls/amsglog.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "BKVlib/common/nls/amsgrtrv.h"
#include "BKVlib/common/ut/GlobalRC.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "tests/BKVlib/common/nls/NlsTestCatalog.h"

using testfiles::readFile;

namespace {

std::vector<std::pair<uint8_t, std::string>> gLogged;

// Date and time in the library's default formats, then the text.
const std::string kStamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d )";

class NlLogPrintfTest : public ::testing::Test {
protected:
    void SetUp() override {
        nlsTerminate();
        ASSERT_EQ("", catalog_.add("en_US", "lib.cat",
                                   "1 KRN0001I Copied %d files to %s.\n2 KRN0002E Failed on %s.\n3 KRN0003W w\n201 KRN0201E e\n"
                                   "250 KRN0250E Log %3$s off: %1$s (%2$d).\n"));
        std::string used;
        ASSERT_EQ(0, nlsInit("lib.cat", catalog_.dir().c_str(), "lib.cat", NlsSettings(), &used));
        GlobalrC::instance()->clearAllRC();
        gLogged.clear();
        nlSetSeverityLogger([](uint8_t severity, const char* text) { gLogged.emplace_back(severity, text); });
    }
    void TearDown() override {
        for (int32_t log : {NL_LOG_ERROR, NL_LOG_THIRD}) nlCloseLog(log);
        nlSetSeverityLogger(nullptr);
        GlobalrC::setMsg250Override(false, 0);
        nlsTerminate();
    }
    std::string logPath(const char* name) const { return catalog_.dir() + "/" + name; }
    uint16_t issue(NlMsgDesc* desc, uint32_t flags, char* buffer, uint16_t avail, ...) {
        desc->flags = flags;
        va_list args;
        va_start(args, avail);
        uint16_t n = nlLogPrintf(desc, buffer, avail, args);
        va_end(args);
        return n;
    }
    bool logMatches(const char* name, const std::string& pattern) {
        return std::regex_match(readFile(logPath(name)), std::regex(pattern));
    }
    NlsTestCatalog catalog_;
};

TEST_F(NlLogPrintfTest, CopiesTextWritesStdoutAndHandsSeverityToLogger) {
    char buffer[64];
    NlMsgDesc desc;
    desc.number = 1;
    testing::internal::CaptureStdout();
    uint16_t n = issue(&desc, NL_STDOUT | NL_NEWLINE, buffer, sizeof(buffer), 3, "/tmp");
    EXPECT_EQ("KRN0001I Copied 3 files to /tmp.\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ("KRN0001I Copied 3 files to /tmp.", std::string(buffer, n));
    EXPECT_EQ(0, GlobalrC::instance()->get());
    desc.number = 2;
    ASSERT_EQ(23, issue(&desc, NL_INSERTS | NL_SEVERITY | NL_NEWLINE, buffer, sizeof(buffer), "sdb"));
    EXPECT_EQ((std::vector<std::pair<uint8_t, std::string>>{{NL_SEV_E, "KRN0002E Failed on sdb.\n"}}), gLogged);
    // A buffer too small for the text: written nowhere, but the return code still rises.
    GlobalrC::instance()->clearAllRC();
    gLogged.clear();
    char small[8] = "unused";
    EXPECT_EQ(0, issue(&desc, NL_INSERTS, small, sizeof(small), "/a/very/long/path/name"));
    EXPECT_EQ(0, GlobalrC::instance()->get());  // inserts too large stop before the return code
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, issue(&desc, NL_STDOUT | NL_SEVERITY, small, sizeof(small), "sda"));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_STREQ("unused", small);
    EXPECT_TRUE(gLogged.empty());
    EXPECT_EQ(GRC_SEVERE, GlobalrC::instance()->get());
    EXPECT_EQ(0, nlIssue(77, 0));  // not in the catalogue
}

TEST_F(NlLogPrintfTest, ErrorLogLinesAreStampedOnce) {
    EXPECT_EQ(RC_OK, nlErrorLogWrite("not open yet"));
    ASSERT_EQ(0, nlOpenLog(NL_LOG_ERROR, logPath("error.log").c_str(), 0));
    nlIssue(2, NL_ERRORLOG, "sda");
    nlIssue(1, NL_ERRORLOG | NL_NEWLINE, 2, "/b");
    const std::string errors = kStamp + "KRN0002E Failed on sda\\.\n" + kStamp + "KRN0001I Copied 2 files to /b\\.\n";
    EXPECT_TRUE(logMatches("error.log", errors)) << readFile(logPath("error.log"));
    nlsTerminate();
    EXPECT_EQ(RC_MISSING_ARG, nlErrorLogWrite("no repository"));
}

TEST_F(NlLogPrintfTest, FailedThirdLogIsSwitchedOffWithMessage250) {
    ASSERT_EQ(0, nlOpenLog(NL_LOG_ERROR, logPath("error.log").c_str(), 0));
    if (nlOpenLog(NL_LOG_THIRD, "/dev/full", 0) != 0) GTEST_SKIP() << "/dev/full cannot be opened as a log here";
    EXPECT_EQ(RC_LOG_WRITE_FAILED, nlThirdLogWrite("lost"));
    EXPECT_EQ(RC_OK, nlThirdLogWrite("not written: the log is off"));
    EXPECT_NE(std::string::npos, readFile(logPath("error.log")).find("KRN0250E Log /dev/full off: "));
    EXPECT_EQ(GRC_SEVERE, GlobalrC::instance()->get());
}

TEST_F(NlLogPrintfTest, MessageSeveritiesSetRunningMaximaOfReturnCodes) {
    const struct { int32_t msgNum, rc; } cases[] = {  // one message of each severity, and the numbers with fixed codes
        {1, 0}, {2, 12}, {3, 8}, {201, 4}, {263, 12}, {250, 12}, {9999, 0}, {-1, 0}};
    for (const auto& c : cases) EXPECT_EQ(c.rc, GlobalrC::msgRC(c.msgNum)) << c.msgNum;
    const struct { bool enabled; int32_t value, rc; } overrides[] = {{true, 6, 6}, {true, 0, 8}, {false, 6, 12}};
    for (const auto& o : overrides) {
        GlobalrC::setMsg250Override(o.enabled, o.value);
        EXPECT_EQ(o.rc, GlobalrC::msgRC(250)) << o.enabled << " " << o.value;
    }
    GlobalrC* rc = GlobalrC::instance();
    EXPECT_EQ(1, rc->set(2));
    EXPECT_EQ(0, rc->set(3));  // a lower value never lowers rc
    EXPECT_EQ(12, rc->get());
}

}  // namespace
