#include "BKVlib/common/nls/amsglog.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "BKVlib/common/nls/amsgrtrv.h"
#include "BKVlib/common/ut/GlobalRC.h"
#include "tests/BKVlib/common/nls/NlsTestCatalog.h"

namespace {

std::vector<std::pair<uint8_t, std::string>> gLogged;

void captureLogger(uint8_t severity, const char* text) {
    gLogged.emplace_back(severity, text);
}

class NlLogPrintfTest : public ::testing::Test {
protected:
    void SetUp() override {
        nlsTerminate();
        ASSERT_EQ("", catalog_.add("en_US", "lib.cat",
                                   "1 KRN0001I Copied %d files to %s.\n"
                                   "2 KRN0002E Failed on %s.\n"));
        std::string used;
        ASSERT_EQ(0, nlsInit("lib.cat", catalog_.dir().c_str(), "lib.cat", NlsSettings(), &used));
        GlobalrC::instance()->clearAllRC();
        gLogged.clear();
        nlSetSeverityLogger(captureLogger);
    }
    void TearDown() override {
        nlSetSeverityLogger(nullptr);
        nlsTerminate();
    }
    uint16_t issue(NlMsgDesc* desc, char* buffer, uint16_t avail, ...) {
        va_list args;
        va_start(args, avail);
        uint16_t n = nlLogPrintf(desc, buffer, avail, args);
        va_end(args);
        return n;
    }
    NlsTestCatalog catalog_;
};

TEST_F(NlLogPrintfTest, CopiesTextAndWritesStdoutWithNewline) {
    char buffer[64];
    NlMsgDesc desc;
    desc.number = 1;
    desc.flags = NL_STDOUT | NL_NEWLINE;
    testing::internal::CaptureStdout();
    uint16_t n = issue(&desc, buffer, sizeof(buffer), 3, "/tmp");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ("KRN0001I Copied 3 files to /tmp.", std::string(buffer, n));
    EXPECT_EQ(n, desc.length);
    EXPECT_EQ("KRN0001I Copied 3 files to /tmp.\n", out);
    EXPECT_EQ(0, GlobalrC::instance()->get());
}

TEST_F(NlLogPrintfTest, TooSmallBufferWritesNowhereButRaisesReturnCode) {
    char buffer[8] = "unused";
    NlMsgDesc desc;
    desc.number = 2;
    desc.flags = NL_STDOUT | NL_SEVERITY;
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, issue(&desc, buffer, sizeof(buffer), "sda"));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_STREQ("unused", buffer);
    EXPECT_TRUE(gLogged.empty());
    EXPECT_EQ(GRC_SEVERE, GlobalrC::instance()->get());
}

TEST_F(NlLogPrintfTest, InsertsLargerThanBufferStopBeforeReturnCode) {
    char buffer[8];
    NlMsgDesc desc;
    desc.number = 2;
    desc.flags = NL_INSERTS;
    EXPECT_EQ(0, issue(&desc, buffer, sizeof(buffer), "/a/very/long/path/name"));
    EXPECT_EQ(0, GlobalrC::instance()->get());
    char big[128];
    EXPECT_EQ(23, issue(&desc, big, sizeof(big), "sda"));
    EXPECT_EQ(1, desc.insertCount);
    EXPECT_EQ(4, desc.messageType);
}

TEST_F(NlLogPrintfTest, SeverityFlagHandsTextAndSeverityToLogger) {
    char buffer[64];
    NlMsgDesc desc;
    desc.number = 2;
    desc.flags = NL_SEVERITY | NL_NEWLINE;
    ASSERT_EQ(23, issue(&desc, buffer, sizeof(buffer), "sdb"));
    ASSERT_EQ(1u, gLogged.size());
    EXPECT_EQ(NL_SEV_E, gLogged[0].first);
    EXPECT_EQ("KRN0002E Failed on sdb.\n", gLogged[0].second);
}

TEST_F(NlLogPrintfTest, MissingMessageIssuesNothing) {
    char buffer[64];
    NlMsgDesc desc;
    desc.number = 77;
    EXPECT_EQ(0, issue(&desc, buffer, sizeof(buffer)));
    EXPECT_EQ(0, nlIssue(77, 0));
    EXPECT_EQ(23, nlIssue(2, 0, "sdc"));
}

TEST(NlYesNoTest, WordLists) {
    const struct {
        const char* word;
        int32_t expected;
    } cases[] = {
        {"y", 1},       {"Yes", 1},     {"10-4", 1},   {"youBetcha", 1}, {"SI", 1},    {"bodacious", 1},
        {"of", 0},      {"Nein", 0},    {"0", 0},      {"NoWayMan", 0},  {"bogus", 0}, {"f", 0},
        {"maybe", -9999}, {"", -9999},  {"ye s", -9999}, {"yess", -9999}, {nullptr, -9999},
    };
    for (const auto& c : cases) EXPECT_EQ(c.expected, nlYesNo(c.word, 1, 0)) << (c.word ? c.word : "null");
}

TEST(NlHexTextTest, Modes) {
    std::string counting;
    for (int i = 0; i < 40; ++i) counting.push_back(static_cast<char>(i));
    const struct {
        std::string data;
        int32_t mode;
        std::string expected;
    } cases[] = {
        {std::string("\xC1\xC2\x81\x40\x5A\x00", 6), 0, "ABa !."},
        {"a\x01" "b\xFF", 1, "a.b."},
        {"\x01\xAB", 2, "01AB"},
        {counting, 3,
         "00010203 04050607 08090A0B 0C0D0E0F 10111213 14151617 18191A1B 1C1D1E1F \n20212223 24252627"},
        {"abcd", 3, "61626364"},
        {"abc", 4, "abc"},
        {"ab\x01", 4, "616201"},
        {"a\x01", 9, "a."},
    };
    for (const auto& c : cases) {
        std::string out(nlHexTextSize(c.data.size()), '#');
        size_t n = nlHexText(&out[0], c.data.data(), c.data.size(), c.mode);
        EXPECT_EQ(c.expected, std::string(out.c_str(), n)) << "mode " << c.mode;
        EXPECT_LT(n, out.size());
    }
}

}  // namespace
