#include "BKVlib/common/nls/amsglog.h"

#include <gtest/gtest.h>

#include <string>

#include "BKVlib/common/nls/amsgrtrv.h"
#include "BKVlib/common/ut/GlobalRC.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "tests/BKVlib/common/nls/NlsTestCatalog.h"

namespace {

class NlLogPrintfTest : public ::testing::Test {
protected:
    void SetUp() override {
        nlsTerminate();
        ASSERT_EQ("", catalog_.add("en_US", "lib.cat",
                                   "1 KRN0001I Copied %d files to %s.\n2 KRN0002E Failed on %s.\n3 KRN0003W w\n201 KRN0201E e\n"));
        std::string used;
        ASSERT_EQ(0, nlsInit("lib.cat", catalog_.dir().c_str(), "lib.cat", NlsSettings(), &used));
        GlobalrC::instance()->clearAllRC();
    }
    void TearDown() override { nlsTerminate(); }
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

TEST_F(NlLogPrintfTest, CopiesTextAndWritesStdout) {
    char buffer[64];
    NlMsgDesc desc;
    desc.number = 1;
    testing::internal::CaptureStdout();
    uint16_t n = issue(&desc, NL_STDOUT | NL_NEWLINE, buffer, sizeof(buffer), 3, "/tmp");
    EXPECT_EQ("KRN0001I Copied 3 files to /tmp.\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ("KRN0001I Copied 3 files to /tmp.", std::string(buffer, n));
    EXPECT_EQ(0, GlobalrC::instance()->get());
    // A buffer too small for the text: written nowhere, but the return code still rises.
    desc.number = 2;
    char small[8] = "unused";
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, issue(&desc, NL_STDOUT, small, sizeof(small), "sda"));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_STREQ("unused", small);
    EXPECT_EQ(GRC_SEVERE, GlobalrC::instance()->get());
    EXPECT_EQ(0, nlIssue(77, 0));  // not in the catalogue
    EXPECT_EQ(RC_OK, nlErrorLogWrite("the tool opens no error log: written nowhere"));
}

TEST_F(NlLogPrintfTest, MessageSeveritiesSetRunningMaximaOfReturnCodes) {
    const struct { int32_t msgNum, rc; } cases[] = {  // one message of each severity, and the numbers with fixed codes
        {1, 0}, {2, 12}, {3, 8}, {201, 4}, {263, 12}, {250, 12}, {9999, 0}, {-1, 0}};
    for (const auto& c : cases) EXPECT_EQ(c.rc, GlobalrC::msgRC(c.msgNum)) << c.msgNum;
    GlobalrC* rc = GlobalrC::instance();
    EXPECT_EQ(1, rc->set(2));
    EXPECT_EQ(0, rc->set(3));  // a lower value never lowers rc
    EXPECT_EQ(12, rc->get());
}

}  // namespace
