// The zor.pathplanner modules run by ansible-playbook (connection local) inside the
// namespace harness, so the installed tool meets fake drivers: each outcome class of a
// run reaches the play as rc, rc_meaning, messages, changed, failed and warnings.
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "gmock/gmock.h"
#include "tests/e2e/E2eHosts.h"

using ::testing::HasSubstr;
using testfiles::readFile;
namespace fs = std::filesystem;

namespace {

const char kPlaybook[] = PP_TESTS_ROOT "/ansible/playbooks/module-result.yml";
const char kDrainPlaybook[] =
    PP_SOURCE_DIR "/contrib/ansible/ansible_collections/zor/pathplanner/playbooks/drain_and_restore.yml";
const char kWwpn[] = "10:00:00:00:c9:5a:3b:10";

class AnsibleE2eTest : public E2eTest {
protected:
    void SetUp() override {
        E2eTest::SetUp();
        if (access("/usr/bin/ansible-playbook", X_OK) != 0) GTEST_SKIP() << "ansible-core is not installed";
    }
};

// ansible-playbook with the collection from the source tree and its own files
// kept under the harness's temporary tree.
RunResult runPlaybook(NamespaceHarness* host, const std::string& extraVars, const std::string& playbook = kPlaybook) {
    const std::string home = host->makeHostDir("ansible-home");
    // In a sanitizer build, the leak check cannot read the tool's /proc entry from under
    // the module's process (it fails the run); the other end-to-end tests check leaks.
    std::vector<std::string> args = {
        "ANSIBLE_COLLECTIONS_PATH=" PP_SOURCE_DIR "/contrib/ansible", "ANSIBLE_HOME=" + home,
        "ANSIBLE_LOCAL_TEMP=" + home + "/tmp", "ANSIBLE_REMOTE_TEMP=" + home + "/remote", "ANSIBLE_NOCOLOR=1",
        "PYTHONDONTWRITEBYTECODE=1", "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0",
        "/usr/bin/ansible-playbook", "-i", "localhost,", "-c", "local", "-e",
        "ansible_python_interpreter=/usr/bin/python3", "-e", extraVars, playbook};
    return host->run(args, "/usr/bin/env");
}

// A rescan ends with the script's own status 1 when there is no adapter to scan; one that
// finds nothing new is not a change.
TEST_F(AnsibleE2eTest, EachOutcomeReachesThePlay) {
    const struct {
        bool vendor, dm;
        int setStatus;
        bool adapter;      // a SCSI host adapter, so that a rescan pauses three times
        const char* vars;  // req: module options; expect: what the play must see
    } cases[] = {
        {false, true, 0, false,
         R"({"req": {"action": "policy", "policy": "round_robin", "devices": ["mpatha"]},
             "expect": {"rc": 0, "changed": true, "failed": false, "meaning": "success",
                        "message": "AGT0458I Setting the path-selection policy Round Robin on the devices: mpatha"}})"},
        {true, false, 0, false,
         R"({"req": {"action": "path_state", "state": "offline", "device": "lundev1", "wwpns": ["10000000c95a3b10"]},
             "expect": {"rc": 0, "changed": true, "failed": false, "message": "finished with return code 0"}})"},
        // By design the device-mapper driver changes nothing on this request.
        {false, true, 0, false,
         R"({"req": {"action": "path_state", "state": "offline", "device": "mpatha", "wwpns": ["10000000c95a3b10"]},
             "expect": {"rc": 0, "changed": false, "failed": false, "warning": "device-mapper driver leaves path states"}})"},
        {false, false, 0, false,
         R"({"req": {"action": "policy", "policy": "failover", "devices": ["lundev0"]},
             "expect": {"rc": 169, "changed": false, "failed": true, "meaning": "no multipath driver",
                        "msg": "AGT0456E No multipath driver was found"}})"},
        {true, false, 0, false,
         R"({"req": {"action": "policy", "policy": "load_balancing", "devices": ["nodev"]},
             "expect": {"rc": 170, "changed": false, "failed": true, "meaning": "vendor device unknown",
                        "msg": "AGT0452E The multipath driver does not know the device nodev"}})"},
        {false, true, 0, false,
         R"({"req": {"action": "policy", "policy": "failover", "devices": ["mpatha"]},
             "expect": {"rc": 172, "changed": false, "failed": true, "meaning": "not supported by the device-mapper",
                        "msg": "AGT0454I The multipath driver in use cannot set the requested policy"}})"},
        {true, false, 2, false,
         R"({"req": {"action": "policy", "policy": "round_robin", "devices": ["lundev0"]},
             "expect": {"rc": 173, "changed": false, "failed": true, "meaning": "driver command failed",
                        "msg": "AGT0453E The multipath driver could not change the device lundev0"}})"},
        {false, false, 0, false, R"({"req": {"action": "rescan"}, "expect": {"rc": 1, "changed": false, "failed": true,
             "meaning": "rescan script found no SCSI subsystem or no host adapter", "msg": "exited with 1"}})"},
        {false, false, 0, true, R"({"req": {"action": "rescan"}, "expect": {"rc": 0, "changed": false, "failed": false,
             "message": "AGT0459I", "warning": "the rescan found no new device"}})"},
    };
    for (const auto& c : cases) {
        NamespaceHarness host;
        installDrivers(&host, c.vendor, c.dm, c.setStatus);
        placeScsi(&host, c.adapter);
        host.addFakeTool("sleep", "");
        RunResult r = runPlaybook(&host, c.vars);
        EXPECT_EQ(0, r.exitStatus) << c.vars << "\n" << r.describe();
        // ansible runs "sleep 0" itself; the script's pauses are "sleep 10".
        const std::vector<std::string> calls = host.toolCalls("sleep");
        EXPECT_EQ(c.adapter ? 3 : 0, std::count(calls.begin(), calls.end(), "10")) << c.vars;
    }
}

