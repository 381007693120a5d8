#include "BKVlib/common/nls/amsglog.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "BKVlib/common/nls/amsgrtrv.h"
#include "BKVlib/common/ut/GlobalRC.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "tests/BKVlib/common/nls/NlsTestCatalog.h"

namespace {

std::vector<std::pair<uint8_t, std::string>> gLogged;

class NlLogPrintfTest : public ::testing::Test {
protected:
    void SetUp() override {
        nlsTerminate();
        ASSERT_EQ("", catalog_.add("en_US", "lib.cat",
                                   "1 KRN0001I Copied %d files to %s.\n2 KRN0002E Failed on %s.\n"));
        std::string used;
        ASSERT_EQ(0, nlsInit("lib.cat", catalog_.dir().c_str(), "lib.cat", NlsSettings(), &used));
        GlobalrC::instance()->clearAllRC();
        gLogged.clear();
        nlSetSeverityLogger([](uint8_t severity, const char* text) { gLogged.emplace_back(severity, text); });
    }
    void TearDown() override {
        nlSetSeverityLogger(nullptr);
        nlsTerminate();
    }
    uint16_t issue(NlMsgDesc* desc, uint32_t flags, char* buffer, uint16_t avail, ...) {
        desc->flags = flags;
        va_list args;
        va_start(args, avail);
        uint16_t n = nlLogPrintf(desc, buffer, avail, args);
        va_end(args);
        return n;
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
    EXPECT_EQ(n, desc.length);
    EXPECT_EQ(0, GlobalrC::instance()->get());
    desc.number = 2;
    ASSERT_EQ(23, issue(&desc, NL_INSERTS | NL_SEVERITY | NL_NEWLINE, buffer, sizeof(buffer), "sdb"));
    EXPECT_EQ(1, desc.insertCount);
    EXPECT_EQ(4, desc.messageType);
    EXPECT_EQ((std::vector<std::pair<uint8_t, std::string>>{{NL_SEV_E, "KRN0002E Failed on sdb.\n"}}), gLogged);
}

TEST_F(NlLogPrintfTest, TooSmallBufferWritesNowhereButRaisesReturnCode) {
    char buffer[8] = "unused";
    NlMsgDesc desc;
    desc.number = 2;
    EXPECT_EQ(0, issue(&desc, NL_INSERTS, buffer, sizeof(buffer), "/a/very/long/path/name"));
    EXPECT_EQ(0, GlobalrC::instance()->get());  // inserts too large stop before the return code
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, issue(&desc, NL_STDOUT | NL_SEVERITY, buffer, sizeof(buffer), "sda"));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_STREQ("unused", buffer);
    EXPECT_TRUE(gLogged.empty());
    EXPECT_EQ(GRC_SEVERE, GlobalrC::instance()->get());
    EXPECT_EQ(0, nlIssue(77, 0));  // not in the catalogue
}

}  // namespace
