// The installed PathPlannerTopology against fake multipath, dmsetup and rpm.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/NamespaceHarness.h"

namespace {

using Lines = std::vector<std::string>;

std::string fixture(const std::string& name) {
    std::ifstream in(std::string(PP_SOURCE_DIR) + "/tests/Multipath/linux/data/" + name, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

Lines lines(const std::string& text) {
    Lines out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

// A fake tool that prints out and err and exits with status.
FakeTool answering(const std::string& name, const std::string& out, int status = 0, const std::string& err = "") {
    return {name, out, status, err, ""};
}

// rpm answers the package query the way it does with multipath-tools installed.
FakeTool rpmWith(const std::string& packages) {
    return {"rpm", "", 0, "", "case \"$1\" in\n-qa) printf '" + packages + "' ;;\n-q) printf '%s\\n' \"$2\" ;;\nesac"};
}

// Number of elements of the JSON array in text, or -1 when python's parser rejects it.
int jsonArrayLength(const std::string& text, const std::string& dir) {
    std::string file = dir + "/out.json";
    std::ofstream(file, std::ios::binary) << text;
    std::string command = "python3 -c 'import json,sys; print(len(json.load(open(sys.argv[1]))))' " + file + " 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    char buf[32] = {0};
    bool read = pipe && fgets(buf, sizeof(buf), pipe) != nullptr;
    int status = pipe ? pclose(pipe) : -1;
    return read && status == 0 ? atoi(buf) : -1;
}

class TopologyE2eTest : public E2eTest {
protected:
    void installDriver() {
        host.addFakeTool(ToolDir::Path, rpmWith("bash-5.2.15-2\\nmultipath-tools-0.9.4-3\\n"));
        host.addFakeTool(ToolDir::Sbin, answering("multipath", fixture("multipath-ll-v2.two-maps.stdout")));
    }
    RunResult run(const Lines& args) { return host.runProgram("PathPlannerTopology", args); }

    NamespaceHarness host;
};

TEST_F(TopologyE2eTest, JsonListsEveryPathInDeviceOrder) {
    installDriver();
    for (const Lines& args : {Lines{}, Lines{"--json"}, Lines{"--table", "--json"}}) {
        RunResult r = run(args);
        ASSERT_EQ(r.exitStatus, 0) << r.describe();
        EXPECT_EQ(r.err, "");
        Lines out = lines(r.out);
        ASSERT_EQ(out.size(), 6u) << r.out;
        EXPECT_EQ(out[1],
                  "{\"kind\":1,\"id\":\"0\",\"host\":0,\"channel\":0,\"target\":0,\"lun\":0,\"state\":\"ready\","
                  "\"mode\":\"running\",\"preferred\":true,\"policy\":\"service-time\",\"disk\":\"mpatha\","
                  "\"device\":\"sda\",\"group\":1,\"driverVersion\":\"Device Mapper Multipath Version 0.9.4-3\","
                  "\"spare\":\"\"},");
        EXPECT_NE(out[3].find("\"preferred\":false,\"policy\":\"service-time\",\"disk\":\"mpatha\",\"device\":\"sdc\""),
                  std::string::npos);
        EXPECT_EQ(jsonArrayLength(r.out, host.makeHostDir("json")), 4);
    }
    EXPECT_EQ(host.toolCalls("multipath"), (Lines{"-ll -v2", "-ll -v2", "-ll -v2"}));
    EXPECT_EQ(host.toolCalls("rpm")[0], "-qa");
}

TEST_F(TopologyE2eTest, TableAlignsEveryPath) {
    installDriver();
    RunResult r = run({"--table"});
    ASSERT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.out,
              "DEVICE  H:C:T:L  DISK    GROUP  POLICY        MODE     STATE  PREFERRED\n"
              "sda     0:0:0:0  mpatha  1      service-time  running  ready  yes\n"
              "sdb     0:0:0:1  mpathb  1      service-time  running  ready  yes\n"
              "sdc     1:0:0:0  mpatha  2      service-time  running  ready  no\n"
              "sdd     1:0:0:1  mpathb  2      service-time  running  ready  no\n");
}

TEST_F(TopologyE2eTest, NoMapsIsAnEmptyArray) {
    host.addFakeTool(ToolDir::Path, rpmWith("multipath-tools-0.9.4-3\\n"));
    host.addFakeTool(ToolDir::Sbin, answering("multipath", ""));
    RunResult r = run({});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.out, "[]\n");
}

TEST_F(TopologyE2eTest, HostileListingStillGivesValidJson) {
    host.addFakeTool(ToolDir::Path, rpmWith("multipath-tools-0.9.4-3\\n"));
    std::string listing = "m\"x\\ (0123456789abcdef)\r\n`-+- policy='se\x01rv 0' prio=7 status=active\n"
                          "  |- 0:0:0:0 sd\"a\\\xff 8:0 active ready running\n  `- 1a:0:0:0 sd\xc3\xa9 8:0 failed\n"
                          "  `- 0:0:0:0 sdz\n\xde\xad\xbe\xef garbage |- : #\n";
    host.addFakeTool(ToolDir::Sbin, answering("multipath", listing));
    RunResult r = run({});
    ASSERT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(jsonArrayLength(r.out, host.makeHostDir("json")), 2) << r.out;
    EXPECT_NE(r.out.find("\"disk\":\"m\\\"x\\\\\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"device\":\"sd\\\"a\\\\\\ufffd\""), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("\"host\":26,"), std::string::npos) << r.out;
}

TEST_F(TopologyE2eTest, NoDriverIsOneErrorLine) {
    host.addFakeTool(ToolDir::Path, rpmWith("bash-5.2.15-2\\n"));
    host.addFakeTool(ToolDir::Sbin, answering("multipath", fixture("multipath-ll-v2.two-maps.stdout")));
    for (const char* mode : {"--json", "--table", "--fail-if-no-path"}) {
        RunResult r = run({mode});
        EXPECT_EQ(r.exitStatus, 169) << r.describe();
        EXPECT_EQ(r.out, "");
        ASSERT_EQ(lines(r.err).size(), 1u) << r.err;
        EXPECT_EQ(r.err.rfind("PathPlannerTopology: AGT0456E ", 0), 0u) << r.err;
    }
    EXPECT_TRUE(host.toolCalls("multipath").empty());
}

// The package listing's complaints reach the shell's standard error, which is the
// program's own; they must not reach the user.
TEST_F(TopologyE2eTest, RpmComplaintsStayQuiet) {
    FakeTool rpm = rpmWith("multipath-tools-0.9.4-3\\n");
    rpm.body = "[ \"$1\" = -qa ] && echo 'error: cannot open Packages database in /var/lib/rpm' >&2\n" + rpm.body;
    host.addFakeTool(ToolDir::Path, rpm);
    host.addFakeTool(ToolDir::Sbin, answering("multipath", fixture("multipath-ll-v2.two-maps.stdout")));
    RunResult r = run({"--table"});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(lines(r.out).size(), 5u) << r.out;
}

TEST_F(TopologyE2eTest, ListingFailuresAreOneErrorLine) {
    const struct {
        std::string out;
        int status;
        std::string err;
        const char* said;
    } cases[] = {
        {fixture("multipath-ll-v2.driver-not-loaded.stdout"), 1, fixture("multipath-ll-v2.driver-not-loaded.stderr"),
         "STA0523E "},
        {"Dec 1 | DM multipath kernel driver not loaded\n", 1, "", "AGT0463I "},
        {"/etc/multipath.conf does not exist, blacklisting all devices.\n", 1, "", "AGT0464I "},
        {fixture("multipath-ll-v2.two-maps.stdout"), 2, "", "STA0523E "},
    };
    for (const auto& c : cases) {
        NamespaceHarness one;
        one.addFakeTool(ToolDir::Path, rpmWith("multipath-tools-0.9.4-3\\n"));
        one.addFakeTool(ToolDir::Sbin, answering("multipath", c.out, c.status, c.err));
        RunResult r = one.runProgram("PathPlannerTopology", {});
        EXPECT_EQ(r.exitStatus, 173) << r.describe();
        EXPECT_EQ(r.out, "");
        ASSERT_EQ(lines(r.err).size(), 1u) << r.err;
        EXPECT_NE(r.err.find(c.said), std::string::npos) << r.err;
        EXPECT_EQ(r.err.find(">>"), std::string::npos) << r.err;
    }
}

TEST_F(TopologyE2eTest, MissingMultipathIsOneErrorLine) {
    host.addFakeTool(ToolDir::Path, rpmWith("multipath-tools-0.9.4-3\\n"));
    host.hideSbinTool("multipath");
    RunResult r = run({"--table"});
    EXPECT_EQ(r.exitStatus, 173) << r.describe();
    ASSERT_EQ(lines(r.err).size(), 1u) << r.err;
    EXPECT_NE(r.err.find("STA0523E "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("/sbin/multipath"), std::string::npos) << r.err;
}

TEST_F(TopologyE2eTest, FailIfNoPathSwitchesQueueingMaps) {
    std::string tables = host.makeHostDir("tables");
    std::ofstream(tables + "/mpatha") << fixture("dmsetup-table.queueing.stdout");
    std::ofstream(tables + "/mpathb") << fixture("dmsetup-table.plain.stdout");
    std::ofstream(tables + "/ls") << fixture("dmsetup-ls.two-maps.stdout") << "vg0-lv_root\t(254:0)\n";
    host.addFakeTool(ToolDir::Path, rpmWith("multipath-tools-0.9.4-3\\n"));
    host.addFakeTool(ToolDir::Sbin, {"dmsetup", "", 0, "",
                                     "case \"$1\" in\nls) cat " + tables + "/ls ;;\ntable) cat " + tables +
                                         "/\"$2\" ;;\nesac"});
    RunResult r = run({"--fail-if-no-path"});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.out, "mpatha: switched to fail_if_no_path\nmpathb: not queueing, left alone\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(host.toolCalls("dmsetup"), (Lines{"ls", "table mpatha", "message mpatha 0 fail_if_no_path", "table mpathb"}));
}

TEST_F(TopologyE2eTest, FailIfNoPathWithoutMaps) {
    host.addFakeTool(ToolDir::Path, rpmWith("multipath-tools-0.9.4-3\\n"));
    host.addFakeTool(ToolDir::Sbin, answering("dmsetup", fixture("dmsetup-ls.no-maps.stdout")));
    RunResult r = run({"--fail-if-no-path"});
    EXPECT_EQ(r.exitStatus, 0) << r.describe();
    EXPECT_EQ(r.out, "no multipath maps\n");
    EXPECT_EQ(host.toolCalls("dmsetup"), Lines{"ls"});
}

TEST_F(TopologyE2eTest, HelpAndBadOptions) {
    RunResult help = run({"--help"});
    EXPECT_EQ(help.exitStatus, 0) << help.describe();
    EXPECT_EQ(help.out.rfind("Usage: PathPlannerTopology", 0), 0u) << help.out;
    for (const Lines& args : {Lines{"--bogus"}, Lines{"--trace"}, Lines{"json"}}) {
        RunResult r = run(args);
        EXPECT_EQ(r.exitStatus, 3) << r.describe();
        EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

TEST_F(TopologyE2eTest, TraceFollowsTheDriver) {
    installDriver();
    RunResult r = run({"--trace", "/opt/ZOR/QLX/agent/log/topology.trace"});
    ASSERT_EQ(r.exitStatus, 0) << r.describe();
    std::string trace = host.readAgentFile("log/topology.trace");
    EXPECT_NE(trace.find("Exit: getVersion(), multipath driver version: multipath-tools-0.9.4-3\n"), std::string::npos)
        << trace;
    EXPECT_NE(trace.find("Found Path sdd: host=1, channel=0, target=0, lun=1\n"), std::string::npos) << trace;
    EXPECT_NE(trace.find("Exit: MultipathDMLinux::getMultipathConfig()\n"), std::string::npos) << trace;
}

}  // namespace
