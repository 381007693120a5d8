// The installed PathPlannerTopology against fake multipath, dmsetup and rpm.
#include "gmock/gmock.h"
#include "tests/e2e/JsonCheck.h"
#include "tests/e2e/E2eHosts.h"

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using testfiles::splitLines;

namespace {

using Lines = std::vector<std::string>;

const char kWithTools[] = "bash-5.2.15-2\\nmultipath-tools-0.9.4-3\\n";

// rpm lists these packages; its complaint on standard error (the program's own) must
// never reach the user.
void installRpm(NamespaceHarness* host, const std::string& packages) {
    host->addFakeTool("rpm", "case \"$1\" in\n-qa) echo 'error: cannot open Packages database' >&2; printf '" +
                                 packages + "' ;;\n-q) printf '%s\\n' \"$2\" ;;\nesac");
}

class TopologyE2eTest : public E2eTest {
protected:
    void installDriver(const std::string& listing = fixture("multipath-ll-v2.two-maps.stdout")) {
        installRpm(&host, kWithTools);
        host.addAnsweringTool("multipath", listing);
    }
    RunResult run(const Lines& args) { return host.run(args, "PathPlannerTopology"); }

    NamespaceHarness host;
};

// The record layout itself is TopologyFormatTest's; here the driver text comes from
// the package query and every option form reaches the same listing.
TEST_F(TopologyE2eTest, RecordsCarryTheInstalledDriverWhateverTheOptionForm) {
    installDriver();
    for (const Lines& args : {Lines{"--records"}, Lines{"--records", "--trace", "/opt/ZOR/QLX/agent/log/t.trace"},
                              Lines{"--table", "--records"}, Lines{"--records", "--trace=/opt/ZOR/QLX/agent/log/t.trace", "--"}}) {
        RunResult r = run(args);
        ASSERT_EQ(r.exitStatus, 0) << r.describe();
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(jsonArrayLength(r.out), 4) << r.out;
        EXPECT_THAT(r.out, HasSubstr("\"device\":\"sda\",\"group\":1,\"driverVersion\":\"Device Mapper Multipath Version "
                                     "0.9.4-3\",\"spare\":\"\"},"));
    }
    EXPECT_EQ(host.toolCalls("multipath"), (Lines{"-ll -v2", "-ll -v2", "-ll -v2", "-ll -v2"}));
    EXPECT_THAT(host.readAgentFile("log/t.trace"), HasSubstr("Found Path sdd: host=1, channel=0, target=0, lun=1\n"));
}

// Runs that succeed with a fixed answer: no maps, no maps to switch, version, help.
TEST_F(TopologyE2eTest, FixedAnswers) {
    const struct {
        Lines args;
        const char* out;
        bool prefix = false;  // out begins the output rather than being all of it
    } cases[] = {
        {{"--records"}, "[]\n"},
        {{}, "{\"version\":2,\"driver\":\"Device Mapper Multipath Version 0.9.4-3\",\"maps\":[]}\n"},
        {{"--fail-if-no-path", "--table"}, "MAP  DEVICE  RESULT  DM-STATE  REASON\n"},
        {{"--version"}, "PathPlannerTopology 5.2.8.0\n"},
        {{"--help"}, "Usage: PathPlannerTopology", true},
    };
    for (const auto& c : cases) {
        NamespaceHarness one;
        installRpm(&one, kWithTools);
        one.addAnsweringTool("multipath", "");
        one.addAnsweringTool("dmsetup", fixture("dmsetup-ls.no-maps.stdout"));
        RunResult r = one.run(c.args, "PathPlannerTopology");
        EXPECT_EQ(r.exitStatus, 0) << r.describe();
        EXPECT_EQ(c.prefix ? r.out.substr(0, std::string(c.out).size()) : r.out, c.out);
    }
}

// How each field is escaped and read is TopologyFormatTest's and DMTopologyParserTest's;
// here both outputs of the installed tool stay valid JSON.
TEST_F(TopologyE2eTest, HostileListingStillGivesValidJson) {
    installDriver("m\"x\\ (0123456789abcdef)\r\n`-+- policy='se\x01rv 0' prio=7 status=active\n"
                  "  |- 0:0:0:0 sd\"a\\\xff 8:0 active ready running\n  `- 1a:0:0:0 sd\xc3\xa9 8:0 failed\n"
                  "  `- 0:0:0:0 sdz\n\xde\xad\xbe\xef garbage |- : #\n");
    RunResult r = run({"--records"});
    ASSERT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(jsonArrayLength(r.out), 2) << r.out;
    r = run({});
    ASSERT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(schemaProblem(r.out), "") << r.out;
    EXPECT_THAT(r.out, HasSubstr("\"name\":\"m\\\"x\\\\\""));
}

TEST_F(TopologyE2eTest, JsonNestsMapsGroupsAndPathsWithAdapterPorts) {
    installDriver();
    placeFcPorts(&host);
    RunResult r = run({"--json"});
    ASSERT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(schemaProblem(r.out), "") << r.out;
    Lines out = splitLines(r.out);
    ASSERT_EQ(out.size(), 4u) << r.out;
    EXPECT_EQ(out[1],
              "{\"name\":\"mpatha\",\"wwid\":\"333333330000007d0\",\"dm\":\"dm-0\",\"vendor\":\"Linux\","
              "\"product\":\"scsi_debug\",\"size\":\"16M\",\"features\":\"0\",\"queueing\":false,"
              "\"hwhandler\":\"1 alua\",\"groups\":[{\"number\":1,\"policy\":\"service-time 0\",\"priority\":50,"
              "\"status\":\"active\",\"preferred\":true,\"paths\":[{\"device\":\"sda\",\"devt\":\"8:0\",\"host\":0,"
              "\"channel\":0,\"target\":0,\"lun\":0,\"dmState\":\"active\",\"checkerState\":\"ready\","
              "\"deviceState\":\"running\",\"adapterWwpn\":\"21000024ff00aa00\"}]},{\"number\":2,"
              "\"policy\":\"service-time 0\",\"priority\":10,\"status\":\"enabled\",\"preferred\":false,"
              "\"paths\":[{\"device\":\"sdc\",\"devt\":\"8:32\",\"host\":1,\"channel\":0,\"target\":0,\"lun\":0,"
              "\"dmState\":\"active\",\"checkerState\":\"ready\",\"deviceState\":\"running\","
              "\"adapterWwpn\":\"21000024ff00aa01\"}]}]},");
    // Without Fibre Channel ports, and from a bracketed listing, the fields are null.
    NamespaceHarness old;
    installRpm(&old, kWithTools);
    old.addAnsweringTool("multipath", fixture("multipath-ll-v2.bracketed-0.4.5.stdout"));
    r = old.run({}, "PathPlannerTopology");
    ASSERT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(schemaProblem(r.out), "") << r.out;
    EXPECT_THAT(r.out, HasSubstr("\"dm\":null,\"vendor\":null,\"product\":null,\"size\":\"5 GB\""));
    EXPECT_THAT(r.out, HasSubstr("\"deviceState\":null,\"adapterWwpn\":null}"));
}

// Every failure is one line on standard error and nothing on standard output.
TEST_F(TopologyE2eTest, FailuresAreOneErrorLine) {
    const std::string twoMaps = fixture("multipath-ll-v2.two-maps.stdout");
    const struct {
        Lines args;
        const char* packages;
        std::string listing;
        int listingStatus;  // -1: no /sbin/multipath
        std::string listingErr;
        int exitStatus;
        const char* said;  // a regular expression
    } cases[] = {
        {{"--json"}, "bash-5.2.15-2\\n", twoMaps, 0, "", 169, "^PathPlannerTopology: AGT0456E "},
        {{"--fail-if-no-path"}, "bash-5.2.15-2\\n", twoMaps, 0, "", 169, "^PathPlannerTopology: AGT0456E "},
        {{}, kWithTools, fixture("multipath-ll-v2.driver-not-loaded.stdout"), 1,
         fixture("multipath-ll-v2.driver-not-loaded.stderr"), 173, "STA0523E "},
        {{}, kWithTools, "Dec 1 | DM multipath kernel driver not loaded\n", 1, "", 173, "AGT0463I "},
        {{}, kWithTools, "/etc/multipath.conf does not exist, blacklisting all devices.\n", 1, "", 173, "AGT0464I "},
        {{}, kWithTools, twoMaps, 2, "", 173, "STA0523E "},
        {{"--table"}, kWithTools, "", -1, "", 173, "STA0523E .*/sbin/multipath"},
        {{"--bogus"}, kWithTools, twoMaps, 0, "", 3, "unknown or incomplete option '--bogus'"},
        {{"--trace"}, kWithTools, twoMaps, 0, "", 3, "unknown or incomplete option '--trace'"},
        {{"json"}, kWithTools, twoMaps, 0, "", 3, "unexpected argument 'json'"},
        {{"--offline", "21000024ff00aa0"}, kWithTools, twoMaps, 0, "", 3, "'21000024ff00aa0' is not a WWPN"},
        {{"--offline=1", "--online=2"}, kWithTools, twoMaps, 0, "", 3, "only one of --offline"},
        {{"--force"}, kWithTools, twoMaps, 0, "", 3, "need --offline or --online"},
        {{"--online", "21000024ff00aa00", "--map", "a;b"}, kWithTools, twoMaps, 0, "", 3, "'a;b' is not a multipath map"},
        {{"--fail-if-no-path", "--records"}, kWithTools, twoMaps, 0, "", 3, "--records only goes"},
        {{"--", "--json"}, kWithTools, twoMaps, 0, "", 3, "unexpected argument '--json'"},
        // Known noise on standard error is passed over for the line that explains.
        {{}, kWithTools, "x", 1, "can't set open fds limit to 1048576, got 1024\nfatal: no memory\n", 173,
         "STA0523E .* \\(fatal: no memory\\)\n"},
    };
    for (const auto& c : cases) {
        NamespaceHarness one;
        installRpm(&one, c.packages);
        if (c.listingStatus < 0) one.hideSbinTool("multipath");
        if (c.listingStatus >= 0) one.addAnsweringTool("multipath", c.listing, c.listingStatus, c.listingErr);
        RunResult r = one.run(c.args, "PathPlannerTopology");
        EXPECT_EQ(r.exitStatus, c.exitStatus) << c.said << ": " << r.describe();
        EXPECT_EQ(r.out, "") << c.said;
        EXPECT_EQ(splitLines(r.err).size(), 1u) << r.err;
        EXPECT_THAT(r.err, ContainsRegex(c.said));
        EXPECT_THAT(r.err, ::testing::Not(HasSubstr(">>")));
        EXPECT_TRUE(c.exitStatus != 169 || one.toolCalls("multipath").empty()) << c.said;
    }
}

TEST_F(TopologyE2eTest, FailIfNoPathSwitchesQueueingMaps) {
    const std::string tables = host.makeHostDir("tables");
    testfiles::writeFile(tables + "/mpatha", fixture("dmsetup-table.queueing.stdout"));
    testfiles::writeFile(tables + "/mpathb", fixture("dmsetup-table.plain.stdout"));
    testfiles::writeFile(tables + "/ls", fixture("dmsetup-ls.two-maps.stdout") + "vg0-lv_root\t(254:0)\n");
    installRpm(&host, kWithTools);
    host.addFakeTool("dmsetup", "case \"$1\" in\nls) cat " + tables + "/ls ;;\ntable) cat " + tables + "/\"$2\" ;;\nesac");
    RunResult r = run({"--fail-if-no-path"});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.out, "{\"changed\":[{\"map\":\"mpatha\"}],\"unchanged\":[{\"map\":\"mpathb\"}],\"refused\":[],\"failed\":[]}\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(host.toolCalls("dmsetup"), (Lines{"ls", "table mpatha", "message mpatha 0 fail_if_no_path", "table mpathb"}));
}

// A failing "dmsetup ls" is not "no maps"; a refused message is not success.
TEST_F(TopologyE2eTest, FailIfNoPathFailuresAreOneLine) {
    installRpm(&host, kWithTools);
    host.addAnsweringTool("dmsetup", "", 1, "can't set open fds limit\n/dev/mapper/control: open failed: Permission denied\n");
    RunResult r = run({"--fail-if-no-path"});
    EXPECT_EQ(r.exitStatus, 173) << r.describe();
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, ContainsRegex("^PathPlannerTopology: STA0523E .*dmsetup\" ls \\(/dev/mapper/control: open failed"));
    EXPECT_EQ(splitLines(r.err).size(), 1u) << r.err;

    NamespaceHarness refusing;
    installRpm(&refusing, kWithTools);
    refusing.addFakeTool("dmsetup", "case \"$1\" in\nls) printf 'mpatha\\t(253:0)\\n' ;;\n"
                                    "table) echo '0 32768 multipath 1 queue_if_no_path 0 1 1 round-robin 0 1 1 8:0 1' ;;\n"
                                    "message) exit 1 ;;\nesac");
    r = refusing.run({"--fail-if-no-path"}, "PathPlannerTopology");
    EXPECT_EQ(r.exitStatus, 173) << r.describe();
    EXPECT_EQ(r.out, "{\"changed\":[],\"unchanged\":[],\"refused\":[],\"failed\":[{\"map\":\"mpatha\",\"reason\":"
                     "\"dmsetup refused fail_if_no_path\"}]}\n");
    EXPECT_EQ(r.err, "PathPlannerTopology: dmsetup refused fail_if_no_path for mpatha\n");
}

}  // namespace
