// The line a failed run shows on a terminal, and that nothing appears when standard
// error is not a terminal (the agent's case).
#include "gmock/gmock.h"
#include "tests/e2e/NamespaceHarness.h"

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

class ExitLineE2eTest : public E2eTest {};

// No multipath driver is installed, and the host has no /proc/scsi.
void prepareHost(NamespaceHarness* host) {
    host->addAnsweringTool("rpm", "", 1);
    host->hidePath("/proc/scsi");
}

TEST_F(ExitLineE2eTest, FailedRunExplainsItselfOnATerminal) {
    // The sentences themselves are ExitLineTest's; here the run picks the status and the reason.
    const struct {
        std::vector<std::string> args;
        int exitStatus;
        const char* reason;  // what the line ends with
    } cases[] = {
        {{"-multipath", "9"}, 5, "the setting given is 9"},
        {{"-multipath", "abc"}, 3, "AGT0398E 'abc' is not a valid multipath option."},
        {{"-debug"}, 6, "Debug mode not specified"},
        {{"-multipath", "3;mpatha"}, 169, "AGT0456E No multipath driver was found on this host."},
        // The rescan script's own complaint, which is nowhere in the activity log.
        {{"-multipath", "5"}, 1, "Error: SCSI subsystem not active"},
        {{"-version"}, 0, ""},
    };
    for (const auto& c : cases) {
        const std::string input = ::testing::PrintToString(c.args);
        NamespaceHarness host;
        prepareHost(&host);
        RunResult r = host.run(c.args);  // the agent's case: nothing on standard error
        EXPECT_EQ(c.exitStatus == 0 ? "5.2.8.0\n" : "", r.out + r.err) << input;
        host.useTerminal();
        r = host.run(c.args);
        EXPECT_EQ(c.exitStatus, r.exitStatus) << input << ": " << r.describe();
        const std::string failed = "PathPlanner failed with exit status " + std::to_string(c.exitStatus) + " (";
        EXPECT_THAT(r.out, StartsWith(c.exitStatus ? failed : "5.2.8.0\r\n")) << input;
        EXPECT_THAT(r.out, EndsWith(c.exitStatus ? std::string("): ") + c.reason + "\r\n" : "")) << input;
        // The log is what the agent reads: the reason shown on a terminal adds nothing to it.
        EXPECT_THAT(host.readAgentFile("log/multipath.log"), ::testing::Not(HasSubstr("SCSI subsystem"))) << input;
    }
}

}  // namespace
