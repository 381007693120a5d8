// The vendor driver: its lunctl commands and answers from a table, and the Linux
// driver's package query, reconfiguration and WWPN form through fake tools.
#include <map>

#include "Multipath/MultipathZPL.h"
#include "Multipath/linux/MultipathZPLLinux.h"

#include "tests/fakes/FakeTools.h"

namespace {

using ::testing::HasSubstr;
using zplText::Lookup;
using Lines = std::vector<std::string>;

const std::string kDevices = testfiles::testData("Multipath/data/lunctl-query-device.txt");
const std::string kOlderDevices = testfiles::testData("Multipath/data/lunctl-query-device.older.txt");
const std::string kWwpns = testfiles::testData("Multipath/data/lunctl-query-wwpn.txt");
const std::string kMixed = "Dev#:  4  Device Name: lunA\nDEV#:   5  DEVICE NAME: lunB\nDev#:  6  Device Name: lunC\n";
const char kHost2[] = "10:00:00:00:c9:5a:3b:10";
const char kHost3[] = "10:00:00:00:c9:5a:3b:11";
const char kHost4[] = "21:00:00:e0:8b:12:ab:cd";

CommandResult answer(int32_t rc, const std::string& out = "", const std::string& err = "") {
    return {true, rc, "", out, err};
}

// Answers each command line from a table (default: exit 0, no output) and records it.
class ScriptedZPL : public MultipathZPL {
public:
    ScriptedZPL() {
        answers["lunctl query device"] = answer(0, kDevices);
        answers["lunctl query wwpn"] = answer(0, kWwpns);
    }
    int32_t performDynamicReconfiguration() override { return RC_OK; }
    std::map<std::string, CommandResult> answers;
    Lines ran;

protected:
    CommandResult runWords(const std::vector<std::string>& words) override {
        std::string line;
        for (const std::string& word : words) line += (line.empty() ? "" : " ") + word;
        ran.push_back(line);
        CommandResult result = answers.count(line) ? answers[line] : answer(0);
        result.cmdLine = line;
        return result;
    }
};

// A device by its name or serial; with an adapter, the path on it after the device.
TEST(MultipathZPLTest, FindDevIdAndPathIdInBothHeaderStyles) {
    const struct { std::string text; const char* name; const char* adapter; Lookup outcome; int32_t id; } cases[] = {
        {kDevices, "lundev12", nullptr, Lookup::kFound, 12},
        {kDevices, "60050768018101BF2800000000000022", nullptr, Lookup::kFound, 1},
        // "DEV#" is looked for before "Dev#": a "Dev#" block after a "DEV#" block
        // resolves to the earlier header.
        {kMixed, "lunC", nullptr, Lookup::kFound, 5},
        {kDevices, "lundev9", nullptr, Lookup::kNoName, -1},
        {"Total Devices : 1\nDEVICE NAME: lundev0\n", "lundev0", nullptr, Lookup::kNoAnchor, -1},
        {"DEV#: n/a   DEVICE NAME: lundev0\n", "lundev0", nullptr, Lookup::kNotANumber, -1},
        {kOlderDevices, "lundev1", "host2", Lookup::kFound, 1},
        {kDevices, "lundev12", "host3", Lookup::kNoAnchor, -1},  // no path on that adapter
    };
    for (const auto& c : cases) {
        zplText::IdLookup found =
            c.adapter ? zplText::findPathId(c.text, c.name, c.adapter) : zplText::findDevId(c.text, c.name);
        EXPECT_EQ(c.outcome, found.outcome) << c.name << " " << (c.adapter ? c.adapter : "");
        EXPECT_EQ(c.id, found.id) << c.name << " " << (c.adapter ? c.adapter : "");
    }
}

// Every setting but load balancing and round robin is failover; any state setting
// but 0 brings paths online.
TEST(MultipathZPLTest, FailoverAndOnlineByDefault) {
    ScriptedZPL zpl;
    EXPECT_EQ(RC_OK, zpl.setPolicy(4, {"lundev1"}));
    EXPECT_EQ("lunctl set device 1 policy fo", zpl.ran.back());
    EXPECT_EQ(RC_OK, zpl.setState(5, "lundev1", {kHost2}));
    EXPECT_EQ("lunctl set device 1 path 1 online", zpl.ran.back());
}

TEST(MultipathZPLTest, SetPolicyFailuresAreCollected) {
    const char* set0 = "lunctl set device 0 policy lb";
    const char* set1 = "lunctl set device 1 policy lb";
    // The answer is set0's; only a command that cannot run stops the loop.
    const struct { Lines devices; CommandResult answer; int32_t rc; Lines failed; const char* message;
                   const char* lastCommand; } cases[] = {
        {{"lundev0", "lundev1"}, answer(0, "Invalid argument"), RC_DRIVER_CMD_FAILED, {"lundev0"}, "AGT0453E", set1},
        {{"lundev0", "nodev"}, answer(2, "busy"), RC_ZPL_DEVICE_NOT_FOUND, {"lundev0", "nodev"}, "AGT0452E", set0},
    };
    for (const auto& c : cases) {
        fakes::LogCapture log;
        ScriptedZPL zpl;
        zpl.answers[set0] = c.answer;
        EXPECT_EQ(c.rc, zpl.setPolicy(kSettingLoadBalancing, c.devices)) << c.message;
        EXPECT_EQ(c.failed, zpl.getErrorDevices()) << c.message;
        EXPECT_THAT(log.text(), HasSubstr(c.message));
        EXPECT_EQ(c.lastCommand, zpl.ran.back()) << c.message;
    }
}

TEST(MultipathZPLTest, SetStateFailuresAreCollected) {
    // The answer is that of "set device 1 path 1 offline" (host2).
    const struct { CommandResult answer; int32_t rc; Lines failed; size_t commands; } cases[] = {
        {answer(0), RC_ZPL_DEVICE_NOT_FOUND, {kHost4}, 4},  // host4 has no path
        {answer(3, "busy"), RC_ZPL_DEVICE_NOT_FOUND, {kHost2, kHost4}, 4},
        {answer(RC_NOT_RUN), RC_DRIVER_CMD_FAILED, {}, 3},  // stops the loop
    };
    for (const auto& c : cases) {
        ScriptedZPL zpl;
        zpl.answers["lunctl set device 1 path 1 offline"] = c.answer;
        EXPECT_EQ(c.rc, zpl.setState(kSettingOffline, "lundev1", {kHost2, kHost4, kHost3}));
        EXPECT_EQ(c.failed, zpl.getErrorWWPNs());
        EXPECT_EQ(c.commands, zpl.ran.size());
    }
}

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
        {"1234567890abcdef", "12:34:56:78:90:ab:cd:ef"}, {"1234567890abcde", "12:34:56:78:90:ab:cd:e"},
        // Only the pair at 14 follows: extra characters are dropped.
        {"1234567890abcdef01", "12:34:56:78:90:ab:cd:ef"}, {"1234567890abc", ""}, {"", ""},
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
    tools.answer("lunctl.query.device", kDevices);
    tools.answer("lunctl.query.wwpn", kWwpns);
    fakes::LogCapture log;
    MultipathZPLLinux zpl;
    EXPECT_EQ(RC_DRIVER_CMD_FAILED,
              zpl.setState(kSettingOnline, "lundev2", {"10000000c95a3b11", "10000000c9", "10000000c95a3b10"}));
    EXPECT_EQ((Lines{"query device", "query wwpn", "set device 2 path 1 online"}), tools.calls("lunctl"));
    EXPECT_TRUE(zpl.getErrorWWPNs().empty());
    EXPECT_EQ("", log.text());
}

}  // namespace
