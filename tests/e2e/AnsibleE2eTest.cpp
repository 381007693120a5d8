// The zor.pathplanner modules run by ansible-playbook (connection local) inside the
// namespace harness, so the installed tool meets fake drivers: each outcome class of a
// run reaches the play as rc, rc_meaning, messages, changed, failed and warnings.
#include <unistd.h>

#include <algorithm>

#include "tests/e2e/E2eHosts.h"

namespace {

class AnsibleE2eTest : public E2eTest {};

// ansible-playbook with the collection from the source tree and its own files
// kept under the harness's temporary tree.
RunResult runPlaybook(NamespaceHarness* host, const std::string& extraVars, bool checkMode) {
    const std::string home = host->makeHostDir("ansible-home");
    // In a sanitizer build, the leak check cannot read the tool's /proc entry from under
    // the module's process (it fails the run); the other end-to-end tests check leaks.
    std::vector<std::string> args = {
        "ANSIBLE_COLLECTIONS_PATH=" PP_SOURCE_DIR "/contrib/ansible", "ANSIBLE_HOME=" + home,
        "ANSIBLE_LOCAL_TEMP=" + home + "/tmp", "ANSIBLE_REMOTE_TEMP=" + home + "/remote", "ANSIBLE_NOCOLOR=1",
        "PYTHONDONTWRITEBYTECODE=1", "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0",
        "/usr/bin/ansible-playbook", "-i", "localhost,", "-c", "local", "-e",
        "ansible_python_interpreter=/usr/bin/python3", "-e", extraVars, PP_TESTS_ROOT "/ansible/playbooks/module-result.yml"};
    if (checkMode) args.push_back("--check");
    return host->run(args, "/usr/bin/env");
}

// A rescan ends with the script's own status 1 when there is no adapter to scan; one that
// finds nothing new is not a change.
TEST_F(AnsibleE2eTest, EachOutcomeReachesThePlay) {
    if (access("/usr/bin/ansible-playbook", X_OK) != 0) GTEST_SKIP() << "ansible-core is not installed";
    const struct {
        bool dm;           // the device-mapper tools are there; otherwise the host has no driver
        bool adapter;      // a SCSI host adapter, so that a rescan pauses three times
        bool check;        // the play runs in check mode
        const char* vars;  // req: module options; expect: what the play must see
    } cases[] = {
        {true, false, false,
         R"({"req": {"action": "policy", "policy": "round_robin", "devices": ["mpatha"]},
             "expect": {"rc": 0, "changed": true, "failed": false, "meaning": "success",
                        "message": "AGT0458I Setting the path-selection policy Round Robin on the devices: mpatha"}})"},
        // By design the device-mapper driver changes nothing on this request.
        {true, false, false,
         R"({"req": {"action": "path_state", "state": "offline", "device": "mpatha", "wwpns": ["10000000c95a3b10"]},
             "expect": {"rc": 0, "changed": false, "failed": false, "warning": "device-mapper driver leaves path states"}})"},
        // A run that logged no warning or error gives its other entries as the reason.
        {true, false, false,
         R"({"req": {"action": "policy", "policy": "failover", "devices": ["mpatha"]},
             "expect": {"rc": 172, "changed": false, "failed": true, "meaning": "not supported by the device-mapper",
                        "msg": "AGT0454I The multipath driver in use cannot set the requested policy"}})"},
        {false, false, false, R"({"req": {"action": "rescan"}, "expect": {"rc": 1, "changed": false, "failed": true,
             "meaning": "rescan script found no SCSI subsystem or no host adapter", "msg": "exited with 1"}})"},
        {false, true, false, R"({"req": {"action": "rescan"}, "expect": {"rc": 0, "changed": false, "failed": false,
             "message": "AGT0459I", "warning": "the rescan found no new device"}})"},
        // Check mode says what would run and runs nothing: no rc, no pause.
        {false, true, true, R"({"req": {"action": "rescan"}, "expect": {"rc": -1, "changed": true, "failed": false,
             "msg": "check mode: would run /opt/ZOR/QLX/agent/bin/PathPlanner -multipath 5"}})"},
    };
    for (const auto& c : cases) {
        NamespaceHarness host;
        installDrivers(&host, false, c.dm);
        placeScsi(&host, c.adapter);
        host.addFakeTool("sleep", "");
        RunResult r = runPlaybook(&host, c.vars, c.check);
        EXPECT_EQ(0, r.exitStatus) << c.vars << "\n" << r.describe();
        // ansible runs "sleep 0" itself; the script's pauses are "sleep 10".
        const std::vector<std::string> calls = host.toolCalls("sleep");
        EXPECT_EQ(c.adapter && !c.check ? 3 : 0, std::count(calls.begin(), calls.end(), "10")) << c.vars;
    }
}

}  // namespace
