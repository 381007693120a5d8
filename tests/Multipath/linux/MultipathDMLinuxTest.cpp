#include "Multipath/linux/MultipathDMLinux.h"

#include <algorithm>

#include "tests/fakes/FakeTools.h"

namespace {

using Lines = std::vector<std::string>;
using ::testing::HasSubstr;

std::string fixture(const std::string& name) { return testfiles::testData("Multipath/linux/data/" + name); }

// A driver whose commands holding a chosen word cannot be run (or get no executor).
class FailingDriver : public MultipathDMLinux {
public:
    FailingDriver(const std::string& dir, std::string word, bool created)
        : MultipathDMLinux(dir), word_(dir + word), created_(created) {}

protected:
    CommandResult runTool(const std::vector<std::string>& args) override {
        std::string word = word_.substr(word_.rfind('/') + 1);
        bool hit = args[0] == word_ || std::find(args.begin(), args.end(), word) != args.end();
        if (!hit) return MultipathDMLinux::runTool(args);
        CommandResult run;
        run.created = created_;
        run.cmdLine = args[0] + " " + word;
        return run;
    }

private:
    std::string word_;
    bool created_;
};

struct FixedVersionDriver : MultipathDMLinux {
    std::string version;
    std::string getVersion() override { return version; }
};

// Fake rpm, multipath and dmsetup, with the tools' package installed.
class MultipathDMLinuxTest : public ::testing::Test {
protected:
    MultipathDMLinuxTest() {
        tools.answer("rpm.-qa", "bash-5.2.15-2\nmultipath-tools-0.9.4-3\nlibc6-2.36\n");
        tools.answer("rpm", "multipath-tools-0.9.4-3\n");  // every "rpm -q <package>"
    }
    DmListingResult listing(MultipathDMLinux* driver, Topology* topology, MultipathDriver* versionFrom = nullptr) {
        DmListingResult result;
        driver->getMultipathConfig(topology, versionFrom, &result);
        return result;
    }

