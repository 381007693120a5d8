#include "Multipath/linux/MultipathZPLLinux.h"

#include <stdexcept>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "gtest/gtest.h"
#include "tests/fakes/zpl/FakeTools.h"

namespace {

const std::string kData = PP_TESTS_DIR "/data/";

// The one case no fake tool can produce: a command that cannot run at all.
class UnrunnableZPLLinux : public MultipathZPLLinux {
protected:
    ZplCommandResult runWords(const std::vector<std::string>& words) override {
        return ZplCommandResult{RC_NOT_RUN, "", "", words[0]};
    }
};

TEST(MultipathZPLLinuxTest, GetVersionOutcomes) {
    struct Case {
        const char* out;
        int rc;
        const char* err;
        const char* version;
        const char* trace;
    } cases[] = {
        {"ZORzpl-1.6.2.0-1\nsecond line\n", 0, "", "ZORzpl-1.6.2.0-1", "ZPL version: ZORzpl-1.6.2.0-1\n"},
        {"package ZORzpl is not installed\n", 1, "", "", "Error getting ZPL version: package ZORzpl is not installed\n"},
        {"", 1, "rpm: cannot open database\n", "", "Error getting ZPL version: rpm: cannot open database\n"},
        {"No device file found\n", 0, "", "", "ZPL incorrect version.  ZPL must be at version 1.6.1 or higher"},
        {"ZORzpl-1.6.2.0-1 Invalid argument\n", 0, "", "", "Error getting ZPL version: "},
    };
    for (const Case& c : cases) {
        zpltest::FakeTools tools;
        zpltest::TraceCapture trace;
        tools.answer("rpm.-q_ZORzpl", c.out, c.rc, c.err);
        MultipathZPLLinux zpl;
        EXPECT_EQ(c.version, zpl.getVersion()) << c.out;
        EXPECT_TRUE(trace.has(c.trace)) << c.trace;
        // Only a good version is cached: a failed query is asked again.
        EXPECT_EQ(c.version, zpl.getVersion()) << c.out;
        EXPECT_EQ(*c.version ? 1u : 2u, tools.calls().size()) << c.out;
        EXPECT_EQ("rpm -q ZORzpl", tools.calls()[0]);
    }
}

TEST(MultipathZPLLinuxTest, GetVersionWhenQueryCannotRun) {
    zpltest::LogCapture log;
    UnrunnableZPLLinux zpl;
    EXPECT_EQ("", zpl.getVersion());
    EXPECT_NE(std::string::npos, log.text().find("STA0356E"));
}

TEST(MultipathZPLLinuxTest, FormatWwpnWithColons) {
    struct Case {
        const char* wwpn;
        const char* formatted;
    } cases[] = {
        {"1234567890abcdef", "12:34:56:78:90:ab:cd:ef"},
        {"1234567890abcd", "12:34:56:78:90:ab:cd:"},
        {"1234567890abcdef01", "12:34:56:78:90:ab:cd:ef01"},
    };
    MultipathZPLLinux zpl;
    for (const Case& c : cases) EXPECT_EQ(c.formatted, zpl.formatWWPN(c.wwpn)) << c.wwpn;
    for (const char* shortWwpn : {"1234567890abc", "123456789012", "12345", ""}) {
        EXPECT_THROW(zpl.formatWWPN(shortWwpn), std::out_of_range) << shortWwpn;
    }
}

TEST(MultipathZPLLinuxTest, ReconfigurationResults) {
    struct Case {
        int exitCode;
        int32_t rc;
        const char* trace;
    } cases[] = {
        {0, RC_OK, "Exit: performDynamicReconfiguration(), rc = 0\n"},
        {4, RC_DRIVER_CMD_FAILED, "exit code 4: no configuration\n"},
    };
    for (const Case& c : cases) {
        zpltest::FakeTools tools;
        zpltest::TraceCapture trace;
        tools.answer("cfglundev", "", c.exitCode, "no configuration\n");
        MultipathZPLLinux zpl;
        EXPECT_EQ(c.rc, zpl.performDynamicReconfiguration());
        EXPECT_EQ(std::vector<std::string>{"cfglundev "}, tools.calls());
        EXPECT_TRUE(trace.has(c.trace)) << c.trace;
    }
    zpltest::LogCapture log;
    UnrunnableZPLLinux zpl;
    EXPECT_EQ(RC_RECONFIG_NOT_RUN, zpl.performDynamicReconfiguration());
    EXPECT_NE(std::string::npos, log.text().find("STA0356E"));
}

TEST(MultipathZPLLinuxTest, SetStateFormatsRequestWwpns) {
    zpltest::FakeTools tools;
    tools.answerFromFile("lunctl.query_device", kData + "lunctl-query-device.txt");
    tools.answerFromFile("lunctl.query_wwpn", kData + "lunctl-query-wwpn.txt");
    MultipathZPLLinux zpl;
    EXPECT_EQ(RC_OK, zpl.setState(kSettingOffline, "lundev2", {"10000000c95a3b11", "10000000c95a3b10"}));
    std::vector<std::string> expected = {"lunctl query device", "lunctl query wwpn",
                                         "lunctl set device 2 path 1 offline", "lunctl set device 2 path 0 offline"};
    EXPECT_EQ(expected, tools.calls());
    EXPECT_THROW(zpl.setState(kSettingOnline, "lundev2", {"10000000c9"}), std::out_of_range);
}

}  // namespace
