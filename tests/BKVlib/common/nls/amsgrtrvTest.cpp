#include "BKVlib/common/nls/amsgrtrv.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "tests/BKVlib/common/nls/NlsTestCatalog.h"
#include "tools/msgc/MsgCompiler.h"

namespace {

const char* const kEnglish =
    "1 KRN0001I Plain text without inserts.\n3 KRN0003W File %2$s has %1$d bytes (100%%).\n4 KRN0004I [%*d|%-6s|%.2f|%lu]\n"
    "5 KRN0005T Trace text %s\n7 KRN0007S Severe %%d %s\n";
const std::string kPlain = "KRN0001I Plain text without inserts.";

class NlsRepositoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        nlsTerminate();
        ASSERT_EQ("", catalog_.add("en_US", "app.cat", kEnglish));
    }
    void TearDown() override {
        nlsTerminate();
        nlSetLanguage("");
    }
    int32_t start(const std::string& lang, NlsSettings settings = NlsSettings()) {
        nlsTerminate();
        nlSetLanguage(lang.c_str());
        return nlsInit("app.cat", catalog_.dir().c_str(), "app.cat", settings, &language_);
    }
    static std::string text(uint16_t number, ...) {
        std::string out;
        va_list args;
        va_start(args, number);
        int32_t rc = nlMsgText(number, &out, args);
        va_end(args);
        return rc == RC_OK ? out : "<rc " + std::to_string(rc) + ">";
    }
    NlsTestCatalog catalog_;
    std::string language_;
};

TEST_F(NlsRepositoryTest, FormatsMessagesInTranslationOrderWithSeverities) {
    EXPECT_EQ(NL_SEV_UNKNOWN, nlGetSeverity(1));  // not started
    ASSERT_EQ(RC_OK, start("en_US"));
    EXPECT_EQ(kPlain, text(1));
    EXPECT_EQ("KRN0003W File /etc/fstab has 42 bytes (100%).", text(3, 42, "/etc/fstab"));
    EXPECT_EQ("KRN0004I [   7|ab    |3.14|18446744073709551615]", text(4, 4, 7, "ab", 3.14159, ~0UL));
    EXPECT_EQ("Trace text t", text(5, "t"));
    EXPECT_EQ("KRN0007S Severe %d s", text(7, "s"));
    EXPECT_EQ("KRN0003W File " + std::string(NL_SCRATCH_SIZE - 1, 'x') + " has 1 bytes (100%).",
              text(3, 1, std::string(5000, 'x').c_str()));  // a long insert is cut to the scratch buffer
    const std::pair<uint16_t, uint8_t> cases[] = {{1, NL_SEV_I}, {5, NL_SEV_T}, {7, NL_SEV_S}, {999, NL_SEV_UNKNOWN}};
    for (const auto& c : cases) EXPECT_EQ(c.second, nlGetSeverity(c.first)) << c.first;
}

TEST_F(NlsRepositoryTest, LanguageFallbacks) {
    ASSERT_EQ("", catalog_.add("de_DE", "app.cat", "1 KRN0001I Deutsch.\n"));
    const struct { const char *lang, *text, *current; bool warned; } cases[] = {
        {"de_DE.UTF-8", "KRN0001I Deutsch.", "de_DE.UTF-8", false},
        {"xx", kPlain.c_str(), "xx", false},
        {"ja_JP", kPlain.c_str(), "en_US", true},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(RC_OK, start(c.lang)) << c.lang;
        EXPECT_EQ(c.text, text(1)) << c.lang;
        EXPECT_EQ(c.current, nlCurrentLanguage()) << c.lang;
        EXPECT_EQ(c.lang, language_);
        EXPECT_EQ(c.warned, nlsObject()->pendingText.rfind("KRN0102W", 0) == 0) << c.lang;
    }
    EXPECT_EQ("KRN0102W Unable to open the message repository " + catalog_.path("ja_JP", "app.cat") +
                  ". The American English repository will be used instead.\n",
              nlsObject()->pendingText);
    ASSERT_EQ(RC_OK, start(std::string(1300, 'q')));
    EXPECT_EQ(0u, nlsObject()->pendingText.find("KRN0102W Unable to open the message repository ???. "));
    EXPECT_EQ(kPlain, text(1));
}

TEST_F(NlsRepositoryTest, StartFailures) {
    NlsTestCatalog empty;
    EXPECT_EQ(RC_NLS_INIT_FAILED, nlsInit("app.cat", empty.dir().c_str(), "app.cat", NlsSettings(), &language_));
    EXPECT_EQ("KRN0101E Unable to open English message repository '" + empty.path("en_US", "app.cat") + "'.\n",
              nlsObject()->pendingText);
    EXPECT_EQ(0, nlsStatus());
    EXPECT_EQ(RC_NLS_INIT_FAILED, nlsInit("app.cat", std::string(1024, 'd').c_str(), "app.cat", NlsSettings(), &language_));
}

TEST_F(NlsRepositoryTest, CorruptAndUnknownEntriesYieldNothing) {
    // Entries that would read past their text or take the wrong argument are MessageFuzz's to find.
    const std::string cases[] = {
        "KRN0001E",                             // identifier only
        msgc::storedText("KRN0001E", std::string(1, '\1') + "%n"),  // a fast path that writes memory
        "KR\x12X0263E",                          // trailer mark inside the identifier
    };
    for (const auto& stored : cases) {
        ASSERT_EQ("", catalog_.addRaw("en_US", "app.cat", {{1, stored}})) << stored;
        ASSERT_EQ(RC_OK, start("en_US"));
        EXPECT_EQ("<rc 611>", text(1, "s", 1)) << stored;
        EXPECT_NE(std::string::npos, nlsObject()->pendingText.find("Message No 1 is corrupted.")) << stored;
    }
    EXPECT_EQ("<rc 611>", text(4242));
    EXPECT_EQ(0u, nlsObject()->pendingText.find("KRN9999E BKVlib/common/nls/amsgrtrv("));
    EXPECT_NE(std::string::npos, nlsObject()->pendingText.find("): Message No 4242 could not be found.\n"));
}

}  // namespace
