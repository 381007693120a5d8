// The installed tool's run flow as the agent sees it: exit status, standard output,
// activity log and job files.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/e2e/NamespaceHarness.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

class RunFlowE2eTest : public E2eTest {};

// Answers the two package queries of the drivers: the vendor package is missing,
// the device-mapper tools are installed ("rpm -qa" piped into "rpm -q <name>").
const char kRpmWithDeviceMapper[] = R"(case "$*" in
  *ZORzpl*) echo "package ZORzpl is not installed"; exit 1 ;;
  -qa*) echo "multipath-tools-0.9.4-3+deb12u1"; exit 0 ;;
  *) echo "multipath-tools-0.9.4-3+deb12u1"; exit 0 ;;
esac)";

// The vendor driver: its package is installed and lunctl answers its two queries
// from the captured listings.
const char kRpmWithVendor[] = R"SH(case "$*" in
  *ZORzpl*) echo "ZORzpl-1.6.2.0-1"; exit 0 ;;
  *) exit 0 ;;
esac)SH";
const std::string kLunctlQueries = "case \"$1\" in\n  query) cat '" PP_SOURCE_DIR
                                   "/tests/Multipath/data/lunctl-query-'\"$2\"'.txt' ;;\nesac";

// Sends the agent's stop request to the PathPlanner process that ran this tool.
const char kStopThePlanner[] = R"SH(p=$PPID
while [ "$p" -gt 1 ] && [ "$(cat /proc/$p/comm)" != PathPlanner ]; do p=$(cut -d' ' -f4 /proc/$p/stat); done
kill -TERM "$p"
)SH";

const char kRpmWithoutDrivers[] = R"(case "$*" in
  -qa*) exit 0 ;;
  *) echo "package $2 is not installed"; exit 1 ;;
esac)";

TEST_F(RunFlowE2eTest, VersionPrintsVersionOnlyAndExitsZero) {
    NamespaceHarness host;
    RunResult r = host.run({"-version"});
    ASSERT_EQ("", r.setupError);
    EXPECT_EQ(0, r.exitStatus) << r.describe();
    EXPECT_EQ("5.2.8.0\n", r.out);
    const std::string log = host.readAgentFile("log/multipath.log");
    EXPECT_THAT(log, HasSubstr("AGT0429I"));
    EXPECT_THAT(log, HasSubstr("AGT0430I"));
    EXPECT_THAT(host.listAgentDir("log"), ElementsAre("multipath.log"));
}

struct RejectedRun {
    std::vector<std::string> args;
    int exitStatus;
    const char* message;  // expected in the activity log, or null
    const char* out;      // exact standard output
};

// Every request that stops before the action: the start and end messages frame
// the run, and no job file is left behind.
TEST_F(RunFlowE2eTest, RejectedRequestsExitWithTheirStatus) {
    const RejectedRun cases[] = {
        {{"-bogus", "1"}, 3, "AGT0412E", ""},
        {{"-multipath", "abc"}, 3, "AGT0398E", ""},
        {{"-multipath", "\"7\";\"dev1\""}, 5, nullptr, ""},  // quotes removed: setting 7
        {{"-multipath", "7;dev1"}, 5, nullptr, ""},
        {{"-multipath", "2"}, 6, nullptr, ""},
        {{"-multipath", "0;dev1"}, 6, nullptr, ""},
        {{}, 6, "AGT0272E", ""},
        // "-multipath" is not allowed after "-version"; the version still prints.
        {{"-version", "-multipath", "5"}, 3, "AGT0412E", "5.2.8.0\n"},
    };
    for (const RejectedRun& c : cases) {
        const std::string input = ::testing::PrintToString(c.args);
        NamespaceHarness host;
        RunResult r = host.run(c.args);
        ASSERT_EQ("", r.setupError) << input;
        EXPECT_EQ(c.exitStatus, r.exitStatus) << input << ": " << r.describe();
        EXPECT_EQ(c.out, r.out) << input;
        const std::string log = host.readAgentFile("log/multipath.log");
        if (c.message) {
            EXPECT_THAT(log, HasSubstr(c.message)) << input;
        }
        EXPECT_THAT(log, HasSubstr("AGT0430I")) << input;
        EXPECT_THAT(host.listAgentDir("log"), ElementsAre("multipath.log")) << input;
    }
}

TEST_F(RunFlowE2eTest, RejectedCommandLineLogsNoStartMessage) {
    NamespaceHarness host;
    RunResult r = host.run({"-bogus", "1"});
    ASSERT_EQ(3, r.exitStatus) << r.describe();
    const std::string log = host.readAgentFile("log/multipath.log");
    EXPECT_THAT(log, HasSubstr("-bogus"));
    EXPECT_THAT(log, Not(HasSubstr("AGT0429I")));
}