    fakes::FakeTools tools{"rpm", "multipath", "dmsetup", "multipathd"};
};

// The package list goes through the real awk, so its filter is exercised too.
TEST_F(MultipathDMLinuxTest, VersionFromPackageQuery) {
    const char* cases[][5] = {  // packages listed, what "rpm -q" says and on stderr, version, trace
        {"bash\nmultipath-tools-0.9.4-3\n", "multipath-tools-0.9.4-3\nsecond\n", "", "multipath-tools-0.9.4-3",
         "multipath driver version: multipath-tools-0.9.4-3\n"},
        {"device-mapper-multipath-0.4.9-1\n", "device-mapper-multipath-0.4.9-1\n", "",
         "device-mapper-multipath-0.4.9-1", "version: device-mapper-multipath-0.4.9-1\n"},
        {"bash\nlibc6\n", "bash\n", "", "", "multipath driver version: <NULL>\n"},
        {"multipath-tools\n", "package multipath-tools is not installed\n", "", "",
         "No multipath tools version installed.\n"},
        {"multipath-tools-0.9.4-3\n", "multipath-tools-0.9.4-3\n", "warning: rpmdb is locked\n", "",
         "Error getting Multipath version: warning: rpmdb is locked\\n\n"},  // the line feed escaped
    };
    for (const auto& c : cases) {
        fakes::TraceCapture trace;
        tools.answer("rpm.-qa", c[0]);
        tools.answer("rpm", c[1], 0, c[2]);
        const size_t before = tools.calls("rpm").size();
        MultipathDMLinux driver(tools.dir());
        EXPECT_EQ(driver.getVersion(), c[3]) << c[0];
        EXPECT_THAT(trace.text(), HasSubstr(c[4])) << c[0];
        // Only a version is cached: without one the next call asks rpm again.
        EXPECT_EQ(driver.getVersion(), c[3]) << c[0];
        const Lines calls = tools.calls("rpm");
        EXPECT_EQ(std::count(calls.begin() + before, calls.end(), "-qa"), *c[3] ? 1 : 2) << c[0];
    }
    // A package filter that fails gives no version, whatever it printed.
    fakes::LogCapture log;
    tools.install("awk");
    tools.answer("awk", "multipath-tools-0.9.4-3\n", 2, "awk: syntax error\n");
    EXPECT_EQ(MultipathDMLinux(tools.dir()).getVersion(), "");
    EXPECT_THAT(log.text(), HasSubstr("STA0356E"));
}

// The end-to-end suite runs the policy changes; here the settings no request routes
// to a policy change.
TEST_F(MultipathDMLinuxTest, OnlyRoundRobinPolicyIsApplied) {
    MultipathDMLinux driver(tools.dir());
    for (int32_t setting : {kSettingOffline, kSettingOnline, kSettingWalkTheBus}) {
        EXPECT_EQ(driver.setPolicy(setting, {"mpatha"}), RC_SETTING_NOT_SUPPORTED) << setting;
    }
    EXPECT_TRUE(tools.calls("multipath").empty());
}

TEST_F(MultipathDMLinuxTest, TopologyOfRealListingWithTheVersionItIsGiven) {
    tools.answer("multipath", fixture("multipath-ll-v2.two-maps.stdout"));
    MultipathDMLinux driver(tools.dir());
    Topology topology;
    EXPECT_EQ(listing(&driver, &topology).status, DmListingStatus::kParsed);
    EXPECT_EQ(tools.calls("multipath"), Lines{"-ll -v2"});
    ASSERT_EQ(topology.size(), 4u);
    EXPECT_EQ(topology.at("sdd")->driverVersion, "Device Mapper Multipath Version 0.9.4-3");
    FixedVersionDriver other;
    other.version = "device-mapper-multipath-0.4.8-x";
    Topology second;
    listing(&driver, &second, &other);
    EXPECT_EQ(second.at("sdd")->driverVersion, "Device Mapper Multipath Version 0.4.8-x");
    FixedVersionDriver none;
    EXPECT_EQ(listing(&driver, &second, &none).status, DmListingStatus::kNoDriver);
    EXPECT_EQ(tools.calls("multipath").size(), 2u);
    EXPECT_EQ(tools.calls("rpm").size(), 2u);
}

TEST_F(MultipathDMLinuxTest, SwitchStopsAtFirstCommandThatCannotRun) {
    const struct { const char* word; bool created; Lines calls; const char* traced; } cases[] = {
        {"table", true, {"ls"}, "Unable to get the mpath's information using table command.\n"},
        {"message", false, {"ls", "table mpatha"},
         "'dmsetup message [multipathName] 0 \"fail_if_no_path\"' command failed!\n"},
    };
    for (const auto& c : cases) {
        fakes::FakeTools caseTools{"dmsetup"};
        fakes::LogCapture log;
        fakes::TraceCapture trace;
        caseTools.answer("dmsetup.ls", fixture("dmsetup-ls.two-maps.stdout"));
        caseTools.answer("dmsetup.table.mpatha", fixture("dmsetup-table.queueing.stdout"));
        DmQueueingSwitchResult result;
        EXPECT_EQ(FailingDriver(caseTools.dir(), c.word, c.created).setFailIfNoPath(&result), RC_OK);
        EXPECT_TRUE(result.stopped) << c.traced;
        EXPECT_EQ(result.failedCommand, caseTools.dir() + "dmsetup " + c.word);
        EXPECT_EQ(caseTools.calls("dmsetup"), c.calls) << c.traced;
        EXPECT_THAT(log.text(), HasSubstr("STA0356E"));
        EXPECT_THAT(trace.text(), HasSubstr(c.traced));
    }
}

// The command is made of fixed words and the device; a name that could be read as
// an option or shell text never reaches multipathd.
TEST_F(MultipathDMLinuxTest, PathStateThroughMultipathd) {
    const struct { const char* device; bool fail; const char* out; int status; int32_t rc; } cases[] = {
        {"sda", true, "ok\n", 0, RC_OK},
        {"sdb", false, "ok\n", 0, RC_OK},
        {"sdc", true, "fail\n", 1, RC_DRIVER_CMD_FAILED},
        {"sdd", true, "fail\n", 0, RC_DRIVER_CMD_FAILED},
        {"-v3", true, "ok\n", 0, RC_BAD_ARGS},
        {"sde;reboot", true, "ok\n", 0, RC_BAD_ARGS},
    };
    Lines expected;
    for (const auto& c : cases) {
        std::string call = std::string(c.fail ? "fail" : "reinstate") + " path " + c.device;
        tools.answer("multipathd." + std::string(c.fail ? "fail" : "reinstate") + ".path." + c.device, c.out, c.status);
        CommandResult run;
        EXPECT_EQ(MultipathDMLinux(tools.dir()).changePathState(c.device, c.fail, &run), c.rc) << c.device;
        if (c.rc != RC_BAD_ARGS) expected.push_back(call);
    }
    EXPECT_EQ(tools.calls("multipathd"), expected);
}

}  // namespace
