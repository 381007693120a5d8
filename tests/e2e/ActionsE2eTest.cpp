// The three actions of the installed tool against fake drivers: the device-mapper
// tools, the vendor driver (lunctl) or neither, and the bus rescan over fake
// /proc/scsi and /sys/class trees.
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <string>
#include <vector>

#include "PathPlanner/linux/WalkTheBusLinux.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/e2e/NamespaceHarness.h"
#include "tests/fakes/zpl/FakeTools.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

class ActionsE2eTest : public E2eTest {};

FakeTool fake(const std::string& name, int exitStatus = 0, const std::string& err = "", const std::string& body = "") {
    return FakeTool{name, "", exitStatus, err, body};
}

const std::string kData = PP_SOURCE_DIR "/tests/Multipath/data/";

// Package queries: the vendor package (when vendor) and the device-mapper tools
// (when dm), as "rpm -q ZORzpl" and "rpm -qa" piped into "rpm -q <name>" ask.
std::string rpmBody(bool vendor, bool dm) {
    std::string body = "case \"$*\" in\n";
    body += vendor ? "  '-q ZORzpl') echo ZORzpl-1.6.2.0-1 ;;\n"
                   : "  '-q ZORzpl') echo 'package ZORzpl is not installed'; exit 1 ;;\n";
    body += dm ? "  -qa) echo bash-5.2.15-2; echo device-mapper-multipath-0.4.9-123 ;;\n  *) echo \"$2\" ;;\n"
               : "  -qa) ;;\n  *) echo \"package $2 is not installed\"; exit 1 ;;\n";
    return body + "esac";
}

// lunctl answering its two queries from the fixtures; "set" exits with setStatus.
std::string lunctlBody(int setStatus) {
    return "case \"$1\" in\n  query) cat '" + kData + "lunctl-query-'\"$2\"'.txt' ;;\n  set) exit " +
           std::to_string(setStatus) + " ;;\nesac";
}

void installDrivers(NamespaceHarness* host, bool vendor, bool dm, int setStatus = 0) {
    host->addFakeTool(ToolDir::Path, fake("rpm", 0, "", rpmBody(vendor, dm)));
    if (vendor) host->addFakeTool(ToolDir::Path, fake("lunctl", 0, "", lunctlBody(setStatus)));
    if (dm) host->addFakeTool(ToolDir::Sbin, fake("multipath"));
}

TEST_F(ActionsE2eTest, DeviceMapperHost) {
    struct Case {
        const char* request;
        int multipathStatus;
        int exitStatus;
        const char* message;  // expected in the activity log, or null
        size_t multipathCalls;
    } cases[] = {
        {"3;mpatha", 0, 0, nullptr, 1},       {"3;mpatha", 1, 173, nullptr, 1},
        {"2;mpatha", 0, 172, "AGT0454I", 0},  {"4;mpatha;mpathb", 0, 172, "AGT0454I", 0},
        {"0;mpatha;wwpn1", 0, 0, nullptr, 0}, {"1;mpatha;wwpn1;wwpn2", 0, 0, nullptr, 0},
    };
    for (const Case& c : cases) {
        NamespaceHarness host;
        installDrivers(&host, false, true);
        host.addFakeTool(ToolDir::Sbin, fake("multipath", c.multipathStatus, "policy error\n"));
        RunResult r = host.run({"-multipath", c.request});
        ASSERT_EQ("", r.setupError);
        EXPECT_EQ(c.exitStatus, r.exitStatus) << c.request << ": " << r.describe();
        EXPECT_EQ(c.multipathCalls, host.toolCalls("multipath").size()) << c.request;
        if (c.message) {
            EXPECT_THAT(host.readAgentFile("log/multipath.log"), HasSubstr(c.message)) << c.request;
        }
    }
}