TEST_F(RunFlowE2eTest, StartMessageEchoesCommandLine) {
    NamespaceHarness host;
    RunResult r = host.run({"-multipath", "7;dev1"});
    ASSERT_EQ(5, r.exitStatus) << r.describe();
    EXPECT_THAT(host.readAgentFile("log/multipath.log"),
                HasSubstr("/opt/ZOR/QLX/agent/bin/PathPlanner -multipath 7;dev1"));
}

TEST_F(RunFlowE2eTest, NoInstallationDirectoryExits59WithoutStartMessage) {
    NamespaceHarness host;
    host.setInstallTree(InstallTree::Empty);
    RunResult r = host.run({"-multipath", "5"});
    ASSERT_EQ("", r.setupError);
    EXPECT_EQ(59, r.exitStatus) << r.describe();
    EXPECT_THAT(r.out + r.err, Not(HasSubstr("AGT0429I")));
}

TEST_F(RunFlowE2eTest, DebugOptionWritesTraceBesideActivityLog) {
    NamespaceHarness host;
    RunResult r = host.run({"-debug", "MAX", "-multipath", "abc"});
    ASSERT_EQ(3, r.exitStatus) << r.describe();
    const std::string trace = host.readAgentFile("log/multipath.trace");
    EXPECT_THAT(trace, HasSubstr(" 'abc' is not a valid multipath option.\n"));
    EXPECT_THAT(trace, HasSubstr("Exit: validateArgs() rc: 3\n"));
}

TEST_F(RunFlowE2eTest, LogLimitOptionMovesActivityLogToNumberedFile) {
    NamespaceHarness host;
    RunResult r = host.run({"-maxlogsize", "100", "-multipath", "abc"});
    ASSERT_EQ(3, r.exitStatus) << r.describe();
    const std::vector<std::string> files = host.listAgentDir("log");
    ASSERT_EQ(1u, files.size()) << ::testing::PrintToString(files);
    EXPECT_THAT(files[0], ::testing::MatchesRegex("multipath_[0-9]{6}\\.log"));
    EXPECT_THAT(host.readAgentFile("log/" + files[0]), HasSubstr("AGT0430I"));
}

TEST_F(RunFlowE2eTest, ThreeRunsKeepingTwoLogsLeaveTheTwoNewest) {
    NamespaceHarness host;
    for (int run = 0; run < 3; ++run) {
        RunResult r = host.run({"-maxnumlogs", "2", "-multipath", "abc"});
        ASSERT_EQ(3, r.exitStatus) << r.describe();
    }
    EXPECT_THAT(host.listAgentDir("log"), ElementsAre("multipath_000002.log", "multipath_000003.log"));
}

TEST_F(RunFlowE2eTest, CatalogueThatCannotStartExits72) {
    NamespaceHarness host;
    // The installation has its nls directory, but no catalogue in it.
    std::filesystem::remove(host.agentDir() + "/nls");
    std::filesystem::create_directory(host.agentDir() + "/nls");
    RunResult r = host.run({"-multipath", "3;mpatha"});
    EXPECT_EQ(72, r.exitStatus) << r.describe();
    EXPECT_THAT(host.listAgentDir("log"), Not(Contains(::testing::EndsWith(".jobinfo"))));
}

TEST_F(RunFlowE2eTest, RoundRobinRequestReachesDeviceMapperTool) {
    NamespaceHarness host;
    host.addFakeTool(ToolDir::Path, {"rpm", "", 0, "", kRpmWithDeviceMapper});
    host.addFakeTool(ToolDir::Sbin, {"multipath", "", 0, "", ""});
    RunResult r = host.run({"-debug", "MAX", "-multipath", "3;mpatha"});
    ASSERT_EQ("", r.setupError);
    EXPECT_EQ(0, r.exitStatus) << r.describe();
    EXPECT_THAT(host.toolCalls("multipath"), ElementsAre(""));  // run once, no arguments
    const std::string log = host.readAgentFile("log/multipath.log");
    EXPECT_THAT(log, HasSubstr("AGT0429I"));
    EXPECT_THAT(log, HasSubstr("AGT0458I"));
    EXPECT_THAT(log, HasSubstr("Round Robin"));
    EXPECT_THAT(log, HasSubstr("AGT0430I"));
    const std::string trace = host.readAgentFile("log/multipath.trace");
    EXPECT_THAT(trace, HasSubstr("Calling: setPolicy with multipathSetting = 3 for devices \"mpatha\"\n"));
    EXPECT_THAT(trace, HasSubstr("Successfully deleted job file: "));
    EXPECT_THAT(host.listAgentDir("log"), ElementsAre("multipath.log", "multipath.trace"));
}

