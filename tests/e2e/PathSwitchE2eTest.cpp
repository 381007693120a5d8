// PathPlannerTopology --offline/--online against a fake multipathd, a fake multipath
// whose listing follows what multipathd was told, and a fake fc_host tree.
#include <cstdio>

#include "gmock/gmock.h"
#include "tests/e2e/JsonCheck.h"
#include "tests/e2e/E2eHosts.h"

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using testfiles::splitLines;

namespace {

using Lines = std::vector<std::string>;

constexpr char kPort0[] = "21000024ff00aa00";  // host0: sda (mpatha), sdb (mpathb)
constexpr char kPort1[] = "21:00:00:24:FF:00:AA:01";  // host1: sdc (mpatha), sdd (mpathb)
constexpr char kPortWithoutPaths[] = "0x21000024ff00aa07";

class PathSwitchE2eTest : public E2eTest {
protected:
    // state holds one "device dmState checkerState" line per path; the fake multipath
    // prints the two-map listing with those states, and the fake multipathd edits
    // them as the real one would, unless told to refuse.
    void SetUp() override {
        E2eTest::SetUp();
        state_ = host.makeHostDir("state");
        setPaths({"sda active ready", "sdb active ready", "sdc active ready", "sdd active ready"});
        host.addFakeTool("rpm", "case \"$1\" in\n-qa) echo multipath-tools-0.9.4-3 ;;\n-q) echo \"$2\" ;;\nesac");
        host.addFakeTool("multipath", "[ -f " + state_ + "/broken ] && { echo \"can't set open fds limit\" >&2;\n"
                                      "  echo 'DM multipath kernel driver not loaded' >&2; exit 1; }\n"
                                      "awk 'NR==FNR { dm[$1]=$2; chk[$1]=$3; next }\n"
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
    // "refuse", "ignore" (say ok, change nothing) or "broken" (multipath fails).
    void multipathdAnswers(const char* how) { testfiles::writeFile(state_ + "/" + how, ""); }
    RunResult run(const Lines& args) { return host.run(args, "PathPlannerTopology"); }

    NamespaceHarness host;
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
    EXPECT_EQ(schemaProblem(r.out, "path-switch-result.schema.json"), "") << r.out;
    EXPECT_EQ(host.toolCalls("multipathd"), (Lines{"fail path sda", "fail path sdb"}));
    EXPECT_THAT(host.readAgentFile("log/multipath.log"), ContainsRegex("AGT0470I User root set the path sda of the multipath map mpatha offline "
                                   "\\(adapter port 21000024ff00aa00\\)"));

    // Again: nothing left to do. Then back online, in table form, for one map only.
    r = run({"--offline=0x21000024FF00AA00"});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_THAT(r.out, HasSubstr("\"changed\":[],\"unchanged\":[{\"map\":\"mpatha\",\"device\":\"sda\""));
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
        Lines paths;  // empty: all four active and ready; "broken": multipath fails
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
        {{"--offline", kPort1, "--dry-run"}, {"sda failed ready", "sdb active ready", "sdc active ready",
         "sdd active ready"}, 174, "the maps mpatha would", "\"dryRun\":true"},
        {{"--offline", kPortWithoutPaths}, {}, 175, "no multipath path runs through the adapter port 21000024ff00aa07", ""},
        {{"--online", "21000024ff00aa99"}, {}, 175, "no adapter port has the WWPN 21000024ff00aa99", ""},
        {{"--offline", kPort0, "--map", "mpathz"}, {}, 175, "no multipath map is named mpathz", ""},
        // Last: a listing that fails stops before any change.
        {{"--online", kPort0}, {"broken"}, 173,
         "STA0523E .*multipath\" -ll -v2 \\(DM multipath kernel driver not loaded\\)\n", ""},
    };
    for (const auto& c : cases) {
        if (c.paths == Lines{"broken"}) multipathdAnswers("broken");
        if (!c.paths.empty() && c.paths[0] != "broken") setPaths(c.paths);
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
    r = run({"--online", kPort0, "--dry-run"});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_THAT(r.out, HasSubstr("{\"dryRun\":true,\"changed\":[{\"map\":\"mpatha\",\"device\":\"sda\""));
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
