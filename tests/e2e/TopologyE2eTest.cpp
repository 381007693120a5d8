// The installed PathPlannerTopology against fake multipath, multipathd, dmsetup and rpm
// and a fake fc_host tree: its listings, the queueing switch, and paths taken offline
// and online by adapter port.
#include <cstdio>

#include "gmock/gmock.h"
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

// Empty when text is JSON conforming to schema/<schema>; else python's complaint.
std::string jsonProblem(const std::string& text, const std::string& schema) {
    testfiles::TempDir dir;
    testfiles::writeFile(dir.file("doc.json"), text);
    const char check[] = "import json, jsonschema, sys\njsonschema.Draft202012Validator(json.load(open(sys.argv[2])))"
                         ".validate(json.load(open(sys.argv[1])))\n";
    const std::string args = dir.file("doc.json") + " " PP_SOURCE_DIR "/schema/" + schema;
    FILE* pipe = popen(("python3 -c " + shellQuote(check) + " " + args + " 2>&1").c_str(), "r");
    std::string said;
    char buf[512];
    while (pipe && fgets(buf, sizeof(buf), pipe)) said += buf;
    return pipe && pclose(pipe) == 0 ? "" : "not valid: " + said;
}

// One host per test; run() runs PathPlannerTopology there.
class TopologyE2eTest : public E2eTest {
protected:
    RunResult run(const Lines& args) { return host.run(args, "PathPlannerTopology"); }
    void installDriver(const std::string& listing = fixture("multipath-ll-v2.two-maps.stdout")) {
        installRpm(&host, kWithTools);
        host.addAnsweringTool("multipath", listing);
    }
    NamespaceHarness host;
};

// An empty listing that exits 0 is a host without maps, not a failure. The records
// form of it is TopologyFormatTest.JsonArrayInDeviceOrder's.
TEST_F(TopologyE2eTest, EmptyListingIsNoMaps) {
    installDriver("");
    RunResult r = run({});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.out, "{\"version\":2,\"driver\":\"Device Mapper Multipath Version 0.9.4-3\",\"maps\":[]}\n");
}

TEST_F(TopologyE2eTest, JsonNestsMapsGroupsAndPathsWithAdapterPorts) {
    installDriver();
    placeFcPorts(&host);
    RunResult r = run({"--json"});
    ASSERT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(jsonProblem(r.out, "topology-v2.schema.json"), "") << r.out;
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
        {{}, kWithTools, fixture("multipath-ll-v2.driver-not-loaded.stdout"), 1,
         fixture("multipath-ll-v2.driver-not-loaded.stderr"), 173, "STA0523E "},
        {{}, kWithTools, "Dec 1 | DM multipath kernel driver not loaded\n", 1, "", 173, "AGT0463I "},
        {{}, kWithTools, "/etc/multipath.conf does not exist, blacklisting all devices.\n", 1, "", 173, "AGT0464I "},
        {{"--table"}, kWithTools, "", -1, "", 173, "STA0523E .*/sbin/multipath"},
        {{"--bogus"}, kWithTools, twoMaps, 0, "", 3, "unknown or incomplete option '--bogus'"},
        {{"--offline", "21000024ff00aa0"}, kWithTools, twoMaps, 0, "", 3, "'21000024ff00aa0' is not a WWPN"},
        {{"--online", "21000024ff00aa00", "--map", "a;b"}, kWithTools, twoMaps, 0, "", 3, "'a;b' is not a multipath map"},
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

constexpr char kPort0[] = "21000024ff00aa00";  // host0: sda (mpatha), sdb (mpathb)
constexpr char kPort1[] = "21:00:00:24:FF:00:AA:01";  // host1: sdc (mpatha), sdd (mpathb)
constexpr char kPortWithoutPaths[] = "0x21000024ff00aa07";

class PathSwitchE2eTest : public TopologyE2eTest {
protected:
    // state holds one "device dmState checkerState" line per path; the fake multipath
    // prints the two-map listing with those states, and the fake multipathd edits
    // them as the real one would, unless told to refuse.
    void SetUp() override {
        E2eTest::SetUp();
        state_ = host.makeHostDir("state");
        setPaths({"sda active ready", "sdb active ready", "sdc active ready", "sdd active ready"});
        installRpm(&host, kWithTools);
        host.addFakeTool("multipath", "awk 'NR==FNR { dm[$1]=$2; chk[$1]=$3; next }\n"
                                      "{ for (i = 1; i <= NF; i++) if ($i in dm) { $(i+2)=dm[$i]; $(i+3)=chk[$i] } print }' " +
                                          state_ + "/paths " + state_ + "/listing");
        testfiles::writeFile(state_ + "/listing", fixture("multipath-ll-v2.two-maps.stdout"));
        host.addFakeTool("multipathd", "[ -f " + state_ + "/refuse ] && { echo fail; exit 1; }\n"
                                       "[ -f " + state_ + "/ignore ] && { echo ok; exit 0; }\n"
                                       "case \"$1\" in fail) s=failed ;; reinstate) s=active ;; *) exit 1 ;; esac\n"
                                       "sed -i \"s/^$3 [a-z]*/$3 $s/\" " + state_ + "/paths\necho ok");
        placeFcPorts(&host);
    }
    void setPaths(const Lines& paths) {
        std::string text;
        for (const std::string& line : paths) text += line + "\n";
        testfiles::writeFile(state_ + "/paths", text);
    }
    // "refuse" or "ignore" (say ok, change nothing).
    void multipathdAnswers(const char* how) { testfiles::writeFile(state_ + "/" + how, ""); }
    std::string state_;
};

TEST_F(PathSwitchE2eTest, OfflineThenOnlineTakesExactlyOneAdaptersPaths) {
    RunResult r = run({"--offline", kPort0});
    ASSERT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out,
              "{\"changed\":[{\"map\":\"mpatha\",\"device\":\"sda\",\"dmState\":\"failed\"},"
              "{\"map\":\"mpathb\",\"device\":\"sdb\",\"dmState\":\"failed\"}],\"unchanged\":[],\"refused\":[],"
              "\"failed\":[]}\n");
    EXPECT_EQ(jsonProblem(r.out, "path-switch-result.schema.json"), "") << r.out;
    EXPECT_EQ(host.toolCalls("multipathd"), (Lines{"fail path sda", "fail path sdb"}));
    EXPECT_THAT(host.readAgentFile("log/multipath.log"), ContainsRegex("AGT0470I User root set the path sda of the multipath map mpatha offline "
                                   "\\(adapter port 21000024ff00aa00\\)"));

    // Back online, in table form, for one map only.
    r = run({"--online", kPort0, "--map", "mpathb", "--table"});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.out,
              "MAP     DEVICE  RESULT   DM-STATE  REASON\n"
              "mpathb  sdb     changed  active    \n");
    EXPECT_EQ(host.toolCalls("multipathd"), (Lines{"fail path sda", "fail path sdb", "reinstate path sdb"}));
    EXPECT_THAT(host.readAgentFile("log/multipath.log"),
                HasSubstr("AGT0471I User root set the path sdb of the multipath map mpathb online"));
}

