// Every end-to-end test trusts that the host the harness builds is the host the program
// sees, so each seam is checked from inside with a shell.
#include "tests/e2e/E2eHosts.h"

#include <filesystem>

#include "gmock/gmock.h"

namespace {

class NamespaceHarnessTest : public E2eTest {};

TEST_F(NamespaceHarnessTest, ShellSeesTheHostItWasGiven) {
    NamespaceHarness host;
    host.addAnsweringTool("multipath", "fake out\n", 3, "fake err\n");
    host.addFakeTool("rpm", "echo \"rpm $1\"");
    host.hideSbinTool("ldconfig");
    placeScsi(&host, false);
    host.makeHostDir("fc_host/host3");
    host.useFaketime("@2001-02-03 04:05:06");
    RunResult r = host.run({"-c", "test -x /opt/ZOR/QLX/agent/bin/PathPlanner && echo ok > /opt/ZOR/QLX/agent/log/x;"
                                  "/sbin/multipath -ll -v2; echo \"rc $?\"; rpm -qa; ls /sys/class/fc_host;"
                                  "cat /proc/scsi/scsi; date +%Y; test ! -e /sbin/ldconfig && test -x /sbin/blkid"
                                  " && test -r /proc/self/status"},
                           "/bin/sh");
    EXPECT_EQ(0, r.exitStatus) << r.describe();
    EXPECT_EQ("fake out\nrc 3\nrpm -qa\nhost3\nAttached devices:\n2001\n", r.out);
    EXPECT_EQ("fake err\n", r.err);
    EXPECT_EQ("ok\n", host.readAgentFile("log/x"));
    EXPECT_FALSE(std::filesystem::exists("/opt/ZOR/QLX/agent/log/x"));  // nothing reached the host
    EXPECT_THAT(host.toolCalls("multipath"), ::testing::ElementsAre("-ll -v2"));
}

TEST_F(NamespaceHarnessTest, HiddenInstallationIsEmptyAndSignalsAreReported) {
    NamespaceHarness host;
    host.hideInstallation();
    RunResult r = host.run({"-c", "ls -A /opt/ZOR/QLX; kill -KILL $$"}, "/bin/sh");
    EXPECT_EQ(128 + 9, r.exitStatus) << r.describe();
    EXPECT_EQ("", r.out);
}

}  // namespace
