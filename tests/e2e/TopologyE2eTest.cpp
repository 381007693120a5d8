// The installed PathPlannerTopology against fake multipath, dmsetup and rpm.
#include <cstdio>

#include "gmock/gmock.h"
#include "tests/e2e/NamespaceHarness.h"

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using testfiles::splitLines;

namespace {

using Lines = std::vector<std::string>;

const char kWithTools[] = "bash-5.2.15-2\\nmultipath-tools-0.9.4-3\\n";

std::string fixture(const std::string& name) {
    return testfiles::testData("Multipath/linux/data/" + name);
}

// Number of elements of the JSON array in text, or -1 when python's parser rejects it.
int jsonArrayLength(const std::string& text) {
    testfiles::TempDir dir;
    testfiles::writeFile(dir.file("out.json"), text);
    const std::string command =
        "python3 -c 'import json,sys; print(len(json.load(open(sys.argv[1]))))' " + dir.file("out.json") + " 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    char buf[32] = {0};
    const bool read = pipe && fgets(buf, sizeof(buf), pipe) != nullptr;
    return (pipe ? pclose(pipe) : -1) == 0 && read ? atoi(buf) : -1;
}

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

TEST_F(TopologyE2eTest, JsonListsEveryPathInDeviceOrder) {
    installDriver();
    const std::string trace = "/opt/ZOR/QLX/agent/log/topology.trace";
    for (const Lines& args : {Lines{}, Lines{"--json", "--trace", trace}, Lines{"--table", "--json"}}) {
        RunResult r = run(args);
        ASSERT_EQ(r.exitStatus, 0) << r.describe();
        EXPECT_EQ(r.err, "");
        Lines out = splitLines(r.out);
        ASSERT_EQ(out.size(), 6u) << r.out;
        EXPECT_EQ(out[1],
                  "{\"kind\":1,\"id\":\"0\",\"host\":0,\"channel\":0,\"target\":0,\"lun\":0,\"state\":\"ready\","
                  "\"mode\":\"running\",\"preferred\":true,\"policy\":\"service-time\",\"disk\":\"mpatha\","
                  "\"device\":\"sda\",\"group\":1,\"driverVersion\":\"Device Mapper Multipath Version 0.9.4-3\","
                  "\"spare\":\"\"},");
        EXPECT_THAT(out[3], HasSubstr("\"preferred\":false,\"policy\":\"service-time\",\"disk\":\"mpatha\",\"device\":\"sdc\""));
        EXPECT_EQ(jsonArrayLength(r.out), 4);
    }
    EXPECT_EQ(host.toolCalls("multipath"), (Lines{"-ll -v2", "-ll -v2", "-ll -v2"}));
    EXPECT_THAT(host.readAgentFile("log/topology.trace"), HasSubstr("Found Path sdd: host=1, channel=0, target=0, lun=1\n"));
}

TEST_F(TopologyE2eTest, TableAlignsEveryPath) {
    installDriver();
    RunResult r = run({"--table"});
    ASSERT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out,
              "DEVICE  H:C:T:L  DISK    GROUP  POLICY        MODE     STATE  PREFERRED\n"
              "sda     0:0:0:0  mpatha  1      service-time  running  ready  yes\n"
              "sdb     0:0:0:1  mpathb  1      service-time  running  ready  yes\n"
              "sdc     1:0:0:0  mpatha  2      service-time  running  ready  no\n"
              "sdd     1:0:0:1  mpathb  2      service-time  running  ready  no\n");
}

TEST_F(TopologyE2eTest, NoMapsIsAnEmptyArray) {
    installDriver("");
    RunResult r = run({});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.out, "[]\n");
}

TEST_F(TopologyE2eTest, HostileListingStillGivesValidJson) {
    installDriver("m\"x\\ (0123456789abcdef)\r\n`-+- policy='se\x01rv 0' prio=7 status=active\n"
                  "  |- 0:0:0:0 sd\"a\\\xff 8:0 active ready running\n  `- 1a:0:0:0 sd\xc3\xa9 8:0 failed\n"
                  "  `- 0:0:0:0 sdz\n\xde\xad\xbe\xef garbage |- : #\n");
    RunResult r = run({});
    ASSERT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(jsonArrayLength(r.out), 2) << r.out;
    EXPECT_THAT(r.out, HasSubstr("\"disk\":\"m\\\"x\\\\\""));
    EXPECT_THAT(r.out, HasSubstr("\"device\":\"sd\\\"a\\\\\\ufffd\""));
    EXPECT_THAT(r.out, HasSubstr("\"host\":26,"));
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
        {{"--table"}, "bash-5.2.15-2\\n", twoMaps, 0, "", 169, "^PathPlannerTopology: AGT0456E "},
        {{"--fail-if-no-path"}, "bash-5.2.15-2\\n", twoMaps, 0, "", 169, "^PathPlannerTopology: AGT0456E "},
        {{}, kWithTools, fixture("multipath-ll-v2.driver-not-loaded.stdout"), 1,
         fixture("multipath-ll-v2.driver-not-loaded.stderr"), 173, "STA0523E "},
        {{}, kWithTools, "Dec 1 | DM multipath kernel driver not loaded\n", 1, "", 173, "AGT0463I "},
        {{}, kWithTools, "/etc/multipath.conf does not exist, blacklisting all devices.\n", 1, "", 173, "AGT0464I "},
        {{}, kWithTools, twoMaps, 2, "", 173, "STA0523E "},
        {{"--table"}, kWithTools, "", -1, "", 173, "STA0523E .*/sbin/multipath"},
        {{"--bogus"}, kWithTools, twoMaps, 0, "", 3, "unknown or incomplete option '--bogus'"},
        {{"--trace"}, kWithTools, twoMaps, 0, "", 3, "unknown or incomplete option '--trace'"},
        {{"json"}, kWithTools, twoMaps, 0, "", 3, "unknown or incomplete option 'json'"},
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
    EXPECT_EQ(r.out, "mpatha: switched to fail_if_no_path\nmpathb: not queueing, left alone\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(host.toolCalls("dmsetup"), (Lines{"ls", "table mpatha", "message mpatha 0 fail_if_no_path", "table mpathb"}));
}

TEST_F(TopologyE2eTest, FailIfNoPathWithoutMapsSaysSo) {
    installRpm(&host, kWithTools);
    host.addAnsweringTool("dmsetup", fixture("dmsetup-ls.no-maps.stdout"));
    RunResult r = run({"--fail-if-no-path"});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.out, "no multipath maps\n");
    EXPECT_EQ(host.toolCalls("dmsetup"), Lines{"ls"});
}

TEST_F(TopologyE2eTest, HelpPrintsUsage) {
    RunResult r = run({"--help"});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_THAT(r.out, StartsWith("Usage: PathPlannerTopology"));
}

}  // namespace
