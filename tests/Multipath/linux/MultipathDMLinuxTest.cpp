#include "Multipath/linux/MultipathDMLinux.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "tests/Multipath/linux/DmTestSupport.h"

namespace {

using dmtest::fixture;
using Lines = std::vector<std::string>;

const char kPackageQuery[] =
    "Executing command: \"rpm\" -qa | awk '/device-mapper-multipath|multipath-tools/ {system(\"rpm -q \"$1)}' >>";

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// A driver whose commands containing a chosen word cannot be run (or get no executor).
class FailingDriver : public MultipathDMLinux {
public:
    FailingDriver(const std::string& dir, std::string word, bool created)
        : MultipathDMLinux(dir), dir_(dir), word_(std::move(word)), created_(created) {}

protected:
    DmToolRun runTool(const std::vector<std::string>& args) override {
        for (const std::string& arg : args) {
            if (arg == word_ || arg == dir_ + word_) {
                DmToolRun run;
                run.created = created_;
                run.command = args[0] + " " + word_;
                return run;
            }
        }
        return MultipathDMLinux::runTool(args);
    }

private:
    std::string dir_;
    std::string word_;
    bool created_;
};

class FixedVersionDriver : public MultipathDMLinux {
public:
    explicit FixedVersionDriver(std::string version) : version_(std::move(version)) {}
    std::string getVersion() override { return version_; }

private:
    std::string version_;
};

// Fake rpm, multipath and dmsetup in a private tool directory that is also first on PATH.
class MultipathDMLinuxTest : public ::testing::Test {
protected:
    MultipathDMLinuxTest() : path_(tools.dir()) {
        for (const char* tool : {"rpm", "multipath", "dmsetup"}) tools.install(tool);
        tools.answer("rpm.-qa", "bash-5.2.15-2\nmultipath-tools-0.9.4-3\nlibc6-2.36\n");
        tools.answer("rpm.-q.multipath-tools-0.9.4-3", "multipath-tools-0.9.4-3\n");
    }
    bool ran(const std::string& tool) const { return access((tools.dir() + tool + ".args").c_str(), F_OK) == 0; }

