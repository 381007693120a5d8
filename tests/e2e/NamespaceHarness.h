// Runs the installed tool the way the agent does, but on a host of the test's making:
// each run happens inside a private mount namespace (unshare -m, as root) where a
// fresh installation tree is mounted at /opt/ZOR/QLX, and where fake outside tools
// and fake SCSI/Fibre Channel trees replace the real ones. Nothing leaks to the host.
//
// Use (the e2e_install fixture has installed the build into a private prefix):
//
//   class MyE2eTest : public E2eTest {};          // skips when the namespace is refused
//   TEST_F(MyE2eTest, PolicyReachesDriver) {
//       NamespaceHarness host;
//       host.addFakeTool(ToolDir::Path, {"rpm", "multipath-tools-0.9.4\n", 0});
//       host.addFakeTool(ToolDir::Sbin, {"multipath", "", 0});
//       std::string scsi = host.makeHostDir("scsi_host");   // fill it, then
//       host.placeTree("/sys/class/scsi_host", scsi);
//       host.useFaketime("+0 x60");                  // optional: a faster clock
//       RunResult r = host.run({"-multipath", "3;mpatha"});
//       EXPECT_EQ(0, r.exitStatus) << r.describe();
//       host.readAgentFile("log/multipath.log");     // the tree outlives the run
//       host.toolCalls("multipath");                 // one entry per call: "$*"
//   }
//
// The tool sees /opt/ZOR/QLX/agent/{bin,nls,log}: bin and nls point at the installed
// files, log is a fresh directory of the test (agentDir() is its host path). Fake
// /sbin tools overlay the real directory (other tools stay visible; hideSbinTool
// removes one); fake PATH tools come first on PATH. Every directory the harness
// makes lives under one temporary root that the destructor removes.
#ifndef TESTS_E2E_NAMESPACEHARNESS_H
#define TESTS_E2E_NAMESPACEHARNESS_H

#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"

enum class ToolDir { Sbin, Path };
enum class InstallTree { Installed, Empty };

// A fake outside tool: records its arguments, then prints out (stdout) and err
// (stderr) and exits with exitStatus. A non-empty body replaces that behaviour
// with shell commands of the test's own (the arguments are "$@").
struct FakeTool {
    std::string name;
    std::string out;
    int exitStatus = 0;
    std::string err;
    std::string body;
};

struct RunResult {
    int exitStatus = -1;     // the program's; 128 + N when signal N ended it
    std::string out;
    std::string err;
    std::string setupError;  // set when the namespace could not be prepared
    // One line for assertion messages.
    std::string describe() const;
};

class NamespaceHarness {
public:
    NamespaceHarness();
    ~NamespaceHarness();
    NamespaceHarness(const NamespaceHarness&) = delete;
    NamespaceHarness& operator=(const NamespaceHarness&) = delete;

    // Empty when runs are possible, else why not (checked once per process).
    static const std::string& unavailableReason();
    // Host path of the installed agent directory that every run starts from.
    static std::string installedAgentDir();

    // Empty: an empty tmpfs at /opt/ZOR/QLX; the program is run from the
    // installed prefix instead.
    void setInstallTree(InstallTree tree) { tree_ = tree; }
    void addFakeTool(ToolDir where, const FakeTool& tool);
    void hideSbinTool(const std::string& name);
    // Mounts hostDir at target (for example /sys/class/fc_host or /proc/scsi),
    // creating the mount point in a writable overlay of its parent when needed.
    void placeTree(const std::string& target, const std::string& hostDir);
    // A new empty directory under the test's temporary root; returns its path.
    std::string makeHostDir(const std::string& name);
    // Runs the program under faketime with this spec (for example "+0 x60").
    void useFaketime(const std::string& spec) { faketime_ = spec; }
    void setTimeoutSeconds(int seconds) { timeoutSeconds_ = seconds; }

    // Runs bin/PathPlanner (or another installed program, or any program given by
    // its absolute path) with args.
    RunResult run(const std::vector<std::string>& args) { return runProgram("PathPlanner", args); }
    RunResult runProgram(const std::string& program, const std::vector<std::string>& args);

    // Host path of the tree the tool sees as /opt/ZOR/QLX/agent.
    std::string agentDir() const { return root_ + "/QLX/agent"; }
    // Contents of a file below agentDir(); empty when it does not exist.
    std::string readAgentFile(const std::string& relative) const;
    // Names in a directory below agentDir(), sorted.
    std::vector<std::string> listAgentDir(const std::string& relative) const;
    // The argument lines of every call of a fake tool, in call order.
    std::vector<std::string> toolCalls(const std::string& name) const;

private:
    std::string writeScript(const std::string& program, const std::vector<std::string>& args) const;
    std::string fakeDir(ToolDir where) const;

    std::string root_;
    InstallTree tree_ = InstallTree::Installed;
    std::vector<std::string> sbinFakes_;
    std::vector<std::string> sbinHidden_;
    std::vector<std::pair<std::string, std::string>> trees_;  // target, host dir
    std::string faketime_;
    int timeoutSeconds_ = 240;
};

// Fixture base of the end-to-end tests: skips (never fails) where the namespace
// is refused.
class E2eTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!NamespaceHarness::unavailableReason().empty()) GTEST_SKIP() << NamespaceHarness::unavailableReason();
    }
};

#endif
