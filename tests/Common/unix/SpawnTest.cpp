#include "Common/unix/psspawn.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "gtest/gtest.h"
#include "tests/support/TestFiles.h"

namespace {

using testfiles::exitCodeOf;
using testfiles::readFile;

// Runs argv through the shell with both streams in the files of info; returns the exit code.
int32_t runShell(const char* const argv[], SpawnInfo* info, bool append = false) {
    int32_t code = -1;
    if (SpawnExternalProgram(argv, info, true, false, append, nullptr) != RC_OK) return -2;
    return WaitForExternalProgram(info, &code, 0) == RC_OK ? code : -3;
}

TEST(SpawnTaskTest, StatusCharacterOnPipeGivesResult) {
    const std::string fake = std::string(PP_TESTS_ROOT) + "/fakes/agentstatus.sh";
    const std::pair<const char*, int32_t> cases[] = {
        {"1", RC_OK}, {"2", RC_CHILD_FAILED}, {"3", RC_CHILD_UNKNOWN}, {"", RC_CHILD_UNKNOWN}, {"21", RC_CHILD_FAILED}};
    for (const auto& c : cases) {
        const char* argv[] = {fake.c_str(), c.first, "0", nullptr};
        int32_t pid = 0;
        EXPECT_EQ(c.second, SpawnTask(argv, true, nullptr, &pid)) << "status '" << c.first << "'";
        EXPECT_EQ(0, exitCodeOf(pid)) << "status '" << c.first << "'";
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

TEST(SpawnCommandTextTest, SemicolonOutsideQuotesKeepsCommandList) {
    const struct { std::vector<const char*> argv; bool quoteArgs; std::string text; } cases[] = {
        {{"/bin/echo", "a b", nullptr}, false, "'/bin/echo' a b"},
        {{"/bin/echo", "a b", nullptr}, true, "'/bin/echo' 'a b'"},
        {{"/opt/my tool", nullptr}, false, "'/opt/my tool'"},
        {{"echo one; echo two", nullptr}, false, "echo one; echo two"},
        {{"echo \"x;y\"", nullptr}, false, "'echo \"x;y\"'"},
        {{"echo \"a\";echo b", "c", nullptr}, true, "echo \"a\";echo b 'c'"},
        {{"echo \"unclosed;", nullptr}, false, "'echo \"unclosed;'"},
        {{nullptr}, true, "''"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.text, psSpawnCommandText(c.argv.data(), c.quoteArgs)) << c.text;
}

TEST(SpawnExternalProgramTest, CommandListOutputIsAppendedOrTruncated) {
    const char* argv[] = {"echo new; echo oops >&2", nullptr};
    testfiles::TempDir dir;
    for (bool append : {true, false}) {
        SpawnInfo info;
        info.outFile = "\"" + dir.file("out") + "\"";  // a quoted name is accepted
        info.errFile = dir.file("err");
        testfiles::writeFile(dir.file("out"), "old\n");
        testfiles::writeFile(dir.file("err"), "old\n");
        ASSERT_EQ(0, runShell(argv, &info, append));
        EXPECT_EQ(append ? "old\nnew\n" : "new\n", readFile(dir.file("out"))) << append;
        EXPECT_EQ(append ? "old\noops\n" : "oops\n", readFile(dir.file("err"))) << append;
    }
    SpawnInfo nowhere;
    nowhere.outFile = nowhere.errFile = "/nonexistent-dir/out";
    EXPECT_EQ(RC_CANNOT_START, runShell(argv, &nowhere));
}

TEST(WaitForExternalProgramTest, ExitCodesAndSignals) {
    const struct { const char* text; int32_t timeout, exitCode; } cases[] = {
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
    int32_t code = -1;
    EXPECT_EQ(RC_CHILD_KILLED, WaitForExternalProgram(&info, &code, 1));
    EXPECT_EQ(-1, code);
    EXPECT_EQ(-1, kill(info.pid, 0));  // gone and reaped
    struct sigaction action;
    sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(SIG_DFL, action.sa_handler);  // the caller's action is back
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
