#include "Multipath/MultipathZPL.h"

#include <map>

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
        // resolves to the earlier header; a leading "Dev#" block still resolves.
        {kMixed, "lunA", nullptr, Lookup::kFound, 4},
        {kMixed, "lunC", nullptr, Lookup::kFound, 5},
        {kDevices, "lundev9", nullptr, Lookup::kNoName, -1},
        {"Total Devices : 1\nDEVICE NAME: lundev0\n", "lundev0", nullptr, Lookup::kNoAnchor, -1},
        {"DEV#: n/a   DEVICE NAME: lundev0\n", "lundev0", nullptr, Lookup::kNotANumber, -1},
        {kDevices, "lundev0", "host3", Lookup::kFound, 1},
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

TEST(MultipathZPLTest, PolicyAndStateWordsBySetting) {
    // Load balancing and round robin are ActionsE2eTest's; every other setting is failover.
    const std::pair<int32_t, const char*> policies[] = {{4, "fo"}, {0, "fo"}};
    for (const auto& c : policies) {
        ScriptedZPL zpl;
        EXPECT_EQ(RC_OK, zpl.setPolicy(c.first, {"lundev1"})) << c.first;
        EXPECT_EQ(std::string("lunctl set device 1 policy ") + c.second, zpl.ran.back()) << c.first;
    }
    ScriptedZPL zpl;
    EXPECT_EQ(RC_OK, zpl.setState(5, "lundev1", {kHost2}));  // any setting but 0 brings paths online
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
    ScriptedZPL invalid;
    invalid.answers["lunctl query wwpn"] = answer(1, "Invalid argument\n");
    EXPECT_EQ(RC_ZPL_DEVICE_NOT_FOUND, invalid.setState(kSettingOnline, "lundev1", {kHost2}));
    EXPECT_EQ(Lines{kHost2}, invalid.getErrorWWPNs());
}

// Only a good device query is kept: a failed one is asked again at the next lookup.
TEST(MultipathZPLTest, FailedDeviceQueryIsRetriedAndNotCached) {
    const struct { CommandResult answer; int32_t id; const char* traced; } cases[] = {
        {answer(0, kDevices), 12, ""},
        {answer(1, "", "lunctl: not loaded"), -1, "Failed to get 'lunctl query device': lunctl: not loaded\n"},
        {answer(0, "No device file found"), -1, "Failed to get 'lunctl query device': No device file found\n"},
    };
    for (const auto& c : cases) {
        fakes::TraceCapture trace;
        ScriptedZPL zpl;
        zpl.answers["lunctl query device"] = c.answer;
        EXPECT_EQ(c.id, zpl.getDevId("lundev12"));
        EXPECT_EQ(c.id, zpl.getDevId("lundev12"));
        EXPECT_EQ(c.id < 0 ? 2u : 1u, zpl.ran.size()) << c.traced;
        EXPECT_THAT(trace.text(), HasSubstr(c.traced));
    }
}

}  // namespace