TEST_F(ActionsE2eTest, VendorHostRunsOneLunctlPerDeviceOrPath) {
    struct Case {
        const char* request;
        int setStatus;
        int exitStatus;
        std::vector<std::string> lunctlCalls;
        const char* message;
    } cases[] = {
        {"2;lundev0;lundev12", 0, 0,
         {"query device", "set device 0 policy lb", "set device 12 policy lb"}, nullptr},
        {"0;lundev1;10000000c95a3b10;10000000c95a3b11", 0, 0,
         {"query device", "query wwpn", "set device 1 path 1 offline", "set device 1 path 0 offline"}, nullptr},
        {"1;lundev2;10000000c95a3b11", 0, 0, {"query device", "query wwpn", "set device 2 path 1 online"}, nullptr},
        {"4;nodev", 0, 170, {"query device"}, "AGT0452E"},
        {"0;nodev;10000000c95a3b10", 0, 170, {"query device"}, "AGT0452E"},
        {"3;lundev0", 2, 173, {"query device", "set device 0 policy rr"}, "AGT0453E"},
        {"0;lundev0;10000000c95a3b10", 2, 173, {"query device", "query wwpn", "set device 0 path 0 offline"},
         nullptr},
    };
    for (const Case& c : cases) {
        NamespaceHarness host;
        installDrivers(&host, true, true, c.setStatus);  // the device-mapper tools are there too
        RunResult r = host.run({"-multipath", c.request});
        ASSERT_EQ("", r.setupError);
        EXPECT_EQ(c.exitStatus, r.exitStatus) << c.request << ": " << r.describe();
        EXPECT_THAT(host.toolCalls("lunctl"), ElementsAreArray(c.lunctlCalls)) << c.request;
        EXPECT_THAT(host.toolCalls("multipath"), IsEmpty()) << c.request;
        if (c.message) {
            EXPECT_THAT(host.readAgentFile("log/multipath.log"), HasSubstr(c.message)) << c.request;
        }
    }
}

TEST_F(ActionsE2eTest, NoDriverGives169) {
    for (const char* request : {"2;lundev0", "0;lundev0;10000000c95a3b10"}) {
        NamespaceHarness host;
        installDrivers(&host, false, false);
        host.hideSbinTool("multipath");
        RunResult r = host.run({"-multipath", request});
        ASSERT_EQ("", r.setupError);
        EXPECT_EQ(169, r.exitStatus) << request << ": " << r.describe();
        EXPECT_THAT(host.readAgentFile("log/multipath.log"), HasSubstr("AGT0456E")) << request;
    }
}

// Finds the PathPlanner that runs this fake and records its process id; works
// whether or not /proc is overlaid (new processes are reached through /proc/self/..).
const char kRecordPlanner[] = R"SH(p=$PPID
while [ "$p" -gt 1 ] && [ "$(cat /proc/self/../$p/comm)" != PathPlanner ]; do
  p=$(cut -d' ' -f4 /proc/self/../$p/stat)
done
)SH";

// The clock time of the first activity-log line holding key, in seconds.
time_t logTime(const std::string& log, const std::string& key) {
    size_t at = log.find(key);
    size_t start = at == std::string::npos ? std::string::npos : log.rfind('\n', at);
    start = start == std::string::npos ? 0 : start + 1;
    struct tm when = {};
    if (at == std::string::npos || !strptime(log.c_str() + start, "%Y-%m-%d %H:%M:%S", &when)) return -1;
    when.tm_isdst = -1;
    return mktime(&when);
}