// Each refusal or error changes nothing and says why in one line.
TEST_F(PathSwitchE2eTest, RefusalsAndErrorsChangeNothing) {
    const struct {
        Lines args;
        Lines paths;  // empty: as the row before left them
        int exitStatus;
        const char* said;     // regular expression for the one error line
        const char* printed;  // substring of standard output ("" : nothing printed)
    } cases[] = {
        // host0's paths are down already, so host1 carries the last usable paths.
        {{"--offline", kPort1}, {"sda failed ready", "sdb failed faulty", "sdc active ready", "sdd active ready"}, 174,
         "refused, nothing changed: the maps mpatha, mpathb would have no usable path left",
         "\"refused\":[{\"map\":\"mpatha\",\"device\":\"sdc\",\"dmState\":\"active\",\"reason\":\"last usable path"},
        // A path whose checker says faulty is not usable, even when the kernel still uses it.
        {{"--offline", kPort1, "--map", "mpathb"}, {"sda active ready", "sdb active faulty", "sdc active ready",
         "sdd active ready"}, 174, "the maps mpathb would", "\"device\":\"sdd\""},
        {{"--offline", kPortWithoutPaths}, {}, 175, "no multipath path runs through the adapter port 21000024ff00aa07", ""},
        {{"--online", "21000024ff00aa99"}, {}, 175, "no adapter port has the WWPN 21000024ff00aa99", ""},
    };
    for (const auto& c : cases) {
        if (!c.paths.empty()) setPaths(c.paths);
        RunResult r = run(c.args);
        EXPECT_EQ(r.exitStatus, c.exitStatus) << c.said << ": " << r.describe();
        EXPECT_EQ(splitLines(r.err).size(), 1u) << r.err;
        EXPECT_THAT(r.err, ContainsRegex(std::string("^PathPlannerTopology: ") + ".*" + c.said)) << r.err;
        if (*c.printed) {
            EXPECT_THAT(r.out, HasSubstr(c.printed)) << c.said;
        } else {
            EXPECT_EQ(r.out, "") << c.said;
        }
        EXPECT_EQ(host.toolCalls("multipathd"), Lines{}) << c.said;
    }
    EXPECT_THAT(host.readAgentFile("log/multipath.log"),
                HasSubstr("AGT0473W Taking the paths of adapter port 21000024ff00aa01 offline was refused: the maps "
                          "mpatha, mpathb would have no usable path left."));
}

TEST_F(PathSwitchE2eTest, ForceAndDryRun) {
    setPaths({"sda failed ready", "sdb failed ready", "sdc active ready", "sdd active ready"});
    RunResult r = run({"--offline", kPort1, "--force", "--dry-run", "--table"});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.out,
              "MAP     DEVICE  RESULT        DM-STATE  REASON\n"
              "mpatha  sdc     would-change  active    \n"
              "mpathb  sdd     would-change  active    \n");
    EXPECT_EQ(host.toolCalls("multipathd"), Lines{});
    r = run({"--offline", kPort1, "--force"});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(host.toolCalls("multipathd"), (Lines{"fail path sdc", "fail path sdd"}));
}

// multipathd says no, or says yes and the kernel disagrees: the path is "failed",
// the others still go, and the exit status is 173.
TEST_F(PathSwitchE2eTest, PathsThatDoNotChangeAreReported) {
    multipathdAnswers("refuse");
    RunResult r = run({"--offline", kPort0});
    EXPECT_EQ(r.exitStatus, 173) << r.describe();
    EXPECT_EQ(r.err, "PathPlannerTopology: 2 of 2 paths did not go offline: sda: multipathd: fail\n");
    EXPECT_THAT(r.out, HasSubstr("\"failed\":[{\"map\":\"mpatha\",\"device\":\"sda\",\"dmState\":\"active\","
                                 "\"reason\":\"multipathd: fail\"}"));
    EXPECT_THAT(host.readAgentFile("log/multipath.log"),
                HasSubstr("AGT0472E User root could not set the path sda of the multipath map mpatha offline: "
                          "multipathd: fail"));

    multipathdAnswers("ignore");
    std::remove((state_ + "/refuse").c_str());
    r = run({"--offline", kPort0});
    EXPECT_EQ(r.exitStatus, 173) << r.describe();
    EXPECT_THAT(r.err, HasSubstr("sda: the kernel reports the path active"));
}

}  // namespace
