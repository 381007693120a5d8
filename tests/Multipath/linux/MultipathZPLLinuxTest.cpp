#include "Multipath/linux/MultipathZPLLinux.h"

#include "tests/fakes/FakeTools.h"

namespace {

using ::testing::HasSubstr;
using Lines = std::vector<std::string>;

// The one case no fake tool can produce: a command that cannot run at all.
class UnrunnableZPLLinux : public MultipathZPLLinux {
protected:
    CommandResult runWords(const std::vector<std::string>& words) override {
        CommandResult result;
        result.cmdLine = words[0];
        return result;
    }
};

TEST(MultipathZPLLinuxTest, GetVersionOutcomes) {
    const struct { const char* out; int rc; const char* err; const char* version; const char* trace; } cases[] = {
        {"ZORzpl-1.6.2.0-1\nsecond line\n", 0, "", "ZORzpl-1.6.2.0-1", "ZPL version: ZORzpl-1.6.2.0-1\n"},
        {"package ZORzpl is not installed\n", 1, "", "",
         "Error getting ZPL version: package ZORzpl is not installed\\n\n"},  // the output's line feed escaped
        {"No device file found\n", 0, "", "", "ZPL incorrect version.  ZPL must be at version 1.6.1 or higher"},
    };
    for (const auto& c : cases) {
        fakes::FakeTools tools{"rpm"};
        fakes::TraceCapture trace;
        tools.answer("rpm.-q.ZORzpl", c.out, c.rc, c.err);
        MultipathZPLLinux zpl;
        EXPECT_EQ(c.version, zpl.getVersion()) << c.out;
        EXPECT_THAT(trace.text(), HasSubstr(c.trace));
        // Only a good version is cached: a failed query is asked again.
        EXPECT_EQ(c.version, zpl.getVersion()) << c.out;
        EXPECT_EQ(*c.version ? Lines{"-q ZORzpl"} : (Lines{"-q ZORzpl", "-q ZORzpl"}), tools.calls("rpm")) << c.out;
    }
}

TEST(MultipathZPLLinuxTest, ReconfigurationResults) {
    const std::pair<int, int32_t> cases[] = {{0, RC_OK}, {4, RC_DRIVER_CMD_FAILED}};
    for (const auto& c : cases) {
        fakes::FakeTools tools{"cfglundev"};
        tools.answer("cfglundev", "", c.first, "no configuration\n");
        EXPECT_EQ(c.second, MultipathZPLLinux().performDynamicReconfiguration());
        EXPECT_EQ(Lines{""}, tools.calls("cfglundev"));
    }
    fakes::LogCapture log;
    EXPECT_EQ(RC_RECONFIG_NOT_RUN, UnrunnableZPLLinux().performDynamicReconfiguration());
    EXPECT_EQ("", UnrunnableZPLLinux().getVersion());
    EXPECT_THAT(log.text(), HasSubstr("STA0356E"));
}

TEST(MultipathZPLLinuxTest, FormatWwpnWithColons) {
    const std::pair<const char*, const char*> cases[] = {
        {"1234567890abcdef", "12:34:56:78:90:ab:cd:ef"}, {"1234567890abcd", "12:34:56:78:90:ab:cd:"},
        // Only the pair at 14 follows: a trailing blank or extra characters are dropped.
        {"1234567890abcdef01", "12:34:56:78:90:ab:cd:ef"}, {"1234567890abcdef ", "12:34:56:78:90:ab:cd:ef"},
        {"1234567890abcde", "12:34:56:78:90:ab:cd:e"}, {"1234567890abc", ""}, {"12345", ""}, {"", ""},
    };
    MultipathZPLLinux zpl;
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, zpl.formatWWPN(c.first)) << c.first;
        EXPECT_EQ(*c.second != '\0', zpl.canFormatWWPN(c.first)) << c.first;
    }
}

// A WWPN lunctl cannot be asked about stops the change after the paths before it, and
// is not reported as a failed path.
TEST(MultipathZPLLinuxTest, ShortWwpnStopsTheStateChange) {
    fakes::FakeTools tools{"lunctl"};
    tools.answer("lunctl.query.device", testfiles::testData("Multipath/data/lunctl-query-device.txt"));
    tools.answer("lunctl.query.wwpn", testfiles::testData("Multipath/data/lunctl-query-wwpn.txt"));
    fakes::LogCapture log;
    MultipathZPLLinux zpl;
    EXPECT_EQ(RC_DRIVER_CMD_FAILED,
              zpl.setState(kSettingOnline, "lundev2", {"10000000c95a3b11", "10000000c9", "10000000c95a3b10"}));
    EXPECT_EQ((Lines{"query device", "query wwpn", "set device 2 path 1 online"}), tools.calls("lunctl"));
    EXPECT_TRUE(zpl.getErrorWWPNs().empty());
    EXPECT_EQ("", log.text());
}

}  // namespace