// A copy of the installed PathPlanner beside the fake PathPlannerTopology of tests/ansible, whose
// answers the test writes next to it; the topology tool's calls come back one per line.
struct DrainHost {
    NamespaceHarness host;
    std::string bin = host.makeHostDir("bin");
    DrainHost() {
        installDrivers(&host, false, false);
        fs::copy_file(PP_BINARY_DIR "/e2e-prefix/agent/bin/PathPlanner", bin + "/PathPlanner");
        fs::copy_file(PP_TESTS_ROOT "/ansible/fake-PathPlannerTopology", bin + "/PathPlannerTopology");
        testfiles::writeFile(bin + "/json.out", readFile(PP_TESTS_ROOT "/ansible/data/topology-v2.json"));
        host.placeTree("/opt/ZOR/QLX/agent/bin", bin);
        placeScsi(&host);
        host.addFakeTool("sleep", "");
    }
    void answerChange(const std::string& out, int status) {
        testfiles::writeFile(bin + "/change.out", out);
        testfiles::writeFile(bin + "/change.status", std::to_string(status));
    }
    std::vector<std::string> topologyCalls() const { return testfiles::splitLines(readFile(bin + "/calls")); }
};

// The example playbook on one host: offline, facts, online, facts, rescan; a refused
// drain stops the play before anything is brought back or rescanned.
TEST_F(AnsibleE2eTest, DrainAndRestorePlaybook) {
    const std::string vars = std::string(R"({"wwpn": ")") + kWwpn + R"(", "maps": ["mpatha"], "ansible_become": false})";
    const std::string offline = std::string(R"(["--offline", ")") + kWwpn + R"(", "--map", "mpatha"])";
    const std::string online = std::string(R"(["--online", ")") + kWwpn + R"(", "--map", "mpatha"])";
    const struct {
        const char* answer;
        int status;
        std::vector<std::string> calls;
        const char* said;
    } cases[] = {
        {R"({"changed": ["sdb"], "unchanged": [], "refused": [], "failed": []})", 0,
         {offline, R"(["--json"])", online, R"(["--json"])"}, "offline: 1, back online: 1"},
        {R"({"changed": [], "unchanged": [], "refused": [{"map": "mpatha"}], "failed": []})", 1, {offline},
         "a map would lose its last usable path"},
    };
    for (const auto& c : cases) {
        DrainHost drain;
        drain.answerChange(c.answer, c.status);
        RunResult r = runPlaybook(&drain.host, vars, kDrainPlaybook);
        EXPECT_EQ(c.status == 0, r.exitStatus == 0) << r.describe();
        EXPECT_EQ(drain.topologyCalls(), c.calls);
        EXPECT_THAT(r.out, HasSubstr(c.said));
        // The rescan comes last, only after a drain that went through.
        EXPECT_EQ(c.status == 0, readFile(drain.host.agentDir() + "/log/multipath.log").find("AGT0459I") != std::string::npos);
    }
}

}  // namespace
