// Runs the installed tool the way the agent does, but on a host of the test's making:
// each run happens inside a private mount namespace (unshare -m, as root) where a fresh
// installation tree is mounted at /opt/ZOR/QLX, and where fake outside tools and fake
// /sys and /proc trees replace the real ones. Nothing leaks to the host.
//
//   NamespaceHarness host;
//   host.addFakeTool("rpm", "echo multipath-tools-0.9.4");   // shell; arguments in "$@"
//   host.addAnsweringTool("multipath", "", 0);
//   host.placeTree("/sys/class/scsi_host", host.makeHostDir("scsi_host"));
//   RunResult r = host.run({"-multipath", "3;mpatha"});
//   host.readAgentFile("log/multipath.log");   // the tree outlives the run
//   host.toolCalls("multipath");               // one entry per call: "$*"
//
// The tool sees /opt/ZOR/QLX/agent/{bin,nls,log}: bin and nls are the files the e2e_install
// fixture installed, log is a fresh directory of the test (agentDir() is its host path).
// Each fake comes first on PATH and replaces /sbin/<name>; the other /sbin tools stay
// visible unless hidden. Everything lives under one temporary root, removed at the end.
#ifndef TESTS_E2E_NAMESPACEHARNESS_H
#define TESTS_E2E_NAMESPACEHARNESS_H

#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

struct RunResult {
    int exitStatus = -1;  // the program's; 128 + N when signal N ended it
    std::string out;
    std::string err;
    std::string setupError;  // set when the namespace could not be prepared
    std::string describe() const;
};

class NamespaceHarness {
public:
    NamespaceHarness();

    // Empty when runs are possible, else why not (checked once per process).
    static const std::string& unavailableReason();

    // An empty tmpfs at /opt/ZOR/QLX; the program then runs from the installed prefix.
    void hideInstallation() { emptyInstall_ = true; }
    // A fake tool that records its arguments, then runs body.
    void addFakeTool(const std::string& name, const std::string& body);
    // A fake tool that prints out and err and exits with status.
    void addAnsweringTool(const std::string& name, const std::string& out, int status = 0, const std::string& err = "");
    void hideSbinTool(const std::string& name) { hidden_.push_back(name); }
    // Mounts hostDir at target (such as /proc/scsi), making the mount point when needed.
    void placeTree(const std::string& target, const std::string& hostDir) { trees_.emplace_back(target, hostDir); }
    std::string makeHostDir(const std::string& name);
    // Makes an existing path (such as /proc/scsi) absent in the namespace.
    void hidePath(const std::string& target) { hiddenPaths_.push_back(target); }
    // Runs the program under faketime with this clock setting (such as "+0 x20").
    void useFaketime(const std::string& clock) { faketime_ = clock; }
    // Sets a variable for the program. LC_ALL, LC_MESSAGES and LANG are otherwise unset,
    // so messages are English whatever the test's own environment says.
    void setEnv(const std::string& name, const std::string& value) { env_.emplace_back(name, value); }
    // Runs the program on a pseudo-terminal (standard output and error both), as a
    // person at a shell does; RunResult::out then holds everything it wrote, with the
    // terminal's "\r\n" line ends, and err is empty.
    void useTerminal() { terminal_ = true; }
    // Runs the program with this umask (such as "000") instead of the test's own.
    void useUmask(const std::string& mask) { umask_ = mask; }

    // Runs an installed program (or one given by its absolute path) with args.
    RunResult run(const std::vector<std::string>& args, const std::string& program = "PathPlanner");

    std::string agentDir() const { return root_.file("QLX/agent"); }
    std::string readAgentFile(const std::string& relative) const;
    std::vector<std::string> listAgentDir(const std::string& relative) const;  // sorted names
    std::vector<std::string> toolCalls(const std::string& name) const;

private:
    std::string script(const std::string& program, const std::vector<std::string>& args) const;

    testfiles::TempDir root_;
    bool emptyInstall_ = false;
    std::vector<std::string> fakes_;
    std::vector<std::string> hidden_;
    std::vector<std::pair<std::string, std::string>> trees_;  // target, host dir
    std::vector<std::string> hiddenPaths_;
    std::vector<std::pair<std::string, std::string>> env_;  // name, value
    std::string faketime_;
    bool terminal_ = false;
    std::string umask_;
};

// text as one word of a POSIX shell command line.
inline std::string shellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// Fixture base of the end-to-end tests: skips (never fails) where the namespace is refused.
class E2eTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!NamespaceHarness::unavailableReason().empty()) GTEST_SKIP() << NamespaceHarness::unavailableReason();
    }
};

#endif