    dmtest::FakeTools tools;
    dmtest::PathPrefix path_;
};

TEST_F(MultipathDMLinuxTest, VersionFromPackageQuery) {
    struct {
        const char* name;
        const char* listed;
        std::vector<std::pair<std::string, std::string>> answers;  // package, rpm -q output
        const char* queryErr;
        const char* version;
        const char* traced;
    } cases[] = {
        {"installed", "bash\nmultipath-tools-0.9.4-3\n", {{"multipath-tools-0.9.4-3", "multipath-tools-0.9.4-3\n"}}, "",
         "multipath-tools-0.9.4-3", "multipath driver version: multipath-tools-0.9.4-3\n"},
        {"first of two packages",
         "device-mapper-multipath-libs-0.4.9-1\ndevice-mapper-multipath-0.4.9-1\n",
         {{"device-mapper-multipath-libs-0.4.9-1", "device-mapper-multipath-libs-0.4.9-1\n"},
          {"device-mapper-multipath-0.4.9-1", "device-mapper-multipath-0.4.9-1\n"}},
         "", "device-mapper-multipath-libs-0.4.9-1", "version: device-mapper-multipath-libs-0.4.9-1\n"},
        {"none installed", "bash\nlibc6\n", {}, "", "", "multipath driver version: <NULL>\n"},
        {"marker after text", "multipath-tools\n", {{"multipath-tools", "package multipath-tools is not installed\n"}}, "",
         "", "No multipath tools version installed.\n"},
        {"marker at the start", "multipath-tools\n", {{"multipath-tools", "multipath-tools is not installed\n"}}, "",
         "multipath-tools is not installed", "version: multipath-tools is not installed\n"},
        {"warning on stderr", "multipath-tools-0.9.4-3\n", {{"multipath-tools-0.9.4-3", "multipath-tools-0.9.4-3\n"}},
         "warning: rpmdb is locked\n", "", "Error getting Multipath version: warning: rpmdb is locked\n"},
    };
    for (const auto& c : cases) {
        dmtest::FakeTools caseTools;
        dmtest::PathPrefix casePath(caseTools.dir());
        dmtest::TraceCapture caseTrace;
        caseTools.install("rpm");
        caseTools.answer("rpm.-qa", c.listed);
        for (const auto& answer : c.answers) caseTools.answer("rpm.-q." + answer.first, answer.second, 0, c.queryErr);
        MultipathDMLinux driver(caseTools.dir());
        EXPECT_EQ(driver.getVersion(), c.version) << c.name;
        std::string text = caseTrace.text();
        EXPECT_TRUE(has(text, c.traced)) << c.name << "\n" << text;
        EXPECT_TRUE(has(text, kPackageQuery)) << c.name << "\n" << text;
    }
}

TEST_F(MultipathDMLinuxTest, VersionCachedOnlyAfterSuccess) {
    MultipathDMLinux driver(tools.dir());
    EXPECT_EQ(driver.getVersion(), "multipath-tools-0.9.4-3");
    EXPECT_EQ(driver.getVersion(), "multipath-tools-0.9.4-3");
    EXPECT_EQ(tools.calls("rpm"), (Lines{"-qa", "-q multipath-tools-0.9.4-3"}));

    tools.answer("rpm.-qa", "bash\n");
    MultipathDMLinux empty(tools.dir());
    EXPECT_EQ(empty.getVersion(), "");
    EXPECT_EQ(empty.getVersion(), "");
    EXPECT_EQ(tools.calls("rpm").size(), 4u);
}

TEST_F(MultipathDMLinuxTest, FailedPackageQueryGivesNoVersion) {
    dmtest::ActivityLogCapture log;
    dmtest::TraceCapture trace;
    tools.install("awk");
    tools.answer("awk", "multipath-tools-0.9.4-3\n", 2, "awk: syntax error\n");
    MultipathDMLinux driver(tools.dir());
    EXPECT_EQ(driver.getVersion(), "");
    EXPECT_TRUE(has(log.text(), "STA0356E"));
    std::string text = trace.text();
    EXPECT_TRUE(has(text, "Execute command \"rpm\" -qa | awk '")) << text;
    EXPECT_TRUE(has(text, " failed.\n")) << text;
    EXPECT_TRUE(has(text, ": awk: syntax error\n")) << text;
}

TEST_F(MultipathDMLinuxTest, OnlyRoundRobinPolicyIsApplied) {
    dmtest::ActivityLogCapture log;
    dmtest::TraceCapture trace;
    for (int32_t setting : {kSettingOffline, kSettingOnline, kSettingLoadBalancing, kSettingFailover,
                            kSettingWalkTheBus, -1, 99}) {
        MultipathDMLinux driver(tools.dir());
        EXPECT_EQ(driver.setPolicy(setting, {"mpatha"}), RC_SETTING_NOT_SUPPORTED) << setting;
    }
    EXPECT_FALSE(ran("multipath"));
    EXPECT_TRUE(has(log.text(), "AGT0454I"));
    std::string text = trace.text();
    EXPECT_TRUE(has(text, "This multipath driver can not set policy to 4.\n"));
    EXPECT_TRUE(has(text, "Exit: setPolicy(), rc = 172\n"));
}

TEST_F(MultipathDMLinuxTest, RoundRobinRunsMultipathOnce) {
    dmtest::ActivityLogCapture log;
    dmtest::TraceCapture trace;
    const struct {
        int status;
        const char* out;
        int32_t rc;
    } cases[] = {{0, "", RC_OK}, {0, "create: mpatha\n", RC_OK}, {1, "error parsing config\n", RC_DRIVER_CMD_FAILED},
                 {255, "", RC_DRIVER_CMD_FAILED}};
    for (const auto& c : cases) {
        dmtest::FakeTools caseTools;
        caseTools.install("multipath");
        caseTools.answer("multipath", c.out, c.status);
        MultipathDMLinux driver(caseTools.dir());
        EXPECT_EQ(driver.setPolicy(kSettingRoundRobin, {}), c.rc) << c.status;
        EXPECT_EQ(caseTools.calls("multipath"), Lines{""});
    }
    std::string text = trace.text();
    EXPECT_TRUE(has(text, "multipath\" >>")) << text;
    EXPECT_TRUE(has(text, " returned: error parsing config\n")) << text;
    EXPECT_FALSE(has(log.text(), "STA0356E"));
}

TEST_F(MultipathDMLinuxTest, RoundRobinFailsWhenMultipathCannotRun) {
    dmtest::ActivityLogCapture log;
    dmtest::TraceCapture trace;
    MultipathDMLinux missing(tools.dir() + "nowhere/");
    EXPECT_EQ(missing.setPolicy(kSettingRoundRobin, {}), RC_DRIVER_CMD_FAILED);
    FailingDriver notRun(tools.dir(), "multipath", true);
    EXPECT_EQ(notRun.setPolicy(kSettingRoundRobin, {}), RC_DRIVER_CMD_FAILED);
    EXPECT_TRUE(has(log.text(), "STA0356E"));
    EXPECT_TRUE(has(trace.text(), "Execute command " + tools.dir() + "multipath multipath failed.\n"));
}

TEST_F(MultipathDMLinuxTest, TrivialOperationsRunNothing) {
    MultipathDMLinux driver(tools.dir());
    EXPECT_EQ(driver.setState(kSettingOffline, "mpatha", {"10000000c9000001"}), RC_OK);
    EXPECT_EQ(driver.setState(kSettingOnline, "mpatha", {}), RC_OK);
    EXPECT_TRUE(driver.getErrorDevices().empty());
    EXPECT_TRUE(driver.getErrorWWPNs().empty());
    EXPECT_EQ(driver.performDynamicReconfiguration(), RC_OK);
    EXPECT_FALSE(ran("rpm") || ran("multipath") || ran("dmsetup"));
}

TEST_F(MultipathDMLinuxTest, TopologyOfRealListing) {
    dmtest::TraceCapture trace;
    tools.answer("multipath", fixture("multipath-ll-v2.two-maps.stdout"));
    MultipathDMLinux driver(tools.dir());
    Topology topology;
    DmListingResult result;
    driver.getMultipathConfig(&topology, &driver, &result);
    EXPECT_EQ(result.status, DmListingStatus::kParsed);
    EXPECT_EQ(tools.calls("multipath"), Lines{"-ll -v2"});
    ASSERT_EQ(topology.size(), 4u);
    EXPECT_EQ(topology.at("sdc")->disk, "mpatha");
    EXPECT_EQ(topology.at("sdc")->group, 2);
    EXPECT_EQ(topology.at("sdd")->driverVersion, "Device Mapper Multipath Version 0.9.4-3");
    std::string text = trace.text();
    EXPECT_TRUE(has(text, "Enter: MultipathDMLinux::getMultipathConfig()\n"));
    EXPECT_TRUE(has(text, "Found Disk mpathb\n"));
    EXPECT_TRUE(has(text, "Exit: MultipathDMLinux::getMultipathConfig()\n"));
}

TEST_F(MultipathDMLinuxTest, TopologyListingFailures) {
    const struct {
        std::string out;
        int status;
        std::string err;
        DmListingStatus outcome;
        const char* message;
        const char* traced;
    } cases[] = {
        {fixture("multipath-ll-v2.driver-not-loaded.stdout"), 1, fixture("multipath-ll-v2.driver-not-loaded.stderr"),
         DmListingStatus::kEmpty, "", "multipath -ll -v2 output is empty\n"},
        {"Dec 1 | DM multipath kernel driver not loaded\n", 1, "", DmListingStatus::kNotLoaded, "AGT0463I",
         "DM multipath driver is installed but not loaded.\n"},
        {"/etc/multipath.conf does not exist, blacklisting all devices.\n", 1, "", DmListingStatus::kNoConfigFile,
         "AGT0464I", "multipath.conf file does not exist.\n"},
        {fixture("multipath-ll-v2.two-maps.stdout"), 1, "", DmListingStatus::kFailed, "STA0523E",
         "MultipathDMLinux::getMultipathConfig(): Execute command multipath -ll -v2 failed.\n"},
    };
    for (const auto& c : cases) {
        dmtest::ActivityLogCapture caseLog;
        dmtest::TraceCapture caseTrace;
        tools.answer("multipath", c.out, c.status, c.err);
        MultipathDMLinux driver(tools.dir());
        Topology topology;
        DmListingResult result;
        driver.getMultipathConfig(&topology, &driver, &result);
        EXPECT_EQ(result.status, c.outcome) << c.traced;
        EXPECT_EQ(result.exitCode, c.status);
        EXPECT_EQ(result.sysErr, c.err);
        EXPECT_TRUE(topology.empty()) << c.traced;
        EXPECT_TRUE(has(caseTrace.text(), c.traced)) << c.traced;
        std::string logText = caseLog.text();
        EXPECT_TRUE(c.message[0] ? has(logText, c.message) : logText.empty()) << logText;
    }
}

TEST_F(MultipathDMLinuxTest, TopologyWhenListingCannotRun) {
    dmtest::ActivityLogCapture log;
    dmtest::TraceCapture trace;
    Topology topology;
    DmListingResult result;
    FailingDriver notRun(tools.dir(), "-ll", true);
    notRun.getMultipathConfig(&topology, nullptr, &result);
    EXPECT_EQ(result.status, DmListingStatus::kNotRun);
    EXPECT_TRUE(has(log.text(), "STA0356E"));

    FailingDriver noExecuter(tools.dir(), "-ll", false);
    noExecuter.getMultipathConfig(&topology, nullptr, &result);
    EXPECT_EQ(result.status, DmListingStatus::kNotRun);
    EXPECT_TRUE(topology.empty());
    EXPECT_TRUE(has(trace.text(), "No stdOut from multipath -ll -v2 command!\n"));
}

TEST_F(MultipathDMLinuxTest, TopologyNeedsAnInstalledDriver) {
    dmtest::TraceCapture trace;
    tools.answer("rpm.-qa", "bash\n");
    MultipathDMLinux driver(tools.dir());
    Topology topology;
    DmListingResult result;
    driver.getMultipathConfig(&topology, nullptr, &result);
    EXPECT_EQ(result.status, DmListingStatus::kNoDriver);
    EXPECT_FALSE(ran("multipath"));
    EXPECT_TRUE(has(trace.text(), "No multipath driver to query.\n"));
}

TEST_F(MultipathDMLinuxTest, TopologyVersionFromGivenDriver) {
    tools.answer("multipath", fixture("multipath-ll-v2.bracketed-0.4.8.stdout"));
    FixedVersionDriver other("device-mapper-multipath-0.4.8-x");
    MultipathDMLinux driver(tools.dir());
    Topology topology;
    driver.getMultipathConfig(&topology, &other);
    ASSERT_EQ(topology.size(), 5u);
    EXPECT_EQ(topology.at("sdb")->driverVersion, "Device Mapper Multipath Version 0.4.8-x");
    EXPECT_FALSE(ran("rpm"));
}

TEST_F(MultipathDMLinuxTest, RealMultipathToolWhenInstalled) {
    dmtest::TraceCapture trace;
    if (access("/sbin/multipath", X_OK) != 0) GTEST_SKIP() << "/sbin/multipath is not installed";
    FixedVersionDriver driver("multipath-tools-0.9.4-3");
    Topology topology;
    DmListingResult result;
    driver.getMultipathConfig(&topology, &driver, &result);
    EXPECT_TRUE(has(result.command, "\"/sbin/multipath\" -ll -v2 >>")) << result.command;
    std::string text = trace.text();
    EXPECT_TRUE(has(text, "Exit: MultipathDMLinux::getMultipathConfig()\n"));
    // Without the kernel module the tool complains on stderr only and exits 1.
    if (result.status == DmListingStatus::kEmpty) {
        EXPECT_TRUE(topology.empty());
        EXPECT_TRUE(has(text, "multipath -ll -v2 output is empty\n"));
        EXPECT_NE(result.exitCode, 0);
        EXPECT_FALSE(result.sysErr.empty());
    }
    for (const auto& entry : topology) EXPECT_EQ(entry.first, entry.second->device);
    RecordProperty("listing_status", static_cast<int>(result.status));
}

TEST_F(MultipathDMLinuxTest, SwitchesEveryQueueingMap) {
    dmtest::TraceCapture trace;
    tools.answer("dmsetup.ls", fixture("dmsetup-ls.two-maps.stdout"));
    tools.answer("dmsetup.table.mpatha", fixture("dmsetup-table.plain.stdout"));
    tools.answer("dmsetup.table.mpathb", fixture("dmsetup-table.queueing.stdout"));
    MultipathDMLinux driver(tools.dir());
    DmQueueingSwitchResult result;
    EXPECT_EQ(driver.setFailIfNoPath(&result), RC_OK);
    EXPECT_EQ(tools.calls("dmsetup"),
              (Lines{"ls", "table mpatha", "table mpathb", "message mpathb 0 fail_if_no_path"}));
    EXPECT_EQ(result.switched, Lines{"mpathb"});
    EXPECT_EQ(result.notQueueing, Lines{"mpatha"});
    EXPECT_FALSE(result.stopped);
    std::string text = trace.text();
    EXPECT_TRUE(has(text, "Enter: MultipathDMLinux::setFailIfNoPath\n"));
    EXPECT_TRUE(has(text, "checking configuration of multipath device mpatha\n"));
    EXPECT_TRUE(has(text, "multipath device mpatha is not configured with queue_if_no_path.\n"));
    EXPECT_TRUE(has(text, "Exit: MultipathDMLinux::setFailIfNoPath\n"));
}

TEST_F(MultipathDMLinuxTest, SwitchListsOnlyMultipathMaps) {
    const struct {
        std::string ls;
        Lines calls;
    } cases[] = {
        {fixture("dmsetup-ls.no-maps.stdout"), {"ls"}},
        {"3600a0b800011a1ee0000c4b54a7c1f5b\t(253:0)\nvg0-lv_root\t(254:0)\n", {"ls"}},
        {"vg0-lv_root\t(254:0)\nmpathcFoo\t(253:2)\n", {"ls", "table mpathc"}},
    };
    for (const auto& c : cases) {
        dmtest::FakeTools caseTools;
        caseTools.install("dmsetup");
        caseTools.answer("dmsetup.ls", c.ls);
        MultipathDMLinux driver(caseTools.dir());
        EXPECT_EQ(driver.setFailIfNoPath(), RC_OK);
        EXPECT_EQ(caseTools.calls("dmsetup"), c.calls) << c.ls;
    }
}

TEST_F(MultipathDMLinuxTest, SwitchGoesOnAfterCommandsThatFail) {
    tools.answer("dmsetup.ls", "mpatha\t(253:0)\nmpathb\t(253:1)\nmpathc\t(253:2)\n");
    tools.answer("dmsetup.table.mpatha", fixture("dmsetup-table.queueing.stdout"));
    tools.answer("dmsetup.message.mpatha.0.fail_if_no_path", "", 1, "device-mapper: message ioctl failed\n");
    tools.answer("dmsetup.table.mpathb", "", 1, "Device does not exist.\n");
    tools.answer("dmsetup.table.mpathc", fixture("dmsetup-table.queueing.stdout"));
    MultipathDMLinux driver(tools.dir());
    DmQueueingSwitchResult result;
    driver.setFailIfNoPath(&result);
    EXPECT_EQ(result.refused, Lines{"mpatha"});
    EXPECT_EQ(result.notQueueing, Lines{"mpathb"});
    EXPECT_EQ(result.switched, Lines{"mpathc"});
    EXPECT_FALSE(result.stopped);
}

TEST_F(MultipathDMLinuxTest, SwitchStopsAtFirstCommandThatCannotRun) {
    const struct {
        const char* word;
        bool created;
        Lines calls;
        const char* traced;
    } cases[] = {
        {"ls", true, {}, "Unable to get the mpaths using ls command.\n"},
        {"ls", false, {}, "No stdOut from 'dmsetup ls' command!\n"},
        {"table", true, {"ls"}, "Unable to get the mpath's information using table command.\n"},
        {"table", false, {"ls"}, "No stdOut from 'dmsetup table [multipathName]' command!\n"},
        {"message", true, {"ls", "table mpatha"},
         "Unable to set the mpath to fail_if_no_path for multipath device mpatha.\n"},
        {"message", false, {"ls", "table mpatha"}, "'dmsetup message [multipathName] 0 \"fail_if_no_path\"' command failed!\n"},
    };
    for (const auto& c : cases) {
        dmtest::FakeTools caseTools;
        dmtest::ActivityLogCapture caseLog;
        dmtest::TraceCapture caseTrace;
        caseTools.install("dmsetup");
        caseTools.answer("dmsetup.ls", fixture("dmsetup-ls.two-maps.stdout"));
        caseTools.answer("dmsetup.table.mpatha", fixture("dmsetup-table.queueing.stdout"));
        caseTools.answer("dmsetup.table.mpathb", fixture("dmsetup-table.queueing.stdout"));
        FailingDriver driver(caseTools.dir(), c.word, c.created);
        DmQueueingSwitchResult result;
        EXPECT_EQ(driver.setFailIfNoPath(&result), RC_OK);
        EXPECT_TRUE(result.stopped) << c.traced;
        EXPECT_EQ(result.failedCommand, caseTools.dir() + "dmsetup " + c.word);
        EXPECT_TRUE(result.switched.empty());
        EXPECT_EQ(caseTools.calls("dmsetup"), c.calls) << c.traced;
        EXPECT_TRUE(has(caseLog.text(), "STA0356E")) << c.traced;
        EXPECT_TRUE(has(caseTrace.text(), c.traced)) << c.traced;
    }
}

}  // namespace