TEST_F(RunFlowE2eTest, FailingDriverCommandPassesItsResultThrough) {
    NamespaceHarness host;
    host.addFakeTool(ToolDir::Path, {"rpm", "", 0, "", kRpmWithDeviceMapper});
    host.addFakeTool(ToolDir::Sbin, {"multipath", "", 1, "map in use\n", ""});
    RunResult r = host.run({"-multipath", "3;mpatha"});
    EXPECT_EQ(173, r.exitStatus) << r.describe();
    EXPECT_EQ(1u, host.toolCalls("multipath").size());
    EXPECT_THAT(host.listAgentDir("log"), ElementsAre("multipath.log"));
}

TEST_F(RunFlowE2eTest, HostWithoutMultipathDriverExits169) {
    NamespaceHarness host;
    host.addFakeTool(ToolDir::Path, {"rpm", "", 0, "", kRpmWithoutDrivers});
    host.hideSbinTool("multipath");
    RunResult r = host.run({"-multipath", "4;mpatha;mpathb"});
    EXPECT_EQ(169, r.exitStatus) << r.describe();
    const std::string log = host.readAgentFile("log/multipath.log");
    EXPECT_THAT(log, HasSubstr("AGT0458I"));
    EXPECT_THAT(log, HasSubstr("Failover"));
    EXPECT_THAT(log, HasSubstr("AGT0456E"));
    EXPECT_THAT(host.listAgentDir("log"), ElementsAre("multipath.log"));
}

// The job file is written at the start of the action and removed at its end; a
// fake tool that runs during the action sees it.
TEST_F(RunFlowE2eTest, JobFileExistsDuringActionAndIsGoneAfter) {
    NamespaceHarness host;
    host.addFakeTool(ToolDir::Path, {"rpm", "", 0, "", kRpmWithDeviceMapper});
    const std::string seen = host.makeHostDir("seen");
    host.addFakeTool(ToolDir::Sbin, {"multipath", "", 0, "", "cat /opt/ZOR/QLX/agent/log/*.jobinfo > " + seen + "/job"});
    RunResult r = host.run({"-multipath", "3;mpatha"});
    ASSERT_EQ(0, r.exitStatus) << r.describe();
    std::string job;
    {
        std::ifstream in(seen + "/job");
        job.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    EXPECT_THAT(job, ::testing::StartsWith("DO NOT EDIT THIS FILE MANUALLY\npid="));
    EXPECT_THAT(job, HasSubstr(" startTime="));
    EXPECT_THAT(host.listAgentDir("log"), ElementsAre("multipath.log"));
}

// A WWPN too short to format makes the vendor driver throw; the run still ends in
// order, as a failed driver command.
TEST_F(RunFlowE2eTest, ExceptionInDriverEndsRunAsFailedCommand) {
    NamespaceHarness host;
    host.addFakeTool(ToolDir::Path, {"rpm", "", 0, "", kRpmWithVendor});
    host.addFakeTool(ToolDir::Path, {"lunctl", "", 0, "", kLunctlQueries});
    RunResult r = host.run({"-debug", "MIN", "-multipath", "0;lundev1;10000000"});
    ASSERT_EQ("", r.setupError);
    EXPECT_EQ(173, r.exitStatus) << r.describe();
    EXPECT_THAT(host.toolCalls("lunctl"), Not(::testing::Contains(HasSubstr("set"))));
    EXPECT_THAT(host.readAgentFile("log/multipath.trace"), HasSubstr("Multipath action ended by an exception: "));
    EXPECT_THAT(host.readAgentFile("log/multipath.log"), HasSubstr("AGT0430I"));
    EXPECT_THAT(host.listAgentDir("log"), ElementsAre("multipath.log", "multipath.trace"));
}

// The agent's stop arrives while the planner driver is still probing the host:
// the rescan must not start.
TEST_F(RunFlowE2eTest, StopRequestBeforeRescanExits8WithoutRescan) {
    NamespaceHarness host;
    host.addFakeTool(ToolDir::Path, {"rpm", "", 0, "", std::string(kStopThePlanner) + kRpmWithDeviceMapper});
    host.addFakeTool(ToolDir::Sbin, {"multipath", "", 0, "", ""});
    RunResult r = host.run({"-multipath", "5"});
    EXPECT_EQ(8, r.exitStatus) << r.describe();
    const std::string log = host.readAgentFile("log/multipath.log");
    EXPECT_THAT(log, HasSubstr("AGT0459I"));
    EXPECT_THAT(log, HasSubstr("AGT0445I"));
    EXPECT_THAT(host.toolCalls("multipath"), IsEmpty());
    EXPECT_THAT(host.listAgentDir("log"), ElementsAre("multipath.log"));
}

}  // namespace
