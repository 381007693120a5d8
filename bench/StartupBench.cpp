// What one run of the tool costs the agent beyond starting any process: the tool's
// set-up and tear-down (catalogue, activity log, trace, job file) measured beside a
// bare /bin/true, each as fork, exec and wait, in the same run.
//
// Needs root: the build is installed into a temporary prefix that a private mount
// namespace shows at /opt/ZOR/QLX, where the tool looks for its installation.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "benchmark/benchmark.h"

namespace {

std::string gSetupError;  // why the tool cannot be measured, empty when it can

// fork, exec, wait; output to /dev/null. Returns the exit status, or -1.
int runOnce(const std::vector<const char*>& argv) {
    pid_t pid = fork();
    if (pid == 0) {
        int devNull = open("/dev/null", O_WRONLY);
        dup2(devNull, STDOUT_FILENO);
        dup2(devNull, STDERR_FILENO);
        execv(argv[0], const_cast<char* const*>(argv.data()));
        _exit(127);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void measure(benchmark::State& state, std::vector<const char*> argv, int expectedStatus, bool needsInstall) {
    argv.push_back(nullptr);
    if (needsInstall && !gSetupError.empty()) {
        state.SkipWithError(gSetupError.c_str());
        return;
    }
    const int status = runOnce(argv);
    if (status != expectedStatus) {
        const std::string why = "exit status " + std::to_string(status) + ", expected " + std::to_string(expectedStatus);
        state.SkipWithError(why.c_str());
        return;
    }
    for (auto _ : state) benchmark::DoNotOptimize(runOnce(argv));
}

const char kTool[] = "/opt/ZOR/QLX/agent/bin/PathPlanner";

void BM_BareProcess(benchmark::State& state) {
    measure(state, {"/bin/true"}, 0, false);
}
void BM_PathPlannerVersion(benchmark::State& state) {
    measure(state, {kTool, "-version"}, 0, true);
}
void BM_PathPlannerRejectedRequest(benchmark::State& state) {
    measure(state, {kTool, "-multipath", "abc"}, 3, true);
}
BENCHMARK(BM_BareProcess)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PathPlannerVersion)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PathPlannerRejectedRequest)->Unit(benchmark::kMicrosecond);

// Installs the build under prefix and shows it at /opt/ZOR/QLX in a mount
// namespace private to this process. /opt is overlaid by a tmpfs when the host
// has no /opt/ZOR/QLX to mount on.
std::string prepareInstallation(const std::string& prefix) {
    const std::string install = std::string(PP_CMAKE_COMMAND) + " --install " + PP_BINARY_DIR + " --prefix " + prefix +
                                "/agent >/dev/null";
    std::string error;
    if (system(install.c_str()) != 0) {
        error = "cmake --install failed";
    } else if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        error = "no private mount namespace (needs root)";
    } else {
        bool ready = access("/opt/ZOR/QLX", F_OK) == 0;
        if (!ready && mount("pp-bench", "/opt", "tmpfs", 0, nullptr) == 0) {
            ready = mkdir("/opt/ZOR", 0755) == 0 && mkdir("/opt/ZOR/QLX", 0755) == 0;
        }
        if (!ready || mount(prefix.c_str(), "/opt/ZOR/QLX", nullptr, MS_BIND, nullptr) != 0) {
            error = "could not mount the installation at /opt/ZOR/QLX";
        }
    }
    return error;
}

}  // namespace

int main(int argc, char** argv) {
    char dirTemplate[] = "/tmp/pp-bench-XXXXXX";
    const std::string prefix = mkdtemp(dirTemplate) ? dirTemplate : "";
    gSetupError = prefix.empty() ? "no temporary directory" : prepareInstallation(prefix);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    umount2("/opt/ZOR/QLX", MNT_DETACH);
    const std::string cleanup = "rm -rf '" + prefix + "'";
    if (!prefix.empty() && system(cleanup.c_str()) != 0) fprintf(stderr, "could not remove %s\n", prefix.c_str());
    return 0;
}
