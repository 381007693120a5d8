#include "Multipath/MultipathZPL.h"

#include <climits>
#include <map>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "gtest/gtest.h"
#include "tests/fakes/zpl/FakeTools.h"

namespace {

using zplText::Lookup;

const std::string kDevices = zpltest::readFile(PP_TESTS_DIR "/data/lunctl-query-device.txt");
const std::string kOlderDevices = zpltest::readFile(PP_TESTS_DIR "/data/lunctl-query-device.older.txt");
const std::string kWwpns = zpltest::readFile(PP_TESTS_DIR "/data/lunctl-query-wwpn.txt");
const std::string kMixed = "Dev#:  4  Device Name: lunA\nDEV#:   5  DEVICE NAME: lunB\nDev#:  6  Device Name: lunC\n";
const char kHost2[] = "10:00:00:00:c9:5a:3b:10";
const char kHost3[] = "10:00:00:00:c9:5a:3b:11";
const char kHost4[] = "21:00:00:e0:8b:12:ab:cd";

// Answers each command line from a table (default: exit 0, no output) and records it.
class ScriptedZPL : public MultipathZPL {
public:
    ScriptedZPL() {
        answers["lunctl query device"] = {0, kDevices, "", ""};
        answers["lunctl query wwpn"] = {0, kWwpns, "", ""};
    }
    int32_t performDynamicReconfiguration() override { return RC_OK; }
    std::map<std::string, ZplCommandResult> answers;
    std::vector<std::string> ran;

protected:
    ZplCommandResult runWords(const std::vector<std::string>& words) override {
        std::string line;
        for (const std::string& word : words) line += (line.empty() ? "" : " ") + word;
        ran.push_back(line);
        ZplCommandResult result = answers.count(line) ? answers[line] : ZplCommandResult{0, "", "", ""};
        result.cmdLine = line;
        return result;
    }
};

TEST(MultipathZPLTest, ReadIntActsLikeDecimalScan) {
    struct Case {
        const char* text;
        bool ok;
        int32_t value;
    } cases[] = {
        {"  42 rest", true, 42}, {"\n    3    host2", true, 3}, {"-7", true, -7},       {"+5x", true, 5},
        {"99999999999", true, INT32_MAX}, {"", false, 0},     {" n/a  ", false, 0}, {"SERIAL: 1", false, 0},
    };
    for (const Case& c : cases) {
        int32_t value = 0;
        EXPECT_EQ(c.ok, zplText::readInt(c.text, &value)) << c.text;
        if (c.ok) {
            EXPECT_EQ(c.value, value) << c.text;
        }
    }
}

TEST(MultipathZPLTest, FindDevIdInBothHeaderStyles) {
    struct Case {
        const std::string* text;
        const char* device;
        int32_t id;
    } cases[] = {
        {&kDevices, "lundev0", 0},       {&kDevices, "lundev1", 1},       {&kDevices, "lundev2", 2},
        {&kDevices, "lundev12", 12},     {&kDevices, "60050768018101BF2800000000000022", 1},
        {&kOlderDevices, "lundev0", 0},  {&kOlderDevices, "lundev1", 1},
        // "DEV#" is looked for before "Dev#": a "Dev#" block after a "DEV#" block
        // resolves to the earlier header; a leading "Dev#" block still resolves.
        {&kMixed, "lunA", 4},            {&kMixed, "lunB", 5},            {&kMixed, "lunC", 5},
    };
    for (const Case& c : cases) {
        zplText::IdLookup found = zplText::findDevId(*c.text, c.device);
        EXPECT_EQ(Lookup::kFound, found.outcome) << c.device;
        EXPECT_EQ(c.id, found.id) << c.device;
    }
}

TEST(MultipathZPLTest, FindDevIdFailures) {
    struct Case {
        const char* text;
        const char* device;
        Lookup outcome;
        const char* read;
    } cases[] = {
        {"DEV#:   0  DEVICE NAME: lundev0\n", "lundev9", Lookup::kNoName, ""},
        {"Total Devices : 1\nlundev0\n", "lundev0", Lookup::kNoAnchor, ""},
        {"DEV#: n/a   DEVICE NAME: lundev0\n", "lundev0", Lookup::kNotANumber, " n/a  "},
        {"DEV#lundev0", "lundev0", Lookup::kNotANumber, "undev0"},
        {"xx DEV#", "DEV#", Lookup::kNotANumber, ""},  // header at the very end: nothing to read
        {"", "lundev0", Lookup::kNoName, ""},
    };
    for (const Case& c : cases) {
        zplText::IdLookup found = zplText::findDevId(c.text, c.device);
        EXPECT_EQ(c.outcome, found.outcome) << c.text;
        EXPECT_EQ(-1, found.id) << c.text;
        EXPECT_EQ(c.read, found.text) << c.text;
    }
}

TEST(MultipathZPLTest, FindPathIdOnTheAdapterAfterTheDevice) {
    struct Case {
        const std::string* text;
        const char* serial;
        const char* adapter;
        Lookup outcome;
        int32_t id;
    } cases[] = {
        {&kDevices, "lundev0", "host2", Lookup::kFound, 0},
        {&kDevices, "lundev0", "host3", Lookup::kFound, 1},
        {&kDevices, "lundev1", "host2", Lookup::kFound, 1},
        {&kDevices, "lundev1", "host3", Lookup::kFound, 0},
        {&kDevices, "lundev2", "host3", Lookup::kFound, 1},
        {&kOlderDevices, "lundev1", "host2", Lookup::kFound, 1},
        {&kDevices, "lundev12", "host3", Lookup::kNoAnchor, -1},  // no path on that adapter
        {&kDevices, "lundev7", "host2", Lookup::kNoName, -1},
        {&kDevices, "lundev0", "", Lookup::kNotANumber, -1},  // no adapter: the device's own line
    };
    for (const Case& c : cases) {
        zplText::IdLookup found = zplText::findPathId(*c.text, c.serial, c.adapter);
        EXPECT_EQ(c.outcome, found.outcome) << c.serial << " " << c.adapter;
        EXPECT_EQ(c.id, found.id) << c.serial << " " << c.adapter;
    }
}

TEST(MultipathZPLTest, FindAdapterNameCutsAtColon) {
    struct Case {
        const std::string text;
        const char* wwpn;
        bool found;
        const char* adapter;
    } cases[] = {
        {kWwpns, kHost2, true, "host2"},
        {kWwpns, kHost3, true, "host3"},
        {kWwpns, kHost4, true, "host4"},
        {kWwpns, "10:00:00:00:c9:00:00:00", false, ""},
        {"host9 1000000000000009", "1000000000000009", true, "host9 "},
    };
    for (const Case& c : cases) {
        std::string adapter;
        EXPECT_EQ(c.found, zplText::findAdapterName(c.text, c.wwpn, &adapter)) << c.wwpn;
        EXPECT_EQ(c.adapter, adapter) << c.wwpn;
    }
}

TEST(MultipathZPLTest, CutQueryNeverYieldsAWrongNumber) {
    for (size_t cut = 0; cut <= kDevices.size(); ++cut) {
        std::string text = kDevices.substr(0, cut);
        zplText::IdLookup dev = zplText::findDevId(text, "lundev12");
        if (dev.outcome == Lookup::kFound) {
            EXPECT_EQ(12, dev.id) << cut;
        }
        zplText::IdLookup path = zplText::findPathId(text, "lundev1", "host2");
        if (path.outcome == Lookup::kFound) {
            EXPECT_EQ(1, path.id) << cut;
        }
    }
}

TEST(MultipathZPLTest, CompareVersions) {
    struct Case {
        const char* first;
        const char* second;
        int32_t result;
    } cases[] = {
        {"1.6.1.0", "1.6.0.9", 1}, {"1.6.1.0", "1.6.1.0", 0}, {"1.5.9.9", "1.6.0.0", -1},
        {"1.6.1.10", "1.6.1.2", 8}, {"1.6", "1.6.0.0", 0},    {"abc", "0.0.0.0", 0},
    };
    for (const Case& c : cases) EXPECT_EQ(c.result, zplText::compareVersions(c.first, c.second)) << c.first;
}

TEST(MultipathZPLTest, SetPolicyWordBySetting) {
    struct Case {
        int32_t setting;
        const char* word;
    } cases[] = {{2, "lb"}, {3, "rr"}, {4, "fo"}, {0, "fo"}, {7, "fo"}, {-1, "fo"}};
    for (const Case& c : cases) {
        ScriptedZPL zpl;
        EXPECT_EQ(RC_OK, zpl.setPolicy(c.setting, {"lundev1"})) << c.setting;
        EXPECT_EQ(std::string("lunctl set device 1 policy ") + c.word, zpl.ran.back()) << c.setting;
    }
}

TEST(MultipathZPLTest, SetPolicyFailuresAreCollected) {
    const char* set0 = "lunctl set device 0 policy lb";
    const char* set1 = "lunctl set device 1 policy lb";
    struct Case {
        std::vector<std::string> devices;
        ZplCommandResult answer;  // of set0
        int32_t rc;
        std::vector<std::string> failed;
        const char* message;
        const char* lastCommand;  // only a command that cannot run stops the loop
    } cases[] = {
        {{"nodev"}, {0, "", "", ""}, RC_ZPL_DEVICE_NOT_FOUND, {"nodev"}, "AGT0452E", "lunctl query device"},
        {{"lundev0", "lundev1"}, {2, "busy", "", ""}, RC_DRIVER_CMD_FAILED, {"lundev0"}, "AGT0453E", set1},
        {{"lundev0", "lundev1"}, {0, "Invalid argument", "", ""}, RC_DRIVER_CMD_FAILED, {"lundev0"}, "AGT0453E", set1},
        {{"lundev0", "nodev"}, {2, "busy", "", ""}, RC_ZPL_DEVICE_NOT_FOUND, {"lundev0", "nodev"}, "AGT0452E", set0},
        {{"lundev0", "lundev1"}, {RC_NOT_RUN, "", "", ""}, RC_DRIVER_CMD_FAILED, {}, "STA0356E", set0},
    };
    for (const Case& c : cases) {
        zpltest::LogCapture log;
        zpltest::TraceCapture trace;
        ScriptedZPL zpl;
        zpl.answers[set0] = c.answer;
        EXPECT_EQ(c.rc, zpl.setPolicy(kSettingLoadBalancing, c.devices)) << c.message;
        EXPECT_EQ(c.failed, zpl.getErrorDevices()) << c.message;
        EXPECT_NE(std::string::npos, log.text().find(c.message)) << c.message;
        EXPECT_EQ(c.lastCommand, zpl.ran.back()) << c.message;
        if (c.rc == RC_ZPL_DEVICE_NOT_FOUND) {
            EXPECT_TRUE(trace.has("No match for: nodev\n"));
            EXPECT_TRUE(trace.has("No ZPL Device for nodev.\n"));
        }
    }
}

TEST(MultipathZPLTest, SetStateWordBySettingAndPathPerWwpn) {
    struct Case {
        int32_t setting;
        const char* word;
    } cases[] = {{0, "offline"}, {1, "online"}, {5, "online"}};
    for (const Case& c : cases) {
        ScriptedZPL zpl;
        EXPECT_EQ(RC_OK, zpl.setState(c.setting, "lundev1", {kHost2, kHost3}));
        std::vector<std::string> expected = {"lunctl query device", "lunctl query wwpn",
                                             std::string("lunctl set device 1 path 1 ") + c.word,
                                             std::string("lunctl set device 1 path 0 ") + c.word};
        EXPECT_EQ(expected, zpl.ran) << c.setting;
    }
}

TEST(MultipathZPLTest, SetStateFailuresAreCollected) {
    struct Case {
        ZplCommandResult answer;  // of "set device 1 path 1 offline" (host2)
        int32_t rc;
        std::vector<std::string> failed;
        size_t commands;
    } cases[] = {
        {{0, "", "", ""}, RC_ZPL_DEVICE_NOT_FOUND, {kHost4}, 4},         // host4 has no path
        {{3, "busy", "", ""}, RC_ZPL_DEVICE_NOT_FOUND, {kHost2, kHost4}, 4},
        {{0, "No device file found", "", ""}, RC_ZPL_DEVICE_NOT_FOUND, {kHost2, kHost4}, 4},
        {{RC_NOT_RUN, "", "", ""}, RC_DRIVER_CMD_FAILED, {}, 3},         // stops the loop
    };
    for (const Case& c : cases) {
        ScriptedZPL zpl;
        zpl.answers["lunctl set device 1 path 1 offline"] = c.answer;
        EXPECT_EQ(c.rc, zpl.setState(kSettingOffline, "lundev1", {kHost2, kHost4, kHost3}));
        EXPECT_EQ(c.failed, zpl.getErrorWWPNs());
        EXPECT_EQ(c.commands, zpl.ran.size());
    }
}

TEST(MultipathZPLTest, FailedDeviceQueryIsRetriedAndNotCached) {
    struct Case {
        ZplCommandResult answer;
        const char* trace;
    } cases[] = {
        {{1, "", "lunctl: driver not loaded", ""}, "Failed to get 'lunctl query device': lunctl: driver not loaded\n"},
        {{0, "No device file found", "", ""}, "Failed to get 'lunctl query device': No device file found\n"},
        {{RC_NOT_RUN, "", "", ""}, "Execute command lunctl query device failed.\n"},
    };
    for (const Case& c : cases) {
        zpltest::TraceCapture trace;
        ScriptedZPL zpl;
        zpl.answers["lunctl query device"] = c.answer;
        EXPECT_EQ(-1, zpl.getDevId("lundev0"));
        EXPECT_EQ(-1, zpl.getDevId("lundev0"));
        EXPECT_EQ(2u, zpl.ran.size());
        EXPECT_TRUE(trace.has(c.trace)) << c.trace;
        EXPECT_TRUE(trace.has("Exit: getDeviceOutput(), success = FALSE"));
    }
}

TEST(MultipathZPLTest, QueriesRunOnceAndConversionFailureIsTraced) {
    zpltest::TraceCapture trace;
    ScriptedZPL zpl;
    zpl.answers["lunctl query device"].out = "DEV#: n/a   DEVICE NAME: lundev0\n" + kDevices;
    EXPECT_EQ(-1, zpl.getDevId("lundev0"));
    EXPECT_EQ(1, zpl.getDevId("lundev1"));
    EXPECT_EQ(0, zpl.getPathId("lundev1", kHost3));
    EXPECT_EQ(1, zpl.getPathId("lundev0", kHost3));
    EXPECT_EQ(2u, zpl.ran.size());
    EXPECT_TRUE(trace.has("getDevId() Could not convert ' n/a  ' to an integer\n"));
}

TEST(MultipathZPLTest, InvalidWwpnQueryGivesNoAdapter) {
    zpltest::TraceCapture trace;
    ScriptedZPL zpl;
    zpl.answers["lunctl query wwpn"] = {1, "Invalid argument\n", "", ""};
    EXPECT_EQ("", zpl.getAdapterName(kHost2));
    EXPECT_TRUE(trace.has("getAdapterName() Failed to get 'lunctl query wwpn'.\n"));
}

}  // namespace
