#include "Common/unix/psspawn.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "gtest/gtest.h"

namespace {

const std::string kStatusFake = std::string(PP_TESTS_DIR) + "/../fakes/agentstatus.sh";

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

std::string tempPath() {
    char name[] = "/tmp/spawnTestXXXXXX";
    int fd = mkstemp(name);
    if (fd >= 0) close(fd);
    return name;
}

int exitCodeOf(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// Runs a program text through the shell with both streams in fresh temporary files.
struct ShellRun {
    int32_t spawnRc = -1;
    int32_t waitRc = -1;
    int32_t exitCode = -1;
    std::string out;
    std::string err;
};

ShellRun runShell(const char* const argv[], bool quoteArgs) {
    ShellRun run;
    SpawnInfo info;
    run.spawnRc = SpawnExternalProgram(argv, &info, true, quoteArgs, false, nullptr);
    if (run.spawnRc == RC_OK) run.waitRc = WaitForExternalProgram(&info, &run.exitCode, 0);
    run.out = readFile(info.outFile);
    run.err = readFile(info.errFile);
    unlink(info.outFile.c_str());
    unlink(info.errFile.c_str());
    return run;
}

TEST(SpawnTaskTest, StatusCharacterOnPipeGivesResult) {
    const struct {
        const char* status;
        int32_t rc;
    } cases[] = {{"1", RC_OK}, {"2", RC_CHILD_FAILED}, {"3", RC_CHILD_UNKNOWN},
                 {"", RC_CHILD_UNKNOWN},  // nothing written: end of file
                 {"21", RC_CHILD_FAILED}, {"12", RC_OK}};
    for (const auto& c : cases) {
        const char* argv[] = {kStatusFake.c_str(), c.status, "0", nullptr};
        int32_t pid = 0;
        EXPECT_EQ(c.rc, SpawnTask(argv, true, nullptr, &pid)) << "status '" << c.status << "'";
        EXPECT_EQ(0, exitCodeOf(pid)) << "status '" << c.status << "'";
    }
}

TEST(SpawnTaskTest, MissingProgramExitsWithCannotStart) {
    const char* argv[] = {"/nonexistent/agent", "x", nullptr};
    int32_t pid = 0;
    EXPECT_EQ(RC_OK, SpawnTask(argv, false, nullptr, &pid));
    EXPECT_EQ(RC_CANNOT_START, exitCodeOf(pid));
    EXPECT_EQ(RC_CHILD_UNKNOWN, SpawnTask(argv, true, nullptr, &pid));
    EXPECT_EQ(RC_CANNOT_START, exitCodeOf(pid));
    const char* empty[] = {nullptr};
    EXPECT_EQ(RC_CANNOT_START, SpawnTask(empty, false, nullptr, nullptr));
}

TEST(SpawnTaskTest, EnvironmentReplacesParents) {
    setenv("SPAWN_MARK", "parent", 1);
    const char* argv[] = {"/bin/sh", "-c", "test \"$SPAWN_MARK\" = child", nullptr};
    const char* envp[] = {"SPAWN_MARK=child", nullptr};
    int32_t pid = 0;
    ASSERT_EQ(RC_OK, SpawnTask(argv, false, envp, &pid));
    EXPECT_EQ(0, exitCodeOf(pid));
    ASSERT_EQ(RC_OK, SpawnTask(argv, false, nullptr, &pid));
    EXPECT_EQ(1, exitCodeOf(pid));
    unsetenv("SPAWN_MARK");
}

TEST(ChildListTest, ReapRemovesEndedChildrenOnly) {
    WaitForChildProcesses(CHILD_LIST_CREATE, 0);
    WaitForChildProcesses(CHILD_LIST_REAP, 0);
    int32_t before = psChildCount();
    const char* sleeper[] = {"/bin/sleep", "30", nullptr};
    const char* quick[] = {"/bin/true", nullptr};
    int32_t sleeperPid = 0;
    ASSERT_EQ(RC_OK, SpawnTask(sleeper, false, nullptr, &sleeperPid));
    ASSERT_EQ(RC_OK, SpawnTask(quick, false, nullptr, nullptr));
    EXPECT_EQ(before + 2, psChildCount());
    for (int i = 0; i < 500 && psChildCount() > before + 1; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        WaitForChildProcesses(CHILD_LIST_REAP, 0);
    }
    EXPECT_EQ(before + 1, psChildCount());  // the sleeper stays
    kill(sleeperPid, SIGKILL);
    for (int i = 0; i < 500 && psChildCount() > before; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        WaitForChildProcesses(CHILD_LIST_REAP, 0);
    }
    EXPECT_EQ(before, psChildCount());
}

TEST(SpawnCommandTextTest, SemicolonOutsideQuotesKeepsCommandList) {
    const struct {
        std::vector<const char*> argv;
        bool quoteArgs;
        std::string text;
    } cases[] = {
        {{"/bin/echo", "a b", nullptr}, false, "'/bin/echo' a b"},
        {{"/bin/echo", "a b", nullptr}, true, "'/bin/echo' 'a b'"},
        {{"/opt/my tool", nullptr}, false, "'/opt/my tool'"},
        {{"echo one; echo two", nullptr}, false, "echo one; echo two"},
        {{"echo \"x;y\"", nullptr}, false, "'echo \"x;y\"'"},
        {{"echo \"a\";echo b", "c", nullptr}, true, "echo \"a\";echo b 'c'"},
        {{"echo \"unclosed;", nullptr}, false, "'echo \"unclosed;'"},
        {{nullptr}, true, "''"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.text, psSpawnCommandText(c.argv.data(), c.quoteArgs)) << c.text;
    }
}

TEST(SpawnExternalProgramTest, ShellRunsCommandListOrQuotedProgram) {
    const char* list[] = {"echo one; echo two", nullptr};
    ShellRun run = runShell(list, false);
    EXPECT_EQ(RC_OK, run.spawnRc);
    EXPECT_EQ(RC_OK, run.waitRc);
    EXPECT_EQ(0, run.exitCode);
    EXPECT_EQ("one\ntwo\n", run.out);

    // Wrapped whole, the text names a program that does not exist.
    const char* quoted[] = {"echo \"x;y\"", nullptr};
    run = runShell(quoted, false);
    EXPECT_EQ(127, run.exitCode);
    EXPECT_EQ("", run.out);
    EXPECT_NE(std::string::npos, run.err.find("not found")) << run.err;

    const char* spaced[] = {"/bin/echo", "a  b", nullptr};
    EXPECT_EQ("a  b\n", runShell(spaced, true).out);
    EXPECT_EQ("a b\n", runShell(spaced, false).out);
}

TEST(SpawnExternalProgramTest, RedirectAppendsOrTruncates) {
    const char* argv[] = {"echo new; echo oops >&2", nullptr};
    for (bool append : {true, false}) {
        SpawnInfo info;
        info.outFile = "\"" + tempPath() + "\"";  // a quoted name is accepted
        info.errFile = tempPath();
        std::string outPath = info.outFile.substr(1, info.outFile.size() - 2);
        writeFile(outPath, "old\n");
        writeFile(info.errFile, "old\n");
        int32_t code = -1;
        ASSERT_EQ(RC_OK, SpawnExternalProgram(argv, &info, true, false, append, nullptr));
        ASSERT_EQ(RC_OK, WaitForExternalProgram(&info, &code, 0));
        EXPECT_EQ(append ? "old\nnew\n" : "new\n", readFile(outPath)) << append;
        EXPECT_EQ(append ? "old\noops\n" : "oops\n", readFile(info.errFile)) << append;
        unlink(outPath.c_str());
        unlink(info.errFile.c_str());
    }
}

TEST(SpawnExternalProgramTest, UnopenableOutputEndsChildWithCannotStart) {
    const char* argv[] = {"/bin/true", nullptr};
    SpawnInfo info;
    info.outFile = "/nonexistent-dir/out";
    info.errFile = "/nonexistent-dir/err";
    int32_t code = -1;
    ASSERT_EQ(RC_OK, SpawnExternalProgram(argv, &info, true, false, false, nullptr));
    EXPECT_EQ(RC_OK, WaitForExternalProgram(&info, &code, 0));
    EXPECT_EQ(RC_CANNOT_START, code);
}

TEST(WaitForExternalProgramTest, ExitCodesAndSignals) {
    const struct {
        const char* text;
        int32_t timeout;
        int32_t exitCode;
    } cases[] = {
        {"sleep 0.2; exit 3", 0, 3},  // no time limit
        {"exit 0; :", 5, 0},
        {"kill -TERM $$; sleep 5", 5, SIGTERM},
    };
    for (const auto& c : cases) {
        const char* argv[] = {c.text, nullptr};
        SpawnInfo info;
        int32_t code = -1;
        ASSERT_EQ(RC_OK, SpawnExternalProgram(argv, &info, false, false, false, nullptr));
        EXPECT_EQ(RC_OK, WaitForExternalProgram(&info, &code, c.timeout)) << c.text;
        EXPECT_EQ(c.exitCode, code) << c.text;
    }
}

TEST(WaitForExternalProgramTest, HangingChildIsKilledAfterTimeout) {
    // exec: the kill reaches the sleeper itself, not a shell that would leave it behind.
    const char* argv[] = {"exec /bin/sleep 30;", nullptr};
    SpawnInfo info;
    ASSERT_EQ(RC_OK, SpawnExternalProgram(argv, &info, false, false, false, nullptr));
    auto start = std::chrono::steady_clock::now();
    int32_t code = -1;
    EXPECT_EQ(RC_CHILD_KILLED, WaitForExternalProgram(&info, &code, 1));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(-1, code);
    EXPECT_EQ(-1, kill(info.pid, 0));  // gone and reaped
    struct sigaction action;
    sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(SIG_DFL, action.sa_handler);  // the caller's action is back
}

TEST(WaitForExternalProgramTest, WaitOnNonChildFails) {
    SpawnInfo info;
    info.pid = 1;
    int32_t code = -1;
    EXPECT_EQ(RC_WAIT_FAILED, WaitForExternalProgram(&info, &code, 0));
    EXPECT_EQ(RC_WAIT_FAILED, WaitForExternalProgram(&info, &code, 3));
    EXPECT_EQ(0u, alarm(0));  // no alarm left pending
}

TEST(PsIsProcessRunningTest, PidAndOptionalName) {
    const char* argv[] = {"/bin/true", nullptr};
    int32_t gone = 0;
    ASSERT_EQ(RC_OK, SpawnTask(argv, false, nullptr, &gone));
    exitCodeOf(gone);
    const struct {
        int32_t pid;
        const char* name;
        bool running;
    } cases[] = {
        {1, "", true},
        {1, nullptr, true},
        {static_cast<int32_t>(getpid()), "SpawnTest", true},
        {static_cast<int32_t>(getpid()), "sshd", false},
        {gone, "", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.running, psIsProcessRunning(c.pid, c.name)) << c.pid << " " << (c.name ? c.name : "(null)");
    }
}

TEST(PsDaemonizeTest, GrandchildRunsDetachedInRoot) {
    int report[2];
    ASSERT_EQ(0, pipe(report));
    pid_t first = fork();
    if (first == 0) {
        close(report[0]);
        int32_t rc = psDaemonize();
        char cwd[64] = "";
        char text[160];
        int n = snprintf(text, sizeof(text), "%d %d %d %s", rc, static_cast<int>(getsid(0)),
                         static_cast<int>(getpgrp()), getcwd(cwd, sizeof(cwd)) ? cwd : "?");
        if (write(report[1], text, static_cast<size_t>(n)) < 0) _exit(2);
        _exit(0);
    }
    close(report[1]);
    EXPECT_EQ(0, exitCodeOf(first));  // the caller's own process leaves with 0
    char text[160] = "";
    ssize_t got = read(report[0], text, sizeof(text) - 1);
    close(report[0]);
    ASSERT_GT(got, 0);
    int rc = -2, sid = 0, group = 0;
    char cwd[64] = "";
    ASSERT_EQ(4, sscanf(text, "%d %d %d %63s", &rc, &sid, &group, cwd)) << text;
    EXPECT_EQ(access("/dev/console", W_OK) == 0 ? 0 : -1, rc);
    EXPECT_NE(getsid(0), sid);  // a session of its own
    EXPECT_NE(first, sid);
    EXPECT_EQ("/", std::string(cwd));
}

}  // namespace
