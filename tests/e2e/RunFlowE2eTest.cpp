// The installed tool's run flow as the agent sees it: exit status, standard output,
// activity log, and the line a failed run shows on a terminal.
#include <filesystem>

#include "gmock/gmock.h"
#include "tests/e2e/NamespaceHarness.h"

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

class RunFlowE2eTest : public E2eTest {};

// On a host without a multipath driver or /proc/scsi: the end message closes every run,
// the start message opens it once the command line was accepted, no job file is left
// behind, and nothing appears on standard error (the agent's case). On a terminal a
// failed run explains itself in one line; the sentences are ExitLineTest's, here the
// run picks the status and the reason.
TEST_F(RunFlowE2eTest, EachRequestEndsWithItsStatus) {
    const struct {
        std::vector<std::string> args;
        int exitStatus;
        const char* logged;
        bool started;     // the start message was logged
        const char* out;  // exact standard output
        const char* reason = nullptr;  // what the line on a terminal ends with (nullptr: not run there)
    } cases[] = {
        {{"-version"}, 0, "AGT0429I", true, "5.2.8.0\n", ""},
        // "-multipath" is not allowed after "-version"; the version still prints.
        {{"-version", "-multipath", "5"}, 3, "AGT0412E", false, "5.2.8.0\n"},
        {{"-multipath", "abc"}, 3, "AGT0398E", true, "", "AGT0398E 'abc' is not a valid multipath option."},
        {{"-multipath", "9;dev1"}, 5, "/opt/ZOR/QLX/agent/bin/PathPlanner -multipath 9;dev1", true, "",
         "the setting given is 9"},
        {{}, 6, "AGT0272E", true, ""},
        {{"-multipath", "3;mpatha"}, 169, "AGT0456E", true, ""},
        // The rescan script's own complaint, which is nowhere in the activity log.
        {{"-multipath", "5"}, 1, "AGT0459I", true, "", "Error: SCSI subsystem not active"},
    };
    for (const auto& c : cases) {
        const std::string input = ::testing::PrintToString(c.args);
        NamespaceHarness host;
        host.addAnsweringTool("rpm", "", 1);
        host.hidePath("/proc/scsi");
        RunResult r = host.run(c.args);
        EXPECT_EQ(c.exitStatus, r.exitStatus) << input << ": " << r.describe();
        EXPECT_EQ(c.out, r.out) << input;
        EXPECT_EQ("", r.err) << input;
        const std::string log = host.readAgentFile("log/multipath.log");
        EXPECT_THAT(log, HasSubstr(c.logged)) << input << log;
        EXPECT_THAT(log, HasSubstr("AGT0430I")) << input;
        EXPECT_EQ(c.started, log.find("AGT0429I") != std::string::npos) << input << log;
        EXPECT_THAT(host.listAgentDir("log"), ElementsAre("multipath.log")) << input;
        if (!c.reason) continue;
        host.useTerminal();
        r = host.run(c.args);
        EXPECT_EQ(c.exitStatus, r.exitStatus) << input << ": " << r.describe();
        const std::string failed = "PathPlanner failed with exit status " + std::to_string(c.exitStatus) + " (";
        EXPECT_THAT(r.out, StartsWith(c.exitStatus ? failed : "5.2.8.0\r\n")) << input;
        EXPECT_THAT(r.out, EndsWith(c.exitStatus ? std::string("): ") + c.reason + "\r\n" : "")) << input;
        // The log is what the agent reads: the reason shown on a terminal adds nothing to it.
        EXPECT_THAT(host.readAgentFile("log/multipath.log"), Not(HasSubstr("SCSI subsystem"))) << input;
    }
}

// Set-up that fails: no installation, a catalogue directory without the catalogue, a
// directory where the trace file goes. Only the trace fails after the start message;
// none of them gets as far as the request or leaves a job file.
TEST_F(RunFlowE2eTest, SetUpFailuresExitWithTheirStatus) {
    const struct {
        const char* emptied;  // made an empty directory; nullptr: the installation is hidden
        int exitStatus;
        bool started;
    } cases[] = {{nullptr, 59, false}, {"nls", 72, false}, {"log/multipath.trace", 30, true}};
    for (const auto& c : cases) {
        NamespaceHarness host;
        if (c.emptied) {
            std::filesystem::remove(host.agentDir() + "/" + c.emptied);
            std::filesystem::create_directory(host.agentDir() + "/" + c.emptied);
        } else {
            host.hideInstallation();
        }
        RunResult r = host.run({"-debug", "MIN", "-multipath", "3;mpatha"});
        EXPECT_EQ(c.exitStatus, r.exitStatus) << r.describe();
        const std::string log = host.readAgentFile("log/multipath.log");
        EXPECT_EQ(c.started, (r.out + r.err + log).find("AGT0429I") != std::string::npos) << c.exitStatus << log;
        EXPECT_EQ(c.started, log.find("AGT0430I") != std::string::npos) << c.exitStatus << log;
        EXPECT_THAT(r.out + r.err + log, Not(HasSubstr("AGT0458I"))) << c.exitStatus;
        EXPECT_THAT(host.listAgentDir("log"), Not(::testing::Contains(EndsWith(".jobinfo")))) << c.exitStatus;
    }
}

}  // namespace