struct RescanHost {
    NamespaceHarness host;
    std::string scsiHost;
    std::string fcHost;
    std::string pidFile;
    RescanHost() : scsiHost(host.makeHostDir("scsi_host")), fcHost(host.makeHostDir("fc_host")) {
        std::string procScsi = host.makeHostDir("proc_scsi");
        zpltest::writeFile(procScsi + "/scsi", "Attached devices:\n");
        mkdir((scsiHost + "/host0").c_str(), 0755);
        zpltest::writeFile(scsiHost + "/host0/scan", "");
        mkdir((fcHost + "/host0").c_str(), 0755);
        zpltest::writeFile(fcHost + "/host0/issue_lip", "");
        pidFile = host.makeHostDir("planner") + "/pid";
        host.placeTree("/proc/scsi", procScsi);
        host.placeTree("/sys/class/scsi_host", scsiHost);
        host.placeTree("/sys/class/fc_host", fcHost);
        // The script's 10-second pauses are skipped; the tool's own wait runs on a fast clock.
        host.addFakeTool(ToolDir::Path, fake("sleep", 0, "", std::string(kRecordPlanner) + "echo $p > " + pidFile));
        host.useFaketime("+0 x20");
    }
    // The script the run left in /tmp, removed here; empty when there was none.
    std::string takeScript() {
        std::string pid = zpltest::readFile(pidFile);
        while (!pid.empty() && pid.back() == '\n') pid.pop_back();
        if (pid.empty()) return std::string();
        std::string path = "/tmp/rescanScript" + pid;
        std::string script = zpltest::readFile(path);
        unlink(path.c_str());
        return script;
    }
};

TEST_F(ActionsE2eTest, RescanWaitsAndReconfiguresOnlyWithDriver) {
    struct Case {
        bool vendor;
        bool dm;
        int cfglundevStatus;
        int exitStatus;
        size_t cfglundevCalls;
        bool waited;
    } cases[] = {
        {true, true, 0, 0, 1, true},
        {true, false, 2, 173, 1, true},
        {false, true, 0, 0, 0, true},
        {false, false, 0, 0, 0, false},
    };
    for (const Case& c : cases) {
        RescanHost rescan;
        installDrivers(&rescan.host, c.vendor, c.dm);
        if (!c.dm) rescan.host.hideSbinTool("multipath");
        rescan.host.addFakeTool(ToolDir::Path, fake("cfglundev", c.cfglundevStatus, "cfglundev: failed\n"));
        RunResult r = rescan.host.run({"-multipath", "5;ignored"});
        ASSERT_EQ("", r.setupError);
        std::string label = std::string(c.vendor ? "vendor" : c.dm ? "dm" : "none");
        EXPECT_EQ(c.exitStatus, r.exitStatus) << label << ": " << r.describe();
        EXPECT_EQ(kRescanScript, rescan.takeScript()) << label;
        EXPECT_EQ("- - -\n", zpltest::readFile(rescan.scsiHost + "/host0/scan")) << label;
        EXPECT_EQ("1\n", zpltest::readFile(rescan.fcHost + "/host0/issue_lip")) << label;
        EXPECT_THAT(rescan.host.toolCalls("sleep"), ElementsAre("10", "10", "10")) << label;
        EXPECT_EQ(c.cfglundevCalls, rescan.host.toolCalls("cfglundev").size()) << label;
        std::string log = rescan.host.readAgentFile("log/multipath.log");
        time_t waited = logTime(log, "AGT0430I") - logTime(log, "AGT0429I");
        EXPECT_EQ(c.waited, waited >= 60) << label << " waited " << waited << " s";
    }
}

TEST_F(ActionsE2eTest, StopBeforeRescanRunsNoScript) {
    RescanHost rescan;
    installDrivers(&rescan.host, true, false);
    // The vendor probe runs before the stop check: its rpm sends the stop request.
    rescan.host.addFakeTool(ToolDir::Path,
                            fake("rpm", 0, "", std::string(kRecordPlanner) + "kill -TERM $p\n" + rpmBody(true, false)));
    rescan.host.addFakeTool(ToolDir::Path, fake("cfglundev"));
    RunResult r = rescan.host.run({"-multipath", "5"});
    ASSERT_EQ("", r.setupError);
    EXPECT_EQ(8, r.exitStatus) << r.describe();
    EXPECT_THAT(rescan.host.readAgentFile("log/multipath.log"), HasSubstr("AGT0445I"));
    EXPECT_EQ("", zpltest::readFile(rescan.scsiHost + "/host0/scan"));
    EXPECT_THAT(rescan.host.toolCalls("cfglundev"), IsEmpty());
    EXPECT_THAT(rescan.host.toolCalls("sleep"), IsEmpty());
}

}  // namespace
