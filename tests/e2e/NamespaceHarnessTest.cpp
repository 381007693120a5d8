// The harness itself: every later end-to-end test trusts that the host it builds
// is the host the program sees, so each seam is checked from inside with a shell.
#include "tests/e2e/NamespaceHarness.h"

#include <filesystem>
#include <fstream>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

class NamespaceHarnessTest : public E2eTest {
protected:
    RunResult shell(NamespaceHarness* host, const std::string& commands) {
        return host->runProgram("/bin/sh", {"-c", commands});
    }
};

TEST_F(NamespaceHarnessTest, ProgramSeesInstallTreeAndWritesLandInAgentDir) {
    NamespaceHarness host;
    RunResult r = shell(&host, "test -x /opt/ZOR/QLX/agent/bin/PathPlanner && echo ok > /opt/ZOR/QLX/agent/log/x");
    ASSERT_EQ(0, r.exitStatus) << r.describe();
    EXPECT_EQ("ok\n", host.readAgentFile("log/x"));
    EXPECT_FALSE(std::filesystem::exists("/opt/ZOR/QLX/agent/log/x"));  // nothing reached the host
}

TEST_F(NamespaceHarnessTest, EmptyTreeHidesInstallation) {
    NamespaceHarness host;
    host.setInstallTree(InstallTree::Empty);
    RunResult r = shell(&host, "ls -A /opt/ZOR/QLX");
    EXPECT_EQ(0, r.exitStatus) << r.describe();
    EXPECT_EQ("", r.out);
}

TEST_F(NamespaceHarnessTest, FakeToolsRecordCallsAndAnswerAsTold) {
    NamespaceHarness host;
    host.addFakeTool(ToolDir::Sbin, {"multipath", "sbin out\n", 3, "sbin err\n", ""});
    host.addFakeTool(ToolDir::Path, {"rpm", "path out\n", 0, "", ""});
    RunResult r = shell(&host, "/sbin/multipath -ll -v2; echo \"rc $?\"; rpm -qa; test -x /sbin/ldconfig");
    EXPECT_EQ(0, r.exitStatus) << r.describe();  // the real /sbin tools stay visible
    EXPECT_EQ("sbin out\nrc 3\npath out\n", r.out);
    EXPECT_EQ("sbin err\n", r.err);
    EXPECT_THAT(host.toolCalls("multipath"), ElementsAre("-ll -v2"));
    EXPECT_THAT(host.toolCalls("rpm"), ElementsAre("-qa"));
}

TEST_F(NamespaceHarnessTest, HiddenSbinToolIsAbsent) {
    NamespaceHarness host;
    host.hideSbinTool("ldconfig");
    RunResult r = shell(&host, "test -e /sbin/ldconfig");
    EXPECT_EQ(1, r.exitStatus) << r.describe();
}

TEST_F(NamespaceHarnessTest, PlacedTreesReplaceSysAndProcEntries) {
    NamespaceHarness host;
    const std::string fc = host.makeHostDir("fc_host");
    std::filesystem::create_directories(fc + "/host3");
    std::ofstream(fc + "/host3/issue_lip") << "";
    const std::string scsi = host.makeHostDir("proc_scsi");
    std::ofstream(scsi + "/scsi") << "Attached devices:\n";
    host.placeTree("/sys/class/fc_host", fc);
    host.placeTree("/proc/scsi", scsi);
    RunResult r = shell(&host, "ls /sys/class/fc_host; cat /proc/scsi/scsi; test -r /proc/self/status");
    EXPECT_EQ(0, r.exitStatus) << r.describe();
    EXPECT_EQ("host3\nAttached devices:\n", r.out);
}

TEST_F(NamespaceHarnessTest, FaketimeGovernsTheProgramsClock) {
    NamespaceHarness host;
    host.useFaketime("@2001-02-03 04:05:06");
    RunResult r = shell(&host, "date +%Y");
    EXPECT_EQ(0, r.exitStatus) << r.describe();
    EXPECT_EQ("2001\n", r.out);
}

TEST_F(NamespaceHarnessTest, ExitStatusAndSignalsAreReported) {
    NamespaceHarness host;
    EXPECT_EQ(42, shell(&host, "exit 42").exitStatus);
    EXPECT_EQ(128 + 9, shell(&host, "kill -KILL $$").exitStatus);
}

}  // namespace
