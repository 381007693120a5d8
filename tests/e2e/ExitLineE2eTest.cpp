// The line a failed run shows on a terminal, and that nothing appears when standard
// error is not a terminal (the agent's case).
#include "gmock/gmock.h"
#include "tests/e2e/NamespaceHarness.h"

using ::testing::HasSubstr;

namespace {

class ExitLineE2eTest : public E2eTest {};

// No multipath driver is installed, and the host has no /proc/scsi.
void prepareHost(NamespaceHarness* host) {
    host->addAnsweringTool("rpm", "", 1);
    host->hidePath("/proc/scsi");
}

TEST_F(ExitLineE2eTest, FailedRunExplainsItselfOnATerminal) {
    const struct {
        std::vector<std::string> args;
        int exitStatus;
        const char* line;  // what the terminal shows; "" for a run that prints nothing there
    } cases[] = {
        {{"-multipath", "9"}, 5,
         "PathPlanner failed with exit status 5 (unknown multipath setting; the settings are 0 to 5): "
         "the setting given is 9"},
        {{"-multipath", "abc"}, 3,
         "PathPlanner failed with exit status 3 (the command line or the multipath setting was rejected): "
         "AGT0398E 'abc' is not a valid multipath option."},
        {{"-debug"}, 6,
         "PathPlanner failed with exit status 6 (the multipath request or an option's value is missing or "
         "incomplete): Debug mode not specified"},
        {{"-multipath", "3;mpatha"}, 169,
         "PathPlanner failed with exit status 169 (no multipath driver was found on this host): "
         "AGT0456E No multipath driver was found on this host."},
        // The rescan script's own complaint, which is nowhere in the activity log.
        {{"-multipath", "5"}, 1,
         "PathPlanner failed with exit status 1 (the rescan script failed): Error: SCSI subsystem not active"},
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
        const std::string shown = c.exitStatus == 0 ? "5.2.8.0\r\n" : std::string(c.line) + "\r\n";
        EXPECT_EQ(shown, r.out) << input;
        // The log is what the agent reads: the reason shown on a terminal adds nothing to it.
        EXPECT_THAT(host.readAgentFile("log/multipath.log"), ::testing::Not(HasSubstr("SCSI subsystem"))) << input;
    }
}

}  // namespace
